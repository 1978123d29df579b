#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/account_file.h"
#include "tests/system/agent_fixture.h"
#include "tests/system/agent_process.h"
#include "tests/system/failing_calls.h"
#include "tests/system/target.h"

namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

std::string Contents(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What the process and its threads have taken of the processors so far.
milliseconds CpuTime(pid_t process) {
  const std::string status = Contents("/proc/" + std::to_string(process) + "/stat");
  std::istringstream fields(status.substr(status.rfind(')') + 1));  // the name before it may contain anything
  std::string passedOver;
  for (int field = 3; field < 14; ++field) {
    fields >> passedOver;
  }
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return milliseconds((user + system) * 1000 / sysconf(_SC_CLK_TCK));
}

// The most memory that the process has had so far.
long PeakMiB(pid_t process) {
  const std::string status = Contents("/proc/" + std::to_string(process) + "/status");
  const std::size_t line = status.find("VmHWM:");
  return line == std::string::npos ? -1 : std::stol(status.substr(line + std::strlen("VmHWM:"))) / 1024;
}

void MakeSocket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int bound = bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  close(descriptor);
  if (bound != 0) {
    throw std::runtime_error("no socket " + path);
  }
}

// What the unit lets the agent have.
long MemoryOfTheUnitMiB() {
  const std::string unit = Contents(VELTA_SOURCE_FOLDER "/packaging/systemd/velta-agent.service.in");
  const std::string key = "\nMemoryMax=";
  const std::size_t line = unit.find(key);
  std::size_t end = 0;
  const long size = line == std::string::npos ? 0 : std::stol(unit.substr(line + key.size()), &end);
  return size > 0 && unit[line + key.size() + end] == 'G' ? size * 1024 : -1;
}

class MonitorFaults : public AgentFixture {
 protected:
  // Each of them more than one event in the folder.
  static void MakeFiles(int count) {
    for (int number = 0; number < count; ++number) {
      const std::string path = "/etc/filler-" + std::to_string(number);
      const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
      ASSERT_GE(file, 0) << path;
      close(file);
    }
  }

  static void StopUntilStopped(const AgentProcess& agent) {
    agent.Send(SIGSTOP);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(agent.Process()), &info, WSTOPPED), 0);
  }

  // A second in which nothing happens: what the agent takes of the processors then.
  static milliseconds CpuTimeOfAnIdleSecond(AgentProcess& agent) {
    const milliseconds before = CpuTime(agent.Process());
    EXPECT_THAT(agent.NextAlert(milliseconds(1000)), HasSubstr("[no line in time]"));
    return CpuTime(agent.Process()) - before;
  }
};

TEST_F(MonitorFaults, Fault08AChangeWhoseEventWasDroppedIsReportedWithAWarning) {
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int queued = 0;
  ASSERT_TRUE(limit >> queued);
  const auto agent = Watching({"--check-interval", "0"});
  for (const char* const time : {"1", "2"}) {
    ASSERT_NO_FATAL_FAILURE(StopUntilStopped(*agent));
    MakeFiles(queued + 3616);  // 20,000 where nobody has changed the limit
    const std::string name = "toor" + std::string(time);
    etc.ReplacePasswd(etc.Passwd() + RootLine(name) + "\n");
    agent->Send(SIGCONT);
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
    const std::string counted =
        "warning file monitor: the kernel dropped events (" + std::string(time) + " times so far)";
    EXPECT_THAT(agent->LogUntil("the kernel dropped events"), HasSubstr(counted));
  }
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

// Else every user of the machine could make the kernel drop the event that matters.
TEST_F(MonitorFaults, Fault08ReadingTheFileFillsNoQueue) {
  const auto agent = Watching({"--check-interval", "0"});
  ASSERT_NO_FATAL_FAILURE(StopUntilStopped(*agent));
  for (int time = 0; time < 20000; ++time) {
    const int file = open(time % 2 == 0 ? "/etc/passwd" : "/etc", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    char first = 0;
    [[maybe_unused]] const ssize_t size = read(file, &first, 1);
    close(file);
  }
  etc.AppendPasswd(RootLine("toor"));
  agent->Send(SIGCONT);
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  agent->Send(SIGTERM);
  EXPECT_THAT(agent->RestOfLog(), Not(HasSubstr("dropped events")));
  EXPECT_EQ(agent->ExitCode(), 0);
}

TEST_F(MonitorFaults, Fault09WhatInotifyRefusesIsPolledWhichIsSaidOnce) {
  struct Row {
    std::string rules;
    std::string reason;
  };
  const std::vector<Row> rows = {
      {"inotify_init1=EMFILE", "Too many open files"},
      {"inotify_init1=ENFILE", "Too many open files in system"},
      {"inotify_init1=ENOSYS", "Function not implemented"},
      {"inotify_init1=EPERM", "Operation not permitted"},
      {"inotify_init1=ENOMEM", "Cannot allocate memory"},
      {"inotify_add_watch=ENOSPC", "No space left on device"},
      {"inotify_add_watch=ENOMEM", "Cannot allocate memory"},
      {"inotify_add_watch=ENOSPC#1", "No space left on device"},
      {"inotify_add_watch=ENOSPC#2", "No space left on device"},
      {"inotify_add_watch=ENOSPC#3", "No space left on device"},
      {"inotify_add_watch=ENOMEM#2-", "Cannot allocate memory"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.rules);
    etc.WritePasswd(rootAndAlice);
    AgentProcess agent({"--check-interval", "0"}, WithFailing(row.rules));
    std::string log = agent.LogUntil("watching /etc/passwd");
    // Each in its way: what a watch on the file alone, on its folder alone, or a look at it would miss
    for (const char* const name : {"appended", "replaced"}) {
      if (name == std::string("appended")) {
        etc.AppendPasswd(RootLine(name));
      } else {
        etc.ReplacePasswd(etc.Passwd() + RootLine(name) + "\n");
      }
      ASSERT_EQ(agent.NextAlert(soon), AlertFor(name));
    }
    agent.Send(SIGTERM);
    log += agent.RestOfLog();
    EXPECT_EQ(agent.ExitCode(), 0);
    EXPECT_EQ(Count(log, " is polled every "), 1U) << log;
    EXPECT_THAT(log, HasSubstr("(" + row.reason + "): /etc/passwd is polled every 1000 ms")) << log;
  }
}

// In a user namespace of the agent's own, so that the limits are nobody else's.
TEST_F(MonitorFaults, Fault09LimitsThatAreUsedUpArePolled) {
  for (const char* const limit : {"0 >max_inotify_instances", "0 >max_inotify_watches",
                                  "1 >max_inotify_watches", "2 >max_inotify_watches"}) {
    SCOPED_TRACE(limit);
    etc.WritePasswd(rootAndAlice);
    Circumstances limited;
    limited.launcher = {"/usr/bin/unshare",
                        "--user",
                        "--map-root-user",
                        "/bin/sh",
                        "-c",
                        "cd /proc/sys/user && echo " + std::string(limit) + R"( && exec "$@")",
                        "sh"};
    AgentProcess agent({"--check-interval", "0"}, limited);
    std::string log = agent.LogUntil("watching /etc/passwd");
    etc.AppendPasswd(RootLine("appended"));
    ASSERT_EQ(agent.NextAlert(soon), AlertFor("appended")) << log;
    etc.ReplacePasswd(etc.Passwd() + RootLine("replaced") + "\n");
    ASSERT_EQ(agent.NextAlert(soon), AlertFor("replaced"));
    agent.Send(SIGTERM);
    log += agent.RestOfLog();
    EXPECT_EQ(agent.ExitCode(), 0);
    EXPECT_EQ(Count(log, "/etc/passwd is polled every 1000 ms"), 1U) << log;
  }
}

TEST_F(MonitorFaults, Fault10InterruptedAndShortCallsLoseNothing) {
  for (const char* const rules : {
           "read=EINTR%2",
           "read@inotify=EINTR%2 poll=EINTR%2",
           "poll=EINTR%3 read@eventfd=EINTR%2 write@pipe=EINTR%2",
           "read@inotify=272",              // one event at a time
           "read@inotify=40 poll=EINTR%2",  // hardly more than an event without a name
           "read@passwd=1 write@pipe=1",
           "read@inotify=STRANGER",
       }) {
    SCOPED_TRACE(rules);
    etc.WritePasswd(rootAndAlice);
    const auto agent = Watching({"--check-interval", "0"}, WithFailing(rules));
    for (int number = 0; number < 10; ++number) {
      const std::string name = "toor" + std::to_string(number);
      if (number % 2 == 0) {
        etc.AppendPasswd(RootLine(name));
      } else {
        etc.ReplacePasswd(etc.Passwd() + RootLine(name) + "\n");
      }
      ASSERT_EQ(agent->NextAlert(soon), AlertFor(name));
    }
    EXPECT_LT(CpuTimeOfAnIdleSecond(*agent), milliseconds(300));
    ExpectSilence(*agent);
    ExpectOrderlyEnd(*agent);
  }
}

// A stop and its end interrupt what waits, signals aside.
TEST_F(MonitorFaults, Fault10AStormOfStopsLosesNothing) {
  const auto agent = Watching({"--check-interval", "0"});
  for (int number = 0; number < 20; ++number) {
    const std::string name = "toor" + std::to_string(number);
    for (int time = 0; time < 10; ++time) {
      ASSERT_NO_FATAL_FAILURE(StopUntilStopped(*agent));
      if (time == 5) {
        etc.ReplacePasswd(etc.Passwd() + RootLine(name) + "\n");
      }
      agent->Send(SIGCONT);
    }
    ASSERT_EQ(agent->NextAlert(soon), AlertFor(name));
  }
  EXPECT_LT(CpuTimeOfAnIdleSecond(*agent), milliseconds(300));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(MonitorFaults, Fault11WhatIsNoAccountFileIsRefusedAndTheNextGoodOneIsRead) {
  struct Row {
    std::string command;
    std::string told;
    std::string cause = "";  // in the event, where the module tells less
  };
  const std::vector<Row> rows = {
      {"true", "Failed to read /etc/passwd.", "No such file or directory"},
      {"mkdir passwd", "tasks wait: /etc/passwd is not a regular file"},
      {"mkfifo passwd", "tasks wait: /etc/passwd is not a regular file"},
      {"mv socket passwd", "tasks wait: /etc/passwd is not a regular file"},
      {"mknod passwd c 1 5", "tasks wait: /etc/passwd is not a regular file"},  // as /dev/zero
      {"ln -s nowhere passwd", "Failed to read /etc/passwd.", "No such file or directory"},
      {"ln -s passwd passwd", "Failed to read /etc/passwd.", "Too many levels of symbolic links"},
      {"truncate -s 300M passwd", "tasks wait: /etc/passwd is larger than 96 MiB"},
      {"truncate -s 1G passwd", "tasks wait: /etc/passwd is larger than 96 MiB"},
      {"truncate -s 1T passwd", "tasks wait: /etc/passwd is larger than 96 MiB"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    etc.WritePasswd(rootAndAlice);
    const auto agent = Watching(Plain());
    etc.AppendPasswd(RootLine("before"));
    ASSERT_EQ(agent->NextAlert(soon), AlertFor("before"));
    const long peak = PeakMiB(agent->Process());
    const std::string refused = "tasks wait: ";
    const std::string reason =
        row.cause.empty() ? row.told.substr(refused.size()) : "/etc/passwd cannot be opened: " + row.cause;
    bool toldBefore = false;
    for (const char* const next : {"next", "last"}) {
      MakeSocket("/etc/socket");
      ASSERT_NO_FATAL_FAILURE(Do("mv passwd kept && " + row.command));
      EXPECT_THAT(agent->LogUntil(row.told), HasSubstr(row.told));
      if (!toldBefore) {  // the log tells each time, an event once a minute
        EXPECT_EQ(agent->NextAlert(soon), UnreadableFor(reason));
        toldBefore = true;
      }
      ASSERT_NO_FATAL_FAILURE(
          Do("rm -rf passwd socket && echo " + RootLine(next) + " >>kept && mv kept passwd"));
      ASSERT_EQ(agent->NextAlert(soon), AlertFor(next));
    }
    EXPECT_LT(PeakMiB(agent->Process()), peak + 16);

    MakeSocket("/etc/socket");
    ASSERT_NO_FATAL_FAILURE(Do("mv passwd kept && " + row.command));
    EXPECT_THAT(agent->LogUntil(row.told), HasSubstr(row.told));
    const auto start = std::chrono::steady_clock::now();
    ExpectOrderlyEnd(*agent);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    ASSERT_NO_FATAL_FAILURE(Do("rm -rf passwd socket && mv kept passwd"));
  }
}

TEST_F(MonitorFaults, Fault11AFileThatAnOrdinaryUserMayNotReadIsReadWhenItMay) {
  const std::filesystem::path module = VELTA_MODULE_FILE;
  Circumstances ordinary;
  ordinary.ordinaryUser = true;
  ordinary.program = folder.Path("velta-agent");
  std::filesystem::copy_file(VELTA_AGENT_FILE, ordinary.program);
  std::filesystem::copy_file(module, folder.Path(module.filename().string()));
  const auto agent = Watching(Plain(), ordinary);
  ExpectSilence(*agent);
  const std::string first = "toor1";
  for (const std::string& name : {first, std::string("toor2")}) {
    ASSERT_NO_FATAL_FAILURE(Do("chmod 000 passwd && echo " + RootLine(name) + " >>passwd"));
    EXPECT_THAT(agent->LogUntil("Failed to read"), HasSubstr("Failed to read /etc/passwd."));
    if (name == first) {
      EXPECT_EQ(agent->NextAlert(soon), UnreadableFor("/etc/passwd cannot be opened: Permission denied"));
    }
    ASSERT_NO_FATAL_FAILURE(Do("chmod 644 passwd"));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
  }
  ASSERT_NO_FATAL_FAILURE(Do("chmod 000 passwd"));
  EXPECT_THAT(agent->LogUntil("Failed to read"), HasSubstr("Failed to read /etc/passwd."));
  ExpectOrderlyEnd(*agent);
}

// An eighth of the largest file, of lines as short as they can be: what they take grows with their number.
TEST_F(MonitorFaults, Fault11WhatTheLargestFileTakesFitsIntoTheMemoryOfTheUnit) {
  if (VELTA_SANITIZED || emulated) {
    GTEST_SKIP() << "a sanitizer or an emulator needs memory of its own";
  }
  constexpr std::size_t part = 8;
  constexpr char least = '\x80';  // so many different names of three characters
  std::string lines = etc.Passwd();
  for (std::size_t number = 0; lines.size() < largestAccountFile / part; ++number) {
    lines += static_cast<char>(least + static_cast<char>(number >> 14U & 127U));
    lines += static_cast<char>(least + static_cast<char>(number >> 7U & 127U));
    lines += static_cast<char>(least + static_cast<char>(number & 127U));
    lines += "::1:1:::\n";
  }
  const auto agent = Watching(Plain());
  for (const char* const name : {"first", "second"}) {  // then beside what is known
    lines += RootLine(name) + "\n";
    etc.ReplacePasswd(lines);
    EXPECT_EQ(agent->NextAlert(), AlertFor(name));
  }
  const long largest = PeakMiB(agent->Process()) * static_cast<long>(part);
  RecordProperty("largest_mib", std::to_string(largest));
  EXPECT_LT(largest, MemoryOfTheUnitMiB());
  ExpectOrderlyEnd(*agent);
}

TEST_F(MonitorFaults, Fault11ALineOfSixtyMegabytesIsPassedOverInBoundedMemory) {
  const auto agent = Watching(Plain());
  ExpectSilence(*agent);
  const long before = PeakMiB(agent->Process());
  // Zeros, which a file system need not store
  ASSERT_NO_FATAL_FAILURE(Do("cp -p passwd copy && truncate -s 60M copy && echo >>copy && echo " +
                             RootLine("toor") + " >>copy && mv copy passwd"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  // The module and the cross-check, which may read side by side, each hold the line once, in a text that
  // doubles as it grows: old and new for a moment. A sanitizer adds its own books about all of it.
  if (!VELTA_SANITIZED) {
    EXPECT_LT(PeakMiB(agent->Process()) - before, 2 * (64 + 32) + 16);
  }
  EXPECT_THAT(agent->LogUntil("too long"), HasSubstr("The line of /etc/passwd is too long."));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

}  // namespace
