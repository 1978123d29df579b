#include "tests/system/agent_process.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/support/event_record.h"
#include "tests/support/event_time.h"

namespace {

class Pipe {
 public:
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
  }
  ~Pipe() {
    close(ends[1]);
    if (ends[0] >= 0) {
      close(ends[0]);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int TakeReader() { return std::exchange(ends[0], -1); }
  int Writer() const { return ends[1]; }

 private:
  std::array<int, 2> ends{};
};

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Ours comes first, so it wins.
std::vector<std::string> EnvironmentWith(std::vector<std::string> variables) {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    variables.emplace_back(*variable);
  }
  return variables;
}

}  // namespace

std::string RootLine(const std::string& name) { return name + ":x:0:0::/nowhere:/bin/sh"; }

std::string AlertFor(const std::string& name) {
  return R"({"eventType":"unauthorized-root-user","eventTime":"TIME","eventContent":{"userName":")" + name +
         R"(","uid":0,"gid":0,"shell":"/bin/sh","home":"/nowhere","type":"illegal"}})";
}

std::string UnreadableFor(const std::string& reason) {
  return R"({"eventType":"account-file-unreadable","eventTime":"TIME","eventContent":{"path":"/etc/passwd","reason":")" +
         reason + R"("}})";
}

std::string WithoutTime(const std::string& alert) {
  RecordEvent(alert);
  return WithoutTimes(alert);
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

std::vector<std::string> AlertsIn(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(WithoutTime(line));
  }
  return lines;
}

AgentProcess::AgentProcess(const std::vector<std::string>& arguments, const Circumstances& circumstances) {
  std::vector<std::string> words = circumstances.launcher;
  std::istringstream emulator(VELTA_EMULATOR);
  for (std::string word; emulator >> word;) {
    words.push_back(word);
  }
  words.push_back(circumstances.program);
  words.insert(words.end(), arguments.begin(), arguments.end());
  const std::vector<char*> argv = Pointers(words);
  std::vector<std::string> variables = EnvironmentWith(circumstances.environment);
  const std::vector<char*> environment = Pointers(variables);

  Pipe output;
  Pipe errors;
  Pipe presence;  // nobody writes to it: it ends when the process does
  process = fork();
  if (process == 0) {
    Become(argv, environment, {open("/dev/null", O_RDONLY | O_CLOEXEC), output.Writer(), errors.Writer()},
           presence.Writer(), circumstances);
  }
  if (process < 0) {
    throw std::runtime_error(std::string("no process for the agent: ") + std::strerror(errno));
  }
  alerts.emplace(output.TakeReader());
  log.emplace(errors.TakeReader());
  life.emplace(presence.TakeReader());
}

AgentProcess::~AgentProcess() {
  if (process > 0) {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
  }
}

// In the child, so nothing but system calls.
void AgentProcess::Become(const std::vector<char*>& argv, const std::vector<char*>& environment,
                          const std::array<int, 3>& streams, int presence,
                          const Circumstances& circumstances) {
  bool ready = fcntl(presence, F_SETFD, 0) == 0;
  for (int stream = 0; stream < 3; ++stream) {
    ready = ready && dup2(streams[static_cast<std::size_t>(stream)], stream) == stream;
  }
  ready = ready && (circumstances.prepare == nullptr || circumstances.prepare());
  if (circumstances.ordinaryUser) {
    constexpr id_t nobody = 65534;
    ready = ready && setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0;
  }
  for (const int descriptor : circumstances.closed) {
    close(descriptor);
  }
  if (ready) {
    execve(argv[0], argv.data(), environment.data());
  }
  _exit(127);
}

std::vector<std::string> AgentProcess::NextAlerts(std::size_t count) {
  std::vector<std::string> lines = alerts->Next(count, patience);
  for (std::string& line : lines) {
    line = WithoutTime(line);
  }
  return lines;
}

std::string AgentProcess::LogUntil(const std::string& text) {
  std::string records;
  for (const std::string& record : log->NextUntil(text, patience)) {
    records += record + "\n";
  }
  return records;
}

int AgentProcess::ExitCode() {
  if (!life->Rest(patience).empty()) {
    return -1;
  }
  int status = 0;
  waitpid(std::exchange(process, -1), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Outcome RunToTheEnd(const std::vector<std::string>& arguments, const Circumstances& circumstances) {
  AgentProcess agent(arguments, circumstances);
  Outcome outcome;
  outcome.output = agent.RestOfAlerts();
  outcome.errors = agent.RestOfLog();
  outcome.exitCode = agent.ExitCode();
  return outcome;
}
