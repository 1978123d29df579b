#include "agent/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"

namespace {

constexpr std::int64_t newYear2040 = 2208988800;  // in UTC

class FileStatusTest : public testing::Test {
 protected:
  FileStatusTest() { WriteFile(path, "text"); }

  TemporaryFolder folder;
  const std::string path = folder.Path("file");
};

TEST_F(FileStatusTest, TellsWhatIsBehindAPathOrADescriptor) {
  ASSERT_EQ(symlink(path.c_str(), folder.Path("link").c_str()), 0);
  const std::optional<FileStatus> status = FileStatus::OfPath(folder.Path("link"));
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->regular);
  EXPECT_EQ(status->size, 4u);
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(FileStatus::OfDescriptor(descriptor), status);
  close(descriptor);
  ASSERT_TRUE(FileStatus::OfPath(folder.Path()));
  EXPECT_FALSE(FileStatus::OfPath(folder.Path())->regular);
}

TEST_F(FileStatusTest, NothingIsToldOfWhatIsNotThere) {
  errno = 0;
  EXPECT_FALSE(FileStatus::OfPath(folder.Path("nothing")));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(FileStatus::OfDescriptor(-1));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileStatusTest, AnotherFileOrAnotherContentIsAnotherStatus) {
  const FileStatus before = *FileStatus::OfPath(path);
  EXPECT_EQ(*FileStatus::OfPath(path), before);
  ReplaceFile(path, "text");
  const FileStatus replaced = *FileStatus::OfPath(path);
  EXPECT_FALSE(replaced.IsSameFile(before));
  EXPECT_FALSE(replaced == before);
  WriteFile(path, "longer");
  EXPECT_TRUE(FileStatus::OfPath(path)->IsSameFile(replaced));
  EXPECT_FALSE(*FileStatus::OfPath(path) == replaced);
}

// 32-bit machines have no number for such a time, and their stat fails.
TEST_F(FileStatusTest, TimesBeyondA32BitCalendarAreTold) {
  ASSERT_EQ(std::system(("TZ=UTC touch -d 2040-01-01 '" + path + "'").c_str()), 0);
  const std::optional<FileStatus> status = FileStatus::OfPath(path);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->modifiedSec, newYear2040);
}

}  // namespace
