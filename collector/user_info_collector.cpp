#include "collector/user_info_collector.h"

#include <cstdint>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "host/file_monitor.h"
#include "host/logger.h"
#include "host/string_process.h"
#include "host/task_scheduler.h"

#ifndef VELTA_PASSWD_FILE
#define VELTA_PASSWD_FILE "/etc/passwd"  // tests read a file of their own
#endif

namespace {

const std::string passwdFilePath(VELTA_PASSWD_FILE);

// Filters match log records on file and line: both stay as they are wherever a call moves to.
constexpr char sourceName[] = "user_info_collector.cpp";
constexpr int repeatedNameLine = 67;
constexpr int readFailedLine = 106;
constexpr int tooLongLine = 166;
constexpr unsigned noticeLevel = 1;
constexpr unsigned failureLevel = 2;

constexpr std::size_t longestLine = 1000;
constexpr std::size_t fieldCount = 7;
constexpr std::size_t usualAccounts = 64;  // what most hosts have fits without moving records about

using Records = std::vector<PasswdInfo>;

// The records that a pass over them has dropped so far: a gap that travels between the records it has kept
// and those it has yet to look at. However the pass ends, only the gap goes, so no record is lost or doubled
// when an allocation fails on the way.
class DroppedRecords {
 public:
  explicit DroppedRecords(Records& users) : records(users), first(users.begin()), last(users.begin()) {}
  ~DroppedRecords() { records.erase(first, last); }
  DroppedRecords(const DroppedRecords&) = delete;
  DroppedRecords& operator=(const DroppedRecords&) = delete;

  bool ReachEnd() const { return last == records.end(); }
  PasswdInfo& Next() { return *last; }
  void DropNext() { ++last; }
  void KeepNext() {
    if (first != last) {
      *first = std::move(*last);
    }
    ++first;
    ++last;
  }

 private:
  Records& records;
  Records::iterator first;
  Records::iterator last;
};

// One pass that moves each survivor once. Erasing every repeat where it stands would move the whole tail each
// time: seconds for a file that repeats a name a hundred thousand times.
void RemoveRepeatedNames(Records& users) {
  std::set<std::string> seen;
  DroppedRecords dropped(users);
  while (!dropped.ReachEnd()) {
    const std::string& name = dropped.Next().userName;
    // Behind the last one is where a name belongs in a file that is sorted, as many large ones are.
    const bool isLast = seen.empty() || *seen.rbegin() < name;
    const auto place = isLast ? seen.end() : seen.lower_bound(name);
    if (place == seen.end() || *place != name) {
      seen.insert(place, name);
      dropped.KeepNext();
    } else {
      LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failureLevel, sourceName, repeatedNameLine, 0,
                     "The user name of /etc/passwd is repeated.[name=%s]", name.c_str());
      dropped.DropNext();
    }
  }
}

// Only blanks may stand before the mark; a tab makes the line an ordinary one.
bool IsComment(const std::string& line) {
  const std::size_t start = line.find_first_not_of(' ');
  return start != std::string::npos && line[start] == '#';
}

// False when the line is no account: it is then dropped without a word, as the file may hold anything.
bool ParseAccount(const std::string& line, PasswdInfo& account) {
  std::vector<std::string> fields = Utils::StringProcess::StrSplit(line, ":", false);
  if (fields.size() != fieldCount || fields[0].empty()) {
    return false;
  }
  if (!ConvertStrToNum(fields[2], account.uid, 10) || !ConvertStrToNum(fields[3], account.gid, 10)) {
    return false;
  }
  account.userName = std::move(fields[0]);
  account.home = std::move(fields[5]);
  account.shell = std::move(fields[6]);
  return true;
}

}  // namespace

UserInfoCollector::UserInfoCollector() : startDelaySec(10), intervalSec(300) {}

bool UserInfoCollector::Start() {
  const std::string taskName("user_coll_task");
  taskId.End();  // a task left by an earlier start ends before a new one exists
  utils::thread::TASK_CONDITION condition = utils::thread::TASK_CONDITION();
  condition.startDelayMs = static_cast<std::int64_t>(startDelaySec) * 1000;
  condition.intervalMs = static_cast<std::int64_t>(intervalSec) * 1000;
  condition.enabled = true;
  const utils::thread::TASKTYPE type =
      intervalSec > 0 ? utils::thread::TASKTYPE_PERIODIC : utils::thread::TASKTYPE_ONCE;
  taskId.Adopt(UtilsRegisterTask(type, condition, ScheduleTask, this, taskName));
  if (taskId.Id() == 0) {
    return false;
  }
  if (MonitorPasswdFile()) {
    return true;
  }
  taskId.End();  // without a watch the task would only poll; report failure instead
  return false;
}

void UserInfoCollector::Stop() {
  // The watch goes before the task, so that no file event launches a task that is going away. It was added as
  // MONITOR_ADD all the same: the monitor's kinds are not a pair.
  RemoveMonitor(watchRule, MONITOR_WITHDRAW);
  taskId.End();
}

void* UserInfoCollector::ScheduleTask(void* arg) {
  if (arg == nullptr) {
    return nullptr;
  }
  std::vector<PasswdInfo> snapshot;
  if (!static_cast<UserInfoCollector*>(arg)->ReadPasswd(snapshot)) {
    LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failureLevel, sourceName, readFailedLine, 0,
                   "Failed to read %s.", passwdFilePath.c_str());
    return nullptr;
  }
  MessageBus::Publish<const std::vector<PasswdInfo>&>("detect_user", snapshot);
  return nullptr;
}

bool UserInfoCollector::ReadPasswd(std::vector<PasswdInfo>& users) {
  std::ifstream file(passwdFilePath);
  if (!file.is_open()) {
    return false;
  }
  const std::time_t readTime = std::time(nullptr);
  users.reserve(users.size() + usualAccounts);
  int lineNumber = 0;
  std::string line;
  while (std::getline(file, line)) {
    ++lineNumber;
    if (line.size() > longestLine) {
      LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, noticeLevel, sourceName, tooLongLine, 0,
                     "The line of /etc/passwd is too long.[line=%d]", lineNumber);
      continue;
    }
    PasswdInfo account = PasswdInfo();
    if (IsComment(line) || !ParseAccount(line, account)) {
      continue;
    }
    account.readTime = readTime;
    users.push_back(std::move(account));
  }
  file.close();
  RemoveRepeatedNames(users);
  return true;
}

bool UserInfoCollector::MonitorPasswdFile() {
  // One object for the life of the module, shared by every rule; it is bound to the collector of this first
  // call, and the module has only one.
  static const std::shared_ptr<FileWatchCallback> callback = std::make_shared<FileWatchCallback>(
      [this](int kind, const char* path, const char* detail, bool flag, int number, const std::string& text) {
        EventHandle(kind, path, detail, flag, number, text);
      });
  FileWatchRule rule = FileWatchRule();  // value-initialised: the padding and the switches not set here are 0
  rule.path = passwdFilePath;
  rule.callback = callback;
  rule.switch1 = false;
  rule.switch2 = false;
  rule.switch3 = false;
  rule.switch4 = true;
  rule.switch5 = true;
  rule.switch6 = true;
  rule.switch9 = false;
  rule.switch10 = true;
  rule.monitorId = AddMonitor(rule, MONITOR_ADD);
  if (rule.monitorId == 0) {
    return false;
  }
  watchRule = rule;
  return true;
}

void UserInfoCollector::EventHandle(int /*kind*/, const char* path, const char* /*detail*/, bool /*flag*/,
                                    int /*number*/, const std::string& /*text*/) {
  // Byte for byte: another way of writing the same path is somebody else's event.
  if (path == nullptr || std::string(path) != passwdFilePath) {
    return;
  }
  const std::uint32_t current = taskId.Id();
  if (current != 0) {
    UtilsMakeTaskLaunch(current);
  }
}
