#ifndef VELTA_AGENT_MINUTE_LIMIT_H
#define VELTA_AGENT_MINUTE_LIMIT_H

#include <chrono>

// Admits so many events a minute; the minute begins with its first event. Time comes in as an argument.
class MinuteLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // 0: no limit.
  explicit MinuteLimit(unsigned eventsPerMinute) : perMinute(eventsPerMinute) {}

  // Counts one event that leaves now.
  void Count(Time now);

  // When the next event may leave: now, or when the next minute begins.
  Time NextAdmission(Time now) const;

 private:
  bool MinuteIsOver(Time now) const;

  unsigned perMinute;
  unsigned counted = 0;  // in the minute that began at `began`
  Time began;
};

#endif  // VELTA_AGENT_MINUTE_LIMIT_H
