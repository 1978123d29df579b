#include "agent/account_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"

namespace {

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

}  // namespace
