#include "agent/account_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "host/json.h"
#include "host/utc_time.h"

const char accountFilePath[] = "/etc/passwd";

namespace {

// Of the machine's means: it may be over the next moment, and no event would tell. The module would take it
// for a missing file.
bool IsShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

std::string CannotBeOpened(const std::string& path, int error) {
  return path + " cannot be opened: " + std::strerror(error);
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
  const AccountFileLook look = LookAtAccountFile(path);
  return IsShortage(look.error) ? CannotBeOpened(path, look.error) : ObstacleToReading(path, look.status);
}

// Opened in a way that cannot be read from: a FIFO is not waited for, and whoever watches the file does not
// take this for a reading. What more than the mode may forbid a reading is therefore not found here, but by
// the cross-check.
AccountFileLook LookAtAccountFile(const std::string& path) {
  AccountFileLook look;
  const int descriptor = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (descriptor < 0) {
    look.error = errno;
    return look;
  }
  look.status = FileStatus::OfDescriptor(descriptor);
  if (!look.status) {
    look.error = errno;
  }
  close(descriptor);
  if (!MayBeReadByItsMode(path)) {
    look.error = EACCES;
  }
  return look;
}

// By the path, since not every kernel answers for a descriptor; what changes in between is told by an event.
bool MayBeReadByItsMode(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0 || errno != EACCES;
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

ReadingGate::ReadingGate(std::function<void(const std::string& reason)> tellReason)
    : tell(std::move(tellReason)) {}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, Time now) {
  return Ask(path, LookAtAccountFile(path), now);
}

TaskScheduler::Permission ReadingGate::Ask(const std::string& path, const AccountFileLook& look, Time now) {
  TaskScheduler::Permission permission = Decide(path, look, now);
  if (permission.answer != Answer::NotYet && permission.reason != told) {
    told.clear();
    if (!permission.reason.empty()) {
      Tell(permission.reason, now);
    }
  }
  return permission;
}

// What may not be told yet, and stands, is offered again at the next reading.
void ReadingGate::Tell(const std::string& reason, Time now) {
  for (auto entry = toldAt.begin(); entry != toldAt.end();) {
    entry = now - entry->second < tellInterval ? std::next(entry) : toldAt.erase(entry);
  }
  if (toldAt.count(reason) != 0) {
    return;
  }
  if (tell) {
    tell(reason);
  }
  told = reason;
  toldAt.emplace(reason, now);
}

TaskScheduler::Permission ReadingGate::Decide(const std::string& path, const AccountFileLook& look,
                                              Time now) {
  const std::string obstacle = ObstacleToReading(path, look.status);
  if (!obstacle.empty()) {
    condition = {};  // what comes after it is another time
    return {Answer::No, obstacle};
  }
  // Each error has a time of its own: a broken link that goes to make room for the file is no missing file.
  const Condition current{look.error, look.status && look.status->size == 0};
  if (current != condition) {
    condition = current;
    conditionSince = now;
  }
  if (condition != Condition{} && now - conditionSince < longestChange) {
    return {Answer::NotYet, ""};
  }
  return {IsShortage(look.error) ? Answer::No : Answer::Yes,
          look.error != 0 ? CannotBeOpened(path, look.error) : ""};
}
