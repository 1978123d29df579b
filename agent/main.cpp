#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/account_file.h"
#include "agent/agent_status.h"
#include "agent/change_signal.h"
#include "agent/cross_check.h"
#include "agent/deliveries.h"
#include "agent/event_output.h"
#include "agent/event_queue.h"
#include "agent/event_sink.h"
#include "agent/file_monitor.h"
#include "agent/json.h"
#include "agent/logger.h"
#include "agent/module_loader.h"
#include "agent/options.h"
#include "agent/policy.h"
#include "agent/reporter.h"
#include "agent/safe_text.h"
#include "agent/services.h"
#include "agent/spare_memory.h"
#include "agent/status_report.h"
#include "agent/syslog_sink.h"
#include "agent/task_scheduler.h"
#include "host/string_process.h"

namespace {

// The monitor's thread reads beside it.
constexpr unsigned workerCount = 1;
constexpr std::chrono::milliseconds drainPatience{3000};
constexpr int stateChanged = SIGUSR1;  // to the control thread: somebody may want to know

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
// log lines would end up there. In a bare root without devices a folder takes the number, opened in a way
// that cannot be written to: what is for nobody is lost all the same.
void OccupyStandardDescriptors(const Options& options) {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) {
      continue;
    }
    const bool used = std::find(options.outputs.begin(), options.outputs.end(), "-") != options.outputs.end();
    if (descriptor == STDOUT_FILENO && used) {
      throw Failure(EXIT_OUTPUT, "standard output is closed, and alerts are to go there; see --output");
    }
    int opened = open("/dev/null", O_RDWR | O_NOCTTY);
    if (opened < 0) {
      opened = open("/", O_PATH);
    }
    if (opened < 0 || (opened != descriptor && dup2(opened, descriptor) < 0)) {
      throw Failure(EXIT_SYSTEM, "descriptor " + std::to_string(descriptor) +
                                     " is closed and cannot be taken: " + std::strerror(errno));
    }
    if (opened != descriptor) {
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
  for (const int number : {SIGHUP, SIGTERM, SIGINT, stateChanged}) {
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
  Reporter& reporter;
};

// Starts the module with the policy and has the file read at once, so that standing accounts are reported now
// and not after the tasks' first delay.
void Start(const Watchers& watchers, const std::string& policy) {
  if (!watchers.module.Start(policy.c_str())) {
    throw Failure(EXIT_MODULE, "the module refused the policy");
  }
  std::size_t tasksOfOurs = 0;
  const bool detects = PolicyTurnsDetectionOn(policy);
  if (watchers.crossCheck != nullptr) {
    watchers.crossCheck->Enable(detects);
    tasksOfOurs = 1;
  }
  if (watchers.scheduler.LaunchAll() == tasksOfOurs) {
    throw Failure(EXIT_MODULE, "the module started without its task: nothing is being watched");
  }
  watchers.reporter.TookPolicy(detects);
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

// After a reading, when no other is waiting; one at a time. The first ones use for the first time what
// readings use: the module's and the cross-check's, an alert, and whatever the C++ library binds when it is
// called, for which it looks through its tables of names. What comes back after that is what readings need.
void TidyUp() {
  constexpr int readingsUntilAllIsUsed = 8;
  static int readings = 0;
  if (readings < readingsUntilAllIsUsed) {
    ++readings;
    LetGoOfFilePages();
  }
  GiveBackFreedMemory();
}

// The number of the next signal; 0 when `until` comes first, or for no reason at all. The kernel gives the
// lowest of several: with one SIGHUP after the other, an end would never have its turn.
int NextSignal(const sigset_t& signals, std::optional<Beat::Time> until) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  const timespec noTime = timespec();
  const int end = sigtimedwait(&ends, nullptr, &noTime);
  if (end > 0) {
    return end;
  }
  if (!until) {
    return std::max(sigwaitinfo(&signals, nullptr), 0);
  }
  const auto left =
      std::max(std::chrono::nanoseconds::zero(),
               std::chrono::duration_cast<std::chrono::nanoseconds>(*until - Beat::Time::clock::now()));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  timespec timeout = timespec();
  timeout.tv_sec = static_cast<decltype(timeout.tv_sec)>(seconds.count());
  timeout.tv_nsec = static_cast<decltype(timeout.tv_nsec)>((left - seconds).count());
  return std::max(sigtimedwait(&signals, nullptr, &timeout), 0);
}

// Until a signal asks for the end.
void Watch(const sigset_t& signals, const Watchers& watchers, const Options& options, std::string policy,
           Logger& logger) {
  Reporter& reporter = watchers.reporter;
  reporter.Ready();
  for (;;) {
    const int number = NextSignal(signals, reporter.NextDue());
    if (number == SIGHUP) {
      reporter.Reloading();
      Reload(watchers, options, policy, logger);
      reporter.Ready();
    } else if (number == stateChanged) {
      reporter.NoteChange();
    } else if (number != 0) {
      logger.Info(std::string("stopping: ") + strsignal(number));
      reporter.Stopping();
      return;
    }
    reporter.TellDue();
  }
}

std::vector<std::unique_ptr<EventOutput>> OpenOutputs(const Options& options) {
  std::vector<std::unique_ptr<EventOutput>> outputs;
  for (const std::string& path : options.outputs) {
    outputs.push_back(std::make_unique<EventSink>(path));
  }
  if (options.syslog) {
    outputs.push_back(std::make_unique<SyslogSink>(options.syslogSeverity, options.syslogFacility));
  }
  return outputs;
}

int CheckPolicy(const std::string& path) {
  OrFail(EXIT_POLICY, [&] { return LoadPolicy(path); });
  if (std::printf("%s: valid\n", path.c_str()) < 0 || std::fflush(stdout) != 0) {
    throw Failure(EXIT_OUTPUT, std::string("standard output: ") + std::strerror(errno));
  }
  return EXIT_DONE;
}

// Ends the process though one of its threads does not come back: that one cannot be waited for, nor may what
// it uses be destroyed. What is left was logged.
[[noreturn]] void LeaveBehind(const std::exception_ptr& failure, Logger& logger) {
  try {
    if (failure) {
      std::rethrow_exception(failure);
    }
  } catch (const std::exception& error) {
    logger.Error(error.what());
  }
  std::_Exit(EXIT_OUTPUT);
}

// The module is stopped and everything queued is delivered whatever ends the watch.
int RunModule(const Options& options, const std::string& policy, const std::string& modulePath) {
  // One reading is ended by its signals at once: it leaves nothing behind.
  const sigset_t signals = options.once ? sigset_t() : BlockSignals();

  // Declaration order is lifetime: read it bottom-up to see the shutdown.
  Logger logger(options.logLevel);
  ReadingRecord readings;
  // A single reading is over before anybody could ask how it is, and its signals are not waited for.
  ChangeSignal changes(pthread_self(), stateChanged);
  std::function<void()> noteChange;
  if (!options.once) {
    noteChange = [&changes] { changes.Note(); };
  }
  std::vector<std::unique_ptr<EventOutput>> outputs =
      OrFail(EXIT_OUTPUT, [&] { return OpenOutputs(options); });
  Deliveries queue = Started("send queue", [&] {
    return Deliveries(std::move(outputs), logger, options.once ? 0 : options.eventsPerMinute, noteChange);
  });
  ReadingGate gate([&queue](const std::string& reason) {
    queue.Push(UnreadableEvent(accountFilePath, reason), EventQueue::Lane::Findings);
  });
  // A single reading has seen its file already.
  const TaskScheduler::Gate askGate = [&gate, &readings] {
    const auto now = ReadingGate::Time::clock::now();
    TaskScheduler::Permission permission = gate.Ask(accountFilePath, now);
    readings.Asked(permission);
    return permission;
  };
  const auto whenIdle = [&noteChange, &options] {
    if (!options.once) {
      TidyUp();
      noteChange();
    }
  };
  TaskScheduler scheduler = Started("task scheduler", [&] {
    return TaskScheduler(workerCount, logger, options.once ? nullptr : askGate, whenIdle);
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
  static_cast<void>(ConvertStrToNum("+0", zero, 10));  // nobody is asked about plain digits
  std::optional<CrossCheck> crossCheck;
  if (options.crossCheck) {
    OrFail(EXIT_SYSTEM, [&] {
      crossCheck.emplace(accountFilePath, scheduler, monitor, queue, logger,
                         [&readings](std::size_t lines) { readings.Counted(lines); });
    });
  }
  Reporter reporter({readings, scheduler, monitor, queue, changes, logger}, options.statusPath,
                    options.policyPath);
  // Last: unloaded while everything that it calls still stands.
  const LoadedModule module = OrFail(EXIT_MODULE, [&] { return LoadedModule(modulePath); });

  if (!module.Init()) {
    throw Failure(EXIT_MODULE, "module " + modulePath + ": InitModule failed");
  }
  bool completed = true;
  std::exception_ptr failure;
  try {
    const Watchers watchers = {module, crossCheck ? &*crossCheck : nullptr, scheduler, reporter};
    Start(watchers, policy);
    if (options.once) {
      completed = scheduler.WaitUntilIdle();
    } else {
      logger.Info("watching /etc/passwd; alerts go to " + queue.Names());
      Watch(signals, watchers, options, policy, logger);
    }
  } catch (...) {
    failure = std::current_exception();
  }
  module.Stop();
  module.Deinit();
  crossCheck.reset();
  const bool delivered = options.once ? queue.Drain(std::nullopt) : queue.Drain(drainPatience);
  if (queue.HasHung()) {
    LeaveBehind(failure, logger);
  }
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

int TellStatus(const Options& options) {
  const StatusReport report =
      ReportStatus(options.statusPath.empty() ? defaultStatusPath : options.statusPath, options.json);
  if (!report.errors.empty()) {
    throw Failure(static_cast<ExitCode>(report.exitCode), report.errors);
  }
  if (std::fputs(report.output.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    throw Failure(EXIT_OUTPUT, std::string("standard output: ") + std::strerror(errno));
  }
  return report.exitCode;
}

int Run(const Options& options) {
  IgnoreWriteSignals();
  if (options.status) {
    return TellStatus(options);
  }
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
