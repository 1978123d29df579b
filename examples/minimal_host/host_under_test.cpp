// What the contract suite asks for: the services, and a look at what left them.
#include "tests/contract/host_under_test.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The whole program but its main, which is the test's.
#define main MainOfTheHost
#include "minimal_host.cpp"
#undef main

struct HostUnderTest::Parts {
  Parts() {
    logFile = std::tmpfile();
    if (logFile == nullptr || pipe(ends.data()) != 0 || (eventFile = fdopen(ends[1], "w")) == nullptr) {
      throw std::runtime_error("no pipe and no file for the services to write to");
    }
    printer = AddJob(PrintEvents, never, never);
  }
  ~Parts() {
    EndJob(printer);
    close(ends[0]);
    std::fclose(eventFile);
    std::fclose(logFile);
  }

  std::array<int, 2> ends = {-1, -1};
  std::vector<std::string> sent;
  std::string line;
};

HostUnderTest::HostUnderTest() : parts(std::make_unique<Parts>()) {}

HostUnderTest::~HostUnderTest() = default;

std::vector<std::string> HostUnderTest::SentEvents(std::size_t count, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::array<char, 4096> part;
  while (parts->sent.size() < count && std::chrono::steady_clock::now() < end) {
    pollfd readable = {parts->ends[0], POLLIN, 0};
    if (poll(&readable, 1, 100) != 1) {
      continue;
    }
    const ssize_t length = read(parts->ends[0], part.data(), part.size());
    for (ssize_t at = 0; at < length; ++at) {
      const char letter = part[static_cast<std::size_t>(at)];
      if (letter == '\n') {
        parts->sent.push_back(parts->line);
        parts->line.clear();
      } else {
        parts->line += letter;
      }
    }
  }
  return parts->sent;
}

std::string HostUnderTest::LogText() {
  std::string text;
  std::array<char, 4096> part;
  for (;;) {
    const ssize_t length = pread(fileno(logFile), part.data(), part.size(), static_cast<off_t>(text.size()));
    if (length <= 0) {
      return text;
    }
    text.append(part.data(), static_cast<std::size_t>(length));
  }
}
