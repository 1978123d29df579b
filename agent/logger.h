#ifndef VELTA_AGENT_LOGGER_H
#define VELTA_AGENT_LOGGER_H

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "agent/flood_limit.h"

enum class LogLevel { Debug, Info, Warning, Error, Off };

// The agent's log: one line a record on a descriptor (standard error, unless a test says otherwise).
//
// Whatever a text holds, its record is one line of printable characters: control characters, bidirectional
// controls and invalid bytes are escaped, and a text that takes more than longestText bytes then is cut and
// says so. Never throws, and never blocks for long: when the reader of a pipe is stuck, records are dropped,
// and their number is told in front of the first record that it reads again.
//
// What the module logs is bounded as well: it has a record for each repeated name and each line that is too
// long, at each reading, and a file may hold nothing else. Of such a flood the first mostOfModule records of
// a second are written; how many were dropped is told in front of the first record after that second, or at
// the end. The agent's own records are never dropped for it, nor are those that LoggerWriteLog exempts.
//
// Thread use: any thread.
class Logger {
 public:
  static constexpr std::size_t longestText = 2048;
  static constexpr std::size_t longestKept = 512;
  static constexpr std::size_t mostOfModule = 1000;
  static constexpr std::chrono::seconds moduleWindow{1};

  explicit Logger(LogLevel threshold, int descriptor = 2);
  ~Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  void Debug(const std::string& text) { Write(LogLevel::Debug, text); }
  void Info(const std::string& text) { Write(LogLevel::Info, text); }
  void Warning(const std::string& text) { Write(LogLevel::Warning, text); }
  void Error(const std::string& text) { Write(LogLevel::Error, text); }
  void Write(LogLevel level, const std::string& text);

  // Asked before a record of the module is made, as a record that is dropped must cost next to nothing. False
  // for one in excess, and for one that would leave no trace.
  bool TakesFromModule(LogLevel level);

  // The last record of level Error, whether or not it was written, those aside that TakesFromModule has
  // turned away; when is 0 while there is none. The text is as it was logged, but no longer than longestKept.
  struct Trouble {
    std::time_t when = 0;
    std::string text;
  };
  Trouble LastError() const;

  // "what: text", or as many records "what, part 1 of 3: ..." as it takes to write all of the text.
  void WarningInParts(const std::string& what, const std::string& text) {
    WriteInParts(LogLevel::Warning, what, text);
  }
  void ErrorInParts(const std::string& what, const std::string& text) {
    WriteInParts(LogLevel::Error, what, text);
  }

 private:
  void WriteInParts(LogLevel level, const std::string& what, const std::string& text);
  void Keep(const std::string& text);
  void TellOfFloodLocked(FloodLimit::Time now);

  const LogLevel leastShown;

  std::mutex floodMutex;  // guards the limit
  FloodLimit moduleLimit{mostOfModule, moduleWindow};

  mutable std::mutex keptMutex;  // guards what follows, down to the backend
  std::time_t keptAt = 0;
  std::size_t keptSize = 0;
  char kept[longestKept] = {};  // without memory to ask for, which may be what is short

  class Backend;
  std::unique_ptr<Backend> backend;
};

// What a printf-style call prints, as far as a record of the log has room for it: a text beyond
// Logger::longestText bytes comes back just long enough to be cut there.
std::string PrintedText(const char* format, std::va_list arguments) __attribute__((format(printf, 1, 0)));

#endif  // VELTA_AGENT_LOGGER_H
