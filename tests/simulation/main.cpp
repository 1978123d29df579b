#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

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

}  // namespace

// Exit codes: 0 nothing went wrong, 1 a schedule failed, 2 usage.
int main(int argc, char** argv) {
  std::uint64_t seed = 1;
  std::uint64_t count = 1000000;
  Mistake mistake = Mistake::None;
  bool trace = false;
  CLI::App app(
      "Lives through schedules of a writer, the agent's threads and stops and starts of the module, one "
      "for each seed.",
      "velta_simulation");
  app.add_option("--seed", seed, "the first seed (1)");
  app.add_option("--schedules", count, "how many seeds (1000000)");
  app.add_option("--mistake", mistake, "built in, to see whether it is found")
      ->transform(CLI::CheckedTransformer(mistakes));
  app.add_flag("--trace", trace, "print every step");
  CLI11_PARSE(app, argc, argv);

  const auto start = std::chrono::steady_clock::now();
  Tally tally;
  for (std::uint64_t number = 0; number < count; ++number) {
    const std::string failure = RunSchedule(seed + number, mistake, trace, tally);
    if (!failure.empty()) {
      std::printf("seed %llu: %s\nsee it again: velta_simulation --schedules 1 --trace --seed %llu\n",
                  static_cast<unsigned long long>(seed + number), failure.c_str(),
                  static_cast<unsigned long long>(seed + number));
      return 1;
    }
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  std::printf(
      "%llu schedules from seed %llu in %.1f s: %llu changes, %llu readings, %llu alerts, %llu overflows, "
      "%llu stops; "
      "0 missed, 0 invented, 0 late\n",
      static_cast<unsigned long long>(count), static_cast<unsigned long long>(seed), took.count(),
      static_cast<unsigned long long>(tally.changes), static_cast<unsigned long long>(tally.readings),
      static_cast<unsigned long long>(tally.alerts), static_cast<unsigned long long>(tally.overflows),
      static_cast<unsigned long long>(tally.stops));
  return 0;
}
