#include "agent/send_queue.h"

#include <ctime>
#include <new>
#include <utility>

#include "agent/logger.h"
#include "agent/services.h"
#include "agent/utc_time.h"
#include "host/send_queue.h"

using std::chrono::milliseconds;

namespace {

// How long one attempt waits for a slow reader: also how long a stop may have to wait for it.
constexpr milliseconds sinkPatience{200};
constexpr milliseconds retryInterval{1000};
constexpr milliseconds drainRetryInterval{100};  // an end has little time

MinuteLimit::Time Now() { return MinuteLimit::Time::clock::now(); }

}  // namespace

SendQueue::SendQueue(EventSink& eventSink, Logger& queueLogger, unsigned eventsPerMinute)
    : sink(eventSink), logger(queueLogger), limit(eventsPerMinute), thread([this] { Deliver(); }) {}

SendQueue::~SendQueue() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  changed.notify_all();
  thread.join();
}

void SendQueue::Push(const std::string& event) noexcept {
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (bytes + Cost(event) > longestQueue || !AppendLocked(event)) {
      lost.Add(event);  // told by the delivering thread
    }
  }
  changed.notify_one();
}

// With what the containers take for it.
std::size_t SendQueue::Cost(const std::string& event) { return event.size() + sizeof(std::string) + 16; }

bool SendQueue::AppendLocked(const std::string& event) {
  try {
    events.push_back(event);
  } catch (const std::bad_alloc&) {
    return false;
  }
  bytes += Cost(event);
  ++accepted;
  return true;
}

std::size_t SendQueue::Accepted() const {
  std::lock_guard<std::mutex> lock(mutex);
  return accepted;
}

bool SendQueue::Drain(std::optional<milliseconds> patience) {
  std::unique_lock<std::mutex> lock(mutex);
  draining = true;
  outputFailed = false;
  changed.notify_all();
  const auto isOver = [this, &patience] {
    return (events.empty() && lost.Count() == 0) || (outputFailed && !patience);
  };
  if (patience) {
    delivered.wait_for(lock, *patience, isOver);
  } else {
    delivered.wait(lock, isOver);
  }
  draining = false;
  if (events.empty() && lost.Count() == 0) {
    return true;
  }
  // The attempt that is being made ends first: an event is either delivered or told, never both.
  abandoned = true;
  delivered.wait(lock, [this] { return !writing; });
  if (events.empty() && lost.Count() == 0) {
    return true;
  }
  logger.Error("send queue: " + std::to_string(events.size()) + " events could not be delivered to " +
               sink.Name());
  for (const std::string& event : events) {
    logger.Error("send queue: not delivered: " + event);
  }
  if (lost.Count() > 0) {
    logger.Error("send queue: not delivered: " + lost.Summary(UtcTimeText(std::time(nullptr))));
  }
  return false;
}

void SendQueue::Deliver() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    try {
      if (OwesSummaryLocked()) {
        AppendSummaryLocked(lock);
      }
      if (events.empty() || abandoned) {
        changed.wait(lock);
      } else {
        DeliverDueLocked(lock);
      }
    } catch (const std::bad_alloc&) {  // the event is still in the queue
      if (!lock.owns_lock()) {
        lock.lock();
      }
      writing = false;
      if (!stopping) {
        changed.wait_for(lock, drainRetryInterval);
      }
    }
  }
}

bool SendQueue::OwesSummaryLocked() const {
  return lost.Count() > 0 && !abandoned && (draining || bytes <= longestQueue / 2);
}

void SendQueue::AppendSummaryLocked(std::unique_lock<std::mutex>& lock) {
  events.push_back(lost.Summary(UtcTimeText(std::time(nullptr))));
  bytes += Cost(events.back());
  ++accepted;
  const std::size_t count = lost.Count();
  lost.Clear();
  lossTold = false;
  lock.unlock();
  logger.Error("send queue: " + std::to_string(count) +
               " events were lost: the queue was full; one that says so takes their place");
  lock.lock();
}

void SendQueue::DeliverDueLocked(std::unique_lock<std::mutex>& lock) {
  const MinuteLimit::Time now = Now();
  const MinuteLimit::Time admission = draining ? now : limit.NextAdmission(now);
  if (admission <= now) {
    DeliverNextLocked(lock);
  } else if (deferring) {
    changed.wait_until(lock, admission);
  } else {
    deferring = true;
    const std::size_t waiting = events.size();
    lock.unlock();
    logger.Warning("send queue: the limit of events a minute is reached; " + std::to_string(waiting) +
                   " or more wait for the next minute");
    lock.lock();
  }
}

void SendQueue::DeliverNextLocked(std::unique_lock<std::mutex>& lock) {
  const std::string& event = events.front();  // stays where it is while others are pushed behind it
  writing = true;
  lock.unlock();
  const EventSink::Outcome outcome = sink.Write(event, sinkPatience);
  lock.lock();
  writing = false;
  if (outcome == EventSink::Outcome::Delivered) {
    limit.Count(Now());
    bytes -= Cost(event);
    events.pop_front();
    deferring = deferring && !events.empty();
  }
  outputFailed = outcome == EventSink::Outcome::Failed;
  if (events.empty() || outputFailed || abandoned) {
    delivered.notify_all();
  }
  const std::size_t waiting = events.size();
  const std::size_t lostSoFar = lost.Count();
  lock.unlock();
  NoteOutcome(outcome, waiting, lostSoFar);
  lock.lock();
  if (outputFailed && !stopping) {
    changed.wait_for(lock, draining ? drainRetryInterval : retryInterval);
  }
}

// One warning when delivery stops, one notice when it goes on. Without the lock: whoever pushes an event must
// not wait for the log.
void SendQueue::NoteOutcome(EventSink::Outcome outcome, std::size_t waiting, std::size_t lostSoFar) {
  const bool failed = outcome != EventSink::Outcome::Delivered;
  if (failed && !failing) {
    const std::string reason =
        outcome == EventSink::Outcome::Blocked ? sink.Name() + " is not being read" : sink.Error();
    logger.Warning("send queue: " + reason + "; events are kept and tried again");
  }
  if (!failed && failing) {
    logger.Info("send queue: " + sink.Name() + " takes events again; " + std::to_string(waiting) +
                " are still waiting");
  }
  if (lostSoFar > 0 && !lossTold) {
    logger.Error("send queue: full with " + std::to_string(waiting) + " events; more are being lost");
    lossTold = true;
  }
  failing = failed;
}

void PushMinuteLimitEventToSendQueue(const std::string& event) {
  InstalledServices::Current().queue.Push(event);
}
