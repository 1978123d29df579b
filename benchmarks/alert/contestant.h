#ifndef VELTA_BENCH_ALERT_CONTESTANT_H
#define VELTA_BENCH_ALERT_CONTESTANT_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// One way of being told of a root account: a command whose standard output has a line about each change.
struct Contestant {
  std::string name;
  std::vector<std::string> command;
  // A service that gives its standard output away writes to a FIFO, whose path is this.
  std::string fifo;
  bool startsProcesses =
      false;  // for each change: they have ended by the time that anybody could look at them
  // What its line about the change just made is known by; without, that is the account's name.
  std::function<std::string()> mark = nullptr;
  std::chrono::milliseconds patience{5000};  // what takes longer is missed
  // Before each change there is a rest of random length up to this: a change right behind the answer to the
  // one before would always find somebody who looks at intervals at the same point of one.
  std::chrono::milliseconds rest{0};
};

// A signal asked for the end. No std::exception: who is left out when something fails goes on, this does not.
struct Interrupted {
  int signal;
};

// From now on SIGHUP, SIGINT and SIGTERM, unless they are ignored, end the wait for a contestant, or the next
// one, with Interrupted, so that whatever has been started is ended.
void EndWaitsOnSignals();

struct Memory {
  std::uint64_t privateKib = 0;  // what would be free without it
  std::uint64_t pssKib = 0;      // with its share of what several processes map
};

// A contestant at work: its process, all that this has started, and what it writes.
//
// The process gets a session of its own; destruction ends every process of it.
//
// Thread use: one thread at a time, the one whose mount namespace the process is to see.
class RunningContestant {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit RunningContestant(const Contestant& started);
  ~RunningContestant();
  RunningContestant(const RunningContestant&) = delete;
  RunningContestant& operator=(const RunningContestant&) = delete;

  // When a line with the text has been read; nothing when the limit passes. Other lines are passed over.
  // Throws std::runtime_error when the contestant has ended, Interrupted when this program is to end.
  std::optional<Time> AwaitLine(const std::string& text, std::chrono::milliseconds limit);

  const Contestant& Who() const { return contestant; }

  // Takes what is there without waiting, for a contestant that must not be held up by a full pipe.
  void TakeLines() { Read(0); }

  // Processor time so far of all its processes that still run.
  std::chrono::nanoseconds CpuTime() const;

  // Ends it, and returns the processor time of its processes that had ended before.
  std::chrono::nanoseconds End();

  Memory MemoryInUse() const;

 private:
  bool Read(int timeoutMs);
  std::vector<pid_t> Processes() const;

  Contestant contestant;
  pid_t process = -1;
  int output = -1;
  std::string pending;
};

#endif  // VELTA_BENCH_ALERT_CONTESTANT_H
