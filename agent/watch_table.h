#ifndef VELTA_AGENT_WATCH_TABLE_H
#define VELTA_AGENT_WATCH_TABLE_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/file_event.h"
#include "agent/file_status.h"
#include "agent/inotify.h"
#include "agent/logger.h"
#include "host/file_monitor.h"

// What a watch table asks of the system.
class WatchedSystem {
 public:
  virtual ~WatchedSystem() = default;

  // Begins without any watch, and without the events that wait. False when that was refused.
  virtual bool Open() = 0;
  virtual int OpenError() const = 0;  // why it was refused; 0 while it is open

  // The watch number, the same one for the same inode, or the negative error number. A second mask is added.
  virtual int Add(const std::string& path, std::uint32_t mask) = 0;
  virtual void Remove(int watch) = 0;

  // Nothing when there is no such file.
  virtual std::optional<FileStatus> Look(const std::string& path) = 0;

  virtual void Tell(LogLevel level, const std::string& text) = 0;
};

// The rules of a file monitor: which watches each of them holds, and when it is to be reported. Time and
// system are given to it, so that what it decides can be tried without either.
//
// A rule holds up to three kinds of watches (the file, its folder, the folders above). Where one of them is
// refused, the rule is polled instead, the log says so once, and the watch is asked for again later.
//
// Memory that fails may leave an operation half done; StartOver repairs whatever was left.
//
// Thread use: none of its own; its owner locks.
class WatchTable {
 public:
  using Time = Settling::Time;

  // How often a rule that has no watches is looked at when no interval is set.
  static constexpr std::chrono::milliseconds pollInterval{1000};
  // How long to wait before watches that were refused are asked for again.
  static constexpr std::chrono::milliseconds retryInterval{30000};

  // The system has been opened, or refused it. checkInterval: how often the file behind each path is compared
  // with what it was; 0 turns that off.
  WatchTable(WatchedSystem& watchedSystem, std::chrono::milliseconds checkInterval, Time now);

  // The rule's handle; 0 for a rule without a path or a callback.
  unsigned Add(const FileWatchRule& rule, Time now);

  // Gives back the rule's callback, which is thereby the caller's to drop. Null for an unknown id. Never
  // throws.
  std::shared_ptr<FileWatchCallback> Remove(unsigned id);

  void Handle(const InotifyEvent& event, Time now);

  // At the given time everything is watched anew and reported: for whatever leaves it open what was missed.
  void StartOver(Time when);

  // The watches are lost, and so may be events.
  void Reopen(Time now);

  // Does whatever is due but reporting: looks at files, asks for watches again.
  void Advance(Time now);

  struct Due {
    unsigned id;
    std::string path;
    std::shared_ptr<FileWatchCallback> callback;
  };

  // A rule that is due to be reported, which counts as done; nothing when none is. The newest one first: the
  // module's is renewed at each start of it, and comes before what the agent watches for itself.
  std::optional<Due> Begin(Time now);

  // The report did not get through: it is due again, after a while.
  void Retry(unsigned id, Time now);

  // When there will be something to do; nothing when that is up to the next event.
  std::optional<Time> NextDue() const;

  std::size_t Watches() const { return uses.size(); }
  bool Polls() const { return AnyPolled(); }

 private:
  struct Rule {
    std::string path;
    std::shared_ptr<FileWatchCallback> callback;
    Settling settling;
    // Before the last report, or when the rule was added; nothing: no such file.
    std::optional<FileStatus> status;
    int folderWatch = -1;
    bool polled = false;
  };

  // What one watch is to one rule.
  struct Use {
    unsigned rule;
    WatchRole role;
    std::string name;  // the entry of a folder that counts
  };

  using Uses = std::map<int, std::vector<Use>>;  // by watch number

  static void DropUsesOf(unsigned rule, std::vector<Use>& ofWatch);

  void Attach(unsigned id, Rule& rule, Time now);
  void AttachFile(unsigned id, Rule& rule, std::optional<int>& fileWatch, Time now);
  void AttachAll(Time now);
  void ReportAll(Time now, Report report);
  void CheckIdentities(Time now);
  void RetryWatches(Time now);
  void TakeUses(Uses fresh);
  bool AnyPolled() const;
  std::chrono::milliseconds CheckInterval() const;

  WatchedSystem& system;
  const std::chrono::milliseconds identityInterval;

  std::map<unsigned, Rule> rules;
  Uses uses;
  std::optional<Time> startOver;
  unsigned lastId = 0;
  unsigned overflows = 0;
  Time nextCheck;
  Time nextRetry;
  bool pollingSaid = false;
};

#endif  // VELTA_AGENT_WATCH_TABLE_H
