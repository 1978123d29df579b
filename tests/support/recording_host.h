#ifndef VELTA_TESTS_SUPPORT_RECORDING_HOST_H
#define VELTA_TESTS_SUPPORT_RECORDING_HOST_H

#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/file_monitor.h"

// What a host function throws when a test wants it to.
struct HostFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Stands in for the agent: defines the functions of host/ that have effects. Each call becomes one entry of
// one ordered list, with every argument in it:
//
//   log 2 0x0 1 user_info_collector.cpp:166 0 "too long.[line=%d]" -> too long.[line=3]
//       (type, code, level, file:line, sixth argument, format -> text)
//   startup "detect user policy %s" -> detect user policy {}
//   register user_coll_task kind 1 first 10000 second 300000 switch 1 other bytes 0
//   pause 7, unregister 7, launch 7
//   add "passwd-under-test" kind 1 switches 0001110001 id 0 with callback
//   remove "" kind 0 switches 0000000000 id 0 without callback
//   time "" (what the string held)
//   push {"eventType": ...}
//
// Thread use: the host functions on any thread; the fields are for the test, while no other thread runs.
class RecordingHost {
 public:
  struct Task {
    void* (*function)(void*) = nullptr;
    void* arg = nullptr;
    std::vector<unsigned char> condition;  // the record's bytes
  };

  // The one host of the process. Never destroyed: the module's globals call it when they go.
  static RecordingHost& Get();

  // Forgets all calls and registrations; answers as below again.
  void Reset();

  std::vector<std::string> Calls() const;
  std::vector<std::string> TakeCalls();                  // the calls since the last taking
  std::vector<std::string> TakeCalls(const char* verb);  // takes all, gives those that begin with the word
  static std::string VerbOf(const std::string& entry);

  // Runs the task that was registered last, on this thread.
  void* RunTask() const;

  // Reports an event for the path to the watch that was added last, on this thread.
  void FireFileEvent(const char* path) const;

  Task task;                           // registered last
  std::optional<FileWatchRule> added;  // what AddMonitor got last
  std::vector<unsigned char> addedBytes;
  std::optional<FileWatchRule> removed;  // what RemoveMonitor got last

  unsigned nextTaskId = 7;
  unsigned nextMonitorId = 5;
  std::string utcTime = "2026-03-01 08:15:42";
  bool makesEvents = true;  // false: what is pushed could come from no account file, and is no event to keep
  std::function<void(const std::string&)> onCall;  // gets each entry, without the lock; may throw

  // For the host functions: records the entry, then lets the test have its say.
  void Record(const std::string& entry);

 private:
  RecordingHost() = default;

  mutable std::mutex mutex;
  std::vector<std::string> calls;  // guarded by mutex
};

// For onCall: throws a HostFailure from the nth call (from 1) of the verb, once.
std::function<void(const std::string&)> ThrowAt(const std::string& verb, int nth);

#endif  // VELTA_TESTS_SUPPORT_RECORDING_HOST_H
