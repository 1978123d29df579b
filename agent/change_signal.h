#ifndef VELTA_AGENT_CHANGE_SIGNAL_H
#define VELTA_AGENT_CHANGE_SIGNAL_H

#include <pthread.h>
#include <signal.h>

#include <atomic>

// Tells one thread, by a signal that it waits for, that something has changed. While it has not looked yet,
// further changes cost nothing: a thousand a second would wake it a thousand times, beside those who bring an
// alert on its way.
//
// Thread use: Note on any thread, Take on the one that is told.
class ChangeSignal {
 public:
  ChangeSignal(pthread_t toldThread, int signalNumber) : thread(toldThread), number(signalNumber) {}

  void Note() noexcept {
    if (!noted.exchange(true)) {
      pthread_kill(thread, number);
    }
  }

  // Comes before the look: what changes during it is told of once more.
  void Take() noexcept { noted = false; }

 private:
  const pthread_t thread;
  const int number;
  std::atomic<bool> noted{false};
};

#endif  // VELTA_AGENT_CHANGE_SIGNAL_H
