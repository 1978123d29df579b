#include "agent/account_file.h"

#include <sys/stat.h>

#include <cerrno>

const char accountFilePath[] = "/etc/passwd";

namespace {

// Far above any account file, and what a reading of it can need is still bounded.
constexpr off_t largestMiB = 256;

}  // namespace

std::string ObstacleToReading(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    return errno == EOVERFLOW ? path + " is too large" : "";
  }
  if (!S_ISREG(status.st_mode)) {
    return path + " is not a regular file";
  }
  if (status.st_size > largestMiB << 20) {
    return path + " is larger than " + std::to_string(largestMiB) + " MiB";
  }
  return "";
}
