#ifndef VELTA_TESTS_SUPPORT_LINE_READER_H
#define VELTA_TESTS_SUPPORT_LINE_READER_H

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

// The reading end of a pipe or FIFO that somebody else writes lines to.
//
// Thread use: one thread at a time.
class LineReader {
 public:
  LineReader() = default;
  explicit LineReader(int readable) : descriptor(readable) {}
  explicit LineReader(const std::string& fifo)
      : descriptor(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    if (descriptor < 0) {
      throw std::runtime_error("cannot open " + fifo);
    }
  }
  ~LineReader() { Close(); }
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  void Close() {
    if (descriptor >= 0) {
      close(descriptor);
      descriptor = -1;
    }
  }

  // The next line, without its end. When the writer has gone or the limit passes, a text in brackets that
  // says so, and what there is of a line.
  std::string Next(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const std::size_t end = pending.find('\n', searched);
      if (end != std::string::npos) {
        std::string line = pending.substr(0, end);
        pending.erase(0, end + 1);
        searched = 0;
        return line;
      }
      searched = pending.size();
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return "[no line in time] " + pending;
      }
      if (!Wait(left)) {
        return "[the end] " + pending;
      }
    }
  }

  std::vector<std::string> Next(std::size_t count, std::chrono::milliseconds limit) {
    std::vector<std::string> lines;
    for (std::size_t number = 0; number < count; ++number) {
      lines.push_back(Next(limit));
    }
    return lines;
  }

  // The lines up to and with the first one that contains the text, or up to the end, as above.
  std::vector<std::string> NextUntil(const std::string& text, std::chrono::milliseconds limit) {
    std::vector<std::string> lines;
    do {
      lines.push_back(Next(limit));
    } while (lines.back().find(text) == std::string::npos && lines.back().front() != '[');
    return lines;
  }

  // Everything up to the writer's end.
  std::string Rest(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        return pending + "[no end in time]";
      }
      if (!Wait(left)) {
        return pending;
      }
    }
  }

 private:
  // False at the writer's end.
  bool Wait(std::chrono::milliseconds limit) {
    pollfd readable = {descriptor, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(limit.count())) <= 0) {
      return true;
    }
    std::array<char, 4096> part;
    const ssize_t length = read(descriptor, part.data(), part.size());
    if (length > 0) {
      pending.append(part.data(), static_cast<std::size_t>(length));
    }
    return length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR));
  }

  int descriptor = -1;
  std::string pending;
  std::size_t searched = 0;  // of pending, in vain
};

#endif  // VELTA_TESTS_SUPPORT_LINE_READER_H
