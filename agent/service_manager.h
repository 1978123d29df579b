#ifndef VELTA_AGENT_SERVICE_MANAGER_H
#define VELTA_AGENT_SERVICE_MANAGER_H

#include <chrono>
#include <string>

class Logger;

// Tells the service manager how the agent is, by the sd_notify of its library. Does nothing without one,
// which is where NOTIFY_SOCKET is not set.
//
// The library, and the five that it needs, are loaded for each message and unloaded after it: half a
// millisecond each time, instead of most of a megabyte all the time.
//
// Thread use: the control thread.
class ServiceManager {
 public:
  explicit ServiceManager(Logger& managerLogger, std::string libraryFile = "libsystemd.so.0");

  bool IsThere() const { return there; }

  // How long the manager waits for the next "WATCHDOG=1"; zero: it does not.
  std::chrono::microseconds Watchdog() const { return watchdog; }

  // Lines as sd_notify takes them. False when they could not be sent; the log says so once.
  bool Tell(const std::string& state);

 private:
  Logger& logger;
  const std::string library;
  bool there;
  std::chrono::microseconds watchdog;
  bool failureTold = false;
};

#endif  // VELTA_AGENT_SERVICE_MANAGER_H
