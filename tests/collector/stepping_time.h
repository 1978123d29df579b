#ifndef VELTA_TESTS_COLLECTOR_STEPPING_TIME_H
#define VELTA_TESTS_COLLECTOR_STEPPING_TIME_H

#include <ctime>

// What time() answers to the sources of this program: a second later with every call, so that a second call
// where there should be one shows.
struct SteppingTime {
  static void StartAt(std::time_t first);
  static int Calls();  // since StartAt
};

#endif  // VELTA_TESTS_COLLECTOR_STEPPING_TIME_H
