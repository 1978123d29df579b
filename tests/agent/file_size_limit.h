#ifndef VELTA_TESTS_AGENT_FILE_SIZE_LIMIT_H
#define VELTA_TESTS_AGENT_FILE_SIZE_LIMIT_H

#include <sys/resource.h>

#include <csignal>
#include <stdexcept>

// Keeps this process from writing any file beyond that size, as a full disk would.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &inherited);
    rlimit limit = inherited;
    limit.rlim_cur = size;
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
      throw std::runtime_error("no limit on the size of files");
    }
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &inherited);
    std::signal(SIGXFSZ, SIG_DFL);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit inherited{};
};

#endif  // VELTA_TESTS_AGENT_FILE_SIZE_LIMIT_H
