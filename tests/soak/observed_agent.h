#ifndef VELTA_TESTS_SOAK_OBSERVED_AGENT_H
#define VELTA_TESTS_SOAK_OBSERVED_AGENT_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/soak/history.h"

// One life of the real agent. A thread of its own takes its alerts and its log as they come, so that neither
// ever waits for the driver, and notes when each alert arrived.
//
// Thread use: one thread at a time, beside the one inside. Construction throws std::runtime_error when no
// process can be made. However this object or its process ends, the agent is killed and waited for.
class ObservedAgent {
 public:
  // The command is the agent, an emulator before it, and its arguments; outputFile is what --output names
  // there, in a folder that stands, or empty for standard output.
  ObservedAgent(const std::vector<std::string>& command, std::string outputFile);
  ~ObservedAgent();
  ObservedAgent(const ObservedAgent&) = delete;
  ObservedAgent& operator=(const ObservedAgent&) = delete;

  void Send(int signal) const;

  // False when the limit passes first, or the agent has ended.
  bool WaitUntilWatching(std::chrono::milliseconds limit);
  bool WaitForAlert(const std::string& name, SoakTime since, std::chrono::milliseconds limit);

  // Standard output alone: nobody takes what the agent writes, so that it soon fills the pipe.
  void StopTaking();
  void TakeAgain();

  // The end: of its own will after SIGTERM (false when it had to be killed, or ended with another code than
  // 0), or at once. Everything that it wrote has been taken when these return.
  bool Terminate(std::chrono::milliseconds limit);
  void Kill();

  bool HasEnded();
  std::vector<SoakAlert> TakeAlerts();    // those since the last call
  std::vector<std::string> TakeFaults();  // lines that are no alert in one whole record
  std::string LogTail();

 private:
  void Start(const std::vector<std::string>& command, int output, int errors);
  void Observe();
  void TakeOutputFile(bool last);
  void TakeLine(const std::string& line);
  void TakeLogLine(const std::string& line);
  void TakeLines(std::string& pending, void (ObservedAgent::*take)(const std::string&));
  bool TakeFrom(int descriptor, std::string& pending);  // false at its end
  void Finish();                                        // the process is dead: takes the rest
  void Wake() const;

  const std::string outputFile;
  pid_t process = -1;
  int alertsEnd = -1;
  int logEnd = -1;
  int fileEvents = -1;
  int wake = -1;
  std::string pendingAlerts;
  std::string pendingLog;
  bool orderly = false;    // set before the thread's last round
  std::size_t offset = 0;  // of the first byte of the output file that has not been taken

  std::mutex mutex;  // guards everything below it but the thread
  std::condition_variable changed;
  std::vector<SoakAlert> alerts;
  std::vector<SoakAlert> allAlerts;
  std::vector<std::string> faults;
  std::deque<std::string> log;
  bool watching = false;
  bool taking = true;
  bool ended = false;   // both ends of the pipes
  bool finish = false;  // the process is dead, whether or not its pipes have ended
  std::thread thread;
};

#endif  // VELTA_TESTS_SOAK_OBSERVED_AGENT_H
