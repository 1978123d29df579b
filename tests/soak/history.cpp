#include "tests/soak/history.h"

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <utility>

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

constexpr std::size_t fieldCount = 7;

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> pieces(1);
  for (const char letter : text) {
    if (letter == separator) {
      pieces.emplace_back();
    } else {
      pieces.back() += letter;
    }
  }
  return pieces;
}

std::optional<std::int64_t> Number(const std::string& digits) {
  if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return std::stoll(digits);
}

// What one account looks like for a while.
enum class Look { Present, Absent, Begun, Empty, Unreadable };

struct Variant {
  RootAccount account;
  SoakTime earliest;
};

struct Phase {
  Look look = Look::Absent;
  SoakTime earliest;
  SoakTime latest;
  SoakTime earliestEnd;
  bool lastsBound = false;  // so it has been read, and in time
  bool read = false;
  std::vector<Variant> variants;
  std::string causes;
};

Look LookOf(const std::string& name, const VisibleState& state) {
  if (state.sight == Sight::Unreadable) {
    return Look::Unreadable;
  }
  if (state.roots.count(name) != 0) {
    return Look::Present;
  }
  switch (state.sight) {
    case Sight::Begun:
      return Look::Begun;
    case Sight::Empty:
      return Look::Empty;
    default:
      return Look::Absent;
  }
}

std::vector<Phase> PhasesOf(const std::string& name, const Segment& segment, milliseconds bound) {
  std::vector<Phase> phases;
  for (const VisibleState& state : segment.states) {
    const Look look = LookOf(name, state);
    if (phases.empty() || phases.back().look != look) {
      if (!phases.empty()) {
        phases.back().earliestEnd = state.earliest;
      }
      phases.emplace_back();
      phases.back().look = look;
      phases.back().earliest = state.earliest;
      phases.back().latest = state.latest;
      phases.back().causes = state.cause;
    }
    if (look == Look::Present) {
      phases.back().variants.push_back({state.roots.at(name), state.earliest});
    }
  }
  if (!phases.empty()) {
    phases.back().earliestEnd = segment.end;
  }
  for (Phase& phase : phases) {
    phase.lastsBound = Undelayed(phase.latest, phase.earliestEnd, segment.delays) >= bound;
    phase.read = phase.lastsBound || (segment.lastWasRead && &phase == &phases.back());
  }
  return phases;
}

bool Shows(const Phase& phase, const SoakAlert& alert) {
  return std::any_of(phase.variants.begin(), phase.variants.end(), [&alert](const Variant& variant) {
    return variant.account == alert.account && variant.earliest <= alert.at;
  });
}

struct Rules {
  bool begunCounts;  // the reading of such a file makes the agent forget
  bool emptyCounts;
  bool mustBeRead;  // long phases and the last one are not passed over, and alerts are in time
};

class Choices {
 public:
  Choices(const Segment& judged, milliseconds limit, const std::vector<Phase>& ofAccount,
          const std::vector<SoakAlert>& alertsOfAccount)
      : segment(judged), bound(limit), phases(ofAccount), alerts(alertsOfAccount) {}

  // The most alerts, in order, that some choice of readings explains; nothing when no choice keeps the rules.
  std::optional<std::size_t> Explained(Rules rules) const {
    std::set<Known> possible = {{!segment.firstOfLife && phases.front().look == Look::Present, 0}};
    for (const Phase& phase : phases) {
      std::set<Known> next;
      for (const Known& before : possible) {
        if (!phase.read || !rules.mustBeRead || Blind(phase, rules)) {
          next.insert(before);
        }
        if (!Blind(phase, rules)) {
          Read(phase, before, rules, next);
        }
      }
      possible = std::move(next);
    }
    std::optional<std::size_t> most;
    for (const Known& known : possible) {
      most = std::max(most.value_or(0), known.second);
    }
    return most;
  }

 private:
  using Known = std::pair<bool, std::size_t>;  // whether the agent knows the account as root; alerts so far

  static bool Blind(const Phase& phase, Rules rules) {
    return phase.look == Look::Unreadable || (phase.look == Look::Begun && !rules.begunCounts) ||
           (phase.look == Look::Empty && !rules.emptyCounts);
  }

  void Read(const Phase& phase, const Known& before, Rules rules, std::set<Known>& next) const {
    if (phase.look != Look::Present) {
      next.insert({false, before.second});
    } else if (before.first) {
      next.insert(before);
    } else if (before.second < alerts.size() && Fits(phase, alerts[before.second], rules)) {
      next.insert({true, before.second + 1});
    }
  }

  bool Fits(const Phase& phase, const SoakAlert& alert, Rules rules) const {
    const bool late =
        rules.mustBeRead && phase.lastsBound && Undelayed(phase.latest, alert.at, segment.delays) > bound;
    return Shows(phase, alert) && !late;
  }

  const Segment& segment;
  const milliseconds bound;
  const std::vector<Phase>& phases;
  const std::vector<SoakAlert>& alerts;
};

std::string Milliseconds(SoakTime time, SoakTime origin) {
  std::ostringstream text;
  text.setf(std::ios::fixed);
  text.precision(1);
  text << std::chrono::duration<double, std::milli>(time - origin).count();
  return text.str();
}

std::string Described(const RootAccount& account) {
  return account.name + ":" + std::to_string(account.uid) + ":" + std::to_string(account.gid) + ":" +
         account.home + ":" + account.shell;
}

std::string Story(const Segment& segment, const std::vector<Phase>& phases,
                  const std::vector<SoakAlert>& alerts, SoakTime origin) {
  static const std::array<const char*, 5> looks = {"present", "absent", "begun", "empty", "unreadable"};
  std::string text = segment.firstOfLife ? "  a life begins\n" : "  read wholly before\n";
  constexpr std::size_t shown = 20;
  for (std::size_t i = phases.size() > shown ? phases.size() - shown : 0; i < phases.size(); ++i) {
    const Phase& phase = phases[i];
    text += "  " + Milliseconds(phase.earliest, origin) + ".." + Milliseconds(phase.latest, origin) + " to " +
            Milliseconds(phase.earliestEnd, origin) + " " + looks[static_cast<std::size_t>(phase.look)] +
            " (" + phase.causes + ")" + (phase.read ? " must be read" : "") + "\n";
  }
  for (const Delay& delay : segment.delays) {
    text +=
        "  delayed from " + Milliseconds(delay.from, origin) + " to " + Milliseconds(delay.to, origin) + "\n";
  }
  for (const SoakAlert& alert : alerts) {
    text += "  alert at " + Milliseconds(alert.at, origin) + " " + Described(alert.account) + "\n";
  }
  return text + "  " + (segment.lastWasRead ? "read wholly at " : "ended at ") +
         Milliseconds(segment.end, origin) + "\n";
}

bool WasShown(const SoakAlert& alert, const std::vector<Phase>& phases) {
  return std::any_of(phases.begin(), phases.end(),
                     [&alert](const Phase& phase) { return Shows(phase, alert); });
}

}  // namespace

RootAccounts RootAccountsIn(const std::string& content) {
  RootAccounts roots;
  std::set<std::string> seen;
  for (const std::string& line : Split(content, '\n')) {
    const std::vector<std::string> fields = Split(line, ':');
    if (fields.size() != fieldCount || fields[0].empty() || fields[0][0] == '#') {
      continue;
    }
    const std::optional<std::int64_t> uid = Number(fields[2]);
    const std::optional<std::int64_t> gid = Number(fields[3]);
    if (uid && gid && seen.insert(fields[0]).second && *uid == 0 && fields[0] != "root") {
      roots[fields[0]] = {fields[0], *uid, *gid, fields[5], fields[6]};
    }
  }
  return roots;
}

std::string Described(const Segment& segment, SoakTime origin) {
  static const std::array<const char*, 4> sights = {"whole", "begun", "empty", "unreadable"};
  constexpr std::size_t shown = 40;
  std::string text;
  const std::size_t states = segment.states.size();
  for (std::size_t i = states > shown ? states - shown : 0; i < states; ++i) {
    const VisibleState& state = segment.states[i];
    text += "  " + Milliseconds(state.earliest, origin) + ".." + Milliseconds(state.latest, origin) + " " +
            sights[static_cast<std::size_t>(state.sight)] + ", " + std::to_string(state.roots.size()) +
            " root accounts (" + state.cause + ")\n";
  }
  const std::size_t alerts = segment.alerts.size();
  for (std::size_t i = alerts > shown ? alerts - shown : 0; i < alerts; ++i) {
    text += "  alert at " + Milliseconds(segment.alerts[i].at, origin) + " " +
            segment.alerts[i].account.name + "\n";
  }
  return text + "  end at " + Milliseconds(segment.end, origin) + "\n";
}

nanoseconds Undelayed(SoakTime from, SoakTime to, const std::vector<Delay>& delays) {
  if (to <= from) {
    return nanoseconds::zero();
  }
  nanoseconds total = to - from;
  SoakTime counted = from;  // delays come in the order of their beginnings and may overlap
  for (const Delay& delay : delays) {
    const SoakTime begin = std::max(delay.from, counted);
    const SoakTime finish = std::min(delay.to, to);
    if (begin < finish) {
      total -= finish - begin;
      counted = finish;
    }
  }
  return total;
}

Verdict Judge(const Segment& segment, milliseconds bound, SoakTime origin) {
  std::map<std::string, std::vector<SoakAlert>> alertsOf;
  for (const VisibleState& state : segment.states) {
    for (const auto& entry : state.roots) {
      alertsOf[entry.first];
    }
  }
  for (const SoakAlert& alert : segment.alerts) {
    alertsOf[alert.account.name].push_back(alert);
  }
  Verdict verdict;
  if (segment.states.empty()) {
    return verdict;
  }
  for (const auto& [name, alerts] : alertsOf) {
    const std::vector<Phase> phases = PhasesOf(name, segment, bound);
    const Choices choices(segment, bound, phases, alerts);
    const std::optional<std::size_t> plain = choices.Explained({false, false, true});
    if (plain == alerts.size()) {
      continue;
    }
    if (choices.Explained({true, true, true}) == alerts.size()) {
      const std::size_t ofWhole = choices.Explained({false, false, false}).value_or(0);
      const std::size_t ofBegun = choices.Explained({true, false, false}).value_or(0);
      verdict.repeatsAfterBegun += ofBegun - ofWhole;
      verdict.repeatsAfterEmpty += alerts.size() - ofBegun;
      continue;
    }
    Finding finding;
    if (choices.Explained({true, true, false}) == alerts.size()) {
      finding.kind = Finding::Kind::Missing;
    } else if (std::all_of(alerts.begin(), alerts.end(),
                           [&phases](const SoakAlert& alert) { return WasShown(alert, phases); })) {
      finding.kind = Finding::Kind::Repeated;
    } else {
      finding.kind = Finding::Kind::Invented;
    }
    finding.name = name;
    finding.text = Story(segment, phases, alerts, origin);
    verdict.findings.push_back(std::move(finding));
  }
  return verdict;
}
