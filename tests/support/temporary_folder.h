#ifndef VELTA_TESTS_SUPPORT_TEMPORARY_FOLDER_H
#define VELTA_TESTS_SUPPORT_TEMPORARY_FOLDER_H

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

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

// A folder of a test's own, gone with this object. Open to everybody, so that a process without rights can
// use it, too.
class TemporaryFolder {
 public:
  TemporaryFolder() : path((std::filesystem::temp_directory_path() / "velta-test-XXXXXX").string()) {
    if (mkdtemp(path.data()) == nullptr || chmod(path.c_str(), 0755) != 0) {
      throw std::runtime_error("no temporary folder: " + path);
    }
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& Path() const { return path; }
  std::string Path(const std::string& name) const { return path + "/" + name; }

  // Writes the file anew; returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    WriteFile(Path(name), content);
    return Path(name);
  }

  std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    if (!file) {
      return "cannot read " + Path(name);
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
  }

  // Returns its path.
  std::string MakeFifo(const std::string& name) const {
    if (mkfifo(Path(name).c_str(), 0666) != 0 || chmod(Path(name).c_str(), 0666) != 0) {
      throw std::runtime_error("no FIFO " + Path(name));
    }
    return Path(name);
  }

 private:
  std::string path;
};

#endif  // VELTA_TESTS_SUPPORT_TEMPORARY_FOLDER_H
