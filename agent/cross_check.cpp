#include "agent/cross_check.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
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

// Each of them is asked about and remembered. Whoever makes more has been reported often enough.
constexpr std::size_t mostAccounts = 100000;

class ReadDescriptor {
 public:
  explicit ReadDescriptor(const std::string& path)
      : number(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  ~ReadDescriptor() {
    if (number >= 0) {
      close(number);
    }
  }
  ReadDescriptor(const ReadDescriptor&) = delete;
  ReadDescriptor& operator=(const ReadDescriptor&) = delete;

  const int number;
};

// Nothing when the file cannot be read whole. What stands there was looked at before this reading; it is
// looked at again, as something else may stand there by now.
std::optional<std::string> ReadWhole(const std::string& path) {
  const ReadDescriptor descriptor(path);
  if (descriptor.number < 0 ||
      !ObstacleToReading(path, FileStatus::OfDescriptor(descriptor.number)).empty()) {
    return std::nullopt;
  }
  std::string content;
  char part[65536];
  for (;;) {
    const ssize_t size = read(descriptor.number, part, sizeof(part));
    if (size > 0) {
      content.append(part, static_cast<std::size_t>(size));
      if (content.size() > largestAccountFile) {
        return std::nullopt;
      }
    } else if (size == 0) {
      return content;
    } else if (errno != EINTR) {
      return std::nullopt;
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
      tellRead(std::move(whenRead)) {
  utils::thread::TASK_CONDITION condition = utils::thread::TASK_CONDITION();
  condition.startDelayMs = firstReadingMs;
  condition.intervalMs = readingIntervalMs;
  condition.enabled = true;
  const auto read = [](void* check) -> void* {
    static_cast<CrossCheck*>(check)->Read();
    return nullptr;
  };
  taskId = scheduler.Register(utils::thread::TASKTYPE_PERIODIC, condition, read, this, "cross_check_task");
  if (taskId == 0) {
    throw std::runtime_error("cross-check: no task");
  }
  try {
    watch.path = path;
    watch.callback = std::make_shared<FileWatchCallback>(
        [this](int, const char*, const char*, bool, int, const std::string&) {
          const auto now = std::chrono::steady_clock::now();
          if (nextCheck <= now) {
            nextCheck = std::max(now + afterAChange, nextCheck + betweenChecks);
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
}

void CrossCheck::Read() {
  if (!enabled) {
    return;
  }
  const std::optional<std::string> content = ReadWhole(path);
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
