#include "agent/beat.h"

#include <chrono>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Time = Beat::Time;

const Time start{seconds(1000)};

TEST(BeatTest, AtRestAndWithoutAWatchdogNothingIsEverDue) {
  Beat beat(microseconds::zero(), start);
  EXPECT_EQ(beat.NextDue(), std::nullopt);
  EXPECT_FALSE(beat.TakeState(start + std::chrono::hours(1)));
  EXPECT_FALSE(beat.SignIsDue(start + std::chrono::hours(1)));
}

TEST(BeatTest, ChangesOnEachOthersHeelsAreToldOfOnceAndNotPutOffByLaterOnes) {
  Beat beat(microseconds::zero(), start);
  beat.NoteChange(start);
  beat.NoteChange(start + milliseconds(200));
  EXPECT_EQ(beat.NextDue(), start + Beat::settling);
  EXPECT_FALSE(beat.TakeState(start + Beat::settling - milliseconds(1)));
  EXPECT_TRUE(beat.TakeState(start + Beat::settling));
  EXPECT_FALSE(beat.TakeState(start + seconds(10)));
  EXPECT_EQ(beat.NextDue(), std::nullopt);
}

TEST(BeatTest, AMessageThatCouldNotBeSentIsTriedAgainAfterAWaitThatDoublesUpToAMinute) {
  Beat beat(microseconds::zero(), start);
  Time now = start;
  for (const int wait : {1, 2, 4, 8, 16, 32, 60, 60}) {
    beat.SentMessage(false, now);
    EXPECT_EQ(beat.NextDue(), now + seconds(wait));
    EXPECT_FALSE(beat.TakeMessage(now + seconds(wait) - milliseconds(1)));
    now += seconds(wait);
    EXPECT_TRUE(beat.TakeMessage(now));
    EXPECT_FALSE(beat.TakeState(now)) << "the state itself was told elsewhere";
  }
  beat.SentMessage(false, now);
  beat.SentMessage(true, now);
  EXPECT_EQ(beat.NextDue(), std::nullopt);
  beat.SentMessage(false, now);
  EXPECT_EQ(beat.NextDue(), now + seconds(1)) << "from the beginning";
}

TEST(BeatTest, TheEarliestOfAllThatIsDueIsNext) {
  Beat beat(seconds(60), start);
  beat.SentMessage(false, start);
  EXPECT_EQ(beat.NextDue(), start + seconds(1));
  beat.NoteChange(start);
  EXPECT_EQ(beat.NextDue(), start + Beat::settling);
  EXPECT_TRUE(beat.TakeState(start + Beat::settling));
  EXPECT_TRUE(beat.TakeMessage(start + seconds(1)));
  EXPECT_EQ(beat.NextDue(), start + seconds(30));
}

TEST(BeatTest, ASignOfLifeIsDueAtHalfOfTheWatchdogsTime) {
  Beat beat(seconds(60), start);
  EXPECT_EQ(beat.NextDue(), start + seconds(30));
  EXPECT_FALSE(beat.SignIsDue(start + milliseconds(29999)));
  EXPECT_TRUE(beat.SignIsDue(start + seconds(30)));
  beat.GaveSign(true, start + seconds(31));
  EXPECT_EQ(beat.NextDue(), start + seconds(61));
}

TEST(BeatTest, ASignThatCouldNotBeGivenIsTriedAgainSoon) {
  Beat beat(seconds(60), start);
  beat.GaveSign(false, start + seconds(30));
  EXPECT_EQ(beat.NextDue(), start + seconds(30) + Beat::retryInterval);
  Beat quick(milliseconds(400), start);
  quick.GaveSign(false, start);
  EXPECT_EQ(quick.NextDue(), start + milliseconds(200));
}

TEST(BeatTest, TheEarlierOfBothIsWaitedFor) {
  Beat beat(seconds(60), start);
  beat.NoteChange(start);
  EXPECT_EQ(beat.NextDue(), start + Beat::settling);
  EXPECT_TRUE(beat.TakeState(start + seconds(1)));
  EXPECT_EQ(beat.NextDue(), start + seconds(30));
}

DeliveryState Writing(const std::string& output, Time since) {
  DeliveryState state;
  state.output = output;
  state.writingSince = since;
  return state;
}

TEST(BeatTest, OnlyWhoHasGotOnCountsAsAlive) {
  struct Row {
    std::uint64_t rounds;
    std::optional<Time> reading;
    std::vector<DeliveryState> deliveries;
    std::string stuck;
  };
  const Time now = start + seconds(100);
  const Row rows[] = {
      {8, std::nullopt, {DeliveryState()}, ""},
      {7, std::nullopt, {DeliveryState()}, "the file monitor's thread makes no round"},
      {8, now - seconds(30), {DeliveryState()}, ""},
      {8, now - milliseconds(30001), {DeliveryState()}, "a reading does not end"},
      {8, std::nullopt, {DeliveryState(), Writing("syslog", now - seconds(30))}, ""},
      {8,
       std::nullopt,
       {DeliveryState(), Writing("syslog", now - milliseconds(30001))},
       "an attempt to deliver to syslog does not end"},
  };
  Pulse before;
  before.monitorRounds = 7;
  for (const Row& row : rows) {
    EXPECT_EQ(WhatIsStuck(before, Pulse{row.rounds, row.reading, row.deliveries}, seconds(30), now),
              row.stuck);
  }
}

}  // namespace
