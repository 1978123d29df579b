#include "agent/file_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

#include "agent/services.h"
#include "agent/task_scheduler.h"

using std::chrono::milliseconds;

namespace {

// How long to wait for memory.
constexpr milliseconds memoryRetryInterval{1000};
constexpr std::int64_t longestPollMs = 3600000;  // then the thread looks at its clock again

void CloseIfOpen(int descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
  }
}

// Never throws: it runs where a callback has failed, and memory may be what failed.
void LogFailure(Logger& logger, const std::string& path, const char* reason) {
  try {
    logger.Error("file monitor: the callback for " + path + " failed and will be tried again: " + reason);
  } catch (const std::bad_alloc&) {  // then not even the message can be built; it is tried again all the same
  }
}

}  // namespace

FileMonitor::FileMonitor(Logger& monitorLogger, milliseconds checkInterval, TaskScheduler* taskScheduler)
    : logger(monitorLogger),
      scheduler(taskScheduler),
      kernel(monitorLogger),
      table(kernel, checkInterval, Time::clock::now()) {
  wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wakeDescriptor < 0) {
    throw std::system_error(errno, std::generic_category(), "file monitor: eventfd");
  }
  // Readable as an exceptional condition after every mount and unmount: no inotify event tells of one.
  mountsDescriptor = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (mountsDescriptor < 0) {
    logger.Warning(std::string("file monitor: /proc/self/mountinfo cannot be opened (") +
                   std::strerror(errno) +
                   "): a mount over a watched file is noticed by the identity check alone");
  }
  kernel.Open();  // last: of few descriptors, it is the one that can be done without
  try {
    thread = std::thread([this] { Work(); });
  } catch (...) {
    CloseIfOpen(mountsDescriptor);
    CloseIfOpen(wakeDescriptor);
    throw;
  }
}

FileMonitor::~FileMonitor() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    stopping = true;
  }
  Wake();
  thread.join();
  CloseIfOpen(mountsDescriptor);
  CloseIfOpen(wakeDescriptor);
}

unsigned FileMonitor::Add(const FileWatchRule& rule) {
  unsigned id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    id = table.Add(rule, Time::clock::now());
  }
  Wake();  // the thread may be waiting without a time to wake at
  return id;
}

void FileMonitor::Remove(const FileWatchRule& rule) {
  std::shared_ptr<FileWatchCallback> dropped;  // destroyed without the lock: it may be the last reference
  std::unique_lock<std::mutex> lock(mutex);
  dropped = table.Remove(rule.monitorId);
  if (std::this_thread::get_id() != thread.get_id()) {
    callbackEnded.wait(lock, [this, &rule] { return reporting == 0 || reporting != rule.monitorId; });
  }
  lock.unlock();
}

FileMonitor::State FileMonitor::Look() const {
  std::lock_guard<std::mutex> lock(mutex);
  return {table.Watches(), table.Polls(), rounds};
}

void FileMonitor::Wake() const {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = write(wakeDescriptor, &one, sizeof(one));
}

void FileMonitor::Work() {
  if (scheduler != nullptr) {
    scheduler->Volunteer();
  }
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    pollfd descriptors[] = {{wakeDescriptor, POLLIN, 0},
                            {kernel.inotify.Descriptor(), POLLIN, 0},  // a negative one is passed over
                            {mountsDescriptor, POLLPRI, 0}};
    const int timeout = WaitTimeoutLocked(Time::clock::now());
    lock.unlock();
    const int ready = poll(descriptors, std::size(descriptors), timeout);
    lock.lock();
    ++rounds;
    const Time now = Time::clock::now();
    try {
      if (ready > 0) {
        HandleReadyLocked(descriptors, now);
      }
      table.Advance(now);
      while (!stopping && ReportNextLocked(lock, now)) {
        if (scheduler != nullptr) {
          lock.unlock();
          scheduler->RunDue();  // before the next report, which may be of less hurry
          lock.lock();
        }
      }
    } catch (const std::bad_alloc&) {
      table.StartOver(now + memoryRetryInterval);  // what was being done is unknown: all of it again
    }
  }
}

void FileMonitor::HandleReadyLocked(const pollfd* descriptors, Time now) {
  if (descriptors[0].revents != 0) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t size = read(wakeDescriptor, &count, sizeof(count));
  }
  if (descriptors[1].revents != 0) {
    HandleEventsLocked(now);
  }
  if (descriptors[2].revents != 0) {
    table.StartOver(now);
  }
}

// In milliseconds, as poll takes it; -1 for no end.
int FileMonitor::WaitTimeoutLocked(Time now) const {
  const std::optional<Time> due = table.NextDue();
  if (!due) {
    return -1;
  }
  // Rounded up: waking a moment early would find nothing due and turn the wait into a busy loop.
  const auto wait = std::chrono::ceil<milliseconds>(*due - now).count();
  return static_cast<int>(std::clamp<std::int64_t>(wait, 0, longestPollMs));
}

void FileMonitor::HandleEventsLocked(Time now) {
  std::vector<InotifyEvent> events;
  if (!kernel.inotify.Read(events)) {
    table.Reopen(now);
    return;
  }
  for (const InotifyEvent& event : events) {
    table.Handle(event, now);
  }
}

// Calls back for one rule that is due; false when none is.
bool FileMonitor::ReportNextLocked(std::unique_lock<std::mutex>& lock, Time now) {
  std::optional<WatchTable::Due> due = table.Begin(now);
  if (!due) {
    return false;
  }
  reporting = due->id;
  lock.unlock();
  bool through = false;
  try {
    (*due->callback)(0, due->path.c_str(), "", false, 0, std::string());
    through = true;
  } catch (const std::exception& error) {
    LogFailure(logger, due->path, error.what());
  } catch (...) {
    LogFailure(logger, due->path, "an exception of an unknown type");
  }
  due->callback.reset();
  lock.lock();
  reporting = 0;
  callbackEnded.notify_all();
  if (!through) {
    table.Retry(due->id, now);
  }
  return true;
}

unsigned AddMonitor(const FileWatchRule& rule, MonitorType /*type*/) {
  return InstalledServices::Current().monitor.Add(rule);
}

void RemoveMonitor(const FileWatchRule& rule, MonitorType /*type*/) {
  InstalledServices::Current().monitor.Remove(rule);
}
