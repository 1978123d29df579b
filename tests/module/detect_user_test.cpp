#include "module/detect_user.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "detect/unauthorized_root_user.h"
#include "module/detect_user_policy.h"
#include "tests/support/account_file.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/latch.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

using Snapshot = std::vector<PasswdInfo>;

static_assert(std::is_same<decltype(&InitModule), int (*)()>::value, "as the agent looks it up");
static_assert(std::is_same<decltype(&StartModule), int (*)(const char*)>::value, "as the agent looks it up");
static_assert(std::is_same<decltype(&StopModule), void (*)()>::value, "as the agent looks it up");
static_assert(std::is_same<decltype(&DeinitModule), void (*)()>::value, "as the agent looks it up");

const char* const rootPolicy = "{\"unauthorized-root-user\":{}}";

const char* const registerCall =
    "register user_coll_task kind 1 first 10000 second 300000 switch 1 other bytes 0";
const char* const addCall = "add \"" VELTA_PASSWD_FILE "\" kind 1 switches 0001110001 id 0 with callback";
const char* const removeCall =
    "remove \"" VELTA_PASSWD_FILE "\" kind 0 switches 0001110001 id 5 with callback";
const char* const laterRemoveCall =
    "remove \"" VELTA_PASSWD_FILE "\" kind 0 switches 0001110001 id 6 with callback";
const char* const initTrueRecord =
    "log 2 0x0 1 detect_user.cpp:44 0 \"Unauthorized root user detect init result=%s\" -> "
    "Unauthorized root user detect init result=true";
const char* const initFalseRecord =
    "log 2 0x0 1 detect_user.cpp:44 0 \"Unauthorized root user detect init result=%s\" -> "
    "Unauthorized root user detect init result=false";
const char* const parseFailedRecord =
    "log 2 0x0 2 detect_user.cpp:38 0 \"Failed to parse detect user policy.\" -> "
    "Failed to parse detect user policy.";

std::string StartupEntry(const std::string& policy) {
  return "startup \"detect user policy %s\" -> detect user policy " + policy;
}

std::string PolicyRecord(const std::string& policy) {
  return "log 2 0x0 0 detect_user_policy.cpp:35 0 \"detect user policy %s\" -> detect user policy " + policy;
}

class DetectUserTest : public testing::Test {
 protected:
  DetectUserTest() { CleanUp(); }
  ~DetectUserTest() override { CleanUp(); }

  static bool DetectorIsSubscribed() {
    const auto& registry = MessageBus::GetSubList<const Snapshot&>();
    const auto topic = registry.find("detect_user");
    return topic != registry.end() && !topic->second.empty() &&
           topic->second[0].first == "unauthorized-root-user";
  }

  // Every start and stop withdraws the watch of an earlier start first: of one in this test or in an earlier
  // test of the process, or an empty rule when there was none.
  static testing::Matcher<const std::string&> IsWithdrawalOfAnEarlierWatch() {
    return AnyOf("remove \"\" kind 0 switches 0000000000 id 0 without callback", removeCall, laterRemoveCall);
  }

  std::vector<std::string> TakeCallsButTheFirstRemove() {
    std::vector<std::string> calls = host.TakeCalls();
    EXPECT_FALSE(calls.empty());
    if (!calls.empty()) {
      EXPECT_THAT(calls[0], IsWithdrawalOfAnEarlierWatch());
      calls.erase(calls.begin());
    }
    return calls;
  }

  // The names alerted by one run of the task, in order.
  std::vector<std::string> RunTask() {
    host.RunTask();
    return TakeAlerts();
  }

  std::vector<std::string> TakeAlerts() {
    std::vector<std::string> names;
    for (const std::string& event : host.TakeCalls("push")) {
      const std::string before(R"("userName":")");
      const std::size_t start = event.find(before) + before.size();
      names.push_back(event.substr(start, event.find('"', start) - start));
    }
    return names;
  }

  AccountFile file;
  RecordingHost& host = RecordingHost::Get();

 private:
  void CleanUp() {
    host.onCall = nullptr;
    StopModule();
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
    MessageBus::GetSubList<const Snapshot&>().clear();
    host.Reset();
  }
};

TEST_F(DetectUserTest, InitModuleReturns1AndDeinitModuleDoesNothingWhateverTheState) {
  EXPECT_EQ(InitModule(), 1);
  DeinitModule();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());

  ASSERT_EQ(StartModule(rootPolicy), 1);
  host.TakeCalls();
  EXPECT_EQ(InitModule(), 1);
  DeinitModule();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_TRUE(DetectorIsSubscribed());

  StopModule();
  host.TakeCalls();
  EXPECT_EQ(InitModule(), 1);
  DeinitModule();
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(DetectUserTest, AStartStopsFirstThenReadsThePolicyThenSubscribesThenStartsTheCollector) {
  EXPECT_EQ(StartModule(rootPolicy), 1);

  EXPECT_THAT(TakeCallsButTheFirstRemove(), ElementsAre(StartupEntry(rootPolicy), PolicyRecord(rootPolicy),
                                                        initTrueRecord, registerCall, addCall));
  EXPECT_TRUE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, TheDetectorIsSubscribedBetweenThePolicyAndItsLogLine) {
  std::vector<std::string> trace;
  host.onCall = [&trace](const std::string& entry) {
    trace.push_back(RecordingHost::VerbOf(entry) +
                    (DetectorIsSubscribed() ? " subscribed" : " not subscribed"));
  };

  StartModule(rootPolicy);
  StartModule(rootPolicy);

  EXPECT_THAT(trace, ElementsAre("remove not subscribed", "startup not subscribed", "log not subscribed",
                                 "log subscribed", "register subscribed", "add subscribed",
                                 // The restart: the detector goes before the collector is stopped
                                 "remove not subscribed", "pause not subscribed", "unregister not subscribed",
                                 "startup not subscribed", "log not subscribed", "log subscribed",
                                 "register subscribed", "add subscribed"));
}

TEST_F(DetectUserTest, ANullPolicyReturnsFalseLogsThePolicyThenTheFailureAndLeavesTheModuleStopped) {
  EXPECT_EQ(StartModule(nullptr), 0);

  EXPECT_THAT(TakeCallsButTheFirstRemove(),
              ElementsAre(StartupEntry("(null)"), PolicyRecord("(null)"), parseFailedRecord));
  EXPECT_FALSE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, ATextThatIsNotJsonReturnsFalseLogsThePolicyThenTheFailureAndLeavesTheModuleStopped) {
  EXPECT_EQ(StartModule("no json"), 0);

  EXPECT_THAT(TakeCallsButTheFirstRemove(),
              ElementsAre(StartupEntry("no json"), PolicyRecord("no json"), parseFailedRecord));
  EXPECT_FALSE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, AStartThatFailsStopsAModuleThatWasRunning) {
  for (const char* bad : {static_cast<const char*>(nullptr), "no json"}) {
    ASSERT_EQ(StartModule(rootPolicy), 1);
    host.TakeCalls();

    EXPECT_EQ(StartModule(bad), 0);

    const std::string text = bad == nullptr ? "(null)" : bad;
    EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 7", "unregister 7", StartupEntry(text),
                                              PolicyRecord(text), parseFailedRecord));
    EXPECT_FALSE(DetectorIsSubscribed());
    host.FireFileEvent(VELTA_PASSWD_FILE);
    EXPECT_THAT(host.TakeCalls(), IsEmpty());
  }
}

TEST_F(DetectUserTest, AnEmptyObjectStartsTheCollectorAloneAndLogsNoDetectorLine) {
  EXPECT_EQ(StartModule("{}"), 1);

  EXPECT_THAT(TakeCallsButTheFirstRemove(),
              ElementsAre(StartupEntry("{}"), PolicyRecord("{}"), registerCall, addCall));
  EXPECT_FALSE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, WithTheDetectionOffSnapshotsArePublishedAndNobodyConsumesThem) {
  ASSERT_EQ(StartModule("{}"), 1);
  int published = 0;
  MessageBus::Subscribe<const Snapshot&>("detect_user", "onlooker", [&published](const Snapshot& users) {
    published += static_cast<int>(users.size());
  });
  file.Write("toor:x:0:0:c:/h:/s\n");

  EXPECT_THAT(RunTask(), IsEmpty());
  EXPECT_EQ(published, 1);
}

TEST_F(DetectUserTest, ADetectorThatCannotSubscribeIsLoggedAndTheCollectorStartsAllTheSame) {
  // Somebody takes the name between the stop and the subscription
  host.onCall = [](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == "startup") {
      MessageBus::Subscribe<const Snapshot&>("detect_user", "unauthorized-root-user", [](const Snapshot&) {});
    }
  };

  EXPECT_EQ(StartModule(rootPolicy), 1);

  EXPECT_THAT(TakeCallsButTheFirstRemove(), ElementsAre(StartupEntry(rootPolicy), PolicyRecord(rootPolicy),
                                                        initFalseRecord, registerCall, addCall));
}

TEST_F(DetectUserTest, ACollectorThatCannotStartLeavesTheResultTrue) {
  host.nextTaskId = 0;
  EXPECT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(TakeCallsButTheFirstRemove(),
              ElementsAre(StartupEntry(rootPolicy), PolicyRecord(rootPolicy), initTrueRecord, registerCall));
  EXPECT_TRUE(DetectorIsSubscribed());

  host.nextTaskId = 7;
  host.nextMonitorId = 0;
  EXPECT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(TakeCallsButTheFirstRemove(),
              ElementsAre(StartupEntry(rootPolicy), PolicyRecord(rootPolicy), initTrueRecord, registerCall,
                          addCall, "pause 7", "unregister 7"));
  EXPECT_TRUE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, TwoStartsInARowLeaveExactlyOneTaskAndOneWatch) {
  ASSERT_EQ(StartModule(rootPolicy), 1);
  host.TakeCalls();

  host.nextTaskId = 8;
  host.nextMonitorId = 6;
  ASSERT_EQ(StartModule(rootPolicy), 1);

  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 7", "unregister 7", StartupEntry(rootPolicy),
                                            PolicyRecord(rootPolicy), initTrueRecord, registerCall, addCall));
  StopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(laterRemoveCall, "pause 8", "unregister 8"));
}

TEST_F(DetectUserTest, ARestartTakesTheDetectionFromTheNewPolicyAlone) {
  ASSERT_EQ(StartModule(rootPolicy), 1);
  ASSERT_EQ(StartModule("{\"hidden-account\":{}}"), 1);
  EXPECT_FALSE(DetectorIsSubscribed());
  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_TRUE(DetectorIsSubscribed());
}

TEST_F(DetectUserTest, StopBeforeAnyStartOrTwiceInARowDoesNothingHarmful) {
  StopModule();
  StopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(IsWithdrawalOfAnEarlierWatch(), IsWithdrawalOfAnEarlierWatch()));

  ASSERT_EQ(StartModule(rootPolicy), 1);
  host.TakeCalls();
  StopModule();
  StopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 7", "unregister 7", removeCall));
  EXPECT_FALSE(DetectorIsSubscribed());

  EXPECT_EQ(StartModule(rootPolicy), 1);
}

TEST_F(DetectUserTest, AChangeOfTheFileBecomesAnAlert) {
  ASSERT_EQ(StartModule(rootPolicy), 1);
  file.Write("root:x:0:0:root:/root:/bin/sh\nalice:x:1000:1000::/home/alice:/bin/sh\n");
  EXPECT_THAT(RunTask(), IsEmpty());

  file.Write(
      "root:x:0:0:root:/root:/bin/sh\nalice:x:1000:1000::/home/alice:/bin/sh\ntoor:x:0:0::/var/toor:/bin/"
      "sh\n");
  host.FireFileEvent(VELTA_PASSWD_FILE);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 7"));
  EXPECT_EQ(host.RunTask(), nullptr);

  EXPECT_THAT(
      host.TakeCalls(),
      ElementsAre(
          "time \"\"",
          R"(push {"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
          R"({"userName":"toor","uid":0,"gid":0,"shell":"/bin/sh","home":"/var/toor","type":"illegal"}})"));
}

TEST_F(DetectUserTest, TheBaselineSurvivesARestartSoThatAnUnchangedFileYieldsNoAlert) {
  file.Write("root:x:0:0:root:/root:/bin/sh\ntoor:x:0:0::/var/toor:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(RunTask(), ElementsAre("toor"));

  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(RunTask(), IsEmpty());

  StopModule();
  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(RunTask(), IsEmpty());
}

TEST_F(DetectUserTest, WhatChangedWhileTheModuleWasStoppedIsReportedAfterTheStart) {
  file.Write("alice:x:1000:1000::/home/alice:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(RunTask(), IsEmpty());
  StopModule();
  file.Write("alice:x:0:1000::/home/alice:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);

  EXPECT_THAT(RunTask(), ElementsAre("alice"));
}

TEST_F(DetectUserTest, AFileThatIsMissingForAWhileKeepsTheBaselineAndAnEmptyOneDoesNot) {
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  EXPECT_THAT(RunTask(), ElementsAre("toor"));

  file.Remove();
  EXPECT_THAT(RunTask(), IsEmpty());
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  EXPECT_THAT(RunTask(), IsEmpty());

  file.Write("");
  EXPECT_THAT(RunTask(), IsEmpty());
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  EXPECT_THAT(RunTask(), ElementsAre("toor"));
}

TEST_F(DetectUserTest, AnExceptionOfAServiceLeavesTheTaskAndTheNextRunAlertsAgain) {
  file.Write("toor:x:0:0::/var/toor:/bin/sh\nzoe:x:0:0::/var/zoe:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  for (const char* service : {"push", "time"}) {
    SCOPED_TRACE(service);
    host.onCall = ThrowAt(service, 2);
    EXPECT_THROW(host.RunTask(), HostFailure);
    host.TakeCalls();
  }
  EXPECT_THAT(RunTask(), ElementsAre("toor", "zoe"));
  EXPECT_THAT(RunTask(), IsEmpty());
}

TEST_F(DetectUserTest, WhatAServiceThrowsPassesThroughTheEntryPointsAndALaterStopAndStartWork) {
  enum class Call { Start, StartWithABadPolicy, Stop };
  struct Row {
    Call call;
    bool running;  // the module, before the call
    const char* service;
    int nth;
    std::vector<std::string> laterStop;  // what the stop after it has left to do
  };
  const std::vector<std::string> wholeStop = {removeCall, "pause 7", "unregister 7"};
  const std::vector<std::string> stopWithoutTask = {removeCall};
  const std::vector<Row> rows = {
      {Call::Start, true, "remove", 1, wholeStop},
      {Call::Start, true, "pause", 1, wholeStop},
      {Call::Start, true, "unregister", 1, wholeStop},
      {Call::Start, true, "startup", 1, stopWithoutTask},
      {Call::Start, true, "log", 1, stopWithoutTask},  // the policy
      {Call::Start, true, "log", 2, stopWithoutTask},  // the detector's result
      {Call::Start, true, "register", 1, stopWithoutTask},
      {Call::Start, true, "add", 1, wholeStop},
      {Call::Start, false, "remove", 1, stopWithoutTask},
      {Call::Start, false, "startup", 1, stopWithoutTask},
      {Call::Start, false, "log", 1, stopWithoutTask},
      {Call::Start, false, "log", 2, stopWithoutTask},
      {Call::Start, false, "register", 1, stopWithoutTask},
      {Call::Start, false, "add", 1, wholeStop},
      {Call::StartWithABadPolicy, true, "log", 2, stopWithoutTask},  // the failure
      {Call::Stop, true, "remove", 1, wholeStop},
      {Call::Stop, true, "pause", 1, wholeStop},
      {Call::Stop, true, "unregister", 1, wholeStop},
      {Call::Stop, false, "remove", 1, stopWithoutTask},
  };
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);  // so that a stopped module has a rule to withdraw
  for (std::size_t index = 0; index < rows.size(); ++index) {
    const Row& row = rows[index];
    SCOPED_TRACE("row " + std::to_string(index) + ": " + row.service);
    StopModule();
    if (row.running) {
      ASSERT_EQ(StartModule(rootPolicy), 1);
    }

    // The very object that the service threw arrives
    const HostFailure* thrown = nullptr;
    int left = row.nth;
    host.onCall = [&](const std::string& entry) {
      if (RecordingHost::VerbOf(entry) == row.service && --left == 0) {
        try {
          throw HostFailure("out of the service");
        } catch (const HostFailure& failure) {
          thrown = &failure;
          throw;
        }
      }
    };
    bool arrived = false;
    try {
      switch (row.call) {
        case Call::Start:
          StartModule(rootPolicy);
          break;
        case Call::StartWithABadPolicy:
          StartModule("no json");
          break;
        case Call::Stop:
          StopModule();
          break;
      }
    } catch (const HostFailure& failure) {
      arrived = &failure == thrown;
    }
    EXPECT_TRUE(arrived);
    host.onCall = nullptr;
    const std::vector<std::string> calls = host.TakeCalls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(RecordingHost::VerbOf(calls.back()), row.service) << "nothing is called after it";

    StopModule();
    EXPECT_THAT(host.TakeCalls(), ElementsAreArray(row.laterStop));
    EXPECT_FALSE(DetectorIsSubscribed());
    EXPECT_EQ(StartModule(rootPolicy), 1);
    EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, StartupEntry(rootPolicy), PolicyRecord(rootPolicy),
                                              initTrueRecord, registerCall, addCall));
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
    EXPECT_THAT(RunTask(), ElementsAre("toor"));
  }
}

TEST_F(DetectUserTest, AStartRightAfterAnExceptionOutOfAnEntryPointWorks) {
  struct Row {
    const char* service;
    bool taskLeft;
  };
  const Row rows[] = {{"remove", true}, {"pause", true},     {"unregister", true}, {"startup", false},
                      {"log", false},   {"register", false}, {"add", true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.service);
    ASSERT_EQ(StartModule(rootPolicy), 1);
    host.onCall = ThrowAt(row.service, 1);
    EXPECT_THROW(StartModule(rootPolicy), HostFailure);
    host.onCall = nullptr;
    host.TakeCalls();

    EXPECT_EQ(StartModule(rootPolicy), 1);

    std::vector<std::string> wanted = {removeCall};
    if (row.taskLeft) {
      wanted.insert(wanted.end(), {"pause 7", "unregister 7"});
    }
    wanted.insert(wanted.end(), {StartupEntry(rootPolicy), PolicyRecord(rootPolicy), initTrueRecord,
                                 registerCall, addCall});
    EXPECT_THAT(host.TakeCalls(), ElementsAreArray(wanted));
    EXPECT_TRUE(DetectorIsSubscribed());
  }
}

TEST_F(DetectUserTest, WhatTheLaunchThrowsPassesThroughTheFileEventAndTheNextEventLaunches) {
  ASSERT_EQ(StartModule(rootPolicy), 1);
  host.TakeCalls();
  host.onCall = ThrowAt("launch", 1);
  EXPECT_THROW(host.FireFileEvent(VELTA_PASSWD_FILE), HostFailure);

  host.FireFileEvent(VELTA_PASSWD_FILE);

  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 7", "launch 7"));
  StopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 7", "unregister 7"));
  EXPECT_EQ(StartModule(rootPolicy), 1);
}

TEST_F(DetectUserTest, Fault24NoAlertIsLostWhenARunRunsOutOfMemory) {
  const std::string name("an account whose name is longer than a string keeps in itself");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 10000u);
    file.Write("bob:x:0:0::/:/s\n" + name + ":x:1000:0::/:/s\n");
    host.RunTask();
    file.Write("bob:x:0:0::/:/s\n" + name + ":x:0:0::/:/s\ntoor:x:0:0::/:/s\n");
    host.TakeCalls();
    bool threw = false;
    {
      const AllocationFailure failure(nth);
      try {
        host.RunTask();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    SCOPED_TRACE("allocation " + std::to_string(nth));
    ASSERT_FALSE(threw && exhausted);
    std::vector<std::string> alerts = TakeAlerts();
    if (exhausted) {
      ASSERT_THAT(alerts, ElementsAre(name, "toor"));
    } else if (threw) {
      ASSERT_THAT(RunTask(), ElementsAre(name, "toor")) << "the baseline had not moved";
    } else {
      // The line reader swallowed the failure and the reading ended early: what it missed comes with the
      // next.
      const std::vector<std::string> later = RunTask();
      alerts.insert(alerts.end(), later.begin(), later.end());
      ASSERT_THAT(alerts, testing::IsSupersetOf({name, std::string("toor")}));
    }
    ASSERT_THAT(RunTask(), IsEmpty());
    // toor goes, so that it is new in the next round
    file.Write("bob:x:0:0::/:/s\n");
    host.RunTask();
  }
}

TEST_F(DetectUserTest, ASubscriberThatThrowsBehindTheDetectorDoesNotUndoItsWork) {
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  MessageBus::Subscribe<const Snapshot&>("detect_user", "faulty",
                                         [](const Snapshot&) { throw HostFailure("own"); });

  EXPECT_THROW(host.RunTask(), HostFailure);
  EXPECT_THAT(TakeAlerts(), ElementsAre("toor"));

  MessageBus::Unsubscribe<const Snapshot&>("detect_user", "faulty");
  EXPECT_THAT(RunTask(), IsEmpty());
}

TEST_F(DetectUserTest, AStopFinishesWhileADetectionIsStillAlerting) {
  // The scheduler's wait is the agent's; the module's own part of a stop needs no lock of the detection
  file.Write("toor:x:0:0::/var/toor:/bin/sh\n");
  ASSERT_EQ(StartModule(rootPolicy), 1);
  host.TakeCalls();
  Latch alerting;
  Latch stopped;
  bool went = false;
  host.onCall = [&](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == "push") {
      alerting.Open();
      went = stopped.Wait();
    }
  };
  std::thread scheduler([this] { host.RunTask(); });
  ASSERT_TRUE(alerting.Wait());

  StopModule();
  stopped.Open();
  scheduler.join();

  EXPECT_TRUE(went);
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("time \"\"", HasSubstr("\"toor\""), removeCall, "pause 7", "unregister 7"));
}

TEST_F(DetectUserTest, AHundredRestartsBesideFileEventsEndWithOneTaskAndOneWatch) {
  ASSERT_EQ(StartModule(rootPolicy), 1);
  const std::shared_ptr<FileWatchCallback> callback = host.added->callback;
  Latch start;
  std::thread monitor([&] {
    start.Wait();
    for (int event = 0; event < 1000; ++event) {
      (*callback)(1, VELTA_PASSWD_FILE, "", false, 0, "");
    }
  });
  start.Open();
  for (int restart = 0; restart < 100; ++restart) {
    EXPECT_EQ(StartModule(rootPolicy), 1);
  }
  monitor.join();
  StopModule();

  int tasks = 0;
  int mostTasks = 0;
  int registered = 0;
  for (const std::string& entry : host.TakeCalls()) {
    const std::string verb = RecordingHost::VerbOf(entry);
    tasks += verb == "register" ? 1 : verb == "unregister" ? -1 : 0;
    registered += verb == "register" ? 1 : 0;
    mostTasks = std::max(mostTasks, tasks);
  }
  EXPECT_EQ(registered, 101);
  EXPECT_EQ(mostTasks, 1);
  EXPECT_EQ(tasks, 0);
  EXPECT_FALSE(DetectorIsSubscribed());
}

}  // namespace
