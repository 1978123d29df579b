#ifndef VELTA_TESTS_SOAK_SOAK_REPORT_H
#define VELTA_TESTS_SOAK_SOAK_REPORT_H

#include <cstddef>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

#include "tests/soak/history.h"

// What a run has done and found so far.
struct SoakReport {
  struct Way {
    std::size_t count = 0;
    std::vector<double> latencies;  // in milliseconds, from the end of the change to the arrival of its alert
  };

  std::map<std::string, Way> ways;
  std::size_t states = 0;
  std::size_t alerts = 0;
  std::size_t lives = 0;
  std::size_t kills = 0;
  std::size_t orderlyEnds = 0;
  std::size_t stops = 0;
  std::size_t floods = 0;
  std::size_t reloads = 0;
  std::size_t fullDisks = 0;
  std::size_t blockedPipes = 0;
  std::size_t checks = 0;
  std::size_t missing = 0;
  std::size_t invented = 0;
  std::size_t repeated = 0;
  std::size_t repeatsAfterBegun = 0;
  std::size_t repeatsAfterEmpty = 0;
  std::size_t alertsOfMixtures = 0;
  std::size_t secondMarkers = 0;
  std::size_t brokenRecords = 0;
  std::size_t wrongEnds = 0;

  std::size_t Changes() const;
  bool IsClean() const;
};

std::ostream& operator<<(std::ostream& stream, const SoakReport& report);

#endif  // VELTA_TESTS_SOAK_SOAK_REPORT_H
