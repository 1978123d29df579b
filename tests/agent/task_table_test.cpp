#include "agent/task_table.h"

#include <chrono>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/task_scheduler.h"
#include "tests/agent/steady_time.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using utils::thread::TASK_CONDITION;
using utils::thread::TASKTYPE_ONCE;
using utils::thread::TASKTYPE_PERIODIC;

std::int64_t Ms(TaskTable::Time time) {
  return std::chrono::duration_cast<milliseconds>(time - At(0)).count();
}

void* ReturnNothing(void* /*arg*/) { return nullptr; }

TASK_CONDITION Condition(std::int64_t first, std::int64_t second, bool enabled = true) {
  TASK_CONDITION condition = TASK_CONDITION();
  condition.startDelayMs = first;
  condition.intervalMs = second;
  condition.enabled = enabled;
  return condition;
}

class TaskTableTest : public testing::Test {
 protected:
  // All are registered at time 0.
  unsigned Periodic(std::int64_t first, std::int64_t second) {
    return table.Register(TASKTYPE_PERIODIC, Condition(first, second), ReturnNothing, nullptr, "periodic",
                          At(0));
  }
  unsigned Once(std::int64_t first) {
    return table.Register(TASKTYPE_ONCE, Condition(first, 100), ReturnNothing, nullptr, "once", At(0));
  }
  static constexpr bool mayWait = true;

  unsigned OnLaunch(bool waits = false) {
    return table.Register(TASKTYPE_PERIODIC, Condition(100, 100, false), ReturnNothing, nullptr, "on launch",
                          At(0), waits);
  }

  // When runs begin, until then, if each takes that long and the only worker is never late.
  std::vector<std::int64_t> Starts(std::int64_t until, std::int64_t duration = 0, bool succeeded = true) {
    std::vector<std::int64_t> starts;
    while (const auto due = table.NextDue()) {
      if (*due > At(until)) {
        break;
      }
      const unsigned id = table.Begin(*due);
      EXPECT_NE(id, 0u);
      if (id == 0) {
        break;
      }
      starts.push_back(Ms(*due));
      table.End(id, succeeded ? TaskTable::Outcome::Done : TaskTable::Outcome::Failed, *due,
                *due + milliseconds(duration));
    }
    return starts;
  }

  TaskTable table;
};

TEST_F(TaskTableTest, TheTimerRunsATaskAfterTheFirstTimeAndThenByTheSecond) {
  const unsigned id = Periodic(10000, 300000);
  EXPECT_EQ(table.Begin(At(9999)), 0u);
  EXPECT_THAT(Starts(1000000), ElementsAre(10000, 310000, 610000, 910000));
  EXPECT_FALSE(table.IsRunning(id));
}

TEST_F(TaskTableTest, AQuickRunKeepsThePeriod) {
  Periodic(100, 100);
  EXPECT_THAT(Starts(450, 99), ElementsAre(100, 200, 300, 400));
}

TEST_F(TaskTableTest, Fault06ARunThatOutlastsItsPeriodIsFollowedByAFullOneWithoutBacklog) {
  Periodic(100, 100);
  EXPECT_THAT(Starts(1200, 250), ElementsAre(100, 450, 800, 1150));
}

TEST_F(TaskTableTest, Fault06ATaskThatOutlastsItsPeriodDoesNotRunTwiceAtATime) {
  const unsigned id = Periodic(100, 100);
  ASSERT_EQ(table.Begin(At(100)), id);
  table.Launch(id, At(150));
  EXPECT_EQ(table.Begin(At(10000)), 0u);
  EXPECT_EQ(table.NextDue(), std::nullopt);
}

TEST_F(TaskTableTest, Fault06AWorkerThatIsLateSkipsTheRunsItMissed) {
  const unsigned id = Periodic(100, 100);
  ASSERT_EQ(table.Begin(At(1030)), id);
  table.End(id, TaskTable::Outcome::Done, At(1030), At(1040));
  EXPECT_THAT(Starts(1350), ElementsAre(1130, 1230, 1330));
}

TEST_F(TaskTableTest, TheTimerRunsATaskOfTheOtherKindOnce) {
  const unsigned id = Once(100);
  EXPECT_THAT(Starts(100000), ElementsAre(100));
  table.Launch(id, At(200));
  EXPECT_THAT(Starts(100000), ElementsAre(200));
}

TEST_F(TaskTableTest, ATaskWithoutASecondTimeIsNotRepeated) {
  Periodic(100, 0);
  EXPECT_THAT(Starts(100000), ElementsAre(100));
}

TEST_F(TaskTableTest, ADisabledTimerLeavesATaskToItsLaunches) {
  const unsigned id = OnLaunch();
  EXPECT_EQ(table.NextDue(), std::nullopt);
  EXPECT_EQ(table.Begin(At(100000)), 0u);
  table.Launch(id, At(100000));
  EXPECT_THAT(Starts(200000), ElementsAre(100000));
}

TEST_F(TaskTableTest, ALaunchDoesNotMoveTheTimer) {
  const unsigned id = Periodic(1000, 1000);
  table.Launch(id, At(300));
  EXPECT_THAT(Starts(3500), ElementsAre(300, 1000, 2000, 3000));
}

TEST_F(TaskTableTest, Fault01LaunchesBeforeARunAreOneRun) {
  const unsigned id = OnLaunch();
  for (int i = 0; i < 1000; ++i) {
    table.Launch(id, At(i));
  }
  EXPECT_THAT(Starts(100000), ElementsAre(0));
}

TEST_F(TaskTableTest, Fault01LaunchesDuringARunAreExactlyOneRunAfterIt) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(10));
  ASSERT_EQ(table.Begin(At(10)), id);
  for (int i = 11; i < 1000; ++i) {
    table.Launch(id, At(i));
  }
  table.End(id, TaskTable::Outcome::Done, At(10), At(1000));
  EXPECT_THAT(Starts(100000), ElementsAre(1000));
}

TEST_F(TaskTableTest, ALaunchDuringTheRunThatAnotherOneAskedForCountsAgain) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(10));
  ASSERT_EQ(table.Begin(At(10)), id);
  table.Launch(id, At(11));
  table.End(id, TaskTable::Outcome::Done, At(10), At(20));
  ASSERT_EQ(table.Begin(At(20)), id);
  table.Launch(id, At(21));
  table.End(id, TaskTable::Outcome::Done, At(20), At(30));
  EXPECT_THAT(Starts(100000), ElementsAre(30));
}

TEST_F(TaskTableTest, ALaunchThatMayWaitIsOneRunWithTheNextAndNoLaterThanTheFirst) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(30));
  table.Launch(id, At(10));
  table.Launch(id, At(20));
  EXPECT_EQ(table.Begin(At(9)), 0u);
  EXPECT_THAT(Starts(1000), ElementsAre(10));
}

TEST_F(TaskTableTest, WhatMayWaitIsLeftAloneByWhoeverAsksForTheRest) {
  const unsigned waiting = OnLaunch(mayWait);
  const unsigned other = OnLaunch();
  table.LaunchAll(At(10));
  EXPECT_EQ(table.Begin(At(20), true), other);
  EXPECT_EQ(table.Begin(At(20), true), 0u);
  EXPECT_EQ(table.Begin(At(20)), waiting) << "it is due all the same";
}

TEST_F(TaskTableTest, WhateverElseIsDueComesBeforeWhatMayWait) {
  const unsigned older = OnLaunch();
  const unsigned waiting = OnLaunch(mayWait);
  const unsigned newer = OnLaunch();
  table.Launch(waiting, At(2));
  for (const unsigned other : {older, newer}) {
    table.Launch(other, At(5));
    EXPECT_EQ(table.Begin(At(500)), other) << "though the one that may wait is due since longer";
    table.End(other, TaskTable::Outcome::Done, At(500), At(500));
  }
  EXPECT_EQ(table.Begin(At(500)), waiting);
}

TEST_F(TaskTableTest, TheRunIsKnownThatHasGoneOnForLongest) {
  EXPECT_EQ(table.RunningSince(), std::nullopt);
  const unsigned first = OnLaunch();
  const unsigned second = OnLaunch();
  table.Launch(first, At(10));
  ASSERT_EQ(table.Begin(At(10)), first);
  table.Launch(second, At(20));
  ASSERT_EQ(table.Begin(At(20)), second);
  EXPECT_EQ(table.RunningSince(), At(10));
  table.End(first, TaskTable::Outcome::Done, At(10), At(30));
  EXPECT_EQ(table.RunningSince(), At(20));
  table.End(second, TaskTable::Outcome::Done, At(20), At(30));
  EXPECT_EQ(table.RunningSince(), std::nullopt);
}

TEST_F(TaskTableTest, WhatIsHeldUpIsTriedAgainAtASteadyPace) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  for (int run = 0; run < 5; ++run) {
    const auto due = table.NextDue();
    ASSERT_TRUE(due);
    ASSERT_EQ(table.Begin(*due), id);
    table.End(id, TaskTable::Outcome::HeldUp, *due, *due);
    EXPECT_EQ(table.NextDue(), *due + TaskTable::firstRetry);
  }
  ASSERT_TRUE(table.Failing());
  EXPECT_EQ(table.Failing()->count, 5u);
}

TEST_F(TaskTableTest, Fault03ALaunchOfNobodyIsIgnored) {
  const unsigned id = OnLaunch();
  table.Launch(0, At(1));
  table.Launch(id + 1, At(1));
  table.Pause(0);
  table.Pause(id + 1);
  table.Unregister(0);
  table.Unregister(id + 1);
  table.End(0, TaskTable::Outcome::Done, At(1), At(1));
  table.End(id + 1, TaskTable::Outcome::Failed, At(1), At(1));
  EXPECT_EQ(table.NextDue(), std::nullopt);
  EXPECT_EQ(table.Begin(At(1)), 0u);
  EXPECT_EQ(table.Find(0), nullptr);
  EXPECT_EQ(table.Find(id + 1), nullptr);
  EXPECT_NE(table.Find(id), nullptr);
}

TEST_F(TaskTableTest, Fault04APausedTaskRunsNeitherByItsTimerNorByALaunch) {
  const unsigned id = Periodic(100, 100);
  table.Launch(id, At(0));
  table.Pause(id);
  table.Launch(id, At(1));
  EXPECT_EQ(table.LaunchAll(At(2)), 1u);
  EXPECT_EQ(table.NextDue(), std::nullopt);
  EXPECT_EQ(table.Begin(At(100000)), 0u);
}

TEST_F(TaskTableTest, Fault04ATaskPausedDuringItsRunDoesNotRunAgain) {
  for (const bool succeeded : {true, false}) {
    const unsigned id = Periodic(100, 100);
    ASSERT_EQ(table.Begin(At(100)), id);
    table.Launch(id, At(101));
    table.Pause(id);
    EXPECT_TRUE(table.IsRunning(id));
    table.End(id, succeeded ? TaskTable::Outcome::Done : TaskTable::Outcome::Failed, At(100), At(102));
    EXPECT_FALSE(table.IsRunning(id));
    EXPECT_EQ(table.NextDue(), std::nullopt) << "succeeded: " << succeeded;
    table.Unregister(id);
  }
}

TEST_F(TaskTableTest, AnUnregisteredTaskIsForgottenAtOnceOrWhenItsRunEnds) {
  const unsigned still = OnLaunch();
  table.Unregister(still);
  EXPECT_EQ(table.Find(still), nullptr);

  const unsigned running = Periodic(100, 100);
  ASSERT_EQ(table.Begin(At(100)), running);
  table.Launch(running, At(101));
  table.Unregister(running);
  EXPECT_TRUE(table.IsRunning(running)) << "the worker still reads its record";
  table.Launch(running, At(102));
  table.End(running, TaskTable::Outcome::Failed, At(100), At(103));
  EXPECT_EQ(table.Find(running), nullptr);
  EXPECT_EQ(table.NextDue(), std::nullopt);
}

TEST_F(TaskTableTest, Fault03AnIdIsNotUsedAgainAtOnce) {
  std::set<unsigned> ids;
  for (int i = 0; i < 1000; ++i) {
    const unsigned id = OnLaunch();
    EXPECT_NE(id, 0u);
    EXPECT_TRUE(ids.insert(id).second) << id;
    table.Unregister(id);
  }
}

TEST_F(TaskTableTest, ATaskWithoutAFunctionIsRefused) {
  EXPECT_EQ(table.Register(TASKTYPE_PERIODIC, Condition(0, 100), nullptr, nullptr, "nothing", At(0)), 0u);
  EXPECT_EQ(table.NextDue(), std::nullopt);
  EXPECT_EQ(table.LaunchAll(At(0)), 0u);
}

TEST_F(TaskTableTest, ARegisteredTaskKeepsWhatItWasRegisteredWith) {
  int context = 0;
  const unsigned id =
      table.Register(TASKTYPE_ONCE, Condition(0, 0), ReturnNothing, &context, "its name", At(0));
  const TaskTable::Task* const task = table.Find(id);
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(task->name, "its name");
  EXPECT_EQ(task->function, &ReturnNothing);
  EXPECT_EQ(task->arg, &context);
}

TEST_F(TaskTableTest, Fault05AFailedTaskIsTriedAgainAfterAWaitThatDoublesUpToAMinute) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  EXPECT_THAT(Starts(190000, 0, false),
              ElementsAre(0, 1000, 3000, 7000, 15000, 31000, 63000, 123000, 183000));
}

TEST_F(TaskTableTest, Fault05RunsInARowThatFailedAreCountedSinceTheFirst) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(100));
  EXPECT_FALSE(table.Failing());
  Starts(4000, 10, false);  // at 100, 1110, 3120
  ASSERT_TRUE(table.Failing());
  EXPECT_EQ(table.Failing()->count, 3u);
  EXPECT_EQ(Ms(table.Failing()->since), 110);

  const unsigned other = OnLaunch();
  table.Launch(other, At(4000));
  ASSERT_EQ(table.Begin(At(4000)), other);
  table.End(other, TaskTable::Outcome::Failed, At(4000), At(4000));
  EXPECT_EQ(table.Failing()->count, 3u) << "of the one that has failed for longer";
  table.Launch(id, At(4500));
  ASSERT_EQ(table.Begin(At(4500)), id);
  table.End(id, TaskTable::Outcome::PutOff, At(4500), At(4500));
  EXPECT_EQ(table.Failing()->count, 3u) << "nothing was tried";
  ASSERT_EQ(table.Begin(At(4700)), id);
  table.End(id, TaskTable::Outcome::Done, At(4700), At(4700));
  EXPECT_EQ(Ms(table.Failing()->since), 4000);
  table.Unregister(other);
  EXPECT_FALSE(table.Failing());
}

TEST_F(TaskTableTest, TheWaitOfAFailedTaskBeginsWhenItsRunEnds) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  EXPECT_THAT(Starts(8000, 500, false), ElementsAre(0, 1500, 4000));
}

TEST_F(TaskTableTest, ASuccessEndsTheRetriesAndForgetsTheirWait) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  ASSERT_THAT(Starts(3000, 0, false), ElementsAre(0, 1000, 3000));
  ASSERT_THAT(Starts(1000000, 0, true), ElementsAre(7000));
  table.Launch(id, At(8000));
  EXPECT_THAT(Starts(9500, 0, false), ElementsAre(8000, 9000));
}

TEST_F(TaskTableTest, ARetryWaitsNoLongerThanTheTimer) {
  Periodic(0, 5000);
  EXPECT_THAT(Starts(21000, 0, false), ElementsAre(0, 1000, 3000, 5000, 10000, 15000, 20000));
}

TEST_F(TaskTableTest, ATaskThatWasPutOffIsDueSoonAgainHoweverOftenAndLeavesTheRetriesAlone) {
  const unsigned id = OnLaunch();
  TaskTable::Time now = At(0);
  table.Launch(id, now);
  const auto run = [&](TaskTable::Outcome outcome) {
    EXPECT_EQ(table.Begin(now), id);
    table.End(id, outcome, now, now);
    const milliseconds wait =
        table.NextDue() ? std::chrono::duration_cast<milliseconds>(*table.NextDue() - now) : milliseconds(-1);
    now += wait;
    return wait;
  };
  EXPECT_EQ(run(TaskTable::Outcome::PutOff), milliseconds(200));
  EXPECT_EQ(run(TaskTable::Outcome::PutOff), milliseconds(200));
  EXPECT_EQ(run(TaskTable::Outcome::Failed), milliseconds(1000));
  EXPECT_EQ(run(TaskTable::Outcome::Failed), milliseconds(2000));
  EXPECT_EQ(run(TaskTable::Outcome::PutOff), milliseconds(200));
  EXPECT_EQ(run(TaskTable::Outcome::Failed), milliseconds(4000));
  EXPECT_EQ(run(TaskTable::Outcome::Done), milliseconds(-1));
}

TEST_F(TaskTableTest, ALaunchDuringTheWaitOfAFailedTaskRunsItAtOnce) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  ASSERT_THAT(Starts(500, 0, false), ElementsAre(0));
  table.Launch(id, At(600));
  EXPECT_THAT(Starts(100000), ElementsAre(600));
}

TEST_F(TaskTableTest, ALaunchDuringARunThatFailsIsAnsweredAtOnce) {
  const unsigned id = OnLaunch();
  table.Launch(id, At(0));
  ASSERT_EQ(table.Begin(At(0)), id);
  table.Launch(id, At(1));
  table.End(id, TaskTable::Outcome::Failed, At(0), At(2));
  EXPECT_THAT(Starts(100000), ElementsAre(2));
}

TEST_F(TaskTableTest, TheTaskThatIsDueFirstBeginsFirst) {
  const unsigned last = Periodic(300, 0);
  const unsigned first = Periodic(100, 0);
  const unsigned between = Periodic(200, 0);
  EXPECT_EQ(table.NextDue(), At(100));
  EXPECT_EQ(table.Begin(At(1000)), first);
  EXPECT_EQ(table.NextDue(), At(200));
  EXPECT_EQ(table.Begin(At(1000)), between);
  EXPECT_EQ(table.Begin(At(1000)), last);
  EXPECT_EQ(table.Begin(At(1000)), 0u);
}

TEST_F(TaskTableTest, LaunchAllLaunchesEveryTaskAndCountsThem) {
  EXPECT_EQ(table.LaunchAll(At(0)), 0u);
  const unsigned one = OnLaunch();
  const unsigned two = Periodic(10000, 10000);
  EXPECT_EQ(table.LaunchAll(At(5)), 2u);
  EXPECT_EQ(table.Begin(At(5)), two) << "of several due at one moment, the one registered last";
  EXPECT_EQ(table.Begin(At(5)), one);
}

TEST_F(TaskTableTest, IdleIsATableWhereNothingRunsAndNothingIsDue) {
  EXPECT_TRUE(table.IsIdle(At(0)));
  const unsigned id = Periodic(100, 100);
  EXPECT_TRUE(table.IsIdle(At(99)));
  EXPECT_FALSE(table.IsIdle(At(100)));
  ASSERT_EQ(table.Begin(At(100)), id);
  EXPECT_FALSE(table.IsIdle(At(100)));
  table.Launch(id, At(101));
  table.End(id, TaskTable::Outcome::Done, At(100), At(102));
  EXPECT_FALSE(table.IsIdle(At(102)));
  ASSERT_EQ(table.Begin(At(102)), id);
  table.End(id, TaskTable::Outcome::Done, At(102), At(103));
  EXPECT_TRUE(table.IsIdle(At(103)));
  table.Launch(id, At(104));
  EXPECT_FALSE(table.IsIdle(At(104)));
  table.Pause(id);
  EXPECT_TRUE(table.IsIdle(At(104)));
}

TEST_F(TaskTableTest, TimesBeyondTheClockNeitherOverflowNorRunEarly) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  const TaskTable::Time inNinetyYears = At(0) + std::chrono::hours(24 * 365 * 90);
  for (const std::int64_t time : {most, most - 1, most / 1000000, most / 1000}) {
    const unsigned neverFirst = Periodic(time, 1000);
    EXPECT_EQ(table.Begin(inNinetyYears), 0u) << time;
    EXPECT_GT(table.NextDue(), inNinetyYears) << time;
    table.Unregister(neverFirst);

    const unsigned neverAgain = Periodic(0, time);
    ASSERT_EQ(table.Begin(At(0)), neverAgain) << time;
    table.End(neverAgain, TaskTable::Outcome::Done, At(0), At(10));
    EXPECT_EQ(table.Begin(inNinetyYears), 0u) << time;
    EXPECT_GT(table.NextDue(), inNinetyYears) << time;
    table.Unregister(neverAgain);
  }
}

TEST_F(TaskTableTest, NegativeTimesCountAsZero) {
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  for (const std::int64_t time : {least, least + 1, INT64_C(-1)}) {
    const unsigned id = Periodic(time, time);
    EXPECT_THAT(Starts(100000), ElementsAre(0)) << time;
    table.Unregister(id);
  }
}

// A table that is driven at random, next to what each task is owed.
class RandomRun {
 public:
  explicit RandomRun(unsigned seed) : random(seed) {}

  void Step() {
    switch (Below(10)) {
      case 0:
        now += milliseconds(Below(3000));
        break;
      case 1:
        Register();
        break;
      case 2:
        if (Below(20) == 0) {
          Forget();
        }
        break;
      case 3:
      case 4:
      case 5:
        Launch();
        break;
      case 6:
      case 7:
        Begin();
        break;
      default:
        End();
    }
    Check();
  }

  // Ends everything that runs, then runs whatever is due: nothing may be owed afterwards.
  void Settle() {
    do {
      while (!running.empty()) {
        End();
      }
      Begin();
    } while (!running.empty());
    for (const auto& [id, task] : tasks) {
      EXPECT_TRUE(task.paused || !task.owed) << "task " << id << " was launched and did not run after it";
    }
  }

  int Launches() const { return launches; }
  int Begins() const { return begins; }

 private:
  struct Expected {
    bool onLaunchOnly;
    bool owed = false;    // launched, and no run has begun since
    bool failed = false;  // its last run did
    bool paused = false;
  };

  unsigned Below(unsigned limit) { return static_cast<unsigned>(random()) % limit; }

  unsigned Any() {
    if (tasks.empty()) {
      return 0;
    }
    auto task = tasks.begin();
    std::advance(task, Below(static_cast<unsigned>(tasks.size())));
    return task->first;
  }

  void Register() {
    if (tasks.size() >= 6) {
      return;
    }
    const bool onLaunchOnly = Below(2) == 0;
    const unsigned id =
        table.Register(Below(2) == 0 ? TASKTYPE_ONCE : TASKTYPE_PERIODIC,
                       Condition(Below(2000), Below(2000), !onLaunchOnly), ReturnNothing, nullptr, "", now);
    ASSERT_TRUE(tasks.emplace(id, Expected{onLaunchOnly}).second) << "an id in use was given again";
  }

  void Forget() {
    const unsigned id = Any();
    if (id == 0) {
      return;
    }
    table.Pause(id);
    tasks.at(id).paused = true;
    if (Below(2) == 0) {
      table.Unregister(id);
      tasks.erase(id);
    }
  }

  void Launch() {
    const unsigned id = Any();
    table.Launch(id, now);
    if (id != 0 && !tasks.at(id).paused) {
      tasks.at(id).owed = true;
      ++launches;
    }
  }

  void Begin() {
    const unsigned id = table.Begin(now);
    if (id == 0) {
      return;
    }
    ++begins;
    ASSERT_TRUE(running.emplace(id, now).second) << "task " << id << " runs twice at a time";
    const auto task = tasks.find(id);
    ASSERT_NE(task, tasks.end()) << "task " << id << " runs after it was unregistered";
    EXPECT_FALSE(task->second.paused) << "task " << id << " runs after it was paused";
    EXPECT_TRUE(!task->second.onLaunchOnly || task->second.owed || task->second.failed)
        << "task " << id << " runs without a reason";
    task->second.owed = false;
    task->second.failed = false;
  }

  void End() {
    if (running.empty()) {
      return;
    }
    auto run = running.begin();
    std::advance(run, Below(static_cast<unsigned>(running.size())));
    const bool succeeded = Below(4) != 0;
    table.End(run->first, succeeded ? TaskTable::Outcome::Done : TaskTable::Outcome::Failed, run->second,
              now);
    const auto task = tasks.find(run->first);
    if (task != tasks.end()) {
      task->second.failed = !succeeded;
    }
    running.erase(run);
  }

  void Check() {
    for (const auto& [id, task] : tasks) {
      if (task.owed && !task.paused && running.count(id) == 0) {
        const TaskTable::Task* const entry = table.Find(id);
        ASSERT_NE(entry, nullptr);
        ASSERT_TRUE(entry->due && *entry->due <= now) << "task " << id << " was launched and is not due";
      }
    }
  }

  std::mt19937 random;
  TaskTable table;
  TaskTable::Time now = At(0);
  std::map<unsigned, Expected> tasks;
  std::map<unsigned, TaskTable::Time> running;  // with when they began; tasks that are gone included
  int launches = 0;
  int begins = 0;
};

TEST(TaskTableRandomTest, AfterTheLastLaunchARunBeginsAndNoTaskRunsTwiceAtATime) {
  for (const unsigned seed : {1u, 20260301u}) {
    SCOPED_TRACE(seed);
    RandomRun run(seed);
    constexpr int steps = VELTA_CODE_IS_SLOW ? 20000 : 100000;
    for (int step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      run.Step();
      if (step % 1000 == 999) {
        run.Settle();
      }
    }
    EXPECT_GT(run.Launches(), steps / 10) << "the run has become too dull to prove anything";
    EXPECT_GT(run.Begins(), steps / 10) << "the run has become too dull to prove anything";
  }
}

}  // namespace
