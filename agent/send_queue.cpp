#include "agent/send_queue.h"

#include <algorithm>
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
constexpr milliseconds longestAttempt{700};  // with what it takes besides waiting
constexpr milliseconds retryInterval{1000};
constexpr milliseconds drainRetryInterval{100};  // an end has little time

MinuteLimit::Time Now() { return MinuteLimit::Time::clock::now(); }

// No limit stays none, and any limit leaves room for a finding a minute.
unsigned ShareOfFindings(unsigned eventsPerMinute) {
  return eventsPerMinute / 4 + (eventsPerMinute % 4 == 0 ? 0 : 1);
}

}  // namespace

bool DeliveryState::LooksLike(const DeliveryState& other) const {
  return output == other.output && condition == other.condition && sent == other.sent &&
         waiting == other.waiting && deferred == other.deferred && lost == other.lost &&
         lastError == other.lastError && lastErrorAt == other.lastErrorAt;
}

SendQueue::SendQueue(EventOutput& eventOutput, Logger& queueLogger, unsigned eventsPerMinute,
                     std::function<void()> whenChanged, bool alone)
    : sink(eventOutput),
      logger(queueLogger),
      reportChange(std::move(whenChanged)),
      deliversOnPush(alone && eventOutput.NeverWaits()),
      lanes{Waiting(longestQueue, eventsPerMinute),
            Waiting(longestFindings, ShareOfFindings(eventsPerMinute))},
      thread([this] { Deliver(); }) {}

SendQueue::~SendQueue() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  changed.notify_all();
  thread.join();
}

void SendQueue::Push(const std::string& event, Lane lane) noexcept {
  {
    std::unique_lock<std::mutex> lock(mutex);
    Waiting& waiting = lanes[lane == Lane::Alerts ? 0 : 1];
    if (waiting.bytes + Waiting::Cost(event) <= waiting.longest && waiting.Append(event)) {
      ++accepted;
    } else {
      waiting.lost.Add(event);  // told by the delivering thread
      ++lost;
    }
    if (lane == Lane::Alerts && MayDeliverHereLocked(waiting)) {
      DeliverHereLocked(lock, waiting);
      if (IsEmptyLocked()) {
        return;
      }
    }
  }
  changed.notify_one();
}

// Findings are left to the delivering thread: they may be many, and an alert may be on its way.
bool SendQueue::MayDeliverHereLocked(Waiting& lane) {
  const bool busy =
      writing || begun != nullptr || draining || abandoned || stopping || outputFailed || failing;
  if (!deliversOnPush || busy || CountLocked() != 1 || lane.events.size() != 1 || lane.lost.Count() > 0) {
    return false;
  }
  const MinuteLimit::Time now = Now();
  return lane.limit.NextAdmission(now) <= now;
}

// What does not get through is left to the delivering thread, also what there is to log of it.
void SendQueue::DeliverHereLocked(std::unique_lock<std::mutex>& lock, Waiting& lane) noexcept {
  try {
    const EventOutput::Outcome outcome = AttemptLocked(lock, lane, milliseconds::zero());
    if (outcome == EventOutput::Outcome::Delivered && reportChange) {
      lock.unlock();
      reportChange();
      lock.lock();
    }
  } catch (const std::bad_alloc&) {  // the event is still in the queue
    if (!lock.owns_lock()) {
      lock.lock();
    }
    writing = false;
    delivered.notify_all();
  }
}

// With what the containers take for it.
std::size_t SendQueue::Waiting::Cost(const std::string& event) {
  return event.size() + sizeof(std::string) + 16;
}

bool SendQueue::Waiting::Append(const std::string& event) {
  try {
    events.push_back(event);
  } catch (const std::bad_alloc&) {
    return false;
  }
  bytes += Cost(event);
  return true;
}

bool SendQueue::IsEmptyLocked() const {
  return std::all_of(lanes.begin(), lanes.end(), [](const Waiting& lane) { return lane.IsEmpty(); });
}

std::size_t SendQueue::CountLocked() const {
  std::size_t count = 0;
  for (const Waiting& lane : lanes) {
    count += lane.events.size();
  }
  return count;
}

std::size_t SendQueue::Accepted() const {
  std::lock_guard<std::mutex> lock(mutex);
  return accepted;
}

DeliveryState SendQueue::State() const {
  std::lock_guard<std::mutex> lock(mutex);
  return StateLocked();
}

DeliveryState SendQueue::StateLocked() const {
  DeliveryState state;
  state.output = sink.Name();
  state.condition = condition;
  state.sent = sent;
  state.waiting = CountLocked();
  for (const Waiting& lane : lanes) {
    state.deferred += lane.deferring ? lane.events.size() : 0;
  }
  state.lost = lost;
  state.lastError = lastError;
  state.lastErrorAt = lastErrorAt;
  if (writing) {
    state.writingSince = writingSince;
  }
  return state;
}

void SendQueue::BeginDrain() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    draining = true;
    outputFailed = false;
  }
  changed.notify_all();
}

bool SendQueue::Drain(std::optional<milliseconds> patience) {
  BeginDrain();
  if (AwaitDrained(patience)) {
    return true;
  }
  GiveUp();
  return EndDrain(Now() + longestAttempt);
}

bool SendQueue::AwaitDrained(std::optional<milliseconds> patience) {
  std::unique_lock<std::mutex> lock(mutex);
  const auto isOver = [this, &patience] { return IsEmptyLocked() || (outputFailed && !patience); };
  if (patience) {
    delivered.wait_for(lock, *patience, isOver);
  } else {
    delivered.wait(lock, isOver);
  }
  draining = false;
  return IsEmptyLocked();
}

void SendQueue::GiveUp() {
  std::lock_guard<std::mutex> lock(mutex);
  abandoned = true;
}

milliseconds SendQueue::LongestAttempt() { return longestAttempt; }

// The attempt that is being made ends first: an event is either delivered or told. Of one that does not end
// nobody knows.
bool SendQueue::EndDrain(std::chrono::steady_clock::time_point longestAttemptEnds) {
  std::unique_lock<std::mutex> lock(mutex);
  delivered.wait_until(lock, longestAttemptEnds, [this] { return !writing; });
  if (IsEmptyLocked()) {
    return true;
  }
  hung = writing;
  if (hung) {
    logger.Error("send queue: an attempt to deliver to " + sink.Name() +
                 " does not end; its event may have arrived");
  }
  logger.Error("send queue: " + std::to_string(CountLocked()) + " events could not be delivered to " +
               sink.Name());
  for (const Waiting& lane : lanes) {
    TellLeftLocked(lane);
  }
  return false;
}

bool SendQueue::HasHung() const {
  std::lock_guard<std::mutex> lock(mutex);
  return hung;
}

void SendQueue::TellLeftLocked(const Waiting& lane) {
  for (const std::string& event : lane.events) {
    logger.ErrorInParts("send queue: not delivered", event);
  }
  if (lane.lost.Count() > 0) {
    logger.ErrorInParts("send queue: not delivered", lane.lost.Summary(UtcTimeText(std::time(nullptr))));
  }
}

void SendQueue::Deliver() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    try {
      for (Waiting& lane : lanes) {
        if (OwesSummaryLocked(lane)) {
          AppendSummaryLocked(lock, lane);
        }
      }
      if (CountLocked() == 0 || abandoned || writing) {
        changed.wait(lock);
      } else {
        DeliverDueLocked(lock);
      }
    } catch (const std::bad_alloc&) {  // the event is still in the queue
      if (!lock.owns_lock()) {
        lock.lock();
      }
      writing = false;
      delivered.notify_all();
      if (!stopping) {
        changed.wait_for(lock, drainRetryInterval);
      }
    }
  }
}

bool SendQueue::OwesSummaryLocked(const Waiting& lane) const {
  return lane.lost.Count() > 0 && !abandoned && (draining || lane.bytes <= lane.longest / 2);
}

void SendQueue::AppendSummaryLocked(std::unique_lock<std::mutex>& lock, Waiting& lane) {
  lane.events.push_back(lane.lost.Summary(UtcTimeText(std::time(nullptr))));
  lane.bytes += Waiting::Cost(lane.events.back());
  ++accepted;
  const std::size_t count = lane.lost.Count();
  lane.lost.Clear();
  lossTold = false;
  lock.unlock();
  logger.Error("send queue: " + std::to_string(count) +
               " events were lost: the queue was full; one that says so takes their place");
  lock.lock();
}

void SendQueue::DeliverDueLocked(std::unique_lock<std::mutex>& lock) {
  const MinuteLimit::Time now = Now();
  if (begun != nullptr) {  // nothing may come between the parts of a record
    DeliverNextLocked(lock, *begun);
    return;
  }
  MinuteLimit::Time next = MinuteLimit::Time::max();
  for (Waiting& lane : lanes) {
    if (lane.events.empty()) {
      continue;
    }
    const MinuteLimit::Time admission = draining ? now : lane.limit.NextAdmission(now);
    if (admission <= now) {
      DeliverNextLocked(lock, lane);
      return;
    }
    if (!lane.deferring) {
      TellDeferringLocked(lock, lane);
      return;
    }
    next = std::min(next, admission);
  }
  changed.wait_until(lock, next);
}

void SendQueue::TellDeferringLocked(std::unique_lock<std::mutex>& lock, Waiting& lane) {
  lane.deferring = true;
  const std::size_t waiting = lane.events.size();
  lock.unlock();
  logger.Warning("send queue: the limit of events a minute is reached; " + std::to_string(waiting) +
                 " or more wait for the next minute");
  lock.lock();
  ReportChangeLocked(lock);
}

EventOutput::Outcome SendQueue::AttemptLocked(std::unique_lock<std::mutex>& lock, Waiting& lane,
                                              milliseconds patience) {
  std::string& event = lane.events.front();  // stays where it is while others are pushed behind it
  begun = &lane;  // also if the attempt ends in an exception: the output may hold a part of the event by then
  writing = true;
  writingSince = Now();
  lock.unlock();
  const EventOutput::Outcome outcome = sink.Write(event, patience);
  lock.lock();
  writing = false;
  begun = outcome == EventOutput::Outcome::Blocked ? &lane : nullptr;
  if (outcome == EventOutput::Outcome::Delivered || outcome == EventOutput::Outcome::Refused) {
    lane.bytes -= Waiting::Cost(event);
    if (outcome == EventOutput::Outcome::Delivered) {
      lane.limit.Count(Now());
      ++sent;
    } else {
      refused = std::move(event);
      ++lost;
    }
    lane.events.pop_front();
    lane.deferring = lane.deferring && !lane.events.empty();
  }
  outputFailed = outcome == EventOutput::Outcome::Failed;
  NoteConditionLocked(outcome);
  if (IsEmptyLocked() || outputFailed || abandoned) {
    delivered.notify_all();
  }
  return outcome;
}

void SendQueue::NoteConditionLocked(EventOutput::Outcome outcome) {
  switch (outcome) {
    case EventOutput::Outcome::Delivered:
      condition = DeliveryState::Condition::Takes;
      break;
    case EventOutput::Outcome::Blocked:
      condition = DeliveryState::Condition::Blocked;
      break;
    case EventOutput::Outcome::Failed:
      condition = DeliveryState::Condition::Fails;
      break;
    case EventOutput::Outcome::Refused:
      break;
  }
}

void SendQueue::DeliverNextLocked(std::unique_lock<std::mutex>& lock, Waiting& lane) {
  const News news = NewsLocked(AttemptLocked(lock, lane, sinkPatience));
  lock.unlock();
  Tell(news);
  lock.lock();
  ReportChangeLocked(lock);
  if (outputFailed && !stopping) {
    changed.wait_for(lock, draining ? drainRetryInterval : retryInterval);
  }
}

// One warning when delivery stops, one notice when it goes on.
SendQueue::News SendQueue::NewsLocked(EventOutput::Outcome outcome) {
  News news;
  news.waiting = CountLocked();
  const bool failed = outcome == EventOutput::Outcome::Failed || outcome == EventOutput::Outcome::Blocked;
  if (outcome == EventOutput::Outcome::Failed || outcome == EventOutput::Outcome::Refused) {
    news.reason = sink.Error();
  } else if (failed) {
    news.reason = sink.Name() + " is not being read";
  }
  if (!news.reason.empty() && (news.reason != lastError || !failing)) {
    lastError = news.reason;
    lastErrorAt = std::time(nullptr);
  }
  if (outcome == EventOutput::Outcome::Refused) {
    news.refused = std::exchange(refused, std::string());
    return news;
  }
  news.stopped = failed && !failing ? news.reason : "";
  news.resumed = !failed && failing;
  failing = failed;
  news.losing = lanes[0].lost.Count() + lanes[1].lost.Count() > 0 && !lossTold;
  lossTold = lossTold || news.losing;
  return news;
}

// Without the lock: whoever pushes an event must not wait for the log.
void SendQueue::Tell(const News& news) {
  if (!news.refused.empty()) {
    logger.ErrorInParts("send queue: " + news.reason + "; it is left to the log", news.refused);
  }
  if (!news.stopped.empty()) {
    logger.Warning("send queue: " + news.stopped + "; events are kept and tried again");
  }
  if (news.resumed) {
    logger.Info("send queue: " + sink.Name() + " takes events again; " + std::to_string(news.waiting) +
                " are still waiting");
  }
  if (news.losing) {
    logger.Error("send queue: full with " + std::to_string(news.waiting) + " events; more are being lost");
  }
}

void SendQueue::ReportChangeLocked(std::unique_lock<std::mutex>& lock) {
  if (!reportChange) {
    return;
  }
  DeliveryState state = StateLocked();
  if (state.LooksLike(reported)) {
    return;
  }
  reported = std::move(state);
  lock.unlock();
  reportChange();
  lock.lock();
}

void PushMinuteLimitEventToSendQueue(const std::string& event) {
  InstalledServices::Current().queue.Push(event);
}
