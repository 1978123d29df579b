#include "agent/change_signal.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <thread>

namespace {

class ChangeSignalTest : public testing::Test {
 protected:
  ChangeSignalTest() {
    sigemptyset(&signals);
    sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
  }
  ~ChangeSignalTest() override { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

  // Takes the pending signal away.
  bool WasTold() const {
    const timespec none = {0, 0};
    return sigtimedwait(&signals, nullptr, &none) == number;
  }

  const int number = SIGUSR1;
  sigset_t signals;
  sigset_t before;
  ChangeSignal changes{pthread_self(), number};
};

TEST_F(ChangeSignalTest, AChangeOnAnyThreadTellsTheOneThreadThatWaits) {
  EXPECT_FALSE(WasTold());
  std::thread([this] { changes.Note(); }).join();
  EXPECT_TRUE(WasTold());
}

TEST_F(ChangeSignalTest, ChangesBeforeTheLookAreOneAndOneAfterItIsToldAnew) {
  changes.Note();
  EXPECT_TRUE(WasTold());
  changes.Note();
  EXPECT_FALSE(WasTold()) << "the thread knows already";
  changes.Take();
  EXPECT_FALSE(WasTold()) << "a look is no change";
  changes.Note();
  EXPECT_TRUE(WasTold());
}

}  // namespace
