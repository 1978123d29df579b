#ifndef VELTA_TESTS_AGENT_DESCRIPTOR_LIMIT_H
#define VELTA_TESTS_AGENT_DESCRIPTOR_LIMIT_H

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

// While it lives, the process can open only so many more descriptors.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int spare) {
    if (getrlimit(RLIMIT_NOFILE, &before) != 0) {
      throw std::system_error(errno, std::generic_category(), "getrlimit");
    }
    std::vector<int> taken;
    for (int i = 0; i <= spare; ++i) {
      taken.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    rlimit limit = before;
    limit.rlim_cur =
        static_cast<rlim_t>(taken.back());  // the lowest number that is free beyond the spare ones
    for (const int descriptor : taken) {
      close(descriptor);
    }
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      throw std::system_error(errno, std::generic_category(), "setrlimit");
    }
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before = rlimit();
};

#endif  // VELTA_TESTS_AGENT_DESCRIPTOR_LIMIT_H
