#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/line_reader.h"
#include "tests/system/agent_fixture.h"
#include "tests/system/agent_process.h"
#include "tests/system/failing_calls.h"
#include "tests/system/target.h"
#include "tests/system/tool.h"

namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::chrono::seconds endLimit(5);

// In this mount namespace, with room for little.
class SmallDisk {
 public:
  SmallDisk(const std::string& folder, const char* size) : path(folder) {
    std::filesystem::create_directory(path);
    if (mount("tmpfs", path.c_str(), "tmpfs", 0, (std::string("size=") + size).c_str()) != 0) {
      throw std::runtime_error("no small disk: " + std::string(std::strerror(errno)));
    }
  }
  ~SmallDisk() { umount2(path.c_str(), MNT_DETACH); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

 private:
  std::string path;
};

class ProcessFaults : public AgentFixture {
 protected:
  // So many accounts, and the alerts about them in the order in which they leave.
  static std::string RootLines(int count, std::vector<std::string>& alerts) {
    std::string lines;
    for (int number = 1000; number < 1000 + count; ++number) {
      const std::string name = "toor" + std::to_string(number);
      lines += RootLine(name) + "\n";
      alerts.push_back(AlertFor(name));
    }
    return lines;
  }

  // Until a record of that account stands in the file. No event tells of it: it is looked for.
  void WaitForRecord(const std::string& file, const std::string& name, AgentProcess& agent) const {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (folder.Read(file).find(R"("userName":")" + name + '"') == std::string::npos) {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << name << ": " << folder.Read(file);
      agent.NextAlert(milliseconds(5));  // there is none: a time to wait
    }
  }

  // The agent ends with 0 and in time, having delivered what it had; returns the rest of its log.
  static std::string End(AgentProcess& agent, int code = 0) {
    const auto start = std::chrono::steady_clock::now();
    agent.Send(SIGTERM);
    const std::string log = agent.RestOfLog();
    EXPECT_EQ(agent.ExitCode(), code) << log;
    EXPECT_LT(std::chrono::steady_clock::now() - start, endLimit);
    return log;
  }
};

TEST_F(ProcessFaults, Fault07AThreadThatIsRefusedEndsTheStartAndIsNamed) {
  struct Row {
    std::string rules;
    std::string reason;
  };
  const std::vector<Row> rows = {
      {"pthread_create=EAGAIN#1", "the send queue cannot start: Resource temporarily unavailable"},
      {"pthread_create=EAGAIN#2", "the task scheduler cannot start: Resource temporarily unavailable"},
      {"pthread_create=EAGAIN#3", "the file monitor cannot start: Resource temporarily unavailable"},
      {"pthread_create=EPERM", "the send queue cannot start: Operation not permitted"},
      {"eventfd=EMFILE", "the file monitor cannot start: file monitor: eventfd: Too many open files"},
  };
  etc.AppendPasswd(RootLine("toor"));
  for (const Row& row : rows) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>(), {"--once"}}) {
      const Outcome outcome = RunToTheEnd(arguments, WithFailing(row.rules));
      EXPECT_EQ(outcome.exitCode, 6) << row.rules;
      EXPECT_EQ(outcome.errors, "velta-agent: " + row.reason + "\n");
      EXPECT_EQ(outcome.output, "");
    }
  }
  // There is no fourth one.
  const Outcome outcome = RunToTheEnd({"--once"}, WithFailing("pthread_create=EAGAIN#4-"));
  EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
  EXPECT_THAT(AlertsIn(outcome.output), ElementsAre(AlertFor("toor")));
}

TEST_F(ProcessFaults, Fault16AReaderThatPausesGetsEveryAlertInOrder) {
  std::vector<std::string> expected;
  etc.WritePasswd(rootAndAlice + RootLines(1000, expected));  // more than a pipe holds
  AgentProcess agent({"--limit", "0"});
  std::string log = agent.LogUntil("standard output is not being read");
  etc.AppendPasswd(RootLine("zz-while-blocked"));
  expected.push_back(AlertFor("zz-while-blocked"));
  EXPECT_EQ(agent.NextAlerts(expected.size()), expected);
  log += agent.LogUntil("standard output takes events again");
  ExpectSilence(agent);
  log += End(agent);
  EXPECT_EQ(agent.RestOfAlerts(), "");
  EXPECT_EQ(Count(log, "warning send queue"), 1U) << log;
}

TEST_F(ProcessFaults, Fault16AFullDiskTakesWholeRecordsAndTheRestWhenThereIsRoom) {
  const SmallDisk disk(folder.Path("disk"), "65536");
  folder.Write("disk/filler", std::string(65536 - 3 * 4096, 'x'));
  std::vector<std::string> expected;
  etc.WritePasswd(rootAndAlice + RootLines(150, expected));
  AgentProcess agent({"--limit", "0", "--output", folder.Path("disk/alerts")});
  std::string log = agent.LogUntil("No space left on device; events are kept and tried again");
  std::string taken = folder.Read("disk/alerts");
  for (int attempt = 0; attempt < 100 && taken.back() != '\n'; ++attempt) {
    taken = folder.Read("disk/alerts");  // a try was under way, and its part is taken back
  }
  const std::vector<std::string> first = AlertsIn(taken);
  ASSERT_LT(first.size(), expected.size());
  EXPECT_GT(first.size(), 10U);
  EXPECT_EQ(taken.back(), '\n');
  EXPECT_TRUE(std::equal(first.begin(), first.end(), expected.begin())) << taken;

  etc.AppendPasswd(RootLine("zz-while-full"));
  expected.push_back(AlertFor("zz-while-full"));
  std::filesystem::remove(folder.Path("disk/filler"));
  log += agent.LogUntil("takes events again");
  ASSERT_NO_FATAL_FAILURE(WaitForRecord("disk/alerts", "zz-while-full", agent));
  log += End(agent);
  EXPECT_EQ(AlertsIn(folder.Read("disk/alerts")), expected);
  EXPECT_EQ(Count(log, "warning send queue"), 1U) << log;
}

TEST_F(ProcessFaults, Fault16ADeviceThatIsAlwaysFullIsToldOnceAndWhatIsLeftIsInTheLog) {
  etc.AppendPasswd(RootLine("toor1"));
  etc.AppendPasswd(RootLine("toor2"));
  AgentProcess agent({"--output", "/dev/full"});
  std::string log;
  log +=
      agent.LogUntil("/dev/full cannot be written: No space left on device; events are kept and tried again");
  log += End(agent, 5);
  EXPECT_EQ(Count(log, "warning send queue"), 1U) << log;
  EXPECT_THAT(log, HasSubstr("2 events could not be delivered to /dev/full"));
  EXPECT_EQ(Count(log, "not delivered: {"), 2U) << log;
  EXPECT_LT(log.find(R"("userName":"toor1")"), log.find(R"("userName":"toor2")"));
}

int outputOfNextAgent = -1;

TEST_F(ProcessFaults, Fault16AReaderThatGoesAndReturnsGetsWhatCameMeanwhile) {
  const std::string fifo = folder.MakeFifo("alerts");
  for (const bool byName : {true, false}) {
    SCOPED_TRACE(byName ? "--output" : "standard output");
    etc.WritePasswd(rootAndAlice);
    LineReader reader(fifo);
    outputOfNextAgent = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    Circumstances circumstances;
    std::vector<std::string> arguments = {"--output", fifo};
    if (!byName) {
      circumstances.prepare = [] { return dup2(outputOfNextAgent, STDOUT_FILENO) == STDOUT_FILENO; };
      arguments = {};
    }
    AgentProcess agent(arguments, circumstances);
    close(outputOfNextAgent);
    std::string log = agent.LogUntil("watching /etc/passwd");
    etc.AppendPasswd(RootLine("a-read"));
    EXPECT_EQ(WithoutTime(reader.Next(patience)), AlertFor("a-read"));
    reader.Close();
    etc.AppendPasswd(RootLine("b-first-without-reader"));
    log += agent.LogUntil("events are kept and tried again");
    etc.AppendPasswd(RootLine("c-without-reader"));
    LineReader next(fifo);
    EXPECT_EQ(WithoutTime(next.Next(patience)), AlertFor("b-first-without-reader"));
    EXPECT_EQ(WithoutTime(next.Next(patience)), AlertFor("c-without-reader"));
    log += agent.LogUntil("takes events again");
    log += End(agent);
    EXPECT_EQ(next.Rest(patience), "");
    EXPECT_EQ(Count(log, "warning send queue"), 1U) << log;
  }
}

TEST_F(ProcessFaults, Fault16WritesThatFailOrTakeAPartLeaveWholeRecordsInOrder) {
  std::vector<std::string> expected;
  const std::string lines = RootLines(20, expected);
  for (const char* const rules : {"write@alerts=ENOSPC#-2", "write@alerts=EIO#2", "write@alerts=EINTR%2",
                                  "write@alerts=30#3", "write@alerts=1#-2", "open@alerts=EMFILE#2"}) {
    SCOPED_TRACE(rules);
    etc.WritePasswd(rootAndAlice);
    std::filesystem::remove(folder.Path("alerts"));
    const auto agent = Watching({"--limit", "0", "--output", folder.Path("alerts")}, WithFailing(rules));
    std::filesystem::remove(folder.Path("alerts"));  // so that it is opened once more
    etc.WritePasswd(rootAndAlice + lines);
    const bool interrupted = std::strstr(rules, "EINTR") != nullptr;
    const std::string log = interrupted ? "" : agent->LogUntil("takes events again");
    EXPECT_EQ(Count(log, "warning send queue"), interrupted ? 0U : 1U) << log;
    etc.AppendPasswd(RootLine("zz"));
    ASSERT_NO_FATAL_FAILURE(WaitForRecord("alerts", "zz", *agent));
    EXPECT_THAT(End(*agent), Not(HasSubstr("warning")));
    std::vector<std::string> all = expected;
    all.push_back(AlertFor("zz"));
    EXPECT_EQ(AlertsIn(folder.Read("alerts")), all);
  }
}

// As on a network file system whose server is gone.
TEST_F(ProcessFaults, Fault16AWriteThatNeverComesBackDoesNotHoldUpAnEnd) {
  const auto agent =
      Watching({"--output", "-", "--output", folder.Path("alerts")}, WithFailing("write@alerts=HANG#2"));
  for (const char* const name : {"first", "second"}) {
    etc.AppendPasswd(RootLine(name));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name)) << "one output holds up another";
  }
  const auto start = std::chrono::steady_clock::now();
  agent->Send(SIGTERM);
  EXPECT_EQ(agent->ExitCode(), 5);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(emulated ? 10 : 5));
  const std::string log = agent->RestOfLog();
  EXPECT_THAT(log, HasSubstr("does not end; its event may have arrived"));
  EXPECT_THAT(log, HasSubstr(R"(not delivered: {"eventType":"unauthorized-root-user")"));
}

TEST_F(ProcessFaults, Fault17WheneverItIsKilledTheNextOneReportsEveryStandingAccount) {
  const unsigned seed = std::random_device()();
  RecordProperty("seed", std::to_string(seed));
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string output = folder.Path("alerts");
  std::set<std::string> known;
  for (int time = 10; time < 30; ++time) {
    AgentProcess agent({"--limit", "0", "--output", output});
    // From the middle of the start to well after it
    std::uniform_int_distribution<int> delay(0, emulated ? 600 : 30);
    for (int change = 0; change < 3; ++change) {
      agent.NextAlert(milliseconds(delay(random)));  // there is none: a time to wait
      const std::string name = "toor" + std::to_string(time) + std::to_string(change);
      etc.ReplacePasswd(etc.Passwd() + RootLine(name) + "\n");
      known.insert(AlertFor(name));
    }
    agent.NextAlert(milliseconds(delay(random)));
    agent.Send(SIGKILL);
    EXPECT_EQ(agent.ExitCode(), 128 + SIGKILL);
  }
  // Half a record at the end, as an end of the machine may leave it
  folder.Write("alerts", folder.Read("alerts") + R"({"eventType":"unauth)");
  const std::string before = folder.Read("alerts");
  const auto agent = Watching({"--limit", "0", "--output", output});
  etc.ReplacePasswd(etc.Passwd() + RootLine("zz-last") + "\n");
  known.insert(AlertFor("zz-last"));
  ASSERT_NO_FATAL_FAILURE(WaitForRecord("alerts", "zz-last", *agent));
  End(*agent);

  const std::string all = folder.Read("alerts");
  ASSERT_EQ(all.substr(0, before.size() + 1), before + "\n");
  EXPECT_EQ(AlertsIn(all.substr(before.size() + 1)), std::vector<std::string>(known.begin(), known.end()));
}

TEST_F(ProcessFaults, Fault18AnAlertFileThatIsRotatedRemovedOrTruncatedIsOpenedAnew) {
  const std::string output = folder.Path("alerts");
  AgentProcess agent({"--limit", "0", "--output", output});
  std::string log = agent.LogUntil("watching /etc/passwd");
  const auto alert = [&](const std::string& name) {
    etc.AppendPasswd(RootLine(name));
    WaitForRecord("alerts", name, agent);
  };
  alert("a");
  std::filesystem::rename(output, folder.Path("alerts.1"));
  alert("b");
  std::filesystem::remove(output);
  alert("c");
  std::filesystem::resize_file(output, 0);
  alert("d");
  std::filesystem::rename(output, folder.Path("alerts.2"));
  folder.Write("alerts", "");  // as a rotation does that makes the next file itself
  alert("e");
  alert("f");
  log += End(agent);
  EXPECT_THAT(AlertsIn(folder.Read("alerts.1")), ElementsAre(AlertFor("a")));
  EXPECT_THAT(AlertsIn(folder.Read("alerts.2")), ElementsAre(AlertFor("d")));
  EXPECT_THAT(AlertsIn(folder.Read("alerts")), ElementsAre(AlertFor("e"), AlertFor("f")));
  EXPECT_THAT(log, Not(HasSubstr("warning")));
}

TEST_F(ProcessFaults, Fault18RotationsInTheMiddleOfManyAlertsLoseNone) {
  const std::string output = folder.Path("alerts");
  std::vector<std::string> expected;
  const std::string lines = RootLines(8000, expected);
  const auto agent = Watching({"--limit", "0", "--output", output});
  etc.WritePasswd(rootAndAlice + lines);
  int rotations = 0;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::vector<std::string> all;
  while (all.size() < expected.size() && std::chrono::steady_clock::now() < deadline) {
    if (std::filesystem::exists(output) && std::filesystem::file_size(output) > 0) {
      std::filesystem::rename(output, folder.Path("alerts." + std::to_string(rotations++)));
    }
    if (rotations < 5) {
      continue;  // reading takes long enough for all alerts to be written
    }
    all.clear();
    for (int file = 0; file < rotations; ++file) {
      const std::vector<std::string> part = AlertsIn(folder.Read("alerts." + std::to_string(file)));
      all.insert(all.end(), part.begin(), part.end());
    }
  }
  EXPECT_EQ(all, expected);
  End(*agent);
}

// An hour with each look at it.
TEST_F(ProcessFaults, Fault18AWallClockThatJumpsMovesNeitherTheTasksNorTheLimit) {
  for (const char* const rule : {"clock_gettime=FORWARD", "clock_gettime=BACK"}) {
    SCOPED_TRACE(rule);
    etc.WritePasswd(rootAndAlice);
    AgentProcess agent({"--limit", "2"}, WithFailing(rule));
    std::string log = agent.LogUntil("watching /etc/passwd");
    for (const char* const name : {"toor1", "toor2"}) {
      etc.AppendPasswd(RootLine(name));
      EXPECT_EQ(agent.NextAlert(soon), AlertFor(name));
    }
    etc.AppendPasswd(RootLine("toor3"));
    log += agent.LogUntil("the limit of events a minute is reached");
    EXPECT_THAT(agent.NextAlert(milliseconds(1500)), HasSubstr("[no line in time]"));
    agent.Send(SIGTERM);
    EXPECT_THAT(AlertsIn(agent.RestOfAlerts()), ElementsAre(AlertFor("toor3")));
    EXPECT_EQ(agent.ExitCode(), 0);
    std::set<std::string> hours;
    for (const std::string& record : AlertsIn(log)) {
      hours.insert(record.substr(0, std::strlen("2000-01-01T00")));
    }
    EXPECT_GE(hours.size(), 2U) << log;
  }
}

// Each is given to --check-policy and to a running agent, whose policy then is the new one or stays.
TEST_F(ProcessFaults, Fault19EveryTextIsTakenOrRefusedAsJsonSays) {
  struct Row {
    std::string text;
    std::string place;  // of the fault; empty: none, and the text is a policy
  };
  const std::string nested(1000000, '[');
  const std::vector<Row> rows = {
      {"", "1:1"},
      {" \t\r\n", "2:1"},
      {"{", "1:2"},
      {"{\"unauthorized-root-user\"", "1:26"},
      {"{\n  \"unauthorized-root-user\": {,}\n}", "2:30"},
      {"\xEF\xBB\xBF{\"unauthorized-root-user\": {}}", ""},
      {std::string("\xFF\xFE{\0}\0", 6), "1:1"},
      {std::string("\xFE\xFF\0{\0}", 6), "1:1"},
      {std::string("{\"a\": \"\0\"}", 10), "1:8"},
      {std::string("{}\0", 3), "1:3"},
      {"{} {}", "1:4"},
      {"{} // text", "1:4"},
      {"/* text */ {}", "1:1"},
      {"{\"unauthorized-root-user\": \"" + std::string(VELTA_CODE_IS_SLOW ? 1 << 20 : 10 << 20, 'x') + "\"}",
       ""},
      {nested, "1:"},
      {nested + std::string(nested.size(), ']'), "1:"},
      {"{\"unauthorized-root-user\": \"\xC3\x28\"}", "1:30"},
      {R"({"unauthorized-root-user": {}, "unauthorized-root-user": false})", ""},
      {"[]", ""},
      {"[[1, 2], {\"unauthorized-root-user\": {}}]", ""},
      {"null", ""},
      {"0.5", ""},
      {"\"unauthorized-root-user\"", ""},
  };
  const std::string good = "{\"unauthorized-root-user\": {}}";
  const std::string policy = folder.Write("policy.json", good);
  const auto agent = Watching({"--policy", policy}, {});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 60));
    folder.Write("policy.json", row.text);
    const Outcome check = RunToTheEnd({"--check-policy", policy});
    agent->Send(SIGHUP);
    if (row.place.empty()) {
      EXPECT_EQ(check.exitCode, 0) << check.errors;
      EXPECT_THAT(agent->LogUntil("policy "), HasSubstr("policy reloaded"));
      folder.Write("policy.json", good);
      agent->Send(SIGHUP);
      EXPECT_THAT(agent->LogUntil("policy "), HasSubstr("policy reloaded"));
    } else {
      const std::string place = "policy " + policy + ":" + row.place;
      EXPECT_EQ(check.exitCode, 3);
      EXPECT_THAT(check.errors, StartsWith("velta-agent: " + place));
      const std::string log = agent->LogUntil("policy " + policy);
      EXPECT_THAT(log, AllOf(HasSubstr("error " + place), HasSubstr("; the running policy stays")));
    }
    ExpectSilence(*agent);
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(ProcessFaults, Fault20AReaderThatIsGoneAndItsSignalAreNoEnd) {
  const auto agent = Watching(Plain());
  for (int time = 0; time < 10; ++time) {
    agent->Send(SIGPIPE);
    ExpectSilence(*agent);
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(ProcessFaults, Fault20SignalsThatAreRepeatedDuringTheEndChangeNothing) {
  for (const int signal : {SIGTERM, SIGINT}) {
    std::vector<std::string> expected;
    etc.WritePasswd(rootAndAlice);
    const auto agent = Watching({"--limit", "0"});
    etc.ReplacePasswd(rootAndAlice + RootLines(500, expected));
    std::vector<std::string> alerts = agent->NextAlerts(1);
    const auto start = std::chrono::steady_clock::now();
    for (int time = 0; time < 20; ++time) {
      agent->Send(signal);
      agent->Send(SIGHUP);
    }
    for (const std::string& alert : AlertsIn(agent->RestOfAlerts())) {
      alerts.push_back(alert);
    }
    EXPECT_EQ(agent->ExitCode(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, endLimit);
    EXPECT_EQ(alerts, expected);
  }
}

// Whatever the kernel does with signals of lower numbers first.
TEST_F(ProcessFaults, Fault20AnEndHasItsTurnInAStormOfReloads) {
  const std::string policy =
      folder.Write("policy.json", "{\"unauthorized-root-user\": \"" +
                                      std::string(VELTA_CODE_IS_SLOW ? 1 << 16 : 2 << 20, 'x') + "\"}");
  for (const int signal : {SIGTERM, SIGINT}) {
    const auto agent = Watching({"--policy", policy});
    std::atomic<bool> over{false};
    std::thread storm([&] {
      while (!over) {
        agent->Send(SIGHUP);
      }
    });
    EXPECT_THAT(agent->LogUntil("policy reloaded"), HasSubstr("policy reloaded"));
    agent->Send(signal);
    const std::string log = agent->RestOfLog();  // while the storm goes on
    over = true;
    storm.join();
    EXPECT_THAT(log, HasSubstr("stopping: "));
    EXPECT_EQ(agent->ExitCode(), 0);
  }
}

TEST_F(ProcessFaults, Fault21AModuleThatCannotBeUsedIsNamedAndEndsWithFour) {
  std::filesystem::copy_file(VELTA_MODULE_FILE, folder.Path("cut.so"));
  std::filesystem::resize_file(folder.Path("cut.so"), 8000);
  std::filesystem::copy_file(VELTA_MODULE_FILE, folder.Path("foreign.so"));
  {
    std::fstream foreign(folder.Path("foreign.so"), std::ios::binary | std::ios::in | std::ios::out);
    foreign.seekp(18);  // the machine, in an ELF header
    foreign.write("\x7f\x7f", 2);
  }
  folder.Write("text.so", std::string(4096, 'x'));
  folder.Write("empty.so", "");
  struct Row {
    std::string module;
    std::string reason;
  };
  const std::vector<Row> rows = {
      {folder.Path("missing.so"), "cannot open shared object file: No such file or directory"},
      {folder.Path("cut.so"), "the file is cut short: it has 8000 bytes of "},
      {folder.Path("foreign.so"), ""},  // the loader's own words, which depend on the target
      {folder.Path("text.so"), "invalid ELF header"},
      {folder.Path("empty.so"), "file too short"},
      {folder.Path(), "not a regular file"},
      {folder.MakeFifo("fifo.so"), "not a regular file"},
      {"/dev/zero", "not a regular file"},
      {VELTA_MODULE_WITHOUT_SERVICE, "UtilsServiceOfTomorrow"},
      {VELTA_MODULE_WITHOUT_ENTRY_POINT, "no entry point DeinitModule"},
  };
  for (const Row& row : rows) {
    const Outcome outcome = RunToTheEnd({"--module", row.module});
    EXPECT_EQ(outcome.exitCode, 4) << row.module;
    EXPECT_THAT(outcome.errors,
                AllOf(HasSubstr("velta-agent: module " + row.module + ": "), HasSubstr(row.reason)));
    EXPECT_EQ(outcome.output, "");
  }
}

rlim_t descriptorsOfNextAgent = 0;

// Nothing of what the test runner's own parent left open counts.
bool LimitDescriptors() {
  for (int descriptor = STDERR_FILENO + 1; descriptor < 256; ++descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
      close(descriptor);
    }
  }
  const rlimit limit = {descriptorsOfNextAgent, descriptorsOfNextAgent};
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

TEST_F(ProcessFaults, Fault22WithFewDescriptorsItRunsOrSaysWhyNot) {
  Circumstances limited;
  limited.prepare = LimitDescriptors;
  for (descriptorsOfNextAgent = 3; descriptorsOfNextAgent <= 12; ++descriptorsOfNextAgent) {
    SCOPED_TRACE(descriptorsOfNextAgent);
    etc.WritePasswd(rootAndAlice);
    AgentProcess agent(Plain(), limited);
    const std::string log = agent.LogUntil("watching /etc/passwd");
    const bool runs = log.find("watching /etc/passwd") != std::string::npos;
    if (runs) {
      etc.AppendPasswd(RootLine("appended"));
      EXPECT_EQ(agent.NextAlert(), AlertFor("appended"));
      etc.ReplacePasswd(etc.Passwd() + RootLine("replaced") + "\n");
      EXPECT_EQ(agent.NextAlert(), AlertFor("replaced"));
      agent.Send(SIGTERM);
      EXPECT_EQ(agent.ExitCode(), 0);
    } else {
      EXPECT_NE(log, "[the end] \n");
      // 127: the system's own loader had not enough to load the agent.
      EXPECT_THAT(agent.ExitCode(), testing::AnyOf(4, 5, 6, 127)) << log;
    }
    if (!emulated) {
      EXPECT_TRUE(runs || descriptorsOfNextAgent < 10) << log;
    }
  }
}

TEST_F(ProcessFaults, Fault22AChangeWhileNoDescriptorIsLeftIsReadWhenThereIsOneAgain) {
  const auto agent = Watching({"--check-interval", "0"});
  ExpectSilence(*agent);
  rlimit before = {};
  ASSERT_EQ(prlimit(agent->Process(), RLIMIT_NOFILE, nullptr, &before), 0);
  const rlimit none = {3, before.rlim_max};
  ASSERT_EQ(prlimit(agent->Process(), RLIMIT_NOFILE, &none, nullptr), 0);
  etc.AppendPasswd(RootLine("toor"));
  const std::string told = "tasks wait: /etc/passwd cannot be opened: Too many open files";
  EXPECT_THAT(agent->LogUntil(told), HasSubstr(told));
  EXPECT_EQ(agent->NextAlert(soon), UnreadableFor("/etc/passwd cannot be opened: Too many open files"));
  ASSERT_EQ(prlimit(agent->Process(), RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);
}

// Into nothing, and not into the next file that is opened: that is the one with the alerts.
TEST_F(ProcessFaults, Fault22WithoutDevicesALogThatIsClosedGoesNowhere) {
  Circumstances bare;
  bare.closed = {0, 1, 2};
  bare.prepare = [] { return unshare(CLONE_NEWNS) == 0 && mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0; };
  etc.AppendPasswd(RootLine("toor"));
  AgentProcess agent({"--log-level", "debug", "--output", folder.Path("alerts")}, bare);
  ASSERT_NO_FATAL_FAILURE(WaitForRecord("alerts", "toor", agent));
  const std::string descriptors = "/proc/" + std::to_string(agent.Process()) + "/fd/";
  for (const char* const descriptor : {"0", "1", "2"}) {
    if (!emulated) {  // an emulator takes the folder of the target's libraries for this one
      EXPECT_EQ(std::filesystem::read_symlink(descriptors + descriptor), "/");
    }
  }
  End(agent);
  EXPECT_THAT(AlertsIn(folder.Read("alerts")), ElementsAre(AlertFor("toor")));
}

TEST_F(ProcessFaults, Fault22AClosedDescriptorThatNothingTakesEndsTheStart) {
  Circumstances refused = WithFailing("open=EMFILE#-2");
  refused.closed = {0};
  const Outcome outcome = RunToTheEnd(Plain(), refused);
  EXPECT_EQ(outcome.exitCode, 6);
  EXPECT_EQ(outcome.errors, "velta-agent: descriptor 0 is closed and cannot be taken: Too many open files\n");
}

bool MakeReadOnly(const char* path) {
  return mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
         mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
}

TEST_F(ProcessFaults, Fault22OnAReadOnlySystemItReportsToItsStandardOutput) {
  Circumstances readOnly;
  readOnly.prepare = [] {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0 &&
           MakeReadOnly("/etc") && MakeReadOnly("/tmp");
  };
  const auto agent = Watching(Plain(), readOnly);
  etc.AppendPasswd(RootLine("toor"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectOrderlyEnd(*agent);

  const Outcome outcome = RunToTheEnd({"--output", "/etc/velta-alerts"}, readOnly);
  EXPECT_EQ(outcome.exitCode, 5);
  EXPECT_EQ(outcome.errors, "velta-agent: /etc/velta-alerts cannot be opened: Read-only file system\n");
}

Circumstances WithoutProc() {
  Circumstances bare;
  bare.prepare = [] {
    return unshare(CLONE_NEWNS) == 0 && mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0;
  };
  return bare;
}

TEST_F(ProcessFaults, Fault22WithoutProcItRunsWithAModuleThatIsNamed) {
  if (VELTA_SANITIZED) {
    GTEST_SKIP() << "a sanitizer needs /proc itself";
  }
  const auto agent = Watching({"--module", VELTA_MODULE_FILE}, WithoutProc());
  etc.AppendPasswd(RootLine("appended"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("appended"));
  etc.ReplacePasswd(etc.Passwd() + RootLine("replaced") + "\n");
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("replaced"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(ProcessFaults, Fault22WithoutProcAndAModuleItAsksForOne) {
  if (VELTA_SANITIZED) {
    GTEST_SKIP() << "a sanitizer needs /proc itself";
  }
  const Outcome outcome = RunToTheEnd(Plain(), WithoutProc());
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.errors, AllOf(StartsWith("velta-agent: module: /proc/self/exe cannot be read ("),
                                    HasSubstr("name the module with --module")));
}

// Turkish has an i of its own, and a comma in its numbers.
TEST_F(ProcessFaults, Fault22AForeignLocaleChangesNothing) {
  constexpr bool bigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
  const ToolResult made = RunTool({"localedef", bigEndian ? "--big-endian" : "--little-endian", "-i", "tr_TR",
                                   "-f", "UTF-8", folder.Path("tr_TR.UTF-8")});
  ASSERT_TRUE(std::filesystem::exists(folder.Path("tr_TR.UTF-8/LC_CTYPE"))) << made.output;
  if (!emulated) {  // the locale is in force, for a program that asks for it
    EXPECT_EQ(
        RunTool({"env", "LOCPATH=" + folder.Path(), "LC_ALL=tr_TR.UTF-8", "printf", "%.1f", "1,5"}).output,
        "1,5");
  }
  Circumstances turkish;
  turkish.environment = {"LOCPATH=" + folder.Path(), "LC_ALL=tr_TR.UTF-8", "LANG=tr_TR.UTF-8"};
  const std::string policy =
      folder.Write("policy.json", R"({"UNAUTHORIZED": 1.5, "unauthorized-root-user": {}})");
  etc.AppendPasswd(RootLine("IiIi-\xC4\xB0\xC4\xB1"));
  const auto agent = Watching({"--limit", "12345678", "--policy", policy}, turkish);
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("IiIi-\\u0130\\u0131"));
  ExpectSilence(*agent);
  ExpectOrderlyEnd(*agent);

  const std::string bad = folder.Write("bad.json", "{\"i\": 1,5}");
  const Outcome plain = RunToTheEnd({"--check-policy", bad});
  const Outcome foreign = RunToTheEnd({"--check-policy", bad}, turkish);
  EXPECT_EQ(foreign.exitCode, 3);
  EXPECT_EQ(foreign.errors, plain.errors);
}

}  // namespace
