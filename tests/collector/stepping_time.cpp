#include "tests/collector/stepping_time.h"

#include <atomic>
#include <ctime>

namespace {

std::atomic<int> calls{0};
std::atomic<std::time_t> start{0};

}  // namespace

void SteppingTime::StartAt(std::time_t first) {
  start = first;
  calls = 0;
}

int SteppingTime::Calls() { return calls; }

// The linker sends calls of time() in the program's own objects here.
extern "C" std::time_t __wrap_time(std::time_t* out) {
  const std::time_t now = start + calls++;
  if (out != nullptr) {
    *out = now;
  }
  return now;
}
