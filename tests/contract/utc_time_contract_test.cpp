#include "host/utc_time.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/contract/host_under_test.h"

namespace {

class UtcTimeContract : public testing::Test {
 private:
  HostUnderTest host;
};

// Only that: the form is the host's.
TEST_F(UtcTimeContract, ThereIsATime) {
  std::string text;
  UtilsGetUtcTime(text);
  EXPECT_NE(text, "");
}

TEST_F(UtcTimeContract, ThereIsATimeForEveryThread) {
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([] {
      for (int call = 0; call < 200; ++call) {
        std::string text;
        UtilsGetUtcTime(text);
        EXPECT_NE(text, "");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
