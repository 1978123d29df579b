#ifndef VELTA_TESTS_SUPPORT_ALLOCATION_FAILURE_H
#define VELTA_TESTS_SUPPORT_ALLOCATION_FAILURE_H

#include <cstddef>

// Watches what the calling thread allocates while it lives, and refuses the nth of it (from 1; 0 refuses
// none) with std::bad_alloc, once. A program that links this has its operator new replaced.
//
// Thread use: made, asked and destroyed on one thread, one at a time.
class AllocationFailure {
 public:
  explicit AllocationFailure(std::size_t nth);
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  std::size_t Seen() const;  // how many allocations there were so far, the refused one included
  bool Happened() const;     // whether one was refused
};

// While it lives, the allocations of the calling thread are neither counted nor refused: for the test's own.
class AllocationPause {
 public:
  AllocationPause();
  ~AllocationPause();
  AllocationPause(const AllocationPause&) = delete;
  AllocationPause& operator=(const AllocationPause&) = delete;
};

#endif  // VELTA_TESTS_SUPPORT_ALLOCATION_FAILURE_H
