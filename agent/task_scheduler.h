#ifndef VELTA_AGENT_TASK_SCHEDULER_H
#define VELTA_AGENT_TASK_SCHEDULER_H

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/task_table.h"
#include "host/task_scheduler.h"

class Logger;

// Runs registered tasks on worker threads of its own, by their timing and whenever they are launched; see
// TaskTable for what is promised of launches and failures.
//
// Before each run the obstacle function is asked; while it gives a reason, runs count as failed ones and are
// tried again as those are. Each new reason is logged once.
//
// An exception that leaves a task ends at the worker: it is logged with the task's name, and the task stays.
//
// Thread use: everything from any thread, tasks included. Construction throws std::system_error when no
// thread is to be had. Destruction waits for running tasks.
class TaskScheduler {
 public:
  // Why no task may run now, or an empty text. Called on the workers, one at a time.
  using Obstacle = std::function<std::string()>;

  TaskScheduler(unsigned workerCount, Logger& schedulerLogger, Obstacle obstacleToRuns = nullptr);
  ~TaskScheduler();
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  // 0 when there is no function to call.
  unsigned Register(utils::thread::TASKTYPE type, const utils::thread::TASK_CONDITION& condition,
                    void* (*function)(void*), void* arg, const std::string& name);
  void Launch(unsigned id);
  std::size_t LaunchAll();  // how many tasks there are

  // No run of the task begins after it returns. Waits for a running one, unless called from inside it.
  void PauseAndWait(unsigned id);
  void Unregister(unsigned id);

  // Waits until nothing runs and nothing is due. True when no run since construction has failed or was kept
  // from beginning.
  bool WaitUntilIdle();

 private:
  void Work();
  void RunLocked(std::unique_lock<std::mutex>& lock, unsigned id);  // lets go of the lock while the task runs
  void StopWorkers();

  bool MayRun();

  Logger& logger;
  const Obstacle obstacle;
  std::mutex obstacleMutex;  // guards toldObstacle; makes calls of obstacle exclusive
  std::string toldObstacle;
  std::mutex mutex;  // guards everything below it but the threads
  std::condition_variable changed;
  std::condition_variable ended;
  TaskTable table;
  bool stopping = false;
  bool anyFailed = false;
  std::vector<std::thread> workers;
};

#endif  // VELTA_AGENT_TASK_SCHEDULER_H
