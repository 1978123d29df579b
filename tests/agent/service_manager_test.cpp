#include "agent/service_manager.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/logger.h"
#include "tests/support/temporary_folder.h"

namespace {

using std::chrono::microseconds;
using testing::HasSubstr;

class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManagerTest() {
    setenv("NOTIFY_SOCKET", folder.Write("notified", "").c_str(), 1);
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }
  ~ServiceManagerTest() override { unsetenv("NOTIFY_SOCKET"); }

  TemporaryFolder folder;
  Logger logger{LogLevel::Off};
};

TEST_F(ServiceManagerTest, WithoutAManagerNothingIsLoadedAndNothingFails) {
  unsetenv("NOTIFY_SOCKET");
  setenv("WATCHDOG_USEC", "1000", 1);
  ServiceManager manager(logger, "no-such-library");
  EXPECT_FALSE(manager.IsThere());
  EXPECT_EQ(manager.Watchdog(), microseconds::zero());
  EXPECT_TRUE(manager.Tell("READY=1"));
}

TEST_F(ServiceManagerTest, TheLibraryIsToldAndDoesNotStay) {
  ServiceManager manager(logger, VELTA_SAMPLE_NOTIFY);
  EXPECT_TRUE(manager.Tell("READY=1\nSTATUS=well"));
  EXPECT_TRUE(manager.Tell("WATCHDOG=1"));
  EXPECT_EQ(folder.Read("notified"), "READY=1\nSTATUS=well\n--\nWATCHDOG=1\n--\n");
  EXPECT_EQ(dlopen(VELTA_SAMPLE_NOTIFY, RTLD_NOLOAD | RTLD_NOW), nullptr);
}

TEST_F(ServiceManagerTest, WhatCannotBeSentIsNoSignAndTheNextOneIsTriedAgain) {
  ServiceManager manager(logger, VELTA_SAMPLE_NOTIFY);
  setenv("NOTIFY_SOCKET", folder.Path("elsewhere").c_str(), 1);
  EXPECT_FALSE(manager.Tell("READY=1"));
  folder.Write("elsewhere", "");
  EXPECT_TRUE(manager.Tell("READY=1"));
  EXPECT_FALSE(ServiceManager(logger, "no-such-library").Tell("READY=1"));
  EXPECT_FALSE(ServiceManager(logger, "libm.so.6").Tell("READY=1")) << "it has no sd_notify";
}

TEST_F(ServiceManagerTest, TheWatchdogIsTheOneThatIsMeantForThisProcess) {
  struct Row {
    const char* time;
    std::string process;
    long long microseconds;
  };
  const Row rows[] = {{"120000000", "", 120000000},
                      {"120000000", std::to_string(getpid()), 120000000},
                      {"120000000", "1", 0},
                      {"", "", 0},
                      {"-5", "", 0},
                      {"1s", "", 0},
                      {"99999999999999999999999", "", 0}};
  for (const Row& row : rows) {
    setenv("WATCHDOG_USEC", row.time, 1);
    if (row.process.empty()) {
      unsetenv("WATCHDOG_PID");
    } else {
      setenv("WATCHDOG_PID", row.process.c_str(), 1);
    }
    EXPECT_EQ(ServiceManager(logger).Watchdog().count(), row.microseconds) << row.time << " " << row.process;
  }
}

}  // namespace
