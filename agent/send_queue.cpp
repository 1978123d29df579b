#include "agent/send_queue.h"

#include <new>
#include <utility>

#include "agent/logger.h"
#include "agent/services.h"
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
    if (bytes + event.size() > longestQueue || !AppendLocked(event)) {
      ++refused;  // told by the delivering thread
    }
  }
  changed.notify_one();
}

bool SendQueue::AppendLocked(const std::string& event) {
  try {
    events.push_back(event);
  } catch (const std::bad_alloc&) {
    return false;
  }
  bytes += event.size();
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
  const auto isOver = [this, &patience] { return events.empty() || (outputFailed && !patience); };
  if (patience) {
    delivered.wait_for(lock, *patience, isOver);
  } else {
    delivered.wait(lock, isOver);
  }
  draining = false;
  if (events.empty()) {
    return true;
  }
  logger.Error("send queue: " + std::to_string(events.size()) + " events could not be delivered to " +
               sink.Name());
  for (const std::string& event : events) {
    logger.Error("send queue: not delivered: " + event);
  }
  return false;
}

void SendQueue::Deliver() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    if (events.empty()) {
      changed.wait(lock);
      continue;
    }
    try {
      DeliverDueLocked(lock);
    } catch (const std::bad_alloc&) {  // the event is still in the queue
      if (!lock.owns_lock()) {
        lock.lock();
      }
      if (!stopping) {
        changed.wait_for(lock, drainRetryInterval);
      }
    }
  }
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
  lock.unlock();
  const EventSink::Outcome outcome = sink.Write(event, sinkPatience);
  lock.lock();
  if (outcome == EventSink::Outcome::Delivered) {
    limit.Count(Now());
    bytes -= event.size();
    events.pop_front();
    deferring = deferring && !events.empty();
  }
  outputFailed = outcome == EventSink::Outcome::Failed;
  if (events.empty() || outputFailed) {
    delivered.notify_all();
  }
  const std::size_t waiting = events.size();
  const std::size_t lost = refused;
  lock.unlock();
  NoteOutcome(outcome, waiting, lost);
  lock.lock();
  if (outcome == EventSink::Outcome::Delivered) {
    refused -= lost;
  }
  if (outputFailed && !stopping) {
    changed.wait_for(lock, draining ? drainRetryInterval : retryInterval);
  }
}

// One warning when delivery stops, one notice when it goes on. Without the lock: whoever pushes an event must
// not wait for the log.
void SendQueue::NoteOutcome(EventSink::Outcome outcome, std::size_t waiting, std::size_t lost) {
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
  if (!failed && lost > 0) {
    logger.Error("send queue: " + std::to_string(lost) + " events were lost: the queue was full");
  }
  failing = failed;
}

void PushMinuteLimitEventToSendQueue(const std::string& event) {
  InstalledServices::Current().queue.Push(event);
}
