#include "agent/inotify.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/agent/descriptor_limit.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> Texts(const std::vector<InotifyEvent>& events) {
  std::vector<std::string> texts;
  for (const InotifyEvent& event : events) {
    texts.push_back(std::to_string(event.watch) + " " + std::to_string(event.mask) + " '" + event.name + "'");
  }
  return texts;
}

// A record as the kernel writes it; length is what it says of its name, whatever the name is.
std::string Record(int watch, std::uint32_t mask, const std::string& name, std::size_t length) {
  inotify_event header = inotify_event();
  header.wd = watch;
  header.mask = mask;
  header.cookie = 4711;
  header.len = static_cast<std::uint32_t>(length);
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + name;
}

std::string Record(int watch, std::uint32_t mask, const std::string& name) {
  return Record(watch, mask, name, name.size());
}

std::string Padded(const std::string& name) { return name + std::string(16 - name.size(), '\0'); }

TEST(InotifyDecodingTest, WhatTheKernelWroteIsReadUpToTheFirstRecordThatIsCutOff) {
  const std::string good = Record(3, IN_MODIFY, Padded("passwd"));
  const std::string goodText = "3 2 'passwd'";
  constexpr std::size_t most = std::numeric_limits<std::uint32_t>::max();
  const struct {
    const char* name;
    std::string data;
    std::vector<std::string> events;
  } rows[] = {
      {"nothing", "", {}},
      {"one byte", "x", {}},
      {"a header that lacks its last byte",
       Record(3, IN_MODIFY, "").substr(0, sizeof(inotify_event) - 1),
       {}},
      {"no name", Record(1, IN_CLOSE_WRITE, ""), {"1 8 ''"}},
      {"a padded name", good, {goodText}},
      {"a name that fills its room", Record(2, IN_CREATE, "0123456789abcdef"), {"2 256 '0123456789abcdef'"}},
      {"nothing but padding", Record(2, IN_CREATE, Padded("")), {"2 256 ''"}},
      {"bytes behind the padding", Record(2, IN_CREATE, std::string("a\0b\0", 4)), {"2 256 'a'"}},
      {"a name that is not text", Record(2, IN_CREATE, Padded("\xff\n\x1b")), {"2 256 '\xff\n\x1b'"}},
      {"no watch and the highest bit", Record(-1, 0x80004000, ""), {"-1 2147500032 ''"}},
      {"several", good + Record(1, IN_ATTRIB, "") + good, {goodText, "1 4 ''", goodText}},
      {"several and a cut header", good + good.substr(0, 5), {goodText}},
      {"several and a cut name", good + good.substr(0, good.size() - 1), {goodText}},
      {"a length of one too many", Record(2, IN_CREATE, "ab", 3), {}},
      {"the longest length", Record(2, IN_CREATE, Padded("ab"), most), {}},
      {"a length that wraps round to the start",
       Record(2, IN_CREATE, "ab", most - sizeof(inotify_event) + 1),
       {}},
      {"the longest length behind a good one",
       good + Record(2, IN_CREATE, Padded("ab"), most) + good,
       {goodText}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Texts(DecodeInotifyEvents(row.data.data(), row.data.size())), row.events) << row.name;
    // On an odd address and with nothing behind it, so that a sanitizer sees a step beyond the data.
    std::vector<char> shifted(row.data.size() + 1);
    std::memcpy(shifted.data() + 1, row.data.data(), row.data.size());
    EXPECT_EQ(Texts(DecodeInotifyEvents(shifted.data() + 1, row.data.size())), row.events) << row.name;
  }
}

class InotifyTest : public testing::Test {
 protected:
  InotifyTest() {
    WriteFile(file, "at first");
    EXPECT_TRUE(inotify.Open());
  }

  // All events that wait.
  std::vector<std::string> ReadAll() {
    std::vector<std::string> texts;
    std::vector<InotifyEvent> events;
    do {
      events.clear();
      EXPECT_TRUE(inotify.Read(events));
      for (const std::string& text : Texts(events)) {
        texts.push_back(text);
      }
    } while (!events.empty());
    return texts;
  }

  static std::string Text(int watch, std::uint32_t mask, const std::string& name = "") {
    return Texts({{watch, mask, name}}).front();
  }

  TemporaryFolder folder;
  const std::string file = folder.Path("watched");
  Inotify inotify;
};

TEST_F(InotifyTest, EventsOfAFileAndOfItsFolderAreReadInOrder) {
  const int ofFile = inotify.Add(file, IN_MODIFY | IN_CLOSE_WRITE);
  const int ofFolder = inotify.Add(folder.Path(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
  ASSERT_GE(ofFile, 0);
  ASSERT_GE(ofFolder, 0);
  ASSERT_NE(ofFile, ofFolder);

  ReplaceFile(folder.Path("other"), "content");
  ASSERT_EQ(truncate(file.c_str(), 2), 0);

  EXPECT_THAT(ReadAll(), ElementsAre(Text(ofFolder, IN_CREATE, "other.new"),
                                     Text(ofFolder, IN_MOVED_TO, "other"), Text(ofFile, IN_MODIFY)));
}

TEST_F(InotifyTest, ReadingWithoutEventsNeitherBlocksNorFails) {
  ASSERT_GE(inotify.Add(file, IN_MODIFY), 0);
  std::vector<InotifyEvent> events;
  EXPECT_TRUE(inotify.Read(events));
  EXPECT_THAT(Texts(events), IsEmpty());
}

TEST_F(InotifyTest, MoreEventsThanOneBufferTakesAreReadInSeveralTurns) {
  const int watch = inotify.Add(folder.Path(), IN_CREATE);
  std::vector<std::string> expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string name = "file" + std::to_string(i);
    WriteFile(folder.Path(name), "");
    expected.push_back(Text(watch, IN_CREATE, name));
  }
  EXPECT_EQ(ReadAll(), expected);
}

TEST_F(InotifyTest, AnInodeThatIsWatchedTwiceHasOneNumberAndBothMasks) {
  const std::string link = folder.Path("link");
  std::filesystem::create_hard_link(file, link);
  const int watch = inotify.Add(file, IN_ATTRIB);
  EXPECT_EQ(inotify.Add(link, IN_MODIFY), watch);

  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  ASSERT_EQ(truncate(link.c_str(), 2), 0);
  EXPECT_THAT(ReadAll(), ElementsAre(Text(watch, IN_ATTRIB), Text(watch, IN_MODIFY)));
}

TEST_F(InotifyTest, ARefusedWatchGivesTheReason) {
  EXPECT_EQ(inotify.Add(folder.Path("missing"), IN_MODIFY), -ENOENT);
  EXPECT_EQ(inotify.Add(file + "/below", IN_MODIFY), -ENOTDIR);
  EXPECT_EQ(inotify.Add(file, IN_CREATE | IN_ONLYDIR), -ENOTDIR);
}

TEST_F(InotifyTest, ARemovedWatchIsSilentAndMayBeRemovedAgain) {
  const int watch = inotify.Add(file, IN_MODIFY);
  inotify.Remove(watch);
  inotify.Remove(watch);
  inotify.Remove(watch + 1000);
  ASSERT_EQ(truncate(file.c_str(), 2), 0);
  EXPECT_THAT(ReadAll(), ElementsAre(Text(watch, IN_IGNORED)));
}

TEST_F(InotifyTest, ADescriptorWithEventsIsReadable) {
  ASSERT_GE(inotify.Add(file, IN_MODIFY), 0);
  pollfd polled = {inotify.Descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&polled, 1, 0), 0);
  ASSERT_EQ(truncate(file.c_str(), 2), 0);
  EXPECT_EQ(poll(&polled, 1, 60000), 1);
}

TEST_F(InotifyTest, ANewInstanceKnowsNothingOfTheOldOne) {
  ASSERT_GE(inotify.Add(file, IN_MODIFY), 0);
  ASSERT_EQ(truncate(file.c_str(), 2), 0);
  ASSERT_TRUE(inotify.Open());
  ASSERT_EQ(truncate(file.c_str(), 1), 0);
  EXPECT_THAT(ReadAll(), IsEmpty());
}

TEST_F(InotifyTest, WithoutADescriptorLeftOpenSaysWhyAndWorksLater) {
  {
    const DescriptorLimit limit(0);
    Inotify refused;
    EXPECT_FALSE(refused.Open());
    EXPECT_EQ(refused.OpenError(), EMFILE);
    EXPECT_FALSE(refused.IsOpen());
    EXPECT_EQ(refused.Descriptor(), -1);
    EXPECT_EQ(refused.Add(file, IN_MODIFY), -EBADF);
    std::vector<InotifyEvent> events;
    EXPECT_FALSE(refused.Read(events));
  }
  Inotify granted;
  EXPECT_TRUE(granted.Open());
  EXPECT_EQ(granted.OpenError(), 0);
  EXPECT_TRUE(granted.IsOpen());
}

TEST_F(InotifyTest, AClosedInstanceIsClosed) {
  inotify.Close();
  EXPECT_FALSE(inotify.IsOpen());
  EXPECT_EQ(inotify.Add(file, IN_MODIFY), -EBADF);
  inotify.Close();
}

}  // namespace
