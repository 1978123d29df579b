#ifndef VELTA_TESTS_AGENT_STEADY_TIME_H
#define VELTA_TESTS_AGENT_STEADY_TIME_H

#include <chrono>
#include <cstdint>

// Tests begin after a day, as steady clocks do not begin at 0.
inline std::chrono::steady_clock::time_point At(std::int64_t ms) {
  return std::chrono::steady_clock::time_point(std::chrono::hours(24)) + std::chrono::milliseconds(ms);
}

#endif  // VELTA_TESTS_AGENT_STEADY_TIME_H
