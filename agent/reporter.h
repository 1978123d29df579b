#ifndef VELTA_AGENT_REPORTER_H
#define VELTA_AGENT_REPORTER_H

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

#include "agent/agent_status.h"
#include "agent/beat.h"
#include "agent/change_signal.h"
#include "agent/deliveries.h"
#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/service_manager.h"
#include "agent/status_file.h"
#include "agent/task_scheduler.h"

// Tells how the agent is: in the status file, and to the service manager. Neither is needed: what cannot be
// told ends up in the log at most.
//
// Thread use: the control thread.
class Reporter {
 public:
  struct Sources {
    const ReadingRecord& readings;
    const TaskScheduler& scheduler;
    const FileMonitor& monitor;
    const Deliveries& deliveries;
    ChangeSignal& changes;
    Logger& logger;
  };

  // An empty path stands for the default one, about which no word is lost when it cannot be written.
  // policyFile: empty for the built-in one.
  Reporter(const Sources& reportedSources, const std::string& statusPath, std::string policyFile);

  void TookPolicy(bool detects);
  void Ready();
  void Reloading();
  void Stopping();

  // The state may have changed; it is told of soon.
  void NoteChange() { beat.NoteChange(std::chrono::steady_clock::now()); }

  // Tells what is due. Never throws.
  void TellDue() noexcept;
  std::optional<Beat::Time> NextDue() const { return beat.NextDue(); }

 private:
  AgentStatus Status() const;
  void TellState();
  void TellManager(const std::string& line);
  void GiveSign(Beat::Time now);

  const Sources sources;
  const bool pathIsDefault;
  const std::string policy;
  const std::time_t began;
  std::time_t policySince = 0;
  bool detection = false;
  StatusFile file;
  std::string fileError;  // as it was told
  ServiceManager manager;
  std::string toldLine;
  bool readyUntold = false;  // the manager waits for it
  Beat beat;
  Pulse pulse;
  bool stuckTold = false;
};

#endif  // VELTA_AGENT_REPORTER_H
