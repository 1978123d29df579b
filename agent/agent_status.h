#ifndef VELTA_AGENT_AGENT_STATUS_H
#define VELTA_AGENT_AGENT_STATUS_H

#include <chrono>
#include <cstddef>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/send_queue.h"
#include "agent/task_scheduler.h"

// What is known of readings without asking whoever reads: the gate tells when one may begin, and
// the cross-check how many lines it has read.
//
// Thread use: any thread.
class ReadingRecord {
 public:
  void Asked(const TaskScheduler::Permission& permission);
  void Counted(std::size_t lines);

  struct State {
    std::size_t count = 0;             // readings begun
    std::time_t last = 0;              // when the last one began
    std::optional<std::size_t> lines;  // not empty, at the last reading of the cross-check
    std::string obstacle;              // why the file is not read; empty: it is
  };
  State Now() const;

 private:
  mutable std::mutex mutex;  // guards the state
  State state;
};

// All that a running agent tells of itself.
struct AgentStatus {
  std::time_t now = 0;
  int process = 0;
  std::time_t since = 0;

  std::string policy;  // its file; empty: the built-in one
  std::time_t policySince = 0;
  bool detects = false;

  std::string accountFile;
  ReadingRecord::State reading;
  std::size_t failures = 0;  // of readings, in a row
  std::time_t failingSince = 0;
  FileMonitor::State watch = FileMonitor::State();
  std::vector<DeliveryState> deliveries;
  Logger::Trouble lastError;
};

// "takes events", "is not being read" ...
const char* ConditionText(DeliveryState::Condition condition);

// One line of JSON, in the outer form of an event: {"eventType":"agent-status","eventTime":...}.
std::string StatusJson(const AgentStatus& status);

// For people, short: "3 alerts sent, 1 waiting; standard output takes events".
std::string StatusLine(const AgentStatus& status);

#endif  // VELTA_AGENT_AGENT_STATUS_H
