#include "agent/event_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "agent/file_status.h"

using std::chrono::milliseconds;

namespace {

constexpr mode_t outputMode = 0640;

bool IsRegular(int descriptor) {
  const std::optional<FileStatus> status = FileStatus::OfDescriptor(descriptor);
  return status && status->regular;
}

bool EndsInPieceOfRecord(int descriptor) {
  const std::optional<FileStatus> status = FileStatus::OfDescriptor(descriptor);
  char last = '\n';
  // Fails when the file is not open for reading: standard output that was sent to one.
  const bool known =
      status && status->size > 0 && pread(descriptor, &last, 1, static_cast<off_t>(status->size) - 1) == 1;
  return known && last != '\n';
}

// Where the next write to a file begins.
off_t WritePosition(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return lseek(descriptor, 0, flags >= 0 && (flags & O_APPEND) != 0 ? SEEK_END : SEEK_CUR);
}

}  // namespace

EventSink::EventSink(const std::string& outputPath)
    : path(outputPath == "-" ? "" : outputPath), name(path.empty() ? "standard output" : path) {
  if (IsStandardOutput()) {
    descriptor = STDOUT_FILENO;
    regular = IsRegular(descriptor);
    UsePipeOfOwn();
  } else if (!OpenFile() && errno != ENXIO) {  // ENXIO: a FIFO whose reader is still to come
    throw std::runtime_error(error);
  }
}

EventSink::~EventSink() {
  Close();
  if (pipeOfOwn) {
    close(descriptor);
  }
}

void EventSink::Close() {
  if (descriptor >= 0 && !IsStandardOutput()) {
    close(descriptor);
    descriptor = -1;
  }
}

// A pipe that is standard output, opened once more: it can then be made non-blocking, which the descriptor
// that others share must not be. Refused for a pipe of another user's; without it, all is as for any stream.
void EventSink::UsePipeOfOwn() {
  struct stat status = {};
  if (fstat(STDOUT_FILENO, &status) != 0 || !S_ISFIFO(status.st_mode)) {
    return;
  }
  const int own = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (own >= 0) {
    descriptor = own;
    pipeOfOwn = true;
  }
}

bool EventSink::OpenFile() {
  // Readable as well, to see whether the last record is whole; a FIFO must not be, or it would never tell
  // that its reader has gone. Without blocking: opening a FIFO would otherwise wait for a reader.
  const std::optional<FileStatus> status = FileStatus::OfPath(path);
  const bool plain = !status || status->regular;
  const int access = plain ? O_RDWR | O_CREAT | O_APPEND : O_WRONLY | O_APPEND;
  descriptor = open(path.c_str(), access | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, outputMode);
  if (descriptor < 0) {
    const int cause = errno;
    Fail("cannot be opened");
    if (cause == ENXIO) {
      error = name + " has no reader";
    }
    errno = cause;
    return false;
  }
  regular = IsRegular(descriptor);
  needsNewline = regular && EndsInPieceOfRecord(descriptor);
  sent = 0;
  return true;
}

bool EventSink::FileWasReplaced() const {
  const std::optional<FileStatus> opened = FileStatus::OfDescriptor(descriptor);
  const std::optional<FileStatus> current = FileStatus::OfPath(path);
  return !opened || !current || !opened->IsSameFile(*current);
}

EventSink::Outcome EventSink::Fail(const char* operation) {
  error = name + " " + operation + ": " + std::strerror(errno);
  return Outcome::Failed;
}

EventSink::Outcome EventSink::Write(const std::string& event, milliseconds patience) {
  if (!IsStandardOutput()) {
    if (descriptor >= 0 && FileWasReplaced()) {
      Close();
    }
    if (descriptor < 0 && !OpenFile()) {
      return Outcome::Failed;
    }
  }
  const std::string record = (needsNewline ? "\n" : "") + event + "\n";
  const Outcome outcome = regular ? WriteRegular(record) : WriteStream(record, patience);
  if (outcome == Outcome::Delivered) {
    needsNewline = false;
  }
  return outcome;
}

// A full disk may take a part of a record. That part is taken back; if somebody has written behind it
// meanwhile, it stays, and the record is written again on a line of its own.
EventSink::Outcome EventSink::WriteRegular(const std::string& record) {
  const off_t start = WritePosition(descriptor);
  ssize_t written = 0;
  do {
    written = write(descriptor, record.data(), record.size());
  } while (written < 0 && errno == EINTR);
  if (written == static_cast<ssize_t>(record.size())) {
    return Outcome::Delivered;
  }
  if (written < 0) {
    return Fail("cannot be written");
  }
  const std::optional<FileStatus> status = FileStatus::OfDescriptor(descriptor);
  const bool ours = start >= 0 && status && status->size == static_cast<std::uint64_t>(start + written);
  if (ours && ftruncate(descriptor, start) == 0) {
    lseek(descriptor, start, SEEK_SET);
  } else {
    needsNewline = true;
  }
  errno = ENOSPC;
  return Fail("cannot be written");
}

// In pieces that a pipe which is ready takes at once: the descriptor may be shared with a terminal or a
// shell, so it is not made non-blocking. One that is the agent's alone need not be asked first.
EventSink::Outcome EventSink::WriteStream(const std::string& record, milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool mustAsk = !pipeOfOwn;
  while (sent < record.size()) {
    if (mustAsk) {
      const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd writable = {descriptor, POLLOUT, 0};
      const int ready = poll(&writable, 1, static_cast<int>(std::max(left, milliseconds::zero()).count()));
      if (ready == 0 || (ready < 0 && errno == EINTR)) {
        return Outcome::Blocked;
      }
    }
    const std::size_t piece = std::min<std::size_t>(record.size() - sent, PIPE_BUF);
    const ssize_t written = write(descriptor, record.data() + sent, piece);
    if (written >= 0) {
      sent += static_cast<std::size_t>(written);
    } else if (errno == EAGAIN && !mustAsk) {
      mustAsk = true;
    } else if (errno == EAGAIN || errno == EINTR) {
      return Outcome::Blocked;
    } else {
      const Outcome outcome = Fail("cannot be written");
      // The reader that got a part is gone; the next one gets the whole record. What standard output still
      // holds of the part stays in front of it, as the pipe is not closed here.
      needsNewline = needsNewline || (IsStandardOutput() && sent > 0);
      sent = 0;
      Close();
      return outcome;
    }
  }
  sent = 0;
  return Outcome::Delivered;
}
