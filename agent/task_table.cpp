#include "agent/task_table.h"

#include <algorithm>
#include <utility>

using std::chrono::milliseconds;

namespace {

// A century: beyond any meaningful wait, and far from where adding to a time point would overflow.
constexpr std::int64_t longestWaitMs = INT64_C(100) * 366 * 24 * 3600 * 1000;

milliseconds Wait(std::int64_t ms) { return milliseconds(std::clamp(ms, INT64_C(0), longestWaitMs)); }

std::optional<TaskTable::Time> Earlier(std::optional<TaskTable::Time> one, TaskTable::Time other) {
  return one ? std::min(*one, other) : other;
}

}  // namespace

unsigned TaskTable::NextId() {
  // An id is not used again before the counter has gone round, so a late call with an old one meets nobody.
  do {
    ++lastId;
  } while (lastId == 0 || tasks.count(lastId) != 0);
  return lastId;
}

unsigned TaskTable::Register(utils::thread::TASKTYPE type, const utils::thread::TASK_CONDITION& condition,
                             void* (*function)(void*), void* arg, const std::string& name, Time now,
                             bool mayWait) {
  if (function == nullptr) {
    return 0;
  }
  Task task = Task();
  task.name = name;
  task.function = function;
  task.arg = arg;
  task.mayWait = mayWait;
  if (condition.enabled) {
    task.timer = now + Wait(condition.startDelayMs);
    task.due = task.timer;
    if (type == utils::thread::TASKTYPE_PERIODIC) {
      task.interval = Wait(condition.intervalMs);
    }
  }
  const unsigned id = NextId();
  tasks.emplace(id, std::move(task));
  return id;
}

void TaskTable::Launch(unsigned id, Time due) {
  const auto found = tasks.find(id);
  if (found == tasks.end() || found->second.paused) {
    return;
  }
  Task& task = found->second;
  task.due = Earlier(task.due, due);
}

std::size_t TaskTable::LaunchAll(Time now) {
  for (const auto& entry : tasks) {
    Launch(entry.first, now);
  }
  return tasks.size();
}

void TaskTable::Pause(unsigned id) {
  const auto found = tasks.find(id);
  if (found != tasks.end()) {
    found->second.paused = true;
    found->second.due.reset();
  }
}

void TaskTable::Unregister(unsigned id) {
  Pause(id);
  const auto found = tasks.find(id);
  if (found == tasks.end()) {
    return;
  }
  if (found->second.running) {
    found->second.gone = true;
  } else {
    tasks.erase(found);
  }
}

std::optional<TaskTable::Time> TaskTable::NextDue() const {
  std::optional<Time> next;
  for (const auto& [id, task] : tasks) {
    if (task.due && !task.running) {
      next = Earlier(next, *task.due);
    }
  }
  return next;
}

unsigned TaskTable::Begin(Time now, bool butWhatMayWait) {
  unsigned first = 0;
  std::optional<Time> firstDue;
  bool firstMayWait = false;
  for (const auto& [id, task] : tasks) {
    if (butWhatMayWait && task.mayWait) {
      continue;
    }
    if (!task.due || task.running || *task.due > now) {
      continue;
    }
    const bool comesBefore =
        first == 0 || (task.mayWait == firstMayWait ? *task.due <= *firstDue : firstMayWait);
    if (comesBefore) {
      first = id;
      firstDue = task.due;
      firstMayWait = task.mayWait;
    }
  }
  if (first != 0) {
    Task& task = tasks.at(first);
    task.running = true;
    task.began = now;
    task.due.reset();
  }
  return first;
}

void TaskTable::End(unsigned id, Outcome outcome, Time began, Time now) {
  const auto found = tasks.find(id);
  if (found == tasks.end()) {
    return;
  }
  Task& task = found->second;
  task.running = false;
  if (task.gone) {
    tasks.erase(found);
    return;
  }
  if (task.paused) {
    return;
  }
  if (task.timer && *task.timer <= began) {
    // From the run's beginning, so that a quick task keeps its period; one that outlasts it waits a full one.
    task.timer.reset();
    if (task.interval > milliseconds::zero()) {
      const Time next = began + task.interval;
      task.timer = next > now ? next : now + task.interval;
    }
  }
  std::optional<Time> next = task.timer;
  switch (outcome) {
    case Outcome::Done:
      task.retryWait = milliseconds::zero();
      task.failures = 0;
      break;
    case Outcome::Failed:
    case Outcome::HeldUp:
      if (task.failures++ == 0) {
        task.failingSince = now;
      }
      task.retryWait =
          outcome == Outcome::HeldUp ? firstRetry : std::clamp(task.retryWait * 2, firstRetry, longestRetry);
      next = Earlier(next, now + task.retryWait);
      break;
    case Outcome::PutOff:
      next = Earlier(next, now + putOffWait);
      break;
  }
  if (task.due) {
    task.due = std::max(*task.due, now);
  }
  if (next && (!task.due || *next < *task.due)) {  // otherwise what was launched meanwhile comes first
    task.due = next;
  }
}

std::optional<TaskTable::Failures> TaskTable::Failing() const {
  std::optional<Failures> longest;
  for (const auto& [id, task] : tasks) {
    if (task.failures > 0 && (!longest || task.failingSince < longest->since)) {
      longest = Failures{task.failures, task.failingSince};
    }
  }
  return longest;
}

std::optional<TaskTable::Time> TaskTable::RunningSince() const {
  std::optional<Time> oldest;
  for (const auto& [id, task] : tasks) {
    if (task.running) {
      oldest = Earlier(oldest, task.began);
    }
  }
  return oldest;
}

const TaskTable::Task* TaskTable::Find(unsigned id) const {
  const auto found = tasks.find(id);
  return found == tasks.end() ? nullptr : &found->second;
}

bool TaskTable::IsRunning(unsigned id) const {
  const Task* const task = Find(id);
  return task != nullptr && task->running;
}

bool TaskTable::IsIdle(Time now) const {
  return std::none_of(tasks.begin(), tasks.end(), [now](const auto& entry) {
    return entry.second.running || (entry.second.due && *entry.second.due <= now);
  });
}
