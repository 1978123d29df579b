#ifndef VELTA_AGENT_FILE_MONITOR_H
#define VELTA_AGENT_FILE_MONITOR_H

#include <poll.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/file_status.h"
#include "agent/inotify.h"
#include "agent/logger.h"
#include "agent/watch_table.h"
#include "host/file_monitor.h"

class TaskScheduler;

// Watches files by path and calls back after each change, on one thread of its own.
//
// It promises that after the last change of a file at least one callback begins after it: at once for a
// rename or a close after writing, within 1.2 s for a writer that keeps the file open, and within two
// identity intervals for what no event tells (another mount, a changed link in the path). Too many callbacks
// are cheap; a missing one is not: where it is in doubt, it calls.
//
// What it decides, and when, is the business of WatchTable; this class brings the system to it. A file that
// does not exist yet is waited for.
//
// Tasks that a callback launches are run on the monitor's thread, too, right after it: waking
// another thread would take longer than most readings. Changes wait in the kernel's queue meanwhile.
//
// Thread use: Add and Remove on any thread, callbacks included. Construction throws std::system_error when a
// thread or descriptor is not to be had. Destruction waits for a running callback.
class FileMonitor {
 public:
  static constexpr std::chrono::milliseconds defaultIdentityInterval{1000};

  // checkInterval: how often the file behind each path is compared with what it was; 0 turns that off.
  // taskScheduler: whose tasks the callbacks launch; it outlives the monitor. Null: the callbacks launch
  // none.
  explicit FileMonitor(Logger& monitorLogger,
                       std::chrono::milliseconds checkInterval = defaultIdentityInterval,
                       TaskScheduler* taskScheduler = nullptr);
  ~FileMonitor();
  FileMonitor(const FileMonitor&) = delete;
  FileMonitor& operator=(const FileMonitor&) = delete;

  // The rule's handle; 0 for a rule without a path or a callback. The callback gets the rule's path, byte for
  // byte, whatever way the change was noticed.
  unsigned Add(const FileWatchRule& rule);

  // Matches by monitorId. No callback of the rule runs or begins once it has returned, except the one that it
  // is called from; the monitor's copy of the rule is gone by then. Harmless for a rule that is not known.
  void Remove(const FileWatchRule& rule);

  struct State {
    std::size_t watches;   // that the kernel holds for the rules
    bool polls;            // at least one rule, as a watch was refused
    std::uint64_t rounds;  // that the thread has made; a thread that lives makes one after Wake
  };
  State Look() const;
  void Wake() const;

 private:
  using Time = WatchTable::Time;

  // The watched system as it is.
  class Kernel : public WatchedSystem {
   public:
    explicit Kernel(Logger& monitorLogger) : logger(monitorLogger) {}

    bool Open() override { return inotify.Open(); }
    int OpenError() const override { return inotify.IsOpen() ? 0 : inotify.OpenError(); }
    int Add(const std::string& path, std::uint32_t mask) override { return inotify.Add(path, mask); }
    void Remove(int watch) override { inotify.Remove(watch); }
    std::optional<FileStatus> Look(const std::string& path) override { return FileStatus::OfPath(path); }
    void Tell(LogLevel level, const std::string& text) override { logger.Write(level, text); }

    Logger& logger;
    Inotify inotify;
  };

  void Work();
  void HandleReadyLocked(const pollfd* descriptors, Time now);
  void HandleEventsLocked(Time now);
  bool ReportNextLocked(std::unique_lock<std::mutex>& lock, Time now);
  int WaitTimeoutLocked(Time now) const;

  Logger& logger;
  TaskScheduler* const scheduler;
  int wakeDescriptor = -1;
  int mountsDescriptor = -1;

  mutable std::mutex mutex;  // guards everything below it but the thread
  std::condition_variable callbackEnded;
  Kernel kernel;
  WatchTable table;
  std::uint64_t rounds = 0;
  unsigned reporting = 0;  // the rule whose callback runs
  bool stopping = false;
  std::thread thread;
};

#endif  // VELTA_AGENT_FILE_MONITOR_H
