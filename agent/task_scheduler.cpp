#include "agent/task_scheduler.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <utility>

#include "agent/held_up.h"
#include "agent/logger.h"
#include "agent/services.h"

namespace {

// Beyond what a 32-bit clock can be asked for, a wait would end at once, again and again.
constexpr std::chrono::hours longestWait(1);

TaskTable::Time Now() { return std::chrono::steady_clock::now(); }

// What this thread is running: a task that pauses itself must not wait for itself.
struct CurrentRun {
  const TaskScheduler* scheduler;
  unsigned id;
};
thread_local CurrentRun currentRun = {nullptr, 0};

// For whom this thread has volunteered.
thread_local const TaskScheduler* volunteerOf = nullptr;

// Never throws: it runs where a failed task ends, and memory may be what failed.
void LogFailure(Logger& logger, const std::string& name, const char* reason) {
  try {
    logger.Error("task " + name + " failed and will be tried again: " + reason);
  } catch (
      const std::bad_alloc&) {  // then not even the message can be built; the task is retried all the same
  }
}

// Exceptions end here: the thread is the agent's, and so is every other task.
TaskTable::Outcome Run(const TaskTable::Task& task, Logger& logger) {
  try {
    const HeldUp heldUp;
    task.function(task.arg);
    if (!heldUp.WasInterrupted()) {
      return TaskTable::Outcome::Done;
    }
    LogFailure(logger, task.name, "it was held up");
    return TaskTable::Outcome::HeldUp;
  } catch (const std::exception& error) {
    LogFailure(logger, task.name, error.what());
  } catch (...) {
    LogFailure(logger, task.name, "an exception of an unknown type");
  }
  return TaskTable::Outcome::Failed;
}

}  // namespace

TaskScheduler::TaskScheduler(unsigned workerCount, Logger& schedulerLogger, Gate gateBeforeRuns,
                             std::function<void()> whenIdle)
    : logger(schedulerLogger), gate(std::move(gateBeforeRuns)), idle(std::move(whenIdle)) {
  try {
    for (unsigned i = 0; i < workerCount; ++i) {
      workers.emplace_back([this] { Work(); });
    }
  } catch (...) {
    StopWorkers();
    throw;
  }
}

TaskScheduler::~TaskScheduler() { StopWorkers(); }

void TaskScheduler::StopWorkers() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  changed.notify_all();
  for (std::thread& worker : workers) {
    worker.join();
  }
  std::unique_lock<std::mutex> lock(mutex);
  ended.wait(lock, [this] { return running == 0; });  // a volunteer's run
}

unsigned TaskScheduler::Register(utils::thread::TASKTYPE type, const utils::thread::TASK_CONDITION& condition,
                                 void* (*function)(void*), void* arg, const std::string& name, bool mayWait) {
  unsigned id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    id = table.Register(type, condition, function, arg, name, Now(), mayWait);
  }
  changed.notify_all();  // the new task may be due before the one that the workers wait for
  return id;
}

void TaskScheduler::Launch(unsigned id, std::chrono::milliseconds after) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    table.Launch(id, Now() + after);
  }
  if (volunteerOf != this) {
    changed.notify_one();
  }
}

std::size_t TaskScheduler::LaunchAll() {
  std::size_t launched = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    launched = table.LaunchAll(Now());
  }
  changed.notify_all();
  return launched;
}

void TaskScheduler::PauseAndWait(unsigned id) {
  std::unique_lock<std::mutex> lock(mutex);
  table.Pause(id);
  ended.notify_all();  // what was due is not any more
  if (currentRun.scheduler == this && currentRun.id == id) {
    return;
  }
  ended.wait(lock, [this, id] { return !table.IsRunning(id); });
}

void TaskScheduler::Unregister(unsigned id) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    table.Unregister(id);
  }
  ended.notify_all();
}

void TaskScheduler::Volunteer() { volunteerOf = this; }

void TaskScheduler::RunDue() {
  std::unique_lock<std::mutex> lock(mutex);
  const TaskTable::Time began =
      Now();  // what becomes due during a run is not this call's: it comes to an end
  while (!stopping) {
    const unsigned id = table.Begin(began, true);
    if (id == 0) {
      break;
    }
    RunLocked(lock, id);
  }
  // A run that failed or was put off is due again before the workers look; a launch may still be there.
  const auto due = table.NextDue();
  if (due && (workers.size() > 1 || *due < workersWaitUntil)) {
    changed.notify_all();
  }
}

bool TaskScheduler::WaitUntilIdle() {
  std::unique_lock<std::mutex> lock(mutex);
  ended.wait(lock, [this] { return table.IsIdle(Now()); });
  return !anyFailed;
}

std::optional<TaskTable::Failures> TaskScheduler::Failing() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return table.Failing();
}

std::optional<TaskTable::Time> TaskScheduler::RunningSince() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return table.RunningSince();
}

void TaskScheduler::Work() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    const unsigned id = table.Begin(Now());
    if (id != 0) {
      RunLocked(lock, id);
      continue;
    }
    workersWaitUntil = Now() + longestWait;
    if (const auto due = table.NextDue()) {
      workersWaitUntil = std::min(*due, workersWaitUntil);
    }
    changed.wait_until(lock, TaskTable::Time(workersWaitUntil));  // a copy: others change it
  }
}

void TaskScheduler::RunLocked(std::unique_lock<std::mutex>& lock, unsigned id) {
  // Safe without the lock: a running task's record stays where it is, and what Run reads of it never changes.
  const TaskTable::Task& task = *table.Find(id);
  const TaskTable::Time began = Now();
  ++running;
  lock.unlock();
  currentRun = {this, id};
  TaskTable::Outcome outcome = TaskTable::Outcome::Failed;
  switch (AskGate()) {
    case Permission::Answer::Yes:
      outcome = Run(task, logger);
      break;
    case Permission::Answer::NotYet:
      outcome = TaskTable::Outcome::PutOff;
      break;
    case Permission::Answer::No:
      break;
  }
  currentRun = {nullptr, 0};
  lock.lock();
  anyFailed = anyFailed || outcome == TaskTable::Outcome::Failed;
  table.End(id, outcome, began, Now());
  ended.notify_all();
  if (idle && table.IsIdle(Now())) {
    lock.unlock();
    {
      const std::lock_guard<std::mutex> oneAtATime(idleMutex);
      idle();
    }
    lock.lock();
  }
  --running;
  ended.notify_all();  // an end of the scheduler waits for this
}

// Never throws: it runs at the top of a worker, and memory may be short; then nothing runs for now.
TaskScheduler::Permission::Answer TaskScheduler::AskGate() {
  if (!gate) {
    return Permission::Answer::Yes;
  }
  try {
    std::lock_guard<std::mutex> lock(gateMutex);
    const Permission permission = gate();
    if (permission.answer == Permission::Answer::No && permission.reason != toldReason) {
      logger.Error("tasks wait: " + permission.reason);
      toldReason = permission.reason;
    } else if (permission.answer == Permission::Answer::Yes && !toldReason.empty()) {
      if (permission.reason.empty()) {
        logger.Info("tasks run again");
      }
      toldReason.clear();
    }
    return permission.answer;
  } catch (const std::bad_alloc&) {
    return Permission::Answer::No;
  }
}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                           void* (*function)(void*), void* arg, const std::string& name) {
  return InstalledServices::Current().scheduler.Register(type, condition, function, arg, name);
}

void UtilsPauseAndWaitForEnd(unsigned id) { InstalledServices::Current().scheduler.PauseAndWait(id); }

void UtilsUnregisterTask(unsigned id) { InstalledServices::Current().scheduler.Unregister(id); }

void UtilsMakeTaskLaunch(unsigned id) { InstalledServices::Current().scheduler.Launch(id); }
