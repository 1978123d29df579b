#include "agent/file_event.h"

#include <sys/inotify.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

static std::ostream& operator<<(std::ostream& out, const Reaction& reaction) {
  return out << (reaction.attach ? "attach" : "no attach") << ", report "
             << static_cast<int>(reaction.report);
}

namespace {

constexpr std::array<WatchRole, 3> allRoles = {WatchRole::File, WatchRole::Directory, WatchRole::Ancestor};

struct Case {
  const char* name;
  std::uint32_t mask;
  Reaction ofFileAndDirectory;
  Reaction ofAncestor;
};

constexpr Reaction nothing = {false, Report::None};
constexpr Reaction settled = {false, Report::Settled};
constexpr Reaction now = {false, Report::Now};
constexpr Reaction attachSettled = {true, Report::Settled};
constexpr Reaction attachNow = {true, Report::Now};

// Every bit that the kernel can set.
constexpr Case cases[] = {
    {"IN_MODIFY", IN_MODIFY, settled, nothing},
    {"IN_CLOSE_WRITE", IN_CLOSE_WRITE, now, nothing},
    {"IN_ATTRIB", IN_ATTRIB, attachSettled, attachSettled},
    {"IN_CREATE", IN_CREATE, attachSettled, attachSettled},
    {"IN_DELETE", IN_DELETE, attachSettled, attachSettled},
    {"IN_MOVED_FROM", IN_MOVED_FROM, attachSettled, attachSettled},
    {"IN_MOVED_TO", IN_MOVED_TO, attachNow, attachNow},
    {"IN_DELETE_SELF", IN_DELETE_SELF, attachSettled, attachSettled},
    {"IN_MOVE_SELF", IN_MOVE_SELF, attachSettled, attachSettled},
    {"IN_IGNORED", IN_IGNORED, attachSettled, attachSettled},
    {"IN_UNMOUNT", IN_UNMOUNT, attachNow, attachNow},
    {"IN_OPEN", IN_OPEN, nothing, nothing},
    {"IN_ACCESS", IN_ACCESS, nothing, nothing},
    {"IN_CLOSE_NOWRITE", IN_CLOSE_NOWRITE, nothing, nothing},
    {"IN_ISDIR", IN_ISDIR, nothing, nothing},
    {"IN_Q_OVERFLOW", IN_Q_OVERFLOW, nothing, nothing},  // of no watch; the monitor takes it apart
};

Reaction Expected(const Case& row, WatchRole role) {
  return role == WatchRole::Ancestor ? row.ofAncestor : row.ofFileAndDirectory;
}

TEST(FileEventTest, EachEventHasItsReaction) {
  for (const Case& row : cases) {
    for (const WatchRole role : allRoles) {
      EXPECT_EQ(ReactionTo(role, row.mask), Expected(row, role))
          << row.name << " in role " << static_cast<int>(role);
    }
  }
  for (const WatchRole role : allRoles) {
    EXPECT_EQ(ReactionTo(role, 0), nothing);
  }
}

TEST(FileEventTest, OfSeveralEventsTheStrongestOfEachAnswerCounts) {
  constexpr std::size_t count = sizeof(cases) / sizeof(cases[0]);
  for (std::uint32_t subset = 0; subset < (std::uint32_t{1} << count); ++subset) {
    for (const WatchRole role : allRoles) {
      std::uint32_t mask = 0;
      Reaction expected = nothing;
      for (std::size_t i = 0; i < count; ++i) {
        if ((subset >> i & 1) != 0) {
          const Reaction one = Expected(cases[i], role);
          mask |= cases[i].mask;
          expected.attach = expected.attach || one.attach;
          if (one.report == Report::Now || expected.report == Report::None) {
            expected.report = one.report;
          }
        }
      }
      ASSERT_EQ(ReactionTo(role, mask), expected) << "mask " << mask << " in role " << static_cast<int>(role);
    }
  }
}

TEST(FileEventTest, AWatchSubscribesToWhatItsRoleNeeds) {
  EXPECT_EQ(EventsOf(WatchRole::File),
            std::uint32_t{IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF});
  EXPECT_EQ(EventsOf(WatchRole::Directory),
            std::uint32_t{IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF | IN_CREATE |
                          IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR});
  EXPECT_EQ(EventsOf(WatchRole::Ancestor),
            std::uint32_t{IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                          IN_MOVED_TO | IN_ONLYDIR});
}

TEST(FileEventTest, NoWatchSubscribesToWhatAReaderCanCause) {
  for (const WatchRole role : allRoles) {
    EXPECT_EQ(EventsOf(role) & (IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE), 0u) << static_cast<int>(role);
  }
}

TEST(FileEventTest, EverySubscribedEventIsReported) {
  for (const WatchRole role : allRoles) {
    const std::uint32_t events = EventsOf(role) & IN_ALL_EVENTS;
    for (std::uint32_t bit = 1; bit <= events; bit <<= 1) {
      if ((events & bit) != 0) {
        EXPECT_NE(ReactionTo(role, bit).report, Report::None)
            << "bit " << bit << " in role " << static_cast<int>(role);
      }
    }
  }
}

class SettlingTest : public testing::Test {
 protected:
  static Settling::Time At(int ms) {
    return Settling::Time(std::chrono::hours(1)) + std::chrono::milliseconds(ms);
  }

  Settling settling;
};

TEST_F(SettlingTest, WithoutAChangeThereIsNothingToReport) {
  EXPECT_EQ(settling.Due(), std::nullopt);
  settling.Add(Report::None, At(0));
  EXPECT_EQ(settling.Due(), std::nullopt);
}

TEST_F(SettlingTest, AChangeIsReportedAfterAQuietMoment) {
  settling.Add(Report::Settled, At(0));
  EXPECT_EQ(settling.Due(), At(100));
}

TEST_F(SettlingTest, EachFurtherChangeBeginsTheQuietAnew) {
  settling.Add(Report::Settled, At(0));
  settling.Add(Report::Settled, At(60));
  EXPECT_EQ(settling.Due(), At(160));
  settling.Add(Report::Settled, At(120));
  EXPECT_EQ(settling.Due(), At(220));
}

TEST_F(SettlingTest, AFileThatIsNeverQuietIsReportedASecondAfterItsFirstChange) {
  for (int time = 0; time <= 900; time += 50) {
    settling.Add(Report::Settled, At(time));
    EXPECT_EQ(settling.Due(), At(time + 100));
  }
  settling.Add(Report::Settled, At(950));
  EXPECT_EQ(settling.Due(), At(1000));
  settling.Add(Report::Settled, At(999));
  EXPECT_EQ(settling.Due(), At(1000));
}

TEST_F(SettlingTest, AChangeAfterTheReportWasDueDoesNotPutItOff) {
  settling.Add(Report::Settled, At(0));
  settling.Add(Report::Settled, At(100));
  EXPECT_EQ(settling.Due(), At(100));
  settling.Add(Report::Settled, At(5000));
  EXPECT_EQ(settling.Due(), At(100));
}

TEST_F(SettlingTest, ACompleteChangeIsReportedAtOnce) {
  settling.Add(Report::Now, At(7));
  EXPECT_EQ(settling.Due(), At(7));
}

TEST_F(SettlingTest, ACompleteChangeEndsTheQuietOfOthers) {
  settling.Add(Report::Settled, At(0));
  settling.Add(Report::Now, At(30));
  EXPECT_EQ(settling.Due(), At(30));
}

TEST_F(SettlingTest, ACompleteChangeIsNotPutOffByWhatFollows) {
  settling.Add(Report::Now, At(30));
  settling.Add(Report::Settled, At(30));
  settling.Add(Report::Settled, At(60));
  settling.Add(Report::None, At(70));
  settling.Add(Report::Now, At(80));
  EXPECT_EQ(settling.Due(), At(30));
}

TEST_F(SettlingTest, WhatWasReportedIsForgotten) {
  settling.Add(Report::Settled, At(0));
  settling.Clear();
  EXPECT_EQ(settling.Due(), std::nullopt);
}

TEST_F(SettlingTest, TheSecondOfANeverQuietFileBeginsAnewAfterAReport) {
  settling.Add(Report::Settled, At(0));
  settling.Clear();
  settling.Add(Report::Settled, At(950));
  EXPECT_EQ(settling.Due(), At(1050));
}

TEST_F(SettlingTest, AReportThatDidNotGetThroughIsTriedAgainAfterASecond) {
  settling.Add(Report::Now, At(0));
  settling.Clear();
  settling.Retry(At(20));
  EXPECT_EQ(settling.Due(), At(1020));
}

TEST_F(SettlingTest, AChangeDuringTheWaitForARetryIsReportedLikeAnyOther) {
  settling.Retry(At(0));
  settling.Add(Report::Settled, At(300));
  EXPECT_EQ(settling.Due(), At(400));
  settling.Add(Report::Now, At(310));
  EXPECT_EQ(settling.Due(), At(310));
}

TEST_F(SettlingTest, ARetryDoesNotPutOffAChangeThatIsWaiting) {
  settling.Add(Report::Settled, At(0));
  settling.Retry(At(50));
  EXPECT_EQ(settling.Due(), At(100));
}

}  // namespace
