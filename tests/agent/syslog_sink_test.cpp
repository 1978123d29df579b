#include "agent/syslog_sink.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/patience.h"

namespace {

std::function<void()> beforeSending;
std::function<void()> afterSending;

}  // namespace

// In the place of the library's own, which they call: whether the daemon is still there is then no matter of
// luck.
extern "C" void openlog(const char* name, int options, int facility) {
  static const auto real = reinterpret_cast<decltype(&openlog)>(dlsym(RTLD_NEXT, "openlog"));
  real(name, options, facility);
  if (beforeSending) {
    beforeSending();
  }
}

extern "C" void closelog() {
  static const auto real = reinterpret_cast<decltype(&closelog)>(dlsym(RTLD_NEXT, "closelog"));
  if (afterSending) {
    afterSending();
  }
  real();
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char socketPath[] = "/dev/log";

void Require(bool done, const std::string& step) {
  if (!done) {
    throw std::runtime_error("no log daemon: " + step + ": " + std::strerror(errno) +
                             " (this test needs root and a mount namespace)");
  }
}

sockaddr_un SocketAddress() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socketPath, sizeof(socketPath));
  return address;
}

// A "/dev" without anything in it, seen by this process alone.
class EmptyDev {
 public:
  EmptyDev() {
    Require(unshare(CLONE_NEWNS) == 0, "unshare");
    Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keeping mounts private");
    Require(mount("tmpfs", "/dev", "tmpfs", 0, "mode=755") == 0, "an empty /dev");
  }
  ~EmptyDev() { umount2("/dev", MNT_DETACH); }
  EmptyDev(const EmptyDev&) = delete;
  EmptyDev& operator=(const EmptyDev&) = delete;
};

// Listens as a log daemon does. It leaves its socket behind, and nobody listens there then.
class Daemon {
 public:
  explicit Daemon(int type, int longestQueue = 8) : descriptor(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
    unlink(socketPath);
    const sockaddr_un address = SocketAddress();
    Require(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0, "bind");
    Require(type == SOCK_DGRAM || listen(descriptor, longestQueue) == 0, "listen");
  }
  ~Daemon() { close(descriptor); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // What has come so far, one text for each datagram.
  std::vector<std::string> Records() const {
    std::vector<std::string> records;
    char record[4096];
    ssize_t size = 0;
    while ((size = recv(descriptor, record, sizeof(record), MSG_DONTWAIT)) >= 0) {
      records.emplace_back(record, static_cast<std::size_t>(size));
    }
    return records;
  }

  // What has come so far over all connections, which have ended.
  std::string Stream() const {
    Require(fcntl(descriptor, F_SETFL, O_NONBLOCK) == 0, "fcntl");
    std::string text;
    int connection = -1;
    while ((connection = accept(descriptor, nullptr, nullptr)) >= 0) {
      char part[4096];
      ssize_t size = 0;
      while ((size = recv(connection, part, sizeof(part), 0)) > 0) {
        text.append(part, static_cast<std::size_t>(size));
      }
      close(connection);
    }
    return text;
  }

 private:
  const int descriptor;
};

// As many connections as a daemon of streams lets wait.
class Crowd {
 public:
  Crowd() {
    const sockaddr_un address = SocketAddress();
    for (bool connected = true; connected;) {
      descriptors.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      connected =
          connect(descriptors.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }
    Require(errno == EAGAIN, "a full queue of connections");
  }
  ~Crowd() {
    for (const int descriptor : descriptors) {
      close(descriptor);
    }
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

 private:
  std::vector<int> descriptors;
};

class SyslogSinkTest : public testing::Test {
 protected:
  ~SyslogSinkTest() override {
    beforeSending = nullptr;
    afterSending = nullptr;
  }

  // The outcome, and what is said of it.
  std::string Write(const std::string& event) {
    switch (sink.Write(event, brief)) {
      case EventOutput::Outcome::Delivered:
        return "delivered";
      case EventOutput::Outcome::Blocked:
        return "blocked";
      case EventOutput::Outcome::Failed:
        return "failed: " + sink.Error();
      case EventOutput::Outcome::Refused:
        return "refused: " + sink.Error();
    }
    return "no outcome";
  }

  static std::string RecordOf(const std::string& event) {
    return "<81>[A-Z][a-z][a-z] [ 0-9][0-9] [0-9:]+ velta-agent\\[" + std::to_string(getpid()) +
           "\\]: @cee: " + event;
  }

  EmptyDev dev;
  SyslogSink sink{LOG_ALERT, LOG_AUTHPRIV};
};

TEST_F(SyslogSinkTest, Fault16ADaemonThatIsAbsentIsLookedForAgainWithEachAttempt) {
  EXPECT_EQ(Write("one"), "failed: syslog: /dev/log: No such file or directory");
  EXPECT_EQ(Write("one"), "failed: syslog: /dev/log: No such file or directory");
  auto daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  EXPECT_EQ(Write("one"), "delivered");
  EXPECT_THAT(daemon->Records(), ElementsAre(MatchesRegex(RecordOf("one"))));

  daemon.reset();
  EXPECT_EQ(Write("two"), "failed: syslog: /dev/log: Connection refused");
  daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  EXPECT_THAT(daemon->Records(), IsEmpty()) << "nothing is held back for it by the library";
  EXPECT_EQ(Write("two"), "delivered");
  EXPECT_THAT(daemon->Records(), ElementsAre(MatchesRegex(RecordOf("two"))));
}

// The second look finds the next daemon then, and only errno tells that the record is lost.
TEST_F(SyslogSinkTest, Fault16ADaemonThatIsAwayForTheRecordAloneHasNotTakenIt) {
  auto daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  beforeSending = [&daemon] { daemon.reset(); };
  afterSending = [&daemon] { daemon = std::make_unique<Daemon>(SOCK_DGRAM); };
  EXPECT_EQ(Write("one"), "failed: syslog: /dev/log: Connection refused");
  EXPECT_THAT(daemon->Records(), IsEmpty());
}

// The library has sent the record by then, and says that all is well.
TEST_F(SyslogSinkTest, Fault16ARecordOfADaemonThatIsGoneAtTheSecondLookIsNotDelivered) {
  auto daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  afterSending = [&daemon] { daemon.reset(); };
  EXPECT_EQ(Write("one"), "failed: syslog: /dev/log: Connection refused");

  daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  afterSending = [&daemon] {
    daemon.reset();
    unlink(socketPath);
  };
  EXPECT_EQ(Write("one"), "failed: syslog: /dev/log: No such file or directory");

  daemon = std::make_unique<Daemon>(SOCK_DGRAM);
  afterSending = nullptr;
  EXPECT_EQ(Write("one"), "delivered");
  EXPECT_THAT(daemon->Records(), ElementsAre(MatchesRegex(RecordOf("one"))));
}

TEST_F(SyslogSinkTest, ADaemonThatWantsAStreamGetsOne) {
  const Daemon daemon(SOCK_STREAM);
  EXPECT_EQ(Write("one"), "delivered");
  const std::string text = daemon.Stream();
  ASSERT_FALSE(text.empty());
  EXPECT_THAT(text.substr(0, text.size() - 1), MatchesRegex(RecordOf("one")));
  EXPECT_EQ(text.back(), '\0') << "where a record ends in a stream";
}

TEST_F(SyslogSinkTest, Fault16ADaemonOfStreamsThatHasNoRoomForAConnectionIsSlowAndNotAbsent) {
  const Daemon daemon(SOCK_STREAM, 0);
  {
    const Crowd crowd;
    EXPECT_EQ(Write("one"), "blocked");
  }
  EXPECT_EQ(daemon.Stream(), "");
}

}  // namespace
