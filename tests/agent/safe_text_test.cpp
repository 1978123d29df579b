#include "agent/safe_text.h"

#include <cstddef>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct SafeTextCase {
  std::string text;
  std::string safe;
};

TEST(SafeTextTest, EscapesWhatDisturbsALineAndNothingElse) {
  const std::vector<SafeTextCase> table = {
      {"", ""},
      {"The line of /etc/passwd is too long.[line=%d] {}",
       "The line of /etc/passwd is too long.[line=%d] {}"},
      {"a\\n\\", R"(a\\n\\)"},
      {"a\nb\r\n\tc", R"(a\nb\r\n\tc)"},
      {std::string("a\0b", 3), R"(a\x00b)"},
      {"\x01\b\v\f\x1b[31m\x1f ~\x7f", R"(\x01\x08\x0b\x0c\x1b[31m\x1f ~\x7f)"},
      // Beyond ASCII: controls, the first character behind them, letters, the last code point
      {"\xc2\x80\xc2\x85\xc2\x9b\xc2\x9f", R"(\u0080\u0085\u009b\u009f)"},
      {"\xc2\xa0", "\xc2\xa0"},
      {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf",
       "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"},
      {"\xed\x9f\xbf\xee\x80\x80", "\xed\x9f\xbf\xee\x80\x80"},  // the neighbours of the surrogates
      // Separators of lines, and what turns a line around or hides in it
      {"\xe2\x80\xa7\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaf", "\xe2\x80\xa7\\u2028\\u2029\xe2\x80\xaf"},
      {"\xe2\x80\xaa\xe2\x80\xab\xe2\x80\xac\xe2\x80\xad\xe2\x80\xae", R"(\u202a\u202b\u202c\u202d\u202e)"},
      {"\xe2\x81\xa5\xe2\x81\xa6\xe2\x81\xa7\xe2\x81\xa8\xe2\x81\xa9\xe2\x81\xaa",
       "\xe2\x81\xa5\\u2066\\u2067\\u2068\\u2069\xe2\x81\xaa"},
      {"\xd8\x9b\xd8\x9c\xd8\x9d", "\xd8\x9b\\u061c\xd8\x9d"},
      {"\xe2\x80\x8d\xe2\x80\x8e\xe2\x80\x8f\xe2\x80\x90", "\xe2\x80\x8d\\u200e\\u200f\xe2\x80\x90"},
      {"\xef\xbb\xbf", R"(\ufeff)"},
      // Bytes that are no UTF-8: on their own, cut short, another spelling, a surrogate, beyond the last
      {"\xff\xfe\x80\xbf", R"(\xff\xfe\x80\xbf)"},
      {"a\xc3", R"(a\xc3)"},
      {"\xc3(", R"(\xc3()"},
      {"\xe2\x82", R"(\xe2\x82)"},
      {"\xe2\x82(", R"(\xe2\x82()"},
      {"\xe2\xc3\xa9", "\\xe2\xc3\xa9"},
      {"\xf0\x9f\x98", R"(\xf0\x9f\x98)"},
      {"\xc0\x80\xc0\x8a\xc1\xbf", R"(\xc0\x80\xc0\x8a\xc1\xbf)"},
      {"\xe0\x80\x8a\xe0\x9f\xbf", R"(\xe0\x80\x8a\xe0\x9f\xbf)"},
      {"\xf0\x80\x80\x8a\xf0\x8f\xbf\xbf", R"(\xf0\x80\x80\x8a\xf0\x8f\xbf\xbf)"},
      {"\xed\xa0\x80\xed\xbf\xbf", R"(\xed\xa0\x80\xed\xbf\xbf)"},
      {"\xf4\x90\x80\x80", R"(\xf4\x90\x80\x80)"},
      {"\xf8\x88\x80\x80\x80", R"(\xf8\x88\x80\x80\x80)"},
  };
  for (const SafeTextCase& row : table) {
    EXPECT_EQ(SafeText(row.text), row.safe);
  }
}

TEST(SafeTextTest, NoTwoTextsOfOneOrTwoBytesLookTheSame) {
  std::set<std::string> seen;
  for (int first = 0; first < 256; ++first) {
    for (int second = -1; second < 256; ++second) {
      std::string text(1, static_cast<char>(first));
      if (second >= 0) {
        text += static_cast<char>(second);
      }
      const std::string safe = SafeText(text);
      ASSERT_TRUE(seen.insert(safe).second) << safe;
      for (const char character : safe) {
        ASSERT_FALSE((character >= 0 && character < ' ') || character == 0x7f)
            << testing::PrintToString(text);
      }
    }
  }
}

struct CutCase {
  std::string text;
  std::size_t longest;
  std::string appended;
  std::size_t taken;
};

TEST(SafeTextTest, ACutSplitsNeitherCharactersNorEscapes) {
  const std::vector<CutCase> table = {
      {"abc", 0, "", 0},
      {"abc", 2, "ab", 2},
      {"abc", 3, "abc", 3},
      {"abc", 4, "abc", 3},
      {"a\nb", 2, "a", 1},
      {"a\nb", 3, "a\\n", 2},
      {"\x1b[0m", 3, "", 0},
      {"\x1b[0m", 4, "\\x1b", 1},
      {"\xe2\x80\xae"
       "a",
       5, "", 0},
      {"\xe2\x80\xae"
       "a",
       6, "\\u202e", 3},
      {"\xe2\x80\xae"
       "a",
       7, "\\u202ea", 4},
      {"a\xc3\xa9", 2, "a", 1},
      {"a\xc3\xa9", 3, "a\xc3\xa9", 3},
      {"\xf0\x9f\x98\x80", 3, "", 0},
      {"", 0, "", 0},
      {"abc", std::numeric_limits<std::size_t>::max(), "abc", 3},
  };
  for (const CutCase& row : table) {
    std::string out("in front: ");
    EXPECT_EQ(AppendSafeText(row.text, row.longest, out), row.taken) << row.appended;
    EXPECT_EQ(out, "in front: " + row.appended);
  }
}

TEST(Utf8Test, OnlyWholeAndShortestSequencesOfCodePointsAreUtf8) {
  for (const std::string& text :
       {std::string(), std::string("toor"), std::string("\0\x01\x7f", 3), std::string("\xc2\x80\xdf\xbf"),
        std::string("\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"),
        std::string("\xf0\x90\x80\x80\xf4\x8f\xbf\xbf")}) {
    EXPECT_TRUE(IsUtf8(text)) << testing::PrintToString(text);
    EXPECT_FALSE(IsUtf8(text + "\xff")) << testing::PrintToString(text);
    EXPECT_FALSE(IsUtf8("\xff" + text)) << testing::PrintToString(text);
  }
  for (const char* const text :
       {"\x80", "\xc3", "\xc3(", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xe2\x82", "\xf0\x8f\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"}) {
    EXPECT_FALSE(IsUtf8(text)) << testing::PrintToString(text);
  }
}

TEST(HexTextTest, IsTwoDigitsForEachByte) {
  EXPECT_EQ(HexText(""), "");
  EXPECT_EQ(HexText("too\xffr"), "746f6fff72");
  EXPECT_EQ(HexText(std::string("\0\x01\x9a\xf0", 4)), "00019af0");
}

}  // namespace
