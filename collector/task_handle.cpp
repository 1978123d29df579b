#include "collector/task_handle.h"

#include "host/task_scheduler.h"

void TaskHandle::End() {
  const std::uint32_t current = id;
  if (current == 0) {
    return;
  }
  UtilsPauseAndWaitForEnd(current);
  UtilsUnregisterTask(current);
  id = 0;
}
