#ifndef VELTA_AGENT_HELD_UP_H
#define VELTA_AGENT_HELD_UP_H

#include <chrono>

// Frees the calling thread from a system call that does not come back: from now until its destruction a
// signal of the thread's own interrupts it every few seconds. A FIFO that took the place of a file in the
// wrong moment would otherwise be opened for ever, by code that cannot know of it.
//
// What is interrupted fails with EINTR: opening does. Reading, as the C++ library does it, goes on, so that
// work which only takes long is not harmed; but who keeps a FIFO open and writes nothing holds a reading for
// ever. Where the system has no timer to give, nothing is interrupted.
//
// The price: work that was kept from the processor for most of a few seconds, as in a stopped process, is
// taken for held up, though it was done, and is done again.
//
// Thread use: constructed and destroyed on one thread, one at a time.
class HeldUp {
 public:
  static constexpr std::chrono::seconds patience{2};

  HeldUp();
  ~HeldUp();
  HeldUp(const HeldUp&) = delete;
  HeldUp& operator=(const HeldUp&) = delete;

  // Whether the thread was interrupted, and has hardly worked: what it was at has most likely failed.
  bool WasInterrupted() const;

 private:
  const std::chrono::steady_clock::time_point since;
  const std::chrono::nanoseconds workBefore;
};

#endif  // VELTA_AGENT_HELD_UP_H
