#include "collector/user_info_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "bus/message_bus.h"
#include "tests/collector/collector_fixture.h"
#include "tests/support/latch.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(!std::is_polymorphic<UserInfoCollector>::value, "no virtual operations");
static_assert(std::is_same<decltype(&UserInfoCollector::ScheduleTask), void* (*)(void*)>::value,
              "fits the scheduler's task function");

const char* const readFailedRecord =
    "log 2 0x0 2 user_info_collector.cpp:106 0 \"Failed to read %s.\" -> Failed to read " VELTA_PASSWD_FILE
    ".";

class UserInfoCollectorTest : public CollectorTest {
 protected:
  void Subscribe(const std::string& name) {
    MessageBus::Subscribe<const Snapshot&>("detect_user", name, [this, name](const Snapshot& users) {
      published.push_back(name + " got " + testing::PrintToString(Texts(users)));
    });
  }

  std::vector<std::string> published;
};

TEST_F(UserInfoCollectorTest, ConstructionRegistersNothing) {
  static UserInfoCollector fresh;
  (void)fresh;
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(UserInfoCollectorTest, StartRegistersTheTaskThenTheWatchAndNeitherReadsNorPublishes) {
  Subscribe("reader");

  EXPECT_TRUE(collector.Start());

  EXPECT_THAT(host.TakeCalls(), ElementsAre(registerCall, addCall));
  EXPECT_THAT(published, IsEmpty());
  EXPECT_EQ(host.task.function, &UserInfoCollector::ScheduleTask);
  EXPECT_EQ(host.task.arg, &collector);
}

TEST_F(UserInfoCollectorTest, TheTimingRecordIsZeroButForTwoTimesAndOneSwitch) {
  ASSERT_TRUE(collector.Start());

  std::vector<unsigned char> expected(56, 0);
  const std::int64_t first = 10000;
  const std::int64_t second = 300000;
  std::memcpy(&expected[0], &first, sizeof first);
  std::memcpy(&expected[8], &second, sizeof second);
  expected[48] = 1;
  EXPECT_EQ(host.task.condition, expected);
}

TEST_F(UserInfoCollectorTest, StopRemovesTheWatchThenWaitsForTheTaskThenUnregistersIt) {
  collector.Start();
  host.TakeCalls();

  collector.Stop();

  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 7", "unregister 7"));
}

TEST_F(UserInfoCollectorTest, ASecondStartEndsTheFirstTaskBeforeRegisteringAnotherAndLeavesTheOldWatch) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  host.nextTaskId = 8;
  ASSERT_TRUE(collector.Start());

  EXPECT_THAT(host.TakeCalls(), ElementsAre("pause 7", "unregister 7", registerCall, addCall));
  collector.Stop();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall, "pause 8", "unregister 8"));
}

TEST_F(UserInfoCollectorTest, StopBeforeAnyStartRemovesAnEmptyRuleAndMakesNoSchedulerCall) {
  static UserInfoCollector fresh;

  fresh.Stop();
  fresh.Stop();

  const char* const emptyRemoveCall = "remove \"\" kind 0 switches 0000000000 id 0 without callback";
  EXPECT_THAT(host.TakeCalls(), ElementsAre(emptyRemoveCall, emptyRemoveCall));
}

TEST_F(UserInfoCollectorTest, ASecondStopRemovesTheSameRuleAgainAndMakesNoSchedulerCall) {
  collector.Start();
  collector.Stop();
  host.TakeCalls();

  collector.Stop();

  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall));
}

TEST_F(UserInfoCollectorTest, StartStopStartAgainGivesANewTaskAndANewWatch) {
  ASSERT_TRUE(collector.Start());
  collector.Stop();
  host.TakeCalls();

  host.nextTaskId = 4294967295u;
  host.nextMonitorId = 4000000000u;
  ASSERT_TRUE(collector.Start());
  collector.Stop();

  EXPECT_THAT(host.TakeCalls(), ElementsAre(registerCall, addCall,
                                            "remove \"" VELTA_PASSWD_FILE
                                            "\" kind 0 switches 0001110001 id 4000000000 with callback",
                                            "pause 4294967295", "unregister 4294967295"));
}

TEST_F(UserInfoCollectorTest, ARefusedTaskMakesStartFailWithoutALogAndWithoutAWatch) {
  host.nextTaskId = 0;

  EXPECT_FALSE(collector.Start());

  EXPECT_THAT(host.TakeCalls(), ElementsAre(registerCall));
  collector.Stop();
  EXPECT_THAT(host.TakeCalls("pause"), IsEmpty());
}

TEST_F(UserInfoCollectorTest, ARefusedTaskAfterAnEarlierStartLeavesNoTask) {
  collector.Start();
  host.TakeCalls();

  host.nextTaskId = 0;
  EXPECT_FALSE(collector.Start());
  EXPECT_THAT(host.TakeCalls(), ElementsAre("pause 7", "unregister 7", registerCall));

  collector.Stop();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall));
}

TEST_F(UserInfoCollectorTest, ARefusedWatchMakesStartFailWithoutALogAndLeavesNoTask) {
  host.nextMonitorId = 0;

  EXPECT_FALSE(collector.Start());

  EXPECT_THAT(host.TakeCalls(), ElementsAre(registerCall, addCall, "pause 7", "unregister 7"));
  collector.EventHandle(1, VELTA_PASSWD_FILE, "", false, 0, "");
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  collector.Stop();
  EXPECT_THAT(host.TakeCalls("pause"), IsEmpty());
}

TEST_F(UserInfoCollectorTest, DestructionEndsTheTaskAndDoesNotRemoveTheWatch) {
  collector.MonitorPasswdFile();  // the callback binds to a collector that stays
  alignas(UserInfoCollector) static unsigned char storage[sizeof(UserInfoCollector)];
  std::memset(storage, 0, sizeof storage);
  auto* const fresh = new (storage) UserInfoCollector();
  ASSERT_TRUE(fresh->Start());
  host.TakeCalls();
  const long references = host.added->callback.use_count();

  fresh->~UserInfoCollector();

  EXPECT_THAT(host.TakeCalls(), ElementsAre("pause 7", "unregister 7"));
  EXPECT_EQ(host.added->callback.use_count(), references - 1) << "its rule lets go of the callback";
}

TEST_F(UserInfoCollectorTest, TheTaskWithoutACollectorReturnsNullWithoutReadingTheFile) {
  Subscribe("reader");

  EXPECT_EQ(UserInfoCollector::ScheduleTask(nullptr), nullptr);  // a missing file would be logged
  file.Write("root:x:0:0:root:/root:/bin/sh\n");
  EXPECT_EQ(UserInfoCollector::ScheduleTask(nullptr), nullptr);  // a present one published

  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_THAT(published, IsEmpty());
}

TEST_F(UserInfoCollectorTest, WithTheFileMissingEveryRunLogsThatAndPublishesNothing) {
  Subscribe("reader");

  EXPECT_EQ(UserInfoCollector::ScheduleTask(&collector), nullptr);
  EXPECT_EQ(UserInfoCollector::ScheduleTask(&collector), nullptr);

  EXPECT_THAT(host.TakeCalls(), ElementsAre(readFailedRecord, readFailedRecord));
  EXPECT_THAT(published, IsEmpty());
}

TEST_F(UserInfoCollectorTest, ARunAfterAFailedOneReadsTheFileThatIsThereThen) {
  Subscribe("reader");
  UserInfoCollector::ScheduleTask(&collector);
  host.TakeCalls();

  file.Write("alice:x:1000:100::/home/alice:/bin/sh\n");
  UserInfoCollector::ScheduleTask(&collector);

  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  EXPECT_THAT(published, ElementsAre("reader got { \"alice:1000:100:/home/alice:/bin/sh\" }"));
}

TEST_F(UserInfoCollectorTest, AnEmptyButReadableFilePublishesAnEmptySnapshot) {
  Subscribe("reader");
  file.Write("");

  EXPECT_EQ(UserInfoCollector::ScheduleTask(&collector), nullptr);

  EXPECT_THAT(published, ElementsAre("reader got {}"));
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(UserInfoCollectorTest, EveryRunPublishesOneFullSnapshotToEverySubscriberInOrder) {
  Subscribe("zoe");
  Subscribe("adam");
  MessageBus::Subscribe<const Snapshot&>("other topic", "deaf",
                                         [this](const Snapshot&) { published.push_back("deaf"); });
  file.Write("root:x:0:0:root:/root:/bin/sh\nalice:x:1000:100::/home/alice:/bin/sh\n");

  UserInfoCollector::ScheduleTask(&collector);
  UserInfoCollector::ScheduleTask(&collector);

  const std::string users = "{ \"root:0:0:/root:/bin/sh\", \"alice:1000:100:/home/alice:/bin/sh\" }";
  EXPECT_THAT(published,
              ElementsAre("zoe got " + users, "adam got " + users, "zoe got " + users, "adam got " + users));
}

TEST_F(UserInfoCollectorTest, WhatASubscriberThrowsLeavesTheTask) {
  MessageBus::Subscribe<const Snapshot&>("detect_user", "faulty",
                                         [](const Snapshot&) { throw HostFailure("own"); });
  Subscribe("behind");
  file.Write("");

  EXPECT_THROW(UserInfoCollector::ScheduleTask(&collector), HostFailure);
  EXPECT_THAT(published, IsEmpty());

  MessageBus::Unsubscribe<const Snapshot&>("detect_user", "faulty");
  EXPECT_EQ(UserInfoCollector::ScheduleTask(&collector), nullptr);
  EXPECT_THAT(published, ElementsAre("behind got {}"));
}

TEST_F(UserInfoCollectorTest, WhatTheLoggerThrowsLeavesTheTask) {
  host.onCall = ThrowAt("log", 1);
  EXPECT_THROW(UserInfoCollector::ScheduleTask(&collector), HostFailure);
}

TEST_F(UserInfoCollectorTest, ASubscriberMayStopListeningWhileTheTaskRuns) {
  ASSERT_TRUE(collector.Start());
  Latch reading;
  Latch unsubscribed;
  bool went = false;
  MessageBus::Subscribe<const Snapshot&>("detect_user", "reader", [&](const Snapshot&) {
    reading.Open();
    went = unsubscribed.Wait();
  });
  file.Write("");
  std::thread scheduler([this] { host.RunTask(); });

  ASSERT_TRUE(reading.Wait());
  MessageBus::Unsubscribe<const Snapshot&>("detect_user", "reader");
  unsubscribed.Open();
  scheduler.join();

  EXPECT_TRUE(went);
}

}  // namespace
