#include "agent/file_monitor.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/logger.h"
#include "agent/task_scheduler.h"
#include "host/file_monitor.h"
#include "tests/agent/descriptor_limit.h"
#include "tests/agent/written_log.h"
#include "tests/contract/waiting.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/latch.h"
#include "tests/support/temporary_folder.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr milliseconds noChecks(0);  // what events do not tell stays unseen

const char* const noFile = "(no file)";

std::string ReadFile(const std::string& path) {
  if (!fs::is_regular_file(path)) {
    return noFile;
  }
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// What the callbacks of one rule saw. The file is read in the callback, as the account file is read after
// one: what counts is that after the last change there is a callback that finds it.
class Reports {
 public:
  explicit Reports(std::string watchedFile) : file(std::move(watchedFile)) {}

  FileWatchCallback Callback() {
    return [this](int, const char* path, const char*, bool, int, const std::string&) { Note(path); };
  }

  void Note(const char* path) {
    const std::string content = ReadFile(file);
    {
      std::lock_guard<std::mutex> lock(mutex);
      paths.push_back(path == nullptr ? "(null)" : path);
      last = content;
    }
    changed.notify_all();
  }

  // Whether the last callback found this, in the end.
  bool Saw(const std::string& content) const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] { return !paths.empty() && last == content; });
  }

  bool Came() const {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, patience, [&] { return !paths.empty(); });
  }

  std::vector<std::string> Paths() const {
    std::lock_guard<std::mutex> lock(mutex);
    return paths;
  }

 private:
  const std::string file;
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<std::string> paths;  // these two: guarded by mutex
  std::string last;
};

FileWatchRule Rule(const std::string& path, FileWatchCallback callback) {
  FileWatchRule rule = FileWatchRule();
  rule.path = path;
  rule.callback = std::make_shared<FileWatchCallback>(std::move(callback));
  return rule;
}

FileWatchCallback Do(std::function<void()> action) {
  return [action = std::move(action)](int, const char*, const char*, bool, int, const std::string&) {
    action();
  };
}

// An open descriptor that writes to the end of a file.
class Writer {
 public:
  explicit Writer(const std::string& path) : descriptor(open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)) {
    if (descriptor < 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
  }
  ~Writer() { close(descriptor); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Append(const std::string& content) const {
    if (write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      throw std::system_error(errno, std::generic_category(), "write");
    }
  }

 private:
  const int descriptor;
};

class FileMonitorTest : public testing::Test {
 protected:
  FileMonitorTest() { WriteFile(file, "at first"); }

  void Start(milliseconds identityInterval = noChecks) {
    monitor = std::make_unique<FileMonitor>(logger, identityInterval);
  }

  // Descriptors for the monitor's own needs, but none for inotify.
  void StartWithoutInotify(milliseconds identityInterval) {
    const DescriptorLimit limit(2);
    Start(identityInterval);
  }

  FileWatchRule Watch(const std::string& path, FileWatchCallback callback) {
    FileWatchRule rule = Rule(path, std::move(callback));
    rule.monitorId = monitor->Add(rule);
    EXPECT_NE(rule.monitorId, 0u);
    return rule;
  }

  // A change of another file has been reported: what was to be reported before it has been.
  void LetTheMonitorWork() {
    const std::string other = folder.Path("other");
    WriteFile(other, "");
    Reports reports(other);
    const FileWatchRule rule = Watch(other, reports.Callback());
    for (const std::string content : {"once", "twice", "thrice"}) {
      ReplaceFile(other, content);
      EXPECT_TRUE(reports.Saw(content));
    }
    monitor->Remove(rule);
  }

  TemporaryFolder folder;
  const std::string file = folder.Path("watched");
  WrittenLog written;
  Logger logger{LogLevel::Debug, written.Descriptor()};
  std::unique_ptr<FileMonitor> monitor;
};

// A way in which the content behind a path changes.
struct Change {
  const char* name;
  std::string watched;                                  // below the test's folder
  std::function<void(const TemporaryFolder&)> prepare;  // before the watch; "watched" holds "at first"
  std::function<void(const TemporaryFolder&)> make;
  std::string content;  // what a reader of the watched path finds afterwards
};

void Nothing(const TemporaryFolder& /*folder*/) {}

void MakeFolder(const std::string& path, const std::string& content) {
  fs::create_directories(path);
  WriteFile(path + "/watched", content);
}

std::vector<Change> Changes() {
  return {
      {"WrittenInPlace", "watched", Nothing,
       [](const TemporaryFolder& folder) { WriteFile(folder.Path("watched"), "written"); }, "written"},
      {"AppendedTo", "watched", Nothing,
       [](const TemporaryFolder& folder) { Writer(folder.Path("watched")).Append(", more"); },
       "at first, more"},
      {"Truncated", "watched", Nothing,
       [](const TemporaryFolder& folder) { fs::resize_file(folder.Path("watched"), 2); }, "at"},
      {"Emptied", "watched", Nothing,
       [](const TemporaryFolder& folder) { fs::resize_file(folder.Path("watched"), 0); }, ""},
      {"Replaced", "watched", Nothing,
       [](const TemporaryFolder& folder) { ReplaceFile(folder.Path("watched"), "replaced"); }, "replaced"},
      {"ReplacedWhileTheOldOneKeepsAName", "watched", Nothing,
       [](const TemporaryFolder& folder) {
         fs::create_hard_link(folder.Path("watched"), folder.Path("watched-"));
         ReplaceFile(folder.Path("watched"), "edited");
       },
       "edited"},
      {"MovedAwayAndMadeAgain", "watched", Nothing,
       [](const TemporaryFolder& folder) {
         fs::rename(folder.Path("watched"), folder.Path("watched~"));
         WriteFile(folder.Path("watched"), "edited");
       },
       "edited"},
      {"Deleted", "watched", Nothing,
       [](const TemporaryFolder& folder) { fs::remove(folder.Path("watched")); }, noFile},
      {"DeletedAndMadeAgain", "watched", Nothing,
       [](const TemporaryFolder& folder) {
         fs::remove(folder.Path("watched"));
         WriteFile(folder.Path("watched"), "made again");
       },
       "made again"},
      {"ReplacedByAFolder", "watched", Nothing,
       [](const TemporaryFolder& folder) {
         fs::remove(folder.Path("watched"));
         fs::create_directory(folder.Path("watched"));
       },
       noFile},
      {"WrittenThroughAHardLinkElsewhere", "watched",
       [](const TemporaryFolder& folder) {
         fs::create_directory(folder.Path("elsewhere"));
         fs::create_hard_link(folder.Path("watched"), folder.Path("elsewhere/link"));
       },
       [](const TemporaryFolder& folder) { WriteFile(folder.Path("elsewhere/link"), "through the link"); },
       "through the link"},
      {"TargetOfALinkWritten", "link",
       [](const TemporaryFolder& folder) {
         MakeFolder(folder.Path("elsewhere"), "at first");
         fs::create_symlink("elsewhere/watched", folder.Path("link"));
       },
       [](const TemporaryFolder& folder) { WriteFile(folder.Path("elsewhere/watched"), "written"); },
       "written"},
      {"TargetOfALinkReplaced", "link",
       [](const TemporaryFolder& folder) {
         MakeFolder(folder.Path("elsewhere"), "at first");
         fs::create_symlink("elsewhere/watched", folder.Path("link"));
       },
       [](const TemporaryFolder& folder) { ReplaceFile(folder.Path("elsewhere/watched"), "replaced"); },
       "replaced"},
      {"ReplacedByALink", "watched",
       [](const TemporaryFolder& folder) { MakeFolder(folder.Path("elsewhere"), "behind the link"); },
       [](const TemporaryFolder& folder) {
         fs::create_symlink("elsewhere/watched", folder.Path("link"));
         fs::rename(folder.Path("link"), folder.Path("watched"));
       },
       "behind the link"},
      {"LinkOfAFolderTurned", "current/watched",
       [](const TemporaryFolder& folder) {
         MakeFolder(folder.Path("v1"), "one");
         MakeFolder(folder.Path("v2"), "two");
         fs::create_symlink("v1", folder.Path("current"));
       },
       [](const TemporaryFolder& folder) {
         fs::create_symlink("v2", folder.Path("next"));
         fs::rename(folder.Path("next"), folder.Path("current"));
       },
       "two"},
      {"FolderMovedAway", "a/b/watched",
       [](const TemporaryFolder& folder) { MakeFolder(folder.Path("a/b"), "at first"); },
       [](const TemporaryFolder& folder) { fs::rename(folder.Path("a"), folder.Path("old")); }, noFile},
      {"FolderMovedAwayAndMadeAgain", "a/b/watched",
       [](const TemporaryFolder& folder) { MakeFolder(folder.Path("a/b"), "at first"); },
       [](const TemporaryFolder& folder) {
         fs::rename(folder.Path("a"), folder.Path("old"));
         MakeFolder(folder.Path("a/b"), "made again");
       },
       "made again"},
      {"FolderRemovedAndMadeAgain", "a/b/watched",
       [](const TemporaryFolder& folder) { MakeFolder(folder.Path("a/b"), "at first"); },
       [](const TemporaryFolder& folder) {
         fs::remove_all(folder.Path("a"));
         MakeFolder(folder.Path("a/b"), "made again");
       },
       "made again"},
      {"FolderReplacedByAnother", "a/b/watched",
       [](const TemporaryFolder& folder) {
         MakeFolder(folder.Path("a/b"), "at first");
         MakeFolder(folder.Path("another/b"), "in another");
       },
       [](const TemporaryFolder& folder) {
         fs::rename(folder.Path("a"), folder.Path("old"));
         fs::rename(folder.Path("another"), folder.Path("a"));
       },
       "in another"},
      {"MissingAtFirst", "missing", Nothing,
       [](const TemporaryFolder& folder) { WriteFile(folder.Path("missing"), "made"); }, "made"},
      {"MissingWithItsFolders", "a/b/c/watched", Nothing,
       [](const TemporaryFolder& folder) { MakeFolder(folder.Path("a/b/c"), "made"); }, "made"},
      {"MissingBehindALinkThatLeadsNowhere", "watched",
       [](const TemporaryFolder& folder) {
         fs::remove(folder.Path("watched"));
         fs::create_symlink("nowhere", folder.Path("watched"));
       },
       [](const TemporaryFolder& folder) { ReplaceFile(folder.Path("watched"), "made"); }, "made"},
  };
}

void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }

std::string NameOfChange(const testing::TestParamInfo<Change>& info) { return info.param.name; }

class FileMonitorChangeTest : public FileMonitorTest, public testing::WithParamInterface<Change> {
 protected:
  // The change, and then one more of each kind that matters: a monitor that is left on the wrong inode after
  // the first one misses them.
  void ExpectThatEveryChangeIsReported() {
    const std::string path = folder.Path(GetParam().watched);
    Reports reports(path);
    const FileWatchRule rule = Watch(path, reports.Callback());
    GetParam().make(folder);
    ASSERT_TRUE(reports.Saw(GetParam().content));

    if (fs::is_regular_file(path)) {
      fs::create_directory(folder.Path("far away"));
      fs::create_hard_link(fs::canonical(path), folder.Path("far away/link"));
      WriteFile(folder.Path("far away/link"), "written through a link, after that");
      ASSERT_TRUE(reports.Saw("written through a link, after that"));
      ReplaceFile(path, "replaced after that");
      ASSERT_TRUE(reports.Saw("replaced after that"));
    } else {
      fs::remove_all(path);
      fs::create_directories(fs::path(path).parent_path());
      WriteFile(path, "made after that");
      ASSERT_TRUE(reports.Saw("made after that"));
    }
    EXPECT_THAT(reports.Paths(), Each(path));
    monitor->Remove(rule);
  }
};

TEST_P(FileMonitorChangeTest, IsReportedFromEventsAlone) {
  GetParam().prepare(folder);
  Start(noChecks);
  ExpectThatEveryChangeIsReported();
  EXPECT_THAT(written.Text(), IsEmpty()) << "it was polled";
}

TEST_P(FileMonitorChangeTest, IsReportedFromPollingAloneWhereInotifyIsRefused) {
  GetParam().prepare(folder);
  StartWithoutInotify(milliseconds(20));
  ExpectThatEveryChangeIsReported();
  EXPECT_THAT(written.Text(), HasSubstr("inotify refused a watch"));
}

INSTANTIATE_TEST_SUITE_P(Change, FileMonitorChangeTest, testing::ValuesIn(Changes()), NameOfChange);

TEST_F(FileMonitorTest, AWriteThroughADescriptorThatStaysOpenIsReported) {
  Start();
  Reports reports(file);
  Watch(file, reports.Callback());
  const Writer writer(file);
  writer.Append(", more");
  EXPECT_TRUE(reports.Saw("at first, more"));
  writer.Append(" and more");
  EXPECT_TRUE(reports.Saw("at first, more and more"));
  monitor.reset();
}

TEST_F(FileMonitorTest, AFileThatIsNeverQuietIsReportedAllTheSame) {
  Start();
  Reports reports(file);
  Watch(file, reports.Callback());
  const Writer writer(file);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (reports.Paths().empty() && std::chrono::steady_clock::now() < deadline) {
    writer.Append("x");
  }
  EXPECT_FALSE(reports.Paths().empty());
  monitor.reset();
}

TEST_F(FileMonitorTest, AChangeOfModeIsReported) {
  for (const bool withInotify : {true, false}) {
    withInotify ? Start() : StartWithoutInotify(milliseconds(20));
    Reports reports(file);
    Watch(file, reports.Callback());
    ASSERT_EQ(chmod(file.c_str(), withInotify ? 0600 : 0640), 0);
    EXPECT_TRUE(reports.Came()) << "with inotify: " << withInotify;
    monitor.reset();
  }
}

TEST_F(FileMonitorTest, AChangeOfWhatNoEventTellsIsFoundByTheIdentityCheck) {
  // Given a path that runs through a link whose target lies below a folder that nobody watches
  MakeFolder(folder.Path("unwatched/target"), "at first");
  MakeFolder(folder.Path("other/target"), "in the other");
  fs::create_symlink("unwatched/target", folder.Path("link"));
  const std::string path = folder.Path("link/watched");
  Start(milliseconds(20));
  Reports reports(path);
  Watch(path, reports.Callback());

  fs::rename(folder.Path("unwatched"), folder.Path("away"));
  ASSERT_TRUE(reports.Saw(noFile));
  fs::rename(folder.Path("other"), folder.Path("unwatched"));
  EXPECT_TRUE(reports.Saw("in the other"));
  monitor.reset();
}

TEST_F(FileMonitorTest, TheCallbackGetsThePathOfTheRuleByteForByte) {
  const std::string name = fs::path(folder.Path()).filename().string();
  for (const std::string& spelling :
       {folder.Path() + "//watched", folder.Path() + "/./watched", folder.Path() + "/../" + name + "/watched",
        "/" + folder.Path() + "///./watched"}) {
    for (const bool withInotify : {true, false}) {
      withInotify ? Start() : StartWithoutInotify(milliseconds(20));
      Reports reports(file);
      Watch(spelling, reports.Callback());
      ReplaceFile(file, spelling);
      EXPECT_TRUE(reports.Saw(spelling)) << "with inotify: " << withInotify;
      WriteFile(file, "written");
      EXPECT_TRUE(reports.Saw("written")) << spelling;
      monitor.reset();
      EXPECT_THAT(reports.Paths(), Each(spelling));
    }
  }
}

TEST_F(FileMonitorTest, ARelativePathIsWatchedAndReportedAsItIs) {
  const fs::path before = fs::current_path();
  fs::current_path(folder.Path());
  Start();
  MakeFolder("below", "at first");
  for (const std::string path : {"watched", "./watched", "below/watched"}) {
    Reports reports(path);
    const FileWatchRule rule = Watch(path, reports.Callback());
    ReplaceFile(path, "replaced");
    EXPECT_TRUE(reports.Saw("replaced")) << path;
    WriteFile(path, "written");
    EXPECT_TRUE(reports.Saw("written")) << path;
    monitor->Remove(rule);
    EXPECT_THAT(reports.Paths(), Each(path));
  }
  fs::current_path(before);
}

TEST_F(FileMonitorTest, OfTwoRulesInOneFolderEachHearsOfItsOwnFile) {
  const std::string otherFile = folder.Path("another");
  WriteFile(otherFile, "at first");
  Start();
  Reports reports(file);
  Reports ofOther(otherFile);
  const FileWatchRule rule = Watch(file, reports.Callback());  // added first, so it would be reported first
  const FileWatchRule otherRule = Watch(otherFile, ofOther.Callback());

  ReplaceFile(otherFile, "replaced");
  EXPECT_TRUE(ofOther.Saw("replaced"));
  EXPECT_THAT(reports.Paths(), IsEmpty());
  ReplaceFile(file, "replaced");
  EXPECT_TRUE(reports.Saw("replaced"));

  // The folder stays watched when one of them goes
  monitor->Remove(otherRule);
  ReplaceFile(file, "replaced again");
  EXPECT_TRUE(reports.Saw("replaced again"));
  monitor->Remove(rule);
}

TEST_F(FileMonitorTest, EveryRuleOfOneFileIsServed) {
  Start();
  Reports first(file);
  Reports second(file);
  const FileWatchRule goes = Watch(file, first.Callback());
  const FileWatchRule stays = Watch(file, second.Callback());
  EXPECT_NE(goes.monitorId, stays.monitorId);
  WriteFile(file, "for both");
  EXPECT_TRUE(first.Saw("for both"));
  EXPECT_TRUE(second.Saw("for both"));

  monitor->Remove(goes);
  const std::vector<std::string> before = first.Paths();
  fs::create_hard_link(file, folder.Path("link"));
  WriteFile(folder.Path("link"), "for one");
  EXPECT_TRUE(second.Saw("for one"));
  EXPECT_EQ(first.Paths(), before);
  monitor->Remove(stays);
}

TEST_F(FileMonitorTest, AFolderMayBeWatchedLikeAFile) {
  const std::string path = folder.Path("folder");
  fs::create_directory(path);
  Start();
  Reports reports(path);
  Watch(path, reports.Callback());
  ASSERT_EQ(chmod(path.c_str(), 0700), 0);
  EXPECT_TRUE(reports.Came());
  fs::remove(path);
  WriteFile(path, "a file now");
  EXPECT_TRUE(reports.Saw("a file now"));
  monitor.reset();
}

TEST_F(FileMonitorTest, ARuleWithoutAPathOrACallbackIsRefused) {
  Start();
  EXPECT_EQ(monitor->Add(FileWatchRule()), 0u);
  EXPECT_EQ(monitor->Add(Rule("", Do([] {}))), 0u);
  EXPECT_EQ(monitor->Add(Rule(file, nullptr)), 0u);
  FileWatchRule rule = FileWatchRule();
  rule.path = file;
  EXPECT_EQ(monitor->Add(rule), 0u);
}

TEST_F(FileMonitorTest, RemovingWhatIsNotWatchedIsHarmless) {
  Start();
  Reports reports(file);
  const FileWatchRule rule = Watch(file, reports.Callback());
  FileWatchRule withoutHandle = rule;
  withoutHandle.monitorId = 0;
  FileWatchRule unknown = rule;
  unknown.monitorId = rule.monitorId + 1000;
  monitor->Remove(FileWatchRule());
  monitor->Remove(withoutHandle);
  monitor->Remove(unknown);

  ReplaceFile(file, "replaced");
  EXPECT_TRUE(reports.Saw("replaced"));
  monitor->Remove(rule);
  monitor->Remove(rule);
}

TEST_F(FileMonitorTest, Fault12AfterARemovalTheCallbackIsReleasedAndNotCalled) {
  Start();
  Reports reports(file);
  FileWatchRule rule = Watch(file, reports.Callback());
  ReplaceFile(file, "before");
  ASSERT_TRUE(reports.Saw("before"));
  WriteFile(file, "just before");  // a report may be waiting now

  FileWatchRule handle = FileWatchRule();  // the handle is all that a removal goes by
  handle.monitorId = rule.monitorId;
  monitor->Remove(handle);
  EXPECT_EQ(rule.callback.use_count(), 1);
  const std::vector<std::string> before = reports.Paths();
  ReplaceFile(file, "after");
  LetTheMonitorWork();
  EXPECT_EQ(reports.Paths(), before);
}

TEST_F(FileMonitorTest, Fault12ARemovalWaitsForARunningCallback) {
  // Given a callback that goes on until the removal has returned, which one that waits never lets happen
  Start();
  Latch inside;
  Tally removed;
  std::atomic<bool> ended{false};
  const FileWatchRule rule = Watch(file, Do([&] {
                                     inside.Open();
                                     removed.Reaches(1, temptation);
                                     ended = true;
                                   }));
  ReplaceFile(file, "changed");
  ASSERT_TRUE(inside.Wait());

  monitor->Remove(rule);
  EXPECT_TRUE(ended);
  EXPECT_EQ(rule.callback.use_count(), 1);

  removed.Add();
  monitor.reset();
}

TEST_F(FileMonitorTest, Fault12ARemovalDoesNotWaitForTheCallbackOfAnotherRule) {
  const std::string otherFile = folder.Path("another");
  Start();
  Latch inside;
  Latch release;
  std::atomic<bool> released{false};
  Watch(file, Do([&] {
          inside.Open();
          released = release.Wait();
        }));
  const FileWatchRule other = Watch(otherFile, Do([] {}));
  ReplaceFile(file, "changed");
  ASSERT_TRUE(inside.Wait());
  monitor->Remove(other);
  EXPECT_FALSE(released);
  release.Open();
  monitor.reset();
}

TEST_F(FileMonitorTest, DestructionWaitsForARunningCallback) {
  Start();
  Latch inside;
  Tally destroyed;
  std::atomic<bool> ended{false};
  Watch(file, Do([&] {
          inside.Open();
          destroyed.Reaches(1, temptation);
          ended = true;
        }));
  ReplaceFile(file, "changed");
  ASSERT_TRUE(inside.Wait());
  monitor.reset();
  EXPECT_TRUE(ended);
  destroyed.Add();
}

TEST_F(FileMonitorTest, Fault12ACallbackMayRemoveItsOwnRule) {
  Start();
  Latch known;
  Tally removals;
  Tally released;
  FileWatchRule handle = FileWatchRule();
  {
    const std::shared_ptr<void> owned(nullptr, [&released](void*) { released.Add(); });
    const FileWatchRule rule = Watch(file, Do([&, owned] {
                                       known.Wait();
                                       monitor->Remove(handle);
                                       removals.Add();
                                     }));
    handle.monitorId = rule.monitorId;
  }
  known.Open();
  ReplaceFile(file, "changed");
  ASSERT_TRUE(removals.Reaches(1));
  EXPECT_TRUE(released.Reaches(1));
  ReplaceFile(file, "changed again");
  LetTheMonitorWork();
  EXPECT_EQ(removals.Count(), 1);
}

TEST_F(FileMonitorTest, Fault12ACallbackMayAddAndRemoveOtherRules) {
  const std::string otherFile = folder.Path("another");
  Start();
  Reports ofOther(otherFile);
  FileWatchRule other = Rule(otherFile, ofOther.Callback());
  Tally added;
  Tally removed;
  Watch(file, Do([&] {
          if (other.monitorId == 0) {
            other.monitorId = monitor->Add(other);
            added.Add();
          } else {
            monitor->Remove(other);
            removed.Add();
          }
        }));
  ReplaceFile(file, "changed");
  ASSERT_TRUE(added.Reaches(1));
  ReplaceFile(otherFile, "changed, too");
  EXPECT_TRUE(ofOther.Saw("changed, too"));
  ReplaceFile(file, "changed again");
  ASSERT_TRUE(removed.Reaches(1));
  EXPECT_EQ(other.callback.use_count(), 1);
  monitor.reset();
}

TEST_F(FileMonitorTest, AChangeDuringACallbackIsReportedAfterIt) {
  Start();
  Reports reports(file);
  Latch inside;
  Latch release;
  Watch(file, [&](int, const char* path, const char*, bool, int, const std::string&) {
    reports.Note(path);
    inside.Open();
    release.Wait();
  });
  ReplaceFile(file, "first");
  ASSERT_TRUE(inside.Wait());
  ReplaceFile(file, "second");
  release.Open();
  EXPECT_TRUE(reports.Saw("second"));
  monitor.reset();
}

class FileMonitorFailureTest : public FileMonitorTest,
                               public testing::WithParamInterface<std::function<void()>> {};

TEST_P(FileMonitorFailureTest, Fault12ACallbackThatThrowsIsLoggedAndTriedAgain) {
  Start();
  Reports reports(file);
  Tally calls;
  Watch(file, [&](int, const char* path, const char*, bool, int, const std::string&) {
    calls.Add();
    if (calls.Count() == 1) {
      GetParam()();
    }
    reports.Note(path);
  });
  ReplaceFile(file, "changed");
  EXPECT_TRUE(reports.Saw("changed"));
  EXPECT_THAT(written.Text(),
              HasSubstr("error file monitor: the callback for " + file + " failed and will be tried again"));
  monitor.reset();
}

INSTANTIATE_TEST_SUITE_P(Throws, FileMonitorFailureTest,
                         testing::Values([] { throw std::runtime_error("the reason"); }, [] { throw 42; }));

TEST_F(FileMonitorTest, Fault12ACallbackMayThrowAfterItRemovedItsOwnRule) {
  Start();
  Latch known;
  Tally calls;
  FileWatchRule handle = FileWatchRule();
  handle.monitorId = Watch(file, Do([&] {
                             known.Wait();
                             calls.Add();
                             monitor->Remove(handle);
                             throw std::runtime_error("the reason");
                           }))
                         .monitorId;
  known.Open();
  ReplaceFile(file, "changed");
  ASSERT_TRUE(calls.Reaches(1));
  LetTheMonitorWork();
  EXPECT_THAT(written.Text(), HasSubstr("failed and will be tried again: the reason\n"));
  EXPECT_EQ(calls.Count(), 1);
}

TEST_F(FileMonitorTest, Fault08AfterTheKernelDroppedEventsEveryFileIsReported) {
  std::size_t longestQueue = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> longestQueue;
  ASSERT_GT(longestQueue, 0u);
  ASSERT_LE(longestQueue, 1000000u) << "too many events to make here";
  Start();
  Latch inside;
  Latch release;
  Reports reports(file);
  Watch(file, [&](int, const char* path, const char*, bool, int, const std::string&) {
    reports.Note(path);
    inside.Open();
    release.Wait();
  });
  ReplaceFile(file, "before");
  ASSERT_TRUE(inside.Wait());

  // Two files in turn: the kernel merges an event with an equal one before it
  const std::string one = folder.Path("one");
  const std::string two = folder.Path("two");
  WriteFile(one, "");
  WriteFile(two, "");
  for (std::size_t i = 0; i < longestQueue / 2 + 100; ++i) {
    ASSERT_EQ(chmod(one.c_str(), 0600), 0);
    ASSERT_EQ(chmod(two.c_str(), 0600), 0);
  }
  WriteFile(file, "unheard of");
  release.Open();

  EXPECT_TRUE(reports.Saw("unheard of"));
  monitor.reset();
  EXPECT_THAT(written.Text(),
              HasSubstr("warning file monitor: the kernel dropped events (1 times so far); every "
                        "watched file is reported\n"));
}

// What was read of the events is lost then, and the kernel has them no longer.
TEST_F(FileMonitorTest, Fault24AChangeWhoseEventsMeetWithNoMemoryIsReportedAfterAWait) {
  Start();
  Latch inside;
  Latch release;
  Reports reports(file);
  std::optional<AllocationFailure> failure;  // made and ended on the monitor's thread, which it is about
  bool first = true;
  std::atomic<bool> happened{false};
  Watch(file, [&](int, const char* path, const char*, bool, int, const std::string&) {
    if (failure) {
      happened = failure->Happened();
      failure.reset();
    }
    reports.Note(path);
    if (std::exchange(first, false)) {
      inside.Open();
      release.Wait();
      failure.emplace(1);
    }
  });
  ReplaceFile(file, "first");
  ASSERT_TRUE(inside.Wait());
  ReplaceFile(file, "second");  // all of its events wait now
  release.Open();
  EXPECT_TRUE(reports.Saw("second"));
  monitor.reset();
  EXPECT_TRUE(happened);
}

// However a callback ends: a task that was launched and not run would wait for the next change.
TEST_F(FileMonitorTest, WhatACallbackLaunchesRunsOnTheMonitorsThreadBeforeTheNextCallback) {
  TaskScheduler scheduler(0, logger);  // a worker that has just started may be quicker
  monitor = std::make_unique<FileMonitor>(logger, noChecks, &scheduler);
  std::mutex mutex;
  std::vector<std::string> steps;
  std::thread::id callbackThread;
  std::thread::id taskThread;
  Tally callsOfOlder;
  const auto note = [&](const std::string& step, std::thread::id& thread) {
    const std::lock_guard<std::mutex> lock(mutex);
    steps.push_back(step);
    thread = std::this_thread::get_id();
  };
  struct Job {
    std::function<void()> work;
    static void* Run(void* job) {
      static_cast<Job*>(job)->work();
      return nullptr;
    }
  } job = {[&] { note("task", taskThread); }};
  const unsigned id = scheduler.Register(utils::thread::TASKTYPE_PERIODIC, utils::thread::TASK_CONDITION(),
                                         Job::Run, &job, "task");
  const FileWatchRule older = Watch(file, [&](int, const char*, const char*, bool, int, const std::string&) {
    note("older", callbackThread);
    callsOfOlder.Add();
    throw std::runtime_error("thrown by a callback");
  });
  const FileWatchRule newer = Watch(file, [&](int, const char*, const char*, bool, int, const std::string&) {
    note("newer", callbackThread);
    scheduler.Launch(id);
  });
  ReplaceFile(file, "changed");
  EXPECT_TRUE(callsOfOlder.Reaches(1));
  monitor->Remove(older);
  monitor->Remove(newer);
  monitor.reset();
  EXPECT_THAT(steps, testing::ElementsAre("newer", "task", "older"));
  EXPECT_EQ(taskThread, callbackThread);
}

TEST_F(FileMonitorTest, Fault09PollingIsSaidOnceHoweverManyRulesItServes) {
  StartWithoutInotify(milliseconds(20));
  const std::string otherFile = folder.Path("another");
  Reports reports(file);
  Reports ofOther(otherFile);
  Watch(file, reports.Callback());
  Watch(otherFile, ofOther.Callback());
  ReplaceFile(file, "replaced");
  ReplaceFile(otherFile, "made");
  EXPECT_TRUE(reports.Saw("replaced"));
  EXPECT_TRUE(ofOther.Saw("made"));
  monitor.reset();
  EXPECT_THAT(written.Text(), testing::EndsWith("warning file monitor: inotify refused a watch (" +
                                                std::string(std::strerror(EMFILE)) + "): " + file +
                                                " is polled every 20 ms until it is available again\n"));
  EXPECT_EQ(written.Text().find("inotify refused"), written.Text().rfind("inotify refused"));
}

TEST_F(FileMonitorTest, Fault09PollingIsSaidAgainForARuleThatComesAfterTheLastPolledOneWent) {
  StartWithoutInotify(milliseconds(20));
  const FileWatchRule first = Watch(file, Do([] {}));
  monitor->Remove(first);
  const std::string otherFile = folder.Path("another");
  Watch(otherFile, Do([] {}));
  monitor.reset();
  EXPECT_THAT(written.Text(), HasSubstr(file + " is polled every 20 ms"));
  EXPECT_THAT(written.Text(), HasSubstr(otherFile + " is polled every 20 ms"));
}

TEST_F(FileMonitorTest, Fault09AFileIsPolledAlsoWhereTheIdentityCheckIsOff) {
  StartWithoutInotify(noChecks);
  Reports reports(file);
  Watch(file, reports.Callback());
  ReplaceFile(file, "replaced");
  EXPECT_TRUE(reports.Saw("replaced"));
  monitor.reset();
}

TEST_F(FileMonitorTest, Fault09WithoutADescriptorForTheMountTableItSaysSoAndWorks) {
  Logger& itsLogger = logger;  // a sanitizer that looks at this fixture below needs descriptors for that
  std::unique_ptr<FileMonitor>& made = monitor;
  {
    const DescriptorLimit limit(1);
    made = std::make_unique<FileMonitor>(itsLogger, milliseconds(20));
  }
  Reports reports(file);
  Watch(file, reports.Callback());
  ReplaceFile(file, "replaced");
  EXPECT_TRUE(reports.Saw("replaced"));
  monitor.reset();
  EXPECT_THAT(written.Text(), HasSubstr("warning file monitor: /proc/self/mountinfo cannot be opened"));
}

TEST_F(FileMonitorTest, Fault07WithoutAnyDescriptorConstructionFailsAndSaysWhy) {
  const std::system_error expected(EMFILE, std::generic_category(), "file monitor: eventfd");
  Logger& itsLogger = logger;  // as above
  try {
    const DescriptorLimit limit(0);
    const FileMonitor refused(itsLogger, noChecks);
    ADD_FAILURE() << "construction did not fail";
  } catch (const std::system_error& error) {
    EXPECT_EQ(error.code(), expected.code());
    EXPECT_STREQ(error.what(), expected.what());
  }
}

// A bind mount, for as long as it lives.
class BindMount {
 public:
  BindMount(const std::string& source, std::string mountPoint) : target(std::move(mountPoint)) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      throw std::system_error(errno, std::generic_category(), "mount " + target);
    }
  }
  ~BindMount() { umount2(target.c_str(), MNT_DETACH); }
  BindMount(const BindMount&) = delete;
  BindMount& operator=(const BindMount&) = delete;

 private:
  const std::string target;
};

TEST_F(FileMonitorTest, AMountOverTheFileOrItsFolderIsReported) {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "this test needs the right to mount in a namespace of its own: "
                                     << std::strerror(errno);
  ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
  MakeFolder(folder.Path("a/b"), "below");
  MakeFolder(folder.Path("other"), "over it");
  const std::string path = folder.Path("a/b/watched");
  Start();
  Reports reports(path);
  Watch(path, reports.Callback());
  {
    const BindMount overFile(folder.Path("other/watched"), path);
    EXPECT_TRUE(reports.Saw("over it"));
    WriteFile(path, "written in place");  // the folder below hears nothing of it
    EXPECT_TRUE(reports.Saw("written in place"));
  }
  EXPECT_TRUE(reports.Saw("below"));
  {
    const BindMount overFolder(folder.Path("other"), folder.Path("a/b"));
    EXPECT_TRUE(reports.Saw("written in place"));
    ReplaceFile(path, "replaced above");
    EXPECT_TRUE(reports.Saw("replaced above"));
  }
  EXPECT_TRUE(reports.Saw("below"));
  monitor.reset();
}

TEST_F(FileMonitorTest, AfterABurstOfChangesTheLastOneIsSeen) {
  Start();
  Reports reports(file);
  Watch(file, reports.Callback());
  for (int change = 1; change <= 500; ++change) {
    const std::string content = "change " + std::to_string(change);
    change % 2 == 0 ? WriteFile(file, content) : ReplaceFile(file, content);
  }
  EXPECT_TRUE(reports.Saw("change 500"));
  monitor.reset();
}

TEST_F(FileMonitorTest, Fault12RulesComeAndGoFromManyThreadsWhileTheFileChanges) {
  Start();
  std::atomic<bool> enough{false};
  std::thread changer([&] {
    while (!enough) {
      ReplaceFile(file, "changed");
    }
  });
  std::vector<std::thread> owners;
  for (int i = 0; i < 3; ++i) {
    owners.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        // The tally goes at the end of the round: a callback after the removal would touch what is gone.
        const auto calls = std::make_unique<Tally>();
        const FileWatchRule rule = Watch(file, Do([&calls] { calls->Add(); }));
        EXPECT_TRUE(calls->Reaches(1));
        monitor->Remove(rule);
        EXPECT_EQ(rule.callback.use_count(), 1);
      }
    });
  }
  for (std::thread& owner : owners) {
    owner.join();
  }
  enough = true;
  changer.join();
}

}  // namespace
