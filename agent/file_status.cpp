#include "agent/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

std::optional<FileStatus> StatusOf(int descriptor, const char* path, int flags) {
  struct statx answer;
  if (statx(descriptor, path, flags, STATX_BASIC_STATS, &answer) != 0) {
    return std::nullopt;
  }
  FileStatus status = FileStatus();
  status.regular = S_ISREG(answer.stx_mode);
  status.device = std::uint64_t{answer.stx_dev_major} << 32 | answer.stx_dev_minor;
  status.inode = answer.stx_ino;
  status.size = answer.stx_size;
  status.modifiedSec = answer.stx_mtime.tv_sec;
  status.modifiedNsec = answer.stx_mtime.tv_nsec;
  status.changedSec = answer.stx_ctime.tv_sec;
  status.changedNsec = answer.stx_ctime.tv_nsec;
  return status;
}

}  // namespace

std::optional<FileStatus> FileStatus::OfPath(const std::string& path) {
  return StatusOf(AT_FDCWD, path.c_str(), 0);
}

std::optional<FileStatus> FileStatus::OfDescriptor(int descriptor) {
  return StatusOf(descriptor, "", AT_EMPTY_PATH);
}

bool FileStatus::operator==(const FileStatus& other) const {
  return regular == other.regular && IsSameFile(other) && size == other.size &&
         modifiedSec == other.modifiedSec && modifiedNsec == other.modifiedNsec &&
         changedSec == other.changedSec && changedNsec == other.changedNsec;
}
