#ifndef VELTA_AGENT_SEND_QUEUE_H
#define VELTA_AGENT_SEND_QUEUE_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/event_output.h"
#include "agent/event_queue.h"
#include "agent/lost_events.h"
#include "agent/minute_limit.h"

class Logger;

// How far an output has got with its events.
struct DeliveryState {
  enum class Condition {
    Untried,  // nothing has been sent yet
    Takes,    // the last event got through
    Blocked,  // nobody reads, or somebody slow
    Fails,    // lastError says why
  };

  std::string output;
  Condition condition = Condition::Untried;
  std::size_t sent = 0;      // delivered so far
  std::size_t waiting = 0;   // to be delivered
  std::size_t deferred = 0;  // of these, what the limit has left to a later minute
  std::size_t lost = 0;      // so far: no room, or refused by the output
  std::string lastError;     // empty: none so far
  std::time_t lastErrorAt = 0;
  std::optional<std::chrono::steady_clock::time_point> writingSince;  // an attempt is being made

  // Equal but for writingSince.
  bool LooksLike(const DeliveryState& other) const;
};

// Holds events until they are delivered, in order, so many a minute at most. What exceeds the limit waits for
// the next minutes: dropping it would let decoys that come first in the order hide the one that matters.
//
// Memory is bounded: beyond longestQueue bytes of waiting events new ones are lost. As soon as half of that
// is free again, one event is queued that says how many were lost and whom they named; see LostEvents.
//
// An alert that has to wait for nothing leaves on the thread that pushes it, if the output never makes that
// thread wait and is the only one: waking another thread takes longer than all that leads to the alert. The
// price: a reader whose own memory is not there, and does not come, holds the detection up with the pipe. No
// other output hears less for it, as there is none.
//
// Thread use: Push, Accepted and Drain on any thread; delivery otherwise on a thread of its own. Construction
// throws std::system_error when no thread is to be had. Nothing is delivered any more after a Drain that gave
// up.
class SendQueue : public EventQueue {
 public:
  static constexpr std::size_t longestQueue = std::size_t{64} << 20;  // bytes, of alerts
  static constexpr std::size_t longestFindings = std::size_t{8} << 20;

  // 0 events a minute: no limit. whenChanged is called on the delivering thread, or the one that pushes,
  // after what it did has changed the state; it must not throw. alone: there is no other output.
  SendQueue(EventOutput& eventOutput, Logger& queueLogger, unsigned eventsPerMinute,
            std::function<void()> whenChanged = nullptr, bool alone = true);

  // Drops what has not been delivered; Drain comes before.
  ~SendQueue() override;
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;

  using EventQueue::Push;
  void Push(const std::string& event, Lane lane) noexcept override;

  // How many events were taken so far, those about lost ones included.
  std::size_t Accepted() const;

  DeliveryState State() const;

  // Delivers what waits, without regard to the limit. Gives up after patience, if there is one; otherwise as
  // soon as the output fails, while a slow reader is waited for. True when nothing is left; what is left is
  // logged.
  bool Drain(std::optional<std::chrono::milliseconds> patience);

  // The steps of it, for several queues side by side: the limit does not count any more; what waits is
  // delivered; nothing leaves any more; what is left is logged, once the attempt under way has ended or its
  // time is over.
  void BeginDrain();
  bool AwaitDrained(std::optional<std::chrono::milliseconds> patience);  // true: nothing is left
  void GiveUp();
  bool EndDrain(std::chrono::steady_clock::time_point longestAttemptEnds);  // true: nothing is left
  static std::chrono::milliseconds LongestAttempt();

  // An attempt to deliver had not ended when a Drain gave up: the output does not keep to its patience. The
  // destructor would wait for it, maybe for ever.
  bool HasHung() const;

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
  bool MayDeliverHereLocked(Waiting& lane);
  void DeliverHereLocked(std::unique_lock<std::mutex>& lock, Waiting& lane) noexcept;
  EventOutput::Outcome AttemptLocked(std::unique_lock<std::mutex>& lock, Waiting& lane,
                                     std::chrono::milliseconds patience);

  void NoteConditionLocked(EventOutput::Outcome outcome);

  // What an attempt has changed, for the log.
  struct News {
    std::string stopped;  // why delivery stops
    std::string refused;  // the event that the output will never take
    std::string reason;   // of the output
    bool resumed = false;
    bool losing = false;
    std::size_t waiting = 0;
  };
  News NewsLocked(EventOutput::Outcome outcome);
  void Tell(const News& news);

  DeliveryState StateLocked() const;
  void ReportChangeLocked(std::unique_lock<std::mutex>& lock);

  EventOutput& sink;
  Logger& logger;
  const std::function<void()> reportChange;
  const bool deliversOnPush;

  mutable std::mutex mutex;  // guards what follows, down to the thread's own
  std::condition_variable changed;
  std::condition_variable delivered;
  std::array<Waiting, 2> lanes;  // in the order in which they get their turn
  Waiting* begun = nullptr;      // the lane whose first event the output may hold a part of
  std::size_t accepted = 0;
  bool draining = false;
  bool writing = false;  // an event is on its way to the sink
  std::chrono::steady_clock::time_point writingSince;
  bool hung = false;
  bool abandoned = false;  // what is left has been told: no more of it leaves
  bool stopping = false;

  bool outputFailed = false;  // at the last attempt
  bool failing = false;       // as it was told
  bool lossTold = false;
  std::string refused;  // by the last attempt
  DeliveryState::Condition condition = DeliveryState::Condition::Untried;
  std::size_t sent = 0;
  std::size_t lost = 0;
  std::string lastError;
  std::time_t lastErrorAt = 0;
  DeliveryState reported;
  std::thread thread;
};

#endif  // VELTA_AGENT_SEND_QUEUE_H
