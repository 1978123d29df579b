#include <signal.h>
#include <string.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/json.h"
#include "tests/support/line_reader.h"
#include "tests/system/agent_fixture.h"
#include "tests/system/agent_process.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using AgentTest = AgentFixture;

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
    ASSERT_NO_FATAL_FAILURE(Do("line=" + RootLine(row.name) + " && " + row.command));
    ASSERT_EQ(agent->NextAlert(soon), AlertFor(row.name)) << row.command;
  }
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, OrdinaryChangesAreNotReported) {
  etc.AppendPasswd(RootLine("toor"));
  const auto agent = Watching(Plain());
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
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
  const std::string before = rootAndAlice + RootLine("toor") + "\n";
  for (int time = 0; time < 5; ++time) {
    etc.WritePasswd(before);
    const auto agent = Watching({"--check-interval", "0"});
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
    etc.WritePasswd(before + RootLine("zoe") + "\n");  // empty for a moment
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("zoe"));
    ExpectOrderlyEnd(*agent);
  }
}

TEST_F(AgentTest, AFileThatIsEmptyForAMomentWhileItIsReadRepeatsNothing) {
  const std::string content = rootAndAlice + RootLine("toor") + "\n";
  etc.WritePasswd(content);
  const auto agent = Watching({"--check-interval", "0"});
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  // The rename asks for a reading at once, and that one finds an empty file.
  etc.ReplacePasswd("");
  std::this_thread::sleep_for(
      std::chrono::milliseconds(300));  // the writer's own time, not a wait for the agent
  etc.WritePasswd(content);
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AFileThatStaysEmptyIsRead) {
  const std::string content = rootAndAlice + RootLine("toor") + "\n";
  etc.WritePasswd(content);
  // The cross-check may read the old content late, which would pass for a reading of the empty file.
  const auto agent = Watching({"--check-interval", "0", "--no-cross-check"});
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  Readings readings;
  etc.ReplacePasswd("");
  ASSERT_TRUE(readings.WaitForOne());
  etc.ReplacePasswd(content);
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, ALineWrittenThroughADescriptorThatStaysOpenIsReported) {
  const auto agent = Watching({"--check-interval", "0"});
  std::FILE* const held = std::fopen("/etc/passwd", "a");
  ASSERT_NE(held, nullptr);
  for (const char* const name : {"a-held", "b-held"}) {
    std::fputs((RootLine(name) + "\n").c_str(), held);
    std::fflush(held);
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
  }
  std::fclose(held);
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, AnAccountThatWentAndComesBackIsReportedAgain) {
  const auto agent = Watching(Plain());
  const std::string add = "useradd -l -M -N -o -u 0 -g 0 -s /bin/sh -d /nowhere toor";
  ASSERT_NO_FATAL_FAILURE(Do(add));
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  ASSERT_NO_FATAL_FAILURE(Do("userdel -f toor"));  // by force: this process counts as one of the user's
  ExpectSilence(*agent);                           // so it was read without the account
  ASSERT_NO_FATAL_FAILURE(Do(add));
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  ExpectOrderlyEnd(*agent);
}

// A FIFO would hold the reading, and with it the end of the agent, for ever; a folder would read as an empty
// file, after which every accepted account is new again.
TEST_F(AgentTest, Fault11WhatIsNoFileIsNotReadAndTheFileThatComesBackIs) {
  const auto agent = Watching(Plain());
  ASSERT_NO_FATAL_FAILURE(Do("echo " + RootLine("before") + " >>passwd"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("before"));
  const std::string fifo = "mkfifo obstacle";
  for (const std::string& obstacle : {fifo, std::string("mkdir obstacle")}) {
    ASSERT_NO_FATAL_FAILURE(Do("mv passwd kept && " + obstacle + " && mv -T obstacle passwd"));
    EXPECT_THAT(agent->LogUntil("is not a regular file"), HasSubstr("/etc/passwd is not a regular file"));
    if (obstacle == fifo) {  // the same is told once a minute
      EXPECT_EQ(agent->NextAlert(), UnreadableFor("/etc/passwd is not a regular file"));
    }
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
  ASSERT_NO_FATAL_FAILURE(Do("echo " + RootLine("toor") + " >>behind/passwd"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, WhatNoEventTellsIsSeenByTheStat) {
  // A link on the way to the file: nothing that is watched changes when it points elsewhere.
  ASSERT_NO_FATAL_FAILURE(
      Do("mkdir -p behind/one behind/two && cp -p passwd behind/one && cp -p passwd behind/two && "
         "echo " +
         RootLine("toor") +
         " >>behind/two/passwd && ln -s one behind/way && "
         "ln -sf behind/way/passwd passwd"));
  const auto agent = Watching({"--check-interval", "50"});
  ExpectSilence(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("ln -sfn two behind/way"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, StandingAccountsAreReportedAtOnceInNameOrder) {
  etc.AppendPasswd(RootLine("zoe"));
  etc.AppendPasswd(RootLine("bob"));
  const auto agent = Watching(Plain());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(agent->NextAlerts(2), ElementsAre(AlertFor("bob"), AlertFor("zoe")));
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            std::chrono::seconds(5));  // the timer's first run: 10 s
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, Fault17AnAgentThatWasKilledReportsStandingAccountsWhenItIsStartedAgain) {
  const auto killed = Watching(Plain());
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(killed->NextAlert(), AlertFor("toor"));
  killed->Send(SIGKILL);
  EXPECT_EQ(killed->ExitCode(), 128 + SIGKILL);
  const auto next = Watching(Plain());
  EXPECT_EQ(next->NextAlert(), AlertFor("toor"));
  ExpectOrderlyEnd(*next);
}

TEST_F(AgentTest, Fault22TwoAgentsOnOneHostReportBoth) {
  const auto one = Watching(Plain());
  const auto other = Watching(Plain());
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(one->NextAlert(), AlertFor("toor"));
  EXPECT_EQ(other->NextAlert(), AlertFor("toor"));
  ExpectOrderlyEnd(*one);
  ExpectOrderlyEnd(*other);
}

std::string UncoveredFor(const std::string& name, const std::string& shell, const std::string& home, int line,
                         const std::string& reason) {
  return R"({"eventType":"uncovered-root-account","eventTime":"TIME","eventContent":{"userName":")" + name +
         R"(","uid":0,"gid":0,"shell":")" + shell + R"(","home":")" + home + R"(","line":)" +
         std::to_string(line) + R"(,"reason":")" + reason + R"("}})";
}

TEST_F(AgentTest, AnAccountThatOnlyTheLibraryReadsIsReportedAsSuchOnce) {
  const auto agent = Watching({"--check-interval", "0"});
  etc.AppendPasswd("six:x:0:0::/root");
  EXPECT_EQ(agent->NextAlert(soon), UncoveredFor("six", "", "/root", 3, "too few fields"));
  etc.AppendPasswd("eight:x:0:0::/root:/bin/sh:more");
  EXPECT_EQ(agent->NextAlert(soon), UncoveredFor("eight", "/bin/sh:more", "/root", 4, "too many fields"));
  etc.AppendPasswd("nul:x:0:0::/root:/bin/sh" + std::string(1, '\0') + ":junk");
  EXPECT_EQ(agent->NextAlert(soon), UncoveredFor("nul", "/bin/sh", "/root", 5, "NUL in line"));
  etc.AppendPasswd("long:x:0:0:" + std::string(1200, 'g') + ":/root:/bin/sh");
  EXPECT_EQ(agent->NextAlert(soon), UncoveredFor("long", "/bin/sh", "/root", 6, "line too long"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, StandingUncoveredAccountsAreReportedAtTheStartAndByOnceUnlessSwitchedOff) {
  etc.AppendPasswd("six:x:0:0::/root");
  const std::string event = UncoveredFor("six", "", "/root", 3, "too few fields");
  const auto agent = Watching(Plain());
  EXPECT_EQ(agent->NextAlert(soon), event);
  ExpectOrderlyEnd(*agent);

  const Outcome once = RunToTheEnd({"--once"});
  EXPECT_EQ(once.exitCode, 1) << once.errors;
  EXPECT_THAT(AlertsIn(once.output), ElementsAre(event));

  const std::string off = folder.Write("off.json", "{}");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--once", "--no-cross-check"}, {"--once", "--policy", off}}) {
    const Outcome without = RunToTheEnd(arguments);
    EXPECT_EQ(without.exitCode, 0) << without.errors;
    EXPECT_EQ(without.output, "");
  }
}

TEST_F(AgentTest, ANameOfAnyBytesIsOneLineOfJson) {
  const auto agent = Watching(Plain());
  etc.AppendPasswd(RootLine("a\"b\\c\x1b[2J\r\t%s%n{}\xff\xe2\x80\xae"));
  const std::string alert = agent->NextAlert();
  EXPECT_FALSE(FindJsonFault(alert).has_value()) << alert;
  EXPECT_EQ(alert, AlertFor(R"(a\"b\\c\u001b[2J\r\t%s%n{}\ufffd\u202e)"));
  EXPECT_THAT(agent->LogUntil("its bytes"), HasSubstr(" warning json: a text is not UTF-8, its bytes: "
                                                      "6122625c631b5b324a0d092573256e7b7dffe280ae\n"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, Fault20BothSignalsEndItOrderly) {
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
    etc.AppendPasswd(RootLine(name));
  }
  AgentProcess agent({"--limit", "2"});
  EXPECT_THAT(agent.NextAlerts(2), ElementsAre(AlertFor("aaa"), AlertFor("bbb")));
  EXPECT_THAT(agent.LogUntil("the limit of events a minute is reached"),
              HasSubstr("the limit of events a minute is reached"));
  agent.Send(SIGTERM);
  EXPECT_THAT(AlertsIn(agent.RestOfAlerts()), ElementsAre(AlertFor("ccc"), AlertFor("ddd"), AlertFor("zzz")));
  EXPECT_EQ(agent.ExitCode(), 0);
}

TEST_F(AgentTest, Fault20AnEndInTheMiddleOfADetectionDeliversAllOfIt) {
  std::string passwd = rootAndAlice;
  std::vector<std::string> expected;
  for (int number = 1000; number < 3000; ++number) {
    passwd += RootLine("toor" + std::to_string(number)) + "\n";
    expected.push_back(AlertFor("toor" + std::to_string(number)));
  }
  const auto agent = Watching({"--limit", "0"});
  etc.ReplacePasswd(passwd);
  std::vector<std::string> alerts = agent->NextAlerts(1);
  const auto start = std::chrono::steady_clock::now();
  agent->Send(SIGTERM);
  agent->Send(SIGTERM);
  for (const std::string& alert : AlertsIn(agent->RestOfAlerts())) {
    alerts.push_back(alert);
  }
  EXPECT_EQ(alerts, expected);
  EXPECT_EQ(agent->ExitCode(), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(AgentTest, Fault20AReaderThatIsStuckDelaysTheEndButNotForEver) {
  // More than a pipe holds, but what is left over fits into another: the log drops what nobody reads in time.
  std::string passwd = rootAndAlice;
  for (int number = 0; number < 90; ++number) {
    passwd += "toor" + std::to_string(number) + ":x:0:0::/" + std::string(700, 'h') + ":/bin/sh\n";
  }
  etc.WritePasswd(passwd);
  AgentProcess agent({"--limit", "0", "--log-level", "warning"});
  EXPECT_THAT(agent.LogUntil("standard output is not being read"),
              HasSubstr("standard output is not being read"));
  const auto start = std::chrono::steady_clock::now();
  agent.Send(SIGTERM);
  EXPECT_THAT(agent.RestOfLog(), AllOf(HasSubstr(" events could not be delivered to standard output"),
                                       HasSubstr(R"(not delivered: {"eventType")"), HasSubstr(R"("toor9")")));
  EXPECT_EQ(agent.ExitCode(), 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(AgentTest, Fault19ABadPolicyLeavesTheRunningOneInPlace) {
  const std::string policy = folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  const auto agent = Watching({"--policy", policy});
  int number = 0;
  for (const char* const bad : {"", "{", "[1,\n2", "\xff\xfe{"}) {
    folder.Write("policy.json", bad);
    agent->Send(SIGHUP);
    EXPECT_THAT(agent->LogUntil("the running policy stays"), HasSubstr("error policy " + policy + ":"));
    const std::string name = "toor" + std::to_string(++number);
    etc.AppendPasswd(RootLine(name));
    EXPECT_EQ(agent->NextAlert(), AlertFor(name));
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
  etc.AppendPasswd(RootLine("toor"));
  const auto agent = Watching({"--policy", policy});
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
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
    etc.AppendPasswd(RootLine(name));
    ASSERT_TRUE(readings.WaitForOne());
  }
  etc.WritePasswd(rootAndAlice + RootLine("zz-marker-1") + "\n");
  ASSERT_TRUE(readings.WaitForOne());

  folder.Write("policy.json", "{\"unauthorized-root-user\": {}}");
  agent->Send(SIGHUP);
  EXPECT_THAT(agent->LogUntil("policy reloaded"), HasSubstr("policy reloaded"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, Fault20AThousandSignalsToReloadLoseNothing) {
  const auto agent = Watching(Plain());
  std::vector<std::string> expected;
  for (int time = 0; time < 10; ++time) {
    for (int signal = 0; signal < 100; ++signal) {
      agent->Send(SIGHUP);
    }
    etc.AppendPasswd(RootLine("toor" + std::to_string(time)));
    EXPECT_EQ(agent->NextAlert(), AlertFor("toor" + std::to_string(time)));
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
    etc.AppendPasswd(RootLine(name));
  }
  const Outcome some = RunToTheEnd({"--once", "--limit", "1"});  // the limit delays nothing at the end
  EXPECT_EQ(some.exitCode, 1) << some.errors;
  EXPECT_THAT(AlertsIn(some.output), ElementsAre(AlertFor("bob"), AlertFor("toor"), AlertFor("zoe")));

  const std::string off = folder.Write("off.json", "{}");
  const Outcome unasked = RunToTheEnd({"--once", "--policy", off});
  EXPECT_EQ(unasked.exitCode, 0) << unasked.errors;
  EXPECT_EQ(unasked.output, "");
}

TEST_F(AgentTest, Fault11OnceWithoutAnAccountFileEndsWithSeven) {
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

TEST_F(AgentTest, Fault16AnOutputThatTakesNothingEndsWithFiveAndTheLogHasTheAlert) {
  etc.AppendPasswd(RootLine("toor"));
  const Outcome outcome = RunToTheEnd({"--once", "--output", "/dev/full"});
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_THAT(outcome.errors, AllOf(HasSubstr("1 events could not be delivered to /dev/full"),
                                    HasSubstr(R"(userName":"toor")")));
}

TEST_F(AgentTest, AnOutputFileIsAppendedTo) {
  const std::string output = folder.Write("alerts", "older\n");
  etc.AppendPasswd(RootLine("toor"));
  for (int time = 0; time < 2; ++time) {
    const Outcome outcome = RunToTheEnd({"--once", "--output", output});
    EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
    EXPECT_EQ(outcome.output, "");
  }
  EXPECT_THAT(AlertsIn(folder.Read("alerts")), ElementsAre("older", AlertFor("toor"), AlertFor("toor")));
}

TEST_F(AgentTest, Fault19CheckPolicySaysWhetherTheFileIsOne) {
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

  etc.AppendPasswd(RootLine("toor"));
  const auto agent = Watching(Plain(), ordinary);
  struct stat owner = {};
  ASSERT_EQ(stat(("/proc/" + std::to_string(agent->Process()) + "/status").c_str(), &owner), 0);
  EXPECT_NE(owner.st_uid, 0U);
  EXPECT_EQ(agent->NextAlert(), AlertFor("toor"));
  ASSERT_NO_FATAL_FAILURE(Do("usermod -o -u 0 alice"));
  EXPECT_EQ(agent->NextAlert(), AlertFor("alice"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(AgentTest, StandardDescriptorsThatAreClosedAreNotGivenToTheOutput) {
  const std::string output = folder.MakeFifo("alerts");
  LineReader alerts(output);
  etc.AppendPasswd(RootLine("toor"));
  Circumstances closed;
  closed.closed = {0, 1, 2};
  AgentProcess agent({"--output", output}, closed);
  EXPECT_EQ(WithoutTime(alerts.Next(patience)), AlertFor("toor"));
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
