#ifndef VELTA_BENCH_ALERT_CHANGING_FILE_H
#define VELTA_BENCH_ALERT_CHANGING_FILE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

// "/etc/passwd" with so many accounts: root, ordinary ones, and one that is root by its number alone. Each
// change replaces the file by one in which that last account has another name, never used before.
//
// The new file is written in a folder beside the watched one, so that nobody is woken, and warmed up, by its
// making: the rename is the only thing to be seen.
//
// Thread use: one thread at a time, inside a private "/etc".
class ChangingFile {
 public:
  using Time = std::chrono::steady_clock::time_point;  // CLOCK_MONOTONIC

  explicit ChangingFile(std::size_t accounts);

  // Returns the moment just before the rename. Throws std::runtime_error when the file cannot be written.
  Time Change();

  // The account that is root since the last change; a name of one length, that is no part of another's.
  const std::string& Name() const { return name; }

 private:
  std::string content;
  std::size_t namePlace = 0;
  std::string name;
};

#endif  // VELTA_BENCH_ALERT_CHANGING_FILE_H
