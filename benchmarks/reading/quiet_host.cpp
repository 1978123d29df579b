#include "benchmarks/reading/quiet_host.h"

#include <cstddef>
#include <string>

#include "host/file_monitor.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/task_scheduler.h"
#include "host/utc_time.h"

namespace {

void* (*task)(void*) = nullptr;
void* taskArgument = nullptr;
std::size_t sentEvents = 0;

}  // namespace

void RunTask() { task(taskArgument); }

std::size_t SentEvents() { return sentEvents; }

void LoggerWriteLog(OrvakAgentDotLogType, unsigned, unsigned, const char*, int, int, const char*, ...) {}

void WriteStartupLog(const char*, ...) {}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE, utils::thread::TASK_CONDITION, void* (*function)(void*),
                           void* arg, const std::string&) {
  task = function;
  taskArgument = arg;
  return 1;
}

void UtilsPauseAndWaitForEnd(unsigned) {}

void UtilsUnregisterTask(unsigned) {}

void UtilsMakeTaskLaunch(unsigned) {}

unsigned AddMonitor(const FileWatchRule&, MonitorType) { return 1; }

void RemoveMonitor(const FileWatchRule&, MonitorType) {}

void PushMinuteLimitEventToSendQueue(const std::string&) { ++sentEvents; }

void UtilsGetUtcTime(std::string& out) { out = "2000-01-01 00:00:00"; }
