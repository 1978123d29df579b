#include "agent/utc_time.h"

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/utc_time.h"

namespace {

// Five hours and a half ahead: a text in local time would differ in every field but the seconds.
class UtcTimeTest : public testing::Test {
 protected:
  UtcTimeTest() {
    setenv("TZ", "TEST-05:30", 1);
    tzset();
  }
  ~UtcTimeTest() override {
    unsetenv("TZ");
    tzset();
  }
};

struct MomentCase {
  std::time_t moment;
  const char* text;
};

TEST_F(UtcTimeTest, AMomentIsWrittenInUtcWhateverTheTimeZone) {
  const std::vector<MomentCase> table = {
      {0, "1970-01-01 00:00:00"},         {1772352942, "2026-03-01 08:15:42"},
      {951782400, "2000-02-29 00:00:00"}, {951868799, "2000-02-29 23:59:59"},
      {951868800, "2000-03-01 00:00:00"}, {2147483647, "2038-01-19 03:14:07"},
      {-1, "1969-12-31 23:59:59"},        {-2147483647 - 1, "1901-12-13 20:45:52"},
  };
  for (const MomentCase& row : table) {
    EXPECT_EQ(UtcTimeText(row.moment), row.text);
  }
}

TEST_F(UtcTimeTest, TheCalendarReachesAsFarAsTheClock) {
  constexpr std::time_t last = std::numeric_limits<std::time_t>::max();
  if (sizeof(std::time_t) == 4) {
    EXPECT_EQ(UtcTimeText(last), "2038-01-19 03:14:07");
  } else {
    EXPECT_EQ(UtcTimeText(last / 2 / 1073741824), "2106-02-07 06:28:15");
    EXPECT_EQ(UtcTimeText(last), "");
  }
}

TEST_F(UtcTimeTest, TheServiceGivesTheCurrentTime) {
  std::string now("left from before");
  const std::string before = UtcTimeText(std::time(nullptr));
  UtilsGetUtcTime(now);
  const std::string after = UtcTimeText(std::time(nullptr));

  // This form sorts by time.
  EXPECT_THAT(now, testing::AllOf(testing::Ge(before), testing::Le(after)));
}

}  // namespace
