#include "tests/soak/history.h"

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <tuple>
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
  std::size_t lastState = 0;
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
  for (std::size_t i = 0; i < segment.states.size(); ++i) {
    const VisibleState& state = segment.states[i];
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
    phases.back().lastState = i;
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

bool Holds(const VisibleState& state, const RootAccount& account) {
  const auto found = state.roots.find(account.name);
  return found != state.roots.end() && found->second == account;
}

bool AreOfOneFile(const VisibleState& one, const VisibleState& other) {
  return one.inode != 0 && one.inode == other.inode;
}

// The account is in the older content with the newer one's end, from its own length on, and in neither
// itself.
bool MixTo(const VisibleState& older, const VisibleState& newer, const RootAccount& account) {
  if (!AreOfOneFile(older, newer) || !older.content || !newer.content ||
      older.content->size() >= newer.content->size() || Holds(older, account) || Holds(newer, account)) {
    return false;
  }
  const std::string& head = *older.content;
  const std::string& later = *newer.content;
  const std::size_t lineEnd = std::min(later.find('\n', head.size()), later.size());
  const std::string lineAtCut =
      head.substr(head.rfind('\n') + 1) + later.substr(head.size(), lineEnd - head.size());
  if (lineAtCut.rfind(account.name + ":", 0) != 0) {  // saves reading thousands of mixtures that differ
    return false;
  }
  const RootAccounts roots = RootAccountsIn(head + later.substr(head.size()));
  const auto found = roots.find(account.name);
  return found != roots.end() && found->second == account;
}

// A reading that had seen the older state is over within the bound after that was gone.
bool CanLast(const Segment& segment, std::size_t older, SoakTime by, milliseconds bound) {
  const auto first = segment.states.begin() + static_cast<std::ptrdiff_t>(older);
  const auto next = std::find_if(first + 1, segment.states.end(),
                                 [first](const VisibleState& state) { return AreOfOneFile(*first, state); });
  return next == segment.states.end() || Undelayed(next->latest, by, segment.delays) <= bound;
}

// Two states and the alert for what a reading of both has found.
struct Mixture {
  std::size_t alert;
  std::size_t older;
  std::size_t newer;
};

std::vector<Mixture> MixturesOf(const Segment& segment, const std::vector<SoakAlert>& alerts,
                                milliseconds bound) {
  std::vector<Mixture> mixtures;
  const std::vector<VisibleState>& states = segment.states;
  for (std::size_t alert = 0; alert < alerts.size(); ++alert) {
    for (std::size_t newer = 1; newer < states.size() && states[newer].earliest <= alerts[alert].at;
         ++newer) {
      for (std::size_t older = 0; older < newer; ++older) {
        if (MixTo(states[older], states[newer], alerts[alert].account) &&
            CanLast(segment, older, alerts[alert].at, bound)) {
          mixtures.push_back({alert, older, newer});
        }
      }
    }
  }
  return mixtures;
}

struct Rules {
  bool begunCounts;  // the reading of such a file makes the agent forget
  bool emptyCounts;
  bool mixturesCount;
  bool mustBeRead;  // long phases and the last one are not passed over, and alerts are in time
};

// How far a choice of readings explains the alerts.
struct Explanation {
  std::size_t alerts = 0;
  std::size_t mixtures = 0;  // the fewest for so many
};

class Choices {
 public:
  Choices(const Segment& judged, milliseconds limit, const std::vector<Phase>& ofAccount,
          const std::vector<SoakAlert>& alertsOfAccount)
      : segment(judged), bound(limit), phases(ofAccount), alerts(alertsOfAccount) {}

  void Allow(std::vector<Mixture> allowed) { mixtures = std::move(allowed); }

  // The most alerts, in order, that some choice of readings explains; nothing when no choice keeps the rules.
  std::optional<Explanation> Explained(Rules rules) const {
    std::vector<std::set<Known>> after;  // each phase
    for (std::size_t phase = 0; phase < phases.size(); ++phase) {
      after.push_back(Within(phase, after, rules));
    }
    std::optional<Explanation> best;
    for (const Known& known : after.back()) {
      if (!best || known.alerts > best->alerts ||
          (known.alerts == best->alerts && known.mixtures < best->mixtures)) {
        best = {known.alerts, known.mixtures};
      }
    }
    return best;
  }

  bool ExplainsAll(Rules rules) const {
    const std::optional<Explanation> most = Explained(rules);
    return most && most->alerts == alerts.size();
  }

 private:
  struct Known {
    bool root = false;  // whether the agent knows the account as such
    std::size_t alerts = 0;
    std::size_t mixtures = 0;
    std::size_t since = 0;   // no later reading sees an older state than the end of the last mixture
    bool phaseRead = false;  // without any other state

    bool operator<(const Known& other) const {
      return std::tie(root, alerts, mixtures, since, phaseRead) <
             std::tie(other.root, other.alerts, other.mixtures, other.since, other.phaseRead);
    }
  };

  static bool Blind(const Phase& phase, Rules rules) {
    return phase.look == Look::Unreadable || (phase.look == Look::Begun && !rules.begunCounts) ||
           (phase.look == Look::Empty && !rules.emptyCounts);
  }

  std::size_t PhaseOf(std::size_t state) const {
    const auto found = std::find_if(phases.begin(), phases.end(),
                                    [state](const Phase& phase) { return state <= phase.lastState; });
    return static_cast<std::size_t>(found - phases.begin());
  }

  std::set<Known> Within(std::size_t number, const std::vector<std::set<Known>>& after, Rules rules) const {
    const Phase& phase = phases[number];
    std::set<Known> possible;
    if (number > 0) {
      possible = after.back();
    } else {
      Known first;
      first.root = !segment.firstOfLife && phase.look == Look::Present;
      possible.insert(first);
    }
    std::vector<Mixture> inside;
    for (const Mixture& mixture : mixtures) {
      if (!rules.mixturesCount || PhaseOf(mixture.newer) != number) {
        continue;
      }
      const std::size_t begun = PhaseOf(mixture.older);
      if (begun == number) {
        inside.push_back(mixture);
        continue;
      }
      for (const Known& before : after[begun]) {  // what is between is read by nobody
        Mix(mixture, before, possible);
      }
    }
    std::vector<Known> open(possible.begin(), possible.end());
    while (!open.empty()) {
      const Known before = open.back();
      open.pop_back();
      std::set<Known> next;
      if (!Blind(phase, rules)) {
        Read(phase, before, rules, next);
      }
      for (const Mixture& mixture : inside) {
        Mix(mixture, before, next);
      }
      for (const Known& known : next) {
        if (possible.insert(known).second) {
          open.push_back(known);
        }
      }
    }
    const bool required = phase.read && rules.mustBeRead && !Blind(phase, rules);
    std::set<Known> left;
    for (Known known : possible) {
      if (known.phaseRead || !required) {
        known.phaseRead = false;
        left.insert(known);
      }
    }
    return left;
  }

  void Read(const Phase& phase, const Known& before, Rules rules, std::set<Known>& next) const {
    Known known = before;
    known.phaseRead = true;
    known.root = phase.look == Look::Present;
    if (known.root && !before.root) {
      if (before.alerts == alerts.size() || !Fits(phase, alerts[before.alerts], rules)) {
        return;
      }
      ++known.alerts;
    }
    next.insert(known);
  }

  static void Mix(const Mixture& mixture, const Known& before, std::set<Known>& next) {
    if (before.root || before.alerts != mixture.alert || mixture.older < before.since) {
      return;
    }
    Known known = before;
    known.root = true;
    ++known.alerts;
    ++known.mixtures;
    known.since = mixture.newer;
    next.insert(known);
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
  std::vector<Mixture> mixtures;
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

std::string Told(const Segment& segment, const std::vector<Phase>& phases,
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

bool AllWereShown(const std::vector<SoakAlert>& alerts, const std::vector<Phase>& phases,
                  const std::vector<Mixture>& mixtures) {
  for (std::size_t i = 0; i < alerts.size(); ++i) {
    const bool shown = std::any_of(phases.begin(), phases.end(),
                                   [&](const Phase& phase) { return Shows(phase, alerts[i]); });
    const bool mixed = std::any_of(mixtures.begin(), mixtures.end(),
                                   [i](const Mixture& mixture) { return mixture.alert == i; });
    if (!shown && !mixed) {
      return false;
    }
  }
  return true;
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

void Segment::Add(VisibleState state) {
  states.push_back(std::move(state));
  if (states.size() > contentsKept) {
    states[states.size() - 1 - contentsKept].content.reset();
  }
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
            " root accounts, inode " + std::to_string(state.inode) + " (" + state.cause + ")\n";
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
    Choices choices(segment, bound, phases, alerts);
    if (choices.ExplainsAll({false, false, false, true})) {
      continue;
    }
    bool explained = choices.ExplainsAll({true, true, false, true});
    std::vector<Mixture> mixtures;
    if (!explained) {
      mixtures = MixturesOf(segment, alerts, bound);
      choices.Allow(mixtures);
      explained = choices.ExplainsAll({true, true, true, true});
    }
    if (explained) {
      const auto ofAll = choices.Explained({true, true, true, true}).value_or(Explanation());
      const auto ofWhole = choices.Explained({false, false, true, false}).value_or(Explanation());
      const auto ofBegun = choices.Explained({true, false, true, false}).value_or(Explanation());
      verdict.repeatsAfterBegun += ofBegun.alerts - ofWhole.alerts;
      verdict.repeatsAfterEmpty += alerts.size() - ofBegun.alerts;
      verdict.alertsOfMixtures += ofAll.mixtures;
      continue;
    }
    Finding finding;
    if (choices.ExplainsAll({true, true, true, false})) {
      finding.kind = Finding::Kind::Missing;
    } else if (AllWereShown(alerts, phases, mixtures)) {
      finding.kind = Finding::Kind::Repeated;
    } else {
      finding.kind = Finding::Kind::Invented;
    }
    finding.name = name;
    finding.text = Told(segment, phases, alerts, origin);
    verdict.findings.push_back(std::move(finding));
  }
  return verdict;
}

bool LastMayBeMixed(const Segment& segment, milliseconds bound, SoakTime by) {
  for (std::size_t i = 0; i + 1 < segment.states.size(); ++i) {
    const VisibleState& last = segment.states.back();
    const VisibleState& older = segment.states[i];
    const bool differs = !older.content || !last.content ||
                         (older.content->size() < last.content->size() &&
                          last.content->compare(0, older.content->size(), *older.content) != 0);
    if (AreOfOneFile(older, last) && differs && CanLast(segment, i, by, bound)) {
      return true;
    }
  }
  return false;
}
