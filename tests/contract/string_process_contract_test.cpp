#include "host/string_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/contract/host_under_test.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using Utils::StringProcess::StrSplit;

class StringProcessContract : public testing::Test {
 private:
  HostUnderTest host;
};

TEST_F(StringProcessContract, ALineOfSevenFieldsGivesExactlySevenPieces) {
  EXPECT_THAT(StrSplit("toor:x:0:100:Toor,,,:/var/toor:/bin/sh", ":", false),
              ElementsAre("toor", "x", "0", "100", "Toor,,,", "/var/toor", "/bin/sh"));
}

TEST_F(StringProcessContract, EmptyPiecesAreKeptWhereverTheyStand) {
  EXPECT_THAT(StrSplit("toor:x:0:0:::", ":", false), ElementsAre("toor", "x", "0", "0", "", "", ""));
  EXPECT_THAT(StrSplit(":x:0:0::/:", ":", false), ElementsAre("", "x", "0", "0", "", "/", ""));
  EXPECT_THAT(StrSplit("::::::", ":", false), ElementsAre("", "", "", "", "", "", ""));
}

TEST_F(StringProcessContract, ALineWithoutASeparatorIsOnePiece) {
  EXPECT_THAT(StrSplit("toor", ":", false), ElementsAre("toor"));
}

TEST_F(StringProcessContract, APieceIsNeitherTrimmedNorCut) {
  const std::string blanks = " \ttoor\r ";
  const std::string bytes = "\xFF\xC3";
  const std::string withNul("to\0or", 5);
  const std::string longest(1000, 'x');
  EXPECT_THAT(StrSplit(blanks + ":" + bytes + ":" + withNul + ":" + longest, ":", false),
              ElementsAre(blanks, bytes, withNul, longest));
}

TEST_F(StringProcessContract, AThousandSeparatorsGiveAThousandAndOnePieces) {
  EXPECT_THAT(StrSplit(std::string(1000, ':'), ":", false), ElementsAreArray(std::vector<std::string>(1001)));
}

TEST_F(StringProcessContract, DecimalTextsBecomeTheirNumbers) {
  const struct {
    const char* text;
    unsigned number;
  } rows[] = {
      {"0", 0},
      {"00", 0},
      {"7", 7},
      {"007", 7},
      {"1000", 1000},
      {"65534", 65534},
      {"2147483648", 2147483648},
      {"4294967295", 4294967295},
  };
  for (const auto& row : rows) {
    unsigned number = 12345;
    EXPECT_TRUE(ConvertStrToNum(row.text, number, 10)) << row.text;
    EXPECT_EQ(number, row.number) << row.text;
  }
}

// What is wrongly taken for 0 raises an alert for an account without root identity; what is wrongly taken for
// another number hides one, as the second of two equal names is dropped.
TEST_F(StringProcessContract, TextsThatAreNoNumberOf32BitsAreRefused) {
  const std::string texts[] = {
      "",
      "x",
      "x1",
      "1x",
      "1000abc",
      "1 2",
      "5 ",
      "1.5",
      "0.0",
      "0x0",
      "0x1F",
      "1e3",
      "--1",
      "+",
      "-",
      "4294967296",            // 2^32: 0 when it wraps
      "8589934592",            // 2^33
      "18446744073709551616",  // 2^64
      "18446744073709551615",
      "99999999999999999999999999",
      std::string("0\0", 2),
      std::string("0\0x", 3),
      std::string("\0", 1),
      "\xD9\xA0",  // a digit, but not one of ours
  };
  for (const std::string& text : texts) {
    unsigned number = 0;
    EXPECT_FALSE(ConvertStrToNum(text, number, 10)) << '"' << text << '"';
  }
}

}  // namespace
