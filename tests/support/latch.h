#ifndef VELTA_TESTS_SUPPORT_LATCH_H
#define VELTA_TESTS_SUPPORT_LATCH_H

#include <chrono>
#include <condition_variable>
#include <mutex>

// A gate that opens once and stays open: where the threads of a test meet.
class Latch {
 public:
  void Open() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      open = true;
    }
    opened.notify_all();
  }

  // False when nobody opened it within a limit that only a broken build reaches.
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex);
    return opened.wait_for(lock, std::chrono::seconds(60), [this] { return open; });
  }

 private:
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;  // guarded by mutex
};

#endif  // VELTA_TESTS_SUPPORT_LATCH_H
