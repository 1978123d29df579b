#include "benchmarks/alert/contestant.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

constexpr int cannotStart = 127;
constexpr std::size_t longestPending = 65536;  // a line is far shorter

volatile std::sig_atomic_t askedToEnd = 0;  // by which signal

void Require(bool done, const std::string& step) {
  if (!done) {
    throw std::runtime_error(step + ": " + std::strerror(errno));
  }
}

[[noreturn]] void Become(const std::vector<char*>& arguments, int output) {
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  setsid();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (dup2(nothing, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
      dup2(nothing, STDERR_FILENO) >= 0) {
    execvp(arguments[0], arguments.data());
  }
  _exit(cannotStart);
}

// What "/proc/PID/stat" says behind the command's name, which may contain anything: from the state on.
std::vector<std::string> StatOf(const std::string& folder) {
  std::ifstream file(folder + "/stat");
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  const std::size_t end = text.rfind(')');
  std::istringstream rest(end == std::string::npos ? "" : text.substr(end + 1));
  return {std::istream_iterator<std::string>(rest), std::istream_iterator<std::string>()};
}

constexpr std::size_t parentPlace = 1;

nanoseconds TimeOf(const timeval& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

void EndWaitsOnSignals() {
  struct sigaction action = {};  // without SA_RESTART: the wait that it meets ends
  action.sa_handler = [](int number) { askedToEnd = number; };
  for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
    struct sigaction before = {};
    if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
      sigaction(number, &action, nullptr);
    }
  }
}

RunningContestant::RunningContestant(const Contestant& started) : contestant(started) {
  std::array<int, 2> ends = {-1, -1};
  if (contestant.fifo.empty()) {
    Require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
  } else {
    unlink(contestant.fifo.c_str());
    Require(mkfifo(contestant.fifo.c_str(), 0600) == 0, contestant.fifo);
    ends[0] = open(contestant.fifo.c_str(), O_RDWR | O_CLOEXEC);  // never at its end, whoever comes and goes
    ends[1] = open("/dev/null", O_WRONLY | O_CLOEXEC);
    Require(ends[0] >= 0 && ends[1] >= 0, contestant.fifo);
  }
  Require(prctl(PR_SET_CHILD_SUBREAPER, 1) == 0, "adopting what a contestant leaves behind");
  output = ends[0];
  fcntl(output, F_SETFL, O_NONBLOCK);
  std::vector<char*> arguments;
  for (const std::string& word : contestant.command) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  process = fork();
  if (process == 0) {
    Become(arguments, ends[1]);
  }
  close(ends[1]);
  if (process < 0) {
    close(output);
    Require(false, "fork");
  }
}

RunningContestant::~RunningContestant() { End(); }

nanoseconds RunningContestant::End() {
  if (process < 0) {
    return nanoseconds(0);
  }
  const nanoseconds running = CpuTime();
  nanoseconds all(0);
  // Children behind their parents: what a dead parent leaves behind has been adopted by this process.
  for (const pid_t each : Processes()) {
    rusage used = {};
    kill(each, SIGKILL);
    pid_t ended = 0;
    while ((ended = wait4(each, nullptr, 0, &used)) < 0 && errno == EINTR) {
    }
    if (ended == each) {
      all += TimeOf(used.ru_utime) + TimeOf(used.ru_stime);
    }
  }
  process = -1;
  close(output);
  return std::max(all - running, nanoseconds(0));
}

std::optional<RunningContestant::Time> RunningContestant::AwaitLine(const std::string& text,
                                                                    milliseconds limit) {
  const Time deadline = Time::clock::now() + limit;
  for (;;) {
    const std::size_t found = pending.find(text);
    if (found != std::string::npos && pending.find('\n', found) != std::string::npos) {
      const Time now = Time::clock::now();
      pending.erase(0, pending.find('\n', found) + 1);
      return now;
    }
    const auto left = std::chrono::ceil<milliseconds>(deadline - Time::clock::now());
    if (left.count() <= 0) {
      return std::nullopt;
    }
    Read(static_cast<int>(left.count()));
  }
}

bool RunningContestant::Read(int timeoutMs) {
  pollfd readable = {output, POLLIN, 0};
  const int ready = poll(&readable, 1, timeoutMs);
  if (askedToEnd != 0) {
    throw Interrupted{askedToEnd};
  }
  if (ready <= 0) {
    return false;
  }
  std::array<char, 65536> part;
  const ssize_t size = read(output, part.data(), part.size());
  if (size <= 0) {
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
      return false;
    }
    throw std::runtime_error(contestant.name + " has ended");
  }
  pending.append(part.data(), static_cast<std::size_t>(size));
  if (pending.size() > longestPending) {
    pending.erase(0, pending.rfind('\n', pending.size() - longestPending / 2) + 1);
  }
  return true;
}

// Children come behind their parents.
std::vector<pid_t> RunningContestant::Processes() const {
  std::vector<std::pair<pid_t, pid_t>> parents;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string number = entry.path().filename();
    if (IsNumber(number)) {
      const std::vector<std::string> stat = StatOf(entry.path());
      if (stat.size() > parentPlace) {
        parents.emplace_back(static_cast<pid_t>(std::stol(number)),
                             static_cast<pid_t>(std::stol(stat[parentPlace])));
      }
    }
  }
  std::vector<pid_t> found = {process};
  for (std::size_t i = 0; i < found.size(); ++i) {
    for (const auto& [child, parent] : parents) {
      if (parent == found[i]) {
        found.push_back(child);
      }
    }
  }
  return found;
}

nanoseconds RunningContestant::CpuTime() const {
  nanoseconds sum(0);
  for (const pid_t each : Processes()) {
    clockid_t clock = 0;
    timespec used = {};
    if (clock_getcpuclockid(each, &clock) == 0 && clock_gettime(clock, &used) == 0) {
      sum += std::chrono::seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
    }
  }
  return sum;
}

Memory RunningContestant::MemoryInUse() const {
  Memory memory;
  for (const pid_t each : Processes()) {
    std::ifstream file("/proc/" + std::to_string(each) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
      std::istringstream words(line);
      std::string key;
      std::uint64_t kib = 0;
      if (!(words >> key >> kib)) {
        continue;
      }
      if (key == "Pss:") {
        memory.pssKib += kib;
      } else if (key == "Private_Clean:" || key == "Private_Dirty:") {
        memory.privateKib += kib;
      }
    }
  }
  return memory;
}
