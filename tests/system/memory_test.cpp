#include <chrono>
#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/system/agent_fixture.h"
#include "tests/system/agent_process.h"
#include "tests/system/target.h"

namespace {

class MemoryTest : public AgentFixture {
 protected:
  void SetUp() override {
    if (VELTA_SANITIZED || emulated) {
      GTEST_SKIP() << "a sanitizer keeps freed memory, and an emulator's own memory hides the agent's";
    }
  }
};

std::string Accounts(std::size_t count, const std::string& lastLine) {
  std::string content = "root:x:0:0:root:/root:/bin/bash\n";
  for (std::size_t number = 1000; number < 1000 + count; ++number) {
    const std::string text = std::to_string(number);
    content += "user" + text + ":x:" + text + ":" + text + "::/home/user" + text + ":/bin/bash\n";
  }
  return content + lastLine + "\n";
}

// In kB: what no file stands behind.
std::size_t OwnMemory(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    if (word == "RssAnon:") {
      std::size_t size = 0;
      status >> size;
      return size;
    }
  }
  throw std::runtime_error("no RssAnon");
}

TEST_F(MemoryTest, WhatAReadingOfALargeFileTookIsGivenBackAfterTheNextOfASmallOne) {
  const auto agent = Watching({});
  etc.ReplacePasswd(Accounts(50, RootLine("first")));
  EXPECT_EQ(agent->NextAlert(), AlertFor("first"));
  const std::size_t before = OwnMemory(agent->Process());
  etc.ReplacePasswd(Accounts(100000, RootLine("second")));
  EXPECT_EQ(agent->NextAlert(), AlertFor("second"));
  const std::size_t atThePeak = OwnMemory(agent->Process());
  ASSERT_GT(atThePeak, before + 8192);  // or there is nothing to give back

  etc.ReplacePasswd(Accounts(50, RootLine("third")));
  EXPECT_EQ(agent->NextAlert(), AlertFor("third"));

  // It is given back behind the alert.
  const auto end = std::chrono::steady_clock::now() + patience;
  while (OwnMemory(agent->Process()) > before + 1024 && std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  EXPECT_LE(OwnMemory(agent->Process()), before + 1024);
}

}  // namespace
