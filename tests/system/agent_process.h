#ifndef VELTA_TESTS_SYSTEM_AGENT_PROCESS_H
#define VELTA_TESTS_SYSTEM_AGENT_PROCESS_H

#include <signal.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/line_reader.h"

// Only a broken build ever reaches it.
constexpr std::chrono::seconds patience(sizeof(VELTA_EMULATOR) > 1 ? 60 : 20);
// The timer's first run, after ten seconds, must not count as an answer.
constexpr std::chrono::seconds soon(8);

// A line of "/etc/passwd" that makes the name a root account.
std::string RootLine(const std::string& name);

// The alert about such a line, in the form that WithoutTime gives it.
std::string AlertFor(const std::string& name);

// The event about a file that is not read, in the same form.
std::string UnreadableFor(const std::string& reason);

std::string WithoutTime(const std::string& alert);

// Taken apart at the newlines, each without its time.
std::vector<std::string> AlertsIn(const std::string& text);

// How often the part is in the text.
std::size_t Count(const std::string& text, const std::string& part);

// What an agent process finds when it begins.
struct Circumstances {
  std::string program = VELTA_AGENT_FILE;
  std::vector<std::string> launcher;  // the words of a program that prepares something and becomes the agent
  std::vector<std::string> environment;  // "NAME=value", on top of the test's own
  std::vector<int> closed;               // descriptors that it starts without
  bool ordinaryUser = false;
  bool (*prepare)() =
      nullptr;  // called in the child before everything else: system calls alone; false: no start
};

// The real agent as a process of its own; ended, whatever it does, with this object.
//
// Thread use: one thread at a time.
class AgentProcess {
 public:
  explicit AgentProcess(const std::vector<std::string>& arguments, const Circumstances& circumstances = {});
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  pid_t Process() const { return process; }
  void Send(int signal) const { kill(process, signal); }

  // Without its time.
  std::string NextAlert(std::chrono::milliseconds limit = patience) {
    return WithoutTime(alerts->Next(limit));
  }
  std::vector<std::string> NextAlerts(std::size_t count);

  // The log up to the record that contains the text; a log without it ends in brackets.
  std::string LogUntil(const std::string& text);

  // What is still to come, up to the end of the process.
  std::string RestOfAlerts() { return alerts->Rest(patience); }
  std::string RestOfLog() { return log->Rest(patience); }

  // Waits for the end. 128 and its number for a signal, -1 when it does not end.
  int ExitCode();

 private:
  [[noreturn]] static void Become(const std::vector<char*>& argv, const std::vector<char*>& environment,
                                  const std::array<int, 3>& streams, int presence,
                                  const Circumstances& circumstances);

  pid_t process = -1;
  std::optional<LineReader> alerts;
  std::optional<LineReader> log;
  std::optional<LineReader> life;
};

struct Outcome {
  int exitCode;
  std::string output;
  std::string errors;
};

// For what ends by itself.
Outcome RunToTheEnd(const std::vector<std::string>& arguments, const Circumstances& circumstances = {});

#endif  // VELTA_TESTS_SYSTEM_AGENT_PROCESS_H
