#ifndef VELTA_COLLECTOR_USER_INFO_COLLECTOR_H
#define VELTA_COLLECTOR_USER_INFO_COLLECTOR_H

#include <cstdint>
#include <string>
#include <vector>

#include "collector/passwd_info.h"
#include "collector/task_handle.h"
#include "host/file_monitor.h"

// Turns changes of the account database into account snapshots on the message bus. Owns two registrations
// with the agent: a task that reads the file and publishes what it found, and a watch whose callback asks for
// a run of that task. Keeps nothing between runs.
//
// Lives in static storage: the watch's callback refers to the first collector that ever watched, and
// watchRule relies on the zeroing of such storage. Destruction ends the task but not the watch: Stop comes
// before.
//
// Thread use: Start, Stop and destruction on the control thread, one at a time; ScheduleTask on a scheduler
// thread, one run at a time; EventHandle on the monitor's thread, beside all of them.
class UserInfoCollector {
 public:
  UserInfoCollector();

  // Registers the task, then the watch; true when both are in place. Otherwise neither task nor watch is left
  // of this call. A task of an earlier start ends first; a watch of an earlier start is not withdrawn.
  bool Start();

  // Withdraws the watch and ends the task. Harmless on a collector that was never started.
  void Stop();

  // The task: arg is the collector. Publishes one snapshot on the topic "detect_user", or logs that the file
  // could not be read. Exceptions of subscribers pass through. Always returns a null pointer.
  static void* ScheduleTask(void* arg);

  // Appends the accounts of the file to users, in file order, every name at most once over all of users.
  // False, with users untouched, when the file could not be opened.
  bool ReadPasswd(std::vector<PasswdInfo>& users);

  // Adds the watch; false when the monitor refused it.
  bool MonitorPasswdFile();

  // Asks for a run of the task when path is the account database, byte for byte, and a task is registered.
  void EventHandle(int kind, const char* path, const char* detail, bool flag, int number,
                   const std::string& text);

 private:
  std::vector<PasswdInfo> passwdInfos;
  TaskHandle taskId;
  std::int32_t startDelaySec;
  std::int32_t intervalSec;
  FileWatchRule watchRule;
};

#endif  // VELTA_COLLECTOR_USER_INFO_COLLECTOR_H
