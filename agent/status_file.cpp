#include "agent/status_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "agent/file_status.h"

const char defaultStatusPath[] = "/run/velta-agent/status.json";

namespace {

constexpr mode_t mode = 0644;                          // monitoring runs as somebody else
constexpr std::size_t longest = std::size_t{1} << 20;  // bytes; nobody else's file is read whole

class Descriptor {
 public:
  explicit Descriptor(int number) : descriptor(number) {}
  ~Descriptor() {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return descriptor; }
  int Release() { return std::exchange(descriptor, -1); }

 private:
  int descriptor;
};

struct flock WholeFile(short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Whether a process holds the lock of a writer. A lock of the descriptor's, not of the process's: those go
// with any descriptor of the file that is closed.
bool IsHeld(int descriptor) {
  struct flock lock = WholeFile(F_RDLCK);
  return fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool Hold(int descriptor) {
  struct flock lock = WholeFile(F_WRLCK);
  return fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

int OpenForReading(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

bool IsAt(const std::string& path, int descriptor) {
  const std::optional<FileStatus> there = FileStatus::OfPath(path);
  const std::optional<FileStatus> ours = FileStatus::OfDescriptor(descriptor);
  return there && ours && there->IsSameFile(*ours);
}

}  // namespace

StatusFile::~StatusFile() {
  if (current >= 0) {
    if (IsAt(path, current)) {
      unlink(path.c_str());
    }
    close(current);
  }
}

bool StatusFile::Fail(const std::string& reason) {
  error = path + ": " + reason;
  return false;
}

bool StatusFile::Write(const std::string& text) {
  const bool ours = current >= 0 && IsAt(path, current);
  if (!ours) {
    const Descriptor there(OpenForReading(path));
    if (there.Get() >= 0 && IsHeld(there.Get())) {
      return Fail("another agent's");
    }
  }
  const std::string fresh = path + "." + std::to_string(getpid());
  if (!WriteNew(fresh, text)) {
    const std::string reason = error;
    unlink(fresh.c_str());
    return Fail(reason);
  }
  return true;
}

// Locked before it has its name, and before anybody else may open it.
bool StatusFile::WriteNew(const std::string& fresh, const std::string& text) {
  unlink(fresh.c_str());
  Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
  const std::string line = text + "\n";
  const bool written = file.Get() >= 0 && Hold(file.Get()) &&
                       write(file.Get(), line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
                       fchmod(file.Get(), mode) == 0 && std::rename(fresh.c_str(), path.c_str()) == 0;
  if (!written) {
    error = std::strerror(errno);
    return false;
  }
  if (current >= 0) {
    close(current);
  }
  current = file.Release();
  error.clear();
  return true;
}

StatusFound ReadStatusFile(const std::string& path) {
  StatusFound result;
  // An agent that lives may have replaced the file, and let go of it, since it was opened.
  for (int attempt = 0; attempt < 10; ++attempt) {
    const Descriptor file(OpenForReading(path));
    const std::optional<FileStatus> status =
        file.Get() < 0 ? std::nullopt : FileStatus::OfDescriptor(file.Get());
    if (!status || !status->regular) {
      result.error = path + ": " + (status ? "not a regular file" : std::strerror(errno));
      return result;
    }
    result.running = IsHeld(file.Get());
    if (!result.running && !IsAt(path, file.Get())) {
      continue;
    }
    result.found = true;
    result.text.clear();
    char part[4096];
    ssize_t size = 0;
    while (result.text.size() < longest && (size = read(file.Get(), part, sizeof(part))) > 0) {
      result.text.append(part, static_cast<std::size_t>(size));
    }
    return result;
  }
  result.error = path + ": is replaced too often";
  return result;
}
