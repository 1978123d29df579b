#include "agent/cross_check.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/account_file.h"
#include "agent/event_queue.h"
#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/task_scheduler.h"
#include "agent/uncovered_accounts.h"
#include "host/json.h"
#include "host/utc_time.h"

namespace {

// As the module's own: the timer is there for what no event and no stat tells.
constexpr std::int64_t firstReadingMs = 10000;
constexpr std::int64_t readingIntervalMs = 300000;

// The module's reading and its alert go first. Changes on each other's heels are checked together: each check
// drives what the next alert needs out of the processor's caches.
constexpr std::chrono::milliseconds afterAChange{10};
constexpr std::chrono::milliseconds betweenChecks{100};
// So many are made one by one before that: somebody may be waiting for each.
constexpr int checksAtOnce = 10;

// Each of them is asked about and remembered. Whoever makes more has been reported often enough.
constexpr std::size_t mostAccounts = 100000;

void CloseIfOpen(int descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
  }
}

class OwnedDescriptor {
 public:
  explicit OwnedDescriptor(int openDescriptor) : number(openDescriptor) {}
  ~OwnedDescriptor() { CloseIfOpen(number); }
  OwnedDescriptor(const OwnedDescriptor&) = delete;
  OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

  const int number;
};

int ReserveDescriptor() { return eventfd(0, EFD_CLOEXEC); }

[[noreturn]] void Fail(const std::string& path, const char* what) {
  throw std::runtime_error(path + what + std::strerror(errno));
}

// What somebody holds a lease on cannot be had at once, and whoever lets go of it may be back before the next
// try: that file is waited for. It is one, so that the wait has an end.
int WaitForFile(const std::string& path) {
  const OwnedDescriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (place.number < 0) {
    return -1;
  }
  if (!ObstacleToReading(path, FileStatus::OfDescriptor(place.number)).empty()) {
    errno = ENOENT;
    return -1;
  }
  return open(("/proc/self/fd/" + std::to_string(place.number)).c_str(), O_RDONLY | O_CLOEXEC);
}

int OpenToRead(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  return descriptor < 0 && errno == EWOULDBLOCK ? WaitForFile(path) : descriptor;
}

// Nothing when there is no file to read: whoever comes before a reading tells of that. What stands there was
// looked at then; it is looked at again, as something else may stand there by now. Throws std::runtime_error
// when a file that is there cannot be read whole.
std::optional<std::string> ReadWhole(const std::string& path) {
  const OwnedDescriptor descriptor(OpenToRead(path));
  if (descriptor.number < 0) {
    const int error = errno;
    if (error == ENOENT || error == ENOTDIR || error == ELOOP ||
        (error == EACCES && !MayBeReadByItsMode(path))) {
      return std::nullopt;
    }
    errno = error;
    Fail(path, " cannot be opened: ");
  }
  if (!ObstacleToReading(path, FileStatus::OfDescriptor(descriptor.number)).empty()) {
    return std::nullopt;
  }
  std::string content;
  std::size_t size = 0;
  for (;;) {
    if (size == content.size()) {
      content.resize(std::max<std::size_t>(2 * size, 16384));
    }
    const ssize_t more = read(descriptor.number, &content[size], content.size() - size);
    if (more > 0) {
      size += static_cast<std::size_t>(more);
      if (size > largestAccountFile) {
        return std::nullopt;
      }
    } else if (more == 0) {
      content.resize(size);
      return content;
    } else if (errno != EINTR) {
      Fail(path, " cannot be read whole: ");
    }
  }
}

std::size_t CountLines(const std::string& content) {
  std::size_t count = 0;
  for (std::size_t start = 0; start < content.size();) {
    const std::size_t end = std::min(content.find('\n', start), content.size());
    count += end > start ? 1 : 0;
    start = end + 1;
  }
  return count;
}

std::string EventOf(const UncoveredAccount& account) {
  std::string time;
  UtilsGetUtcTime(time);
  utils::MyJson::MyValue content;
  content["userName"] = account.userName;
  content["uid"] = static_cast<int>(account.uid);
  content["gid"] = static_cast<int>(account.gid);  // as in an alert: above 2^31 its negative counterpart
  content["shell"] = account.shell;
  content["home"] = account.home;
  content["line"] = static_cast<int>(account.line);
  content["reason"] = account.reason;
  utils::MyJson::MyValue event;
  event["eventType"] = "uncovered-root-account";
  event["eventTime"] = time;
  event.JsonItemAddToObject("eventContent", content);
  return Utils::Convert::JsonToString(event);
}

}  // namespace

CrossCheck::CrossCheck(const std::string& accountFile, TaskScheduler& taskScheduler, FileMonitor& fileMonitor,
                       EventQueue& eventQueue, Logger& checkLogger,
                       std::function<void(std::size_t lines)> whenRead)
    : path(accountFile),
      scheduler(taskScheduler),
      monitor(fileMonitor),
      queue(eventQueue),
      logger(checkLogger),
      tellRead(std::move(whenRead)),
      reserve(ReserveDescriptor()) {
  // Beside its own, one is needed to read with.
  if (reserve < 0 || OwnedDescriptor(ReserveDescriptor()).number < 0) {
    CloseIfOpen(reserve);
    throw std::runtime_error(std::string("cross-check: ") + std::strerror(errno));
  }
  utils::thread::TASK_CONDITION condition = utils::thread::TASK_CONDITION();
  condition.startDelayMs = firstReadingMs;
  condition.intervalMs = readingIntervalMs;
  condition.enabled = true;
  const auto read = [](void* check) -> void* {
    static_cast<CrossCheck*>(check)->Read();
    return nullptr;
  };
  taskId =
      scheduler.Register(utils::thread::TASKTYPE_PERIODIC, condition, read, this, "cross_check_task", true);
  if (taskId == 0) {
    CloseIfOpen(reserve);
    throw std::runtime_error("cross-check: no task");
  }
  try {
    watch.path = path;
    watch.callback = std::make_shared<FileWatchCallback>(
        [this](int, const char*, const char*, bool, int, const std::string&) {
          const auto now = std::chrono::steady_clock::now();
          if (nextCheck <= now) {
            checksUntil = std::max(checksUntil, now) + betweenChecks;
            nextCheck = std::max(now + afterAChange, checksUntil - checksAtOnce * betweenChecks);
          }
          // Even when one is waiting: it may have been launched by others, before this change.
          scheduler.Launch(taskId, std::chrono::ceil<std::chrono::milliseconds>(nextCheck - now));
        });
    watch.monitorId = monitor.Add(watch);
    if (watch.monitorId == 0) {
      throw std::runtime_error("cross-check: no watch");
    }
  } catch (...) {
    End();
    throw;
  }
}

CrossCheck::~CrossCheck() { End(); }

// The watch goes first, so that no event launches a task that is going away.
void CrossCheck::End() {
  ending = true;
  monitor.Remove(watch);
  scheduler.PauseAndWait(taskId);
  scheduler.Unregister(taskId);
  CloseIfOpen(reserve);
}

// Told once, when it is no matter of a moment.
void CrossCheck::NoteFailure(const std::string& reason) {
  const auto now = std::chrono::steady_clock::now();
  if (!failingSince) {
    failingSince = now;
    failureTold = false;
  } else if (!failureTold && now - *failingSince >= ReadingGate::longestChange) {
    queue.Push(UnreadableEvent(path, reason), EventQueue::Lane::Findings);
    failureTold = true;
  }
}

// The module may read at the same time, and must not be the one that finds no descriptor left.
std::optional<std::string> CrossCheck::ReadWithOwnDescriptor() {
  struct Reserve {
    explicit Reserve(int& reservedDescriptor) : number(reservedDescriptor) { CloseIfOpen(number); }
    ~Reserve() { number = ReserveDescriptor(); }
    int& number;
  } const spent(reserve);
  return ReadWhole(path);
}

void CrossCheck::Read() {
  if (!enabled) {
    return;
  }
  std::optional<std::string> content;
  try {
    content = ReadWithOwnDescriptor();
    failingSince.reset();
  } catch (const std::runtime_error& failure) {
    NoteFailure(failure.what());
    throw;  // the scheduler tries again
  }
  if (!content) {
    return;
  }
  std::set<std::string> found;
  bool all = true;
  // An event leaves as soon as it is made. Should memory fail on the way, the next reading repeats some; a
  // repeated event is better than a lost one.
  ForEachUncoveredRoot(
      *content,
      [&](const UncoveredAccount& account) {
        if (found.insert(account.userName).second && standing.count(account.userName) == 0) {
          queue.Push(EventOf(account), EventQueue::Lane::Findings);
        }
        all = found.size() < mostAccounts;
        return all;
      },
      &ending);
  if (!all) {
    logger.Error("cross-check: " + std::to_string(mostAccounts) + " uncovered accounts in " + path +
                 "; there may be more");
  }
  standing.swap(found);
  if (tellRead) {
    tellRead(CountLines(*content));
  }
}
