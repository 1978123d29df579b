#include "tests/soak/observed_agent.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "tests/support/event_record.h"

using std::chrono::milliseconds;

namespace {

constexpr std::size_t logLinesKept = 60;
constexpr std::size_t pieceSize = 65536;

bool IsTime(std::string text) {
  for (char& letter : text) {
    letter = letter >= '0' && letter <= '9' ? '9' : letter;
  }
  return text == "9999-99-99 99:99:99";
}

// Half a line of a file that is being written may look like an account that only the cross-check reads, and
// some changes leave no file for longer than a second. Such events are right, and not what is judged here.
bool IsFinding(const std::string& line) {
  const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
  const std::string type = event.is_object() ? event.value("eventType", "") : "";
  return type == "uncovered-root-account" || type == "account-file-unreadable";
}

// The record's own form, byte for byte apart from its values: every member once, and no other.
std::optional<RootAccount> AccountIn(const std::string& line) {
  const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
  if (!event.is_object() || event.size() != 3 || event.value("eventType", "") != "unauthorized-root-user" ||
      !IsTime(event.value("eventTime", "")) || !event.contains("eventContent")) {
    return std::nullopt;
  }
  const nlohmann::json& content = event["eventContent"];
  if (!content.is_object() || content.size() != 6 || content.value("type", "") != "illegal" ||
      !content.contains("uid") || !content["uid"].is_number_integer() || !content.contains("gid") ||
      !content["gid"].is_number_integer()) {
    return std::nullopt;
  }
  for (const char* const member : {"userName", "home", "shell"}) {
    if (!content.contains(member) || !content[member].is_string()) {
      return std::nullopt;
    }
  }
  return RootAccount{content["userName"], content["uid"], content["gid"], content["home"], content["shell"]};
}

void CloseAll(std::initializer_list<int> descriptors) {
  for (const int descriptor : descriptors) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

}  // namespace

ObservedAgent::ObservedAgent(const std::vector<std::string>& command, std::string outputPath)
    : outputFile(std::move(outputPath)) {
  std::array<int, 2> output = {-1, -1};
  std::array<int, 2> errors = {-1, -1};
  wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  bool ready = wake >= 0 && pipe2(output.data(), O_CLOEXEC) == 0 && pipe2(errors.data(), O_CLOEXEC) == 0;
  if (ready && outputFile.empty()) {
    fcntl(output[1], F_SETPIPE_SZ, 4096);  // as small as can be; where it cannot, more alerts fill it
  } else if (ready) {
    fileEvents = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    const std::string folder = outputFile.substr(0, outputFile.rfind('/'));
    ready = inotify_add_watch(fileEvents, folder.c_str(), IN_MODIFY | IN_CREATE) >= 0;
  }
  alertsEnd = output[0];
  logEnd = errors[0];
  if (ready) {
    fcntl(alertsEnd, F_SETFL, O_NONBLOCK);
    fcntl(logEnd, F_SETFL, O_NONBLOCK);
    Start(command, output[1], errors[1]);
  }
  CloseAll({output[1], errors[1]});
  if (process <= 0) {
    CloseAll({alertsEnd, logEnd, fileEvents, wake});
    throw std::runtime_error("the agent cannot be started");
  }
  thread = std::thread([this] { Observe(); });
}

ObservedAgent::~ObservedAgent() {
  Kill();
  CloseAll({alertsEnd, logEnd, fileEvents, wake});
}

void ObservedAgent::Start(const std::vector<std::string>& command, int output, int errors) {
  std::vector<std::string> words = command;
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  process = fork();
  if (process != 0) {
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (getppid() == parent && dup2(nothing, 0) == 0 && dup2(output, 1) == 1 && dup2(errors, 2) == 2) {
    execv(arguments[0], arguments.data());
  }
  _exit(127);
}

void ObservedAgent::Send(int signal) const {
  if (process > 0) {
    kill(process, signal);
  }
}

bool ObservedAgent::WaitUntilWatching(milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait_for(lock, limit, [this] { return watching || ended; });
  return watching;
}

bool ObservedAgent::WaitForAlert(const std::string& name, SoakTime since, milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  const auto arrived = [&] {
    return std::any_of(allAlerts.rbegin(), allAlerts.rend(), [&](const SoakAlert& alert) {
      return alert.at >= since && alert.account.name == name;
    });
  };
  changed.wait_for(lock, limit, [&] { return arrived() || ended; });
  return arrived();
}

void ObservedAgent::StopTaking() {
  std::lock_guard<std::mutex> lock(mutex);
  taking = false;
}

void ObservedAgent::TakeAgain() {
  {
    std::lock_guard<std::mutex> lock(mutex);
    taking = true;
  }
  Wake();
}

bool ObservedAgent::Terminate(milliseconds limit) {
  Send(SIGTERM);
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, limit, [this] { return ended; });
    if (!ended) {
      kill(process, SIGKILL);
    }
  }
  int status = 0;
  waitpid(std::exchange(process, -1), &status, 0);
  orderly = WIFEXITED(status);
  Finish();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void ObservedAgent::Kill() {
  if (process > 0) {
    kill(process, SIGKILL);
    waitpid(std::exchange(process, -1), nullptr, 0);
  }
  Finish();
}

void ObservedAgent::Finish() {
  if (!thread.joinable()) {
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    taking = true;
    finish = true;
  }
  Wake();
  thread.join();
}

bool ObservedAgent::HasEnded() {
  std::lock_guard<std::mutex> lock(mutex);
  return ended;
}

std::vector<SoakAlert> ObservedAgent::TakeAlerts() {
  std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(alerts, {});
}

std::vector<std::string> ObservedAgent::TakeFaults() {
  std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(faults, {});
}

std::string ObservedAgent::LogTail() {
  std::lock_guard<std::mutex> lock(mutex);
  std::string text;
  for (const std::string& line : log) {
    text += "  " + line + "\n";
  }
  return text;
}

void ObservedAgent::Wake() const {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake, &one, sizeof(one));
}

void ObservedAgent::Observe() {
  bool alertsOpen = true;
  bool logOpen = true;
  bool takes = true;
  for (bool last = false; !last;) {
    std::array<pollfd, 4> sources = {{{wake, POLLIN, 0},
                                      {alertsOpen && takes ? alertsEnd : -1, POLLIN, 0},
                                      {logOpen ? logEnd : -1, POLLIN, 0},
                                      {fileEvents, POLLIN, 0}}};
    poll(sources.data(), sources.size(), -1);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t drained = read(wake, &count, sizeof(count));
    std::array<char, 4096> events;
    while (fileEvents >= 0 && read(fileEvents, events.data(), events.size()) > 0) {
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      takes = taking;
      last = finish;
    }
    if (takes) {
      alertsOpen = TakeFrom(alertsEnd, pendingAlerts);
      TakeLines(pendingAlerts, &ObservedAgent::TakeLine);
      TakeOutputFile(last);
    }
    logOpen = TakeFrom(logEnd, pendingLog);
    TakeLines(pendingLog, &ObservedAgent::TakeLogLine);
    {
      std::lock_guard<std::mutex> lock(mutex);
      ended = last || (!alertsOpen && !logOpen);
    }
    changed.notify_all();
  }
  if (!pendingAlerts.empty()) {
    // The kernel takes a record whole or leaves it: the agent writes no more than a pipe takes at once.
    TakeLine("[cut off] " + pendingAlerts);
  }
}

bool ObservedAgent::TakeFrom(int descriptor, std::string& pending) {
  std::array<char, pieceSize> piece;
  for (;;) {
    const ssize_t length = read(descriptor, piece.data(), piece.size());
    if (length > 0) {
      pending.append(piece.data(), static_cast<std::size_t>(length));
    } else if (length == 0 || errno != EINTR) {
      return length < 0;
    }
  }
}

void ObservedAgent::TakeLines(std::string& pending, void (ObservedAgent::*take)(const std::string&)) {
  std::size_t start = 0;
  for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n', start)) {
    (this->*take)(pending.substr(start, end - start));
    start = end + 1;
  }
  pending.erase(0, start);
}

// From the last whole record on: a full disk may take a piece of one, which the agent takes back, unless it
// is killed right then.
void ObservedAgent::TakeOutputFile(bool last) {
  if (outputFile.empty()) {
    return;
  }
  const int file = open(outputFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) {
    return;
  }
  lseek(file, static_cast<off_t>(offset), SEEK_SET);
  std::string content;
  TakeFrom(file, content);
  close(file);
  const std::size_t before = content.size();
  TakeLines(content, &ObservedAgent::TakeLine);
  offset += before - content.size();
  if (last && orderly && !content.empty()) {
    TakeLine("[cut off] " + content);
  }
}

void ObservedAgent::TakeLine(const std::string& line) {
  const SoakTime now = SoakTime::clock::now();
  RecordEvent(line);
  if (IsFinding(line)) {
    return;
  }
  const std::optional<RootAccount> account = AccountIn(line);
  std::lock_guard<std::mutex> lock(mutex);
  if (account) {
    alerts.push_back({now, *account});
    allAlerts.push_back(alerts.back());
  } else {
    faults.push_back(line);
  }
}

void ObservedAgent::TakeLogLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex);
  log.push_back(line);
  if (log.size() > logLinesKept) {
    log.pop_front();
  }
  watching = watching || line.find("watching /etc/passwd") != std::string::npos;
}
