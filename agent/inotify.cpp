#include "agent/inotify.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

std::vector<InotifyEvent> DecodeInotifyEvents(const char* data, std::size_t size) {
  std::vector<InotifyEvent> events;
  std::size_t offset = 0;
  while (size - offset >= sizeof(inotify_event)) {
    inotify_event header;
    std::memcpy(&header, data + offset, sizeof(header));
    const std::size_t rest = size - offset - sizeof(header);
    if (header.len > rest) {
      break;
    }
    const char* const name = data + offset + sizeof(header);
    events.push_back({header.wd, header.mask, std::string(name, strnlen(name, header.len))});
    offset += sizeof(header) + header.len;
  }
  return events;
}

bool Inotify::Open() {
  Close();
  descriptor = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  openError = descriptor >= 0 ? 0 : errno;
  return descriptor >= 0;
}

void Inotify::Close() {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

int Inotify::Add(const std::string& path, std::uint32_t mask) {
  const int watch = inotify_add_watch(descriptor, path.c_str(), mask | IN_MASK_ADD);
  return watch >= 0 ? watch : -errno;
}

void Inotify::Remove(int watch) {
  inotify_rm_watch(descriptor, watch);  // fails for one that the kernel has dropped already, which is as good
}

bool Inotify::Read(std::vector<InotifyEvent>& events) {
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    const ssize_t size = read(descriptor, buffer, sizeof(buffer));
    if (size >= 0) {
      events = DecodeInotifyEvents(buffer, static_cast<std::size_t>(size));
      return true;
    }
    if (errno != EINTR) {
      return errno == EAGAIN;
    }
  }
}
