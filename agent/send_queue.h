#ifndef VELTA_AGENT_SEND_QUEUE_H
#define VELTA_AGENT_SEND_QUEUE_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/event_sink.h"
#include "agent/lost_events.h"
#include "agent/minute_limit.h"

class Logger;

// Holds events until they are delivered, in order, so many a minute at most. What exceeds the limit waits for
// the next minutes: dropping it would let decoys that come first in the order hide the one that matters.
//
// Memory is bounded: beyond longestQueue bytes of waiting events new ones are lost. As soon as half of that
// is free again, one event is queued that says how many were lost and whom they named; see LostEvents.
//
// Thread use: Push, Accepted and Drain on any thread; delivery on a thread of its own. Construction throws
// std::system_error when no thread is to be had. Nothing is delivered any more after a Drain that gave up.
class SendQueue {
 public:
  enum class Lane { Alerts, Findings };

  static constexpr std::size_t longestQueue = std::size_t{64} << 20;  // bytes, of alerts
  static constexpr std::size_t longestFindings = std::size_t{8} << 20;

  // 0 events a minute: no limit.
  SendQueue(EventSink& eventSink, Logger& queueLogger, unsigned eventsPerMinute);

  // Drops what has not been delivered; Drain comes before.
  ~SendQueue();
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;

  // Never blocks for the sink and never throws: it is called with the detector's lock held.
  void Push(const std::string& event, Lane lane = Lane::Alerts) noexcept;

  // How many events were taken so far, those about lost ones included.
  std::size_t Accepted() const;

  // Delivers what waits, without regard to the limit. Gives up after patience, if there is one; otherwise as
  // soon as the output fails, while a slow reader is waited for. True when nothing is left; what is left is
  // logged.
  bool Drain(std::optional<std::chrono::milliseconds> patience);

 private:
  struct Waiting {
    Waiting(std::size_t longestBytes, unsigned eventsPerMinute)
        : longest(longestBytes), limit(eventsPerMinute) {}

    static std::size_t Cost(const std::string& event);
    bool Append(const std::string& event);  // false when memory is short
    bool IsEmpty() const { return events.empty() && lost.Count() == 0; }

    const std::size_t longest;
    std::deque<std::string> events;
    std::size_t bytes = 0;  // what the events cost
    LostEvents lost;
    MinuteLimit limit;
    bool deferring = false;
  };

  bool IsEmptyLocked() const;
  std::size_t CountLocked() const;
  bool OwesSummaryLocked(const Waiting& lane) const;
  void AppendSummaryLocked(std::unique_lock<std::mutex>& lock, Waiting& lane);
  void TellLeftLocked(const Waiting& lane);
  void Deliver();
  void DeliverDueLocked(std::unique_lock<std::mutex>& lock);
  void TellDeferringLocked(std::unique_lock<std::mutex>& lock, Waiting& lane);
  void DeliverNextLocked(std::unique_lock<std::mutex>& lock, Waiting& lane);
  void NoteOutcome(EventSink::Outcome outcome, std::size_t waiting, std::size_t lostSoFar);

  EventSink& sink;
  Logger& logger;

  mutable std::mutex mutex;  // guards what follows, down to the thread's own
  std::condition_variable changed;
  std::condition_variable delivered;
  std::array<Waiting, 2> lanes;  // in the order in which they get their turn
  Waiting* begun = nullptr;      // the lane whose first event the output may hold a part of
  std::size_t accepted = 0;
  bool draining = false;
  bool writing = false;    // an event is on its way to the sink
  bool abandoned = false;  // what is left has been told: no more of it leaves
  bool stopping = false;

  bool outputFailed = false;  // at the last attempt

  bool failing = false;  // the delivering thread's own, and the next
  bool lossTold = false;
  std::thread thread;
};

#endif  // VELTA_AGENT_SEND_QUEUE_H
