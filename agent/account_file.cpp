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

// Of the machine's means: it may be over the next moment, and no event would tell.
bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

// The module would take it for a missing file. Opened in a way that cannot be read from: a FIFO is not waited
// for, and whoever watches the file does not take this for a reading.
std::string ShortageAt(const std::string& path) {
  const int descriptor = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (descriptor >= 0) {
    close(descriptor);
    return "";
  }
  return IsShortage(errno) ? path + " cannot be opened: " + std::strerror(errno) : "";
}

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
  const std::string shortage = ShortageAt(path);
  return shortage.empty() ? ObstacleToReading(path, FileStatus::OfPath(path)) : shortage;
}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, Time now) {
  const TaskScheduler::Permission permission = Ask(path, FileStatus::OfPath(path), now);
  if (permission.answer != Answer::Yes) {
    return permission;
  }
  const std::string shortage = ShortageAt(path);
  return {shortage.empty() ? Answer::Yes : Answer::No, shortage};
}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, const std::optional<FileStatus>& status,
                                           Time now) {
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
