#ifndef VELTA_TESTS_SOAK_HISTORY_H
#define VELTA_TESTS_SOAK_HISTORY_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What a torture run knows about the account file and about the alerts, and whether the two agree. Pure:
// times come in with the events.

using SoakTime = std::chrono::steady_clock::time_point;

struct RootAccount {
  std::string name;
  std::int64_t uid = 0;
  std::int64_t gid = 0;
  std::string home;
  std::string shell;

  bool operator==(const RootAccount& other) const {
    return name == other.name && uid == other.uid && gid == other.gid && home == other.home &&
           shell == other.shell;
  }
};

// What a reading finds.
enum class Sight {
  Whole,       // the content that somebody meant it to have
  Begun,       // its beginning, while it is being written anew
  Empty,       // nothing yet, right before that
  Unreadable,  // no such file; the agent keeps what it knows
};

using RootAccounts = std::map<std::string, RootAccount>;

// Every account with user ID 0 that is not named root; the first of a name counts.
RootAccounts RootAccountsIn(const std::string& content);

// A state of the file that a reading could see until the next one took its place.
struct VisibleState {
  SoakTime earliest;  // perhaps seen from here on
  SoakTime latest;    // certainly seen from here on
  Sight sight;
  RootAccounts roots;
  std::string cause;
  std::uint64_t inode = 0;             // two states with the same one are of one file; 0 for none
  std::optional<std::string> content;  // of late states that can be read
};

struct SoakAlert {
  SoakTime at;
  RootAccount account;
};

struct Delay {  // while it lasts, nothing is asked of the agent: stopped, starting, its output blocked
  SoakTime from;
  SoakTime to;
};

// One life of the agent or a part of it, between moments at which what the agent knows is certain.
struct Segment {
  bool firstOfLife = true;  // otherwise the first state has been read, and its alerts have arrived
  std::vector<VisibleState> states;
  std::vector<SoakAlert> alerts;
  std::vector<Delay> delays;
  SoakTime end;
  bool lastWasRead = false;  // an alert of the last state has arrived that comes after all others

  // The contents of the oldest states go when there are more than this.
  static constexpr std::size_t contentsKept = 2000;
  void Add(VisibleState state);
};

struct Finding {
  enum class Kind { Missing, Invented, Repeated };
  Kind kind;
  std::string name;
  std::string text;  // the account's history around it, times in milliseconds from the origin
};

struct Verdict {
  std::vector<Finding> findings;
  // Alerts that nothing explains but the reading of a file that was being written anew: with a part of it
  // there, or with nothing.
  std::size_t repeatsAfterBegun = 0;
  std::size_t repeatsAfterEmpty = 0;
  // Alerts for what no content held, but the beginning of one with the end of a later one of the same file.
  std::size_t alertsOfMixtures = 0;
};

// An account that stands for as long as the bound, delays not counted, has to be alerted within it, unless
// the agent knew of it. Where only shorter stays are left, any number of readings between none and all of
// them is right, and the alerts have to be those of one such choice.
//
// A reading that is held up in its middle while the file is written anew in place goes on in the new content
// at the length of the old one. The account that comes of the line at the cut may be alerted once.
Verdict Judge(const Segment& segment, std::chrono::milliseconds bound, SoakTime origin);

// Whether a reading that is over by then may have found the end of the last state behind the whole of an
// older one: what is at the end of the last state is then no proof that its beginning has been read.
bool LastMayBeMixed(const Segment& segment, std::chrono::milliseconds bound, SoakTime by);

// The last states of the file and the last alerts, of all accounts, as one text.
std::string Described(const Segment& segment, SoakTime origin);

// From one moment to another, delays not counted; zero when the other is earlier.
std::chrono::nanoseconds Undelayed(SoakTime from, SoakTime to, const std::vector<Delay>& delays);

#endif  // VELTA_TESTS_SOAK_HISTORY_H
