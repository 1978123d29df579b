#include "host/file_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/contract/host_under_test.h"
#include "tests/contract/waiting.h"

namespace {

// A folder of the test's own, gone at the end.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "velta-contract-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make " + pattern);
    }
    path = pattern;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string File(const std::string& name) const { return path + "/" + name; }

 private:
  std::string path;
};

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << content;
  ASSERT_TRUE(file.flush()) << path;
}

// A new file in the place of the old one, as account tools do it.
void ReplaceFile(const std::string& path, const std::string& content) {
  const std::string fresh = path + ".new";
  WriteFile(fresh, content);
  ASSERT_EQ(std::rename(fresh.c_str(), path.c_str()), 0) << path;
}

// What the callbacks of one watch saw. The file is read in the callback, as the module's task reads it after
// one: what counts is that after the last change there is a callback that finds it.
class Sightings {
 public:
  explicit Sightings(std::string watchedFile) : file(std::move(watchedFile)) {}

  void Note(const char* path) {
    const std::string content = ReadFile(file);
    {
      std::lock_guard<std::mutex> lock(mutex);
      paths.push_back(path == nullptr ? "(null)" : path);
      last = content;
      thread = std::this_thread::get_id();
    }
    changed.notify_all();
  }

  bool Saw(const std::string& content) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] { return !paths.empty() && last == content; });
  }

  std::vector<std::string> Paths() const {
    std::lock_guard<std::mutex> lock(mutex);
    return paths;
  }
  std::thread::id Thread() const {
    std::lock_guard<std::mutex> lock(mutex);
    return thread;
  }

 private:
  const std::string file;
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<std::string> paths;  // these three: guarded by mutex
  std::string last;
  std::thread::id thread;
};

// The rule as the module fills it.
FileWatchRule Rule(const std::string& path, FileWatchCallback callback) {
  FileWatchRule rule = FileWatchRule();
  rule.path = path;
  rule.switch4 = true;
  rule.switch5 = true;
  rule.switch6 = true;
  rule.switch10 = true;
  rule.callback = std::make_shared<FileWatchCallback>(std::move(callback));
  return rule;
}

FileWatchCallback NoteIn(Sightings& sightings) {
  return [&sightings](int, const char* path, const char*, bool, int, const std::string&) {
    sightings.Note(path);
  };
}

FileWatchCallback Do(std::function<void()> action) {
  return [action = std::move(action)](int, const char*, const char*, bool, int, const std::string&) {
    action();
  };
}

// One added watch; withdrawn, as the module withdraws its own, when the test lets go.
class Watch {
 public:
  Watch(const std::string& path, FileWatchCallback callback) : rule(Rule(path, std::move(callback))) {
    rule.monitorId = AddMonitor(rule, MONITOR_ADD);
  }
  ~Watch() { Withdraw(); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void Withdraw() { RemoveMonitor(rule, MONITOR_WITHDRAW); }

  FileWatchRule rule;
};

class FileMonitorContract : public testing::Test {
 protected:
  FileMonitorContract() { WriteFile(file, "at first"); }

  // A change of another watched file has been reported: what the host was tempted to report about the first
  // one before that, it has reported by then.
  void LetTheHostWork() {
    for (int round = 0; round < 3; ++round) {
      const std::string other = folder.File("other" + std::to_string(round));
      WriteFile(other, "");
      Sightings sightings(other);
      const Watch watch(other, NoteIn(sightings));
      ReplaceFile(other, "changed");
      ASSERT_TRUE(sightings.Saw("changed"));
    }
  }

  Folder folder;
  const std::string file = folder.File("watched");

 private:
  HostUnderTest host;
};

// What a host does well to keep to, and what the module can live without: see host_under_test.h.
class AdvisedFileMonitor : public FileMonitorContract {};

TEST_F(FileMonitorContract, AnExistingFileGivesAHandleThatIsNotZero) {
  const Watch watch(file, Do([] {}));
  EXPECT_NE(watch.rule.monitorId, 0u);
}

TEST_F(FileMonitorContract, AWriteCallsBackOnAThreadOfTheMonitor) {
  Sightings sightings(file);
  const Watch watch(file, NoteIn(sightings));
  WriteFile(file, "written");
  ASSERT_TRUE(sightings.Saw("written"));
  EXPECT_NE(sightings.Thread(), std::this_thread::get_id());
}

TEST_F(FileMonitorContract, TheCallbackGetsThePathOfTheRuleByteForByte) {
  // The module compares the path exactly, so a host that tidies it up, or names the file that it found
  // behind it, silences the module.
  const std::string spelling =
      folder.File("./../") + std::filesystem::path(file).parent_path().filename().string() + "//watched";
  Sightings sightings(file);
  const Watch watch(spelling, NoteIn(sightings));
  WriteFile(file, "written");
  ASSERT_TRUE(sightings.Saw("written"));
  ReplaceFile(file, "replaced");
  ASSERT_TRUE(sightings.Saw("replaced"));
  EXPECT_THAT(sightings.Paths(), testing::Each(spelling));
}

TEST_F(FileMonitorContract, TheWatchFollowsTheNameThroughEveryKindOfChange) {
  Sightings sightings(file);
  const Watch watch(file, NoteIn(sightings));

  WriteFile(file, "written");
  EXPECT_TRUE(sightings.Saw("written"));
  ReplaceFile(file, "replaced");
  EXPECT_TRUE(sightings.Saw("replaced"));
  ReplaceFile(file, "replaced again");
  EXPECT_TRUE(sightings.Saw("replaced again"));
  WriteFile(file, "written after a replacement");
  EXPECT_TRUE(sightings.Saw("written after a replacement"));
  ASSERT_EQ(std::remove(file.c_str()), 0);
  WriteFile(file, "made anew");
  EXPECT_TRUE(sightings.Saw("made anew"));
  WriteFile(file, "written at last");
  EXPECT_TRUE(sightings.Saw("written at last"));
}

TEST_F(FileMonitorContract, AfterABurstOfChangesTheLastOneIsSeen) {
  Sightings sightings(file);
  const Watch watch(file, NoteIn(sightings));
  for (int change = 1; change <= 500; ++change) {
    const std::string content = "change " + std::to_string(change);
    change % 2 == 0 ? WriteFile(file, content) : ReplaceFile(file, content);
  }
  EXPECT_TRUE(sightings.Saw("change 500"));
}

TEST_F(FileMonitorContract, AChangeDuringACallbackIsReportedAfterIt) {
  Tally inside;
  Tally release;
  Sightings sightings(file);
  const Watch watch(file, [&](int, const char* path, const char*, bool, int, const std::string&) {
    sightings.Note(path);
    inside.Add();
    release.Reaches(1);
  });
  ReplaceFile(file, "first");
  ASSERT_TRUE(inside.Reaches(1));
  ReplaceFile(file, "second");
  release.Add();
  EXPECT_TRUE(sightings.Saw("second"));
}

TEST_F(FileMonitorContract, EveryRuleOfOneFileIsServedAndGoesAlone) {
  Sightings first(file);
  Sightings second(file);
  Watch goes(file, NoteIn(first));
  const Watch stays(file, NoteIn(second));
  EXPECT_NE(goes.rule.monitorId, stays.rule.monitorId);
  ReplaceFile(file, "for both");
  EXPECT_TRUE(first.Saw("for both"));
  EXPECT_TRUE(second.Saw("for both"));

  goes.Withdraw();
  const std::size_t reports = first.Paths().size();
  ReplaceFile(file, "for one");
  EXPECT_TRUE(second.Saw("for one"));
  EXPECT_EQ(first.Paths().size(), reports);
}

TEST_F(FileMonitorContract, AfterAWithdrawalNoCallbackComesAndTheHostHasLetGoOfIt) {
  Sightings sightings(file);
  Watch watch(file, NoteIn(sightings));
  ReplaceFile(file, "before");
  ASSERT_TRUE(sightings.Saw("before"));

  watch.Withdraw();
  const std::vector<std::string> reports = sightings.Paths();
  EXPECT_EQ(watch.rule.callback.use_count(), 1) << "the module may be unloaded now";

  ReplaceFile(file, "after");
  LetTheHostWork();
  EXPECT_EQ(sightings.Paths(), reports);
}

TEST_F(FileMonitorContract, TheHostHasLetGoAlsoWhileChangesPourIn) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> enough{false};
    std::thread changer([&] {
      while (!enough) {
        ReplaceFile(file, "pouring");
      }
    });
    Tally calls;
    std::atomic<bool> withdrawn{false};
    std::atomic<int> late{0};
    Watch watch(file, Do([&] {
                  late += withdrawn ? 1 : 0;
                  calls.Add();
                }));
    EXPECT_TRUE(calls.Reaches(1));
    watch.Withdraw();
    withdrawn = true;
    EXPECT_EQ(watch.rule.callback.use_count(), 1);
    ReplaceFile(folder.File("other"), "");
    enough = true;
    changer.join();
    ASSERT_EQ(late, 0) << "round " << round;
  }
}

TEST_F(FileMonitorContract, AWithdrawalWaitsForARunningCallback) {
  // Given a callback that goes on until the withdrawal has returned, which a host that waits never lets
  // happen
  Tally inside;
  Tally withdrawalReturned;
  std::atomic<bool> returnedEarly{false};
  std::atomic<bool> callbackEnded{false};
  Watch watch(file, Do([&] {
                inside.Add();
                if (withdrawalReturned.Reaches(1, temptation)) {
                  returnedEarly = true;
                }
                callbackEnded = true;
              }));
  ReplaceFile(file, "changed");
  ASSERT_TRUE(inside.Reaches(1));

  watch.Withdraw();
  const bool endedBefore = callbackEnded;
  withdrawalReturned.Add();
  EXPECT_TRUE(endedBefore);

  LetTheHostWork();  // lets a callback that was left behind come to its end
  EXPECT_FALSE(returnedEarly);
}

TEST_F(FileMonitorContract, ACallbackMayWithdrawItsOwnRule) {
  // Given a callback that owns something, so that its end can be seen
  Tally released;
  Tally withdrawals;
  FileWatchRule kept = FileWatchRule();  // without a callback of its own: a withdrawal goes by the handle
  Tally known;
  {
    const std::shared_ptr<void> owned(nullptr, [&released](void*) { released.Add(); });
    FileWatchRule rule = Rule(file, Do([&, owned] {
                                known.Reaches(1);
                                RemoveMonitor(kept, MONITOR_WITHDRAW);
                                withdrawals.Add();
                              }));
    rule.monitorId = AddMonitor(rule, MONITOR_ADD);
    kept.path = rule.path;
    kept.monitorId = rule.monitorId;
    known.Add();
  }

  // When it withdraws itself
  ReplaceFile(file, "changed");

  // Then the call returns, the host lets go of it, and it is never called again
  ASSERT_TRUE(withdrawals.Reaches(1));
  EXPECT_TRUE(released.Reaches(1));
  ReplaceFile(file, "after");
  LetTheHostWork();
  EXPECT_EQ(withdrawals.Count(), 1);
}

TEST_F(AdvisedFileMonitor, ACallbackMayAddAWatch) {
  Tally known;
  const std::string other = folder.File("another");
  WriteFile(other, "");
  Sightings sightings(other);
  std::unique_ptr<Watch> second;
  {
    const Watch first(file, Do([&] {
                        if (second == nullptr) {
                          second = std::make_unique<Watch>(other, NoteIn(sightings));
                        }
                        known.Add();
                      }));
    ReplaceFile(file, "changed");
    ASSERT_TRUE(known.Reaches(1));
  }
  ReplaceFile(other, "changed");
  EXPECT_TRUE(sightings.Saw("changed"));
}

TEST_F(FileMonitorContract, WithdrawingWhatIsNotWatchedIsHarmless) {
  Sightings sightings(file);
  Watch watch(file, NoteIn(sightings));

  RemoveMonitor(FileWatchRule(), MONITOR_WITHDRAW);  // a module that was never started
  FileWatchRule withoutHandle = watch.rule;
  withoutHandle.monitorId = 0;
  RemoveMonitor(withoutHandle, MONITOR_WITHDRAW);
  FileWatchRule unknown = watch.rule;
  unknown.monitorId = watch.rule.monitorId + 1000;
  RemoveMonitor(unknown, MONITOR_WITHDRAW);

  ReplaceFile(file, "changed");
  EXPECT_TRUE(sightings.Saw("changed"));
  watch.Withdraw();
  watch.Withdraw();
}

TEST_F(FileMonitorContract, AWatchWorksAgainAfterItWasWithdrawn) {
  for (int round = 0; round < 10; ++round) {
    Sightings sightings(file);
    const Watch watch(file, NoteIn(sightings));
    EXPECT_NE(watch.rule.monitorId, 0u);
    const std::string content = "round " + std::to_string(round);
    ReplaceFile(file, content);
    ASSERT_TRUE(sightings.Saw(content));
  }
}

}  // namespace
