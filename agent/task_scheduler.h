#ifndef VELTA_AGENT_TASK_SCHEDULER_H
#define VELTA_AGENT_TASK_SCHEDULER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/task_table.h"
#include "host/task_scheduler.h"

class Logger;

// Runs registered tasks on worker threads of its own, by their timing and whenever they are launched; see
// TaskTable for what is promised of launches and failures.
//
// Before each run the gate is asked. A run that it refuses counts as a failed one and is tried again as those
// are; each new reason is logged once. One that it puts off is tried again soon, without a word.
//
// A thread that launches tasks and has nothing better to do may volunteer to run them itself: waking a worker
// takes longer than many a task. It does so beside the workers, so what they are at holds nothing of it up.
//
// A run that does not come back from a system call is interrupted, and tried again; see HeldUp.
//
// An exception that leaves a task ends where it runs: it is logged with the task's name, and the task stays.
//
// Thread use: everything from any thread, tasks included. Construction throws std::system_error when no
// thread is to be had. Destruction waits for running tasks.
class TaskScheduler {
 public:
  struct Permission {
    enum class Answer { Yes, NotYet, No };
    Answer answer = Answer::Yes;
    std::string reason;  // of a No; of a Yes: why the run will find nothing
  };

  // Whether a task may run now. Called on the threads that run tasks, one at a time.
  using Gate = std::function<Permission()>;

  // whenIdle is called on a thread that has run a task and finds nothing more to run: for what no task is to
  // wait for. One call at a time. It must not throw.
  TaskScheduler(unsigned workerCount, Logger& schedulerLogger, Gate gateBeforeRuns = nullptr,
                std::function<void()> whenIdle = nullptr);
  ~TaskScheduler();
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  // 0 when there is no function to call. mayWait: whatever else is due comes before it, and a volunteer
  // leaves it to the workers.
  unsigned Register(utils::thread::TASKTYPE type, const utils::thread::TASK_CONDITION& condition,
                    void* (*function)(void*), void* arg, const std::string& name, bool mayWait = false);
  // After that wait, from this launch or the first one that waits.
  void Launch(unsigned id, std::chrono::milliseconds after = std::chrono::milliseconds::zero());
  std::size_t LaunchAll();  // how many tasks there are

  // No run of the task begins after it returns. Waits for a running one, unless called from inside it.
  void PauseAndWait(unsigned id);
  void Unregister(unsigned id);

  // For the rest of its life the calling thread calls RunDue soon after it has launched a task; no worker is
  // woken for what it launches.
  void Volunteer();

  // Runs what is due on the calling thread, each task once at most; not what may wait, and not what runs
  // already, which is the workers' to run again.
  void RunDue();

  // Waits until nothing runs and nothing is due. True when no run since construction has failed or was
  // refused.
  bool WaitUntilIdle();

  // Since when the run goes on that has done so for longest; nothing while none does.
  std::optional<TaskTable::Time> RunningSince() const;

  // Of the task that has failed for longest; nothing while the last run of each was done.
  std::optional<TaskTable::Failures> Failing() const;

 private:
  void Work();
  void RunLocked(std::unique_lock<std::mutex>& lock, unsigned id);  // lets go of the lock while the task runs
  void StopWorkers();

  Permission::Answer AskGate();

  Logger& logger;
  const Gate gate;
  const std::function<void()> idle;
  std::mutex idleMutex;  // makes calls of idle exclusive
  std::mutex gateMutex;  // guards toldReason; makes calls of the gate exclusive
  std::string toldReason;
  mutable std::mutex mutex;  // guards everything below it but the threads
  std::condition_variable changed;
  std::condition_variable ended;
  TaskTable table;
  unsigned running = 0;
  TaskTable::Time workersWaitUntil{TaskTable::Time::max()};
  bool stopping = false;
  bool anyFailed = false;
  std::vector<std::thread> workers;
};

#endif  // VELTA_AGENT_TASK_SCHEDULER_H
