#ifndef VELTA_HOST_TASK_SCHEDULER_H
#define VELTA_HOST_TASK_SCHEDULER_H

#include <cstddef>
#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

namespace utils {
namespace thread {

enum TASKTYPE {
  TASKTYPE_ONCE = 0,      // the timer runs the task once
  TASKTYPE_PERIODIC = 1,  // the timer runs the task again and again
};

// When the timer runs a task. Passed by value between module and agent, so its layout is fixed for every
// target: the padding is spelled out because a 32-bit x86 aligns 64-bit integers to 4 and a compiler would
// pad otherwise.
struct TASK_CONDITION {
  std::int64_t startDelayMs;  // from the registration to the first run
  std::int64_t intervalMs;    // between runs
  std::uint8_t hostFields[32];
  bool enabled;  // false: the timer never runs the task, only a launch does
  std::uint8_t padding[7];
};

static_assert(sizeof(TASK_CONDITION) == 56, "the scheduler reads a record of 56 bytes");
static_assert(offsetof(TASK_CONDITION, startDelayMs) == 0, "the first time leads the record");
static_assert(offsetof(TASK_CONDITION, intervalMs) == 8, "the second time follows the first");
static_assert(offsetof(TASK_CONDITION, enabled) == 48, "the switch stands at offset 48");
static_assert(sizeof(bool) == 1, "the switch is one byte wide");

}  // namespace thread
}  // namespace utils

// Registers a task; returns its identifier, or 0 when it was refused. function(arg) is called on a thread of
// the agent's, which may be the file monitor's but is none that waits inside the module; never twice at the
// same time for one task.
//
// Thread use: any thread. name is copied.
unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                           void* (*function)(void*), void* arg, const std::string& name);

// Keeps the task from starting and returns when a running instance of it has ended: the one call here that
// blocks. The module never calls it from inside the task.
void UtilsPauseAndWaitForEnd(unsigned id);

// Forgets the task. The caller has paused it before.
void UtilsUnregisterTask(unsigned id);

// Asks for a run soon. A request that arrives while the task runs is answered by a run that begins after it.
//
// Thread use: any thread; does not block.
void UtilsMakeTaskLaunch(unsigned id);

#pragma GCC visibility pop

#endif  // VELTA_HOST_TASK_SCHEDULER_H
