#include "agent/watch_table.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

using std::chrono::milliseconds;

namespace {

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

}  // namespace

WatchTable::WatchTable(WatchedSystem& watchedSystem, milliseconds checkInterval, Time now)
    : system(watchedSystem), identityInterval(checkInterval), nextCheck(now), nextRetry(now) {}

unsigned WatchTable::Add(const FileWatchRule& rule, Time now) {
  if (rule.path.empty() || rule.callback == nullptr || !*rule.callback) {
    return 0;
  }
  unsigned id = 0;
  do {
    id = ++lastId;
  } while (id == 0 || rules.count(id) != 0);
  Rule added;
  added.path = rule.path;
  added.callback = rule.callback;
  const auto place = rules.emplace(id, std::move(added)).first;
  try {
    Attach(id, place->second, now);
  } catch (...) {
    rules.erase(place);  // or it would hold the callback for ever: the caller has no handle to withdraw it by
    throw;
  }
  place->second.settling.Clear();  // a rule that is new has nothing to report
  place->second.status = system.Look(rule.path);
  return id;
}

std::shared_ptr<FileWatchCallback> WatchTable::Remove(unsigned id) {
  const auto found = rules.find(id);
  if (found == rules.end()) {
    return nullptr;
  }
  std::shared_ptr<FileWatchCallback> callback = std::move(found->second.callback);
  rules.erase(found);
  // In place, which takes no memory: a withdrawal cannot fail.
  for (auto entry = uses.begin(); entry != uses.end();) {
    DropUsesOf(id, entry->second);
    if (entry->second.empty()) {
      system.Remove(entry->first);
      entry = uses.erase(entry);
    } else {
      ++entry;
    }
  }
  pollingSaid = pollingSaid && AnyPolled();  // the next rule that is polled is told of
  return callback;
}

void WatchTable::Handle(const InotifyEvent& event, Time now) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    ++overflows;
    system.Tell(LogLevel::Warning, "file monitor: the kernel dropped events (" + std::to_string(overflows) +
                                       " times so far); every watched file is reported");
    StartOver(now);
    return;
  }
  const auto found = uses.find(event.watch);
  if (found == uses.end()) {
    return;  // a watch that was withdrawn while its event waited
  }
  const std::vector<Use> ofWatch = found->second;  // a copy: attaching changes the original
  std::optional<int> fileWatch;  // of this path, which those that the event is about may share
  std::string sharedPath;
  for (const Use& use : ofWatch) {
    const auto rule = rules.find(use.rule);
    if (rule == rules.end() || (!event.name.empty() && event.name != use.name)) {
      continue;
    }
    const Reaction reaction = ReactionTo(use.role, event.mask);
    if (reaction.attach && use.role == WatchRole::Directory && !event.name.empty()) {
      if (rule->second.path != sharedPath) {  // another name of the folder may lead to another file
        fileWatch.reset();
        sharedPath = rule->second.path;
      }
      AttachFile(use.rule, rule->second, fileWatch, now);
    } else if (reaction.attach) {
      Attach(use.rule, rule->second, now);
    }
    rule->second.settling.Add(reaction.report, now);
  }
}

void WatchTable::StartOver(Time when) { startOver = startOver ? std::min(*startOver, when) : when; }

void WatchTable::Reopen(Time now) {
  system.Tell(LogLevel::Warning, "file monitor: inotify cannot be read; everything is watched anew");
  system.Open();
  uses.clear();
  StartOver(now);
}

void WatchTable::Advance(Time now) {
  if (startOver && *startOver <= now) {
    AttachAll(now);
    ReportAll(now, Report::Now);
    startOver.reset();
  }
  RetryWatches(now);
  CheckIdentities(now);
}

void WatchTable::AttachAll(Time now) {
  for (auto& [id, rule] : rules) {
    Attach(id, rule, now);
  }
}

void WatchTable::ReportAll(Time now, Report report) {
  for (auto& entry : rules) {
    entry.second.settling.Add(report, now);
  }
}

void WatchTable::RetryWatches(Time now) {
  if (!AnyPolled() || now < nextRetry) {
    return;
  }
  nextRetry = now + retryInterval;
  if (system.OpenError() != 0 && !system.Open()) {
    return;
  }
  AttachAll(now);
  ReportAll(now, Report::Settled);
}

void WatchTable::CheckIdentities(Time now) {
  const milliseconds interval = CheckInterval();
  if (interval == milliseconds::zero() || rules.empty() || now < nextCheck) {
    return;
  }
  nextCheck = now + interval;
  for (auto& [id, rule] : rules) {
    const std::optional<FileStatus> status = system.Look(rule.path);
    if (!(status == rule.status)) {
      rule.status = status;
      Attach(id, rule, now);
      rule.settling.Add(Report::Settled, now);
    }
  }
}

milliseconds WatchTable::CheckInterval() const {
  if (!AnyPolled()) {
    return identityInterval;
  }
  return identityInterval == milliseconds::zero() ? pollInterval : std::min(identityInterval, pollInterval);
}

bool WatchTable::AnyPolled() const {
  return std::any_of(rules.begin(), rules.end(), [](const auto& entry) { return entry.second.polled; });
}

std::optional<WatchTable::Time> WatchTable::NextDue() const {
  std::optional<Time> next = startOver;
  const auto consider = [&next](Time time) { next = next ? std::min(*next, time) : time; };
  for (const auto& [id, rule] : rules) {
    if (rule.settling.Due()) {
      consider(*rule.settling.Due());
    }
  }
  if (!rules.empty() && CheckInterval() > milliseconds::zero()) {
    consider(nextCheck);
  }
  return next;
}

void WatchTable::Attach(unsigned id, Rule& rule, Time now) {
  std::vector<std::pair<int, Use>> attached;
  int folderWatch = -1;
  int refusal = system.OpenError();
  for (const WatchedPlace& place : refusal == 0 ? PlacesOf(rule.path) : std::vector<WatchedPlace>()) {
    const int watch = system.Add(place.path, EventsOf(place.role));
    if (watch >= 0) {
      attached.push_back({watch, {id, place.role, place.name}});
      folderWatch = place.role == WatchRole::Directory ? watch : folderWatch;
    } else if (!IsAbsence(-watch)) {
      refusal = -watch;
    }
  }
  Uses fresh;
  for (const auto& [watch, ofWatch] : uses) {
    std::vector<Use> ofOthers = ofWatch;
    DropUsesOf(id, ofOthers);
    if (!ofOthers.empty()) {
      fresh[watch] = std::move(ofOthers);
    }
  }
  for (auto& [watch, use] : attached) {
    fresh[watch].push_back(std::move(use));
  }
  TakeUses(std::move(fresh));
  if (folderWatch >= 0 && folderWatch != rule.folderWatch) {
    // What came into the folder before it was watched may be complete: no event will say so.
    rule.settling.Add(Report::Now, now);
  }
  rule.folderWatch = folderWatch;
  rule.polled = refusal != 0;
  if (rule.polled) {
    nextCheck = std::min(nextCheck, now + CheckInterval());  // it may have been far off
  }
  if (rule.polled && !pollingSaid) {
    pollingSaid = true;
    nextRetry = now + retryInterval;
    system.Tell(LogLevel::Warning, std::string("file monitor: inotify refused a watch (") +
                                       std::strerror(refusal) + "): " + rule.path + " is polled every " +
                                       std::to_string(CheckInterval().count()) +
                                       " ms until it is available again");
  } else if (pollingSaid && !AnyPolled()) {
    pollingSaid = false;
    system.Tell(LogLevel::Info, "file monitor: inotify is available again; polling ends");
  }
}

// An entry of the folder changed: only the file behind it may be another one. It lies on the way from every
// replaced file to its alert, so it asks the system for no more than that.
void WatchTable::AttachFile(unsigned id, Rule& rule, std::optional<int>& fileWatch, Time now) {
  if (!fileWatch && !rule.polled) {
    fileWatch = system.Add(rule.path, EventsOf(WatchRole::File));
  }
  if (rule.polled || *fileWatch < 0) {
    Attach(id, rule, now);
    return;
  }
  const int watch = *fileWatch;
  const auto isUse = [id](const Use& use) { return use.rule == id && use.role == WatchRole::File; };
  std::vector<Use>& fresh = uses[watch];
  if (std::any_of(fresh.begin(), fresh.end(), isUse)) {
    return;
  }
  fresh.push_back({id, WatchRole::File, ""});
  for (auto entry = uses.begin(); entry != uses.end();) {
    std::vector<Use>& ofWatch = entry->second;
    if (entry->first != watch) {
      ofWatch.erase(std::remove_if(ofWatch.begin(), ofWatch.end(), isUse), ofWatch.end());
    }
    if (ofWatch.empty()) {
      system.Remove(entry->first);
      entry = uses.erase(entry);
    } else {
      ++entry;
    }
  }
}

void WatchTable::DropUsesOf(unsigned rule, std::vector<Use>& ofWatch) {
  ofWatch.erase(
      std::remove_if(ofWatch.begin(), ofWatch.end(), [rule](const Use& use) { return use.rule == rule; }),
      ofWatch.end());
}

// Withdraws the watches that nobody uses any more. Those that are used before and after stay untouched, so an
// inode is never without its watch in between.
void WatchTable::TakeUses(Uses fresh) {
  for (const auto& entry : uses) {
    if (fresh.count(entry.first) == 0) {
      system.Remove(entry.first);
    }
  }
  uses = std::move(fresh);
}

std::optional<WatchTable::Due> WatchTable::Begin(Time now) {
  const auto found = std::find_if(rules.rbegin(), rules.rend(), [now](const auto& entry) {
    return entry.second.settling.Due() && *entry.second.settling.Due() <= now;
  });
  if (found == rules.rend()) {
    return std::nullopt;
  }
  Rule& rule = found->second;
  Due due = {found->first, rule.path, rule.callback};
  rule.settling.Clear();
  rule.status = system.Look(rule.path);  // before the callback: what changes after this will be seen
  return due;
}

void WatchTable::Retry(unsigned id, Time now) {
  const auto found = rules.find(id);
  if (found != rules.end()) {
    found->second.settling.Retry(now);
  }
}
