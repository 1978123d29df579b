#include "benchmarks/alert/changing_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace {

constexpr char folder[] = "/etc/velta-bench";
constexpr char fresh[] = "/etc/velta-bench/passwd";
constexpr char watched[] = "/etc/passwd";
constexpr mode_t mode = 0644;

// Of all files, so that a name is never one that somebody remembers.
std::uint64_t changes = 0;

std::string NameOf(std::uint64_t change) {
  char text[32];
  std::snprintf(text, sizeof(text), "intruder%010llu", static_cast<unsigned long long>(change));
  return text;
}

void Require(bool done, const char* path) {
  if (!done) {
    throw std::runtime_error(std::string(path) + ": " + std::strerror(errno));
  }
}

void Write(const std::string& content) {
  const int descriptor = open(fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  Require(descriptor >= 0, fresh);
  std::size_t written = 0;
  ssize_t size = 0;
  while (written < content.size() &&
         (size = write(descriptor, content.data() + written, content.size() - written)) > 0) {
    written += static_cast<std::size_t>(size);
  }
  close(descriptor);
  Require(written == content.size(), fresh);
}

}  // namespace

ChangingFile::ChangingFile(std::size_t accounts) : name(NameOf(0)) {
  Require(mkdir(folder, 0755) == 0 || errno == EEXIST, folder);
  content = "root:x:0:0:root:/root:/bin/bash\n";
  for (std::size_t account = 2; account < accounts; ++account) {
    const std::string number = std::to_string(account);
    content += "user" + number + ":x:" + std::to_string(1000 + account) + ":100:User " + number +
               ":/home/user" + number + ":/bin/bash\n";
  }
  namePlace = content.size();
  content += name + ":x:0:0:Intruder:/:/bin/sh\n";
}

ChangingFile::Time ChangingFile::Change() {
  name = NameOf(++changes);
  content.replace(namePlace, name.size(), name);
  Write(content);
  const Time before = Time::clock::now();
  Require(std::rename(fresh, watched) == 0, watched);
  return before;
}
