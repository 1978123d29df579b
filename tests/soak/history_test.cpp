#include "tests/soak/history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr milliseconds bound(2500);

SoakTime At(int ms) { return SoakTime(milliseconds(ms)); }

RootAccount Account(const std::string& name) { return {name, 0, 0, "/nowhere", "/bin/sh"}; }

// A part of a run, told as it happens.
class Story {
 public:
  // The file holds these root accounts from a moment on.
  Story& Holds(int ms, const std::vector<std::string>& names, Sight sight = Sight::Whole) {
    return Holds(ms, ms, names, sight);
  }
  Story& Holds(int earliest, int latest, const std::vector<std::string>& names, Sight sight = Sight::Whole) {
    RootAccounts roots;
    for (const std::string& name : names) {
      roots[name] = Account(name);
    }
    segment.states.push_back({At(earliest), At(latest), sight, roots, "change"});
    return *this;
  }
  Story& IsEmpty(int ms) { return Holds(ms, {}, Sight::Empty); }
  Story& IsBegun(int ms) { return Holds(ms, {}, Sight::Begun); }
  Story& IsAway(int ms) { return Holds(ms, {}, Sight::Unreadable); }
  Story& Alert(int ms, const std::string& name) { return Alert(ms, Account(name)); }
  Story& Alert(int ms, const RootAccount& account) {
    segment.alerts.push_back({At(ms), account});
    return *this;
  }
  Story& Delayed(int from, int to) {
    segment.delays.push_back({At(from), At(to)});
    return *this;
  }
  Story& GoesOn() {  // what stands at the beginning is known to the agent
    segment.firstOfLife = false;
    return *this;
  }

  // What is found when all was read at the end, or when the agent was killed there.
  Story& Read(int ms) { return End(ms, true); }
  Story& Killed(int ms) { return End(ms, false); }

  std::vector<std::string> Findings() const {
    std::vector<std::string> found;
    for (const Finding& finding : verdict.findings) {
      const char* const kind = finding.kind == Finding::Kind::Missing    ? "missing "
                               : finding.kind == Finding::Kind::Invented ? "invented "
                                                                         : "repeated ";
      found.push_back(kind + finding.name);
    }
    return found;
  }
  const Verdict& Judged() const { return verdict; }

 private:
  Story& End(int ms, bool lastWasRead) {
    segment.end = At(ms);
    segment.lastWasRead = lastWasRead;
    verdict = Judge(segment, bound, At(0));
    return *this;
  }

  Segment segment;
  Verdict verdict;
};

TEST(RootAccounts, OnlyWholeAccountsWithUserIdZeroThatAreNotRootCount) {
  EXPECT_THAT(RootAccountsIn("root:x:0:0:root:/root:/bin/bash\n"
                             "alice:x:1000:0::/alice:/bin/sh\n"
                             "toor:x:0:7:Second:/toor:/bin/zsh\n"
                             "six:x:0:0::/nowhere\n"
                             "#toor2:x:0:0::/nowhere:/bin/sh\n"
                             "noshell:x:0:0::/nowhere:\n"
                             "cut:x:0:0::/nowhere:/bi"),
              ElementsAre(Pair("cut", RootAccount{"cut", 0, 0, "/nowhere", "/bi"}),
                          Pair("noshell", RootAccount{"noshell", 0, 0, "/nowhere", ""}),
                          Pair("toor", RootAccount{"toor", 0, 7, "/toor", "/bin/zsh"})));
}

TEST(RootAccounts, TheFirstOfANameCountsWhateverItIs) {
  EXPECT_THAT(RootAccountsIn("toor:x:5:0::/nowhere:/bin/sh\n"
                             "toor:x:0:0::/nowhere:/bin/sh\n"),
              IsEmpty());
}

TEST(Undelayed, DelaysThatOverlapCountOnce) {
  EXPECT_EQ(
      Undelayed(At(0), At(100), {{At(-50), At(10)}, {At(20), At(50)}, {At(30), At(60)}, {At(90), At(200)}}),
      milliseconds(40));
  EXPECT_EQ(Undelayed(At(100), At(0), {}), milliseconds(0));
}

TEST(Judge, EveryAccountAlertedOnceIsRight) {
  const Story story = Story()
                          .Holds(0, {"standing"})
                          .Alert(10, "standing")
                          .Holds(20, {"standing", "toor"})
                          .Alert(25, "toor")
                          .Read(30);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().repeatsAfterEmpty, 0U);
  EXPECT_EQ(story.Judged().repeatsAfterBegun, 0U);
}

TEST(Judge, AnAccountInTheLastReadingWithoutAnAlertIsMissing) {
  EXPECT_THAT(Story().Holds(0, {}).Holds(20, {"toor"}).Read(30).Findings(), ElementsAre("missing toor"));
}

TEST(Judge, AStandingAccountIsMissingWhenANewLifeDoesNotReportIt) {
  EXPECT_THAT(Story().Holds(0, {"a", "b"}).Alert(5, "a").Read(30).Findings(), ElementsAre("missing b"));
}

TEST(Judge, WhatStoodAndWasKnownNeedsNoAlert) {
  EXPECT_THAT(Story().GoesOn().Holds(0, {"a"}).Holds(10, {"a"}).Read(9000).Findings(), IsEmpty());
}

TEST(Judge, AnAccountThatStaysForTheBoundIsMissingEvenWhenItGoesAgain) {
  EXPECT_THAT(Story().Holds(0, {}).Holds(100, {"toor"}).Holds(2601, {}).Killed(2700).Findings(),
              ElementsAre("missing toor"));
}

TEST(Judge, AnAccountThatGoesWithinTheBoundMayBeAlertedOrNot) {
  EXPECT_THAT(Story().Holds(0, {}).Holds(100, {"toor"}).Holds(2599, {}).Killed(2700).Findings(), IsEmpty());
  EXPECT_THAT(
      Story().Holds(0, {}).Holds(100, {"toor"}).Holds(2599, {}).Alert(2650, "toor").Killed(2700).Findings(),
      IsEmpty());
}

TEST(Judge, OtherChangesDoNotInterruptAStay) {
  EXPECT_THAT(Story()
                  .Holds(0, {})
                  .Holds(100, {"toor"})
                  .Holds(1400, {"toor", "other"})
                  .Holds(1401, {"toor"})
                  .Holds(2700, {})
                  .Killed(2800)
                  .Findings(),
              ElementsAre("missing toor"));
}

TEST(Judge, AnAlertAfterTheBoundIsTooLate) {
  EXPECT_THAT(Story().Holds(0, {}).Holds(100, {"toor"}).Alert(2601, "toor").Read(5000).Findings(),
              ElementsAre("missing toor"));
  EXPECT_THAT(Story().Holds(0, {}).Holds(100, {"toor"}).Alert(2600, "toor").Read(5000).Findings(), IsEmpty());
}

TEST(Judge, ADelayOfTheAgentDoesNotCount) {
  EXPECT_THAT(
      Story().Holds(0, {}).Delayed(50, 9000).Holds(100, {"toor"}).Alert(11499, "toor").Read(12000).Findings(),
      IsEmpty());
  EXPECT_THAT(
      Story().Holds(0, {}).Delayed(50, 9000).Holds(100, {"toor"}).Alert(11501, "toor").Read(12000).Findings(),
      ElementsAre("missing toor"));
}

TEST(Judge, AnAbsenceThatLastsIsReadSoTheReturnHasToBeAlerted) {
  EXPECT_THAT(Story().GoesOn().Holds(0, {"toor"}).Holds(100, {}).Holds(2700, {"toor"}).Read(2800).Findings(),
              ElementsAre("missing toor"));
}

TEST(Judge, AReturnAfterAnAbsenceTooShortToBeReadMayBeAlertedOrNot) {
  EXPECT_THAT(Story().GoesOn().Holds(0, {"toor"}).Holds(100, {}).Holds(101, {"toor"}).Read(200).Findings(),
              IsEmpty());
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Holds(0, {"toor"})
                  .Holds(100, {})
                  .Holds(101, {"toor"})
                  .Alert(150, "toor")
                  .Read(200)
                  .Findings(),
              IsEmpty());
}

TEST(Judge, AnAlertForWhatNoFileHeldIsInvented) {
  EXPECT_THAT(Story().Holds(0, {}).Alert(10, "ghost").Read(30).Findings(), ElementsAre("invented ghost"));
}

TEST(Judge, AnAlertWithAnotherFieldThanTheFileHadIsInvented) {
  for (const RootAccount& wrong :
       {RootAccount{"toor", 1, 0, "/nowhere", "/bin/sh"}, RootAccount{"toor", 0, 1, "/nowhere", "/bin/sh"},
        RootAccount{"toor", 0, 0, "/elsewhere", "/bin/sh"},
        RootAccount{"toor", 0, 0, "/nowhere", "/bin/zsh"}}) {
    EXPECT_THAT(Story().Holds(0, {}).Holds(20, {"toor"}).Alert(25, wrong).Read(30).Findings(),
                ElementsAre("invented toor"));
  }
}

TEST(Judge, AnAlertBeforeItsAccountIsInvented) {
  EXPECT_THAT(Story().Holds(0, {}).Alert(10, "toor").Holds(20, 25, {"toor"}).Read(30).Findings(),
              ElementsAre("invented toor"));
}

TEST(Judge, AnAlertWhileItsAccountIsBeingPutInPlaceIsRight) {
  EXPECT_THAT(Story().Holds(0, {}).Alert(22, "toor").Holds(20, 25, {"toor"}).Read(30).Findings(), IsEmpty());
}

TEST(Judge, TwoAlertsForOneAppearanceAreARepeat) {
  EXPECT_THAT(
      Story().Holds(0, {}).Holds(20, {"toor"}).Alert(25, "toor").Alert(26, "toor").Read(30).Findings(),
      ElementsAre("repeated toor"));
}

TEST(Judge, AChangeThatNeverShowsTheAccountAbsentAllowsNoOtherAlert) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Holds(0, {"toor"})
                  .Holds(20, {"toor", "b"})
                  .Alert(25, "toor")
                  .Alert(26, "b")
                  .Read(30)
                  .Findings(),
              ElementsAre("repeated toor"));
}

TEST(Judge, ASecondAlertBeforeTheAccountWasBackIsARepeat) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Holds(0, {"toor"})
                  .Holds(20, {})
                  .Alert(25, "toor")
                  .Holds(40, {"toor"})
                  .Read(50)
                  .Findings(),
              ElementsAre("repeated toor"));
}

TEST(Judge, AFileThatIsAwayMakesNobodyForget) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Holds(0, {"toor"})
                  .IsAway(20)
                  .Holds(40, {"toor"})
                  .Alert(45, "toor")
                  .Read(50)
                  .Findings(),
              ElementsAre("repeated toor"));
}

TEST(Judge, ARepeatThatOnlyATruncationExplainsIsCountedApart) {
  const Story empty =
      Story().GoesOn().Holds(0, {"toor"}).IsEmpty(20).Holds(40, {"toor"}).Alert(45, "toor").Read(50);
  EXPECT_THAT(empty.Findings(), IsEmpty());
  EXPECT_EQ(empty.Judged().repeatsAfterEmpty, 1U);
  EXPECT_EQ(empty.Judged().repeatsAfterBegun, 0U);

  const Story begun = Story()
                          .GoesOn()
                          .Holds(0, {"toor"})
                          .IsEmpty(20)
                          .IsBegun(30)
                          .Holds(40, {"toor"})
                          .Alert(45, "toor")
                          .Read(50);
  EXPECT_THAT(begun.Findings(), IsEmpty());
  EXPECT_EQ(begun.Judged().repeatsAfterEmpty, 0U);
  EXPECT_EQ(begun.Judged().repeatsAfterBegun, 1U);
}

TEST(Judge, ATruncationExplainsNoMoreThanOneRepeat) {
  const Story story = Story()
                          .GoesOn()
                          .Holds(0, {"toor"})
                          .IsEmpty(20)
                          .Holds(40, {"toor"})
                          .Alert(45, "toor")
                          .Alert(46, "toor")
                          .Read(50);
  EXPECT_THAT(story.Findings(), ElementsAre("repeated toor"));
}

TEST(Judge, ATruncationIsNotBlamedForWhatAnAbsenceExplains) {
  const Story story = Story()
                          .GoesOn()
                          .Holds(0, {"toor"})
                          .Holds(10, {})
                          .IsEmpty(20)
                          .Holds(40, {"toor"})
                          .Alert(45, "toor")
                          .Read(50);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().repeatsAfterEmpty, 0U);
  EXPECT_EQ(story.Judged().repeatsAfterBegun, 0U);
}

TEST(Judge, AFindingTellsTheHistoryOfItsAccount) {
  const Story story = Story().Holds(0, {}).Holds(20, 21, {"toor"}).Delayed(22, 23).Read(30);
  ASSERT_THAT(story.Findings(), ElementsAre("missing toor"));
  EXPECT_EQ(story.Judged().findings.front().text,
            "  a life begins\n"
            "  0.0..0.0 to 20.0 absent (change)\n"
            "  20.0..21.0 to 30.0 present (change) must be read\n"
            "  delayed from 22.0 to 23.0\n"
            "  read wholly at 30.0\n");
}

}  // namespace
