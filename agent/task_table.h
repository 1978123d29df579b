#ifndef VELTA_AGENT_TASK_TABLE_H
#define VELTA_AGENT_TASK_TABLE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/task_scheduler.h"

// Which task is due when: the scheduler's decisions, without its threads and its clock. Time comes in as an
// argument.
//
// It promises that after the last launch of a task at least one run begins after it, unless the task is
// paused or gone; that one task never runs twice at a time; and that launches cost nothing however many there
// are: those before a run are one run, those during a run are one more after it.
//
// A task that failed runs again after a wait that doubles from firstRetry to longestRetry, or at its next
// launch. Runs that the timer could not start in time are skipped, not made up for.
//
// Thread use: none of its own; its owner locks.
class TaskTable {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds putOffWait{200};
  static constexpr std::chrono::milliseconds firstRetry{1000};
  static constexpr std::chrono::milliseconds longestRetry{60000};

  struct Task {
    std::string name;
    void* (*function)(void*);
    void* arg;
    std::chrono::milliseconds interval;  // 0: the timer does not repeat it
    std::optional<Time> due;    // when to run next, again if it is running; nothing: only after a launch
    std::optional<Time> timer;  // when the timer wants it next
    std::chrono::milliseconds retryWait{0};
    std::size_t failures = 0;  // in a row
    Time failingSince;         // if there are any
    bool running = false;
    Time began;  // the run, or the last one
    bool mayWait = false;
    bool paused = false;
    bool gone = false;  // unregistered while it ran; forgotten when that run ends
  };

  // 0 when there is no function to call. mayWait: whatever else is due comes before it, and a volunteer
  // leaves it to the workers.
  unsigned Register(utils::thread::TASKTYPE type, const utils::thread::TASK_CONDITION& condition,
                    void* (*function)(void*), void* arg, const std::string& name, Time now,
                    bool mayWait = false);
  void Launch(unsigned id, Time due);
  std::size_t LaunchAll(Time now);  // how many there are
  void Pause(unsigned id);
  void Unregister(unsigned id);

  // The earliest time at which a task is due, if one is.
  std::optional<Time> NextDue() const;

  // The id of the task that is due first, which counts as running from now on; 0 when none is. Of several due
  // at the same moment the one that was registered last: the module's, which is registered anew at each
  // start. butWhatMayWait: none that may.
  unsigned Begin(Time now, bool butWhatMayWait = false);

  enum class Outcome {
    Done,
    Failed,
    HeldUp,  // failed, after a wait that was long enough: again after firstRetry, however often
    PutOff,  // nothing was run, and nothing is wrong: again after putOffWait, or at the next launch
  };

  // Ends the run that Begin started.
  void End(unsigned id, Outcome outcome, Time began, Time now);

  // Runs in a row that failed or were refused.
  struct Failures {
    std::size_t count;
    Time since;
  };
  std::optional<Failures> Failing() const;  // of the task that has failed for longest, if one does

  std::optional<Time> RunningSince() const;  // the run that has gone on for longest, if one does

  // Null for an unknown id.
  const Task* Find(unsigned id) const;
  bool IsRunning(unsigned id) const;
  bool IsIdle(Time now) const;  // nothing runs and nothing is due

 private:
  unsigned NextId();

  std::map<unsigned, Task> tasks;
  unsigned lastId = 0;
};

#endif  // VELTA_AGENT_TASK_TABLE_H
