#ifndef VELTA_AGENT_FILE_STATUS_H
#define VELTA_AGENT_FILE_STATUS_H

#include <cstdint>
#include <optional>
#include <string>

// What the system tells of a file, behind links. Unlike stat, it works on a 32-bit machine for files whose
// times lie beyond its calendar: anybody who may set a time could otherwise make a file unreadable to the
// agent.
struct FileStatus {
  bool regular;
  std::uint64_t device;
  std::uint64_t inode;
  std::uint64_t size;
  std::int64_t modifiedSec;
  std::uint32_t modifiedNsec;
  std::int64_t changedSec;
  std::uint32_t changedNsec;

  // Nothing, with errno set, when the system does not tell.
  static std::optional<FileStatus> OfPath(const std::string& path);
  static std::optional<FileStatus> OfDescriptor(int descriptor);

  bool IsSameFile(const FileStatus& other) const { return device == other.device && inode == other.inode; }

  // Equal: nothing that matters has changed.
  bool operator==(const FileStatus& other) const;
};

#endif  // VELTA_AGENT_FILE_STATUS_H
