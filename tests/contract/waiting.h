#ifndef VELTA_TESTS_CONTRACT_WAITING_H
#define VELTA_TESTS_CONTRACT_WAITING_H

#include <chrono>
#include <condition_variable>
#include <mutex>

// Only a broken host ever reaches it.
constexpr std::chrono::seconds patience(60);

// How long a test gives a host to do what it must not do, before the test believes that it will not. Never
// delays a good host's success: on the road where it passes in full, nothing was wrong.
constexpr std::chrono::milliseconds temptation(200);

// Counts what happens on any thread, and lets a test wait for it.
class Tally {
 public:
  void Add() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ++count;
    }
    changed.notify_all();
  }

  int Count() const {
    std::lock_guard<std::mutex> lock(mutex);
    return count;
  }

  // False when the limit passed before there were as many.
  bool Reaches(int wanted, std::chrono::milliseconds limit = patience) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [&] { return count >= wanted; });
  }

 private:
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  int count = 0;  // guarded by mutex
};

#endif  // VELTA_TESTS_CONTRACT_WAITING_H
