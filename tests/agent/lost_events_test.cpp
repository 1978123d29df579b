#include "agent/lost_events.h"

#include <string>

#include <gtest/gtest.h>

#include "agent/json.h"

namespace {

std::string AlertOf(const std::string& quotedName) {
  return R"({"eventType":"unauthorized-root-user","eventContent":{"userName":)" + quotedName +
         R"(,"uid":0}})";
}

std::string SummaryOf(const std::string& count, const std::string& names, const std::string& unnamed) {
  return R"({"eventType":"lost-alerts","eventTime":"now","eventContent":{"count":)" + count +
         R"(,"userNames":[)" + names + R"(],"unnamed":)" + unnamed + "}}";
}

TEST(LostEventsTest, TheSummaryNamesEveryLostEventInOrder) {
  LostEvents lost;
  EXPECT_EQ(lost.Count(), 0u);
  lost.Add(AlertOf(R"("zoe")"));
  lost.Add(AlertOf(R"("bob")"));
  lost.Add(AlertOf(R"("bob")"));
  EXPECT_EQ(lost.Count(), 3u);
  EXPECT_EQ(lost.Summary("now"), SummaryOf("3", R"("zoe","bob","bob")", "0"));
}

TEST(LostEventsTest, ANameIsTakenAsItStandsWhateverItHolds) {
  LostEvents lost;
  lost.Add(AlertOf(R"("a\"b\\")"));
  lost.Add(AlertOf(R"("\"userName\":\"no\"")"));
  lost.Add(AlertOf(R"("")"));
  const std::string summary = lost.Summary("now");
  EXPECT_EQ(summary, SummaryOf("3", R"("a\"b\\","\"userName\":\"no\"","")", "0"));
  EXPECT_FALSE(FindJsonFault(summary).has_value());
}

TEST(LostEventsTest, WhatHasNoNameIsCounted) {
  LostEvents lost;
  for (const char* const event : {"", "no JSON", R"({"userName":)", R"({"userName":7})",
                                  R"({"userName":"cut)", R"({"userName":"cut\)"}) {
    lost.Add(event);
  }
  EXPECT_EQ(lost.Summary("now"), SummaryOf("6", "", "6"));
}

TEST(LostEventsTest, NamesTakeBoundedMemoryAndTheOthersAreCounted) {
  LostEvents lost;
  const std::string name = '"' + std::string(1022, 'n') + '"';
  for (int number = 0; number < 100; ++number) {
    lost.Add(AlertOf(name));
  }
  std::string names = name;
  for (int number = 1; number < 63; ++number) {  // 63 names with their commas, of 65,536 bytes
    names += "," + name;
  }
  EXPECT_EQ(lost.Summary("now"), SummaryOf("100", names, "37"));
}

TEST(LostEventsTest, ClearingBeginsAnew) {
  LostEvents lost;
  lost.Add(AlertOf(R"("bob")"));
  lost.Clear();
  EXPECT_EQ(lost.Count(), 0u);
  lost.Add(AlertOf(R"("zoe")"));
  EXPECT_EQ(lost.Summary("now"), SummaryOf("1", R"("zoe")", "0"));
}

}  // namespace
