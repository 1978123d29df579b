#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/event_sink.h"
#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/send_queue.h"
#include "agent/services.h"
#include "agent/task_scheduler.h"
#include "tests/contract/host_under_test.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned noEventLimit = 0;
constexpr unsigned workerCount = 2;  // one more than the agent has: tasks may get in each other's way

// A file without a name, for the log.
class LogFile {
 public:
  LogFile() : file(std::tmpfile()) {
    if (file == nullptr) {
      throw std::runtime_error("no temporary file for the log");
    }
  }
  ~LogFile() { std::fclose(file); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  int Descriptor() const { return fileno(file); }

  std::string Text() const {
    std::string text;
    std::array<char, 4096> part;
    for (;;) {
      const ssize_t length = pread(Descriptor(), part.data(), part.size(), static_cast<off_t>(text.size()));
      if (length <= 0) {
        return text;
      }
      text.append(part.data(), static_cast<std::size_t>(length));
    }
  }

 private:
  std::FILE* file;
};

// Reads the lines that the agent's sink writes: the sink's file is a FIFO, so that a reader can wait for
// them.
class EventReader {
 public:
  EventReader() : folder("/tmp/velta-events-XXXXXX") {
    if (mkdtemp(folder.data()) == nullptr || mkfifo(Path().c_str(), 0600) != 0) {
      throw std::runtime_error("no FIFO for the events");
    }
    descriptor = open(Path().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  ~EventReader() {
    close(descriptor);
    unlink(Path().c_str());
    rmdir(folder.c_str());
  }
  EventReader(const EventReader&) = delete;
  EventReader& operator=(const EventReader&) = delete;

  std::string Path() const { return folder + "/events"; }

  const std::vector<std::string>& Read(std::size_t count, milliseconds limit) {
    const auto end = steady_clock::now() + limit;
    while (events.size() < count && steady_clock::now() < end) {
      const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
      pollfd readable = {descriptor, POLLIN, 0};
      poll(&readable, 1, static_cast<int>(left.count()));
      TakeWhatIsThere();
    }
    return events;
  }

 private:
  void TakeWhatIsThere() {
    std::array<char, 4096> part;
    const ssize_t length = read(descriptor, part.data(), part.size());
    for (ssize_t at = 0; at < length; ++at) {
      const char letter = part[static_cast<std::size_t>(at)];
      if (letter == '\n') {
        events.push_back(line);
        line.clear();
      } else {
        line += letter;
      }
    }
  }

  std::string folder;
  int descriptor = -1;
  std::string line;
  std::vector<std::string> events;
};

}  // namespace

struct HostUnderTest::Parts {
  LogFile log;
  EventReader reader;
  Logger logger{LogLevel::Debug, log.Descriptor()};
  EventSink sink{reader.Path()};
  SendQueue queue{sink, logger, noEventLimit};
  TaskScheduler scheduler{workerCount, logger};
  FileMonitor monitor{logger, FileMonitor::defaultIdentityInterval, &scheduler};
  InstalledServices services{logger, queue, scheduler, monitor};
};

HostUnderTest::HostUnderTest() : parts(std::make_unique<Parts>()) {}

HostUnderTest::~HostUnderTest() = default;

std::vector<std::string> HostUnderTest::SentEvents(std::size_t count, milliseconds limit) {
  return parts->reader.Read(count, limit);
}

std::string HostUnderTest::LogText() { return parts->log.Text(); }
