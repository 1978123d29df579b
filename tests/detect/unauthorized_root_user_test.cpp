#include "detect/unauthorized_root_user.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/held_mutex.h"
#include "tests/support/latch.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Snapshot = std::vector<PasswdInfo>;

static_assert(!std::is_polymorphic<UnauthorizedRootUser>::value, "no virtual operations");
static_assert(sizeof(UnauthorizedRootUser) == sizeof(std::set<PasswdInfo>),
              "the baseline is the only member");
static_assert(std::is_same<decltype(UnauthorizedRootUser::detectMutex), std::mutex>::value, "not recursive");
static_assert(!std::is_copy_constructible<UnauthorizedRootUser>::value, "one instance");

class UnauthorizedRootUserTest : public testing::Test {
 protected:
  UnauthorizedRootUserTest() { host.Reset(); }
  ~UnauthorizedRootUserTest() override {
    detector.UnInit();
    host.Reset();
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});  // the baseline outlives a test in the same process
  }

  // The names alerted for one snapshot, in order.
  std::vector<std::string> Detect(const Snapshot& users) {
    UnauthorizedRootUser::DetectUnauthorizedRootUser(users);
    return TakeAlerts();
  }

  std::vector<std::string> Publish(const Snapshot& users) {
    MessageBus::Publish<const Snapshot&>("detect_user", users);
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

  RecordingHost& host = RecordingHost::Get();
  UnauthorizedRootUser& detector = UnauthorizedRootUser::GetInstance();
};

TEST(PasswdInfoTest, RecordsAreOrderedByTheBytesOfTheNameAlone) {
  struct Row {
    const char* smaller;
    const char* larger;
  };
  const Row rows[] = {{"", "a"},  {"a", "b"},       {"a", "aa"},      {"aa", "b"},
                      {"B", "a"}, {"Root", "root"}, {"z", "\xC3\xA9"}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.larger);
    EXPECT_TRUE(Account(row.smaller, 9) < Account(row.larger, 0));
    EXPECT_FALSE(Account(row.larger, 0) < Account(row.smaller, 9));
  }
}

TEST(PasswdInfoTest, RecordsOfOneNameAreEquivalentWhateverTheirOtherFields) {
  PasswdInfo other = Account("toor", 1000);
  other.gid = 7;
  other.home = "/";
  other.shell = "";
  other.readTime = 2;
  EXPECT_FALSE(Account("toor", 0) < other);
  EXPECT_FALSE(other < Account("toor", 0));
}

TEST(PasswdInfoTest, ARecordIsMadeOfItsFieldsInTheirOrder) {
  const PasswdInfo record{"toor", 1, 2, "/var/toor", "/bin/sh", 3};
  EXPECT_EQ(record.userName, "toor");
  EXPECT_EQ(record.uid, 1u);
  EXPECT_EQ(record.gid, 2u);
  EXPECT_EQ(record.home, "/var/toor");
  EXPECT_EQ(record.shell, "/bin/sh");
  EXPECT_EQ(record.readTime, 3);
}

TEST_F(UnauthorizedRootUserTest, TheFirstSnapshotReportsEveryStandingRootAccountExceptRoot) {
  EXPECT_THAT(Detect({Account("root", 0), Account("toor", 0), Account("alice", 1000)}), ElementsAre("toor"));
}

TEST_F(UnauthorizedRootUserTest, TheSameSnapshotAgainReportsNothing) {
  const Snapshot users = {Account("root", 0), Account("toor", 0), Account("alice", 1000)};
  Detect(users);

  EXPECT_THAT(Detect(users), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, AnAccountIsReportedOncePerChangeToUserIdZero) {
  Detect({Account("alice", 1000)});

  EXPECT_THAT(Detect({Account("alice", 0)}), ElementsAre("alice"));
  EXPECT_THAT(Detect({Account("alice", 0)}), IsEmpty());
  EXPECT_THAT(Detect({Account("alice", 1000)}), IsEmpty());
  EXPECT_THAT(Detect({Account("alice", 0)}), ElementsAre("alice"));
}

TEST_F(UnauthorizedRootUserTest, TheAccountNamedRootIsNeverReportedWhetherItAppearsOrChanges) {
  Detect({Account("alice", 1000)});
  EXPECT_THAT(Detect({Account("alice", 1000), Account("root", 0)}), IsEmpty());
  EXPECT_THAT(Detect({Account("alice", 1000), Account("root", 5)}), IsEmpty());
  EXPECT_THAT(Detect({Account("alice", 1000), Account("root", 0)}), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, TheExemptNameIsExactAndCaseSensitive) {
  const std::vector<std::string> names = {" root", "ROOT", "Root", "roo", "root ", "root0", "rootroot"};
  Snapshot users;
  Snapshot before;
  for (const std::string& name : names) {
    users.push_back(Account(name, 0));
    before.push_back(Account(name, 1000));
  }
  EXPECT_THAT(Detect(users), names) << "as new accounts";
  Detect(before);
  EXPECT_THAT(Detect(users), names) << "as changed accounts";
}

TEST_F(UnauthorizedRootUserTest, AnEmptySnapshotEmptiesTheBaselineWithoutAlerts) {
  const Snapshot users = {Account("root", 0), Account("toor", 0), Account("zoe", 0)};
  Detect(users);

  EXPECT_THAT(Detect({}), IsEmpty());
  EXPECT_THAT(Detect(users), ElementsAre("toor", "zoe"));
}

TEST_F(UnauthorizedRootUserTest, AnEmptySnapshotOnAnEmptyBaselineDoesNothing) {
  EXPECT_THAT(Detect({}), IsEmpty());
  EXPECT_THAT(Detect({}), IsEmpty());
  EXPECT_THAT(Detect({Account("toor", 0)}), ElementsAre("toor"));
}

TEST_F(UnauthorizedRootUserTest, OfTwoRecordsWithOneNameTheFirstInFileOrderIsComparedAndKept) {
  // The first of the two is harmless, so there is no alert
  EXPECT_THAT(Detect({Account("zoe", 1), Account("alice", 1000), Account("alice", 0)}), IsEmpty());
  // It was kept with its user ID: the change of the first is an alert
  EXPECT_THAT(Detect({Account("zoe", 1), Account("alice", 0), Account("alice", 1000)}), ElementsAre("alice"));
  EXPECT_THAT(Detect({Account("alice", 0), Account("alice", 7)}), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, ARootAccountThatWasRemovedIsReportedAgainWhenItReturns) {
  Detect({Account("alice", 1000), Account("toor", 0)});

  EXPECT_THAT(Detect({Account("alice", 1000)}), IsEmpty());
  EXPECT_THAT(Detect({Account("alice", 1000), Account("toor", 0)}), ElementsAre("toor"));
}

TEST_F(UnauthorizedRootUserTest, TheBaselineSurvivesAStopAndANewStart) {
  const Snapshot users = {Account("root", 0), Account("toor", 0)};
  ASSERT_TRUE(detector.Init());
  ASSERT_THAT(Publish(users), ElementsAre("toor"));

  detector.UnInit();
  ASSERT_TRUE(detector.Init());

  EXPECT_THAT(Publish(users), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, WhileItIsNotSubscribedTheBaselineDoesNotMove) {
  ASSERT_TRUE(detector.Init());
  Publish({Account("alice", 1000)});
  detector.UnInit();
  EXPECT_THAT(Publish({Account("alice", 0)}), IsEmpty());
  EXPECT_THAT(Publish({}), IsEmpty());
  ASSERT_TRUE(detector.Init());

  EXPECT_THAT(Publish({Account("alice", 0)}), ElementsAre("alice"));
}

TEST_F(UnauthorizedRootUserTest, ASecondInitReturnsFalseAndTheCallbackIsRegisteredOnce) {
  EXPECT_TRUE(detector.Init());
  EXPECT_FALSE(detector.Init());

  const auto& subscriptions = MessageBus::GetSubList<const Snapshot&>()["detect_user"];
  ASSERT_EQ(subscriptions.size(), 1u);
  EXPECT_EQ(subscriptions[0].first, "unauthorized-root-user");
  EXPECT_THAT(Publish({Account("toor", 0)}), ElementsAre("toor"));

  detector.UnInit();
  EXPECT_THAT(Publish({}), IsEmpty());
  EXPECT_THAT(Publish({Account("toor", 0)}), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, UnInitIsHarmlessWithoutInitAndTwice) {
  detector.UnInit();
  detector.UnInit();
  EXPECT_TRUE(detector.Init());
}

TEST_F(UnauthorizedRootUserTest, TheRulesHoldForEveryPairOfBaselineAndSnapshot) {
  constexpr int absent = -1;
  struct Row {
    const char* name;
    int before;
    int after;
    bool alert;
  };
  const Row rows[] = {
      {"root", absent, 0, false},    {"root", 1000, 0, false},      {"root", 0, 0, false},
      {"root", absent, 1000, false}, {"root", 0, 1000, false},      {"root", 0, absent, false},
      {"toor", absent, 0, true},     {"toor", 1000, 0, true},       {"toor", 1, 0, true},
      {"toor", 0, 0, false},         {"toor", absent, 1, false},    {"toor", absent, 1000, false},
      {"toor", 1000, 1000, false},   {"toor", 1000, 1001, false},   {"toor", 0, 1000, false},
      {"toor", 0, absent, false},    {"toor", 1000, absent, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.name) + " from " + std::to_string(row.before) + " to " +
                 std::to_string(row.after));
    // Neighbours on both sides, so that neither snapshot is empty and the account is neither first nor last
    const auto users = [&row](int uid) {
      Snapshot snapshot = {Account("a", 1), Account("zz", 2)};
      if (uid != absent) {
        snapshot.push_back(Account(row.name, static_cast<std::uint32_t>(uid)));
      }
      return snapshot;
    };
    Detect(users(row.before));
    EXPECT_THAT(Detect(users(row.after)),
                row.alert ? std::vector<std::string>{row.name} : std::vector<std::string>{});
    EXPECT_THAT(Detect(users(row.after)), IsEmpty()) << "the snapshot became the baseline";
    Detect({});
  }
}

TEST_F(UnauthorizedRootUserTest, AChangeOfAnyOtherFieldIsNoFinding) {
  const PasswdInfo account = Account("toor", 0);
  Detect({account});
  PasswdInfo changed = account;
  changed.gid = 0;
  EXPECT_THAT(Detect({changed}), IsEmpty());
  changed.home = "/elsewhere";
  EXPECT_THAT(Detect({changed}), IsEmpty());
  changed.shell = "/bin/other";
  EXPECT_THAT(Detect({changed}), IsEmpty());
  changed.readTime += 1;
  EXPECT_THAT(Detect({changed}), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, TheAlertCarriesTheFieldsOfTheNewRecord) {
  Detect({Account("alice", 1000)});
  PasswdInfo changed = Account("alice", 0);
  changed.gid = 42;
  changed.home = "/new/home";
  changed.shell = "/new/shell";
  UnauthorizedRootUser::DetectUnauthorizedRootUser({changed});

  EXPECT_THAT(
      host.TakeCalls("push"),
      ElementsAre(
          R"(push {"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
          R"({"userName":"alice","uid":0,"gid":42,"shell":"/new/shell","home":"/new/home","type":"illegal"}})"));
}

TEST_F(UnauthorizedRootUserTest, ChangedAccountsAreReportedFirstThenNewOnesEachInNameOrder) {
  Detect({Account("y", 1), Account("c", 1), Account("x", 1), Account("B", 1)});

  EXPECT_THAT(Detect({Account("z", 0), Account("y", 0), Account("x", 0), Account("~", 0), Account("c", 0),
                      Account("ab", 0), Account("a", 0), Account("B", 0)}),
              ElementsAre("B", "c", "x", "y", "a", "ab", "z", "~"));
}

// The rules once more, by lookups of each name: the longest way to the same alerts.
TEST_F(UnauthorizedRootUserTest, SnapshotsInAnyOrderAlertWhatALookupOfEveryNameFinds) {
  const std::vector<std::string> names = {"root", "Root", "roo",  "roots", "a", "aa",
                                          "b",    "c",    "toor", "z",     "-"};
  std::minstd_rand random(7);
  std::map<std::string, std::uint32_t> baseline;
  for (int round = 0; round < 2000; ++round) {
    Snapshot users;
    std::map<std::string, std::uint32_t> accounts;
    for (auto left = random() % 50; left > 0; --left) {
      users.push_back(Account(names[random() % names.size()], random() % 3 == 0 ? 0 : 1000));
      accounts.emplace(users.back().userName, users.back().uid);  // of one name the first
    }
    std::vector<std::string> changed;
    std::vector<std::string> added;
    for (const auto& [name, uid] : accounts) {
      const auto known = baseline.find(name);
      if (uid == 0 && name != "root" && (known == baseline.end() || known->second != 0)) {
        (known == baseline.end() ? added : changed).push_back(name);
      }
    }
    changed.insert(changed.end(), added.begin(), added.end());

    ASSERT_EQ(Detect(users), changed) << "round " << round;
    baseline = accounts;
  }
}

TEST_F(UnauthorizedRootUserTest, TheBaselineHoldsEveryAccountAndNotOnlyTheRootOnes) {
  Detect({Account("alice", 1000), Account("bob", 1001)});
  // Known accounts come in the first group, new ones in the second
  EXPECT_THAT(Detect({Account("bob", 0), Account("aaron", 0)}), ElementsAre("bob", "aaron"));
}

TEST_F(UnauthorizedRootUserTest, ComparePasswdReportsAChangeToUserIdZeroUnlessTheOldNameIsRoot) {
  host.makesEvents = false;  // of an account that changes its name, which is a new one to a detection
  detector.ComparePasswd(Account("alice", 1000), Account("alice", 0));
  detector.ComparePasswd(Account("bob", 0), Account("bob", 0));
  detector.ComparePasswd(Account("carl", 1000), Account("carl", 1000));
  detector.ComparePasswd(Account("dora", 0), Account("dora", 1000));
  detector.ComparePasswd(Account("root", 1000), Account("root", 0));
  detector.ComparePasswd(Account("root", 1000), Account("eve", 0));
  detector.ComparePasswd(Account("fred", 1000), Account("root", 0));

  EXPECT_THAT(TakeAlerts(), ElementsAre("alice", "root"));
}

TEST_F(UnauthorizedRootUserTest, ANameThatIsNoUtf8DoesNotKeepLaterAccountsFromBeingReported) {
  UnauthorizedRootUser::DetectUnauthorizedRootUser({Account("\xFF\xFE", 0), Account("aaa", 0)});
  EXPECT_EQ(TakeAlerts().size(), 2u);
  EXPECT_THAT(Detect({Account("\xFF\xFE", 0), Account("aaa", 0), Account("bbb", 0)}), ElementsAre("bbb"));
}

TEST_F(UnauthorizedRootUserTest, AQueueThatThrowsLeavesTheBaselineAndTheSameSnapshotAlertsAgain) {
  Detect({Account("alice", 1000), Account("bob", 0)});
  const Snapshot users = {Account("alice", 0), Account("toor", 0), Account("zoe", 0)};

  // The second of three alerts fails: the first has left, the third never begins
  host.onCall = ThrowAt("push", 2);
  EXPECT_THROW(UnauthorizedRootUser::DetectUnauthorizedRootUser(users), HostFailure);
  EXPECT_THAT(TakeAlerts(), ElementsAre("alice", "toor"));

  EXPECT_THAT(Detect(users), ElementsAre("alice", "toor", "zoe"));
  EXPECT_THAT(Detect(users), IsEmpty());
}

TEST_F(UnauthorizedRootUserTest, ATimeServiceThatThrowsLeavesTheBaselineAndTheSameSnapshotAlertsAgain) {
  Detect({Account("alice", 1000)});
  const Snapshot users = {Account("alice", 0), Account("toor", 0)};

  host.onCall = ThrowAt("time", 2);
  EXPECT_THROW(UnauthorizedRootUser::DetectUnauthorizedRootUser(users), HostFailure);
  EXPECT_THAT(TakeAlerts(), ElementsAre("alice"));

  EXPECT_THAT(Detect(users), ElementsAre("alice", "toor"));
}

TEST_F(UnauthorizedRootUserTest, ALoggerThatThrowsLeavesTheBaselineAndTheSameSnapshotAlertsAgain) {
  const Snapshot users = {Account("toor", 0)};
  host.utcTime = "";
  host.onCall = ThrowAt("log", 1);
  EXPECT_THROW(UnauthorizedRootUser::DetectUnauthorizedRootUser(users), HostFailure);

  host.utcTime = "2026-03-01 08:15:42";
  EXPECT_THAT(Detect(users), ElementsAre("toor"));
}

TEST_F(UnauthorizedRootUserTest, AnExceptionPassesThroughTheBusToThePublisher) {
  ASSERT_TRUE(detector.Init());
  const Snapshot users = {Account("toor", 0)};
  host.onCall = ThrowAt("push", 1);
  EXPECT_THROW(Publish(users), HostFailure);
  host.TakeCalls();

  EXPECT_THAT(Publish(users), ElementsAre("toor"));
}

TEST_F(UnauthorizedRootUserTest, ALockThatFailsReachesThePublisherAndNothingElseHappens) {
  ASSERT_TRUE(detector.Init());
  Detect({Account("alice", 1000)});
  const Snapshot users = {Account("alice", 0), Account("toor", 0)};
  const std::function<void()> detections[] = {
      [&users] { UnauthorizedRootUser::DetectUnauthorizedRootUser(users); },
      [&users] { MessageBus::Publish<const Snapshot&>("detect_user", users); },
  };
  for (const std::function<void()>& detection : detections) {
    SCOPED_TRACE(&detection - detections);
    std::error_code error;
    {
      const HeldMutex held(UnauthorizedRootUser::detectMutex);
      try {
        detection();
      } catch (const std::system_error& failure) {
        error = failure.code();
      }
    }
    EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
    EXPECT_THAT(host.TakeCalls(), IsEmpty());
  }

  EXPECT_THAT(Publish(users), ElementsAre("alice", "toor")) << "the baseline had not moved";
}

TEST_F(UnauthorizedRootUserTest,
       Fault24ADetectionThatRunsOutOfMemoryThrowsAndTheSameSnapshotAlertsInFullAfterwards) {
  const Snapshot before = {Account("an account with a long name, known before", 1000), Account("bob", 0)};
  const Snapshot after = {Account("an account with a long name, known before", 0), Account("bob", 0),
                          Account("root", 0), Account("toor", 0)};
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 10000u);
    Detect({});
    Detect(before);
    bool threw = false;
    {
      const AllocationFailure failure(nth);
      try {
        UnauthorizedRootUser::DetectUnauthorizedRootUser(after);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    ASSERT_NE(threw, exhausted) << "allocation " << nth;
    const std::vector<std::string> alerts = TakeAlerts();
    const std::vector<std::string> all = {"an account with a long name, known before", "toor"};
    if (threw) {
      ASSERT_THAT(Detect(after), all) << "allocation " << nth;
    } else {
      ASSERT_THAT(alerts, all);
    }
    ASSERT_THAT(Detect(after), IsEmpty());
  }
}

TEST_F(UnauthorizedRootUserTest, AlertsOfOneSnapshotLeaveTogetherWhenTwoPublishersPublishAtOnce) {
  ASSERT_TRUE(detector.Init());
  Latch firstAlert;
  Latch secondBegins;
  std::atomic<int> pushes{0};
  host.onCall = [&](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == "push" && ++pushes == 1) {
      firstAlert.Open();
      secondBegins.Wait();
      for (int turn = 0; turn < 1000 && host.Calls().size() < 3; ++turn) {
        std::this_thread::yield();  // room for the other detection to come in between, were it let in
      }
    }
  };
  std::thread first([this] {
    MessageBus::Publish<const Snapshot&>("detect_user", {Account("a1", 0), Account("a2", 0)});
  });
  std::thread second([&] {
    firstAlert.Wait();
    secondBegins.Open();
    MessageBus::Publish<const Snapshot&>("detect_user", {Account("b1", 0), Account("b2", 0)});
  });
  first.join();
  second.join();

  std::vector<std::string> verbs;
  for (const std::string& entry : host.Calls()) {
    verbs.push_back(RecordingHost::VerbOf(entry));
  }
  EXPECT_THAT(verbs, ElementsAre("time", "push", "time", "push", "time", "push", "time", "push"));
  EXPECT_THAT(TakeAlerts(), ElementsAre("a1", "a2", "b1", "b2"));
  EXPECT_THAT(Detect({Account("b1", 0), Account("b2", 0)}), IsEmpty())
      << "the later snapshot is the baseline";
}

TEST_F(UnauthorizedRootUserTest, InitAndUnInitDoNotWaitForARunningDetection) {
  ASSERT_TRUE(detector.Init());
  Latch alerting;
  Latch restarted;
  bool waited = false;
  host.onCall = [&](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == "push") {
      alerting.Open();
      waited = restarted.Wait();
    }
  };
  std::thread publisher([] { MessageBus::Publish<const Snapshot&>("detect_user", {Account("toor", 0)}); });
  ASSERT_TRUE(alerting.Wait());

  detector.UnInit();
  EXPECT_TRUE(detector.Init());
  restarted.Open();
  publisher.join();

  EXPECT_TRUE(waited);
  EXPECT_THAT(TakeAlerts(), ElementsAre("toor"));
  host.onCall = nullptr;
  EXPECT_THAT(Publish({Account("toor", 0)}), IsEmpty());
}

}  // namespace
