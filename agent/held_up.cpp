#include "agent/held_up.h"

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#ifndef sigev_notify_thread_id  // the kernel's name for it, which not every C library has
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace {

constexpr int interruption = SIGUSR2;
constexpr int hardlyWorking = 10;  // less than a part of the time in so many

// A timer of the thread that has made it, which sends the signal to this thread alone.
class ThreadTimer {
 public:
  ThreadTimer() {
    static const bool handled = TakeTheSignal();
    sigevent event = sigevent();
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = interruption;
    event.sigev_notify_thread_id = static_cast<pid_t>(syscall(SYS_gettid));
    exists = handled && timer_create(CLOCK_MONOTONIC, &event, &timer) == 0;
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, interruption);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  }
  ~ThreadTimer() {
    if (exists) {
      timer_delete(timer);
    }
  }
  ThreadTimer(const ThreadTimer&) = delete;
  ThreadTimer& operator=(const ThreadTimer&) = delete;

  void Every(std::chrono::seconds interval) {
    if (exists) {
      itimerspec times = itimerspec();
      times.it_value.tv_sec = static_cast<decltype(times.it_value.tv_sec)>(interval.count());
      times.it_interval = times.it_value;
      timer_settime(timer, 0, &times, nullptr);
    }
  }

 private:
  // Without SA_RESTART: that a call is interrupted is all that the signal is for.
  static bool TakeTheSignal() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    return sigaction(interruption, &action, nullptr) == 0;
  }

  timer_t timer = timer_t();
  bool exists = false;
};

ThreadTimer& Timer() {
  thread_local ThreadTimer timer;
  return timer;
}

std::chrono::nanoseconds WorkOfThisThread() {
  timespec used = timespec();
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

}  // namespace

HeldUp::HeldUp() : since(std::chrono::steady_clock::now()), workBefore(WorkOfThisThread()) {
  Timer().Every(patience);
}

HeldUp::~HeldUp() { Timer().Every(std::chrono::seconds::zero()); }

bool HeldUp::WasInterrupted() const {
  const auto elapsed = std::chrono::steady_clock::now() - since;
  return elapsed >= patience && (WorkOfThisThread() - workBefore) * hardlyWorking < elapsed;
}
