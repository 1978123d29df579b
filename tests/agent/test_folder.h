#ifndef VELTA_TESTS_AGENT_TEST_FOLDER_H
#define VELTA_TESTS_AGENT_TEST_FOLDER_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

// A folder of the test's own, gone at the end.
class TestFolder {
 public:
  TestFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "velta-agent-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make " + pattern);
    }
    path = pattern;
  }
  ~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;

  const std::string& Path() const { return path; }
  std::string File(const std::string& name) const { return path + "/" + name; }

 private:
  std::string path;
};

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

// A change that cannot be made is a fault of the test's surroundings, so these throw.

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

// A new file in the place of the old one, as account tools do it.
inline void ReplaceFile(const std::string& path, const std::string& content) {
  WriteFile(path + ".new", content);
  std::filesystem::rename(path + ".new", path);
}

#endif  // VELTA_TESTS_AGENT_TEST_FOLDER_H
