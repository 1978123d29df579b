#ifndef VELTA_TESTS_SIMULATION_SCHEDULE_H
#define VELTA_TESTS_SIMULATION_SCHEDULE_H

#include <cstdint>
#include <string>

// A mistake that is built in to see whether it is found.
enum class Mistake {
  None,
  ForgottenRename,    // the kernel does not tell of names that take a file's place
  ForgottenClose,     // nor of files that were closed after writing
  LaunchLostInRun,    // a launch while the task runs is dropped
  LaunchLostInPause,  // a task runs on after it was paused
  AlertLost,          // one alert does not arrive
  AlertTwice,         // one arrives twice
};

struct Tally {
  std::uint64_t changes = 0;
  std::uint64_t readings = 0;
  std::uint64_t alerts = 0;
  std::uint64_t overflows = 0;
  std::uint64_t stops = 0;
};

// Lives through one schedule: a writer changes the account file, a monitor and a worker thread watch and read
// it, a control thread stops and starts the module, and which of them takes the next step, and when, is up to
// the seed. The module, its bus and its detector are the real ones, so are the agent's watch table, task
// table and reading gate; time, threads, kernel and file are simulated.
//
// Returns what went wrong, or an empty text:
// - after the last change a reading begins in time;
// - the last reading saw the file as it is at the end;
// - of each reading exactly those accounts are reported, in order, that a plain model of it reports: the ones
//   that have user ID 0, did not have it in the reading before, and are not "root";
// - no reading begins while the module is stopped, and the monitor never wakes for nothing.
std::string RunSchedule(std::uint64_t seed, Mistake mistake, bool trace, Tally& tally);

#endif  // VELTA_TESTS_SIMULATION_SCHEDULE_H
