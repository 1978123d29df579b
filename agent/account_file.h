#ifndef VELTA_AGENT_ACCOUNT_FILE_H
#define VELTA_AGENT_ACCOUNT_FILE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "agent/file_status.h"
#include "agent/task_scheduler.h"

// The file that the module reads; the module's own constant, which no interface of it tells.
extern const char accountFilePath[];

// A million accounts of the usual length, with room to spare. What a reading can need, fifty times as
// much when the lines are as short as they can be, still fits into the MemoryMax= of the unit. In bytes.
constexpr std::uint64_t largestAccountFile = std::uint64_t{96} << 20;

// Why a reading of the file must not begin, or an empty text. The module opens whatever stands there: a FIFO
// would hold its thread for ever, a folder looks like an empty file and empties what the detector knows, and
// a line of gigabytes takes as much memory. A missing or unreadable file is no obstacle: the module says so
// itself, and keeps what it knows.
std::string ObstacleToReading(const std::string& path, const std::optional<FileStatus>& status);
std::string ObstacleToReading(const std::string& path);

// The event that tells of an obstacle: {"eventType":"account-file-unreadable", ... "path" and "reason".
std::string UnreadableEvent(const std::string& path, const std::string& reason);

// What a look at the file found.
struct AccountFileLook {
  std::optional<FileStatus> status;  // none: it is not there, or cannot be looked at
  int error =
      0;  // why it cannot be read; 0: it can, as far as one may know without reading, and has a status
};
AccountFileLook LookAtAccountFile(const std::string& path);
bool MayBeReadByItsMode(const std::string& path);

// Decides before each reading whether it may begin, and tells once of each thing that makes readings useless:
// an obstacle, or a file that is missing or may not be read. Of those two the module tells as well, so its
// reading begins all the same. One that comes and goes is told once a minute: whoever exchanges a FIFO and
// the file for each other would otherwise fill the lane in which uncovered accounts are told of.
//
// A file that is empty or missing is most likely one that is being written anew: right after its truncation,
// or between the removal of the old one and the arrival of the new one. An empty one, read then, would empty
// what the detector knows, and every accepted account would be reported again. So the reading is put off for
// as long as a writer may need; a file that stays so is read. A shortage of descriptors or memory has that
// long to pass as well.
//
// Thread use: one thread at a time.
class ReadingGate {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds longestChange{1000};
  static constexpr std::chrono::minutes tellInterval{1};

  // tellReason gets the reason for which readings find nothing from now on; it is called inside of Ask.
  explicit ReadingGate(std::function<void(const std::string& reason)> tellReason = nullptr);

  TaskScheduler::Permission Ask(const std::string& path, Time now);

  // What the look says, without looking.
  TaskScheduler::Permission Ask(const std::string& path, const AccountFileLook& look, Time now);

 private:
  using Answer = TaskScheduler::Permission::Answer;
  using Condition = std::pair<int, bool>;  // why the file cannot be read, or 0; whether it is empty

  TaskScheduler::Permission Decide(const std::string& path, const AccountFileLook& look, Time now);
  void Tell(const std::string& reason, Time now);

  const std::function<void(const std::string& reason)> tell;
  std::string told;                    // what stands, if it was told
  std::map<std::string, Time> toldAt;  // within the last interval
  Condition condition;                 // a file to read at once
  Time conditionSince;
};

#endif  // VELTA_AGENT_ACCOUNT_FILE_H
