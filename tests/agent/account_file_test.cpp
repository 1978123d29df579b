#include "agent/account_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/descriptor_limit.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;

// By the native tool: a 32-bit time_t cannot say it.
void SetTimesTo2040(const std::string& path) {
  ASSERT_EQ(std::system(("touch -d 2040-01-01 '" + path + "'").c_str()), 0);
}

class AccountFileTest : public testing::Test {
 protected:
  TemporaryFolder folder;
  const std::string path = folder.Path("passwd");
};

TEST_F(AccountFileTest, TheFileIsTheOneThatTheModuleReads) { EXPECT_STREQ(accountFilePath, "/etc/passwd"); }

TEST_F(AccountFileTest, AnOrdinaryFileMayBeRead) {
  WriteFile(path, "root:x:0:0::/:/bin/sh\n");
  EXPECT_EQ(ObstacleToReading(path), "");
  ASSERT_EQ(symlink(path.c_str(), folder.Path("link").c_str()), 0);
  EXPECT_EQ(ObstacleToReading(folder.Path("link")), "");
}

// 32-bit machines have no number for such a time, and their stat fails.
TEST_F(AccountFileTest, ATimeBeyondTheCalendarIsNoObstacleAndHidesNone) {
  WriteFile(path, "root:x:0:0::/:/bin/sh\n");
  ASSERT_NO_FATAL_FAILURE(SetTimesTo2040(path));
  EXPECT_EQ(ObstacleToReading(path), "");
  ASSERT_NO_FATAL_FAILURE(SetTimesTo2040(folder.Path()));
  EXPECT_EQ(ObstacleToReading(folder.Path()), folder.Path() + " is not a regular file");
}

TEST_F(AccountFileTest, AMissingFileIsLeftToTheModuleToReport) { EXPECT_EQ(ObstacleToReading(path), ""); }

TEST_F(AccountFileTest, Fault22ALackOfDescriptorsIsAnObstacleUntilItIsOver) {
  WriteFile(path, "root:x:0:0::/:/bin/sh\n");
  {
    const DescriptorLimit none(0);
    EXPECT_EQ(ObstacleToReading(path), path + " cannot be opened: Too many open files");
  }
  {
    const DescriptorLimit one(1);
    EXPECT_EQ(ObstacleToReading(path), "");
  }
}

TEST_F(AccountFileTest, WhatIsNoFileIsAnObstacle) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(ObstacleToReading(path), path + " is not a regular file");
  EXPECT_EQ(ObstacleToReading(folder.Path()), folder.Path() + " is not a regular file");
  EXPECT_EQ(ObstacleToReading("/dev/zero"), "/dev/zero is not a regular file");
}

TEST_F(AccountFileTest, AFileBeyondTheLimitIsAnObstacle) {
  constexpr off_t limit = 256 << 20;
  WriteFile(path, "");
  ASSERT_EQ(truncate(path.c_str(), limit), 0);
  EXPECT_EQ(ObstacleToReading(path), "");
  ASSERT_EQ(truncate(path.c_str(), limit + 1), 0);
  EXPECT_EQ(ObstacleToReading(path), path + " is larger than 256 MiB");
}

using Answer = TaskScheduler::Permission::Answer;

class ReadingGateTest : public testing::Test {
 protected:
  static std::optional<FileStatus> Regular(std::uint64_t size) {
    FileStatus status = FileStatus();
    status.regular = true;
    status.size = size;
    return status;
  }

  Answer AskAt(int ms, const std::optional<FileStatus>& status) {
    return gate
        .Ask("/passwd", status, ReadingGate::Time(std::chrono::hours(1)) + std::chrono::milliseconds(ms))
        .answer;
  }

  ReadingGate gate;
};

TEST_F(ReadingGateTest, AFileWithContentAndOneThatIsMissingMayBeRead) {
  EXPECT_EQ(AskAt(0, Regular(1)), Answer::Yes);
  EXPECT_EQ(AskAt(0, std::nullopt), Answer::Yes);
}

TEST_F(ReadingGateTest, WhatIsNoFileIsRefusedWithTheReason) {
  const TaskScheduler::Permission permission = gate.Ask("/passwd", FileStatus(), ReadingGate::Time());
  EXPECT_EQ(permission.answer, Answer::No);
  EXPECT_EQ(permission.reason, "/passwd is not a regular file");
}

TEST_F(ReadingGateTest, ALackOfDescriptorsIsNotTakenForAMissingFile) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("passwd", "root:x:0:0::/:/bin/sh\n");
  const auto ask = [&] { return gate.Ask(path, ReadingGate::Time()); };
  EXPECT_EQ(ask().answer, Answer::Yes);
  {
    const DescriptorLimit none(0);
    const TaskScheduler::Permission permission = ask();
    EXPECT_EQ(permission.answer, Answer::No);
    EXPECT_EQ(permission.reason, path + " cannot be opened: Too many open files");
  }
  EXPECT_EQ(ask().answer, Answer::Yes);
  EXPECT_EQ(gate.Ask(folder.Path("none"), ReadingGate::Time()).answer, Answer::Yes);
}

TEST_F(ReadingGateTest, AnObstacleIsToldOnceUntilReadingsBeginAgain) {
  const TemporaryFolder folder;
  const std::string path = folder.Path("passwd");
  std::vector<std::string> told;
  ReadingGate telling([&told](const std::string& reason) { told.push_back(reason); });
  const auto ask = [&] { return telling.Ask(path, ReadingGate::Time()).answer; };
  folder.MakeFifo("passwd");
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_THAT(told, ElementsAre(path + " is not a regular file"));
  std::filesystem::remove(path);
  folder.Write("passwd", "");
  std::filesystem::resize_file(path, largestAccountFile + 1);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_THAT(told, ElementsAre(path + " is not a regular file", path + " is larger than 256 MiB"));
  std::filesystem::resize_file(path, 1);
  EXPECT_EQ(ask(), Answer::Yes);
  std::filesystem::resize_file(path, largestAccountFile + 1);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_EQ(told.size(), 3u) << "it is another time";
}

TEST(UnreadableEventTest, HasTheFormOfAnAlert) {
  static const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)");
  EXPECT_EQ(
      std::regex_replace(UnreadableEvent("/etc/passwd", "what \"it\" is"), time, "TIME"),
      R"({"eventType":"account-file-unreadable","eventTime":"TIME","eventContent":{"path":"/etc/passwd","reason":"what \"it\" is"}})");
}

TEST_F(ReadingGateTest, AnEmptyFileIsReadOnceItHasBeenEmptyForASecond) {
  EXPECT_EQ(AskAt(0, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(400, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(999, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(1000, Regular(0)), Answer::Yes);
  EXPECT_EQ(AskAt(1001, Regular(0)), Answer::Yes);
}

TEST_F(ReadingGateTest, EachTimeThatTheFileIsEmptyCountsAnew) {
  EXPECT_EQ(AskAt(0, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(900, Regular(1)), Answer::Yes);
  EXPECT_EQ(AskAt(1000, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(1999, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(2000, Regular(0)), Answer::Yes);
}

}  // namespace
