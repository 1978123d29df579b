#include "agent/minute_limit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

class MinuteLimitTest : public testing::Test {
 protected:
  static void CountEvents(MinuteLimit& limit, unsigned events, MinuteLimit::Time now) {
    for (unsigned event = 0; event < events; ++event) {
      ASSERT_EQ(limit.NextAdmission(now), now) << "event " << event;
      limit.Count(now);
    }
  }

  const MinuteLimit::Time start{hours(5)};
};

TEST_F(MinuteLimitTest, AsManyAsTheLimitMayLeaveAtOnce) {
  MinuteLimit limit(3);
  CountEvents(limit, 3, start);
  EXPECT_EQ(limit.NextAdmission(start), start + minutes(1));
}

TEST_F(MinuteLimitTest, TheMinuteBeginsWithItsFirstEvent) {
  struct Row {
    std::chrono::nanoseconds later;  // than the first event
    bool admitted;
  };
  const std::vector<Row> rows = {{seconds(0), false},
                                 {seconds(59), false},
                                 {minutes(1) - std::chrono::nanoseconds(1), false},
                                 {minutes(1), true},
                                 {hours(24 * 365), true}};
  for (const Row& row : rows) {
    MinuteLimit limit(2);
    CountEvents(limit, 2, start);
    const MinuteLimit::Time now = start + std::chrono::duration_cast<MinuteLimit::Time::duration>(row.later);
    EXPECT_EQ(limit.NextAdmission(now), row.admitted ? now : start + minutes(1)) << row.later.count();
  }
}

TEST_F(MinuteLimitTest, EventsSpreadOverTheMinuteCountTogether) {
  MinuteLimit limit(3);
  CountEvents(limit, 1, start);
  CountEvents(limit, 1, start + seconds(30));
  CountEvents(limit, 1, start + seconds(59));
  EXPECT_EQ(limit.NextAdmission(start + seconds(59)), start + minutes(1));
}

TEST_F(MinuteLimitTest, AMinuteThatHasPassedLeavesNothingToTheNext) {
  // Neither unused room nor events in excess.
  MinuteLimit limit(2);
  CountEvents(limit, 1, start);
  const MinuteLimit::Time next = start + seconds(90);
  CountEvents(limit, 2, next);
  EXPECT_EQ(limit.NextAdmission(next), next + minutes(1));
}

TEST_F(MinuteLimitTest, EventsBeyondTheLimitCountToo) {
  // As when what waits leaves at the end, without regard to the limit.
  MinuteLimit limit(2);
  for (int event = 0; event < 100; ++event) {
    limit.Count(start);
  }
  EXPECT_EQ(limit.NextAdmission(start + seconds(1)), start + minutes(1));
  CountEvents(limit, 2, start + minutes(1));
  EXPECT_EQ(limit.NextAdmission(start + minutes(1)), start + minutes(2));
}

TEST_F(MinuteLimitTest, OneAMinuteGivesOneAMinute) {
  MinuteLimit limit(1);
  MinuteLimit::Time now = start;
  for (int minute = 0; minute < 60; ++minute) {
    EXPECT_EQ(limit.NextAdmission(now), start + minutes(minute));
    now = limit.NextAdmission(now);
    limit.Count(now);
  }
}

TEST_F(MinuteLimitTest, ZeroIsNoLimit) {
  MinuteLimit limit(0);
  CountEvents(limit, 100000, start);
  EXPECT_EQ(limit.NextAdmission(start), start);
}

TEST_F(MinuteLimitTest, TheLargestLimitIsOne) {
  MinuteLimit limit(4294967295U);
  CountEvents(limit, 1000, start);
  EXPECT_EQ(limit.NextAdmission(start), start);
}

TEST_F(MinuteLimitTest, ANewLimitAdmitsAtAnyTime) {
  // A machine that has just been started has a clock near zero.
  const MinuteLimit limit(1);
  EXPECT_EQ(limit.NextAdmission(MinuteLimit::Time()), MinuteLimit::Time());
  EXPECT_EQ(limit.NextAdmission(MinuteLimit::Time(seconds(3))), MinuteLimit::Time(seconds(3)));
}

}  // namespace
