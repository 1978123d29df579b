#include "agent/cross_check.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "agent/event_sink.h"
#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/send_queue.h"
#include "agent/task_scheduler.h"
#include "tests/support/event_record.h"
#include "tests/support/event_time.h"
#include "tests/support/line_reader.h"
#include "tests/support/temporary_folder.h"

namespace {

// The timer's first reading, after ten seconds, must not count as an answer.
constexpr std::chrono::seconds soon(8);

class CrossCheckTest : public testing::Test {
 protected:
  CrossCheckTest() { folder.Write("passwd", "root:x:0:0::/root:/bin/sh\n"); }

  void Start() {
    check = std::make_unique<CrossCheck>(path, scheduler, monitor, queue, logger);
    check->Enable(true);
  }

  void Add(const std::string& lines) { ReplaceFile(path, folder.Read("passwd") + lines); }

  // The next event, without its time.
  std::string Next() {
    const std::string event = events.Next(soon);
    std::string asInstalled = event;
    for (std::size_t at = 0; (at = asInstalled.find(path)) != std::string::npos;) {
      asInstalled.replace(at, path.size(), "/etc/passwd");
    }
    RecordEvent(asInstalled);
    return WithoutTimes(event);
  }

  static std::string Event(const std::string& name, int line, const std::string& reason = "too few fields") {
    return R"({"eventType":"uncovered-root-account","eventTime":"TIME","eventContent":{"userName":")" + name +
           R"(","uid":0,"gid":0,"shell":"","home":"","line":)" + std::to_string(line) + R"(,"reason":")" +
           reason + R"("}})";
  }

  TemporaryFolder folder;
  const std::string path = folder.Path("passwd");
  LineReader events{folder.MakeFifo("events")};
  Logger logger{LogLevel::Off};
  EventSink sink{folder.Path("events")};
  SendQueue queue{sink, logger, 0};
  TaskScheduler scheduler{1, logger};
  // As the agent has them: the worker sleeps until the monitor wakes it. Nothing but a change wakes that.
  FileMonitor monitor{logger, std::chrono::milliseconds(0), &scheduler};
  std::unique_ptr<CrossCheck> check;
};

TEST_F(CrossCheckTest, AnAccountIsReportedWhenItComes) {
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
}

TEST_F(CrossCheckTest, AnAccountIsReportedOncePerTransition) {
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  ReplaceFile(path, "alice:x:1000:0::/:/bin/sh\ntoor:x:0:0:\nzoe:x:0:0\n");  // on another line, and not new
  EXPECT_EQ(Next(), Event("zoe", 3));
  ReplaceFile(path, "zoe:x:0:0\nbob:x:0:0\n");
  EXPECT_EQ(Next(), Event("bob", 2));
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 3)) << "it went, and is back";
}

TEST_F(CrossCheckTest, ANameOnTwoLinesIsOneAccount) {
  Start();
  Add("toor:x:0:0\ntoor:x:0:0:\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  Add("zoe:x:0:0\n");
  EXPECT_EQ(Next(), Event("zoe", 4));
}

TEST_F(CrossCheckTest, AFileThatIsGoneOrNoFileMakesNobodyNew) {
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  std::filesystem::rename(path, folder.Path("kept"));
  scheduler.LaunchAll();
  scheduler.WaitUntilIdle();
  std::filesystem::create_directory(path);
  scheduler.LaunchAll();
  scheduler.WaitUntilIdle();
  std::filesystem::remove(path);
  std::filesystem::rename(folder.Path("kept"), path);
  Add("zoe:x:0:0\n");
  EXPECT_EQ(Next(), Event("zoe", 3));
}

TEST_F(CrossCheckTest, AFileThatFailsToBeReadIsToldOfAndTriedAgain) {
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  std::filesystem::remove(path);
  std::filesystem::create_symlink("/proc/self/mem", path);  // nothing is mapped at its beginning
  EXPECT_EQ(Next(), R"({"eventType":"account-file-unreadable","eventTime":"TIME","eventContent":{"path":")" +
                        path + R"(","reason":")" + path + R"( cannot be read whole: Input/output error"}})");
  folder.Write("other", "root:x:0:0::/root:/bin/sh\ntoor:x:0:0\nnext:x:0:0\n");
  std::filesystem::rename(folder.Path("other"), path);
  EXPECT_EQ(Next(), Event("next", 3));
}

// The holder lets go whenever somebody waits, and is back before anybody could try again.
TEST_F(CrossCheckTest, AFileThatSomebodyHoldsALeaseOnIsWaitedFor) {
  signal(SIGIO, SIG_IGN);  // by which the system tells the holder
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  const std::string other = folder.Write("other", "root:x:0:0::/root:/bin/sh\nnext:x:0:0\n");
  const int descriptor = open(other.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(fcntl(descriptor, F_SETLEASE, F_WRLCK), 0) << std::strerror(errno);
  std::atomic<bool> done{false};
  std::thread holder([&] {
    while (!done) {
      if (fcntl(descriptor, F_GETLEASE) != F_WRLCK) {
        fcntl(descriptor, F_SETLEASE, F_UNLCK);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        fcntl(descriptor, F_SETLEASE, F_WRLCK);
      }
    }
  });
  std::filesystem::rename(other, path);
  EXPECT_EQ(Next(), Event("next", 2));
  done = true;
  holder.join();
  close(descriptor);
}

TEST_F(CrossCheckTest, WhileItIsOffNothingIsReportedAndNothingIsForgotten) {
  Start();
  Add("toor:x:0:0\n");
  EXPECT_EQ(Next(), Event("toor", 2));
  check->Enable(false);
  Add("zoe:x:0:0\n");
  scheduler.LaunchAll();
  scheduler.WaitUntilIdle();
  EXPECT_EQ(queue.Accepted(), 1u);
  check->Enable(true);
  scheduler.LaunchAll();
  EXPECT_EQ(Next(), Event("zoe", 3));
}

TEST_F(CrossCheckTest, ChangesOnEachOthersHeelsAreCheckedTogether) {
  constexpr int changes = 40;
  std::atomic<int> checks{0};
  check = std::make_unique<CrossCheck>(path, scheduler, monitor, queue, logger,
                                       [&checks](std::size_t) { ++checks; });
  check->Enable(true);
  const auto start = std::chrono::steady_clock::now();
  for (int change = 1; change <= changes; ++change) {
    Add("toor" + std::to_string(change) + ":x:0:0\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
  }
  for (int change = 1; change <= changes; ++change) {
    EXPECT_EQ(Next(), Event("toor" + std::to_string(change), change + 1));
  }
  const auto tenths = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(100);
  check.reset();  // it counts no more
  EXPECT_LE(checks, tenths + 12);
}

TEST_F(CrossCheckTest, ItLeavesNeitherATaskNorAWatch) {
  Start();
  EXPECT_EQ(scheduler.LaunchAll(), 1u);
  check.reset();
  EXPECT_EQ(scheduler.LaunchAll(), 0u);
  // A watch that stayed would be reported before this one is: the oldest come last.
  FileWatchRule rule = FileWatchRule();
  rule.path = path;
  std::promise<void> reported;
  std::atomic<bool> once{false};
  rule.callback =
      std::make_shared<FileWatchCallback>([&](int, const char*, const char*, bool, int, const std::string&) {
        if (!once.exchange(true)) {
          reported.set_value();
        }
      });
  rule.monitorId = monitor.Add(rule);
  Add("toor:x:0:0\n");
  EXPECT_EQ(reported.get_future().wait_for(soon), std::future_status::ready);
  monitor.Remove(rule);
  EXPECT_EQ(queue.Accepted(), 0u);
}

}  // namespace
