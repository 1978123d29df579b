// minimal_host MODULE: a whole agent. Prints the module's events until SIGINT or SIGTERM; JSON, texts,
// numbers, the time and the loading are VeltaDetectUser::services. An agent for real machines does better:
// file events instead of a look ten times a second, a limit of events, an output that may be gone for a
// while.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "agent/module_loader.h"
#include "agent/safe_text.h"
#include "host/file_monitor.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/task_scheduler.h"

using std::chrono::milliseconds;

std::FILE* eventFile = stdout;
std::FILE* logFile = stderr;

// --- Jobs. Each has a thread, which runs it by the clock, and when it is asked to: what is asked for during
// a run is answered by a run that begins after it. A job is in the map until it runs no more and what it
// owned is gone.

struct Job {
  bool asked, ended;
  std::thread::id thread;
};
static std::mutex mutex;  // guards the next four
static std::condition_variable changed;
static std::map<unsigned, Job> jobs;
static unsigned lastJob = 0;
static std::vector<std::string> events;
static const milliseconds never = std::chrono::hours(24 * 365);

static void Work(unsigned id, std::function<void()> body, milliseconds wait, milliseconds interval) {
  std::unique_lock<std::mutex> lock(mutex);
  Job& job = jobs[id];
  job.thread = std::this_thread::get_id();
  while (changed.wait_for(lock, wait, [&] { return job.asked || job.ended; }), !job.ended) {
    job.asked = false;
    lock.unlock();
    wait = interval;
    try {
      body();
    } catch (const std::exception& error) {  // the module catches none; what failed is to be run again
      WriteStartupLog("trying again soon: %s", error.what());
      wait = std::min(interval, milliseconds(1000));
    }
    lock.lock();
  }
  lock.unlock();
  body = nullptr;
  lock.lock();
  jobs.erase(id);
  changed.notify_all();
}

static unsigned AddJob(std::function<void()> body, milliseconds first, milliseconds interval) {
  const std::lock_guard<std::mutex> lock(mutex);
  jobs[++lastJob] = Job();
  std::thread(Work, lastJob, std::move(body), first, interval).detach();
  return lastJob;
}

static void AskJob(unsigned id) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (const auto job = jobs.find(id); job != jobs.end()) {
    job->second.asked = true;
    changed.notify_all();
  }
}

// When it returns, the job neither runs nor can start; on the job's own thread, at once.
static void EndJob(unsigned id) {
  std::unique_lock<std::mutex> lock(mutex);
  if (const auto job = jobs.find(id); job != jobs.end()) {
    job->second.ended = true;
    changed.notify_all();
    changed.wait(lock, [&, inside = job->second.thread == std::this_thread::get_id()] {
      return inside || jobs.count(id) == 0;
    });
  }
}

// --- host/task_scheduler.h

static std::atomic<unsigned> detection{0};

unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION timing,
                           void* (*function)(void*), void* arg, const std::string&) {
  const bool again = timing.enabled && type == utils::thread::TASKTYPE_PERIODIC;
  return detection =
             AddJob([=] { function(arg); }, timing.enabled ? milliseconds(timing.startDelayMs) : never,
                    again ? milliseconds(timing.intervalMs) : never);
}
void UtilsMakeTaskLaunch(unsigned id) { AskJob(id); }
void UtilsPauseAndWaitForEnd(unsigned id) { EndJob(id); }
void UtilsUnregisterTask(unsigned id) { detection.compare_exchange_strong(id, 0); }

// --- host/file_monitor.h

// What every change of a file changes. Within one tick of its file system's clock a second change shows
// nowhere, so that the tick is over counts as a change, too.
static auto LookAt(const std::string& path) {
  struct stat file = {};
  stat(path.c_str(), &file);
  const auto time =
      std::chrono::seconds(file.st_ctim.tv_sec) + std::chrono::nanoseconds(file.st_ctim.tv_nsec);
  const auto age = std::chrono::system_clock::now().time_since_epoch() - time;
  return std::make_tuple(file.st_dev, file.st_ino, file.st_size, time, age < std::chrono::seconds(1));
}

unsigned AddMonitor(const FileWatchRule& rule, MonitorType) {
  const auto look = [path = rule.path, callback = rule.callback, seen = LookAt(rule.path)]() mutable {
    if (const auto now = LookAt(path); now != seen) {
      (*callback)(0, path.c_str(), "", false, 0, "");
      seen = now;  // and not before: a callback that failed is to come again
    }
  };
  return AddJob(look, milliseconds(100), milliseconds(100));
}
void RemoveMonitor(const FileWatchRule& rule, MonitorType) { EndJob(rule.monitorId); }

// --- host/send_queue.h: whoever pushes holds a lock of the module, so another thread prints

static unsigned printer = 0;

static void PrintEvents() {
  std::unique_lock<std::mutex> lock(mutex);
  const std::vector<std::string> waiting = std::exchange(events, {});
  lock.unlock();
  for (const std::string& event : waiting) {
    std::fprintf(eventFile, "%s\n", event.c_str());
  }
  std::fflush(eventFile);
}

void PushMinuteLimitEventToSendQueue(const std::string& event) {
  std::unique_lock<std::mutex> lock(mutex);
  events.push_back(event);
  lock.unlock();
  AskJob(printer);
}

// --- host/logger.h

static void Log(const std::string& prefix, const char* format, va_list arguments) {
  char text[4096] = "";
  vsnprintf(text, sizeof(text), format, arguments);
  std::fprintf(logFile, "%s%s\n", prefix.c_str(), SafeText(text).c_str());  // one call, or records mix
  std::fflush(logFile);
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

int main(int argc, char** argv) try {
  if (argc != 2) {
    throw std::runtime_error("usage: minimal_host MODULE");
  }
  sigset_t endings;  // blocked before any thread exists: this one alone waits for them
  sigemptyset(&endings);
  sigaddset(&endings, SIGINT);
  sigaddset(&endings, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);
  printer = AddJob(PrintEvents, never, never);
  {
    const LoadedModule module(argv[1]);  // unloaded at the brace
    if (!module.Init() || !module.Start(R"({"unauthorized-root-user":{}})") || detection == 0) {
      throw std::runtime_error("nothing is being watched");
    }
    UtilsMakeTaskLaunch(detection);  // the accounts that stand already
    int signal = 0;
    sigwait(&endings, &signal);
    module.Stop();
    module.Deinit();
  }
  EndJob(printer);
  PrintEvents();
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "minimal_host: %s\n", error.what());
  std::_Exit(1);  // not exit: the printer's thread still stands on what that would destroy
}
