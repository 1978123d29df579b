#include "host/task_scheduler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/contract/host_under_test.h"
#include "tests/contract/waiting.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds never(3600 * 1000);

utils::thread::TASK_CONDITION Timing(milliseconds startDelay, milliseconds interval) {
  utils::thread::TASK_CONDITION condition = utils::thread::TASK_CONDITION();
  condition.startDelayMs = startDelay.count();
  condition.intervalMs = interval.count();
  condition.enabled = true;
  return condition;
}

// One registered task; ended, as the module ends its own, when the test lets go.
class Task {
 public:
  explicit Task(std::function<void(Task&)> taskBody,
                utils::thread::TASK_CONDITION condition = Timing(never, never),
                utils::thread::TASKTYPE type = utils::thread::TASKTYPE_PERIODIC)
      : body(std::move(taskBody)) {
    id = UtilsRegisterTask(type, condition, Run, this, "contract_task");
  }
  ~Task() {
    UtilsPauseAndWaitForEnd(id);
    UtilsUnregisterTask(id);
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  unsigned Id() const { return id; }

  Tally begun;
  Tally ended;

 private:
  static void* Run(void* arg) {
    Task& task = *static_cast<Task*>(arg);
    task.begun.Add();
    task.body(task);
    task.ended.Add();
    return nullptr;
  }

  std::function<void(Task&)> body;
  std::atomic<unsigned> id{0};
};

void DoNothing(Task&) {}

// Lets the host's own timer tell that time has passed: a task every 20 ms has run five times from now on.
// What a host was tempted to do meanwhile, it has done by then.
void LetTheHostWork() {
  Task clock(DoNothing, Timing(milliseconds(20), milliseconds(20)));
  ASSERT_TRUE(clock.ended.Reaches(5));
}

class TaskSchedulerContract : public testing::Test {
 private:
  HostUnderTest host;
};

// What a host does well to keep to, and what the module can live without: see host_under_test.h.
class AdvisedTaskScheduler : public TaskSchedulerContract {};

TEST_F(TaskSchedulerContract, EveryTaskGetsAnIdentifierOfItsOwnThatIsNotZero) {
  const Task first(DoNothing);
  const Task second(DoNothing);
  EXPECT_NE(first.Id(), 0u);
  EXPECT_NE(second.Id(), 0u);
  EXPECT_NE(first.Id(), second.Id());
}

TEST_F(TaskSchedulerContract, ALaunchRunsTheTaskWithItsArgumentOnAThreadOfTheScheduler) {
  std::thread::id thread;
  Task task([&](Task&) { thread = std::this_thread::get_id(); });
  UtilsMakeTaskLaunch(task.Id());
  ASSERT_TRUE(task.ended.Reaches(1));
  UtilsPauseAndWaitForEnd(task.Id());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(TaskSchedulerContract, TheNameMayGoRightAfterTheRegistration) {
  Tally runs;
  unsigned id = 0;
  {
    const std::string name(1000, 'n');
    id = UtilsRegisterTask(
        utils::thread::TASKTYPE_PERIODIC, Timing(never, never),
        [](void* arg) -> void* {
          static_cast<Tally*>(arg)->Add();
          return nullptr;
        },
        &runs, name);
  }
  ASSERT_NE(id, 0u);
  UtilsMakeTaskLaunch(id);
  EXPECT_TRUE(runs.Reaches(1));
  UtilsPauseAndWaitForEnd(id);
  UtilsUnregisterTask(id);
}

TEST_F(TaskSchedulerContract, ALaunchAfterARunRunsTheTaskAgain) {
  Task task(DoNothing);
  for (int run = 1; run <= 20; ++run) {
    UtilsMakeTaskLaunch(task.Id());
    ASSERT_TRUE(task.ended.Reaches(run));
  }
}

TEST_F(TaskSchedulerContract, LaunchesDuringARunGiveOneMoreRunAfterIt) {
  // Given a run that is held
  Tally release;
  Task task([&](Task&) { release.Reaches(1); });
  UtilsMakeTaskLaunch(task.Id());
  ASSERT_TRUE(task.begun.Reaches(1));

  // When launches arrive during that run
  for (int launch = 0; launch < 10; ++launch) {
    UtilsMakeTaskLaunch(task.Id());
  }
  release.Add();

  // Then one run begins after it: none would miss a change, ten would be a backlog
  ASSERT_TRUE(task.ended.Reaches(2));
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), 2);
}

TEST_F(TaskSchedulerContract, ABurstOfLaunchesEndsWithARunThatSeesTheLastChange) {
  std::atomic<int> written{0};
  std::atomic<int> read{0};
  Tally sawAll;
  constexpr int threadCount = 4;
  constexpr int launchCount = 2000;
  Task task([&](Task&) {
    read = written.load();
    if (read == threadCount * launchCount) {
      sawAll.Add();
    }
  });
  std::vector<std::thread> threads;
  for (int index = 0; index < threadCount; ++index) {
    threads.emplace_back([&] {
      for (int launch = 0; launch < launchCount; ++launch) {
        ++written;
        UtilsMakeTaskLaunch(task.Id());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(sawAll.Reaches(1)) << "the last run saw " << read << " changes";
}

TEST_F(TaskSchedulerContract, ATaskNeverRunsTwiceAtTheSameTime) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  Task task(
      [&](Task&) {
        const int now = ++inside;
        if (now > most) {
          most = now;
        }
        for (int turn = 0; turn < 100; ++turn) {
          std::this_thread::yield();
        }
        --inside;
      },
      Timing(milliseconds(1), milliseconds(1)));
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([&] {
      for (int run = 1; run <= 25; ++run) {
        UtilsMakeTaskLaunch(task.Id());
        EXPECT_TRUE(task.ended.Reaches(run));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(most, 1);
}

TEST_F(AdvisedTaskScheduler, TheTimerKeepsToTheFirstTimeAndThenToTheSecond) {
  std::mutex mutex;
  std::vector<steady_clock::time_point> begins;
  const auto registered = steady_clock::now();
  Task task(
      [&](Task&) {
        std::lock_guard<std::mutex> lock(mutex);
        begins.push_back(steady_clock::now());
      },
      Timing(milliseconds(50), milliseconds(150)));
  ASSERT_TRUE(task.ended.Reaches(3));
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_GE(begins[0] - registered, milliseconds(50));
  EXPECT_GE(begins[1] - registered, milliseconds(50 + 150));
  EXPECT_GE(begins[2] - registered, milliseconds(50 + 150 + 150));
}

TEST_F(AdvisedTaskScheduler, TheFirstRunWaitsForTheFirstTimeAlone) {
  Task soon(DoNothing, Timing(milliseconds(50), never));
  Task late(DoNothing, Timing(never, milliseconds(10)));
  EXPECT_TRUE(soon.ended.Reaches(1));
  LetTheHostWork();
  EXPECT_EQ(soon.begun.Count(), 1);
  EXPECT_EQ(late.begun.Count(), 0);
}

TEST_F(TaskSchedulerContract, ALaunchDoesNotWaitForTheTimer) {
  Task task(DoNothing, Timing(never, never));
  UtilsMakeTaskLaunch(task.Id());
  EXPECT_TRUE(task.ended.Reaches(1));
}

TEST_F(AdvisedTaskScheduler, TheTimerRunsATaskOfTheOtherKindOnce) {
  Task task(DoNothing, Timing(milliseconds(10), milliseconds(10)), utils::thread::TASKTYPE_ONCE);
  ASSERT_TRUE(task.ended.Reaches(1));
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), 1);
  UtilsMakeTaskLaunch(task.Id());
  EXPECT_TRUE(task.ended.Reaches(2));
}

TEST_F(AdvisedTaskScheduler, WithTheSwitchOffOnlyALaunchRunsTheTask) {
  utils::thread::TASK_CONDITION condition = Timing(milliseconds(10), milliseconds(10));
  condition.enabled = false;
  Task task(DoNothing, condition);
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), 0);
  UtilsMakeTaskLaunch(task.Id());
  EXPECT_TRUE(task.ended.Reaches(1));
}

TEST_F(TaskSchedulerContract, ATaskThatIsHeldDoesNotHoldTheLaunchOrTheRegistrationOfAnother) {
  Tally release;
  Task held([&](Task&) { release.Reaches(1); });
  UtilsMakeTaskLaunch(held.Id());
  ASSERT_TRUE(held.begun.Reaches(1));
  Task other(DoNothing);
  UtilsMakeTaskLaunch(other.Id());
  release.Add();
  EXPECT_TRUE(other.ended.Reaches(1));
}

TEST_F(TaskSchedulerContract, APauseReturnsOnlyWhenTheRunHasEnded) {
  // Given a run that goes on until the pause has returned, which a host that waits never lets happen
  Tally pauseReturned;
  std::atomic<bool> returnedEarly{false};
  Task task([&](Task&) { returnedEarly = pauseReturned.Reaches(1, temptation); });
  UtilsMakeTaskLaunch(task.Id());
  ASSERT_TRUE(task.begun.Reaches(1));

  // When the task is paused
  UtilsPauseAndWaitForEnd(task.Id());
  const int endedRuns = task.ended.Count();
  pauseReturned.Add();

  // Then the run had ended
  EXPECT_EQ(endedRuns, 1);
  EXPECT_TRUE(task.ended.Reaches(1));
  EXPECT_FALSE(returnedEarly);
}

TEST_F(TaskSchedulerContract, AfterAPauseNothingStartsTheTask) {
  Task task(DoNothing, Timing(milliseconds(5), milliseconds(5)));
  ASSERT_TRUE(task.ended.Reaches(2));
  UtilsMakeTaskLaunch(task.Id());
  UtilsPauseAndWaitForEnd(task.Id());
  const int runs = task.begun.Count();
  UtilsMakeTaskLaunch(task.Id());
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), runs);
}

TEST_F(TaskSchedulerContract, APauseDropsTheRunThatWasAskedForDuringTheLastOne) {
  Tally pausing;
  Task task([&](Task&) { pausing.Reaches(1); });
  UtilsMakeTaskLaunch(task.Id());
  ASSERT_TRUE(task.begun.Reaches(1));
  UtilsMakeTaskLaunch(task.Id());
  std::thread releaser([&] { pausing.Add(); });
  UtilsPauseAndWaitForEnd(task.Id());
  const int runs = task.begun.Count();  // 2 when the release was quicker than the pause
  EXPECT_EQ(task.ended.Count(), runs);
  releaser.join();
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), runs);
}

TEST_F(TaskSchedulerContract, NothingStartsAfterAPauseHoweverItRacesWithLaunchesAndTheTimer) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> paused{false};
    std::atomic<int> late{0};
    Task task([&](Task&) { late += paused ? 1 : 0; }, Timing(milliseconds(1), milliseconds(1)));
    Tally launches;
    std::atomic<bool> enough{false};
    std::thread launcher([&] {
      while (!enough) {
        UtilsMakeTaskLaunch(task.Id());
        launches.Add();
      }
    });
    ASSERT_TRUE(launches.Reaches(10));
    UtilsPauseAndWaitForEnd(task.Id());
    paused = true;
    ASSERT_TRUE(launches.Reaches(launches.Count() + 10));
    enough = true;
    launcher.join();
    UtilsUnregisterTask(task.Id());
    ASSERT_EQ(late, 0) << "round " << round;
  }
}

TEST_F(AdvisedTaskScheduler, ATaskMayPauseItself) {
  Task task([](Task& self) { UtilsPauseAndWaitForEnd(self.Id()); });
  UtilsMakeTaskLaunch(task.Id());
  EXPECT_TRUE(task.ended.Reaches(1));
}

TEST_F(TaskSchedulerContract, AnUnregisteredTaskNeverRunsAgain) {
  Task task(DoNothing, Timing(milliseconds(5), milliseconds(5)));
  ASSERT_TRUE(task.ended.Reaches(1));
  UtilsPauseAndWaitForEnd(task.Id());
  UtilsUnregisterTask(task.Id());
  const int runs = task.begun.Count();
  UtilsMakeTaskLaunch(task.Id());
  LetTheHostWork();
  EXPECT_EQ(task.begun.Count(), runs);
}

TEST_F(AdvisedTaskScheduler, IdentifiersThatNobodyHasAreHarmless) {
  unsigned endedId = 0;
  {
    const Task ended(DoNothing);
    endedId = ended.Id();
  }
  Task bystander(DoNothing);
  for (const unsigned id : {0u, endedId, bystander.Id() + 1000u, 0xFFFFFFFFu}) {
    UtilsMakeTaskLaunch(id);
    UtilsPauseAndWaitForEnd(id);
    UtilsUnregisterTask(id);
  }
  UtilsMakeTaskLaunch(bystander.Id());
  EXPECT_TRUE(bystander.ended.Reaches(1));
  LetTheHostWork();
  EXPECT_EQ(bystander.begun.Count(), 1);
}

TEST_F(TaskSchedulerContract, TasksComeAndGoOnManyThreads) {
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        Task task(DoNothing);
        EXPECT_NE(task.Id(), 0u);
        UtilsMakeTaskLaunch(task.Id());
        EXPECT_TRUE(task.ended.Reaches(1));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
