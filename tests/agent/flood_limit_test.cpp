#include "agent/flood_limit.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>

#include "tests/agent/steady_time.h"

namespace {

using std::chrono::milliseconds;

std::size_t TakenOf(FloodLimit& limit, std::size_t count, FloodLimit::Time now) {
  std::size_t taken = 0;
  for (std::size_t number = 0; number < count; ++number) {
    taken += limit.Take(now) ? 1U : 0U;
  }
  return taken;
}

TEST(FloodLimitTest, AsManyAsTheLimitAreTakenAndTheRestIsCounted) {
  FloodLimit limit(3, milliseconds(1000));
  EXPECT_EQ(TakenOf(limit, 3, At(0)), 3U);
  EXPECT_EQ(limit.ToTell(At(2000)), 0U);
  EXPECT_EQ(TakenOf(limit, 4, At(999)), 0U);
  EXPECT_EQ(limit.ToTell(At(2000)), 4U);
}

TEST(FloodLimitTest, TheWindowBeginsWithItsFirstAndTheNextWithTheFirstBehindIt) {
  FloodLimit limit(2, milliseconds(1000));
  EXPECT_TRUE(limit.Take(At(0)));
  EXPECT_TRUE(limit.Take(At(900)));
  EXPECT_FALSE(limit.Take(At(999)));
  EXPECT_TRUE(limit.Take(At(1500))) << "whatever was dropped";
  EXPECT_TRUE(limit.Take(At(2000))) << "of the window from 1500 on";
  EXPECT_FALSE(limit.Take(At(2499)));
  EXPECT_TRUE(limit.Take(At(2500)));
}

TEST(FloodLimitTest, WhatWasDroppedIsNotToldWhileThereMayBeMore) {
  FloodLimit limit(1, milliseconds(1000));
  EXPECT_EQ(limit.ToTell(At(0)), 0U);
  EXPECT_EQ(TakenOf(limit, 6, At(0)), 1U);
  EXPECT_EQ(limit.ToTell(At(999)), 0U);
  EXPECT_EQ(limit.ToTell(At(1000)), 5U);
  EXPECT_EQ(limit.ToTell(FloodLimit::Time::max()), 5U);
}

TEST(FloodLimitTest, WhatWasToldIsNotToldAgain) {
  FloodLimit limit(1, milliseconds(1000));
  TakenOf(limit, 6, At(0));
  limit.Told();
  EXPECT_EQ(limit.ToTell(At(1000)), 0U);
  TakenOf(limit, 3, At(1000));
  EXPECT_EQ(limit.ToTell(At(2000)), 2U);
}

TEST(FloodLimitTest, WhatCouldNotBeToldIsAddedToWhatIsDroppedNext) {
  FloodLimit limit(1, milliseconds(1000));
  TakenOf(limit, 6, At(0));
  TakenOf(limit, 3, At(1000));
  EXPECT_EQ(limit.ToTell(At(1999)), 0U);
  EXPECT_EQ(limit.ToTell(At(2000)), 7U);
}

// A machine that has just been started has a clock near zero.
TEST(FloodLimitTest, TheFirstIsTakenAtAnyTime) {
  FloodLimit limit(1, milliseconds(1000));
  EXPECT_TRUE(limit.Take(FloodLimit::Time()));
  EXPECT_FALSE(limit.Take(FloodLimit::Time(milliseconds(999))));
}

}  // namespace
