#ifndef VELTA_AGENT_SERVICES_H
#define VELTA_AGENT_SERVICES_H

class EventQueue;
class FileMonitor;
class Logger;
class TaskScheduler;

// Where the functions of host/ find the agent's services. Installed by construction, withdrawn by
// destruction; one at a time.
//
// Owns nothing: the services outlive it, and it outlives every loaded module.
//
// Thread use: made and destroyed on the control thread, while no module is loaded; Current on any thread.
class InstalledServices {
 public:
  InstalledServices(Logger& installedLogger, EventQueue& installedQueue, TaskScheduler& installedScheduler,
                    FileMonitor& installedMonitor);
  ~InstalledServices();
  InstalledServices(const InstalledServices&) = delete;
  InstalledServices& operator=(const InstalledServices&) = delete;

  static const InstalledServices& Current();

  Logger& logger;
  EventQueue& queue;
  TaskScheduler& scheduler;
  FileMonitor& monitor;
};

#endif  // VELTA_AGENT_SERVICES_H
