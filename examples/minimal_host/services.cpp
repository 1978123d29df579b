// The functions of host/, as briefly as the module allows: one thread does everything. An agent for real
// machines does better: file events instead of a look ten times a second, a limit of events, an output that
// is gone for a while.
#include "services.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/file_monitor.h"
#include "host/json.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/string_process.h"
#include "host/task_scheduler.h"
#include "host/utc_time.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

int eventDescriptor = 1;
int logDescriptor = 2;

// Before the thread that takes them, so that they outlive it.
static std::mutex eventMutex;
static std::vector<std::string> events;  // guarded by eventMutex

static void WriteLine(int descriptor, const std::string& text) {
  const std::string line = text + "\n";
  for (std::size_t at = 0; at < line.size();) {
    const ssize_t length = write(descriptor, line.data() + at, line.size() - at);
    if (length < 0 && errno != EINTR) {
      return;
    }
    at += length > 0 ? static_cast<std::size_t>(length) : 0;
  }
}

// --- The thread. It runs each job by the clock, and whenever it is asked to: what is asked for during a run
// is answered by one after it.

struct Job {
  std::function<void()> body;
  steady_clock::time_point due;
  milliseconds interval;
};

static constexpr milliseconds never = std::chrono::hours(24 * 365);

static struct Loop {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<unsigned, std::shared_ptr<Job>> jobs;  // these four: guarded by mutex
  unsigned last = 0;
  unsigned running = 0;
  bool ended = false;
  std::thread thread{[this] { Work(); }};

  ~Loop() {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      ended = true;
      changed.notify_all();
    }
    thread.join();
  }

  unsigned Add(std::function<void()> body, milliseconds first, milliseconds interval) {
    const std::lock_guard<std::mutex> lock(mutex);
    jobs[++last] = std::make_shared<Job>(Job{std::move(body), steady_clock::now() + first, interval});
    changed.notify_all();
    return last;
  }

  void Ask(unsigned id) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (const auto found = jobs.find(id); found != jobs.end()) {
      found->second->due = std::min(found->second->due, steady_clock::now());
      changed.notify_all();
    }
  }

  // Returns when the job neither runs nor can start, and what it owns is gone; at once inside a job.
  void Remove(unsigned id) {
    std::shared_ptr<Job> removed;  // goes after the lock: it may own what takes locks of others
    std::unique_lock<std::mutex> lock(mutex);
    if (const auto found = jobs.find(id); found != jobs.end()) {
      removed.swap(found->second);
      jobs.erase(found);
    }
    changed.wait(lock,
                 [&] { return id == 0 || running != id || std::this_thread::get_id() == thread.get_id(); });
  }

  void Work() {
    std::unique_lock<std::mutex> lock(mutex);
    while (!ended) {
      const auto next = std::min_element(jobs.begin(), jobs.end(), [](const auto& one, const auto& other) {
        return one.second->due < other.second->due;
      });
      const auto now = steady_clock::now();
      const auto due = next != jobs.end() ? next->second->due : now + never;
      if (due > now) {
        changed.wait_until(lock, due);
        continue;
      }
      running = next->first;
      std::shared_ptr<Job> job = next->second;
      job->due = now + job->interval;
      lock.unlock();
      try {
        job->body();
      } catch (const std::exception& error) {  // the module catches none; what failed is to be run again
        WriteStartupLog("trying again soon: %s", error.what());
        const std::lock_guard<std::mutex> relock(mutex);
        job->due = std::min(job->due, now + std::chrono::seconds(1));
      }
      job.reset();  // before anybody is told that it runs no more
      lock.lock();
      running = 0;
      changed.notify_all();
    }
  }
} loop;

// --- host/task_scheduler.h

static unsigned lastTask = 0;

bool LaunchTask() {
  loop.Ask(lastTask);
  return lastTask != 0;
}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                           void* (*function)(void*), void* arg, const std::string&) {
  const bool again = condition.enabled && type == utils::thread::TASKTYPE_PERIODIC;
  return lastTask = loop.Add([=] { function(arg); },
                             condition.enabled ? milliseconds(condition.startDelayMs) : never,
                             again ? milliseconds(condition.intervalMs) : never);
}

void UtilsMakeTaskLaunch(unsigned id) { loop.Ask(id); }

void UtilsPauseAndWaitForEnd(unsigned id) { loop.Remove(id); }

void UtilsUnregisterTask(unsigned id) {
  loop.Remove(id);
  lastTask = id == lastTask ? 0 : lastTask;
}

// --- host/file_monitor.h

// What every change of a file changes, and every other file has otherwise.
static std::array<std::int64_t, 5> LookAt(const std::string& path, bool& changedJustNow) {
  struct stat file = {};
  const bool found = stat(path.c_str(), &file) == 0;
  const auto number = [](auto value) { return static_cast<std::int64_t>(value); };
  // A file system's clock ticks every few milliseconds: a second change in the same tick shows nowhere.
  const auto changed =
      std::chrono::seconds(file.st_ctim.tv_sec) + std::chrono::nanoseconds(file.st_ctim.tv_nsec);
  changedJustNow = found && std::chrono::system_clock::now().time_since_epoch() - changed < milliseconds(50);
  return {number(file.st_dev), number(file.st_ino), number(file.st_size), number(file.st_ctim.tv_sec),
          number(file.st_ctim.tv_nsec)};
}

unsigned AddMonitor(const FileWatchRule& rule, MonitorType) {
  bool young = false;
  auto seen = LookAt(rule.path, young);
  const auto look = [path = rule.path, callback = rule.callback, seen, young]() mutable {
    const bool again = young;  // to be on the safe side, until the tick is over
    const auto now = LookAt(path, young);
    if (again || now != seen) {
      seen = now;
      (*callback)(0, path.c_str(), "", false, 0, "");
    }
  };
  return loop.Add(look, milliseconds(100), milliseconds(100));
}

void RemoveMonitor(const FileWatchRule& rule, MonitorType) { loop.Remove(rule.monitorId); }

// --- host/send_queue.h, host/utc_time.h

void SendEvents() {
  std::vector<std::string> waiting;
  {
    const std::lock_guard<std::mutex> lock(eventMutex);
    waiting.swap(events);
  }
  for (const std::string& event : waiting) {
    WriteLine(eventDescriptor, event);
  }
}

// The caller holds a lock of the module: the thread writes, and not the caller.
void PushMinuteLimitEventToSendQueue(const std::string& event) {
  static const unsigned sender = loop.Add(SendEvents, never, never);
  {
    const std::lock_guard<std::mutex> lock(eventMutex);
    events.push_back(event);
  }
  loop.Ask(sender);
}

void UtilsGetUtcTime(std::string& out) {
  const std::time_t now = std::time(nullptr);
  std::tm calendar = {};
  char text[64] = "";
  gmtime_r(&now, &calendar);
  out.assign(text, std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &calendar));
}

// --- host/logger.h

// A null pointer for %s is printed by the C library that this was written for, and not followed.
static void Log(const std::string& prefix, const char* format, va_list arguments) {
  char* text = nullptr;
  if (vasprintf(&text, format, arguments) < 0) {
    return;
  }
  std::string line = prefix + text;
  std::free(text);
  std::replace_if(
      line.begin(), line.end(), [](unsigned char letter) { return letter < ' '; }, '?');
  WriteLine(logDescriptor, line);  // in one write, or the records of two threads mix
}

void LoggerWriteLog(OrvakAgentDotLogType, unsigned code, unsigned level, const char* file, int line, int,
                    const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log(std::to_string(level) + " " + file + ":" + std::to_string(line) + " " + std::to_string(code) + " ",
      format, arguments);
  va_end(arguments);
}

void WriteStartupLog(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Log("", format, arguments);
  va_end(arguments);
}

// --- host/string_process.h

std::vector<std::string> Utils::StringProcess::StrSplit(const std::string& text, const std::string& separator,
                                                        bool skipEmpty) {
  std::vector<std::string> pieces;
  for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + separator.size()) {
    end = text.find(separator, start);
    const std::string piece = text.substr(start, end - start);
    if (!skipEmpty || !piece.empty()) {
      pieces.push_back(piece);
    }
  }
  return pieces;
}

// As glibc reads an account's number: it takes blanks and a sign in front.
bool ConvertStrToNum(const std::string& text, unsigned& value, int base) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(text.c_str(), &end, base);
  const bool whole = end != text.c_str() && end == text.c_str() + text.size();
  value = static_cast<unsigned>(number);
  return whole && errno == 0 && number == value;
}

// --- host/json.h: a map, in which a member stays where it is when others are added

using nlohmann::json;
using namespace utils::MyJson;

struct MyValue::Representation {
  std::shared_ptr<json> document;
  json* value;

  static json& Of(const MyValue& handle) { return *handle.representation->value; }
};

MyValue::MyValue() : representation(new Representation{std::make_shared<json>(), nullptr}) {
  representation->value = representation->document.get();
}

MyValue::MyValue(const MyValue& other) : representation(new Representation(*other.representation)) {}

MyValue::~MyValue() { delete representation; }

MyValue& MyValue::operator=(const MyValue& other) {
  Representation::Of(*this) =
      json(Representation::Of(other));  // a copy first: one may be a part of the other
  return *this;
}

void MyValue::operator=(std::string text) { Representation::Of(*this) = std::move(text); }

void MyValue::operator=(int number) { Representation::Of(*this) = number; }

void MyValue::operator=(const char* text) { Representation::Of(*this) = text; }

MyValue MyValue::operator[](const char* key) {
  MyValue member(*this);
  member.representation->value = &Representation::Of(*this)[key];
  return member;
}

bool MyValue::IsMember(const std::string& key) const { return Representation::Of(*this).contains(key); }

void MyValue::JsonItemAddToObject(const char* key, const MyValue& item) const {
  json copy(Representation::Of(item));
  Representation::Of(*this)[key] = std::move(copy);
}

bool MyCharReader::Parse(const std::string& text, MyValue& root) const {
  const auto shallow = [](int depth, json::parse_event_t, const json&) {
    return depth < 1000 ? true : throw std::runtime_error("too deep for functions that call themselves");
  };
  try {
    MyValue::Representation::Of(root) = json::parse(text, shallow);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// Whatever bytes a name holds, this does not throw: no later alert would leave.
std::string Utils::Convert::JsonToString(const MyValue& value) {
  return MyValue::Representation::Of(value).dump(-1, ' ', true, json::error_handler_t::replace);
}
