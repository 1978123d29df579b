#include "agent/reporter.h"

#include <unistd.h>

#include <new>
#include <utility>

#include "agent/account_file.h"
#include "agent/safe_text.h"

namespace {

Beat::Time Now() { return std::chrono::steady_clock::now(); }

}  // namespace

Reporter::Reporter(const Sources& reportedSources, const std::string& statusPath, std::string policyFile)
    : sources(reportedSources),
      pathIsDefault(statusPath.empty()),
      policy(std::move(policyFile)),
      began(std::time(nullptr)),
      file(pathIsDefault ? defaultStatusPath : statusPath),
      manager(sources.logger),
      beat(manager.Watchdog(), Now()) {}

void Reporter::TookPolicy(bool detects) {
  policySince = std::time(nullptr);
  detection = detects;
}

void Reporter::Ready() {
  readyUntold = true;
  TellState();
}

void Reporter::Reloading() { manager.Tell("RELOADING=1"); }

void Reporter::Stopping() { manager.Tell("STOPPING=1"); }

void Reporter::TellDue() noexcept {
  const Beat::Time now = Now();
  try {
    if (beat.SignIsDue(now)) {
      GiveSign(now);
    }
    if (beat.TakeState(now)) {
      sources.changes.Take();
      TellState();
    }
    if (beat.TakeMessage(now)) {
      TellManager(SafeText(StatusLine(Status())));
    }
  } catch (const std::bad_alloc&) {  // told of when there is memory again
    beat.NoteChange(now);
    if (beat.SignIsDue(now)) {
      beat.GaveSign(false, now);
    }
  }
}

AgentStatus Reporter::Status() const {
  AgentStatus status;
  status.now = std::time(nullptr);
  status.process = getpid();
  status.since = began;
  status.policy = policy;
  status.policySince = policySince;
  status.detects = detection;
  status.accountFile = accountFilePath;
  status.reading = sources.readings.Now();
  if (const auto failing = sources.scheduler.Failing()) {
    status.failures = failing->count;
    status.failingSince =
        status.now - static_cast<std::time_t>(
                         std::chrono::duration_cast<std::chrono::seconds>(Now() - failing->since).count());
  }
  status.watch = sources.monitor.Look();
  status.deliveries = sources.deliveries.States();
  status.lastError = sources.logger.LastError();
  return status;
}

void Reporter::TellState() {
  const AgentStatus status = Status();
  if (manager.IsThere()) {
    const std::string line = SafeText(StatusLine(status));
    if (readyUntold || line != toldLine) {
      TellManager(line);
    }
  }
  if (!file.Write(StatusJson(status)) && file.Error() != fileError) {
    sources.logger.Write(pathIsDefault ? LogLevel::Debug : LogLevel::Warning,
                         "status file: " + file.Error() + "; --status will not find this agent");
  }
  fileError = file.Error();
}

// What could not be told is told later: a manager that waits for an agent to be ready ends it when it has
// waited long enough.
void Reporter::TellManager(const std::string& line) {
  const bool sent = manager.Tell((readyUntold ? "READY=1\nSTATUS=" : "STATUS=") + line);
  beat.SentMessage(sent, Now());
  if (sent) {
    readyUntold = false;
    toldLine = line;
  }
}

// What keeps the sign from being given is told once; it is looked at again soon, since the thread may only
// have been slow.
void Reporter::GiveSign(Beat::Time now) {
  const Pulse current = {sources.monitor.Look().rounds, sources.scheduler.RunningSince(),
                         sources.deliveries.States()};
  const std::string stuck = WhatIsStuck(pulse, current, manager.Watchdog() / 2, now);
  if (!stuck.empty() && !stuckTold) {
    sources.logger.Error("no sign of life for the service manager: " + stuck);
  }
  stuckTold = !stuck.empty();
  pulse = current;
  sources.monitor.Wake();  // so that there is a round to be seen next time
  beat.GaveSign(stuck.empty() && manager.Tell("WATCHDOG=1"), now);
}
