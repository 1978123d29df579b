#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "collector/user_info_collector.h"
#include "host/file_monitor.h"
#include "tests/collector/collector_fixture.h"
#include "tests/support/latch.h"
#include "tests/support/recording_host.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class PasswdFileWatchTest : public CollectorTest {};

TEST_F(PasswdFileWatchTest, TheWatchIsAddedAsKind1AndRemovedAsKind0) {
  EXPECT_TRUE(collector.MonitorPasswdFile());
  collector.Stop();

  EXPECT_THAT(host.TakeCalls(), ElementsAre(addCall, removeCall));
}

TEST_F(PasswdFileWatchTest, TheRuleHasItsSwitchesInARowAndZeroesInBetween) {
  ASSERT_TRUE(collector.MonitorPasswdFile());

  const std::vector<unsigned char>& bytes = host.addedBytes;
  ASSERT_EQ(bytes.size(), sizeof(FileWatchRule));
  // Ten switches, then what aligns the handle; the same on every target
  const unsigned char* const first = bytes.data() + sizeof(std::string);
  EXPECT_THAT(std::vector<unsigned char>(first, first + 12), ElementsAre(0, 0, 0, 1, 1, 1, 0, 0, 0, 1, 0, 0));
  EXPECT_EQ(host.added->path, VELTA_PASSWD_FILE);
  EXPECT_EQ(host.added->monitorId, 0u);
}

TEST_F(PasswdFileWatchTest, ARefusedWatchIsReportedWithoutALog) {
  host.nextMonitorId = 0;

  EXPECT_FALSE(collector.MonitorPasswdFile());

  EXPECT_THAT(host.TakeCalls(), ElementsAre(addCall));
}

TEST_F(PasswdFileWatchTest, ARefusedWatchLeavesTheRuleOfTheEarlierOne) {
  ASSERT_TRUE(collector.MonitorPasswdFile());
  host.nextMonitorId = 0;
  ASSERT_FALSE(collector.MonitorPasswdFile());
  host.TakeCalls();

  collector.Stop();

  EXPECT_THAT(host.TakeCalls(), ElementsAre(removeCall));
}

TEST_F(PasswdFileWatchTest, ANewWatchOverwritesTheRuleAndAStopDoesNot) {
  ASSERT_TRUE(collector.MonitorPasswdFile());
  collector.Stop();
  collector.Stop();
  host.nextMonitorId = 6;
  ASSERT_TRUE(collector.MonitorPasswdFile());
  collector.Stop();

  EXPECT_THAT(host.TakeCalls("remove"),
              ElementsAre(removeCall, removeCall,
                          "remove \"" VELTA_PASSWD_FILE "\" kind 0 switches 0001110001 id 6 with callback"));
}

TEST_F(PasswdFileWatchTest, OneCallbackObjectServesEveryRuleForTheLifeOfTheModule) {
  ASSERT_TRUE(collector.Start());
  const std::shared_ptr<FileWatchCallback> first = host.added->callback;
  ASSERT_TRUE(collector.MonitorPasswdFile());
  EXPECT_EQ(host.added->callback, first);

  collector.Stop();
  EXPECT_EQ(host.removed->callback, first);
  ASSERT_TRUE(collector.Start());
  EXPECT_EQ(host.added->callback, first);
}

TEST_F(PasswdFileWatchTest, EveryFilledRuleHoldsOneMoreReferenceToTheCallback) {
  ASSERT_TRUE(collector.MonitorPasswdFile());
  // The module's own, the collector's rule, and the recording host's copies
  const std::shared_ptr<FileWatchCallback> callback = host.added->callback;
  host.added.reset();
  host.removed.reset();
  EXPECT_EQ(callback.use_count(), 3);

  host.nextMonitorId = 0;
  ASSERT_FALSE(collector.MonitorPasswdFile());
  host.added.reset();
  EXPECT_EQ(callback.use_count(), 3) << "the rule of a refused watch is released";
}

TEST_F(PasswdFileWatchTest, AnEventForTheWatchedFileLaunchesTheTaskOnce) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  host.FireFileEvent(VELTA_PASSWD_FILE);

  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 7"));
}

TEST_F(PasswdFileWatchTest, ABurstOfEventsIsABurstOfLaunches) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  for (int event = 0; event < 3; ++event) {
    host.FireFileEvent(VELTA_PASSWD_FILE);
  }

  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 7", "launch 7", "launch 7"));
}

TEST_F(PasswdFileWatchTest, TheOtherArgumentsOfAnEventAreIgnored) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  const FileWatchCallback& callback = *host.added->callback;
  callback(0, VELTA_PASSWD_FILE, nullptr, false, 0, "");
  callback(-1, VELTA_PASSWD_FILE, "/etc/shadow", true, -1, "/etc/shadow");
  callback(2147483647, VELTA_PASSWD_FILE, "", false, 2147483647, std::string(10000, 'x'));

  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 7", "launch 7", "launch 7"));
}

TEST_F(PasswdFileWatchTest, AnEventForAnyOtherPathLaunchesNothing) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();
  const std::string watched(VELTA_PASSWD_FILE);
  const std::vector<std::string> others = {watched + "x",
                                           watched + "-",
                                           watched + " ",
                                           watched + "/",
                                           watched.substr(0, watched.size() - 1),
                                           watched.substr(1),
                                           "/" + watched,
                                           "./" + watched,
                                           ".//" + watched,
                                           "X" + watched.substr(1),
                                           "PASSWD-UNDER-TEST",
                                           "",
                                           "/etc/shadow",
                                           "/etc"};
  for (const std::string& other : others) {
    host.FireFileEvent(other.c_str());
    EXPECT_THAT(host.TakeCalls(), IsEmpty()) << other;
  }
}

TEST_F(PasswdFileWatchTest, AnEventWithoutAPathLaunchesNothing) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  host.FireFileEvent(nullptr);

  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdFileWatchTest, AnEventAfterStopLaunchesNothing) {
  ASSERT_TRUE(collector.Start());
  collector.Stop();
  host.TakeCalls();

  host.FireFileEvent(VELTA_PASSWD_FILE);

  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdFileWatchTest, AnEventBeforeAnyTaskLaunchesNothing) {
  ASSERT_TRUE(collector.MonitorPasswdFile());
  host.TakeCalls();

  host.FireFileEvent(VELTA_PASSWD_FILE);

  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdFileWatchTest, AnEventAfterARestartLaunchesTheNewTask) {
  ASSERT_TRUE(collector.Start());
  const std::shared_ptr<FileWatchCallback> old = host.added->callback;
  collector.Stop();
  host.nextTaskId = 8;
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();

  (*old)(1, VELTA_PASSWD_FILE, "", false, 0, "");

  EXPECT_THAT(host.TakeCalls(), ElementsAre("launch 8"));
}

TEST_F(PasswdFileWatchTest, AnEventInTheMidstOfAStopFindsTheTaskUntilItIsUnregistered) {
  ASSERT_TRUE(collector.Start());
  host.TakeCalls();
  // The monitor's thread reports while the control thread is inside each step of the stop
  host.onCall = [this](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) != "launch") {
      std::thread monitor([this] { host.FireFileEvent(VELTA_PASSWD_FILE); });
      monitor.join();
    }
  };

  collector.Stop();
  host.onCall = nullptr;
  host.FireFileEvent(VELTA_PASSWD_FILE);

  EXPECT_THAT(host.TakeCalls(),
              ElementsAre(removeCall, "launch 7", "pause 7", "launch 7", "unregister 7", "launch 7"));
}

TEST_F(PasswdFileWatchTest, EventsBesideStartsAndStopsLaunchOnlyTasksThatWereRegistered) {
  ASSERT_TRUE(collector.Start());
  const std::shared_ptr<FileWatchCallback> callback = host.added->callback;
  Latch start;
  std::atomic<bool> done{false};
  std::thread monitor([&] {
    start.Wait();
    for (int event = 0; event < 2000 || !done; ++event) {
      (*callback)(1, VELTA_PASSWD_FILE, "", false, 0, "");
    }
    (*callback)(1, VELTA_PASSWD_FILE, "", false, 0, "");  // after the last start: this one launches
  });

  start.Open();
  for (int round = 0; round < 50; ++round) {
    collector.Stop();
    host.nextTaskId = 8 + static_cast<unsigned>(round % 2);
    collector.Start();
  }
  done = true;
  monitor.join();
  collector.Stop();

  EXPECT_THAT(host.TakeCalls("launch"),
              AllOf(Not(IsEmpty()), Each(AnyOf("launch 7", "launch 8", "launch 9"))));
}

}  // namespace
