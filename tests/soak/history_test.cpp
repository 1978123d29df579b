#include "tests/soak/history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
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
    segment.Add({At(earliest), At(latest), sight, roots, "change", 0, std::nullopt});
    return *this;
  }
  // The file with this inode has this content from a moment on.
  Story& Contains(int ms, std::uint64_t inode, const std::string& content, Sight sight = Sight::Whole) {
    segment.Add({At(ms), At(ms), sight, RootAccountsIn(content), "change", inode, content});
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
  const Segment& Told() const { return segment; }

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

// The first content ends where the third letter of the later one's "n10855" does: a reading that has taken
// all of the first and goes on in the later one finds "855:".
constexpr std::uint64_t file = 7;
constexpr std::uint64_t otherFile = 8;
const std::string rootLine = "root:x:0:0:root:/root:/bin/bash\n";
const std::string before = rootLine + "toor:x:0:0::/nowhere:/bin/sh\n";
const std::string cutLine = "n10855:x:0:0::/nowhere:/bin/sh\n";
const std::string later = rootLine + std::string(before.size() - rootLine.size() - 4, '#') + "\n" + cutLine;

RootAccounts Mixed() { return RootAccountsIn(before + later.substr(before.size())); }

TEST(Judge, TheExampleOfAMixtureIsOne) {
  EXPECT_THAT(Mixed(), ElementsAre(Pair("855", Account("855")), Pair("toor", Account("toor"))));
  EXPECT_THAT(RootAccountsIn(later), ElementsAre(Pair("n10855", Account("n10855"))));
}

// The agent knows the first content; the file is written anew and the agent reads it again.
Story MixedStory(const std::string& alerted, std::uint64_t laterFile = file) {
  return Story()
      .GoesOn()
      .Contains(0, file, before)
      .Contains(20, file, "", Sight::Empty)
      .Contains(30, laterFile, later)
      .Alert(35, alerted)
      .Alert(40, "n10855");
}

TEST(Judge, AnAlertOfAReadingThatMixedTwoContentsIsCountedApart) {
  const Story story = MixedStory("855").Read(50);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().alertsOfMixtures, 1U);
  EXPECT_EQ(story.Judged().repeatsAfterEmpty, 0U);
  EXPECT_EQ(story.Judged().repeatsAfterBegun, 0U);
}

TEST(Judge, WhatNeedsNoMixtureIsNotCountedAsOne) {
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, file, before)
                          .Contains(20, file, "", Sight::Empty)
                          .Contains(30, file, later)
                          .Alert(40, "n10855")
                          .Read(50);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().alertsOfMixtures, 0U);
}

TEST(Judge, ContentsThatAreNotNeighboursMixAsWell) {
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, file, before)
                          .Contains(20, file, rootLine)
                          .IsAway(22)
                          .Contains(24, otherFile, rootLine)
                          .Contains(26, file, rootLine)
                          .Contains(30, file, later)
                          .Alert(35, "855")
                          .Alert(40, "n10855")
                          .Read(50);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().alertsOfMixtures, 1U);
}

TEST(Judge, AMixtureEndsInAContentThatIsBeingWritten) {
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, file, before)
                          .Contains(20, file, later.substr(0, later.size() - 3), Sight::Begun)
                          .Alert(25, RootAccount{"855", 0, 0, "/nowhere", "/bin"})
                          .Contains(30, file, rootLine)
                          .Killed(50);
  EXPECT_THAT(story.Findings(), ElementsAre("invented 855"));  // that much shows "/bin/", not "/bin"

  const Story whole = Story()
                          .GoesOn()
                          .Contains(0, file, before)
                          .Contains(20, file, later.substr(0, later.size() - 4), Sight::Begun)
                          .Alert(25, RootAccount{"855", 0, 0, "/nowhere", "/bin"})
                          .Contains(30, file, rootLine)
                          .Killed(50);
  EXPECT_THAT(whole.Findings(), IsEmpty());
  EXPECT_EQ(whole.Judged().alertsOfMixtures, 1U);
}

TEST(Judge, ALineThatWasBegunGoesOnInTheLaterContent) {
  const std::string begun = rootLine + "evil:x:0:0::/no";
  const std::string longer = rootLine + "################where:/bin/sh\n";
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, file, begun, Sight::Begun)
                          .Contains(20, file, longer)
                          .Alert(30, RootAccount{"evil", 0, 0, "/no#where", "/bin/sh"})
                          .Read(50);
  ASSERT_EQ(longer.substr(begun.size()), "#where:/bin/sh\n");
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().alertsOfMixtures, 1U);
}

TEST(Judge, ContentsOfTwoFilesDoNotMix) {
  const Story story = MixedStory("855", otherFile).Read(50);
  EXPECT_THAT(story.Findings(), ElementsAre("invented 855"));
  EXPECT_EQ(story.Judged().alertsOfMixtures, 0U);
}

TEST(Judge, ContentsOfAFileThatIsNotKnownDoNotMix) {
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, 0, before)
                          .Contains(30, 0, later)
                          .Alert(35, "855")
                          .Alert(40, "n10855")
                          .Read(50);
  EXPECT_THAT(story.Findings(), ElementsAre("invented 855"));
}

TEST(Judge, AContentDoesNotMixWithAnEarlierOne) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, rootLine)
                  .Contains(10, file, later)
                  .Alert(15, "n10855")
                  .Contains(20, file, before)
                  .Alert(35, "855")
                  .Alert(35, "toor")
                  .Read(50)
                  .Findings(),
              ElementsAre("invented 855"));
}

TEST(Judge, AContentThatComesAfterTheAlertDoesNotMix) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Alert(29, "855")
                  .Contains(30, file, later)
                  .Alert(40, "n10855")
                  .Read(50)
                  .Findings(),
              ElementsAre("invented 855"));
}

TEST(Judge, ATailThatDoesNotFollowFromTheLengthIsInvented) {
  for (const std::string name : {"55", "5", "0855", "10855"}) {
    EXPECT_THAT(MixedStory(name).Read(50).Findings(), ElementsAre("invented " + name));
  }
}

TEST(Judge, ANameThatEndsLikeAnAccountButIsNotAtTheCutIsInvented) {
  const std::string further = later + "m20777:x:0:0::/nowhere:/bin/sh\n";
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(30, file, further)
                  .Alert(35, "777")
                  .Alert(40, "m20777")
                  .Alert(40, "n10855")
                  .Read(50)
                  .Findings(),
              ElementsAre("invented 777"));
}

TEST(Judge, AMixtureWithAnotherFieldIsInvented) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(30, file, later)
                  .Alert(35, RootAccount{"855", 0, 0, "/nowhere", "/bin/zsh"})
                  .Alert(40, "n10855")
                  .Read(50)
                  .Findings(),
              ElementsAre("invented 855"));
}

TEST(Judge, AMixtureHasToBeReadWithinTheBoundAfterTheOlderContentWasGone) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(20, file, "", Sight::Empty)
                  .Contains(30, file, later)
                  .Alert(2521, "855")
                  .Killed(2525)
                  .Findings(),
              ElementsAre("invented 855"));
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(20, file, "", Sight::Empty)
                  .Contains(30, file, later)
                  .Alert(2520, "855")
                  .Killed(2525)
                  .Findings(),
              IsEmpty());
}

TEST(Judge, TheStopOfTheAgentInTheMiddleOfAReadingDoesNotCount) {
  const Story story = Story()
                          .GoesOn()
                          .Contains(0, file, before)
                          .Delayed(10, 9000)
                          .Contains(20, file, "", Sight::Empty)
                          .Contains(30, file, later)
                          .Alert(9100, "855")
                          .Alert(9101, "n10855")
                          .Read(9200);
  EXPECT_THAT(story.Findings(), IsEmpty());
  EXPECT_EQ(story.Judged().alertsOfMixtures, 1U);
}

TEST(Judge, AMixtureExplainsNoMoreThanOneAlert) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(30, file, later)
                  .Alert(35, "855")
                  .Alert(36, "855")
                  .Alert(40, "n10855")
                  .Read(50)
                  .Findings(),
              ElementsAre("repeated 855"));
}

TEST(Judge, AMixtureHidesNoAccountThatIsMissing) {
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, before)
                  .Contains(30, file, later)
                  .Alert(35, "855")
                  .Read(50)
                  .Findings(),
              ElementsAre("missing n10855"));
}

TEST(Judge, ARealAccountBehindTheCutIsAlertedOnce) {
  const std::string further = later + "real:x:0:0::/nowhere:/bin/sh\n";
  const auto story = [&further] {
    return Story()
        .GoesOn()
        .Contains(0, file, before)
        .Contains(30, file, further)
        .Alert(35, "855")
        .Alert(35, "real")
        .Alert(40, "n10855");
  };
  EXPECT_THAT(story().Read(50).Findings(), IsEmpty());
  EXPECT_EQ(story().Read(50).Judged().alertsOfMixtures, 1U);
  EXPECT_THAT(story().Alert(45, "real").Read(50).Findings(), ElementsAre("repeated real"));
}

TEST(Judge, AnAccountThatAMixtureShowedWronglyIsKnownWhereTheLaterContentHasIt) {
  const std::string begun = rootLine + "evil:x:0:0::/no";
  const std::string longer = rootLine + "################where:/bin/sh\nevil:x:0:0::/nowhere:/bin/sh\n";
  EXPECT_THAT(Story()
                  .GoesOn()
                  .Contains(0, file, begun, Sight::Begun)
                  .Contains(20, file, longer)
                  .Alert(30, RootAccount{"evil", 0, 0, "/no#where", "/bin/sh"})
                  .Read(50)
                  .Findings(),
              IsEmpty());
}

TEST(Judge, AnAccountOfAMixtureIsForgottenByTheNextReadingAndHasToBeAlertedWhenItComes) {
  const auto story = [] {
    return MixedStory("855").Contains(3000, file, later + "855:x:0:0::/nowhere:/bin/sh\n");
  };
  EXPECT_THAT(story().Read(3100).Findings(), ElementsAre("missing 855"));
  EXPECT_THAT(story().Alert(3050, "855").Read(3100).Findings(), IsEmpty());
}

TEST(Judge, TheContentsOfOldStatesAreForgottenAndExplainNothing) {
  const auto findings = [](std::size_t states) {
    Story story;
    story.GoesOn().Contains(0, file, before);
    for (std::size_t i = 2; i < states; ++i) {
      story.Contains(20, otherFile, rootLine);
    }
    return story.Contains(30, file, later).Alert(35, "855").Killed(50).Findings();
  };
  EXPECT_THAT(findings(Segment::contentsKept), IsEmpty());
  EXPECT_THAT(findings(Segment::contentsKept + 1), ElementsAre("invented 855"));
}

TEST(LastMayBeMixed, OnlyWithADifferentShorterContentOfTheSameFileOfLate) {
  const auto may = [](const Story& story, int by) { return LastMayBeMixed(story.Told(), bound, At(by)); };
  const std::string appended = before + cutLine;
  EXPECT_TRUE(may(Story().Contains(0, file, before).Contains(30, file, later), 2530));
  EXPECT_FALSE(may(Story().Contains(0, file, before).Contains(30, file, later), 2531));
  EXPECT_FALSE(may(Story().Contains(0, file, before).Contains(30, otherFile, later), 40));
  EXPECT_FALSE(may(Story().Contains(0, file, before).Contains(30, file, appended), 40));
  EXPECT_FALSE(may(Story().Contains(0, file, later).Contains(30, file, before), 40));
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
