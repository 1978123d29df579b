#include "agent/service_manager.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "agent/logger.h"

namespace {

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets any
  return value == nullptr ? "" : value;
}

// Decimal digits alone, at most so many; otherwise 0.
long long NumberIn(const std::string& text) {
  const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  return digits && text.size() < 18 ? std::stoll(text) : 0;
}

// Meant for a process that this one may have come from, if a number is given with it.
std::chrono::microseconds WatchdogInEnvironment() {
  const std::string process = Variable("WATCHDOG_PID");
  const bool ours = process.empty() || NumberIn(process) == getpid();
  return std::chrono::microseconds(ours ? NumberIn(Variable("WATCHDOG_USEC")) : 0);
}

// "" when the message was sent.
std::string Send(const std::string& library, const std::string& state) {
  void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* const reason = dlerror();  // NOLINT(concurrency-mt-unsafe): a thread has its own
    return reason == nullptr ? library + " cannot be loaded" : reason;
  }
  using Notify = int (*)(int unsetEnvironment, const char* state);
  const auto notify = reinterpret_cast<Notify>(dlsym(handle, "sd_notify"));
  const int result = notify == nullptr ? -1 : notify(0, state.c_str());
  dlclose(handle);
  if (notify == nullptr) {
    return library + " has no sd_notify";
  }
  return result > 0 ? "" : "sd_notify: " + std::string(std::strerror(-result));
}

}  // namespace

ServiceManager::ServiceManager(Logger& managerLogger, std::string libraryFile)
    : logger(managerLogger),
      library(std::move(libraryFile)),
      there(!Variable("NOTIFY_SOCKET").empty()),
      watchdog(there ? WatchdogInEnvironment() : std::chrono::microseconds::zero()) {}

bool ServiceManager::Tell(const std::string& state) {
  if (!there) {
    return true;
  }
  const std::string failure = Send(library, state);
  if (!failure.empty() && !failureTold) {
    logger.Warning("service manager: not told how the agent is: " + failure);
  }
  failureTold = !failure.empty();
  return failure.empty();
}
