#include "agent/file_monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

#include "agent/logger.h"
#include "agent/services.h"

using std::chrono::milliseconds;

namespace {

// How often a rule that inotify does not cover is looked at when no interval is set.
constexpr milliseconds pollInterval{1000};
// How long to wait for memory.
constexpr milliseconds memoryRetryInterval{1000};
constexpr std::int64_t longestPollMs = 3600000;  // then the thread looks at its clock again
// How long to wait before inotify, or a watch that its limits refused, is asked for again.
constexpr milliseconds inotifyRetryInterval{30000};

struct WatchedPlace {
  std::string path;
  WatchRole role;
  std::string name;
};

// Where a path is watched, top down: a folder that is replaced while the ones below it are being attached is
// then seen by the watch above it.
std::vector<WatchedPlace> PlacesOf(const std::string& path) {
  std::vector<std::string> names;
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start) {
      names.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  std::vector<WatchedPlace> places;
  std::string folder = path.front() == '/' ? "/" : ".";
  for (std::size_t i = 0; i < names.size(); ++i) {
    places.push_back({folder, i + 1 == names.size() ? WatchRole::Directory : WatchRole::Ancestor, names[i]});
    folder += (folder.back() == '/' ? "" : "/") + names[i];
  }
  places.push_back({path, WatchRole::File, ""});
  return places;
}

// The path leads nowhere for now, or to where this user may not look: its ancestors and the identity check
// tell when that changes. Any other refusal is inotify's own.
bool IsAbsence(int error) { return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP; }

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

FileMonitor::FileMonitor(Logger& monitorLogger, milliseconds checkInterval)
    : logger(monitorLogger), identityInterval(checkInterval) {
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
  inotify.Open();
  nextCheck = Settling::Time::clock::now();
  nextRetry = nextCheck;
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
  if (rule.path.empty() || rule.callback == nullptr || !*rule.callback) {
    return 0;
  }
  unsigned id = 0;
  {
    std::lock_guard<std::mutex> lock(mutex);
    do {
      id = ++lastId;
    } while (id == 0 || rules.count(id) != 0);
    Rule added;
    added.path = rule.path;
    added.callback = rule.callback;
    const auto place = rules.emplace(id, std::move(added)).first;
    try {
      AttachLocked(id, place->second);
    } catch (...) {
      rules.erase(
          place);  // or it would hold the callback for ever: the caller has no handle to withdraw it by
      throw;
    }
    place->second.status = FileStatus::OfPath(rule.path);
  }
  Wake();  // the thread may be waiting without a time to wake at
  return id;
}

void FileMonitor::Remove(const FileWatchRule& rule) {
  std::shared_ptr<FileWatchCallback> dropped;  // destroyed without the lock: it may be the last reference
  std::unique_lock<std::mutex> lock(mutex);
  const auto found = rules.find(rule.monitorId);
  if (found != rules.end()) {
    dropped = std::move(found->second.callback);
    rules.erase(found);
    Uses fresh = uses;
    DropUses(fresh, rule.monitorId);
    TakeUsesLocked(std::move(fresh));
    pollingSaid = pollingSaid && AnyPolledLocked();  // the next rule that is polled is told of
  }
  if (std::this_thread::get_id() != thread.get_id()) {
    callbackEnded.wait(lock, [this, &rule] { return reporting == 0 || reporting != rule.monitorId; });
  }
  lock.unlock();
}

void FileMonitor::Wake() const {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the thread is awake anyway.
  [[maybe_unused]] const ssize_t written = write(wakeDescriptor, &one, sizeof(one));
}

void FileMonitor::Work() {
  std::unique_lock<std::mutex> lock(mutex);
  while (!stopping) {
    pollfd descriptors[] = {{wakeDescriptor, POLLIN, 0},
                            {inotify.Descriptor(), POLLIN, 0},  // a negative one is passed over
                            {mountsDescriptor, POLLPRI, 0}};
    const int timeout = WaitTimeoutLocked(Time::clock::now());
    lock.unlock();
    const int ready = poll(descriptors, std::size(descriptors), timeout);
    lock.lock();
    const Time now = Time::clock::now();
    try {
      if (ready > 0) {
        HandleReadyLocked(descriptors, now);
      }
      StartOverLocked(now);
      RetryInotifyLocked(now);
      CheckIdentitiesLocked(now);
      while (!stopping && ReportNextLocked(lock, now)) {
      }
    } catch (const std::bad_alloc&) {
      startOver = now + memoryRetryInterval;  // what was being done is unknown: all of it again
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
    startOver = now;
  }
}

// After whatever leaves it open which events were missed.
void FileMonitor::StartOverLocked(Time now) {
  if (startOver && *startOver <= now) {
    AttachAllLocked();
    ReportAllLocked(now, Report::Now);
    startOver.reset();
  }
}

milliseconds FileMonitor::CheckIntervalLocked() const {
  if (!AnyPolledLocked()) {
    return identityInterval;
  }
  return identityInterval == milliseconds::zero() ? pollInterval : std::min(identityInterval, pollInterval);
}

bool FileMonitor::AnyPolledLocked() const {
  return std::any_of(rules.begin(), rules.end(), [](const auto& entry) { return entry.second.polled; });
}

// In milliseconds, as poll takes it; -1 for no end.
int FileMonitor::WaitTimeoutLocked(Time now) const {
  std::optional<Time> wake;
  const auto consider = [&wake](Time time) { wake = wake ? std::min(*wake, time) : time; };
  for (const auto& [id, rule] : rules) {
    if (rule.settling.Due()) {
      consider(*rule.settling.Due());
    }
  }
  if (startOver) {
    consider(*startOver);
  }
  if (!rules.empty() && CheckIntervalLocked() > milliseconds::zero()) {
    consider(nextCheck);
  }
  if (!wake) {
    return -1;
  }
  // Rounded up: waking a moment early would find nothing due and turn the wait into a busy loop.
  const auto wait = std::chrono::ceil<milliseconds>(*wake - now).count();
  return static_cast<int>(std::clamp<std::int64_t>(wait, 0, longestPollMs));
}

void FileMonitor::HandleEventsLocked(Time now) {
  std::vector<InotifyEvent> events;
  if (!inotify.Read(events)) {
    logger.Warning("file monitor: inotify cannot be read; everything is watched anew");
    inotify.Open();
    uses.clear();
    startOver = now;
    return;
  }
  for (const InotifyEvent& event : events) {
    HandleEventLocked(event, now);
  }
}

void FileMonitor::HandleEventLocked(const InotifyEvent& event, Time now) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    ++overflows;
    logger.Warning("file monitor: the kernel dropped events (" + std::to_string(overflows) +
                   " times so far); every watched file is reported");
    startOver = now;
    return;
  }
  const auto found = uses.find(event.watch);
  if (found == uses.end()) {
    return;  // a watch that was withdrawn while its event waited
  }
  const std::vector<Use> ofWatch = found->second;  // a copy: attaching changes the original
  for (const Use& use : ofWatch) {
    const auto rule = rules.find(use.rule);
    if (rule == rules.end() || (!event.name.empty() && event.name != use.name)) {
      continue;
    }
    const Reaction reaction = ReactionTo(use.role, event.mask);
    if (reaction.attach) {
      AttachLocked(use.rule, rule->second);
    }
    rule->second.settling.Add(reaction.report, now);
  }
}

void FileMonitor::ReportAllLocked(Time now, Report report) {
  for (auto& entry : rules) {
    entry.second.settling.Add(report, now);
  }
}

void FileMonitor::RetryInotifyLocked(Time now) {
  if (!AnyPolledLocked() || now < nextRetry) {
    return;
  }
  nextRetry = now + inotifyRetryInterval;
  if (!inotify.IsOpen() && !inotify.Open()) {
    return;
  }
  AttachAllLocked();
  ReportAllLocked(now, Report::Settled);
}

void FileMonitor::CheckIdentitiesLocked(Time now) {
  const milliseconds interval = CheckIntervalLocked();
  if (interval == milliseconds::zero() || rules.empty() || now < nextCheck) {
    return;
  }
  nextCheck = now + interval;
  for (auto& [id, rule] : rules) {
    const std::optional<FileStatus> status = FileStatus::OfPath(rule.path);
    if (!(status == rule.status)) {
      rule.status = status;
      AttachLocked(id, rule);
      rule.settling.Add(Report::Settled, now);
    }
  }
}

void FileMonitor::AttachAllLocked() {
  for (auto& [id, rule] : rules) {
    AttachLocked(id, rule);
  }
}

void FileMonitor::AttachLocked(unsigned id, Rule& rule) {
  std::vector<std::pair<int, Use>> attached;
  int refusal = inotify.IsOpen() ? 0 : inotify.OpenError();
  for (const WatchedPlace& place : inotify.IsOpen() ? PlacesOf(rule.path) : std::vector<WatchedPlace>()) {
    const int watch = inotify.Add(place.path, EventsOf(place.role));
    if (watch >= 0) {
      attached.push_back({watch, {id, place.role, place.name}});
    } else if (!IsAbsence(-watch)) {
      refusal = -watch;
    }
  }
  Uses fresh = uses;
  DropUses(fresh, id);
  for (auto& [watch, use] : attached) {
    fresh[watch].push_back(std::move(use));
  }
  TakeUsesLocked(std::move(fresh));
  rule.polled = refusal != 0;
  if (rule.polled) {
    nextCheck = std::min(nextCheck, Time::clock::now() + CheckIntervalLocked());  // it may have been far off
  }
  if (rule.polled && !pollingSaid) {
    pollingSaid = true;
    nextRetry = Time::clock::now() + inotifyRetryInterval;
    logger.Warning(std::string("file monitor: inotify refused a watch (") + std::strerror(refusal) +
                   "): " + rule.path + " is polled every " + std::to_string(CheckIntervalLocked().count()) +
                   " ms until it is available again");
  } else if (pollingSaid && !AnyPolledLocked()) {
    pollingSaid = false;
    logger.Info("file monitor: inotify is available again; polling ends");
  }
}

void FileMonitor::DropUses(Uses& uses, unsigned rule) {
  for (auto entry = uses.begin(); entry != uses.end();) {
    auto& ofWatch = entry->second;
    ofWatch.erase(
        std::remove_if(ofWatch.begin(), ofWatch.end(), [rule](const Use& use) { return use.rule == rule; }),
        ofWatch.end());
    entry = ofWatch.empty() ? uses.erase(entry) : std::next(entry);
  }
}

// Withdraws the watches that nobody uses any more. Those that are used before and after stay untouched, so an
// inode is never without its watch in between.
void FileMonitor::TakeUsesLocked(Uses fresh) {
  for (const auto& entry : uses) {
    if (fresh.count(entry.first) == 0) {
      inotify.Remove(entry.first);
    }
  }
  uses = std::move(fresh);
}

// Calls back for one rule that is due; false when none is.
bool FileMonitor::ReportNextLocked(std::unique_lock<std::mutex>& lock, Time now) {
  const auto found = std::find_if(rules.begin(), rules.end(), [now](const auto& entry) {
    return entry.second.settling.Due() && *entry.second.settling.Due() <= now;
  });
  if (found == rules.end()) {
    return false;
  }
  Rule& rule = found->second;
  std::shared_ptr<FileWatchCallback> callback = rule.callback;
  const std::string path = rule.path;
  const unsigned id = found->first;
  rule.settling.Clear();
  rule.status = FileStatus::OfPath(path);  // before the callback: what changes after this will be seen
  reporting = id;
  lock.unlock();
  bool through = false;
  try {
    (*callback)(0, path.c_str(), "", false, 0, std::string());
    through = true;
  } catch (const std::exception& error) {
    LogFailure(logger, path, error.what());
  } catch (...) {
    LogFailure(logger, path, "an exception of an unknown type");
  }
  callback.reset();
  lock.lock();
  reporting = 0;
  callbackEnded.notify_all();
  if (!through) {
    const auto again = rules.find(id);
    if (again != rules.end()) {
      again->second.settling.Retry(now);
    }
  }
  return true;
}

unsigned AddMonitor(const FileWatchRule& rule, MonitorType /*type*/) {
  return InstalledServices::Current().monitor.Add(rule);
}

void RemoveMonitor(const FileWatchRule& rule, MonitorType /*type*/) {
  InstalledServices::Current().monitor.Remove(rule);
}
