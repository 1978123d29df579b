#include "agent/account_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include <cstring>

const char accountFilePath[] = "/etc/passwd";

namespace {

// Far above any account file, and what a reading of it can need is still bounded.
constexpr std::uint64_t largestMiB = 256;

// A lack of the machine's: it may be over the next moment, and no event would tell.
bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

}  // namespace

std::string ObstacleToReading(const std::string& path, const std::optional<FileStatus>& status) {
  if (!status) {
    return "";
  }
  if (!status->regular) {
    return path + " is not a regular file";
  }
  if (status->size > largestMiB << 20) {
    return path + " is larger than " + std::to_string(largestMiB) + " MiB";
  }
  return "";
}

std::string ObstacleToReading(const std::string& path) {
  return ObstacleToReading(path, FileStatus::OfPath(path));
}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, const std::optional<FileStatus>& status,
                                           Time now) {
  using Answer = TaskScheduler::Permission::Answer;
  const std::string obstacle = ObstacleToReading(path, status);
  if (!obstacle.empty()) {
    return {Answer::No, obstacle};
  }
  if (!status || status->size > 0) {
    emptySince.reset();
    return {Answer::Yes, ""};
  }
  emptySince = emptySince.value_or(now);
  return {now - *emptySince < longestEmpty ? Answer::NotYet : Answer::Yes, ""};
}
