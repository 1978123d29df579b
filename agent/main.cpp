#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "agent/account_file.h"
#include "agent/cross_check.h"
#include "agent/event_sink.h"
#include "agent/file_monitor.h"
#include "agent/json.h"
#include "agent/logger.h"
#include "agent/module_loader.h"
#include "agent/options.h"
#include "agent/policy.h"
#include "agent/safe_text.h"
#include "agent/send_queue.h"
#include "agent/services.h"
#include "agent/spare_memory.h"
#include "agent/task_scheduler.h"
#include "host/string_process.h"

namespace {

// One after the other: side by side, the module's task and the cross-check could take the last descriptor
// from each other, and the module would take that for a missing file.
constexpr unsigned workerCount = 1;
constexpr std::chrono::milliseconds drainPatience{3000};

// A step that cannot be done, with the code to end with.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode exitCode, const std::string& what) : std::runtime_error(what), code(exitCode) {}
  const ExitCode code;
};

// Runs a step and gives whatever it throws the exit code of that step.
template <typename Step>
auto OrFail(ExitCode code, Step step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    throw Failure(code, error.what());
  }
}

// Builds a part that needs a thread or a descriptor. What the system says of a thread that it refuses names
// nothing.
template <typename Build>
auto Started(const char* part, Build build) {
  try {
    return build();
  } catch (const std::system_error& error) {
    throw Failure(EXIT_SYSTEM, std::string("the ") + part + " cannot start: " + error.what());
  }
}

// A descriptor that was closed at the start would be given to the first file that is opened, and alerts or
// log lines would end up there.
void OccupyStandardDescriptors(const Options& options) {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) {
      continue;
    }
    if (descriptor == STDOUT_FILENO && options.outputPath == "-") {
      throw Failure(EXIT_OUTPUT, "standard output is closed, and alerts are to go there; see --output");
    }
    const int opened = open("/dev/null", O_RDWR | O_NOCTTY);
    if (opened != descriptor && opened >= 0) {
      dup2(opened, descriptor);
      close(opened);
    }
  }
}

// A reader that goes away and a file that reaches its size limit are errors of a write, not ends.
void IgnoreWriteSignals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

// The signals that the control thread waits for. Blocked before any thread exists, so that no other thread
// gets them.
sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGHUP, SIGTERM, SIGINT}) {
    signal(number, SIG_DFL);  // an ignored one, as nohup leaves it, might never arrive
    sigaddset(&signals, number);
  }
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

std::string ReadPolicy(const Options& options) {
  return options.policyPath.empty() ? defaultPolicy : LoadPolicy(options.policyPath);
}

// What a policy starts, and starts anew.
struct Watchers {
  const LoadedModule& module;
  CrossCheck* crossCheck;  // null: switched off
  TaskScheduler& scheduler;
};

// Starts the module with the policy and has the file read at once, so that standing accounts are reported now
// and not after the tasks' first delay.
void Start(const Watchers& watchers, const std::string& policy) {
  if (!watchers.module.Start(policy.c_str())) {
    throw Failure(EXIT_MODULE, "the module refused the policy");
  }
  std::size_t tasksOfOurs = 0;
  if (watchers.crossCheck != nullptr) {
    watchers.crossCheck->Enable(PolicyTurnsDetectionOn(policy));
    tasksOfOurs = 1;
  }
  if (watchers.scheduler.LaunchAll() == tasksOfOurs) {
    throw Failure(EXIT_MODULE, "the module started without its task: nothing is being watched");
  }
}

// A single reading that cannot be made is a failure; an agent that stays waits for the file.
void RequireAccountFile() {
  const std::string obstacle = ObstacleToReading(accountFilePath);
  if (!obstacle.empty()) {
    throw Failure(EXIT_ACCOUNT_FILE, obstacle);
  }
  if (access(accountFilePath, R_OK) != 0) {
    throw Failure(EXIT_ACCOUNT_FILE, std::string(accountFilePath) + ": " + std::strerror(errno));
  }
}

// A policy that cannot be used leaves the running one in place.
void Reload(const Watchers& watchers, const Options& options, std::string& running, Logger& logger) {
  std::string policy;
  try {
    policy = ReadPolicy(options);
  } catch (const std::exception& error) {
    // The module is not even shown it: handed a bad text, it would stop and leave the host unwatched.
    logger.Error(std::string(error.what()) + "; the running policy stays");
    return;
  }
  try {
    Start(watchers, policy);
    running = std::move(policy);
    logger.Info("policy reloaded");
    return;
  } catch (const std::exception& error) {
    logger.Error(std::string("policy not taken: ") + error.what() + "; going back to the one before");
  }
  Start(watchers, running);
}

// After a reading, when no other is waiting. The first one has used for the first time what readings use:
// what comes back after that is what they need.
void TidyUp() {
  static std::once_flag firstReading;
  std::call_once(firstReading, LetGoOfFilePages);
  GiveBackFreedMemory();
}

// Until a signal asks for the end.
void Watch(const sigset_t& signals, const Watchers& watchers, const Options& options, std::string policy,
           Logger& logger) {
  for (;;) {
    int number = 0;
    sigwait(&signals, &number);
    if (number != SIGHUP) {
      logger.Info(std::string("stopping: ") + strsignal(number));
      return;
    }
    Reload(watchers, options, policy, logger);
  }
}

int CheckPolicy(const std::string& path) {
  OrFail(EXIT_POLICY, [&] { return LoadPolicy(path); });
  if (std::printf("%s: valid\n", path.c_str()) < 0 || std::fflush(stdout) != 0) {
    throw Failure(EXIT_OUTPUT, std::string("standard output: ") + std::strerror(errno));
  }
  return EXIT_DONE;
}

// The module is stopped and everything queued is delivered whatever ends the watch.
int RunModule(const Options& options, const std::string& policy, const std::string& modulePath) {
  // One reading is ended by its signals at once: it leaves nothing behind.
  const sigset_t signals = options.once ? sigset_t() : BlockSignals();

  // Declaration order is lifetime: read it bottom-up to see the shutdown.
  Logger logger(options.logLevel);
  EventSink sink = OrFail(EXIT_OUTPUT, [&] { return EventSink(options.outputPath); });
  SendQueue queue = Started(
      "send queue", [&] { return SendQueue(sink, logger, options.once ? 0 : options.eventsPerMinute); });
  ReadingGate gate([&queue](const std::string& reason) {
    queue.Push(UnreadableEvent(accountFilePath, reason), SendQueue::Lane::Findings);
  });
  // A single reading has seen its file already.
  const TaskScheduler::Gate askGate = [&gate] {
    return gate.Ask(accountFilePath, ReadingGate::Time::clock::now());
  };
  TaskScheduler scheduler = Started("task scheduler", [&] {
    return TaskScheduler(workerCount, logger, options.once ? nullptr : askGate, TidyUp);
  });
  FileMonitor monitor =
      Started("file monitor", [&] { return FileMonitor(logger, options.identityInterval, &scheduler); });
  InstalledServices services(logger, queue, scheduler, monitor);  // the functions of host/ land here
  ReportInvalidTextTo([](const std::string& raw) {
    InstalledServices::Current().logger.WarningInParts("json: a text is not UTF-8, its bytes", HexText(raw));
  });
  // The C library is asked how it reads numbers now, while there is one thread: its reader may not be used by
  // two.
  unsigned zero = 0;
  static_cast<void>(ConvertStrToNum("0", zero, 10));
  std::optional<CrossCheck> crossCheck;
  if (options.crossCheck) {
    OrFail(EXIT_SYSTEM, [&] { crossCheck.emplace(accountFilePath, scheduler, monitor, queue, logger); });
  }
  // Last: unloaded while everything that it calls still stands.
  const LoadedModule module = OrFail(EXIT_MODULE, [&] { return LoadedModule(modulePath); });

  if (!module.Init()) {
    throw Failure(EXIT_MODULE, "module " + modulePath + ": InitModule failed");
  }
  bool completed = true;
  std::exception_ptr failure;
  try {
    const Watchers watchers = {module, crossCheck ? &*crossCheck : nullptr, scheduler};
    Start(watchers, policy);
    if (options.once) {
      completed = scheduler.WaitUntilIdle();
    } else {
      logger.Info("watching /etc/passwd; alerts go to " + sink.Name());
      Watch(signals, watchers, options, policy, logger);
    }
  } catch (...) {
    failure = std::current_exception();
  }
  module.Stop();
  module.Deinit();
  crossCheck.reset();
  const bool delivered = options.once ? queue.Drain(std::nullopt) : queue.Drain(drainPatience);
  if (failure) {
    std::rethrow_exception(failure);
  }
  if (!delivered) {
    return EXIT_OUTPUT;
  }
  if (!completed) {
    return EXIT_SYSTEM;
  }
  return options.once && queue.Accepted() > 0 ? EXIT_ALERTS : EXIT_DONE;
}

int Run(const Options& options) {
  IgnoreWriteSignals();
  AllocateFromOnePlace();
  if (!options.checkPolicyPath.empty()) {
    return CheckPolicy(options.checkPolicyPath);
  }
  OccupyStandardDescriptors(options);
  const std::string policy = OrFail(EXIT_POLICY, [&] { return ReadPolicy(options); });
  const std::string modulePath =
      OrFail(EXIT_MODULE, [&] { return options.modulePath.empty() ? FindModule() : options.modulePath; });
  if (options.once) {
    RequireAccountFile();
  }
  return RunModule(options, policy, modulePath);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const CommandLine commandLine = ParseCommandLine(argc, argv);
    return commandLine.run ? Run(commandLine.options) : commandLine.exitCode;
  } catch (const Failure& failure) {
    std::fprintf(stderr, "velta-agent: %s\n", failure.what());
    return failure.code;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "velta-agent: %s\n", error.what());
    return EXIT_SYSTEM;
  }
}
