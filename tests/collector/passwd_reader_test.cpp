#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "collector/passwd_info.h"
#include "collector/user_info_collector.h"
#include "tests/collector/collector_fixture.h"
#include "tests/collector/stepping_time.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_same<decltype(PasswdInfo::uid), std::uint32_t>::value, "IDs have 32 bits");
static_assert(std::is_same<decltype(PasswdInfo::gid), std::uint32_t>::value, "IDs have 32 bits");
static_assert(std::is_same<decltype(PasswdInfo::readTime), std::time_t>::value, "as the system's time is");
static_assert(std::is_nothrow_move_assignable<PasswdInfo>::value, "dropping repeats must not fail half way");

std::string RepeatedRecord(const std::string& name) {
  return "log 2 0x0 2 user_info_collector.cpp:67 0 \"The user name of /etc/passwd is repeated.[name=%s]\" -> "
         "The user name of /etc/passwd is repeated.[name=" +
         name + "]";
}

std::string TooLongRecord(int line) {
  return "log 2 0x0 1 user_info_collector.cpp:166 0 \"The line of /etc/passwd is too long.[line=%d]\" -> "
         "The line of /etc/passwd is too long.[line=" +
         std::to_string(line) + "]";
}

// An account line of exactly that many characters.
std::string LineOfLength(const std::string& name, std::size_t length) {
  const std::string start = name + ":x:1:2:";
  const std::string end = ":/h:/s";
  return start + std::string(length - start.size() - end.size(), 'c') + end;
}

class PasswdReaderTest : public CollectorTest {
 protected:
  // What the reader makes of a file with this content.
  std::vector<std::string> Read(const std::string& content) {
    file.Write(content);
    Snapshot users;
    EXPECT_TRUE(collector.ReadPasswd(users));
    return Texts(users);
  }
};

TEST_F(PasswdReaderTest, AnEmptyFileYieldsTrueAndNoRecords) {
  EXPECT_THAT(Read(""), IsEmpty());
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdReaderTest, TheLineOfRootYieldsItsFields) {
  file.Write("root:x:0:0:root:/root:/bin/sh\n");
  Snapshot users;
  ASSERT_TRUE(collector.ReadPasswd(users));

  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].userName, "root");
  EXPECT_EQ(users[0].uid, 0u);
  EXPECT_EQ(users[0].gid, 0u);
  EXPECT_EQ(users[0].home, "/root");
  EXPECT_EQ(users[0].shell, "/bin/sh");
}

TEST_F(PasswdReaderTest, RecordsStandInTheOrderOfTheLines) {
  EXPECT_THAT(Read("zoe:x:3:30:z:/z:/bin/z\nadam:x:1:10:a:/a:/bin/a\nmia:x:2:20:m:/m:/bin/m\n"),
              ElementsAre("zoe:3:30:/z:/bin/z", "adam:1:10:/a:/bin/a", "mia:2:20:/m:/bin/m"));
}

TEST_F(PasswdReaderTest, ALineBecomesARecordOrIsDroppedInSilence) {
  struct Row {
    const char* what;
    std::string line;
    std::vector<std::string> records;
  };
  using namespace std::string_literals;
  const Row rows[] = {
      {"blank", "", {}},
      {"spaces alone", "   ", {}},
      {"comment", "# note", {}},
      {"comment that would make an account", "#a:x:1:2:c:/h:/s", {}},
      {"comment behind spaces", "   # note", {}},
      {"comment behind spaces that would make an account", "   #a:x:1:2:c:/h:/s", {}},
      {"a tab before the mark, too few fields", "\t# note", {}},
      {"a tab before the mark, an account all the same", "\t#a:x:1:2:c:/h:/s", {"\t#a:1:2:/h:/s"}},
      {"spaces and a tab before the mark", "  \t#a:x:1:2:c:/h:/s", {"  \t#a:1:2:/h:/s"}},
      {"the mark inside the name", "a#:x:1:2:c:/h:/s", {"a#:1:2:/h:/s"}},
      {"1 field", "toor", {}},
      {"6 fields", "toor:x:0:0:c:/h", {}},
      {"7 fields", "toor:x:0:0:c:/h:/s", {"toor:0:0:/h:/s"}},
      {"8 fields", "toor:x:0:0:c:/h:/s:", {}},
      {"9 fields", "toor:x:0:0:c:/h:/s::", {}},
      {"empty name", ":x:0:0:c:/h:/s", {}},
      {"seven empty fields", "::::::", {}},
      {"a name alone", "toor::::::", {}},
      {"empty password and comment", "toor::1:2::/h:/s", {"toor:1:2:/h:/s"}},
      {"empty home and shell", "toor:x:1:2:c::", {"toor:1:2::"}},
      {"empty user ID", "toor:x::2:c:/h:/s", {}},
      {"empty group ID", "toor:x:1::c:/h:/s", {}},
      {"letters as the user ID", "toor:x:zero:0:c:/h:/s", {}},
      {"letters as the group ID", "toor:x:0:zero:c:/h:/s", {}},
      {"letters behind the user ID", "toor:x:0abc:0:c:/h:/s", {}},
      {"letters behind the group ID", "toor:x:0:0abc:c:/h:/s", {}},
      {"a hexadecimal user ID", "toor:x:0x0:0:c:/h:/s", {}},
      {"leading zeroes are decimal", "toor:x:010:007:c:/h:/s", {"toor:10:7:/h:/s"}},
      {"largest IDs", "toor:x:4294967295:4294967295:c:/h:/s", {"toor:4294967295:4294967295:/h:/s"}},
      {"beyond the largest ID", "toor:x:4294967296:0:c:/h:/s", {}},
      {"blanks are kept", "  toor :x:1:2:c: /h : /s ", {"  toor :1:2: /h : /s "}},
      {"quotes and backslashes are kept", "\"a\\:x:1:2:c:'/h':\"/s\"", {"\"a\\:1:2:'/h':\"/s\""}},
      {"a carriage return is kept", "toor:x:1:2:c:/h:/s\r", {"toor:1:2:/h:/s\r"}},
      {"a conversion mark in the name", "%s%n:x:1:2:c:/h:/s", {"%s%n:1:2:/h:/s"}},
      {"bytes that are no UTF-8", "\xFF\xFE:x:1:2:c:\x80:\xC3", {"\xFF\xFE:1:2:\x80:\xC3"}},
      {"a NUL in the name", "to\0or:x:1:2:c:/h:/s"s, {"to\0or:1:2:/h:/s"s}},
      {"a NUL in home and shell", "toor:x:1:2:c:/\0h:/s\0"s, {"toor:1:2:/\0h:/s\0"s}},
      {"a NUL before the mark", "\0#a:x:1:2:c:/h:/s"s, {"\0#a:1:2:/h:/s"s}},
      {"a NUL in the user ID", "toor:x:0\0:0:c:/h:/s"s, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    // Between two accounts: whatever becomes of the line, reading goes on behind it
    std::vector<std::string> expected = {"first:8:8:/f:/f"};
    expected.insert(expected.end(), row.records.begin(), row.records.end());
    expected.push_back("last:9:9:/l:/l");
    EXPECT_EQ(Read("first:x:8:8:f:/f:/f\n" + row.line + "\nlast:x:9:9:l:/l:/l\n"), expected);
    // And as the last line, without a newline
    expected.pop_back();
    EXPECT_EQ(Read("first:x:8:8:f:/f:/f\n" + row.line), expected);
    EXPECT_THAT(host.TakeCalls(), IsEmpty());
  }
}

TEST_F(PasswdReaderTest, ALastLineWithoutANewlineIsReadLikeAnyOther) {
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\nb:x:2:2:c:/h:/s"), ElementsAre("a:1:1:/h:/s", "b:2:2:/h:/s"));
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\nb:x:2:2:c:/h:/s\n"), ElementsAre("a:1:1:/h:/s", "b:2:2:/h:/s"));
}

TEST_F(PasswdReaderTest, ALineOf1000CharactersIsReadAndOneOf1001IsSkippedWithANotice) {
  EXPECT_THAT(
      Read(LineOfLength("longest", 1000) + "\n" + LineOfLength("toolong", 1001) + "\nlast:x:9:9:l:/l:/l\n"),
      ElementsAre("longest:1:2:/h:/s", "last:9:9:/l:/l"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(TooLongRecord(2)));
}

TEST_F(PasswdReaderTest, TheLimitCountsTheCarriageReturnAndNotTheNewline) {
  EXPECT_THAT(
      Read(LineOfLength("a", 999) + "\r\n" + LineOfLength("b", 1000) + "\r\n" + LineOfLength("c", 1000)),
      ElementsAre("a:1:2:/h:/s\r", "c:1:2:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(TooLongRecord(2)));
}

TEST_F(PasswdReaderTest, TheNoticeNumbersEveryLineFrom1AlsoThoseThatWereSkipped) {
  const std::string tooLong(1001, 'x');
  Read(tooLong + "\n# comment\n\nnonsense\n" + tooLong + "\nalice:x:1:2:c:/h:/s\n#" + tooLong + "\n   #" +
       tooLong + "\nalice:x:1:2:c:/h:/s\n" + std::string(1001, ' '));

  EXPECT_THAT(host.TakeCalls(), ElementsAre(TooLongRecord(1), TooLongRecord(5), TooLongRecord(7),
                                            TooLongRecord(8), TooLongRecord(10), RepeatedRecord("alice")));
}

TEST_F(PasswdReaderTest, ALineOfAMillionCharactersIsSkippedLikeAnyLongOne) {
  EXPECT_THAT(Read(LineOfLength("huge", 1000000) + "\nlast:x:9:9:l:/l:/l\n"), ElementsAre("last:9:9:/l:/l"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(TooLongRecord(1)));
}

TEST_F(PasswdReaderTest, OfTwoLinesWithOneNameTheFirstIsKeptWhereverTheSecondStands) {
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\na:x:0:0:c:/h:/s\nb:x:2:2:c:/h:/s\n"),
              ElementsAre("a:1:1:/h:/s", "b:2:2:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("a")));

  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\nb:x:2:2:c:/h:/s\na:x:0:0:c:/h:/s\n"),
              ElementsAre("a:1:1:/h:/s", "b:2:2:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("a")));

  EXPECT_THAT(Read("b:x:2:2:c:/h:/s\na:x:1:1:c:/h:/s\nc:x:3:3:c:/h:/s\na:x:0:0:c:/h:/s\nd:x:4:4:c:/h:/s\n"),
              ElementsAre("b:2:2:/h:/s", "a:1:1:/h:/s", "c:3:3:/h:/s", "d:4:4:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("a")));
}

TEST_F(PasswdReaderTest, OfThreeLinesWithOneNameTheNameIsLoggedTwice) {
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\nb:x:2:2:c:/h:/s\na:x:3:3:c:/h:/s\na:x:4:4:c:/h:/s\nb:x:5:5:c:/h:/s\n"),
              ElementsAre("a:1:1:/h:/s", "b:2:2:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("a"), RepeatedRecord("a"), RepeatedRecord("b")));
}

TEST_F(PasswdReaderTest, ADroppedLineDoesNotTakeTheNameFromALaterOne) {
  EXPECT_THAT(Read("a:x:nobody:1:c:/h:/s\na:x:1:1:c:/h\n#a:x:2:2:c:/h:/s\na:x:0:0:c:/h:/s\n"),
              ElementsAre("a:0:0:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdReaderTest, NamesThatDifferInCaseOrByABlankAreNotRepeated) {
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\nA:x:2:2:c:/h:/s\na :x:3:3:c:/h:/s\n"),
              ElementsAre("a:1:1:/h:/s", "A:2:2:/h:/s", "a :3:3:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdReaderTest, ManyRepeatedNamesLeaveTheSurvivorsInOrderAndOneRecordEach) {
  constexpr int repeats = VELTA_CODE_IS_SLOW ? 20000 : 100000;
  std::string content = "dup:x:0:0:c:/h:/s\n";
  std::vector<std::string> survivors = {"dup:0:0:/h:/s"};
  for (int repeat = 1; repeat <= repeats; ++repeat) {
    content += "dup:x:" + std::to_string(repeat) + ":0:c:/h:/s\n";
    if (repeat % (repeats / 10) == 0) {
      // Names that fall while the lines rise, so that sorted is not in order
      const std::string name = "z" + std::to_string(repeats - repeat);
      content += name + ":x:5:6:c:/h:/s\n";
      survivors.push_back(name + ":5:6:/h:/s");
    }
  }

  EXPECT_EQ(Read(content), survivors);
  EXPECT_EQ(host.TakeCalls(), std::vector<std::string>(repeats, RepeatedRecord("dup")));
}

TEST_F(PasswdReaderTest, TheReaderAppendsAndRepeatsAmongTheRecordsThatWereThereGoToo) {
  file.Write("bob:x:3:3:c:/h:/s\nalice:x:0:0:c:/h:/s\ncarl:x:4:4:c:/h:/s\n");
  Snapshot users = {Account("zoe", 1), Account("alice", 1000), Account("zoe", 0), Account("dora", 2)};

  ASSERT_TRUE(collector.ReadPasswd(users));

  EXPECT_THAT(Texts(users), ElementsAre("zoe:1:100:/home/zoe:/bin/sh", "alice:1000:100:/home/alice:/bin/sh",
                                        "dora:2:100:/home/dora:/bin/sh", "bob:3:3:/h:/s", "carl:4:4:/h:/s"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("zoe"), RepeatedRecord("alice")));
  EXPECT_EQ(users[1].readTime, 1) << "what was there keeps its own time";
}

TEST_F(PasswdReaderTest, EveryRecordOfOneSnapshotCarriesTheTimeTakenOnceAtItsBeginning) {
  file.Write("a:x:1:1:c:/h:/s\nb:x:2:2:c:/h:/s\nc:x:3:3:c:/h:/s\n");
  Snapshot users;
  SteppingTime::StartAt(1700000000);

  ASSERT_TRUE(collector.ReadPasswd(users));

  EXPECT_EQ(SteppingTime::Calls(), 1);
  std::vector<std::time_t> times;
  for (const PasswdInfo& user : users) {
    times.push_back(user.readTime);
  }
  EXPECT_THAT(times, ElementsAre(1700000000, 1700000000, 1700000000));

  users.clear();
  ASSERT_TRUE(collector.ReadPasswd(users));
  ASSERT_EQ(users.size(), 3u);
  EXPECT_EQ(users[0].readTime, 1700000001);
}

TEST_F(PasswdReaderTest, AMissingFileYieldsFalseLeavesTheRecordsUntouchedAndLogsNothing) {
  Snapshot users = {Account("zoe", 1), Account("zoe", 2)};

  EXPECT_FALSE(collector.ReadPasswd(users));

  EXPECT_THAT(Texts(users), ElementsAre("zoe:1:100:/home/zoe:/bin/sh", "zoe:2:100:/home/zoe:/bin/sh"));
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(PasswdReaderTest, ADanglingLinkIsAMissingFile) {
  file.MakeLink("nowhere");
  Snapshot users;
  EXPECT_FALSE(collector.ReadPasswd(users));
}

TEST_F(PasswdReaderTest, AFolderOpensAndFailsToReadWhichEndsTheReadingLikeTheEndOfTheFile) {
  file.MakeFolder();
  Snapshot users = {Account("zoe", 1), Account("zoe", 2)};

  EXPECT_TRUE(collector.ReadPasswd(users));

  EXPECT_THAT(Texts(users), ElementsAre("zoe:1:100:/home/zoe:/bin/sh"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(RepeatedRecord("zoe")));
}

TEST_F(PasswdReaderTest, NothingSurvivesFromOneReadingToTheNext) {
  EXPECT_THAT(Read("a:x:1:1:c:/h:/s\n"), ElementsAre("a:1:1:/h:/s"));
  EXPECT_THAT(Read("a:x:2:2:c:/h:/s\nb:x:3:3:c:/h:/s\n"), ElementsAre("a:2:2:/h:/s", "b:3:3:/h:/s"));
  Read(std::string(1001, 'x'));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(TooLongRecord(1)));
}

TEST_F(PasswdReaderTest, ALoggerThatThrowsOnALongLineLeavesTheRecordsReadSoFar) {
  file.Write("a:x:1:1:c:/h:/s\n" + std::string(1001, 'x') + "\nb:x:2:2:c:/h:/s\n");
  Snapshot users;
  host.onCall = ThrowAt("log", 1);

  EXPECT_THROW(collector.ReadPasswd(users), HostFailure);

  EXPECT_THAT(Texts(users), ElementsAre("a:1:1:/h:/s"));
}

TEST_F(PasswdReaderTest, ALoggerThatThrowsOnARepeatedNameLosesAndDoublesNoRecord) {
  file.Write("");
  const Snapshot before = {Account("a", 1), Account("a", 2), Account("b", 3), Account("a", 4),
                           Account("c", 5), Account("b", 6), Account("d", 7)};
  Snapshot users = before;
  host.onCall = ThrowAt("log", 2);

  EXPECT_THROW(collector.ReadPasswd(users), HostFailure);

  // The first repeat was dropped; the second was about to be
  EXPECT_EQ(Texts(users), Texts({before[0], before[2], before[3], before[4], before[5], before[6]}));
}

TEST_F(PasswdReaderTest, Fault24RunningOutOfMemoryAmongRepeatedNamesLosesAndDoublesNoRecord) {
  file.Write("");
  // Long names, so that each one that is remembered takes an allocation of its own
  const std::string pad(40, '-');
  const Snapshot before = {Account("a" + pad, 1), Account("b" + pad, 2), Account("a" + pad, 3),
                           Account("c" + pad, 4), Account("c" + pad, 5), Account("b" + pad, 6),
                           Account("d" + pad, 7), Account("e" + pad, 8)};
  const std::vector<std::string> all = Texts(before);
  const std::vector<std::string> survivors = Texts({before[0], before[1], before[3], before[6], before[7]});
  std::size_t failures = 0;
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 1000u);
    Snapshot users = before;
    bool threw = false;
    {
      const AllocationFailure failure(nth);
      try {
        collector.ReadPasswd(users);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    SCOPED_TRACE("allocation " + std::to_string(nth));
    ASSERT_NE(threw, exhausted);
    const std::vector<std::string> left = Texts(users);
    // Every record at most once and in its place
    auto place = all.begin();
    for (const std::string& record : left) {
      place = std::find(place, all.end(), record);
      ASSERT_NE(place, all.end()) << record;
      ++place;
    }
    // No first record of a name is gone
    for (const std::string& survivor : survivors) {
      ASSERT_THAT(left, Contains(survivor));
    }
    if (threw) {
      ++failures;
      users.shrink_to_fit();
      ASSERT_TRUE(collector.ReadPasswd(users)) << "the rest is done by the next pass";
    }
    ASSERT_EQ(Texts(users), survivors);
  }
  EXPECT_GE(failures, survivors.size()) << "each remembered name was refused its memory once";
}

// The standard line reader swallows what fails inside it: that ends the reading as the end of the file does.
// Everything else passes to the caller.
TEST_F(PasswdReaderTest, Fault24RunningOutOfMemoryWhileReadingNeverYieldsARecordThatIsNotInTheFile) {
  const std::string pad(40, '-');
  file.Write("a" + pad + ":x:1:1:c:/h:/s\nb" + pad + ":x:2:2:c:/h:/s\na" + pad + ":x:3:3:c:/h:/s\n");
  const std::vector<std::string> lines = {"a" + pad + ":1:1:/h:/s", "b" + pad + ":2:2:/h:/s",
                                          "a" + pad + ":3:3:/h:/s"};
  const std::vector<std::string> complete = {lines[0], lines[1]};
  std::size_t passedOn = 0;
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 10000u);
    Snapshot users;
    bool threw = false;
    {
      const AllocationFailure failure(nth);
      try {
        collector.ReadPasswd(users);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    SCOPED_TRACE("allocation " + std::to_string(nth));
    const std::vector<std::string> left = Texts(users);
    auto place = lines.begin();
    for (const std::string& record : left) {
      place = std::find(place, lines.end(), record);
      ASSERT_NE(place, lines.end()) << record;
      ++place;
    }
    ASSERT_FALSE(threw && exhausted);
    passedOn += threw ? 1 : 0;
    if (exhausted) {
      ASSERT_EQ(left, complete);
    } else if (!threw) {
      ASSERT_LE(left.size(), complete.size()) << "repeated names go, however early the reading ended";
      ASSERT_TRUE(std::equal(left.begin(), left.end(), complete.begin()));
    }
  }
  EXPECT_GE(passedOn, 10u) << "splitting, converting, keeping and comparing all need memory";
}

}  // namespace
