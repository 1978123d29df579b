#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tests/simulation/schedule.h"

namespace {

const std::map<std::string, Mistake> mistakes = {
    {"none", Mistake::None},
    {"forgotten-rename", Mistake::ForgottenRename},
    {"forgotten-close", Mistake::ForgottenClose},
    {"launch-lost-in-run", Mistake::LaunchLostInRun},
    {"run-after-pause", Mistake::LaunchLostInPause},
    {"alert-lost", Mistake::AlertLost},
    {"alert-twice", Mistake::AlertTwice},
};

constexpr char usage[] =
    R"(usage: velta_simulation [--seed N] [--schedules N] [--mistake NAME] [--trace]

Lives through schedules of a writer, the agent's threads and stops and starts of the module, one for each
seed.

  --seed N        the first seed (1)
  --schedules N   how many seeds (1000000)
  --mistake NAME  built in, to see whether it is found: none, forgotten-rename, forgotten-close,
                  launch-lost-in-run, run-after-pause, alert-lost or alert-twice (none)
  --trace         print every step

Exit codes: 0 nothing went wrong, 1 a schedule failed, 2 usage.
)";

struct SimulationOptions {
  std::uint64_t seed = 1;
  std::uint64_t count = 1000000;
  Mistake mistake = Mistake::None;
  bool trace = false;
};

bool Take(const std::string& text, std::uint64_t& number) {
  char* end = nullptr;
  number = std::strtoull(text.c_str(), &end, 10);
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos && *end == '\0';
}

// False when the arguments are none that it knows.
bool Take(const std::vector<std::string>& arguments, SimulationOptions& options) {
  for (std::size_t at = 0; at < arguments.size(); ++at) {
    if (arguments[at] == "--trace") {
      options.trace = true;
      continue;
    }
    const std::string& name = arguments[at];
    if (++at == arguments.size()) {
      return false;
    }
    const auto mistake = mistakes.find(arguments[at]);
    if (name == "--mistake" && mistake != mistakes.end()) {
      options.mistake = mistake->second;
    } else if (!(name == "--seed" && Take(arguments[at], options.seed)) &&
               !(name == "--schedules" && Take(arguments[at], options.count))) {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  SimulationOptions options;
  if (!Take(std::vector<std::string>(argv + 1, argv + argc), options)) {
    std::fputs(usage, stderr);
    return 2;
  }

  const auto start = std::chrono::steady_clock::now();
  Tally tally;
  for (std::uint64_t number = 0; number < options.count; ++number) {
    const std::string failure = RunSchedule(options.seed + number, options.mistake, options.trace, tally);
    if (!failure.empty()) {
      std::printf("seed %llu: %s\nsee it again: velta_simulation --schedules 1 --trace --seed %llu\n",
                  static_cast<unsigned long long>(options.seed + number), failure.c_str(),
                  static_cast<unsigned long long>(options.seed + number));
      return 1;
    }
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf(
      "%llu schedules from seed %llu in %.1f s: %llu changes, %llu readings, %llu alerts, %llu overflows, "
      "%llu stops; "
      "0 missed, 0 invented, 0 late\n",
      static_cast<unsigned long long>(options.count), static_cast<unsigned long long>(options.seed),
      took.count(), static_cast<unsigned long long>(tally.changes),
      static_cast<unsigned long long>(tally.readings), static_cast<unsigned long long>(tally.alerts),
      static_cast<unsigned long long>(tally.overflows), static_cast<unsigned long long>(tally.stops));
  return 0;
}
