// minimal_host MODULE: starts the module with its detection on, and prints events until SIGINT or SIGTERM.
// What the module asks of an agent is in services.cpp.
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "module/detect_user.h"
#include "services.h"

[[noreturn]] static void Fail(const char* reason) {
  std::fprintf(stderr, "minimal_host: %s\n", reason);
  std::exit(1);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    Fail("usage: minimal_host MODULE");
  }
  // Blocked before any thread exists: this thread alone waits for them.
  sigset_t endings;
  sigemptyset(&endings);
  sigaddset(&endings, SIGINT);
  sigaddset(&endings, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endings, nullptr);

  // Everything is resolved now: a service that is missing fails here, by name, and not at the first alert.
  void* const module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    Fail(dlerror());
  }
  const auto init = reinterpret_cast<decltype(&InitModule)>(dlsym(module, "InitModule"));
  const auto start = reinterpret_cast<decltype(&StartModule)>(dlsym(module, "StartModule"));
  const auto stop = reinterpret_cast<decltype(&StopModule)>(dlsym(module, "StopModule"));
  const auto deinit = reinterpret_cast<decltype(&DeinitModule)>(dlsym(module, "DeinitModule"));
  if (init == nullptr || start == nullptr || stop == nullptr || deinit == nullptr) {
    Fail("an entry point is missing");
  }

  if (init() != 1 || start(R"({"unauthorized-root-user":{}})") != 1) {
    Fail("the module did not start");
  }
  if (!LaunchTask()) {
    Fail("nothing is being watched: a task or a watch was refused");
  }
  int signal = 0;
  sigwait(&endings, &signal);
  stop();
  deinit();
  dlclose(module);
  SendEvents();
}
