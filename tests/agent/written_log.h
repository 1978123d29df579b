#ifndef VELTA_TESTS_AGENT_WRITTEN_LOG_H
#define VELTA_TESTS_AGENT_WRITTEN_LOG_H

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <string>

// A nameless file for a Logger to write to, and what stands in it.
class WrittenLog {
 public:
  WrittenLog() : file(std::tmpfile()) {
    if (file == nullptr) {
      throw std::runtime_error("cannot make a temporary file");
    }
  }
  ~WrittenLog() { std::fclose(file); }
  WrittenLog(const WrittenLog&) = delete;
  WrittenLog& operator=(const WrittenLog&) = delete;

  int Descriptor() const { return fileno(file); }

  // Safe while others write.
  std::string Text() const {
    std::string text;
    char part[4096];
    ssize_t size = 0;
    while ((size = pread(Descriptor(), part, sizeof(part), static_cast<off_t>(text.size()))) > 0) {
      text.append(part, static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  std::FILE* const file;
};

#endif  // VELTA_TESTS_AGENT_WRITTEN_LOG_H
