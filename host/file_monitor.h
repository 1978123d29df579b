#ifndef VELTA_HOST_FILE_MONITOR_H
#define VELTA_HOST_FILE_MONITOR_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#pragma GCC visibility push(default)

// What a watch is added or withdrawn as. The kinds are not a matching pair: see their uses.
enum MonitorType {
  MONITOR_WITHDRAW = 0,
  MONITOR_ADD = 1,
};

using FileWatchCallback = std::function<void(int, const char*, const char*, bool, int, const std::string&)>;

// A watch on one file. Passed between module and agent, so its layout is fixed; it has no member
// initialisers on purpose: whoever makes one value-initialises it (FileWatchRule rule = FileWatchRule();),
// and its padding is then zero too.
//
// A copy shares the callback. The record has no other behaviour.
struct FileWatchRule {
  std::string path;
  bool switch1;
  bool switch2;
  bool switch3;
  bool switch4;
  bool switch5;
  bool switch6;
  bool switch7;
  bool switch8;
  bool switch9;
  bool switch10;
  std::uint32_t monitorId;  // what AddMonitor returned; 0 before
  std::shared_ptr<FileWatchCallback> callback;
};

// The tabled layout belongs to 32-bit hosts whose string is one pointer wide; elsewhere the record has the
// natural layout of the same fields.
#define VELTA_ELSEWHERE (sizeof(void*) != 4 || sizeof(std::string) != sizeof(void*))
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"  // defined for this record by every compiler in use
static_assert(VELTA_ELSEWHERE || sizeof(FileWatchRule) == 28, "the monitor reads a record of 28 bytes");
static_assert(VELTA_ELSEWHERE || offsetof(FileWatchRule, switch1) == 4, "switches follow the path");
static_assert(VELTA_ELSEWHERE || offsetof(FileWatchRule, switch10) == 13, "switches are bytes in a row");
static_assert(VELTA_ELSEWHERE || offsetof(FileWatchRule, monitorId) == 16, "handle at offset 16");
static_assert(VELTA_ELSEWHERE || offsetof(FileWatchRule, callback) == 20, "callback at offset 20");
static_assert(offsetof(FileWatchRule, path) == 0, "the path leads the record");
static_assert(offsetof(FileWatchRule, switch10) == sizeof(std::string) + 9, "ten switches without a gap");
#pragma GCC diagnostic pop
#undef VELTA_ELSEWHERE

// Watches rule.path; returns a handle, or 0 when the watch was refused. The monitor keeps its own copy of the
// rule and calls (*rule.callback)(kind, path, detail, flag, number, text) on its own thread with rule.path,
// byte for byte, as the path.
//
// Thread use: any thread, the monitor's own included.
unsigned AddMonitor(const FileWatchRule& rule, MonitorType type);

// Withdraws the watch with rule.monitorId and drops the monitor's copy of the rule; returns when no callback
// of it runs or can start, or at once on the callback's own thread. Harmless for a rule that was never added.
void RemoveMonitor(const FileWatchRule& rule, MonitorType type);

#pragma GCC visibility pop

#endif  // VELTA_HOST_FILE_MONITOR_H
