#ifndef VELTA_COLLECTOR_TASK_HANDLE_H
#define VELTA_COLLECTOR_TASK_HANDLE_H

#include <atomic>
#include <cstdint>

// Owns one registration with the agent's scheduler; id 0 means that there is none.
//
// However its owner lets go (stop, failed start, unload), a running task is waited for first and unregistered
// second, so no task ever runs on a collector that is being taken apart.
//
// Thread use: Adopt and End on the control thread; Id on any thread.
class TaskHandle {
 public:
  TaskHandle() = default;
  ~TaskHandle() { End(); }
  TaskHandle(const TaskHandle&) = delete;
  TaskHandle& operator=(const TaskHandle&) = delete;

  void Adopt(std::uint32_t newId) { id = newId; }  // only on an empty handle
  void End();                                      // does nothing on an empty handle
  std::uint32_t Id() const { return id; }

 private:
  std::atomic<std::uint32_t> id{0};  // written on the control thread, read by file events
};

static_assert(sizeof(TaskHandle) == sizeof(std::uint32_t), "a task handle is no larger than its identifier");

#endif  // VELTA_COLLECTOR_TASK_HANDLE_H
