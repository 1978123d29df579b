#include <csignal>
#include <exception>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/alert/contestant.h"
#include "benchmarks/alert/measurements.h"
#include "benchmarks/alert/peers.h"
#include "tests/support/temporary_folder.h"
#include "tests/system/private_etc.h"

namespace {

constexpr char usage[] =
    R"(usage: velta_bench_alert [OPTION]...

Measures how long a change of /etc/passwd takes to become an alert, for the agent, for the least that a watching
program has to do (the floor), and for what else tells of such a change. In a private copy of /etc; as root.

  --results FOLDER      where the samples go, as CSV (.)
  --only PART           alerts, rested, busy, placed, accounts or load; all of them without
  --quick               a small part of everything, to see that it works
  --rounds N            turns of each contestant (10)
  --changes N           of the floor and of the agent (2000)
  --peer-changes N      of each other contestant (200; of a slow one a part of it)
  --pair-changes N      of each after a pause, with every processor busy, or placed (1000)
  --changes-of-size N   at each number of accounts (40)
  --bursts N            of a thousand changes a second (6)
  --burst-ms N          how long one is (10000)
  --seed N              of the pauses between changes (1)
  --agent FILE          another agent than the one of this build

Exit codes: 0 measured; 1 it could not be; 2 usage.
)";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  Plan plan;
  std::string results = ".";
  std::string only;
  bool quick = false;
  std::string agent = VELTA_AGENT_FILE;
};

std::uint64_t NumberOf(const std::string& text, std::uint64_t lowest) {
  const bool digits =
      !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoull(text) < lowest) {
    throw UsageError("'" + text + "' is not a number from " + std::to_string(lowest));
  }
  return std::stoull(text);
}

void MakeQuick(Plan& plan) {
  plan.rounds = 2;
  plan.changes = 200;
  plan.peerChanges = 4;
  plan.pairChanges = 100;
  plan.sizes = {50, 1000, 10000};
  plan.changesOfSize = 3;
  plan.bursts = 2;
  plan.burst = std::chrono::milliseconds(300);
}

Options Parse(const std::vector<std::string>& words) {
  Options options;
  Plan& plan = options.plan;
  const std::map<std::string, std::function<void(const std::string&)>> valued = {
      {"--results", [&](const std::string& text) { options.results = text; }},
      {"--agent", [&](const std::string& text) { options.agent = text; }},
      {"--only",
       [&](const std::string& text) {
         if (text != "alerts" && text != "rested" && text != "busy" && text != "placed" &&
             text != "accounts" && text != "load") {
           throw UsageError("'" + text + "' is no part");
         }
         options.only = text;
       }},
      {"--rounds", [&](const std::string& text) { plan.rounds = NumberOf(text, 1); }},
      {"--changes", [&](const std::string& text) { plan.changes = NumberOf(text, 1); }},
      {"--peer-changes", [&](const std::string& text) { plan.peerChanges = NumberOf(text, 1); }},
      {"--pair-changes", [&](const std::string& text) { plan.pairChanges = NumberOf(text, 1); }},
      {"--changes-of-size", [&](const std::string& text) { plan.changesOfSize = NumberOf(text, 1); }},
      {"--bursts", [&](const std::string& text) { plan.bursts = NumberOf(text, 1); }},
      {"--burst-ms",
       [&](const std::string& text) {
         plan.burst = std::chrono::milliseconds(static_cast<std::int64_t>(NumberOf(text, 1)));
       }},
      {"--seed", [&](const std::string& text) { plan.seed = NumberOf(text, 0); }},
  };
  for (std::size_t i = 0; i < words.size(); ++i) {
    const auto found = valued.find(words[i]);
    if (words[i] == "--quick") {
      options.quick = true;
      MakeQuick(plan);
    } else if (found == valued.end()) {
      throw UsageError("unknown argument: " + words[i]);
    } else if (++i == words.size()) {
      throw UsageError(found->first + " takes a value");
    } else {
      found->second(words[i]);
    }
  }
  return options;
}

Contestant Floor() { return {"floor", {VELTA_FLOOR_FILE}, "", false}; }

Contestant Agent(const Options& options) {
  return {"velta-agent", {options.agent, "--limit", "0"}, "", false};
}

// Its alerts go through a thread of their own: an output that others can hold up has one. In a folder below
// the watched one, in which each write would be an event.
Contestant AgentWithFifo(const Options& options) {
  const std::string folder = "/etc/velta-bench-agent";
  std::filesystem::create_directories(folder);
  const std::string fifo = folder + "/alerts";
  return {"velta-agent --output FIFO", {options.agent, "--limit", "0", "--output", fifo}, fifo, false};
}

Contestant AgentWithoutCrossCheck(const Options& options) {
  return {"velta-agent --no-cross-check", {options.agent, "--limit", "0", "--no-cross-check"}, "", false};
}

std::string Quoted(const std::string& text) {
  std::ostringstream quoted;
  quoted << std::quoted(text, '"', '"');
  return quoted.str();
}

// Who takes part in the comparison; who cannot is told with the reason, in alert_not_measured.csv as well.
std::vector<Entry> Entries(const Options& options, const Peers& peers) {
  const Plan& plan = options.plan;
  std::vector<Entry> entries = {{Floor(), plan.changes},
                                {Agent(options), plan.changes},
                                {AgentWithFifo(options), plan.changes},
                                {AgentWithoutCrossCheck(options), plan.changes}};
  entries.insert(entries.end(), peers.Present().begin(), peers.Present().end());
  std::string absent = "contestant,reason\n";
  for (const Peers::Absent& each : peers.LeftOut()) {
    absent += each.name + "," + Quoted(each.reason) + "\n";
  }
  WriteFile(options.results + "/alert_not_measured.csv", absent);
  return entries;
}

void Run(const Options& options) {
  const PrivateEtc etc;
  const auto wanted = [&options](const std::string& part) {
    return options.only.empty() || options.only == part;
  };
  const std::vector<Contestant> pair = {Floor(), Agent(options)};
  if (wanted("alerts")) {
    const Peers peers(options.plan, options.quick);
    MeasureAlerts(options.plan, Entries(options, peers), options.results);
  }
  if (wanted("rested")) {
    MeasureRested(options.plan, pair, options.results);
  }
  if (wanted("busy")) {
    MeasureBusy(options.plan, pair, options.results);
  }
  if (wanted("placed")) {
    MeasurePlaced(options.plan, {pair[0], pair[1], AgentWithoutCrossCheck(options)}, options.results);
  }
  if (wanted("accounts")) {
    MeasureAccounts(options.plan, pair, options.results);
  }
  if (wanted("load")) {
    MeasureLoad(options.plan, pair, options.results);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 1 && (words[0] == "-h" || words[0] == "--help")) {
    std::cout << usage;
    return 0;
  }
  try {
    const Options options = Parse(words);
    EndWaitsOnSignals();
    Run(options);
    return 0;
  } catch (const Interrupted& interrupted) {  // by now nothing of what was started is left
    std::signal(interrupted.signal, SIG_DFL);
    std::raise(interrupted.signal);
    return 1;
  } catch (const UsageError& error) {
    std::cerr << "velta_bench_alert: " << error.what() << '\n' << usage;
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "velta_bench_alert: " << error.what() << '\n';
    return 1;
  }
}
