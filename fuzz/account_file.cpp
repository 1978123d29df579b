// The differential target: whatever account file the C library's reader finds somebody in whose user ID is 0,
// the module alerts of that account, or the cross-check finds it.

#include <pwd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/uncovered_accounts.h"
#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "fuzz/account_lines.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/memory_file.h"
#include "host/file_monitor.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/task_scheduler.h"
#include "host/utc_time.h"
#include "module/detect_user.h"

namespace {

using Snapshot = std::vector<PasswdInfo>;

struct LibraryAccount {
  std::string name;
  unsigned uid;
  unsigned gid;
  std::string home;
  std::string shell;
};

// What the module did with the input at hand.
Snapshot snapshot;
std::vector<std::string> events;
void* (*task)(void*) = nullptr;
void* taskArgument = nullptr;

unsigned long long linesRead = 0;
unsigned long long rootsSeen = 0;
unsigned long long silentAccounts = 0;

void PrintTotals() {
  std::fprintf(stderr, "%llu lines, %llu accounts with user ID 0, %llu silent accounts\n", linesRead,
               rootsSeen, silentAccounts);
}

void StartOnce() {
  static const bool started = [] {
    MessageBus::Subscribe<const Snapshot&>("detect_user", "fuzz",
                                           [](const Snapshot& users) { snapshot = users; });
    Check(StartModule(R"({"unauthorized-root-user": {}})") == 1 && task != nullptr,
          "the module did not start");
    std::atexit(PrintTotals);
    return true;
  }();
  Check(started, "not started");
}

std::vector<LibraryAccount> AskLibrary(std::string content) {
  std::vector<LibraryAccount> accounts;
  if (content.empty()) {
    return accounts;
  }
  std::FILE* const stream = fmemopen(content.data(), content.size(), "r");
  Check(stream != nullptr, "no stream");
  while (const passwd* const found = fgetpwent(stream)) {
    const auto textOf = [](const char* field) { return std::string(field == nullptr ? "" : field); };
    accounts.push_back({textOf(found->pw_name), found->pw_uid, found->pw_gid, textOf(found->pw_dir),
                        textOf(found->pw_shell)});
  }
  Check(std::feof(stream) != 0, "the library stopped before the end");
  std::fclose(stream);
  return accounts;
}

// The module keeps the blanks before a name, and what stands behind a NUL; the library does neither.
std::string AsTheLibraryNames(const std::string& name) {
  const std::size_t start = std::min(name.find_first_not_of(" \t\v\f\r"), name.size());
  return name.substr(start, std::min(name.find('\0', start), name.size()) - start);
}

std::string AsciiOf(std::string text) {
  const auto isOther = [](char character) { return static_cast<unsigned char>(character) >= 0x80; };
  text.erase(std::remove_if(text.begin(), text.end(), isOther), text.end());
  return text;
}

// One event on one line, in the order of the names, for each record with user ID 0 that is not named "root".
void CheckEvents() {
  Snapshot expected;
  for (const PasswdInfo& record : snapshot) {
    if (record.uid == 0 && record.userName != "root") {
      expected.push_back(record);
    }
  }
  std::sort(expected.begin(), expected.end());
  Check(events.size() == expected.size(), "not one alert for each record");
  for (std::size_t index = 0; index < events.size(); ++index) {
    const std::string& text = events[index];
    Check(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }),
          "an alert is not one line of ASCII");
    const nlohmann::json content = nlohmann::json::parse(text).at("eventContent");
    const PasswdInfo& record = expected[index];
    Check(AsciiOf(content.at("userName")) == AsciiOf(record.userName), "an alert names another account");
    Check(AsciiOf(content.at("home")) == AsciiOf(record.home), "an alert tells another home");
    Check(AsciiOf(content.at("shell")) == AsciiOf(record.shell), "an alert tells another shell");
    Check(content.at("uid") == 0, "an alert tells another user ID");
    Check(content.at("gid") == static_cast<int>(record.gid), "an alert tells another group ID");
  }
}

void CheckNobodyIsSilent(const std::vector<LibraryAccount>& accounts,
                         const std::vector<UncoveredAccount>& uncovered) {
  for (const LibraryAccount& account : accounts) {
    if (account.uid != 0 || account.name == "root") {
      continue;
    }
    ++rootsSeen;
    const bool alerted = std::any_of(snapshot.begin(), snapshot.end(), [&](const PasswdInfo& record) {
      return record.uid == 0 && record.userName != "root" &&
             AsTheLibraryNames(record.userName) == account.name;
    });
    const bool found = std::any_of(uncovered.begin(), uncovered.end(), [&](const UncoveredAccount& other) {
      return other.userName == account.name;
    });
    if (!alerted && !found) {
      ++silentAccounts;
      PrintTotals();
      Fail("a silent account: " +
           nlohmann::json(account.name).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
    }
  }
}

void CheckNothingIsInvented(const std::vector<LibraryAccount>& accounts,
                            const std::vector<UncoveredAccount>& uncovered) {
  std::size_t line = 0;
  for (const UncoveredAccount& account : uncovered) {
    Check(account.uid == 0 && account.userName != "root", "an uncovered account that is no finding");
    Check(account.line > line, "uncovered accounts out of order");
    line = account.line;
    Check(std::strlen(account.reason) > 0, "an uncovered account without a reason");
    Check(std::any_of(accounts.begin(), accounts.end(),
                      [&](const LibraryAccount& other) {
                        return other.name == account.userName && other.uid == account.uid &&
                               other.gid == account.gid && other.home == account.home &&
                               other.shell == account.shell;
                      }),
          "an uncovered account that the library does not have");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  StartOnce();
  const std::string content = InputText(data, size);
  linesRead += static_cast<unsigned long long>(std::count(content.begin(), content.end(), '\n'));
  linesRead += content.empty() || content.back() == '\n' ? 0 : 1;

  WriteMemoryFile(content);
  MessageBus::Publish<const Snapshot&>("detect_user", {});  // the accounts of the last input are forgotten
  events.clear();
  task(taskArgument);
  CheckEvents();

  const std::vector<LibraryAccount> accounts = AskLibrary(content);
  const std::vector<UncoveredAccount> uncovered = FindUncoveredRoots(content);
  CheckNobodyIsSilent(accounts, uncovered);
  CheckNothingIsInvented(accounts, uncovered);
  return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                    unsigned seed) {
  if (seed % 8 == 0) {
    return LLVMFuzzerMutate(data, size, maxSize);
  }
  const std::string changed = AccountLines(seed).Change(InputText(data, size));
  const std::size_t length = std::min(changed.size(), maxSize);
  std::memcpy(data, changed.data(), length);
  return length;
}

// The fence, as far as the module needs it here; JSON and strings are the agent's own.

void LoggerWriteLog(OrvakAgentDotLogType, unsigned, unsigned, const char*, int, int, const char*, ...) {}

void WriteStartupLog(const char*, ...) {}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE, utils::thread::TASK_CONDITION, void* (*function)(void*),
                           void* arg, const std::string&) {
  task = function;
  taskArgument = arg;
  return 1;
}

void UtilsPauseAndWaitForEnd(unsigned) {}

void UtilsUnregisterTask(unsigned) {}

void UtilsMakeTaskLaunch(unsigned) {}

unsigned AddMonitor(const FileWatchRule&, MonitorType) { return 1; }

void RemoveMonitor(const FileWatchRule&, MonitorType) {}

void PushMinuteLimitEventToSendQueue(const std::string& event) { events.push_back(event); }

void UtilsGetUtcTime(std::string& out) { out = "2000-01-01 00:00:00"; }
