#include "tests/system/load_recorder.h"

#include <dlfcn.h>

#include <cstddef>
#include <cstdlib>
#include <vector>

namespace {

using AtExit = int (*)(void (*)(void*), void*, void*);

// Plain storage and a plain function below: the first calls come before this executable, or a sanitizer, has
// been set up.
constexpr std::size_t mostObjects = 64;
const void* objects[mostObjects];
std::size_t objectCount = 0;
bool recording = false;

}  // namespace

// The module finds this one before the C library's. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined"))) int
__cxa_atexit(void (*destructor)(void*), void* object, void* library) {
  static AtExit next = nullptr;
  if (next == nullptr) {
    next = reinterpret_cast<AtExit>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    if (next == nullptr) {
      std::abort();
    }
  }
  if (recording && objectCount < mostObjects) {
    objects[objectCount] = object;
    ++objectCount;
  }
  return next(destructor, object, library);
}

LoadRecorder::LoadRecorder() {
  objectCount = 0;
  recording = true;
}

LoadRecorder::~LoadRecorder() { recording = false; }

std::vector<const void*> LoadRecorder::Objects() const {
  // In parentheses: braces would make it a list of two pointers.
  return std::vector<const void*>(objects, objects + objectCount);
}
