#ifndef VELTA_AGENT_INOTIFY_H
#define VELTA_AGENT_INOTIFY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct InotifyEvent {
  int watch;
  std::uint32_t mask;
  std::string name;  // of the entry in a watched folder; empty for the watched inode itself
};

// Decodes what the kernel wrote; stops at a record that is cut off or longer than the data.
std::vector<InotifyEvent> DecodeInotifyEvents(const char* data, std::size_t size);

// Owns one inotify instance, if the kernel grants one.
//
// Thread use: Add and Remove on any thread; Open, Close and Read under the owner's lock.
class Inotify {
 public:
  Inotify() = default;
  ~Inotify() { Close(); }
  Inotify(const Inotify&) = delete;
  Inotify& operator=(const Inotify&) = delete;

  // False when the kernel refused; OpenError then says why.
  bool Open();
  int OpenError() const { return openError; }
  void Close();
  bool IsOpen() const { return descriptor >= 0; }
  int Descriptor() const { return descriptor; }

  // The watch number, or the negative error number. Watching an inode twice widens its one watch.
  int Add(const std::string& path, std::uint32_t mask);
  void Remove(int watch);

  // The events that wait, without blocking; at most one buffer of them. False on an error that is not a lack
  // of events: what was queued may be lost.
  bool Read(std::vector<InotifyEvent>& events);

 private:
  int descriptor = -1;
  int openError = 0;
};

#endif  // VELTA_AGENT_INOTIFY_H
