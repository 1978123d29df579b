#include "tests/support/recording_host.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/logger.h"
#include "host/send_queue.h"
#include "host/task_scheduler.h"
#include "host/utc_time.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/event_record.h"

namespace {

// Knows the conversions that the module uses; any other one shows up in the text.
std::string Format(const char* format, va_list arguments) {
  std::string text;
  for (const char* at = format; *at != '\0'; ++at) {
    if (*at != '%') {
      text += *at;
      continue;
    }
    ++at;
    if (*at == 's') {
      const char* const argument = va_arg(arguments, const char*);
      text += argument == nullptr ? "(null)" : argument;
    } else if (*at == 'd') {
      text += std::to_string(va_arg(arguments, int));
    } else {
      return text + "<conversion unknown to the recording host>";
    }
  }
  return text;
}

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

std::string Describe(const FileWatchRule& rule, MonitorType type) {
  std::string switches;
  for (const bool value : {rule.switch1, rule.switch2, rule.switch3, rule.switch4, rule.switch5, rule.switch6,
                           rule.switch7, rule.switch8, rule.switch9, rule.switch10}) {
    switches += value ? '1' : '0';
  }
  return Quoted(rule.path) + " kind " + std::to_string(static_cast<int>(type)) + " switches " + switches +
         " id " + std::to_string(rule.monitorId) + (rule.callback ? " with callback" : " without callback");
}

std::string Describe(const utils::thread::TASK_CONDITION& condition) {
  utils::thread::TASK_CONDITION rest = condition;
  rest.startDelayMs = 0;
  rest.intervalMs = 0;
  rest.enabled = false;
  std::array<unsigned char, sizeof rest> bytes;
  std::memcpy(bytes.data(), &rest, sizeof rest);
  int others = 0;
  for (const unsigned char byte : bytes) {
    others += byte != 0 ? 1 : 0;
  }
  return "first " + std::to_string(condition.startDelayMs) + " second " +
         std::to_string(condition.intervalMs) + " switch " + (condition.enabled ? "1" : "0") +
         " other bytes " + std::to_string(others);
}

template <typename T>
std::vector<unsigned char> BytesOf(const T& record) {
  const auto* const first = reinterpret_cast<const unsigned char*>(&record);
  return std::vector<unsigned char>(first, first + sizeof record);
}

}  // namespace

RecordingHost& RecordingHost::Get() {
  static RecordingHost* const host = new RecordingHost();
  return *host;
}

void RecordingHost::Reset() {
  onCall = nullptr;
  TakeCalls();
  task = Task();
  added.reset();
  addedBytes.clear();
  removed.reset();
  nextTaskId = 7;
  nextMonitorId = 5;
  utcTime = "2026-03-01 08:15:42";
  makesEvents = true;
}

std::vector<std::string> RecordingHost::Calls() const {
  std::lock_guard<std::mutex> lock(mutex);
  return calls;
}

std::vector<std::string> RecordingHost::TakeCalls() {
  std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(calls, {});
}

std::vector<std::string> RecordingHost::TakeCalls(const char* verb) {
  std::vector<std::string> taken;
  for (std::string& entry : TakeCalls()) {
    if (VerbOf(entry) == verb) {
      taken.push_back(std::move(entry));
    }
  }
  return taken;
}

std::string RecordingHost::VerbOf(const std::string& entry) { return entry.substr(0, entry.find(' ')); }

void* RecordingHost::RunTask() const { return task.function(task.arg); }

void RecordingHost::FireFileEvent(const char* path) const {
  (*added.value().callback)(1, path, "detail", true, 2, "text");
}

void RecordingHost::Record(const std::string& entry) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(entry);
  }
  if (onCall) {
    onCall(entry);
  }
}

std::function<void(const std::string&)> ThrowAt(const std::string& verb, int nth) {
  const auto left = std::make_shared<std::atomic<int>>(nth);
  return [verb, left](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == verb && --*left == 0) {
      throw HostFailure(verb);
    }
  };
}

void LoggerWriteLog(OrvakAgentDotLogType type, unsigned code, unsigned level, const char* file, int line,
                    int reserved, const char* format, ...) {
  const AllocationPause pause;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Format(format, arguments);
  va_end(arguments);
  std::array<char, 16> codeText;
  std::snprintf(codeText.data(), codeText.size(), "0x%X", code);
  RecordingHost::Get().Record("log " + std::to_string(static_cast<int>(type)) + " " + codeText.data() + " " +
                              std::to_string(level) + " " + file + ":" + std::to_string(line) + " " +
                              std::to_string(reserved) + " " + Quoted(format) + " -> " + text);
}

void WriteStartupLog(const char* format, ...) {
  const AllocationPause pause;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = Format(format, arguments);
  va_end(arguments);
  RecordingHost::Get().Record("startup " + Quoted(format) + " -> " + text);
}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                           void* (*function)(void*), void* arg, const std::string& name) {
  const AllocationPause pause;
  RecordingHost& host = RecordingHost::Get();
  host.task.function = function;
  host.task.arg = arg;
  host.task.condition = BytesOf(condition);
  host.Record("register " + name + " kind " + std::to_string(static_cast<int>(type)) + " " +
              Describe(condition));
  return host.nextTaskId;
}

void UtilsPauseAndWaitForEnd(unsigned id) {
  const AllocationPause pause;
  RecordingHost::Get().Record("pause " + std::to_string(id));
}

void UtilsUnregisterTask(unsigned id) {
  const AllocationPause pause;
  RecordingHost::Get().Record("unregister " + std::to_string(id));
}

void UtilsMakeTaskLaunch(unsigned id) {
  const AllocationPause pause;
  RecordingHost::Get().Record("launch " + std::to_string(id));
}

unsigned AddMonitor(const FileWatchRule& rule, MonitorType type) {
  const AllocationPause pause;
  RecordingHost& host = RecordingHost::Get();
  host.added = rule;
  host.addedBytes = BytesOf(rule);
  host.Record("add " + Describe(rule, type));
  return host.nextMonitorId;
}

void RemoveMonitor(const FileWatchRule& rule, MonitorType type) {
  const AllocationPause pause;
  RecordingHost& host = RecordingHost::Get();
  host.removed = rule;
  host.Record("remove " + Describe(rule, type));
}

void PushMinuteLimitEventToSendQueue(const std::string& event) {
  const AllocationPause pause;
  if (RecordingHost::Get().makesEvents) {
    RecordEvent(event);
  }
  RecordingHost::Get().Record("push " + event);
}

void UtilsGetUtcTime(std::string& out) {
  const AllocationPause pause;
  RecordingHost& host = RecordingHost::Get();
  host.Record("time " + Quoted(out));
  out = host.utcTime;
}
