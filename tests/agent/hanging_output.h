#ifndef VELTA_TESTS_AGENT_HANGING_OUTPUT_H
#define VELTA_TESTS_AGENT_HANGING_OUTPUT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "agent/event_output.h"

// Does not keep to its patience.
class HangingOutput : public EventOutput {
 public:
  Outcome Write(const std::string& /*event*/, std::chrono::milliseconds /*patience*/) override {
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    changed.notify_all();
    changed.wait(lock, [this] { return released; });
    return Outcome::Delivered;
  }
  const std::string& Error() const override { return none; }
  const std::string& Name() const override { return name; }

  void AwaitEntry() {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [this] { return entered; });
  }
  void Release() {
    const std::lock_guard<std::mutex> lock(mutex);
    released = true;
    changed.notify_all();
  }

 private:
  const std::string none;
  const std::string name = "hanging";
  std::mutex mutex;
  std::condition_variable changed;
  bool entered = false;
  bool released = false;
};

#endif  // VELTA_TESTS_AGENT_HANGING_OUTPUT_H
