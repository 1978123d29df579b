#ifndef VELTA_AGENT_BEAT_H
#define VELTA_AGENT_BEAT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/send_queue.h"

// When the control thread tells of the agent's state, and when it tells the service manager that the agent is
// alive. Time comes in as an argument. At rest and without a watchdog nothing is ever due.
//
// Thread use: the control thread.
class Beat {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // Changes on each other's heels are told of together.
  static constexpr std::chrono::milliseconds settling{250};
  // How soon is tried again what the manager could not be told; doubled each time for its state.
  static constexpr std::chrono::milliseconds retryInterval{1000};
  static constexpr std::chrono::milliseconds longestRetryInterval{60000};

  // watchdog: how long the manager waits for a life sign; zero: it waits for none.
  Beat(std::chrono::microseconds watchdog, Time now);

  void NoteChange(Time now);

  // True when the state is to be told of now; counts as done.
  bool TakeState(Time now);

  // What came of a message about it to the manager; true from TakeMessage: now is the time to try again.
  void SentMessage(bool sent, Time now);
  bool TakeMessage(Time now);

  // True when a life sign is to be given now; GaveSign says what came of it.
  bool SignIsDue(Time now) const { return nextSign && *nextSign <= now; }
  void GaveSign(bool given, Time now);

  std::optional<Time> NextDue() const;

 private:
  const std::chrono::microseconds period;
  std::optional<Time> stateDue;
  std::optional<Time> messageDue;
  std::chrono::milliseconds messageRetry = retryInterval;
  std::optional<Time> nextSign;
};

// What the threads have done, as the control thread sees it.
struct Pulse {
  std::uint64_t monitorRounds = 0;
  std::optional<Beat::Time> readingSince;  // a task of the scheduler runs
  std::vector<DeliveryState> deliveries;
};

// Why the agent must not call itself alive, or an empty text. Alive is who has got on since the sign before:
// the monitor's thread has made a round, and no reading and no attempt to deliver has run for longer than
// that.
std::string WhatIsStuck(const Pulse& before, const Pulse& now, std::chrono::microseconds longest,
                        Beat::Time time);

#endif  // VELTA_AGENT_BEAT_H
