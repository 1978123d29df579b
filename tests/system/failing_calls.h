#ifndef VELTA_TESTS_SYSTEM_FAILING_CALLS_H
#define VELTA_TESTS_SYSTEM_FAILING_CALLS_H

#include <cstdlib>
#include <string>

#include "tests/system/agent_process.h"
#include "tests/system/target.h"

// An agent for which system calls fail as the rules say; failing_calls.cpp tells how they are written.
inline Circumstances WithFailing(const std::string& rules) {
  const char* const sanitizer = std::getenv("ASAN_OPTIONS");
  Circumstances failing;
  failing.environment = {
      // The emulator is of this machine and must not load it; it passes the variable on to the agent.
      std::string(emulated ? "QEMU_SET_ENV=LD_PRELOAD=" : "LD_PRELOAD=") + VELTA_FAILING_CALLS,
      "VELTA_FAIL=" + rules,
      // It insists on being the first library otherwise.
      std::string("ASAN_OPTIONS=") + (sanitizer == nullptr ? "" : sanitizer) + ":verify_asan_link_order=0"};
  return failing;
}

#endif  // VELTA_TESTS_SYSTEM_FAILING_CALLS_H
