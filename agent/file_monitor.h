#ifndef VELTA_AGENT_FILE_MONITOR_H
#define VELTA_AGENT_FILE_MONITOR_H

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/file_event.h"
#include "agent/file_status.h"
#include "agent/inotify.h"
#include "host/file_monitor.h"

class Logger;

// Watches files by path and calls back after each change, on one thread of its own.
//
// It promises that after the last change of a file at least one callback begins after it: at once for a
// rename or a close after writing, within 1.2 s for a writer that keeps the file open, and within two
// identity intervals for what no event tells (another mount, a changed link in the path). Too many callbacks
// are cheap; a missing one is not: where it is in doubt, it calls.
//
// A rule holds up to three kinds of watches (the file, its folder, the folders above). When inotify or one of
// its limits refuses, the rule is polled instead, the log says so once, and inotify is tried again later. A
// file that does not exist yet is waited for.
//
// Thread use: Add and Remove on any thread, callbacks included. Construction throws std::system_error when a
// thread or descriptor is not to be had. Destruction waits for a running callback.
class FileMonitor {
 public:
  static constexpr std::chrono::milliseconds defaultIdentityInterval{1000};

  // identityInterval: how often the file behind each path is compared with what it was; 0 turns that off.
  explicit FileMonitor(Logger& monitorLogger,
                       std::chrono::milliseconds identityInterval = defaultIdentityInterval);
  ~FileMonitor();
  FileMonitor(const FileMonitor&) = delete;
  FileMonitor& operator=(const FileMonitor&) = delete;

  // The rule's handle; 0 for a rule without a path or a callback. The callback gets the rule's path, byte for
  // byte, whatever way the change was noticed.
  unsigned Add(const FileWatchRule& rule);

  // Matches by monitorId. No callback of the rule runs or begins once it has returned, except the one that it
  // is called from; the monitor's copy of the rule is gone by then. Harmless for a rule that is not known.
  void Remove(const FileWatchRule& rule);

 private:
  using Time = Settling::Time;

  struct Rule {
    std::string path;
    std::shared_ptr<FileWatchCallback> callback;
    Settling settling;
    std::optional<FileStatus>
        status;  // before the last report, or when the rule was added; nothing: no such file
    bool polled = false;
  };

  // What one watch is to one rule.
  struct Use {
    unsigned rule;
    WatchRole role;
    std::string name;  // the entry of a folder that counts
  };

  using Uses = std::map<int, std::vector<Use>>;  // by watch number

  static void DropUses(Uses& uses, unsigned rule);

  void Work();
  void HandleReadyLocked(const pollfd* descriptors, Time now);
  int WaitTimeoutLocked(Time now) const;
  void HandleEventsLocked(Time now);
  void HandleEventLocked(const InotifyEvent& event, Time now);
  void ReportAllLocked(Time now, Report report);
  void CheckIdentitiesLocked(Time now);
  void RetryInotifyLocked(Time now);
  void AttachLocked(unsigned id, Rule& rule);
  void AttachAllLocked();
  void StartOverLocked(Time now);
  void TakeUsesLocked(Uses fresh);
  bool ReportNextLocked(std::unique_lock<std::mutex>& lock, Time now);
  bool AnyPolledLocked() const;
  std::chrono::milliseconds CheckIntervalLocked() const;
  void Wake() const;

  Logger& logger;
  const std::chrono::milliseconds identityInterval;
  int wakeDescriptor = -1;
  int mountsDescriptor = -1;

  std::mutex mutex;  // guards everything below it but the thread
  std::condition_variable callbackEnded;
  Inotify inotify;
  std::map<unsigned, Rule> rules;
  Uses uses;
  std::optional<Time> startOver;  // when to attach and report everything, if that is to be done
  unsigned lastId = 0;
  unsigned reporting = 0;  // the rule whose callback runs
  unsigned overflows = 0;
  Time nextCheck;
  Time nextRetry;
  bool pollingSaid = false;
  bool stopping = false;
  std::thread thread;
};

#endif  // VELTA_AGENT_FILE_MONITOR_H
