#include "agent/syslog_sink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

using std::chrono::milliseconds;

namespace {

constexpr char socketPath[] = "/dev/log";  // the library's own
constexpr char cookie[] = "@cee: ";        // what follows is JSON, to whoever knows the mark

// More than the library puts in front of a text, and the kernel takes off the size of a socket's buffer.
constexpr std::size_t roomForHeader = 512;

struct Named {
  const char* name;
  int number;
};

constexpr std::array<Named, 8> severities = {{{"emerg", LOG_EMERG},
                                              {"alert", LOG_ALERT},
                                              {"crit", LOG_CRIT},
                                              {"err", LOG_ERR},
                                              {"warning", LOG_WARNING},
                                              {"notice", LOG_NOTICE},
                                              {"info", LOG_INFO},
                                              {"debug", LOG_DEBUG}}};

constexpr std::array<Named, 12> facilities = {{{"auth", LOG_AUTH},
                                               {"authpriv", LOG_AUTHPRIV},
                                               {"daemon", LOG_DAEMON},
                                               {"user", LOG_USER},
                                               {"local0", LOG_LOCAL0},
                                               {"local1", LOG_LOCAL1},
                                               {"local2", LOG_LOCAL2},
                                               {"local3", LOG_LOCAL3},
                                               {"local4", LOG_LOCAL4},
                                               {"local5", LOG_LOCAL5},
                                               {"local6", LOG_LOCAL6},
                                               {"local7", LOG_LOCAL7}}};

template <typename Table>
std::vector<std::string> NamesIn(const Table& table) {
  std::vector<std::string> names;
  names.reserve(table.size());
  for (const Named& row : table) {
    names.emplace_back(row.name);
  }
  return names;
}

template <typename Table>
std::optional<int> NumberIn(const Table& table, const std::string& name) {
  const auto found =
      std::find_if(table.begin(), table.end(), [&name](const Named& row) { return name == row.name; });
  return found == table.end() ? std::nullopt : std::optional<int>(found->number);
}

// A connection to the daemon that nothing is sent over.
class Probe {
 public:
  // As the library does it: datagrams, and a stream where the daemon wants one.
  Probe() : cause(Connect(SOCK_DGRAM)) {
    if (cause == EPROTOTYPE) {
      Close();
      cause = Connect(SOCK_STREAM);
    }
  }
  ~Probe() { Close(); }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  // An error number; 0: somebody listens.
  int Cause() const { return cause; }

  // Whether the daemon's socket has room, or gets some in time.
  bool WaitForRoom(milliseconds patience) const {
    pollfd writable = {descriptor, POLLOUT, 0};
    return poll(&writable, 1, static_cast<int>(patience.count())) > 0;
  }

  // In bytes; 0 when the system does not tell.
  std::size_t LargestRecord() const {
    int size = 0;
    socklen_t length = sizeof(size);
    const bool known = getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && size > 0;
    return known ? static_cast<std::size_t>(size) : 0;
  }

 private:
  int Connect(int type) {
    descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath, sizeof(socketPath));
    const bool connected = descriptor >= 0 && connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                                                      sizeof(address)) == 0;
    return connected ? 0 : errno;
  }

  void Close() const {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }

  int descriptor = -1;
  int cause;
};

}  // namespace

SyslogSink::SyslogSink(int recordSeverity, int recordFacility)
    : severity(recordSeverity), facility(recordFacility) {
  tzset();  // now: reading the time zone with the first record would leave its own mark in errno
}

EventOutput::Outcome SyslogSink::Fail(int cause) {
  error = std::string("syslog: ") + socketPath + ": " + std::strerror(cause);
  return Outcome::Failed;
}

EventOutput::Outcome SyslogSink::Write(const std::string& event, milliseconds patience) {
  {
    const Probe probe;
    if (probe.Cause() == EAGAIN) {
      return Outcome::Blocked;  // more connections wait than the daemon allows
    }
    if (probe.Cause() != 0) {
      return Fail(probe.Cause());
    }
    const std::size_t largest = probe.LargestRecord();
    if (largest > 0 && event.size() + roomForHeader > largest) {
      error =
          "syslog: an event of " + std::to_string(event.size()) + " bytes is larger than the socket takes";
      return Outcome::Refused;
    }
    if (!probe.WaitForRoom(patience)) {
      return Outcome::Blocked;
    }
  }
  errno = 0;
  openlog("velta-agent", LOG_PID | LOG_NDELAY, facility);
  syslog(severity, "%s%s", cookie, event.c_str());
  int cause = errno;
  closelog();
  // That the daemon went away after the first look is not always told by errno; then nobody is there now,
  // either.
  if (cause == 0) {
    const Probe again;
    const bool gone = again.Cause() == ECONNREFUSED || again.Cause() == ENOENT || again.Cause() == ENOTDIR;
    cause = gone ? again.Cause() : 0;
  }
  return cause == 0 ? Outcome::Delivered : Fail(cause);
}

const std::vector<std::string>& SyslogSink::SeverityNames() {
  static const std::vector<std::string> names = NamesIn(severities);
  return names;
}

const std::vector<std::string>& SyslogSink::FacilityNames() {
  static const std::vector<std::string> names = NamesIn(facilities);
  return names;
}

std::optional<int> SyslogSink::SeverityOf(const std::string& name) { return NumberIn(severities, name); }

std::optional<int> SyslogSink::FacilityOf(const std::string& name) { return NumberIn(facilities, name); }
