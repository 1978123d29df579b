#ifndef VELTA_AGENT_FILE_EVENT_H
#define VELTA_AGENT_FILE_EVENT_H

#include <chrono>
#include <cstdint>
#include <optional>

// What a change means: the file monitor's decisions, apart from its system calls.

// What a watched inode is to a rule.
enum class WatchRole {
  File,       // the watched file itself
  Directory,  // the folder that holds it; only events of the file's name, or of the folder itself, count
  Ancestor,   // a folder above that one; only to know when to attach again
};

enum class Report {
  None,
  Settled,  // after a short quiet: the change may be the first half of one, such as a truncation before a
            // write
  Now,      // the change is complete
};

struct Reaction {
  bool attach;  // the path may lead to another inode now: watch it again before reporting
  Report report;

  bool operator==(const Reaction& other) const { return attach == other.attach && report == other.report; }
};

// Which events a watch in this role subscribes to. Never to opens, reads or closes without a write: any user
// can make those, and enough of them overflow the kernel's queue and hide the real change.
std::uint32_t EventsOf(WatchRole role);

// What one inotify event asks for. An event may carry several bits; the strongest of each answer counts.
Reaction ReactionTo(WatchRole role, std::uint32_t mask);

// When one rule is to be reported. Delays a report, never drops one.
//
// Settled changes are reported after `quiet` without another, and at most `longest` after the first.
class Settling {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds quiet{100};
  static constexpr std::chrono::milliseconds longest{1000};

  void Add(Report report, Time now);

  // A report did not get through: once more after `longest`, or with the next change.
  void Retry(Time now);

  // When to report; nothing when there is nothing to report.
  std::optional<Time> Due() const { return due; }

  // Everything so far is being reported.
  void Clear();

 private:
  std::optional<Time> first;  // the first change that has not been reported
  std::optional<Time> due;
};

#endif  // VELTA_AGENT_FILE_EVENT_H
