#ifndef VELTA_TESTS_SUPPORT_HELD_MUTEX_H
#define VELTA_TESTS_SUPPORT_HELD_MUTEX_H

#include <pthread.h>

#include <mutex>

// Holds a mutex on the thread that makes it. A lock of it on the same thread does not wait for ever
// meanwhile, as it otherwise would: it fails with EDEADLK. This is how a test makes a lock fail.
//
// Made and destroyed while nobody else uses the mutex.
class HeldMutex {
 public:
  explicit HeldMutex(std::mutex& mutexToHold) : mutex(mutexToHold) {
    MakeAnew(PTHREAD_MUTEX_ERRORCHECK);
    mutex.lock();
  }
  ~HeldMutex() {
    mutex.unlock();
    MakeAnew(PTHREAD_MUTEX_NORMAL);
  }
  HeldMutex(const HeldMutex&) = delete;
  HeldMutex& operator=(const HeldMutex&) = delete;

 private:
  void MakeAnew(int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutex_destroy(mutex.native_handle());
    pthread_mutex_init(mutex.native_handle(), &attributes);
    pthread_mutexattr_destroy(&attributes);
  }

  std::mutex& mutex;
};

#endif  // VELTA_TESTS_SUPPORT_HELD_MUTEX_H
