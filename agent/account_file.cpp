#include "agent/account_file.h"

#include <cstdint>
#include <optional>

#include "agent/file_status.h"

const char accountFilePath[] = "/etc/passwd";

namespace {

// Far above any account file, and what a reading of it can need is still bounded.
constexpr std::uint64_t largestMiB = 256;

}  // namespace

std::string ObstacleToReading(const std::string& path) {
  const std::optional<FileStatus> status = FileStatus::OfPath(path);
  if (!status) {
    return "";
  }
  if (!status->regular) {
    return path + " is not a regular file";
  }
  if (status->size > largestMiB << 20) {
    return path + " is larger than " + std::to_string(largestMiB) + " MiB";
  }
  return "";
}
