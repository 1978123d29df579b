#include "agent/services.h"

#include <cstdlib>

namespace {

const InstalledServices* installed = nullptr;

}  // namespace

InstalledServices::InstalledServices(Logger& installedLogger, EventQueue& installedQueue,
                                     TaskScheduler& installedScheduler, FileMonitor& installedMonitor)
    : logger(installedLogger),
      queue(installedQueue),
      scheduler(installedScheduler),
      monitor(installedMonitor) {
  installed = this;
}

InstalledServices::~InstalledServices() { installed = nullptr; }

const InstalledServices& InstalledServices::Current() {
  if (installed == nullptr) {
    std::abort();  // a module is loaded without services to run on: a mistake in main, not in its input
  }
  return *installed;
}
