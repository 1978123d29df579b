#include "agent/event_sink.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/file_size_limit.h"
#include "tests/agent/patience.h"
#include "tests/support/line_reader.h"
#include "tests/support/temporary_folder.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using Outcome = EventSink::Outcome;

// What a failed assertion prints.
std::string Text(Outcome outcome) {
  return outcome == Outcome::Delivered ? "delivered" : outcome == Outcome::Blocked ? "blocked" : "failed";
}

class EventSinkTest : public testing::Test {
 protected:
  EventSinkTest() { std::signal(SIGPIPE, SIG_IGN); }

  static std::string Write(EventSink& sink, const std::string& event, milliseconds patience = generous) {
    return Text(sink.Write(event, patience));
  }

  TemporaryFolder folder;
  const std::string path = folder.Path("events");
};

class CreationMask {
 public:
  explicit CreationMask(mode_t mask) : before(umask(mask)) {}
  ~CreationMask() { umask(before); }
  CreationMask(const CreationMask&) = delete;
  CreationMask& operator=(const CreationMask&) = delete;

 private:
  mode_t before;
};

// Standard output goes elsewhere while it lives.
class StandardOutput {
 public:
  explicit StandardOutput(int target) : before(dup(STDOUT_FILENO)) {
    std::fflush(stdout);
    dup2(target, STDOUT_FILENO);
  }
  ~StandardOutput() {
    dup2(before, STDOUT_FILENO);
    close(before);
  }
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;

 private:
  int before;
};

TEST_F(EventSinkTest, EachEventIsOneLineBehindWhatTheFileHeld) {
  folder.Write("events", "{\"older\":1}\n");
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "{\"one\":1}"), "delivered");
  EXPECT_EQ(Write(sink, "{\"two\":2}"), "delivered");
  EXPECT_EQ(folder.Read("events"), "{\"older\":1}\n{\"one\":1}\n{\"two\":2}\n");
  EXPECT_EQ(sink.Name(), path);
}

TEST_F(EventSinkTest, AnEventOfAMegabyteIsOneLineToo) {
  const std::string event(1024 * 1024, 'x');
  EventSink sink(path);
  EXPECT_EQ(Write(sink, event), "delivered");
  EXPECT_EQ(Write(sink, "next"), "delivered");
  EXPECT_EQ(folder.Read("events"), event + "\nnext\n");
}

TEST_F(EventSinkTest, ANewFileIsClosedToOthers) {
  struct Row {
    mode_t mask;
    mode_t mode;
  };
  const std::vector<Row> rows = {{0022, 0640}, {0000, 0640}, {0077, 0600}};
  for (const Row& row : rows) {
    const CreationMask mask(row.mask);
    std::filesystem::remove(path);
    EventSink sink(path);
    struct stat status = {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, row.mode) << "umask " << row.mask;
  }
}

TEST_F(EventSinkTest, AnExistingFileKeepsItsMode) {
  folder.Write("events", "");
  ASSERT_EQ(chmod(path.c_str(), 0604), 0);
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0604U);
}

TEST_F(EventSinkTest, HalfALineAtTheEndOfTheFileIsFinishedFirst) {
  struct Row {
    std::string before;
    std::string after;
  };
  const std::vector<Row> rows = {{"", "one\ntwo\n"},
                                 {"\n", "\none\ntwo\n"},
                                 {"whole\n", "whole\none\ntwo\n"},
                                 {"{\"ha", "{\"ha\none\ntwo\n"},
                                 {"whole\nha", "whole\nha\none\ntwo\n"}};
  for (const Row& row : rows) {
    folder.Write("events", row.before);
    EventSink sink(path);
    EXPECT_EQ(folder.Read("events"), row.before);  // nothing is written before there is an event
    EXPECT_EQ(Write(sink, "one"), "delivered");
    EXPECT_EQ(Write(sink, "two"), "delivered");
    EXPECT_EQ(folder.Read("events"), row.after);
  }
}

TEST_F(EventSinkTest, Fault18AFileThatWasRotatedIsLeftAlone) {
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  std::filesystem::rename(path, folder.Path("events.1"));
  EXPECT_EQ(Write(sink, "two"), "delivered");
  std::filesystem::rename(folder.Path("events.1"), folder.Path("events.2"));
  std::filesystem::rename(path, folder.Path("events.1"));
  folder.Write("events", "made by the rotation\n");
  EXPECT_EQ(Write(sink, "three"), "delivered");

  EXPECT_EQ(folder.Read("events.2"), "one\n");
  EXPECT_EQ(folder.Read("events.1"), "two\n");
  EXPECT_EQ(folder.Read("events"), "made by the rotation\nthree\n");
}

TEST_F(EventSinkTest, Fault18AFileThatWasRemovedIsMadeAgain) {
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  std::filesystem::remove(path);
  EXPECT_EQ(Write(sink, "two"), "delivered");
  EXPECT_EQ(folder.Read("events"), "two\n");
}

TEST_F(EventSinkTest, Fault18AFileThatWasEmptiedGetsTheNextEventAtItsBeginning) {
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  folder.Write("events", "");
  EXPECT_EQ(Write(sink, "two"), "delivered");
  EXPECT_EQ(folder.Read("events"), "two\n");
}

TEST_F(EventSinkTest, AFolderThatIsGoneForAWhileIsAFailureForAWhile) {
  const std::string inner = folder.Path("inner");
  std::filesystem::create_directory(inner);
  EventSink sink(inner + "/events");
  std::filesystem::remove_all(inner);
  EXPECT_EQ(Write(sink, "one"), "failed");
  EXPECT_EQ(sink.Error(), inner + "/events cannot be opened: No such file or directory");
  EXPECT_EQ(Write(sink, "one"), "failed");
  std::filesystem::create_directory(inner);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  EXPECT_EQ(folder.Read("inner/events"), "one\n");
}

TEST_F(EventSinkTest, WhatCanNeverBeWrittenIsRefusedByName) {
  struct Row {
    std::string path;
    std::string reason;
  };
  const std::vector<Row> rows = {{folder.Path("missing/events"), "No such file or directory"},
                                 {folder.Path(), "Is a directory"},
                                 {folder.Write("file", "") + "/events", "Not a directory"}};
  for (const Row& row : rows) {
    try {
      EventSink sink(row.path);
      ADD_FAILURE() << row.path << " was accepted";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), row.path + " cannot be opened: " + row.reason);
    }
  }
}

TEST_F(EventSinkTest, Fault16AFullDeviceIsAFailure) {
  EventSink sink("/dev/full");
  EXPECT_EQ(Write(sink, "one"), "failed");
  EXPECT_EQ(sink.Error(), "/dev/full cannot be written: No space left on device");
  EXPECT_EQ(Write(sink, "one"), "failed");
}

TEST_F(EventSinkTest, Fault16ThePartOfARecordThatAFullDiskTookIsTakenBack) {
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  {
    const FileSizeLimit limit(10);
    EXPECT_EQ(Write(sink, "a record of many bytes"), "failed");
    EXPECT_EQ(folder.Read("events"), "one\n");
    EXPECT_EQ(sink.Error(), path + " cannot be written: No space left on device");
    EXPECT_EQ(Write(sink, "short"), "delivered");  // what there is room for still gets through
    EXPECT_EQ(Write(sink, "x"), "failed");         // and where there is none at all, nothing happens
    EXPECT_EQ(folder.Read("events"), "one\nshort\n");
  }
  EXPECT_EQ(Write(sink, "a record of many bytes"), "delivered");
  EXPECT_EQ(folder.Read("events"), "one\nshort\na record of many bytes\n");
}

TEST_F(EventSinkTest, Fault16AFullDiskDoesNotMakeTheSinkForgetHalfALine) {
  folder.Write("events", "ha");
  EventSink sink(path);
  {
    const FileSizeLimit limit(6);
    EXPECT_EQ(Write(sink, "a record of many bytes"), "failed");
    EXPECT_EQ(folder.Read("events"), "ha");
  }
  EXPECT_EQ(Write(sink, "a record of many bytes"), "delivered");
  EXPECT_EQ(folder.Read("events"), "ha\na record of many bytes\n");
}

// A file system of a few pages, seen by this process alone.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& folder) : path(folder) {
    Require(unshare(CLONE_NEWNS) == 0, "unshare");
    Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keeping mounts private");
    Require(mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k") == 0, "a file system in memory");
  }
  ~SmallDisk() { umount2(path.c_str(), MNT_DETACH); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  // Takes everything but that many bytes, or a page less.
  void Fill(std::size_t left) const {
    std::ofstream filler(path + "/filler", std::ios::binary);
    const std::string block(1024, 'f');
    while (filler << block << std::flush) {
    }
    filler.close();
    std::filesystem::resize_file(path + "/filler", std::filesystem::file_size(path + "/filler") - left);
  }
  void Free() const { std::filesystem::remove(path + "/filler"); }

 private:
  static void Require(bool done, const std::string& step) {
    if (!done) {
      throw std::runtime_error("no small disk: " + step + ": " + std::strerror(errno) +
                               " (this test needs root and a mount namespace)");
    }
  }

  std::string path;
};

TEST_F(EventSinkTest, Fault16AFullDiskGetsNoHalfLineAndEverythingOnceThereIsRoom) {
  const std::string disk = folder.Path("disk");
  std::filesystem::create_directory(disk);
  const SmallDisk small(disk);
  EventSink sink(disk + "/events");
  small.Fill(8192);
  const std::string event(700, 'e');
  std::string written;
  while (Write(sink, event) == "delivered") {
    written += event + "\n";
    ASSERT_LT(written.size(), 65536U);
  }
  EXPECT_FALSE(written.empty());
  EXPECT_EQ(sink.Error(), disk + "/events cannot be written: No space left on device");
  EXPECT_EQ(folder.Read("disk/events"), written);
  EXPECT_EQ(Write(sink, event), "failed");
  EXPECT_EQ(folder.Read("disk/events"), written);

  small.Free();
  EXPECT_EQ(Write(sink, event), "delivered");
  EXPECT_EQ(Write(sink, "next"), "delivered");
  EXPECT_EQ(folder.Read("disk/events"), written + event + "\nnext\n");
}

TEST_F(EventSinkTest, Fault16AFifoWithoutAReaderIsAFailureUntilOneComes) {
  folder.MakeFifo("events");
  EventSink sink(path);
  EXPECT_EQ(Write(sink, "one"), "failed");
  EXPECT_EQ(sink.Error(), path + " has no reader");

  LineReader reader(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  EXPECT_EQ(reader.Next(generous), "one");
}

TEST_F(EventSinkTest, Fault16AFifosReaderMayGoAndAnotherCome) {
  folder.MakeFifo("events");
  EventSink sink(path);
  for (int time = 0; time < 3; ++time) {
    const std::string event = "event " + std::to_string(time);
    LineReader reader(path);
    EXPECT_EQ(Write(sink, event), "delivered");
    EXPECT_EQ(reader.Next(generous), event);
    reader.Close();
    EXPECT_EQ(Write(sink, "for nobody"), "failed");
  }
}

// More than a pipe has room for.
const std::string longEvent = std::string(1024 * 1024, 'x') + "end";

TEST_F(EventSinkTest, ASlowReaderGetsTheWholeRecordWhenTheSameEventIsTriedAgain) {
  folder.MakeFifo("events");
  EventSink sink(path);
  LineReader reader(path);
  EXPECT_EQ(Write(sink, longEvent, brief), "blocked");
  EXPECT_EQ(Write(sink, longEvent, brief), "blocked");

  std::future<std::vector<std::string>> lines =
      std::async(std::launch::async, [&] { return reader.Next(2, generous); });
  EXPECT_EQ(Write(sink, longEvent), "delivered");
  EXPECT_EQ(Write(sink, "next"), "delivered");
  EXPECT_THAT(lines.get(), ElementsAre(longEvent, "next"));
}

TEST_F(EventSinkTest, Fault16AReaderThatComesAfterHalfARecordGetsAllOfIt) {
  folder.MakeFifo("events");
  EventSink sink(path);
  LineReader reader(path);
  EXPECT_EQ(Write(sink, longEvent, brief), "blocked");
  reader.Close();
  EXPECT_EQ(Write(sink, longEvent, brief), "failed");

  LineReader another(path);
  std::future<std::string> line = std::async(std::launch::async, [&] { return another.Next(generous); });
  EXPECT_EQ(Write(sink, longEvent), "delivered");
  EXPECT_EQ(line.get(), longEvent);
}

TEST_F(EventSinkTest, Fault16PatienceIsWhatAStuckReaderCosts) {
  folder.MakeFifo("events");
  EventSink sink(path);
  LineReader reader(path);
  EXPECT_EQ(Write(sink, longEvent, brief), "blocked");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Write(sink, longEvent, milliseconds(100)), "blocked");
  const auto passed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(passed, milliseconds(90));
  EXPECT_LT(passed, std::chrono::seconds(20));
}

TEST_F(EventSinkTest, AFifoThatBecameAFileIsWrittenAsOne) {
  folder.MakeFifo("events");
  EventSink sink(path);
  std::filesystem::remove(path);
  EXPECT_EQ(Write(sink, "one"), "delivered");
  EXPECT_EQ(folder.Read("events"), "one\n");
}

// Failures inside are told after standard output is back: the test's own words must not go into the pipe.
class StandardOutputTest : public EventSinkTest {
 protected:
  StandardOutputTest() {
    if (pipe(ends.data()) != 0) {
      throw std::runtime_error("no pipe");
    }
    reader.emplace(ends[0]);
  }
  ~StandardOutputTest() override { close(ends[1]); }

  std::array<int, 2> ends{};
  std::optional<LineReader> reader;
};

TEST_F(StandardOutputTest, IsWrittenAndLeftAsItIs) {
  std::string outcome;
  std::string name;
  {
    const StandardOutput redirected(ends[1]);
    EventSink sink("-");
    outcome = Write(sink, "one");
    name = sink.Name();
  }
  EXPECT_EQ(outcome, "delivered");
  EXPECT_EQ(name, "standard output");
  EXPECT_EQ(reader->Next(generous), "one");
  // It may be shared with a shell that does not expect a pipe which refuses.
  EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
  EXPECT_GE(fcntl(STDOUT_FILENO, F_GETFD), 0);
}

TEST_F(StandardOutputTest, Fault16BlocksNoLongerThanThePatienceAndGoesOn) {
  std::vector<std::string> outcomes;
  std::vector<std::string> lines;
  {
    const StandardOutput redirected(ends[1]);
    EventSink sink("-");
    outcomes.push_back(Write(sink, longEvent, brief));
    std::future<std::vector<std::string>> read =
        std::async(std::launch::async, [&] { return reader->Next(2, generous); });
    outcomes.push_back(Write(sink, longEvent));
    outcomes.push_back(Write(sink, "next"));
    lines = read.get();
  }
  EXPECT_THAT(outcomes, ElementsAre("blocked", "delivered", "delivered"));
  EXPECT_THAT(lines, ElementsAre(longEvent, "next"));
}

TEST_F(StandardOutputTest, WithoutAReaderIsAFailureEachTime) {
  std::vector<std::string> outcomes;
  std::string error;
  reader->Close();
  {
    const StandardOutput redirected(ends[1]);
    EventSink sink("-");
    outcomes.push_back(Write(sink, "one"));
    outcomes.push_back(Write(sink, "one"));
    error = sink.Error();
  }
  EXPECT_THAT(outcomes, ElementsAre("failed", "failed"));
  EXPECT_EQ(error, "standard output cannot be written: Broken pipe");
}

TEST_F(StandardOutputTest, WithAnotherReaderAfterHalfARecordGetsTheRecordOnALineOfItsOwn) {
  folder.MakeFifo("events");
  LineReader first(path);
  const int fifo = open(path.c_str(), O_WRONLY);
  std::vector<std::string> outcomes;
  std::vector<std::string> lines;
  {
    const StandardOutput redirected(fifo);
    EventSink sink("-");
    outcomes.push_back(Write(sink, longEvent, brief));
    first.Close();
    outcomes.push_back(Write(sink, longEvent, brief));
    LineReader another(path);  // finds in the pipe what nobody has read
    std::future<std::vector<std::string>> read =
        std::async(std::launch::async, [&] { return another.Next(3, generous); });
    outcomes.push_back(Write(sink, longEvent));
    outcomes.push_back(Write(sink, "next"));
    lines = read.get();
  }
  close(fifo);
  EXPECT_THAT(outcomes, ElementsAre("blocked", "failed", "delivered", "delivered"));
  EXPECT_THAT(lines, ElementsAre(longEvent.substr(0, lines[0].size()), longEvent, "next"));
}

TEST_F(StandardOutputTest, AsAFileIsWrittenWhereItStands) {
  folder.Write("events", "before\n");
  std::string outcome;
  std::string refused;
  const int file = open(path.c_str(), O_WRONLY);
  lseek(file, 0, SEEK_END);
  {
    const StandardOutput redirected(file);
    EventSink sink("-");
    {
      const FileSizeLimit limit(10);
      refused = Write(sink, "a record of many bytes");
    }
    outcome = Write(sink, "one");
  }
  close(file);
  EXPECT_EQ(refused, "failed");
  EXPECT_EQ(outcome, "delivered");
  EXPECT_EQ(folder.Read("events"), "before\none\n");
}

}  // namespace
