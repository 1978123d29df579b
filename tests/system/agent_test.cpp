#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/json.h"
#include "tests/support/line_reader.h"
#include "tests/support/temporary_folder.h"
#include "tests/system/private_etc.h"
#include "tests/system/tool.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr bool emulated = sizeof(VELTA_EMULATOR) > 1;
constexpr std::chrono::seconds patience(emulated ? 60 : 20);
constexpr std::chrono::seconds soon(
    8);  // the timer's first run, after ten seconds, must not count as an answer
constexpr char rootAndAlice[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "alice:x:1000:0::/nowhere:/bin/sh\n";

std::string Line(const std::string& name) { return name + ":x:0:0::/nowhere:/bin/sh"; }

// An alert about such a line, in the form that TakenApart gives it.
std::string Alert(const std::string& name) {
  return R"({"eventType":"unauthorized-root-user","eventTime":"TIME","eventContent":{"userName":")" + name +
         R"(","uid":0,"gid":0,"shell":"/bin/sh","home":"/nowhere","type":"illegal"}})";
}

std::string WithoutTime(const std::string& alert) {
  static const std::regex time(R"("eventTime":"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d")");
  return std::regex_replace(alert, time, R"("eventTime":"TIME")");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(WithoutTime(line));
  }
  return lines;
}

class Pipe {
 public:
  Pipe() {
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
  }
  ~Pipe() {
    CloseWriter();
    if (ends[0] >= 0) {
      close(ends[0]);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int TakeReader() { return std::exchange(ends[0], -1); }
  int Writer() const { return ends[1]; }
  void CloseWriter() {
    if (ends[1] >= 0) {
      close(std::exchange(ends[1], -1));
    }
  }

 private:
  std::array<int, 2> ends{};
};

struct Circumstances {
  std::string program = VELTA_AGENT_FILE;
  std::vector<int> closed;  // descriptors that the agent starts without
  bool ordinaryUser = false;
};

// The real agent as a process of its own; ended, whatever it does, with this object.
class Agent {
 public:
  explicit Agent(const std::vector<std::string>& arguments, const Circumstances& circumstances = {}) {
    std::vector<std::string> words;
    std::istringstream emulator(VELTA_EMULATOR);
    for (std::string word; emulator >> word;) {
      words.push_back(word);
    }
    words.push_back(circumstances.program);
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    Pipe output;
    Pipe errors;
    Pipe presence;  // nobody writes to it: it ends when the process does
    process = fork();
    if (process == 0) {
      Become(argv, {open("/dev/null", O_RDONLY | O_CLOEXEC), output.Writer(), errors.Writer()},
             presence.Writer(), circumstances);
    }
    if (process < 0) {
      throw std::runtime_error(std::string("no process for the agent: ") + std::strerror(errno));
    }
    alerts.emplace(output.TakeReader());
    log.emplace(errors.TakeReader());
    life.emplace(presence.TakeReader());
  }
  ~Agent() {
    if (process > 0) {
      kill(process, SIGKILL);
      waitpid(process, nullptr, 0);
    }
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  pid_t Process() const { return process; }
  void Send(int signal) const { kill(process, signal); }

  std::string NextAlert(std::chrono::seconds limit = patience) { return WithoutTime(alerts->Next(limit)); }
  std::vector<std::string> NextAlerts(std::size_t count) {
    std::vector<std::string> lines = alerts->Next(count, patience);
    for (std::string& line : lines) {
      line = WithoutTime(line);
    }
    return lines;
  }

  // The log up to the record that contains the text; a log without it ends in brackets.
  std::string LogUntil(const std::string& text) {
    std::string records;
    for (const std::string& record : log->NextUntil(text, patience)) {
      records += record + "\n";
    }
    return records;
  }

  // What is still to come, up to the end of the process.
  std::string RestOfAlerts() { return alerts->Rest(patience); }
  std::string RestOfLog() { return log->Rest(patience); }

  // Waits for the end. 128 and its number for a signal, -1 when it does not end.
  int ExitCode() {
    if (!life->Rest(patience).empty()) {
      return -1;
    }
    int status = 0;
    waitpid(std::exchange(process, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  // In the child, so nothing but system calls.
  [[noreturn]] static void Become(const std::vector<char*>& argv, const std::array<int, 3>& streams,
                                  int presence, const Circumstances& circumstances) {
    bool ready = fcntl(presence, F_SETFD, 0) == 0;
    for (int stream = 0; stream < 3; ++stream) {
      ready = ready && dup2(streams[static_cast<std::size_t>(stream)], stream) == stream;
    }
    if (circumstances.ordinaryUser) {
      constexpr id_t nobody = 65534;
      ready = ready && setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0;
    }
    for (const int descriptor : circumstances.closed) {
      close(descriptor);
    }
    if (ready) {
      execv(argv[0], argv.data());
    }
    _exit(127);
  }

  pid_t process = -1;
  std::optional<LineReader> alerts;
  std::optional<LineReader> log;
  std::optional<LineReader> life;
};

struct Outcome {
  int exitCode;
  std::string output;
  std::string errors;
};

// For what ends by itself.
Outcome RunToTheEnd(const std::vector<std::string>& arguments, const Circumstances& circumstances = {}) {
  Agent agent(arguments, circumstances);
  Outcome outcome;
  outcome.output = agent.RestOfAlerts();
  outcome.errors = agent.RestOfLog();
  outcome.exitCode = agent.ExitCode();
  return outcome;
}

// Tells when somebody has read "/etc/passwd".
class Readings {
 public:
  Readings() : descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_add_watch(descriptor, "/etc", IN_CLOSE_NOWRITE) < 0) {
      throw std::runtime_error("readings of the account file cannot be watched");
    }
  }
  ~Readings() { close(descriptor); }
  Readings(const Readings&) = delete;
  Readings& operator=(const Readings&) = delete;

  bool WaitForOne() {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd readable = {descriptor, POLLIN, 0};
      poll(&readable, 1, 100);
      alignas(inotify_event) std::array<char, 4096> events;
      const ssize_t length = read(descriptor, events.data(), events.size());
      for (ssize_t at = 0; at < length;) {
        const auto* const event =
            reinterpret_cast<const inotify_event*>(&events[static_cast<std::size_t>(at)]);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        if (event->len > 0 && std::string(event->name) == "passwd") {
          return true;
        }
      }
    }
    return false;
  }

 private:
  int descriptor;
};

// Empty in place of the machine's own. The account tools keep books outside "/etc", too.
class CoveredFolder {
 public:
  explicit CoveredFolder(const char* folder) : path(folder) {
    if (mount("tmpfs", path, "tmpfs", 0, "mode=755") != 0) {
      throw std::runtime_error(std::string("cannot cover ") + path + ": " + std::strerror(errno));
    }
  }
  ~CoveredFolder() { umount2(path, MNT_DETACH); }
  CoveredFolder(const CoveredFolder&) = delete;
  CoveredFolder& operator=(const CoveredFolder&) = delete;

 private:
  const char* path;
};

class AgentTest : public testing::Test {
 protected:
  AgentTest() { etc.WritePasswd(rootAndAlice); }

  static const std::vector<std::string>& Plain() {
    static const std::vector<std::string> arguments;
    return arguments;
  }

  // Starts one that watches, once the standing accounts are being read.
  std::unique_ptr<Agent> Watching(const std::vector<std::string>& arguments,
                                  const Circumstances& circumstances = {}) {
    auto agent = std::make_unique<Agent>(arguments, circumstances);
    const std::string begin = agent->LogUntil("watching /etc/passwd");
    EXPECT_THAT(begin, HasSubstr("watching /etc/passwd")) << begin;
    return agent;
  }

  // Nothing was reported since the last alert that was taken: whatever the agent did before it saw this one
  // stands before it.
  void ExpectSilence(Agent& agent) {
    const std::string marker = "zz-marker-" + std::to_string(++markers);
    etc.AppendPasswd(Line(marker));
    EXPECT_EQ(agent.NextAlert(), Alert(marker));
  }

  static void ExpectOrderlyEnd(Agent& agent, int signal = SIGTERM) {
    agent.Send(signal);
    EXPECT_EQ(agent.RestOfAlerts(), "");
    EXPECT_EQ(agent.ExitCode(), 0) << agent.RestOfLog();
  }

  // One line of a shell, in the private "/etc".
  static void Do(const std::string& command) {
    const ToolResult result = RunTool({"sh", "-c", "cd /etc && " + command});
    ASSERT_EQ(result.exitCode, 0) << command << ": " << result.output;
  }

  PrivateEtc etc;
  CoveredFolder logins{"/var/log"};  // behind the private "/etc", which made all mounts private
  CoveredFolder mailboxes{"/var/mail"};
  TemporaryFolder folder;
  int markers = 0;
};

TEST_F(AgentTest, EveryWayToAddARootAccountIsReportedOnce) {
  struct Row {
    std::string name;
    std::string command;
  };
  const std::vector<Row> rows = {
      {"a-useradd", "useradd -l -M -N -o -u 0 -g 0 -s /bin/sh -d /nowhere a-useradd"},
      {"alice", "usermod -o -u 0 alice"},
      {"c-sed", "sed -i \"\\$a $line\" passwd"},
      {"d-append", "echo $line >>passwd"},
      {"e-vipw", "cp -p passwd copy && echo $line >>copy && ln -f passwd passwd- && mv copy passwd"},
      {"f-cat", "cp -p passwd copy && echo $line >>copy && cat copy >passwd"},
      {"g-copy", "cp -p passwd copy && echo $line >>copy && cp copy passwd"},
      {"h-anew", "cp -p passwd copy && echo $line >>copy && rm passwd && cp copy passwd"},
      {"i-vim", "mv passwd passwd~ && cp -p passwd~ passwd && echo $line >>passwd && rm passwd~"},
      {"j-twin", "ln -f passwd twin && echo $line >>twin"},
      {"k-tee", "echo $line | tee -a passwd"},
      {"l-dd", "echo $line | dd of=passwd conv=notrunc oflag=append"},
      {"m-install", "cp -p passwd copy && echo $line >>copy && install -m 644 copy passwd"},
      {"n-name", "sed -i s/^a-useradd:/n-name:/ passwd"},
  };
  // Without the periodic stat: the events alone must do.
  const auto agent = Watching({"--check-interval", "0"});
  for (const Row& row : rows) {
    ASSERT_NO_FATAL_FAILURE(Do("line=" + Line(row.name) + " && " + row.command));
    ASSERT_EQ(agent->NextAlert(soon), Alert(row.name)) << row.command;
  }
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, OrdinaryChangesAreNotReported) {
  etc.AppendPasswd(Line("toor"));
  const auto agent = Watching(Plain());
  EXPECT_EQ(agent->NextAlert(), Alert("toor"));
  for (const char* const command : {
           "useradd -l -M -N -u 1001 bob",
           "usermod -s /bin/false alice",
           "chsh -s /bin/false toor",
           "usermod -c Bob bob",
           "chmod 600 passwd && chmod 644 passwd",
           "touch passwd",
           "sed -i 's/^root:/root:/' passwd",
           "sed -i 's,^root:x:0:0:root:/root:,root:x:0:0::/:,' passwd",  // whatever changes in root itself
           "userdel bob",
           "echo other:x:0:0::/nowhere:/bin/sh >passwd.other && rm passwd.other",
       }) {
    ASSERT_NO_FATAL_FAILURE(Do(command));
    ExpectSilence(*agent);
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, WritingTheFileAnewInPlaceDoesNotRepeatAcceptedAccounts) {
  const std::string before = rootAndAlice + Line("toor") + "\n";
  for (int time = 0; time < 5; ++time) {
    etc.WritePasswd(before);
    const auto agent = Watching({"--check-interval", "0"});
    EXPECT_EQ(agent->NextAlert(soon), Alert("toor"));
    etc.WritePasswd(before + Line("zoe") + "\n");  // empty for a moment
    EXPECT_EQ(agent->NextAlert(soon), Alert("zoe"));
    ExpectOrderlyEnd(*agent);
  }
}

TEST_F(AgentTest, ALineWrittenThroughADescriptorThatStaysOpenIsReported) {
  const auto agent = Watching({"--check-interval", "0"});
  std::FILE* const held = std::fopen("/etc/passwd", "a");
  ASSERT_NE(held, nullptr);
  for (const char* const name : {"a-held", "b-held"}) {
    std::fputs((Line(name) + "\n").c_str(), held);
    std::fflush(held);
    EXPECT_EQ(agent->NextAlert(soon), Alert(name));
  }
  std::fclose(held);
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AnAccountThatWentAndComesBackIsReportedAgain) {
  const auto agent = Watching(Plain());
  const std::string add = "useradd -l -M -N -o -u 0 -g 0 -s /bin/sh -d /nowhere toor";
  ASSERT_NO_FATAL_FAILURE(Do(add));
  EXPECT_EQ(agent->NextAlert(), Alert("toor"));
  ASSERT_NO_FATAL_FAILURE(Do("userdel -f toor"));  // by force: this process counts as one of the user's
  ExpectSilence(*agent);                           // so it was read without the account
  ASSERT_NO_FATAL_FAILURE(Do(add));
  EXPECT_EQ(agent->NextAlert(), Alert("toor"));
  ExpectOrderlyEnd(*agent);
}

// A FIFO would hold the reading, and with it the end of the agent, for ever; a folder would read as an empty
// file, after which every accepted account is new again.
TEST_F(AgentTest, WhatIsNoFileIsNotReadAndTheFileThatComesBackIs) {
  const auto agent = Watching(Plain());
  ASSERT_NO_FATAL_FAILURE(Do("echo " + Line("before") + " >>passwd"));
  EXPECT_EQ(agent->NextAlert(), Alert("before"));
  for (const char* const obstacle : {"mkfifo obstacle", "mkdir obstacle"}) {
    ASSERT_NO_FATAL_FAILURE(Do("mv passwd kept && " + std::string(obstacle) + " && mv -T obstacle passwd"));
    EXPECT_THAT(agent->LogUntil("is not a regular file"), HasSubstr("/etc/passwd is not a regular file"));
    ASSERT_NO_FATAL_FAILURE(Do("rm -r passwd && mv kept passwd"));
    EXPECT_THAT(agent->LogUntil("tasks run again"), HasSubstr("tasks run again"));
  }
  ExpectSilence(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("mkfifo obstacle && mv obstacle passwd"));
  EXPECT_THAT(agent->LogUntil("is not a regular file"), HasSubstr("/etc/passwd is not a regular file"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AFileBehindALinkIsFollowed) {
  const auto agent = Watching({"--check-interval", "0"});
  ASSERT_NO_FATAL_FAILURE(Do("mkdir behind && cp -p passwd behind && ln -sf behind/passwd passwd"));
  ExpectSilence(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("echo " + Line("toor") + " >>behind/passwd"));
  EXPECT_EQ(agent->NextAlert(soon), Alert("toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, WhatNoEventTellsIsSeenByTheStat) {
  // A link on the way to the file: nothing that is watched changes when it points elsewhere.
  ASSERT_NO_FATAL_FAILURE(
      Do("mkdir -p behind/one behind/two && cp -p passwd behind/one && cp -p passwd behind/two && "
         "echo " +
         Line("toor") +
         " >>behind/two/passwd && ln -s one behind/way && "
         "ln -sf behind/way/passwd passwd"));
  const auto agent = Watching({"--check-interval", "50"});
  ExpectSilence(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("ln -sfn two behind/way"));
  EXPECT_EQ(agent->NextAlert(soon), Alert("toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, StandingAccountsAreReportedAtOnceInNameOrder) {
  etc.AppendPasswd(Line("zoe"));
  etc.AppendPasswd(Line("bob"));
  const auto agent = Watching(Plain());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(agent->NextAlerts(2), ElementsAre(Alert("bob"), Alert("zoe")));
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            std::chrono::seconds(5));  // the timer's first run: 10 s
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AnAgentThatWasKilledReportsStandingAccountsWhenItIsStartedAgain) {
  const auto killed = Watching(Plain());
  etc.AppendPasswd(Line("toor"));
  EXPECT_EQ(killed->NextAlert(), Alert("toor"));
  killed->Send(SIGKILL);
  EXPECT_EQ(killed->ExitCode(), 128 + SIGKILL);
  const auto next = Watching(Plain());
  EXPECT_EQ(next->NextAlert(), Alert("toor"));
  ExpectOrderlyEnd(*next);
}

TEST_F(AgentTest, TwoAgentsOnOneHostReportBoth) {
  const auto one = Watching(Plain());
  const auto other = Watching(Plain());
  etc.AppendPasswd(Line("toor"));
  EXPECT_EQ(one->NextAlert(), Alert("toor"));
  EXPECT_EQ(other->NextAlert(), Alert("toor"));
  ExpectOrderlyEnd(*one);
  ExpectOrderlyEnd(*other);
}

TEST_F(AgentTest, ANameOfAnyBytesIsOneLineOfJson) {
  const auto agent = Watching(Plain());
  etc.AppendPasswd(Line("a\"b\\c\x1b[2J\r\t%s%n{}\xff\xe2\x80\xae"));
  const std::string alert = agent->NextAlert();
  EXPECT_FALSE(FindJsonFault(alert).has_value()) << alert;
  EXPECT_EQ(alert, Alert(R"(a\"b\\c\u001b[2J\r\t%s%n{}\ufffd\u202e)"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, BothSignalsEndItOrderly) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const auto agent = Watching(Plain());
    agent->Send(signal);
    EXPECT_THAT(agent->RestOfLog(), HasSubstr(std::string("stopping: ") + strsignal(signal)));
    EXPECT_EQ(agent->RestOfAlerts(), "");
    EXPECT_EQ(agent->ExitCode(), 0);
  }
}

TEST_F(AgentTest, AnOrderlyEndDeliversWhatTheLimitHeldBack) {
  for (const char* const name : {"aaa", "bbb", "ccc", "ddd", "zzz"}) {
    etc.AppendPasswd(Line(name));
  }
  Agent agent({"--limit", "2"});
  EXPECT_THAT(agent.NextAlerts(2), ElementsAre(Alert("aaa"), Alert("bbb")));
  EXPECT_THAT(agent.LogUntil("the limit of events a minute is reached"),
              HasSubstr("the limit of events a minute is reached"));
  agent.Send(SIGTERM);
  EXPECT_THAT(Lines(agent.RestOfAlerts()), ElementsAre(Alert("ccc"), Alert("ddd"), Alert("zzz")));
  EXPECT_EQ(agent.ExitCode(), 0);
}

TEST_F(AgentTest, AnEndInTheMiddleOfADetectionDeliversAllOfIt) {
  std::string passwd = rootAndAlice;
  std::vector<std::string> expected;
  for (int number = 1000; number < 3000; ++number) {
    passwd += Line("toor" + std::to_string(number)) + "\n";
    expected.push_back(Alert("toor" + std::to_string(number)));
  }
  const auto agent = Watching({"--limit", "0"});
  etc.ReplacePasswd(passwd);
  std::vector<std::string> alerts = agent->NextAlerts(1);
  agent->Send(SIGTERM);
  agent->Send(SIGTERM);
  for (const std::string& alert : Lines(agent->RestOfAlerts())) {
    alerts.push_back(alert);
  }
  EXPECT_EQ(alerts, expected);
  EXPECT_EQ(agent->ExitCode(), 0);
}

TEST_F(AgentTest, AReaderThatIsStuckDelaysTheEndButNotForEver) {
  // More than a pipe holds, but what is left over fits into another: the log drops what nobody reads in time.
  std::string passwd = rootAndAlice;
  for (int number = 0; number < 90; ++number) {
    passwd += "toor" + std::to_string(number) + ":x:0:0::/" + std::string(900, 'h') + ":/bin/sh\n";
  }
  etc.WritePasswd(passwd);
  Agent agent({"--limit", "0", "--log-level", "warning"});
  EXPECT_THAT(agent.LogUntil("standard output is not being read"),
              HasSubstr("standard output is not being read"));
  agent.Send(SIGTERM);
  EXPECT_THAT(agent.RestOfLog(), AllOf(HasSubstr(" events could not be delivered to standard output"),
                                       HasSubstr(R"(not delivered: {"eventType")"), HasSubstr(R"("toor9")")));
  EXPECT_EQ(agent.ExitCode(), 5);
}

TEST_F(AgentTest, ABadPolicyLeavesTheRunningOneInPlace) {
  const std::string policy = folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  const auto agent = Watching({"--policy", policy});
  int number = 0;
  for (const char* const bad : {"", "{", "[1,\n2", "\xff\xfe{"}) {
    folder.Write("policy.json", bad);
    agent->Send(SIGHUP);
    EXPECT_THAT(agent->LogUntil("the running policy stays"), HasSubstr("error policy " + policy + ":"));
    const std::string name = "toor" + std::to_string(++number);
    etc.AppendPasswd(Line(name));
    EXPECT_EQ(agent->NextAlert(), Alert(name));
  }
  folder.Write("policy.json", "{\n  \"unauthorized-root-user\": {,}\n}");
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("the running policy stays"), HasSubstr("error policy " + policy + ":2:30: "));
  std::filesystem::remove(policy);
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("the running policy stays"),
              HasSubstr("error policy " + policy + ": No such file or directory; the running policy stays"));
  folder.MakeFifo("policy.json");
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("the running policy stays"),
              HasSubstr("error policy " + policy + ": not a regular file; the running policy stays"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AGoodPolicyStartsAnewWithoutRepeatingAlerts) {
  const std::string policy = folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  etc.AppendPasswd(Line("toor"));
  const auto agent = Watching({"--policy", policy});
  EXPECT_EQ(agent->NextAlert(), Alert("toor"));
  folder.Write("policy.json", "{\"unauthorized-root-user\": {\"changed\": 1}}");
  for (int time = 0; time < 3; ++time) {
    agent->Send(SIGHUP);
    EXPECT_THAT(agent->LogUntil("policy reloaded"), HasSubstr("policy reloaded"));
    ExpectSilence(*agent);
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, APolicyWithoutTheKeyEndsTheDetectionAndOneWithItBeginsItAgain) {
  const std::string policy = folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  const auto agent = Watching({"--policy", policy});
  ExpectSilence(*agent);  // the first reading is over
  Readings readings;
  folder.Write("policy.json", "{}");
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("policy reloaded"), HasSubstr("policy reloaded"));
  ASSERT_TRUE(readings.WaitForOne());
  for (const char* const name : {"toor1", "toor2", "toor3"}) {
    etc.AppendPasswd(Line(name));
    ASSERT_TRUE(readings.WaitForOne());
  }
  etc.WritePasswd(rootAndAlice + Line("zz-marker-1") + "\n");
  ASSERT_TRUE(readings.WaitForOne());

  folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("policy reloaded"), HasSubstr("policy reloaded"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AStormOfReloadsLosesNothing) {
  const auto agent = Watching(Plain());
  std::vector<std::string> expected;
  for (int time = 0; time < 10; ++time) {
    for (int signal = 0; signal < 50; ++signal) {
      agent->Send(SIGHUP);
    }
    etc.AppendPasswd(Line("toor" + std::to_string(time)));
    EXPECT_EQ(agent->NextAlert(), Alert("toor" + std::to_string(time)));
  }
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, ThePolicyIsLoggedForDebuggingOnly) {
  const std::string policy =
      folder.Write("policy.json", "{\"unauthorized-root-user\": {\"note\": \"words-of-the-policy\"}}");
  EXPECT_THAT(RunToTheEnd({"--once", "--policy", policy}).errors, Not(HasSubstr("words-of-the-policy")));
  EXPECT_THAT(RunToTheEnd({"--once", "--policy", policy, "--log-level", "debug"}).errors,
              HasSubstr("words-of-the-policy"));
}

TEST_F(AgentTest, OnceEndsWithZeroWithoutAnAlertAndWithOneAfterSome) {
  const Outcome none = RunToTheEnd({"--once"});
  EXPECT_EQ(none.exitCode, 0) << none.errors;
  EXPECT_EQ(none.output, "");

  for (const char* const name : {"zoe", "bob", "toor"}) {
    etc.AppendPasswd(Line(name));
  }
  const Outcome some = RunToTheEnd({"--once", "--limit", "1"});  // the limit delays nothing at the end
  EXPECT_EQ(some.exitCode, 1) << some.errors;
  EXPECT_THAT(Lines(some.output), ElementsAre(Alert("bob"), Alert("toor"), Alert("zoe")));

  const std::string off = folder.Write("off.json", "{}");
  const Outcome unasked = RunToTheEnd({"--once", "--policy", off});
  EXPECT_EQ(unasked.exitCode, 0) << unasked.errors;
  EXPECT_EQ(unasked.output, "");
}

TEST_F(AgentTest, OnceWithoutAnAccountFileEndsWithSeven) {
  struct Row {
    std::string command;
    std::string reason;
  };
  const std::vector<Row> rows = {{"rm passwd", ": No such file or directory"},
                                 {"mkfifo passwd", " is not a regular file"},
                                 {"rm passwd && mkdir passwd", " is not a regular file"},
                                 {"rmdir passwd && ln -s nowhere passwd", ": No such file or directory"}};
  for (const Row& row : rows) {
    ASSERT_NO_FATAL_FAILURE(Do(row.command));
    const Outcome outcome = RunToTheEnd({"--once"});
    EXPECT_EQ(outcome.exitCode, 7) << row.command;
    EXPECT_EQ(outcome.errors, "velta-agent: /etc/passwd" + row.reason + "\n");
    EXPECT_EQ(outcome.output, "");
  }
}

TEST_F(AgentTest, AnOutputThatTakesNothingEndsWithFiveAndTheLogHasTheAlert) {
  etc.AppendPasswd(Line("toor"));
  const Outcome outcome = RunToTheEnd({"--once", "--output", "/dev/full"});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("1 events could not be delivered to /dev/full"),
                                    HasSubstr(R"(userName":"toor")")));
}

TEST_F(AgentTest, AnOutputFileIsAppendedTo) {
  const std::string output = folder.Write("alerts", "older\n");
  etc.AppendPasswd(Line("toor"));
  for (int time = 0; time < 2; ++time) {
    const Outcome outcome = RunToTheEnd({"--once", "--output", output});
    EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
  }
  EXPECT_THAT(Lines(folder.Read("alerts")), ElementsAre("older", Alert("toor"), Alert("toor")));
}

TEST_F(AgentTest, CheckPolicySaysWhetherTheFileIsOne) {
  const std::string good = folder.Write("good.json", "{}");
  const Outcome valid = RunToTheEnd({"--check-policy", good});
  EXPECT_EQ(valid.exitCode, 0);
  EXPECT_EQ(valid.output, good + ": valid\n");
  EXPECT_EQ(valid.errors, "");

  const std::string bad = folder.Write("bad.json", "{\n,}");
  const Outcome invalid = RunToTheEnd({"--check-policy", bad});
  EXPECT_EQ(invalid.exitCode, 3);
  EXPECT_EQ(invalid.output, "");
  EXPECT_THAT(invalid.errors, testing::StartsWith("velta-agent: policy " + bad + ":2:1: "));
}

TEST_F(AgentTest, WhatCannotBeDoneEndsWithItsOwnCodeAndItsName) {
  struct Row {
    std::vector<std::string> arguments;
    int exitCode;
    std::string named;
  };
  const std::string bad = folder.Write("bad.json", "{");
  const std::string text = folder.Write("text.so", "no module");
  const std::vector<Row> rows = {
      {{"--unknown"}, 2, "--unknown"},
      {{"--limit", "-1"}, 2, "--limit"},
      {{"--policy", bad}, 3, "policy " + bad + ":1:2: "},
      {{"--policy", folder.Path("none.json")}, 3, "policy " + folder.Path("none.json") + ": No such file"},
      {{"--module", folder.Path("none.so")}, 4, "module " + folder.Path("none.so") + ": "},
      {{"--module", text}, 4, "module " + text + ": "},
      {{"--output", folder.Path("none/alerts")},
       5,
       folder.Path("none/alerts") + " cannot be opened: No such file"},
      {{"--output", folder.Path()}, 5, folder.Path() + " cannot be opened: Is a directory"},
  };
  for (const Row& row : rows) {
    const Outcome outcome = RunToTheEnd(row.arguments);
    EXPECT_EQ(outcome.exitCode, row.exitCode) << row.named;
    EXPECT_THAT(outcome.errors, HasSubstr(row.named));
    EXPECT_EQ(outcome.output, "");
  }
}

TEST_F(AgentTest, HelpAndVersionAreAnswers) {
  for (const char* const question : {"--help", "--version"}) {
    const Outcome outcome = RunToTheEnd({question});
    EXPECT_EQ(outcome.exitCode, 0) << question;
    EXPECT_THAT(outcome.output,
                HasSubstr(question == std::string("--help") ? "Usage: velta-agent" : "velta-agent "));
    EXPECT_EQ(outcome.errors, "");
  }
}

TEST_F(AgentTest, AnOrdinaryUsersAgentReportsTheSame) {
  // A copy where that user may read it, with the module beside it.
  const std::filesystem::path module = VELTA_MODULE_FILE;
  Circumstances ordinary;
  ordinary.ordinaryUser = true;
  ordinary.program = folder.Path("velta-agent");
  std::filesystem::copy_file(VELTA_AGENT_FILE, ordinary.program);
  std::filesystem::copy_file(module, folder.Path(module.filename().string()));

  etc.AppendPasswd(Line("toor"));
  const auto agent = Watching(Plain(), ordinary);
  struct stat owner = {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(agent->Process()) + "/status").c_str(), &owner), 0);
  EXPECT_NE(owner.st_uid, 0U);
  EXPECT_EQ(agent->NextAlert(), Alert("toor"));
  ASSERT_NO_FATAL_FAILURE(Do("usermod -o -u 0 alice"));
  EXPECT_EQ(agent->NextAlert(), Alert("alice"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, StandardDescriptorsThatAreClosedAreNotGivenToTheOutput) {
  const std::string output = folder.MakeFifo("alerts");
  LineReader alerts(output);
  etc.AppendPasswd(Line("toor"));
  Circumstances closed;
  closed.closed = {0, 1, 2};
  Agent agent({"--output", output}, closed);
  EXPECT_EQ(WithoutTime(alerts.Next(patience)), Alert("toor"));
  for (const char* const descriptor : {"0", "1", "2"}) {
    const std::string link = "/proc/" + std::to_string(agent.Process()) + "/fd/" + descriptor;
    EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
  }
  agent.Send(SIGTERM);
  EXPECT_EQ(agent.ExitCode(), 0);
  EXPECT_EQ(alerts.Rest(patience), "");
}

TEST_F(AgentTest, StandardOutputThatIsClosedCannotTakeAlerts) {
  Circumstances closed;
  closed.closed = {1};
  const Outcome outcome = RunToTheEnd({"--once"}, closed);
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_THAT(outcome.errors, HasSubstr("standard output is closed"));
}

}  // namespace
