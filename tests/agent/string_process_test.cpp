#include "host/string_process.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Utils::StringProcess::StrSplit;

struct SplitCase {
  std::string text;
  std::string separator;
  bool skipEmpty;
  std::vector<std::string> pieces;
};

TEST(StrSplitTest, GivesThePiecesInOrder) {
  const std::vector<SplitCase> table = {
      {"root:x:0:0:root:/root:/bin/bash", ":", false, {"root", "x", "0", "0", "root", "/root", "/bin/bash"}},
      {"::::::", ":", false, {"", "", "", "", "", "", ""}},
      {"::::::", ":", true, {}},
      {"", ":", false, {""}},
      {"", ":", true, {}},
      {":", ":", false, {"", ""}},
      {"a", ":", false, {"a"}},
      {"a", ":", true, {"a"}},
      {":a", ":", false, {"", "a"}},
      {"a:", ":", false, {"a", ""}},
      {":a::b:", ":", false, {"", "a", "", "b", ""}},
      {":a::b:", ":", true, {"a", "b"}},
      {"a b:c\t:\r", ":", false, {"a b", "c\t", "\r"}},
      {"a, b,c, d", ", ", false, {"a", "b,c", "d"}},
      {"aaaaa", "aa", false, {"", "", "a"}},
      {"aaaaa", "aa", true, {"a"}},
      {"ab", "abc", false, {"ab"}},
      {"abc", "abc", false, {"", ""}},
      {"a:b", "", false, {"a:b"}},
      {"a:b", "", true, {"a:b"}},
      {"", "", false, {""}},
      {"", "", true, {}},
      {std::string("a\0:b", 4), ":", false, {std::string("a\0", 2), "b"}},
      {std::string("a\0b", 3), std::string(1, '\0'), false, {"a", "b"}},
      {"\xff:\xc3\xa9", ":", false, {"\xff", "\xc3\xa9"}},
  };
  for (const SplitCase& row : table) {
    EXPECT_EQ(StrSplit(row.text, row.separator, row.skipEmpty), row.pieces)
        << testing::PrintToString(row.text) << " at " << testing::PrintToString(row.separator)
        << (row.skipEmpty ? " without" : " with") << " empty pieces";
  }
}

std::string RandomText(std::minstd_rand& random, const std::string& alphabet, std::size_t longest) {
  std::string text(random() % (longest + 1), ' ');
  for (char& character : text) {
    character = alphabet[random() % alphabet.size()];
  }
  return text;
}

TEST(StrSplitTest, ThePiecesPutTogetherAgainAreTheText) {
  std::minstd_rand random(1);
  for (int round = 0; round < 20000; ++round) {
    const std::string text = RandomText(random, "ab:", 12);
    const std::string separator = RandomText(random, "ab:", 2) + "a";
    std::string joined;
    std::vector<std::string> notEmpty;
    for (const std::string& piece : StrSplit(text, separator, false)) {
      EXPECT_EQ(piece.find(separator), std::string::npos);
      joined += piece + separator;
      if (!piece.empty()) {
        notEmpty.push_back(piece);
      }
    }
    ASSERT_EQ(joined, text + separator) << text << " at " << separator;
    ASSERT_EQ(StrSplit(text, separator, true), notEmpty) << text << " at " << separator;
  }
}

TEST(StrSplitTest, AMegabyteOfSeparatorsGivesOnePieceMore) {
  const std::vector<std::string> pieces = StrSplit(std::string(1048576, ':'), ":", false);

  EXPECT_EQ(pieces, std::vector<std::string>(1048577));
}

constexpr unsigned untouched = 4711;

struct NumberCase {
  std::string text;
  int base;
  unsigned value;
};

TEST(ConvertStrToNumTest, TakesWhatTheCLibraryTakes) {
  const std::vector<NumberCase> table = {
      {"0", 10, 0},
      {"00", 10, 0},
      {"1000", 10, 1000},
      {"0001000", 10, 1000},
      {"4294967295", 10, 4294967295U},
      {std::string(500, '0') + "4294967295", 10, 4294967295U},
      {"+0", 10, 0},
      {"-0", 10, 0},
      {"-000", 10, 0},
      {"+7", 10, 7},
      {" 0", 10, 0},
      {"\t0", 10, 0},
      {" \t\n\v\f\r+0", 10, 0},
      {std::string(1000, ' ') + "5", 10, 5},
      {"08", 10, 8},
      {"-18446744073709551615", 10, 1},  // turned in 64 bits on all targets; see account_number_test.cpp
      {"11111111111111111111111111111111", 2, 4294967295U},
      {"37777777777", 8, 4294967295U},
      {"ffffffff", 16, 4294967295U},
      {"FfFf", 16, 65535},
      {"0x1F", 16, 31},
      {"0X1f", 16, 31},
      {"-0x0", 16, 0},
      {"zz", 36, 1295},
      {"0x", 36, 33},
  };
  for (const NumberCase& row : table) {
    unsigned value = untouched;
    EXPECT_TRUE(ConvertStrToNum(row.text, value, row.base)) << testing::PrintToString(row.text);
    EXPECT_EQ(value, row.value) << testing::PrintToString(row.text);
  }
}

struct NoNumberCase {
  std::string text;
  int base;
};

TEST(ConvertStrToNumTest, RefusesEverythingElseAndLeavesTheValueAlone) {
  const std::vector<NoNumberCase> table = {
      {"", 10},
      {" ", 10},
      {"+", 10},
      {"-", 10},
      {" - ", 10},
      {"x", 10},
      {"0 ", 10},
      {"5\n", 10},
      {"0.0", 10},
      {"1e3", 10},
      {"1000abc", 10},
      {"1,000", 10},
      {"0x0", 10},
      {"0a", 10},
      {"++0", 10},
      {"+-0", 10},
      {"--0", 10},
      {"+ 0", 10},
      {"-1", 10},
      {"-4294967295", 10},
      {"-4294967296", 10},
      {"-18446744073709551616", 10},
      {"4294967296", 10},
      {"42949672950", 10},
      {"8589934592", 10},
      {"18446744073709551615", 10},
      {"18446744073709551616", 10},
      {"18446744073709551617", 10},
      {"79228162514264337593543950336", 10},
      {std::string(1000, '9'), 10},
      {std::string("0\0", 2), 10},
      {std::string("\0", 1), 10},
      {std::string("\0"
                   "0",
                   2),
       10},
      {std::string("1\0"
                   "2",
                   3),
       10},
      {"\xa0"
       "0",
       10},  // a blank in a Latin locale
      {"\xc2\xa0"
       "0",
       10},                  // and in UTF-8
      {"\xd9\xa0", 10},      // a zero in another script
      {"\xef\xbc\x90", 10},  // a wide zero
      {"\xff", 10},
      {"\x1c"
       "0",
       10},
      {"\b0", 10},
      {"2", 2},
      {"8", 8},
      {"g", 16},
      {"0x", 16},
      {"0xg", 16},
      {"0x 1", 16},
      {"0x-1", 16},
      {"0x0x1", 16},
      {"100000000", 16},
      {"0x1", 8},
      {"{", 36},
      {"0", 0},
      {"0", 1},
      {"0", -1},
      {"0", 37},
      {"0x1f", 0},
  };
  for (const NoNumberCase& row : table) {
    unsigned value = untouched;
    EXPECT_FALSE(ConvertStrToNum(row.text, value, row.base))
        << testing::PrintToString(row.text) << " to base " << row.base;
    EXPECT_EQ(value, untouched) << testing::PrintToString(row.text) << " to base " << row.base;
  }
}

// The C library's converter, which stops at a NUL and turns a negative number around: both are refused here.
bool LibraryConverts(const std::string& text, unsigned long long& value, int base) {
  char* end = nullptr;
  errno = 0;
  value = std::strtoull(text.c_str(), &end, base);
  const bool isWhole = !text.empty() && end == text.c_str() + text.size();
  const bool isNegative = text.find('-') != std::string::npos;
  return isWhole && errno == 0 && value <= 4294967295ULL && (!isNegative || value == 0);
}

TEST(ConvertStrToNumTest, AgreesWithTheCLibraryOnRandomTexts) {
  constexpr char characters[] = "0000112345678999aAfFxXzZ  \t\n\v\f\r++--.,:_\0\xff";
  const std::string alphabet(characters, sizeof(characters) - 1);
  std::minstd_rand random(2);
  int taken = 0;
  constexpr int rounds = VELTA_CODE_IS_SLOW ? 20000 : 200000;
  for (int round = 0; round < rounds; ++round) {
    const int base = round % 4 == 0 ? static_cast<int>(3 + random() % 34) : 10;
    const std::string front = RandomText(random, " \t+-0x", 2);
    const std::string text = front + RandomText(random, round % 2 == 0 ? "0123456789" : alphabet, 11);
    unsigned long long expected = 0;
    const bool expectTaken = LibraryConverts(text, expected, base);
    unsigned value = untouched;
    ASSERT_EQ(ConvertStrToNum(text, value, base), expectTaken)
        << testing::PrintToString(text) << " to base " << base;
    ASSERT_EQ(value, expectTaken ? expected : untouched)
        << testing::PrintToString(text) << " to base " << base;
    taken += expectTaken ? 1 : 0;
  }
  // Both answers were put to the test.
  EXPECT_GT(taken, rounds / 5);
  EXPECT_LT(taken, rounds * 4 / 5);
}

TEST(ConvertStrToNumTest, AgreesWithTheCLibraryOnEveryTextOfOneOrTwoBytes) {
  for (int first = 0; first < 256; ++first) {
    for (int second = -1; second < 256; ++second) {
      std::string text(1, static_cast<char>(first));
      if (second >= 0) {
        text += static_cast<char>(second);
      }
      unsigned long long expected = 0;
      const bool expectTaken = LibraryConverts(text, expected, 10);
      unsigned value = untouched;
      ASSERT_EQ(ConvertStrToNum(text, value, 10), expectTaken) << testing::PrintToString(text);
      ASSERT_EQ(value, expectTaken ? expected : untouched) << testing::PrintToString(text);
    }
  }
}

}  // namespace
