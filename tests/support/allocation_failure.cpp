#include "tests/support/allocation_failure.h"

#include <cstdlib>
#include <new>

namespace {

struct Watch {
  bool running;
  unsigned pauses;
  std::size_t seen;
  std::size_t refused;  // which one to refuse
};

thread_local Watch watch;  // zeroed, no constructor: allocations come long before main

void* Allocate(std::size_t size) {
  if (watch.running && watch.pauses == 0 && ++watch.seen == watch.refused) {
    return nullptr;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

AllocationFailure::AllocationFailure(std::size_t nth) {
  watch.seen = 0;
  watch.refused = nth;
  watch.running = true;
}

AllocationFailure::~AllocationFailure() { watch.running = false; }

std::size_t AllocationFailure::Seen() const { return watch.seen; }

bool AllocationFailure::Happened() const { return watch.refused != 0 && watch.seen >= watch.refused; }

AllocationPause::AllocationPause() { ++watch.pauses; }

AllocationPause::~AllocationPause() { --watch.pauses; }

// All of the unaligned forms: a sanitizer takes a mixture of its own and ours for a mismatch.
void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept { std::free(memory); }
