#include "agent/account_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/json.h"
#include "host/utc_time.h"

const char accountFilePath[] = "/etc/passwd";

namespace {

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
  if (status->size > largestAccountFile) {
    return path + " is larger than " + std::to_string(largestAccountFile >> 20) + " MiB";
  }
  return "";
}

std::string ObstacleToReading(const std::string& path) {
  const std::string shortage = ShortageAt(path);
  return shortage.empty() ? ObstacleToReading(path, FileStatus::OfPath(path)) : shortage;
}

std::string UnreadableEvent(const std::string& path, const std::string& reason) {
  std::string time;
  UtilsGetUtcTime(time);
  utils::MyJson::MyValue content;
  content["path"] = path;
  content["reason"] = reason;
  utils::MyJson::MyValue event;
  event["eventType"] = "account-file-unreadable";
  event["eventTime"] = time;
  event.JsonItemAddToObject("eventContent", content);
  return Utils::Convert::JsonToString(event);
}

ReadingGate::ReadingGate(std::function<void(const std::string& reason)> tellObstacle)
    : tell(std::move(tellObstacle)) {}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, Time now) {
  const TaskScheduler::Permission permission = Ask(path, FileStatus::OfPath(path), now);
  if (permission.answer != Answer::Yes) {
    return Tell(permission);
  }
  const std::string shortage = ShortageAt(path);
  return Tell({shortage.empty() ? Answer::Yes : Answer::No, shortage});
}

TaskScheduler::Permission ReadingGate::Tell(const TaskScheduler::Permission& permission) {
  if (permission.answer == Answer::No && permission.reason != told) {
    if (tell) {
      tell(permission.reason);
    }
    told = permission.reason;
  } else if (permission.answer == Answer::Yes) {
    told.clear();
  }
  return permission;
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
