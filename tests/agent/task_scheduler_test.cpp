#include "agent/task_scheduler.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/held_up.h"
#include "agent/logger.h"
#include "host/task_scheduler.h"
#include "tests/agent/written_log.h"
#include "tests/contract/waiting.h"
#include "tests/support/latch.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using utils::thread::TASK_CONDITION;
using utils::thread::TASKTYPE_PERIODIC;
using Permission = TaskScheduler::Permission;

// What a task does. Lives longer than the scheduler that runs it.
struct Job {
  std::function<void()> work;

  static void* Run(void* arg) {
    static_cast<Job*>(arg)->work();
    return nullptr;
  }
};

constexpr std::int64_t anHour = 3600 * 1000;

class TaskSchedulerTest : public testing::Test {
 protected:
  unsigned RegisterTimed(Job& job, std::int64_t first, std::int64_t second,
                         const std::string& name = "task") {
    TASK_CONDITION condition = TASK_CONDITION();
    condition.startDelayMs = first;
    condition.intervalMs = second;
    condition.enabled = true;
    return scheduler->Register(TASKTYPE_PERIODIC, condition, Job::Run, &job, name);
  }
  unsigned Register(Job& job, const std::string& name = "task") {
    return scheduler->Register(TASKTYPE_PERIODIC, TASK_CONDITION(), Job::Run, &job, name);
  }

  // Another task has run so often since: what the workers were tempted to do before that, they have done.
  void LetTheWorkersWork() {
    Tally runs;
    Job other = {[&] { runs.Add(); }};
    const unsigned id = Register(other);
    for (int run = 1; run <= 10; ++run) {
      scheduler->Launch(id);
      ASSERT_TRUE(runs.Reaches(run));
    }
    scheduler->PauseAndWait(id);
    scheduler->Unregister(id);
  }

  // The only worker sleeps, and nothing done before is about to wake it. Registering a task would.
  void LetTheOnlyWorkerSleep() {
    Latch inside;
    Latch mayEnd;
    Job busy = {[&] {
      inside.Open();
      mayEnd.Wait();
    }};
    const unsigned id = Register(busy);
    scheduler->Launch(id);
    ASSERT_TRUE(inside.Wait());
    mayEnd.Open();
    scheduler->PauseAndWait(id);
    scheduler->Unregister(id);
  }

  WrittenLog written;
  Logger logger{LogLevel::Debug, written.Descriptor()};
  std::unique_ptr<TaskScheduler> scheduler = std::make_unique<TaskScheduler>(4, logger);
};

TEST_F(TaskSchedulerTest, ALaunchRunsTheTaskOnAnotherThread) {
  Latch ran;
  std::thread::id thread;
  Job job = {[&] {
    thread = std::this_thread::get_id();
    ran.Open();
  }};
  scheduler->Launch(Register(job));
  ASSERT_TRUE(ran.Wait());
  EXPECT_NE(thread, std::this_thread::get_id());
  scheduler.reset();
}

TEST_F(TaskSchedulerTest, AVolunteerRunsWhatItLaunchesOnItsOwnThread) {
  scheduler = std::make_unique<TaskScheduler>(1, logger);
  std::vector<std::thread::id> threads;
  Job job = {[&] { threads.push_back(std::this_thread::get_id()); }};
  const unsigned id = Register(job);
  LetTheOnlyWorkerSleep();
  std::thread volunteer([&] {
    scheduler->Volunteer();
    for (int round = 0; round < 1000; ++round) {
      scheduler->Launch(id);
      scheduler->RunDue();
    }
  });
  const std::thread::id expected = volunteer.get_id();
  volunteer.join();
  EXPECT_EQ(threads, std::vector<std::thread::id>(1000, expected));
  scheduler.reset();  // before what its task uses
}

TEST_F(TaskSchedulerTest, WhatTheWorkersAreAtDoesNotHoldAVolunteerUp) {
  scheduler = std::make_unique<TaskScheduler>(1, logger);
  Latch inside;
  Latch mayEnd;
  std::thread::id thread;
  Job slow = {[&] {
    inside.Open();
    mayEnd.Wait();
  }};
  Job job = {[&] { thread = std::this_thread::get_id(); }};
  scheduler->Launch(Register(slow));
  ASSERT_TRUE(inside.Wait());
  const unsigned id = Register(job);
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->Launch(id);
    scheduler->RunDue();
  });
  const std::thread::id expected = volunteer.get_id();
  volunteer.join();
  EXPECT_EQ(thread, expected);
  mayEnd.Open();
  scheduler.reset();  // before what its tasks use
}

TEST_F(TaskSchedulerTest, WhatAVolunteerIsAtDoesNotHoldTheWorkersUp) {
  scheduler = std::make_unique<TaskScheduler>(1, logger);
  Latch inside;
  Latch mayEnd;
  Tally runs;
  Job slow = {[&] {
    inside.Open();
    mayEnd.Wait();
  }};
  Job job = {[&] { runs.Add(); }};
  const unsigned slowId = Register(slow);
  const unsigned id = Register(job);
  LetTheOnlyWorkerSleep();
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->Launch(slowId);
    scheduler->RunDue();
  });
  ASSERT_TRUE(inside.Wait());
  scheduler->Launch(id);
  EXPECT_TRUE(runs.Reaches(1));
  mayEnd.Open();
  volunteer.join();
  scheduler.reset();  // before what its tasks use
}

// As of a FIFO that nobody writes to.
TEST_F(TaskSchedulerTest, ARunThatIsHeldUpIsInterruptedAndTriedAgain) {
  const TemporaryFolder folder;
  const std::string fifo = folder.MakeFifo("fifo");
  scheduler = std::make_unique<TaskScheduler>(1, logger);
  std::vector<int> errors;
  Tally runs;
  Job job = {[&] {
    const int descriptor = errors.empty() ? open(fifo.c_str(), O_RDONLY | O_CLOEXEC) : -1;
    errors.push_back(descriptor < 0 ? errno : 0);
    runs.Add();
  }};
  scheduler->Launch(Register(job, "held up"));
  EXPECT_TRUE(runs.Reaches(2));
  scheduler.reset();
  EXPECT_EQ(errors.front(), EINTR);
  EXPECT_THAT(written.Text(), HasSubstr("task held up failed and will be tried again: it was held up"));
}

// A reading of a very large file takes longer than a thread may be held up.
TEST_F(TaskSchedulerTest, ARunThatWorksForLongIsNoFailure) {
  scheduler = std::make_unique<TaskScheduler>(1, logger);
  Tally runs;
  Job job = {[&] {
    const auto end = std::chrono::steady_clock::now() + HeldUp::patience + std::chrono::milliseconds(500);
    while (std::chrono::steady_clock::now() < end) {
    }
    runs.Add();
  }};
  scheduler->Launch(Register(job));
  EXPECT_TRUE(runs.Reaches(1));
  EXPECT_FALSE(runs.Reaches(2, temptation));
  EXPECT_TRUE(scheduler->WaitUntilIdle()) << "it did not fail";
  scheduler.reset();
}

TEST_F(TaskSchedulerTest, ARunOfAVolunteerThatFailsOrIsPutOffIsTriedAgainByTheWorkers) {
  for (const bool putOff : {false, true}) {
    SCOPED_TRACE(putOff);
    std::atomic<bool> first{false};
    Tally runs;
    Job job = {[&] {
      runs.Add();
      if (first.exchange(false)) {
        throw std::runtime_error("the first time");
      }
    }};
    const auto gate = [&] {
      const bool notYet = putOff && first.exchange(false);
      return Permission{notYet ? Permission::Answer::NotYet : Permission::Answer::Yes, ""};
    };
    scheduler = std::make_unique<TaskScheduler>(1, logger, gate);
    const unsigned id = Register(job);
    LetTheOnlyWorkerSleep();  // for as long as nothing is due
    first = true;
    std::thread volunteer([&] {
      scheduler->Volunteer();
      scheduler->Launch(id);
      scheduler->RunDue();
    });
    volunteer.join();
    EXPECT_TRUE(runs.Reaches(putOff ? 1 : 2));
    scheduler.reset();  // before what its task uses
  }
}

TEST_F(TaskSchedulerTest, AVolunteerLeavesWhatMayWaitToTheWorkersWhoWakeForIt) {
  for (const auto after : {std::chrono::milliseconds(0), temptation}) {
    SCOPED_TRACE(after.count());
    scheduler = std::make_unique<TaskScheduler>(1, logger);
    Tally runs;
    std::thread::id thread;
    Job job = {[&] {
      thread = std::this_thread::get_id();
      runs.Add();
    }};
    const unsigned id =
        scheduler->Register(TASKTYPE_PERIODIC, TASK_CONDITION(), Job::Run, &job, "may wait", true);
    LetTheOnlyWorkerSleep();
    std::thread volunteer([&] {
      scheduler->Volunteer();
      scheduler->Launch(id, after);
      scheduler->RunDue();
    });
    const std::thread::id volunteering = volunteer.get_id();
    volunteer.join();
    EXPECT_TRUE(runs.Reaches(1));
    EXPECT_NE(thread, volunteering);
    scheduler.reset();  // before what its task uses
  }
}

TEST_F(TaskSchedulerTest, ATaskThatLaunchesItselfDoesNotKeepAVolunteer) {
  Tally runs;
  unsigned id = 0;
  Job job = {[&] {
    runs.Add();
    scheduler->Launch(id);
  }};
  id = Register(job);
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->Launch(id);
    scheduler->RunDue();
  });
  volunteer.join();
  EXPECT_TRUE(runs.Reaches(100)) << "the workers go on with it";
  scheduler->PauseAndWait(id);
}

TEST_F(TaskSchedulerTest, DestructionWaitsForTheRunOfAVolunteer) {
  Latch inside;
  Tally destroyed;
  std::atomic<bool> ended{false};
  Job job = {[&] {
    inside.Open();
    destroyed.Reaches(1, temptation);
    ended = true;
  }};
  const unsigned id = Register(job);
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->Launch(id);
    scheduler->RunDue();
  });
  ASSERT_TRUE(inside.Wait());
  scheduler.reset();
  EXPECT_TRUE(ended);
  destroyed.Add();
  volunteer.join();
}

TEST_F(TaskSchedulerTest, TheCallForIdleThreadsComesOnceAfterTasksThatRanOneAfterTheOther) {
  std::string course;
  Tally idle;
  scheduler = std::make_unique<TaskScheduler>(1, logger, nullptr, [&] {
    course += "idle ";
    idle.Add();
  });
  Latch inside;
  Latch mayEnd;
  Job first = {[&] {
    inside.Open();
    mayEnd.Wait();
    course += "first ";
  }};
  Job second = {[&] { course += "second "; }};
  scheduler->Launch(Register(first));
  ASSERT_TRUE(inside.Wait());
  const unsigned id = Register(second);
  scheduler->Launch(id);
  mayEnd.Open();
  ASSERT_TRUE(idle.Reaches(1));
  scheduler->Launch(id);
  ASSERT_TRUE(idle.Reaches(2));
  scheduler.reset();
  EXPECT_EQ(course, "first second idle second idle ");
}

TEST_F(TaskSchedulerTest, TheCallForIdleThreadsComesOnTheVolunteerThatRanATask) {
  std::vector<std::thread::id> threads;
  scheduler = std::make_unique<TaskScheduler>(0, logger, nullptr,
                                              [&] { threads.push_back(std::this_thread::get_id()); });
  Job job = {[] {}};
  const unsigned id = Register(job);
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->RunDue();  // nothing to run, so nothing has ended
    scheduler->Launch(id);
    scheduler->RunDue();
  });
  const std::thread::id expected = volunteer.get_id();
  volunteer.join();
  EXPECT_EQ(threads, std::vector<std::thread::id>{expected});
}

TEST_F(TaskSchedulerTest, NobodyWaitsForTheCallForIdleThreadsButTheDestruction) {
  Latch inside;
  Latch mayEnd;
  Tally destroyed;
  std::atomic<bool> over{false};
  scheduler = std::make_unique<TaskScheduler>(1, logger, nullptr, [&] {
    inside.Open();
    mayEnd.Wait();
    over = true;
  });
  Job job = {[] {}};
  const unsigned id = Register(job);
  std::thread volunteer([&] {
    scheduler->Volunteer();
    scheduler->Launch(id);
    scheduler->RunDue();
  });
  ASSERT_TRUE(inside.Wait());
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  scheduler->PauseAndWait(id);
  scheduler->Unregister(id);
  std::thread destroyer([&] {
    std::unique_ptr<TaskScheduler>(std::move(scheduler)).reset();
    destroyed.Add();
  });
  EXPECT_FALSE(destroyed.Reaches(1, temptation));
  EXPECT_FALSE(over);
  mayEnd.Open();
  destroyer.join();
  volunteer.join();
  EXPECT_TRUE(over);
}

TEST_F(TaskSchedulerTest, ATaskRunsWithoutALaunchWhenItsTimerSaysSo) {
  Tally runs;
  Job job = {[&] { runs.Add(); }};
  RegisterTimed(job, 1, 1);
  EXPECT_TRUE(runs.Reaches(5));
  scheduler.reset();
}

TEST_F(TaskSchedulerTest, ATaskThatIsDueSoonIsNotKeptWaitingByOneThatIsDueLate) {
  Tally runs;
  Job late = {[] { ADD_FAILURE() << "an hour has not passed"; }};
  Job soon = {[&] { runs.Add(); }};
  RegisterTimed(late, anHour, anHour);
  LetTheWorkersWork();  // now every worker waits for that hour to pass
  RegisterTimed(soon, 1, anHour);
  EXPECT_TRUE(runs.Reaches(1));
  scheduler.reset();
}

// A clock of 32 bits cannot be asked for so long a wait: the worker would wake at once, again and again.
TEST_F(TaskSchedulerTest, ATaskThatIsDueInACenturyCostsNothing) {
  Job job = {[] {}};
  RegisterTimed(job, INT64_MAX, INT64_MAX);
  TaskScheduler timer(1, logger);
  Tally rings;
  Job ring = {[&] { rings.Add(); }};
  TASK_CONDITION soon = TASK_CONDITION();
  soon.startDelayMs = 1000;
  soon.enabled = true;
  const std::clock_t before = std::clock();
  const unsigned id = timer.Register(utils::thread::TASKTYPE_ONCE, soon, Job::Run, &ring, "timer");
  ASSERT_TRUE(rings.Reaches(1));
  timer.PauseAndWait(id);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2) << "of a second in which nothing is to be done";
}

TEST_F(TaskSchedulerTest, TasksRunSideBySide) {
  Latch first;
  Latch second;
  std::atomic<int> met{0};
  Job one = {[&] {
    first.Open();
    met += second.Wait() ? 1 : 0;
  }};
  Job two = {[&] {
    second.Open();
    met += first.Wait() ? 1 : 0;
  }};
  Register(one);
  Register(two);
  EXPECT_EQ(scheduler->LaunchAll(), 2u);
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_EQ(met, 2);
}

TEST_F(TaskSchedulerTest, Fault01AHundredThousandLaunchesDuringARunAreOneRunThatReadsTheLastChange) {
  Latch inside;
  Latch release;
  std::atomic<int> version{0};
  std::vector<int> read;
  Job job = {[&] {
    read.push_back(version);
    inside.Open();
    release.Wait();
  }};
  const unsigned id = Register(job);
  scheduler->Launch(id);
  ASSERT_TRUE(inside.Wait());

  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int change = 0; change < 12500; ++change) {
        ++version;
        scheduler->Launch(id);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  release.Open();

  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_THAT(read, testing::ElementsAre(0, 100000));
}

TEST_F(TaskSchedulerTest, Fault02WhileEightThreadsLaunchATaskNeverRunsTwiceAtATimeAndReadsTheLastChange) {
  std::atomic<int> version{0};
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::atomic<int> lastRead{0};
  std::atomic<int> runs{0};
  Job job = {[&] {
    if (++running > most) {
      most = 2;
    }
    ++runs;
    lastRead = version.load();
    --running;
  }};
  most = 1;
  const unsigned id = Register(job);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int change = 0; change < 12500; ++change) {
        ++version;
        scheduler->Launch(id);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_EQ(lastRead, 100000);
  EXPECT_EQ(most, 1);
  EXPECT_LE(runs, 100000);
}

TEST_F(TaskSchedulerTest, Fault04APauseWaitsForARunningTask) {
  // Given a task that goes on until the pause has returned, which a pause that waits never lets happen
  Latch inside;
  Tally pauseReturned;
  std::atomic<bool> ended{false};
  Job job = {[&] {
    inside.Open();
    pauseReturned.Reaches(1, temptation);
    ended = true;
  }};
  const unsigned id = Register(job);
  scheduler->Launch(id);
  ASSERT_TRUE(inside.Wait());

  scheduler->PauseAndWait(id);
  EXPECT_TRUE(ended);

  pauseReturned.Add();
  scheduler.reset();
}

TEST_F(TaskSchedulerTest, Fault04APauseFromInsideTheTaskReturnsAndTheTaskMayEvenForgetItself) {
  Latch ran;
  unsigned id = 0;
  Latch known;
  Job job = {[&] {
    known.Wait();
    scheduler->PauseAndWait(id);
    scheduler->Unregister(id);
    ran.Open();
  }};
  id = Register(job);
  scheduler->Launch(id);
  known.Open();
  EXPECT_TRUE(ran.Wait());
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_TRUE(id != 0 && scheduler->LaunchAll() == 0);
}

TEST_F(TaskSchedulerTest, ATaskMayPauseAnother) {
  Tally ended;
  Latch inside;
  Tally pauseReturned;
  Job paused = {[&] {
    inside.Open();
    pauseReturned.Reaches(1, temptation);
    ended.Add();
  }};
  const unsigned id = Register(paused);
  int endedBefore = -1;
  Job pausing = {[&] {
    inside.Wait();
    scheduler->PauseAndWait(id);
    endedBefore = ended.Count();
    pauseReturned.Add();
  }};
  Register(pausing);
  scheduler->LaunchAll();
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_EQ(endedBefore, 1);
}

TEST_F(TaskSchedulerTest, Fault04NothingStartsAfterAPauseWhateverTimerOrLaunchRaces) {
  for (int round = 0; round < 20; ++round) {
    Tally runs;
    std::atomic<bool> paused{false};
    std::atomic<int> late{0};
    std::atomic<bool> enough{false};
    Job job = {[&] {
      late += paused ? 1 : 0;
      runs.Add();
    }};
    const unsigned id = RegisterTimed(job, 0, 1);
    std::vector<std::thread> launchers;
    for (int i = 0; i < 2; ++i) {
      launchers.emplace_back([&] {
        while (!enough) {
          scheduler->Launch(id);
        }
      });
    }
    EXPECT_TRUE(runs.Reaches(3));
    scheduler->PauseAndWait(id);
    paused = true;
    LetTheWorkersWork();
    scheduler->Unregister(id);
    LetTheWorkersWork();
    enough = true;
    for (std::thread& launcher : launchers) {
      launcher.join();
    }
    ASSERT_EQ(late, 0) << "round " << round;
  }
}

TEST_F(TaskSchedulerTest, Fault03CallsForATaskThatDoesNotExistAreHarmless) {
  Tally runs;
  Job job = {[&] { runs.Add(); }};
  const unsigned gone = Register(job);
  scheduler->PauseAndWait(gone);
  scheduler->Unregister(gone);
  const unsigned id = Register(job);
  EXPECT_NE(id, gone);
  for (const unsigned nobody : {0u, gone, id + 1000}) {
    scheduler->Launch(nobody);
    scheduler->PauseAndWait(nobody);
    scheduler->Unregister(nobody);
  }
  LetTheWorkersWork();
  EXPECT_EQ(runs.Count(), 0);
  scheduler->Launch(id);
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_EQ(runs.Count(), 1);
}

TEST_F(TaskSchedulerTest, ATaskWithoutAFunctionIsRefused) {
  EXPECT_EQ(scheduler->Register(TASKTYPE_PERIODIC, TASK_CONDITION(), nullptr, nullptr, "nothing"), 0u);
}

TEST_F(TaskSchedulerTest, Fault05AnExceptionIsLoggedWithTheNameOfTheTaskWhichGoesOn) {
  Tally runs;
  Job job = {[&] {
    runs.Add();
    if (runs.Count() == 1) {
      throw std::runtime_error("the reason");
    }
    if (runs.Count() == 2) {
      throw 42;
    }
  }};
  const unsigned id = Register(job, "its name");
  scheduler->Launch(id);
  EXPECT_FALSE(scheduler->WaitUntilIdle());
  ASSERT_TRUE(scheduler->Failing());
  EXPECT_EQ(scheduler->Failing()->count, 1u);
  EXPECT_THAT(written.Text(), HasSubstr("error task its name failed and will be tried again: the reason\n"));
  EXPECT_THAT(written.Text(), Not(HasSubstr("unknown type")));

  scheduler->Launch(id);
  EXPECT_FALSE(scheduler->WaitUntilIdle());
  EXPECT_THAT(
      written.Text(),
      HasSubstr("error task its name failed and will be tried again: an exception of an unknown type\n"));

  scheduler->Launch(id);
  EXPECT_FALSE(scheduler->WaitUntilIdle()) << "a failure is told until the end";
  EXPECT_FALSE(scheduler->Failing());
  EXPECT_EQ(runs.Count(), 3);
}

TEST_F(TaskSchedulerTest, NoTaskBeginsWhileTheGateRefusesAndTheLogSaysSoOnce) {
  std::atomic<bool> blocked{true};
  Tally questions;
  Tally runs;
  Job job = {[&] { runs.Add(); }};
  const auto gate = [&] {
    questions.Add();
    return blocked ? Permission{Permission::Answer::No, "the road is closed"} : Permission();
  };
  scheduler = std::make_unique<TaskScheduler>(1, logger, gate);
  const unsigned id = Register(job);

  scheduler->Launch(id);
  ASSERT_TRUE(questions.Reaches(1));
  scheduler->Launch(id);
  ASSERT_TRUE(questions.Reaches(2));
  EXPECT_FALSE(scheduler->WaitUntilIdle()) << "a run that was kept from beginning is a failed one";
  EXPECT_EQ(runs.Count(), 0);

  blocked = false;  // nobody launches it: the retry of a failed task finds the way free
  ASSERT_TRUE(runs.Reaches(1));

  const std::string log = written.Text();
  const std::size_t told = log.find("tasks wait: the road is closed");
  EXPECT_NE(told, std::string::npos) << log;
  EXPECT_EQ(log.find("tasks wait", told + 1), std::string::npos) << log;
  EXPECT_THAT(log, HasSubstr("tasks run again"));
  scheduler.reset();  // before what its task uses
}

TEST_F(TaskSchedulerTest, ARunThatWillFindNothingIsNotToldAsAllBeingWell) {
  std::atomic<bool> refused{true};
  Tally questions;
  Tally runs;
  Job job = {[&] { runs.Add(); }};
  const auto gate = [&] {
    questions.Add();
    return refused ? Permission{Permission::Answer::No, "a folder"}
                   : Permission{Permission::Answer::Yes, "missing"};
  };
  scheduler = std::make_unique<TaskScheduler>(1, logger, gate);
  const unsigned id = Register(job);
  scheduler->Launch(id);
  ASSERT_TRUE(questions.Reaches(1));
  refused = false;
  scheduler->Launch(id);
  ASSERT_TRUE(runs.Reaches(1));
  EXPECT_THAT(written.Text(), testing::Not(HasSubstr("tasks run again")));
  scheduler.reset();  // before what its task uses
}

TEST_F(TaskSchedulerTest, ATaskThatTheGatePutsOffRunsSoonWithoutALaunchAndWithoutAWord) {
  Tally questions;
  Tally runs;
  Job job = {[&] { runs.Add(); }};
  const auto gate = [&] {
    questions.Add();
    return Permission{questions.Count() == 1 ? Permission::Answer::NotYet : Permission::Answer::Yes, ""};
  };
  scheduler = std::make_unique<TaskScheduler>(1, logger, gate);
  scheduler->Launch(Register(job));
  ASSERT_TRUE(runs.Reaches(1));
  EXPECT_EQ(questions.Count(), 2);
  EXPECT_TRUE(scheduler->WaitUntilIdle()) << "nothing has failed";
  EXPECT_EQ(written.Text(), "");
  scheduler.reset();  // before what its task uses
}

TEST_F(TaskSchedulerTest, Fault05AFailedTaskIsTriedAgainWithoutALaunch) {
  Tally runs;
  Job job = {[&] {
    runs.Add();
    if (runs.Count() == 1) {
      throw std::runtime_error("the first time");
    }
  }};
  scheduler->Launch(Register(job));
  EXPECT_TRUE(runs.Reaches(2));
  scheduler.reset();
}

TEST_F(TaskSchedulerTest, WaitingUntilIdleWaitsForWhatRunsAndForWhatWasLaunchedMeanwhile) {
  Latch inside;
  Latch release;
  int runs = 0;
  Job job = {[&] {
    ++runs;
    inside.Open();
    release.Wait();
  }};
  const unsigned id = Register(job);
  scheduler->Launch(id);
  ASSERT_TRUE(inside.Wait());
  scheduler->Launch(id);
  release.Open();
  EXPECT_TRUE(scheduler->WaitUntilIdle());
  EXPECT_EQ(runs, 2);
}

TEST_F(TaskSchedulerTest, WaitingUntilIdleDoesNotWaitForATimer) {
  Job late = {[] { ADD_FAILURE() << "an hour has not passed"; }};
  RegisterTimed(late, anHour, anHour);
  EXPECT_TRUE(scheduler->WaitUntilIdle());
}

TEST_F(TaskSchedulerTest, WaitingUntilIdleEndsWhenWhatWasDueIsPausedOrForgotten) {
  // Without workers nothing else can end the wait
  TaskScheduler stuck(0, logger);
  Job job = {[] {}};
  for (int round = 0; round < 200; ++round) {
    const unsigned id = stuck.Register(TASKTYPE_PERIODIC, TASK_CONDITION(), Job::Run, &job, "task");
    stuck.Launch(id);
    Latch waits;
    Latch idle;
    std::thread waiter([&] {
      waits.Open();
      stuck.WaitUntilIdle();
      idle.Open();
    });
    ASSERT_TRUE(waits.Wait());
    round % 2 == 0 ? stuck.PauseAndWait(id) : stuck.Unregister(id);
    if (!idle.Wait()) {
      ADD_FAILURE() << "round " << round;
      std::abort();  // the thread cannot be joined
    }
    waiter.join();
    stuck.Unregister(id);
  }
}

TEST_F(TaskSchedulerTest, DestructionWaitsForARunningTaskAndStartsNoOther) {
  Latch inside;
  Tally destroyed;
  std::atomic<bool> ended{false};
  std::atomic<int> runs{0};
  Job job = {[&] {
    ++runs;
    inside.Open();
    destroyed.Reaches(1, temptation);
    ended = true;
  }};
  const unsigned id = Register(job);
  scheduler->Launch(id);
  ASSERT_TRUE(inside.Wait());
  Job late = {[] { ADD_FAILURE() << "an hour has not passed"; }};
  RegisterTimed(late, anHour, anHour);

  scheduler.reset();
  EXPECT_TRUE(ended);
  EXPECT_EQ(runs, 1);
  destroyed.Add();
}

TEST_F(TaskSchedulerTest, TasksComeAndGoFromManyThreadsWhileOthersLaunchThem) {
  std::atomic<bool> enough{false};
  std::thread launcher([&] {
    while (!enough) {
      scheduler->LaunchAll();
    }
  });
  std::vector<std::thread> owners;
  for (int i = 0; i < 4; ++i) {
    owners.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        // The job goes at the end of the round: a run after the pause would touch what is gone.
        const auto runs = std::make_unique<Tally>();
        Job job = {[&runs] { runs->Add(); }};
        const unsigned id = Register(job);
        EXPECT_TRUE(runs->Reaches(1));
        scheduler->PauseAndWait(id);
        scheduler->Unregister(id);
      }
    });
  }
  for (std::thread& owner : owners) {
    owner.join();
  }
  enough = true;
  launcher.join();
}

}  // namespace
