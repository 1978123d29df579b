#ifndef VELTA_AGENT_CROSS_CHECK_H
#define VELTA_AGENT_CROSS_CHECK_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "host/file_monitor.h"

class EventQueue;
class FileMonitor;
class Logger;
class TaskScheduler;

// Reports what the module cannot: accounts with user ID 0 that the C library honours, on lines that the
// module's rules pass over. Owns a task and a watch on the account file, as the module does, and reads the
// same file with the C library's own reader; see FindUncoveredRoots.
//
// An account is reported when a reading finds it and the one before did not, by an event of type
// "uncovered-root-account". A file that cannot be read changes nothing. Where a file is there, and fails for
// a second to be read whole, that is reported, too: by an event of type "account-file-unreadable".
//
// Thread use: construction, destruction and Enable on the control thread; readings on the scheduler's
// workers, one at a time. Destruction ends a reading. Construction throws std::runtime_error when the
// task or the watch is not to be had.
class CrossCheck {
 public:
  // whenRead is told after each reading how many lines that are not empty the file has.
  CrossCheck(const std::string& accountFile, TaskScheduler& taskScheduler, FileMonitor& fileMonitor,
             EventQueue& eventQueue, Logger& checkLogger,
             std::function<void(std::size_t lines)> whenRead = nullptr);
  ~CrossCheck();
  CrossCheck(const CrossCheck&) = delete;
  CrossCheck& operator=(const CrossCheck&) = delete;

  // Readings do nothing while it is off, as it is at first; what they have reported is remembered.
  void Enable(bool on) { enabled = on; }

 private:
  void Read();
  std::optional<std::string> ReadWithOwnDescriptor();
  void NoteFailure(const std::string& reason);
  void End();

  const std::string path;
  TaskScheduler& scheduler;
  FileMonitor& monitor;
  EventQueue& queue;
  Logger& logger;
  const std::function<void(std::size_t lines)> tellRead;
  std::atomic<bool> ending{false};  // a reading that runs need not be finished
  std::atomic<bool> enabled{false};
  unsigned taskId = 0;
  FileWatchRule watch = FileWatchRule();
  // The monitor's thread's own.
  std::chrono::steady_clock::time_point nextCheck;    // of a change
  std::chrono::steady_clock::time_point checksUntil;  // if those so far had been made one by one

  // The workers' own.
  int reserve;                     // a descriptor for the reading
  std::set<std::string> standing;  // the names that the last reading found
  std::optional<std::chrono::steady_clock::time_point> failingSince;
  bool failureTold = false;
};

#endif  // VELTA_AGENT_CROSS_CHECK_H
