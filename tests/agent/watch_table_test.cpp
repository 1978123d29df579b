#include "agent/watch_table.h"

#include <sys/inotify.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/steady_time.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Time = WatchTable::Time;

constexpr milliseconds never(0);
constexpr char path[] = "/etc/passwd";

// A system as the test sets it: which path has which watch number, and what is refused.
class SetSystem : public WatchedSystem {
 public:
  bool Open() override {
    ++opened;
    openError = openAnswer;
    return openError == 0;
  }
  int OpenError() const override { return openError; }
  int Add(const std::string& place, std::uint32_t) override {
    added.push_back(place);
    const auto found = watches.find(place);
    return found == watches.end() ? -ENOENT : found->second;
  }
  void Remove(int watch) override { removed.push_back(watch); }
  std::optional<FileStatus> Look(const std::string&) override { return status; }
  void Tell(LogLevel, const std::string& text) override { told.push_back(text); }

  std::vector<std::string> TakeAdded() { return std::exchange(added, {}); }

  int openAnswer = 0;
  int openError = 0;
  int opened = 0;
  std::map<std::string, int> watches = {{"/", 1}, {"/etc", 2}, {path, 3}};  // negative: refused
  std::optional<FileStatus> status = FileStatus();
  std::vector<std::string> added;
  std::vector<int> removed;
  std::vector<std::string> told;
};

class WatchTableTest : public testing::Test {
 protected:
  unsigned Add(WatchTable& table) {
    FileWatchRule rule = FileWatchRule();
    rule.path = path;
    rule.callback = std::make_shared<FileWatchCallback>(
        [](int, const char*, const char*, bool, int, const std::string&) {});
    return table.Add(rule, At(0));
  }

  // When reports come, up to and with that time, if the thread is never late.
  static std::vector<std::int64_t> Reports(WatchTable& table, std::int64_t until) {
    std::vector<std::int64_t> reports;
    while (const std::optional<Time> due = table.NextDue()) {
      if (*due > At(until)) {
        break;
      }
      table.Advance(*due);
      while (table.Begin(*due)) {
        reports.push_back(std::chrono::duration_cast<milliseconds>(*due - At(0)).count());
      }
    }
    return reports;
  }

  SetSystem system;
};

TEST_F(WatchTableTest, ARuleHoldsTheFoldersFromTheTopAndThenTheFile) {
  WatchTable table(system, never, At(0));
  EXPECT_NE(Add(table), 0u);
  EXPECT_THAT(system.added, ElementsAre("/", "/etc", path));
  EXPECT_THAT(Reports(table, 100000), IsEmpty()) << "nothing has changed";
}

TEST_F(WatchTableTest, AnEventIsReportedAsItsReactionSays) {
  WatchTable table(system, never, At(0));
  Add(table);
  table.Handle({2, IN_MOVED_TO, "passwd"}, At(10));
  EXPECT_THAT(Reports(table, 1000), ElementsAre(10));
  table.Handle({3, IN_MODIFY, ""}, At(2000));
  EXPECT_THAT(Reports(table, 5000), ElementsAre(2100));
  table.Handle({2, IN_MOVED_TO, "shadow"}, At(6000));
  table.Handle({7, IN_MOVED_TO, "passwd"}, At(6000));
  EXPECT_THAT(Reports(table, 9000), IsEmpty()) << "another name, and a watch that is nobody's";
}

TEST_F(WatchTableTest, WhatTakesTheNameIsWatchedBeforeItIsReportedAndTheOldWatchGoes) {
  WatchTable table(system, never, At(0));
  Add(table);
  system.TakeAdded();
  system.watches[path] = 4;
  table.Handle({2, IN_MOVED_TO, "passwd"}, At(10));
  EXPECT_THAT(system.added, ElementsAre(path)) << "nothing else can have become another";
  EXPECT_THAT(system.removed, ElementsAre(3));
  table.Begin(At(10));
  table.Handle({4, IN_CLOSE_WRITE, ""}, At(20));
  EXPECT_THAT(Reports(table, 1000), ElementsAre(20));
}

TEST_F(WatchTableTest, WhatTakesTheNameIsWatchedForEveryRuleAndTheOldWatchGoesWithTheLastOne) {
  WatchTable table(system, never, At(0));
  const unsigned first = Add(table);
  const unsigned second = Add(table);
  system.watches[path] = 4;
  table.Handle({2, IN_MOVED_TO, "passwd"}, At(10));
  EXPECT_THAT(system.removed, ElementsAre(3));
  table.Begin(At(10));
  table.Begin(At(10));
  table.Handle({4, IN_CLOSE_WRITE, ""}, At(20));
  EXPECT_EQ(table.Begin(At(20))->id, second);
  EXPECT_EQ(table.Begin(At(20))->id, first);
  table.Remove(first);
  table.Remove(second);
  EXPECT_THAT(system.removed, UnorderedElementsAre(3, 4, 2, 1)) << "no use of a watch is left behind";
}

TEST_F(WatchTableTest, ANameThatIsTakenAndRefusedAWatchMakesItsRuleAPolledOne) {
  WatchTable table(system, never, At(0));
  Add(table);
  system.watches[path] = -ENOSPC;
  table.Handle({2, IN_MOVED_TO, "passwd"}, At(10));
  EXPECT_THAT(system.removed, ElementsAre(3));
  EXPECT_THAT(system.told, ElementsAre(HasSubstr("No space left on device")));
  EXPECT_THAT(Reports(table, 5000), ElementsAre(10));
}

TEST_F(WatchTableTest, AWatchThatStaysIsNeverWithdrawnInBetween) {
  WatchTable table(system, never, At(0));
  Add(table);
  table.Handle({3, IN_ATTRIB, ""}, At(10));
  table.StartOver(At(20));
  table.Advance(At(20));
  EXPECT_THAT(system.removed, IsEmpty());
}

// The file may have come into the folder complete before the folder was watched.
TEST_F(WatchTableTest, AFolderThatIsWatchedForTheFirstTimeIsReportedAtOnce) {
  WatchTable table(system, never, At(0));
  Add(table);
  system.watches["/etc"] = 5;
  table.Handle({1, IN_CREATE, "etc"}, At(10));
  EXPECT_THAT(Reports(table, 1000), ElementsAre(10));
  table.Handle({1, IN_ATTRIB, "etc"}, At(2000));
  EXPECT_THAT(Reports(table, 5000), ElementsAre(2100)) << "the same folder settles";
}

TEST_F(WatchTableTest, OfSeveralRulesTheNewestIsReportedFirst) {
  WatchTable table(system, never, At(0));
  const unsigned older = Add(table);
  const unsigned newer = Add(table);
  table.Handle({3, IN_CLOSE_WRITE, ""}, At(10));
  EXPECT_EQ(table.Begin(At(10))->id, newer);
  EXPECT_EQ(table.Begin(At(10))->id, older);
}

TEST_F(WatchTableTest, WhatTheCheckFindsIsReportedOnceItIsQuiet) {
  WatchTable table(system, milliseconds(1000), At(0));
  Add(table);
  table.Advance(At(0));
  EXPECT_THAT(Reports(table, 3500), IsEmpty());
  system.status->size = 1;
  EXPECT_THAT(Reports(table, 9000), ElementsAre(4100));
  system.status.reset();
  EXPECT_THAT(Reports(table, 20000), ElementsAre(10100)) << "a file that is gone is a change, too";
}

TEST_F(WatchTableTest, Fault08AfterAnOverflowEverythingIsWatchedAnewAndReportedAndTheLogCounts) {
  WatchTable table(system, never, At(0));
  Add(table);
  Add(table);
  for (int time = 1; time <= 2; ++time) {
    system.TakeAdded();
    table.Handle({-1, IN_Q_OVERFLOW, ""}, At(time * 1000));
    EXPECT_THAT(Reports(table, time * 1000), ElementsAre(time * 1000, time * 1000));
    EXPECT_THAT(system.added, ElementsAre("/", "/etc", path, "/", "/etc", path));
    EXPECT_THAT(system.told.back(), HasSubstr("(" + std::to_string(time) + " times so far)"));
  }
}

TEST_F(WatchTableTest, Fault09WhenInotifyIsRefusedTheFileIsPolledAndInotifyIsAskedAgainEveryHalfMinute) {
  system.openAnswer = EMFILE;
  system.Open();
  WatchTable table(system, never, At(0));
  Add(table);
  EXPECT_THAT(system.told, ElementsAre(AllOf(HasSubstr("Too many open files"), HasSubstr(path),
                                             HasSubstr("is polled every 1000 ms"))));
  EXPECT_THAT(Reports(table, 500), IsEmpty());
  system.status->size = 1;
  EXPECT_THAT(Reports(table, 29000), ElementsAre(1100));
  EXPECT_EQ(system.opened, 1);

  EXPECT_THAT(Reports(table, 31000), IsEmpty());
  EXPECT_EQ(system.opened, 2) << "after 30 s";
  EXPECT_EQ(system.told.size(), 1u) << "said once";

  system.openAnswer = 0;
  EXPECT_THAT(Reports(table, 62000), ElementsAre(testing::AllOf(testing::Ge(60000), testing::Le(61000))));
  EXPECT_THAT(system.added, ElementsAre("/", "/etc", path));
  EXPECT_THAT(system.told.back(), HasSubstr("polling ends"));
  EXPECT_EQ(table.NextDue(), std::nullopt) << "the thread sleeps until an event comes";
}

class RefusedWatchTest : public WatchTableTest, public testing::WithParamInterface<const char*> {};

TEST_P(RefusedWatchTest, Fault09ARefusedWatchMakesItsRuleAPolledOneUntilItIsGranted) {
  const int granted = system.watches[GetParam()];
  system.watches[GetParam()] = -ENOSPC;
  WatchTable table(system, never, At(0));
  Add(table);
  EXPECT_THAT(system.told, ElementsAre(HasSubstr("No space left on device")));
  EXPECT_THAT(Reports(table, 500), IsEmpty());
  system.status->size = 1;
  EXPECT_THAT(Reports(table, 5000), ElementsAre(1100));
  system.watches[GetParam()] = granted;
  EXPECT_EQ(Reports(table, 32000).size(), 1u);
  EXPECT_THAT(system.told.back(), HasSubstr("polling ends"));
  EXPECT_EQ(system.opened, 0) << "the instance itself was never refused";
}

std::string PlaceName(const testing::TestParamInfo<const char*>& parameter) {
  return parameter.param == std::string("/")      ? "Top"
         : parameter.param == std::string("/etc") ? "Folder"
                                                  : "File";
}

INSTANTIATE_TEST_SUITE_P(Place, RefusedWatchTest, testing::Values("/", "/etc", path), PlaceName);

TEST_F(WatchTableTest, APathThatLeadsNowhereIsNoRefusal) {
  system.watches = {{"/", 1}};
  system.status.reset();
  WatchTable table(system, never, At(0));
  Add(table);
  EXPECT_THAT(system.told, IsEmpty());
  EXPECT_EQ(table.NextDue(), std::nullopt);
}

TEST_F(WatchTableTest, Fault10AfterAReadThatFailedEverythingIsOpenedWatchedAndReportedAnew) {
  WatchTable table(system, never, At(0));
  Add(table);
  system.TakeAdded();
  system.watches = {{"/", 4}, {"/etc", 5}, {path, 6}};
  table.Reopen(At(10));
  EXPECT_EQ(system.opened, 1);
  EXPECT_THAT(Reports(table, 1000), ElementsAre(10));
  EXPECT_THAT(system.added, ElementsAre("/", "/etc", path));
  EXPECT_THAT(system.removed, IsEmpty()) << "the old numbers may be somebody's again";
  table.Handle({6, IN_CLOSE_WRITE, ""}, At(2000));
  EXPECT_THAT(Reports(table, 5000), ElementsAre(2000));
}

TEST_F(WatchTableTest, AReportThatDidNotGetThroughComesAgain) {
  WatchTable table(system, never, At(0));
  const unsigned id = Add(table);
  table.Handle({3, IN_CLOSE_WRITE, ""}, At(0));
  ASSERT_TRUE(table.Begin(At(0)));
  table.Retry(id, At(0));
  EXPECT_THAT(Reports(table, 5000), ElementsAre(1000));
  table.Retry(id + 1, At(0));
  EXPECT_THAT(Reports(table, 9000), IsEmpty()) << "a rule that is gone";
}

TEST_F(WatchTableTest, ARemovedRuleGivesBackItsCallbackAndLeavesNoWatch) {
  WatchTable table(system, milliseconds(1000), At(0));
  const unsigned id = Add(table);
  table.Handle({3, IN_MODIFY, ""}, At(0));
  EXPECT_EQ(table.Remove(id).use_count(), 1);
  EXPECT_THAT(system.removed, UnorderedElementsAre(1, 2, 3));
  EXPECT_EQ(table.NextDue(), std::nullopt);
  EXPECT_EQ(table.Remove(id), nullptr);
}

TEST_F(WatchTableTest, AStartOverThatIsAskedForTwiceHappensAtTheEarlierTime) {
  WatchTable table(system, never, At(0));
  Add(table);
  table.StartOver(At(1000));
  table.StartOver(At(5000));
  EXPECT_THAT(Reports(table, 9000), ElementsAre(1000));
}

}  // namespace
