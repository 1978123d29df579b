#include "fuzz/memory_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_target.h"

namespace {

int OpenMemoryFile() {
  const std::string path = VELTA_MEMORY_FILE;
  const int number = std::stoi(path.substr(path.rfind('/') + 1));
  const int file = memfd_create("fuzz", MFD_CLOEXEC);
  Check(file >= 0 && dup3(file, number, O_CLOEXEC) == number, "no file in memory");
  close(file);
  return number;
}

}  // namespace

void WriteMemoryFile(const std::string& content) {
  static const int file = OpenMemoryFile();
  Check(ftruncate(file, 0) == 0, "the file in memory was not emptied");
  const ssize_t written = pwrite(file, content.data(), content.size(), 0);
  Check(written == static_cast<ssize_t>(content.size()), "the file in memory was not written");
}
