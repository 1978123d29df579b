#include "benchmarks/alert/measurements.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include "benchmarks/alert/changing_file.h"

using std::chrono::microseconds;
using std::chrono::milliseconds;
using Time = std::chrono::steady_clock::time_point;

namespace {

constexpr std::size_t warmUpChanges = 20;
constexpr int readyAttempts = 7;  // each twice as long as the one before
constexpr milliseconds firstAttempt{200};

double Microseconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1000; }

class Table {
 public:
  Table(const std::string& folder, const std::string& topic, const std::string& columns)
      : path(folder + "/" + topic + ".csv"), file(path) {
    Line(columns);
  }

  void Line(const std::string& text) {
    file << text << '\n' << std::flush;
    if (!file) {
      throw std::runtime_error("cannot write " + path);
    }
  }

 private:
  std::string path;
  std::ofstream file;
};

std::string Text(double value) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.1f", value);
  return text;
}

// Longer than what is done right behind the alert.
class Pauses {
 public:
  explicit Pauses(std::uint64_t seed) : random(seed) {}
  void Pause() { std::this_thread::sleep_for(microseconds(2000 + random() % 4000)); }

  // Nothing for most contestants.
  void RestOf(const Contestant& contestant) {
    if (contestant.rest.count() > 0) {
      const auto longest = static_cast<std::uint64_t>(microseconds(contestant.rest).count());
      std::this_thread::sleep_for(microseconds(random() % longest));
    }
  }

 private:
  std::mt19937_64 random;
};

// Empty: missed.
std::optional<double> ChangeOnce(ChangingFile& file, RunningContestant& contestant, milliseconds patience) {
  const Time changed = file.Change();
  const std::function<std::string()>& mark = contestant.Who().mark;
  const std::optional<Time> told = contestant.AwaitLine(mark ? mark() : file.Name(), patience);
  return told ? std::optional<double>(Microseconds(*told - changed)) : std::nullopt;
}

std::optional<double> ChangeOnce(ChangingFile& file, RunningContestant& contestant) {
  return ChangeOnce(file, contestant, contestant.Who().patience);
}

// Returns when the contestant answers: how many changes that took.
std::size_t WarmUp(ChangingFile& file, RunningContestant& contestant, Pauses& pauses, const std::string& name,
                   std::size_t changes = warmUpChanges) {
  milliseconds patience = firstAttempt;
  int attempt = 0;
  while (!ChangeOnce(file, contestant, patience)) {
    patience *= 2;
    if (++attempt == readyAttempts) {
      throw std::runtime_error(name + " tells of no change");
    }
  }
  for (std::size_t change = 0; change < changes; ++change) {
    pauses.Pause();
    ChangeOnce(file, contestant);
  }
  pauses.Pause();
  return static_cast<std::size_t>(attempt) + 1 + changes;
}

// Entry number `turn` of a round in which everybody begins once.
template <typename Entries>
auto& InTurn(Entries& entries, std::size_t round, std::size_t turn) {
  return entries[(round + turn) % entries.size()];
}

// As many as there are processors, busy until destruction.
class BusyProcessors {
 public:
  BusyProcessors() {
    const std::size_t count = std::max(1U, std::thread::hardware_concurrency());
    for (std::size_t i = 0; i < count; ++i) {
      const pid_t child = fork();
      if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (volatile unsigned turns = 0;;) {
          turns = turns + 1;
        }
      }
      if (child > 0) {
        children.push_back(child);
      }
    }
    if (children.size() != count) {
      const std::string reason = std::strerror(errno);
      End();
      throw std::runtime_error("fork: " + reason);
    }
  }
  ~BusyProcessors() { End(); }
  BusyProcessors(const BusyProcessors&) = delete;
  BusyProcessors& operator=(const BusyProcessors&) = delete;

 private:
  void End() {
    for (const pid_t child : children) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
  }

  std::vector<pid_t> children;
};

cpu_set_t AllowedProcessors() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) {
    throw std::runtime_error(std::string("sched_getaffinity: ") + std::strerror(errno));
  }
  return allowed;
}

std::vector<cpu_set_t> EachProcessor(const cpu_set_t& allowed) {
  std::vector<cpu_set_t> each;
  for (int number = 0; number < CPU_SETSIZE; ++number) {
    if (CPU_ISSET(number, &allowed)) {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(number, &one);
      each.push_back(one);
    }
  }
  return each;
}

// The calling thread, and whatever it starts from now on.
void StayOn(const cpu_set_t& processors) {
  if (sched_setaffinity(0, sizeof(processors), &processors) != 0) {
    throw std::runtime_error(std::string("sched_setaffinity: ") + std::strerror(errno));
  }
}

// A block of changes for each contestant in each round, while what `surroundings` makes is there.
template <typename Surroundings>
void MeasureEach(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder,
                 const std::string& topic, const Surroundings& surroundings) {
  Table samples(folder, topic, "contestant,round,microseconds");
  ChangingFile file(plan.accounts);
  Pauses pauses(plan.seed);
  for (std::size_t round = 0; round < plan.rounds; ++round) {
    for (std::size_t turn = 0; turn < contestants.size(); ++turn) {
      const Contestant& contestant = InTurn(contestants, round, turn);
      RunningContestant running(contestant);
      WarmUp(file, running, pauses, contestant.name);
      [[maybe_unused]] const auto there = surroundings();
      for (std::size_t change = 0; change < std::max<std::size_t>(1, plan.pairChanges / plan.rounds);
           ++change) {
        pauses.Pause();
        const std::optional<double> time = ChangeOnce(file, running);
        samples.Line(contestant.name + "," + std::to_string(round) + "," + (time ? Text(*time) : ""));
      }
    }
  }
}

}  // namespace

void RequireAnswer(const Plan& plan, const Contestant& contestant) {
  ChangingFile file(plan.accounts);
  Pauses pauses(plan.seed);
  RunningContestant running(contestant);
  WarmUp(file, running, pauses, "it", 0);
}

void MeasureAlerts(const Plan& plan, const std::vector<Entry>& entries, const std::string& folder) {
  Table samples(folder, "alert", "contestant,round,microseconds");
  Table blocks(folder, "alert_blocks",
               "contestant,round,changes,missed,cpu_microseconds,private_kib,pss_kib");
  ChangingFile file(plan.accounts);
  Pauses pauses(plan.seed);
  for (std::size_t round = 0; round < plan.rounds; ++round) {
    std::cerr << "time to alert: round " << round + 1 << " of " << plan.rounds << '\n';
    for (std::size_t turn = 0; turn < entries.size(); ++turn) {
      const Entry& entry = InTurn(entries, round, turn);
      if (round >= entry.rounds) {
        continue;
      }
      const std::string& name = entry.contestant.name;
      RunningContestant running(entry.contestant);
      const std::size_t uncounted = WarmUp(file, running, pauses, name, entry.warmUp);
      const std::chrono::nanoseconds before = running.CpuTime();
      const std::size_t changes =
          std::max<std::size_t>(1, entry.changes / std::min(entry.rounds, plan.rounds));
      std::size_t missed = 0;
      for (std::size_t change = 0; change < changes; ++change) {
        pauses.RestOf(entry.contestant);
        const std::optional<double> time = ChangeOnce(file, running);
        missed += time ? 0 : 1;
        samples.Line(name + "," + std::to_string(round) + "," + (time ? Text(*time) : ""));
      }
      pauses.Pause();
      std::chrono::nanoseconds used = running.CpuTime() - before;
      const Memory memory = running.MemoryInUse();
      if (entry.contestant.startsProcesses) {
        // The same for every change of this contestant's life, counted or not.
        used += running.End() * changes / (uncounted + changes);
      }
      blocks.Line(name + "," + std::to_string(round) + "," + std::to_string(changes) + "," +
                  std::to_string(missed) + "," + Text(Microseconds(used)) + "," +
                  std::to_string(memory.privateKib) + "," + std::to_string(memory.pssKib));
    }
  }
}

void MeasureRested(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder) {
  std::cerr << "time to alert after a rest\n";
  MeasureEach(plan, contestants, folder, "alert_rested", [] { return nullptr; });
}

void MeasureBusy(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder) {
  std::cerr << "time to alert with every processor busy\n";
  MeasureEach(plan, contestants, folder, "alert_busy", [] { return std::make_unique<BusyProcessors>(); });
}

void MeasurePlaced(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder) {
  std::cerr << "time to alert on a processor of our choice\n";
  Table samples(folder, "alert_placed", "contestant,processor,round,microseconds");
  ChangingFile file(plan.accounts);
  Pauses pauses(plan.seed);
  const cpu_set_t allowed = AllowedProcessors();
  const std::vector<cpu_set_t> each = EachProcessor(allowed);
  const cpu_set_t& changing = each.front();
  struct Place {
    const char* name;
    const cpu_set_t& processor;
  };
  std::vector<Place> places = {{"same", changing}};
  if (each.size() > 1) {
    places.push_back({"other", each.back()});
  }
  for (std::size_t round = 0; round < plan.rounds; ++round) {
    for (const Place& place : places) {
      for (std::size_t turn = 0; turn < contestants.size(); ++turn) {
        const Contestant& contestant = InTurn(contestants, round, turn);
        StayOn(place.processor);
        RunningContestant running(contestant);
        StayOn(changing);
        WarmUp(file, running, pauses, contestant.name);
        for (std::size_t change = 0; change < std::max<std::size_t>(1, plan.pairChanges / plan.rounds);
             ++change) {
          const std::optional<double> time = ChangeOnce(file, running);
          samples.Line(contestant.name + "," + place.name + "," + std::to_string(round) + "," +
                       (time ? Text(*time) : ""));
        }
      }
    }
  }
  StayOn(allowed);
}

void MeasureAccounts(const Plan& plan, const std::vector<Contestant>& contestants,
                     const std::string& folder) {
  Table samples(folder, "alert_accounts", "contestant,accounts,microseconds");
  Pauses pauses(plan.seed);
  for (const std::size_t accounts : plan.sizes) {
    std::cerr << "time to alert at " << accounts << " accounts\n";
    ChangingFile file(accounts);
    for (const Contestant& contestant : contestants) {
      RunningContestant running(contestant);
      WarmUp(file, running, pauses, contestant.name, 2);
      double last = 0;
      for (std::size_t change = 0; change < plan.changesOfSize; ++change) {
        // As long again as the alert has taken, for what is done behind it.
        std::this_thread::sleep_for(std::chrono::duration<double, std::micro>(last));
        pauses.Pause();
        const std::optional<double> time = ChangeOnce(file, running);
        last = time.value_or(0);
        samples.Line(contestant.name + "," + std::to_string(accounts) + "," + (time ? Text(*time) : ""));
      }
    }
  }
}

void MeasureLoad(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder) {
  Table bursts(folder, "alert_load",
               "contestant,burst,changes,seconds,cpu_microseconds,private_kib,pss_kib,last_microseconds");
  ChangingFile file(plan.accounts);
  Pauses pauses(plan.seed);
  const std::size_t changes = static_cast<std::size_t>(std::max<std::int64_t>(2, plan.burst.count()));
  for (const Contestant& contestant : contestants) {
    RunningContestant running(contestant);
    WarmUp(file, running, pauses, contestant.name);
    for (std::size_t burst = 0; burst < plan.bursts; ++burst) {
      std::cerr << "a thousand changes a second, " << contestant.name << ": burst " << burst + 1 << " of "
                << plan.bursts << '\n';
      const std::chrono::nanoseconds before = running.CpuTime();
      const Time begin = Time::clock::now();
      for (std::size_t change = 0; change + 1 < changes; ++change) {
        file.Change();
        running.TakeLines();
        std::this_thread::sleep_until(begin + milliseconds(change + 1));
      }
      const std::optional<double> last = ChangeOnce(file, running);
      const double seconds = std::chrono::duration<double>(Time::clock::now() - begin).count();
      const Memory memory = running.MemoryInUse();
      const std::chrono::nanoseconds used = running.CpuTime() - before;
      char length[32];
      std::snprintf(length, sizeof(length), "%.3f", seconds);
      bursts.Line(contestant.name + "," + std::to_string(burst) + "," + std::to_string(changes) + "," +
                  length + "," + Text(Microseconds(used)) + "," + std::to_string(memory.privateKib) + "," +
                  std::to_string(memory.pssKib) + "," + (last ? Text(*last) : ""));
      std::this_thread::sleep_for(milliseconds(50 + 37 * burst));
    }
  }
}
