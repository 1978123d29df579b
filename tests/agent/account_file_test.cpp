#include "agent/account_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/descriptor_limit.h"
#include "tests/support/event_time.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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
  constexpr off_t limit = 96 << 20;
  WriteFile(path, "");
  ASSERT_EQ(truncate(path.c_str(), limit), 0);
  EXPECT_EQ(ObstacleToReading(path), "");
  ASSERT_EQ(truncate(path.c_str(), limit + 1), 0);
  EXPECT_EQ(ObstacleToReading(path), path + " is larger than 96 MiB");
}

TEST(LargestAccountFile, HoldsAMillionAccountsOfTheUsualLength) {
  const std::string line =
      "user1000000:x:1001000:1001000:First and Last Name,,,:/home/user1000000:/usr/bin/bash\n";
  EXPECT_LE(1000000 * line.size(), largestAccountFile);
}

using Answer = TaskScheduler::Permission::Answer;

class ReadingGateTest : public testing::Test {
 protected:
  static AccountFileLook Regular(std::uint64_t size) {
    AccountFileLook look;
    look.status = FileStatus();
    look.status->regular = true;
    look.status->size = size;
    return look;
  }
  static AccountFileLook Missing() { return {std::nullopt, ENOENT}; }
  static AccountFileLook Forbidden() {
    AccountFileLook look = Regular(1);
    look.error = EACCES;
    return look;
  }
  static ReadingGate::Time At(int ms) {
    return ReadingGate::Time(std::chrono::hours(1)) + std::chrono::milliseconds(ms);
  }

  Answer AskAt(int ms, const AccountFileLook& look) { return gate.Ask("/passwd", look, At(ms)).answer; }

  ReadingGate gate;
};

TEST_F(ReadingGateTest, AFileWithContentMayBeReadAtOnce) { EXPECT_EQ(AskAt(0, Regular(1)), Answer::Yes); }

TEST_F(ReadingGateTest, WhatIsMissingOrForbiddenForASecondIsLeftToTheModuleAndToldOnce) {
  struct Row {
    AccountFileLook look;
    std::string reason;
  };
  for (const Row& row : {Row{Missing(), "/passwd cannot be opened: No such file or directory"},
                         Row{Forbidden(), "/passwd cannot be opened: Permission denied"}}) {
    std::vector<std::string> told;
    ReadingGate telling([&told](const std::string& reason) { told.push_back(reason); });
    EXPECT_EQ(telling.Ask("/passwd", row.look, At(0)).answer, Answer::NotYet)
        << "a new one may be on its way";
    EXPECT_EQ(telling.Ask("/passwd", row.look, At(999)).answer, Answer::NotYet);
    EXPECT_THAT(told, IsEmpty());
    for (const int ms : {1000, 300000}) {
      const TaskScheduler::Permission permission = telling.Ask("/passwd", row.look, At(ms));
      EXPECT_EQ(permission.answer, Answer::Yes);
      EXPECT_EQ(permission.reason, row.reason);
    }
    EXPECT_THAT(told, ElementsAre(row.reason));
    EXPECT_EQ(telling.Ask("/passwd", Regular(1), At(300001)).reason, "");
    telling.Ask("/passwd", row.look, At(300002));
    telling.Ask("/passwd", row.look, At(301002));
    EXPECT_THAT(told, ElementsAre(row.reason, row.reason)) << "it is another time";
  }
}

// A broken link makes room for the file: between the two, nothing is there for a moment.
TEST_F(ReadingGateTest, ADifferentErrorIsToldWhenItHasLastedForASecondToo) {
  std::vector<std::string> told;
  ReadingGate telling([&told](const std::string& reason) { told.push_back(reason); });
  const AccountFileLook loop{std::nullopt, ELOOP};
  telling.Ask("/passwd", loop, At(0));
  telling.Ask("/passwd", loop, At(1000));
  EXPECT_THAT(told, ElementsAre("/passwd cannot be opened: Too many levels of symbolic links"));
  EXPECT_EQ(telling.Ask("/passwd", Missing(), At(5000)).answer, Answer::NotYet);
  EXPECT_EQ(telling.Ask("/passwd", Missing(), At(5999)).answer, Answer::NotYet);
  EXPECT_EQ(told.size(), 1u);
  EXPECT_EQ(telling.Ask("/passwd", Missing(), At(6000)).answer, Answer::Yes);
  EXPECT_EQ(told.back(), "/passwd cannot be opened: No such file or directory");
}

TEST_F(ReadingGateTest, ALookSaysWhatIsMissingAndWhatIsThere) {
  const TemporaryFolder folder;
  EXPECT_EQ(LookAtAccountFile(folder.Path("none")).error, ENOENT);
  EXPECT_FALSE(LookAtAccountFile(folder.Path("none")).status);
  const AccountFileLook look = LookAtAccountFile(folder.Write("passwd", "text"));
  EXPECT_EQ(look.error, 0);
  ASSERT_TRUE(look.status);
  EXPECT_EQ(look.status->size, 4u);
}

TEST_F(ReadingGateTest, WhatIsNoFileIsRefusedWithTheReason) {
  const TaskScheduler::Permission permission = gate.Ask("/passwd", {FileStatus(), 0}, ReadingGate::Time());
  EXPECT_EQ(permission.answer, Answer::No);
  EXPECT_EQ(permission.reason, "/passwd is not a regular file");
}

TEST_F(ReadingGateTest, ALackOfDescriptorsIsNotTakenForAMissingFile) {
  const TemporaryFolder folder;
  const std::string path = folder.Write("passwd", "root:x:0:0::/:/bin/sh\n");
  const auto ask = [&](int ms) { return gate.Ask(path, At(ms)); };
  EXPECT_EQ(ask(0).answer, Answer::Yes);
  {
    const DescriptorLimit none(0);
    EXPECT_EQ(ask(0).answer, Answer::NotYet) << "another thread may have the last one for a moment";
    EXPECT_EQ(ask(999).answer, Answer::NotYet);
    const TaskScheduler::Permission permission = ask(1000);
    EXPECT_EQ(permission.answer, Answer::No);
    EXPECT_EQ(permission.reason, path + " cannot be opened: Too many open files");
  }
  EXPECT_EQ(ask(1001).answer, Answer::Yes);
}

TEST_F(ReadingGateTest, AnObstacleIsToldOnceUntilReadingsBeginAgain) {
  const TemporaryFolder folder;
  const std::string path = folder.Path("passwd");
  std::vector<std::string> told;
  ReadingGate telling([&told](const std::string& reason) { told.push_back(reason); });
  ReadingGate::Time now;
  const auto ask = [&] { return telling.Ask(path, now).answer; };
  folder.MakeFifo("passwd");
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_THAT(told, ElementsAre(path + " is not a regular file"));
  std::filesystem::remove(path);
  folder.Write("passwd", "");
  std::filesystem::resize_file(path, largestAccountFile + 1);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_THAT(told, ElementsAre(path + " is not a regular file", path + " is larger than 96 MiB"));
  std::filesystem::resize_file(path, 1);
  EXPECT_EQ(ask(), Answer::Yes);
  now += std::chrono::minutes(1);
  std::filesystem::resize_file(path, largestAccountFile + 1);
  EXPECT_EQ(ask(), Answer::No);
  EXPECT_EQ(told.size(), 3u) << "it is another time";
}

TEST_F(ReadingGateTest, WhatComesAndGoesIsToldOnceAMinuteAndLaterIfItStandsThen) {
  std::vector<std::string> told;
  ReadingGate telling([&told](const std::string& reason) { told.push_back(reason); });
  const AccountFileLook fifo{FileStatus(), 0};
  const std::string noFile = "/passwd is not a regular file";
  for (int ms = 0; ms < 6000; ms += 6) {
    EXPECT_EQ(telling.Ask("/passwd", fifo, At(ms)).reason, noFile) << "the log is told each time";
    EXPECT_EQ(telling.Ask("/passwd", Regular(1), At(ms + 3)).reason, "");
  }
  EXPECT_THAT(told, ElementsAre(noFile));
  telling.Ask("/passwd", Regular(largestAccountFile + 1), At(6000));
  EXPECT_EQ(told.size(), 2u) << "another reason has a minute of its own";
  telling.Ask("/passwd", fifo, At(6001));
  telling.Ask("/passwd", fifo, At(59999));
  EXPECT_EQ(told.size(), 2u);
  telling.Ask("/passwd", fifo, At(60000));
  EXPECT_EQ(told.back(), noFile) << "it stands, and was passed over";
  EXPECT_EQ(told.size(), 3u);
  telling.Ask("/passwd", fifo, At(600000));
  EXPECT_EQ(told.size(), 3u) << "it was told, and has not gone since";
}

TEST(UnreadableEventTest, HasTheFormOfAnAlert) {
  EXPECT_EQ(
      WithoutTimes(UnreadableEvent("/etc/passwd", "what \"it\" is")),
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

TEST_F(ReadingGateTest, AFileThatIsMissingAndThenEmptyHasBeenEmptyOnlySinceThen) {
  EXPECT_EQ(AskAt(0, Missing()), Answer::NotYet);
  EXPECT_EQ(AskAt(900, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(1899, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(1900, Regular(0)), Answer::Yes);
}

TEST_F(ReadingGateTest, AnObstacleBetweenTwoEmptyFilesMakesTheSecondCountAnew) {
  EXPECT_EQ(AskAt(0, Regular(0)), Answer::NotYet);
  EXPECT_EQ(AskAt(500, {FileStatus(), 0}), Answer::No);
  EXPECT_EQ(AskAt(1000, Regular(0)), Answer::NotYet);
}

}  // namespace
