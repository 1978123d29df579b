#include "agent/logger.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include <spdlog/details/log_msg.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>

#include "agent/safe_text.h"
#include "agent/services.h"
#include "host/logger.h"

namespace {

using Clock = std::chrono::steady_clock;

// How long a stuck reader may hold up the agent: all records together, until it takes one again. Detection
// logs while it holds its lock, so the log must not stop it.
constexpr std::chrono::milliseconds longestWait(200);

constexpr char cutMark[] = " [cut]";

spdlog::level::level_enum LibraryLevel(LogLevel level) {
  switch (level) {
    case LogLevel::Debug:
      return spdlog::level::debug;
    case LogLevel::Info:
      return spdlog::level::info;
    case LogLevel::Warning:
      return spdlog::level::warn;
    case LogLevel::Error:
      return spdlog::level::err;
    case LogLevel::Off:
      break;
  }
  return spdlog::level::off;
}

// Writes each record with one call. A record is far shorter than the 4096 bytes that a pipe takes in one
// piece, so a record that the pipe has room for neither blocks nor mixes with those of another process.
class DescriptorSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit DescriptorSink(int openDescriptor)
      : base_sink(std::make_unique<spdlog::pattern_formatter>(
            "%Y-%m-%dT%H:%M:%S.%eZ %l %v", spdlog::pattern_time_type::utc, std::string("\n"))),
        descriptor(openDescriptor) {}

  ~DescriptorSink() override {
    patience = patience.zero();
    try {
      TellOfDropped();
    } catch (...) {  // no memory for it; nobody is left to be told
    }
  }

  DescriptorSink(const DescriptorSink&) = delete;
  DescriptorSink& operator=(const DescriptorSink&) = delete;

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (!TellOfDropped()) {
      ++dropped;
      return;
    }
    ++dropped;  // until it is written, also if there is no memory for it
    if (WriteRecord(message)) {
      dropped = 0;
    }
  }

  void flush_() override {}  // nothing is held back

 private:
  bool TellOfDropped() {
    if (dropped == 0) {
      return true;
    }
    const std::string text = std::to_string(dropped) + " log records dropped: the log could not be written";
    if (WriteRecord(spdlog::details::log_msg(spdlog::string_view_t(), spdlog::level::warn, text))) {
      dropped = 0;
    }
    return dropped == 0;
  }

  bool WriteRecord(const spdlog::details::log_msg& message) {
    spdlog::memory_buf_t record;
    if (isTorn) {
      record.push_back('\n');
    }
    formatter_->format(message, record);
    const Clock::time_point deadline = Clock::now() + patience;
    const std::size_t written = WriteUntil(deadline, record.data(), record.size());
    if (written == record.size()) {
      patience = longestWait;
      isTorn = false;
      return true;
    }
    patience = std::max(Clock::duration::zero(), deadline - Clock::now());
    isTorn = isTorn || written > 0;
    return false;
  }

  // Returns how many bytes were taken: fewer than size when the deadline passes, or for good.
  std::size_t WriteUntil(Clock::time_point deadline, const char* data, std::size_t size) const {
    std::size_t written = 0;
    do {
      if (!WaitUntilWritable(deadline)) {
        break;
      }
      const ssize_t taken = write(descriptor, data + written, size - written);
      if (taken > 0) {
        written += static_cast<std::size_t>(taken);
      } else if (taken < 0 && errno != EINTR && errno != EAGAIN) {
        break;
      }
    } while (written < size && Clock::now() < deadline);
    return written;
  }

  // False also when the reader is gone: a write would raise a signal.
  bool WaitUntilWritable(Clock::time_point deadline) const {
    while (true) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      pollfd polled = pollfd();
      polled.fd = descriptor;
      polled.events = POLLOUT;
      if (poll(&polled, 1, static_cast<int>(std::max(left, left.zero()).count())) >= 0) {
        return polled.revents == POLLOUT;
      }
      if (errno != EINTR || Clock::now() >= deadline) {
        return false;
      }
    }
  }

  const int descriptor;
  Clock::duration patience = longestWait;
  std::size_t dropped = 0;
  bool isTorn = false;  // the last record ended in the middle of its line
};

LogLevel ModuleLevel(unsigned level) {
  if (level == 0) {
    return LogLevel::Debug;
  }
  return level == 1 ? LogLevel::Info : LogLevel::Error;
}

}  // namespace

class Logger::Backend {
 public:
  Backend(LogLevel threshold, int descriptor)
      : library(std::string(), std::make_shared<DescriptorSink>(descriptor)) {
    library.set_level(LibraryLevel(threshold));
    library.set_error_handler([](const std::string&) {});  // it prints to standard error otherwise
  }

  void Write(LogLevel level, const std::string& text) {
    if (level == LogLevel::Off || !library.should_log(LibraryLevel(level))) {
      return;
    }
    std::string line;
    if (AppendSafeText(text, longestText, line) < text.size()) {
      line += cutMark;
    }
    // As a view, which the library takes as it is: braces in an account's name are no places to fill.
    library.log(LibraryLevel(level), spdlog::string_view_t(line.data(), line.size()));
  }

 private:
  spdlog::logger library;
};

Logger::Logger(LogLevel threshold, int descriptor)
    : leastShown(threshold), backend(std::make_unique<Backend>(threshold, descriptor)) {}

Logger::~Logger() {
  const std::lock_guard<std::mutex> lock(floodMutex);
  TellOfFloodLocked(FloodLimit::Time::max());
}

bool Logger::TakesFromModule(LogLevel level) {
  if (level < leastShown && level != LogLevel::Error) {  // an error is kept even where none is shown
    return false;
  }
  const FloodLimit::Time now = FloodLimit::Time::clock::now();
  const std::lock_guard<std::mutex> lock(floodMutex);
  TellOfFloodLocked(now);  // before the window begins anew
  return moduleLimit.Take(now);
}

// With the lock held while it writes, so that no number is told twice.
void Logger::TellOfFloodLocked(FloodLimit::Time now) {
  const std::size_t dropped = moduleLimit.ToTell(now);
  if (dropped == 0) {
    return;
  }
  try {
    // Where only errors are shown, they are what was dropped.
    backend->Write(std::max(LogLevel::Warning, leastShown),
                   std::to_string(dropped) + " log records of the module dropped: it may log " +
                       std::to_string(mostOfModule) + " in a second");
    moduleLimit.Told();
  } catch (...) {  // no memory for it now: it is told later
  }
}

void Logger::Write(LogLevel level, const std::string& text) {
  if (level == LogLevel::Error) {
    Keep(text);
  }
  {
    const FloodLimit::Time now = FloodLimit::Time::clock::now();
    const std::lock_guard<std::mutex> lock(floodMutex);
    TellOfFloodLocked(now);
  }
  try {
    backend->Write(level, text);
  } catch (...) {  // no memory for the record: whoever logs goes on without it
  }
}

void Logger::Keep(const std::string& text) {
  const std::lock_guard<std::mutex> lock(keptMutex);
  keptAt = std::time(nullptr);
  keptSize = text.copy(kept, sizeof(kept));
}

Logger::Trouble Logger::LastError() const {
  const std::lock_guard<std::mutex> lock(keptMutex);
  return {keptAt, std::string(kept, keptSize)};
}

// Parts are short enough to fit a record even when each of their characters becomes two.
void Logger::WriteInParts(LogLevel level, const std::string& what, const std::string& text) {
  constexpr std::size_t longestPart = longestText / 2 - 100;
  try {
    const std::size_t parts = std::max<std::size_t>(1, (text.size() + longestPart - 1) / longestPart);
    for (std::size_t part = 0; part < parts; ++part) {
      const std::string place =
          parts == 1 ? "" : ", part " + std::to_string(part + 1) + " of " + std::to_string(parts);
      Write(level, what + place + ": " + text.substr(part * longestPart, longestPart));
    }
  } catch (...) {  // no memory for the record: whoever logs goes on without it
  }
}

std::string PrintedText(const char* format, std::va_list arguments) {
  char text[Logger::longestText + 2];  // one byte more than a record takes, and the end
  const int length = std::vsnprintf(text, sizeof(text), format, arguments);
  if (length < 0) {
    return format;  // beyond what printf can count
  }
  return std::string(text, std::min(static_cast<std::size_t>(length), sizeof(text) - 1));
}

void LoggerWriteLog(OrvakAgentDotLogType type, unsigned code, unsigned level, const char* file, int line,
                    int /*reserved*/, const char* format, ...) {
  Logger& logger = InstalledServices::Current().logger;
  // A coded record is all that is left of an alert: it is not dropped for a flood of others.
  if (type != ORVAK_AGENT_LOG_CODED && !logger.TakesFromModule(ModuleLevel(level))) {
    return;
  }
  std::va_list arguments;
  va_start(arguments, format);
  try {
    std::string text = file == nullptr ? "?" : file;
    text += ':' + std::to_string(line);
    if (type == ORVAK_AGENT_LOG_CODED) {
      char codeText[32];
      std::snprintf(codeText, sizeof(codeText), " code 0x%08X", code);
      text += codeText;
    }
    if (format != nullptr && *format != '\0') {
      text += ' ' + PrintedText(format, arguments);
    }
    logger.Write(ModuleLevel(level), text);
  } catch (...) {  // as above: the module does not expect a log call to fail
  }
  va_end(arguments);
}

// Carries the whole policy, which is shown to those who ask for details.
void WriteStartupLog(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  try {
    InstalledServices::Current().logger.Debug(PrintedText(format == nullptr ? "(null)" : format, arguments));
  } catch (...) {  // as above
  }
  va_end(arguments);
}
