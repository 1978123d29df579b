#ifndef VELTA_AGENT_FLOOD_LIMIT_H
#define VELTA_AGENT_FLOOD_LIMIT_H

#include <chrono>
#include <cstddef>

// Takes so many within a window of time, and counts those that it does not take until they are told. A window
// begins with the first that is taken after the one before is over. Time comes in as an argument.
class FloodLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // At least one.
  FloodLimit(std::size_t mostInWindow, std::chrono::milliseconds windowLength)
      : most(mostInWindow), window(windowLength) {}

  // False: it counts as dropped.
  bool Take(Time now);

  // How many were dropped since the last Told; 0 while the window that they came in goes on, as there may be
  // more of them.
  std::size_t ToTell(Time now) const { return IsOver(now) ? dropped : 0; }
  void Told() { dropped = 0; }

 private:
  bool IsOver(Time now) const { return taken == 0 || now - began >= window; }

  const std::size_t most;
  const std::chrono::milliseconds window;
  std::size_t taken = 0;  // in the window that began at `began`
  std::size_t dropped = 0;
  Time began;
};

#endif  // VELTA_AGENT_FLOOD_LIMIT_H
