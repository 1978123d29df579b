#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/event_record.h"
#include "tests/support/temporary_folder.h"
#include "tests/system/agent_fixture.h"

namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::MatchesRegex;

void RequireForDev(bool done, const std::string& step) {
  if (!done) {
    throw std::runtime_error("no private /dev: " + step + ": " + std::strerror(errno));
  }
}

// A "/dev" with what programs need, and without a log daemon; in a private mount namespace.
class PrivateDev {
 public:
  PrivateDev() {
    const std::string fresh = folder.Path("dev");
    RequireForDev(
        mkdir(fresh.c_str(), 0755) == 0 && mount("tmpfs", fresh.c_str(), "tmpfs", 0, "mode=755") == 0, "new");
    for (const char* const name : {"null", "zero", "full", "random", "urandom"}) {
      const std::string node = WriteEmpty(fresh + "/" + name);
      RequireForDev(
          mount((std::string("/dev/") + name).c_str(), node.c_str(), nullptr, MS_BIND, nullptr) == 0, name);
    }
    RequireForDev(symlink("/proc/self/fd", (fresh + "/fd").c_str()) == 0, "fd");
    RequireForDev(mount(fresh.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "covering");
  }
  ~PrivateDev() { umount2("/dev", MNT_DETACH); }
  PrivateDev(const PrivateDev&) = delete;
  PrivateDev& operator=(const PrivateDev&) = delete;

 private:
  static std::string WriteEmpty(const std::string& path) {
    WriteFile(path, "");
    return path;
  }

  TemporaryFolder folder;
};

// A record as the daemon gets it, without its time: "<81>Nov  1 08:15:42 name" is "<81>name". One that has no
// time there stays as it is.
std::string WithoutStamp(const std::string& record) {
  const std::size_t begin = record.find('>') + 1;
  std::tm time = {};
  const char* const rest = strptime(record.c_str() + begin, "%b %e %H:%M:%S ", &time);
  return rest == nullptr ? record : record.substr(0, begin) + rest;
}

// Listens as a log daemon does. What it has not taken is gone with it.
class LogDaemon {
 public:
  LogDaemon() : descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    unlink("/dev/log");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, "/dev/log", sizeof("/dev/log"));
    const auto* const named = reinterpret_cast<const sockaddr*>(&address);
    if (bind(descriptor, named, sizeof(address)) != 0 || chmod("/dev/log", 0666) != 0) {
      throw std::runtime_error(std::string("no log daemon: ") + std::strerror(errno));
    }
  }
  ~LogDaemon() { close(descriptor); }
  LogDaemon(const LogDaemon&) = delete;
  LogDaemon& operator=(const LogDaemon&) = delete;

  // The next record, without the times in it; what other programs log is passed over.
  std::string Next() const {
    for (;;) {
      pollfd readable = {descriptor, POLLIN, 0};
      std::vector<char> record(std::size_t{1} << 18);
      const int ready = poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(patience).count()));
      const ssize_t size = ready > 0 ? recv(descriptor, record.data(), record.size(), 0) : -1;
      if (size < 0) {
        return "[no record in time]";
      }
      const std::string text(record.data(), static_cast<std::size_t>(size));
      if (text.find(" velta-agent[") != std::string::npos) {
        static const std::string cookie = "@cee: ";
        RecordEvent(text.substr(text.find(cookie) + cookie.size()));
        return WithoutTime(WithoutStamp(text));
      }
    }
  }

 private:
  const int descriptor;
};

class Outputs : public AgentFixture {
 protected:
  static std::string RecordFor(const AgentProcess& agent, const std::string& name) {
    return "<81>velta-agent[" + std::to_string(agent.Process()) + "]: @cee: " + AlertFor(name);
  }

  static std::vector<std::string> Names(std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t number = 100; number < 100 + count; ++number) {
      names.push_back("root" + std::to_string(number));
    }
    return names;
  }

  void AddAtOnce(const std::vector<std::string>& names) {
    std::string content = etc.Passwd();
    for (const std::string& name : names) {
      content += RootLine(name) + "\n";
    }
    etc.ReplacePasswd(content);
  }

  Outcome Status(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"--status", "--status-file", statusPath};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunToTheEnd(arguments);
  }

  // The state that has the text, or the one after many questions.
  Outcome StatusWith(const std::string& text) const {
    Outcome outcome = Status();
    for (int attempt = 0; attempt < 1000 && outcome.output.find(text) == std::string::npos; ++attempt) {
      outcome = Status();
    }
    return outcome;
  }

  PrivateDev dev;
  const std::string statusPath = folder.Path("status.json");
};

TEST_F(Outputs, AnAlertGoesToEachThatIsGiven) {
  const LogDaemon daemon;
  const auto agent = Watching({"--output", "-", "--syslog", "--output", folder.Path("alerts")});
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  EXPECT_EQ(daemon.Next(), RecordFor(*agent, "toor"));
  ExpectOrderlyEnd(*agent);
  EXPECT_EQ(WithoutTime(folder.Read("alerts")), AlertFor("toor") + "\n");
}

TEST_F(Outputs, SyslogAloneTakesNothingToStandardOutputAndHasTheSeverityThatIsAskedFor) {
  const LogDaemon daemon;
  const auto agent = Watching({"--syslog", "--syslog-severity", "crit", "--syslog-facility", "local7"});
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_THAT(daemon.Next(), testing::StartsWith("<186>velta-agent["));
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, Fault16ALogDaemonThatComesLateOrStartsAgainGetsEveryAlertOnce) {
  const auto agent = Watching({"--syslog", "--output", "-", "--status-file", statusPath});
  etc.AppendPasswd(RootLine("before"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("before")) << "nobody at the socket holds up no other output";
  EXPECT_THAT(agent->LogUntil("/dev/log"),
              HasSubstr("send queue: syslog: /dev/log: No such file or directory; "
                        "events are kept and tried again"));
  auto daemon = std::make_unique<LogDaemon>();
  EXPECT_EQ(daemon->Next(), RecordFor(*agent, "before"));
  // A daemon that goes before the agent has looked whether it is still there gets the record once more.
  EXPECT_THAT(StatusWith("syslog: ok; 1 sent").output, HasSubstr("syslog: ok; 1 sent"));
  daemon.reset();  // its socket stays, without a listener
  etc.AppendPasswd(RootLine("between"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("between"));
  EXPECT_THAT(agent->LogUntil("Connection refused"), HasSubstr("syslog: /dev/log: Connection refused"));
  daemon = std::make_unique<LogDaemon>();
  etc.AppendPasswd(RootLine("after"));
  EXPECT_EQ(daemon->Next(), RecordFor(*agent, "between"));
  EXPECT_EQ(daemon->Next(), RecordFor(*agent, "after"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("after"));
  EXPECT_THAT(StatusWith("syslog: ok; 3 sent").output, HasSubstr("syslog: ok; 3 sent"));
  daemon = std::make_unique<LogDaemon>();  // in the place of the one before, without the agent's noticing
  etc.AppendPasswd(RootLine("anew"));
  EXPECT_EQ(daemon->Next(), RecordFor(*agent, "anew"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("anew"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, Fault16ALogDaemonThatDoesNotReadHoldsUpNoOtherOutputAndLosesNothing) {
  const LogDaemon daemon;
  const auto agent = Watching({"--syslog", "--output", "-", "--limit", "0"});
  const std::vector<std::string> names =
      Names(700);  // more than the largest queue of records that Debian sets
  AddAtOnce(names);
  std::vector<std::string> alerts;
  std::vector<std::string> records;
  for (const std::string& name : names) {
    alerts.push_back(AlertFor(name));
    records.push_back(RecordFor(*agent, name));
  }
  EXPECT_THAT(agent->NextAlerts(names.size()), ElementsAreArray(alerts));
  EXPECT_THAT(agent->LogUntil("syslog"), HasSubstr("send queue: syslog is not being read"));
  std::vector<std::string> taken;
  for (std::size_t number = 0; number < names.size(); ++number) {
    taken.push_back(daemon.Next());
  }
  EXPECT_THAT(taken, ElementsAreArray(records));
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, Fault20ALogDaemonThatDoesNotReadDoesNotKeepTheAgentFromItsEnd) {
  const LogDaemon daemon;
  const auto agent = Watching({"--syslog", "--limit", "0"});
  AddAtOnce(Names(700));
  EXPECT_THAT(agent->LogUntil("syslog"), HasSubstr("send queue: syslog is not being read"));
  agent->Send(SIGTERM);
  EXPECT_THAT(agent->RestOfLog(), HasSubstr(R"(send queue: not delivered: {"eventType":)"));
  EXPECT_EQ(agent->ExitCode(), 5);
}

TEST_F(Outputs, AnEventThatIsTooLargeForSyslogIsLeftToTheLogAndTheNextOneComes) {
  const LogDaemon daemon;
  const auto agent = Watching({"--syslog", "--status-file", statusPath});
  etc.AppendPasswd(std::string(500000, 'x') + ":x:0:0::/");  // too long for the module, not for the C library
  EXPECT_THAT(
      agent->LogUntil("it is left to the log"),
      MatchesRegex("(.|\n)*send queue: syslog: an event of [0-9]+ bytes is larger than the socket takes; "
                   "it is left to the log, part 1 of [0-9]+: (.|\n)*"));
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(daemon.Next(), RecordFor(*agent, "toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, ARunningAgentTellsOfItselfAndOneThatHasEndedDoesNot) {
  const LogDaemon daemon;
  const auto agent = Watching({"--syslog", "--output", "-", "--status-file", statusPath});
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  StatusWith("syslog: ok; 1 sent");
  etc.AppendPasswd(RootLine("again"));  // after the state has been told once
  EXPECT_EQ(agent->NextAlert(), AlertFor("again"));
  const Outcome running = StatusWith("syslog: ok; 2 sent");
  EXPECT_EQ(running.exitCode, 0) << running.errors;
  EXPECT_THAT(running.output, HasSubstr(", process " + std::to_string(agent->Process()) + ", since "));
  EXPECT_THAT(running.output, HasSubstr("policy    built in, since "));
  EXPECT_THAT(running.output, HasSubstr("reading   /etc/passwd: "));
  EXPECT_THAT(running.output,
              HasSubstr("output    standard output: ok; 2 sent, 0 waiting (0 deferred by the limit), 0 lost\n"
                        "output    syslog: ok; 2 sent, 0 waiting (0 deferred by the limit), 0 lost\n"));
  EXPECT_THAT(Status({"--json"}).output, testing::StartsWith(R"({"eventType":"agent-status","eventTime":")"));
  ExpectOrderlyEnd(*agent);
  const Outcome outcome = Status();
  EXPECT_EQ(outcome.exitCode, 10);
  EXPECT_EQ(outcome.output, "");
  EXPECT_EQ(outcome.errors,
            "velta-agent: no agent tells of itself here: " + statusPath + ": No such file or directory\n");
}

TEST_F(Outputs, Fault24ReadingsThatFailForWantOfMemoryAreInTheStatus) {
  if (VELTA_SANITIZED || sizeof(VELTA_EMULATOR) > 1) {
    GTEST_SKIP() << "a sanitizer or an emulator needs memory of its own";
  }
  const auto agent = Watching({"--status-file", statusPath});
  ExpectSilence(*agent);
  rlimit before = {};
  std::size_t pages = 0;
  std::ifstream("/proc/" + std::to_string(agent->Process()) + "/statm") >> pages;
  const rlimit little = {pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) + (4U << 20U),
                         RLIM_INFINITY};
  ASSERT_EQ(prlimit(agent->Process(), RLIMIT_AS, &little, &before), 0);
  std::string lines = etc.Passwd();
  for (int number = 0; number < 30000; ++number) {
    lines += "user" + std::to_string(number) + ":x:1000:1000::/:\n";
  }
  etc.ReplacePasswd(lines + RootLine("toor") + "\n");
  EXPECT_THAT(agent->LogUntil("will be tried again"), HasSubstr("will be tried again: std::bad_alloc"));
  const Outcome failing = StatusWith("FAILING: ");
  EXPECT_EQ(failing.exitCode, 1);
  EXPECT_THAT(failing.output, HasSubstr(" in a row, since "));

  ASSERT_EQ(prlimit(agent->Process(), RLIMIT_AS, &before, nullptr), 0);
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (Status().exitCode != 0 && std::chrono::steady_clock::now() < deadline) {
    ExpectSilence(*agent);
  }
  EXPECT_THAT(Status().output, testing::Not(HasSubstr("FAILING")));
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, AnAgentThatCannotWriteItsStatusSaysSoAndWatches) {
  const auto agent = Watching({"--status-file", folder.Path("none/status.json")});
  EXPECT_THAT(agent->LogUntil("--status will"),
              HasSubstr("none/status.json: No such file or directory; --status will not find this agent"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(Outputs, AskedForItsStateTwiceAtOnceItGoesOn) {
  const auto agent = Watching({"--status-file", statusPath});
  for (int time = 0; time < 100; ++time) {
    agent->Send(SIGUSR1);
  }
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

}  // namespace
