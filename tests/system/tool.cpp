#include "tests/system/tool.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

namespace {

constexpr int cannotStart = 127;
constexpr int signalBase = 128;

std::string SearchPath() {
  const char* const path = std::getenv("PATH");
  return std::string(path == nullptr ? "" : path) + ":/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin";
}

std::string Quoted(const std::string& word) {
  std::string quoted = "'";
  for (const char letter : word) {
    quoted += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
  }
  return quoted + "'";
}

std::string ReadAll(int descriptor) {
  std::string text;
  std::array<char, 4096> part;
  for (;;) {
    const ssize_t length = read(descriptor, part.data(), part.size());
    if (length > 0) {
      text.append(part.data(), static_cast<std::size_t>(length));
    } else if (length == 0 || errno != EINTR) {
      return text;
    }
  }
}

}  // namespace

ToolResult RunTool(const std::vector<std::string>& words) {
  // A shell looks the program up, so that between fork and exec nothing runs but system calls.
  std::string line = "exec";
  for (const std::string& word : words) {
    line += " " + Quoted(word);
  }
  const std::string path = "PATH=" + SearchPath();
  const std::array<const char*, 4> arguments = {"sh", "-c", line.c_str(), nullptr};
  const std::array<const char*, 3> environment = {path.c_str(), "LC_ALL=C", nullptr};

  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe for " + line);
  }
  const pid_t child = fork();
  if (child == 0) {
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (dup2(nothing, 0) >= 0 && dup2(ends[1], 1) >= 0 && dup2(ends[1], 2) >= 0) {
      execve("/bin/sh", const_cast<char* const*>(arguments.data()),
             const_cast<char* const*>(environment.data()));
    }
    _exit(cannotStart);
  }
  const int forkError = errno;
  close(ends[1]);
  ToolResult result = {cannotStart, ""};
  if (child > 0) {
    result.output = ReadAll(ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : signalBase + WTERMSIG(status);
  }
  close(ends[0]);
  if (child < 0) {
    throw std::system_error(forkError, std::generic_category(), "fork for " + line);
  }
  return result;
}
