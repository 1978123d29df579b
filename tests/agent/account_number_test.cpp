#include "agent/account_number.h"

#include <dlfcn.h>
#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/account_number_rules.h"
#include "host/string_process.h"
#include "tests/agent/account_number_comparison.h"

namespace {

enum class Shortage { None, OfStreams, OfBuffers };
Shortage shortage = Shortage::None;

}  // namespace

// In place of the C library's functions, which they call as long as memory is not to be short.
extern "C" FILE* fmemopen(void* buffer, std::size_t size, const char* mode) noexcept {
  if (shortage == Shortage::OfStreams) {
    errno = ENOMEM;
    return nullptr;
  }
  static const auto next = reinterpret_cast<decltype(&fmemopen)>(dlsym(RTLD_NEXT, "fmemopen"));
  return next(buffer, size, mode);
}

extern "C" int fgetpwent_r(FILE* stream, passwd* account, char* buffer, std::size_t size, passwd** read) {
  if (shortage == Shortage::OfBuffers) {
    *read = nullptr;
    return ENOMEM;
  }
  static const auto next = reinterpret_cast<decltype(&fgetpwent_r)>(dlsym(RTLD_NEXT, "fgetpwent_r"));
  return next(stream, account, buffer, size, read);
}

namespace {

// strtoul of a library whose unsigned long has so many bits; the number, or nothing when text is left over.
template <typename UnsignedLong>
std::optional<UnsignedLong> Strtoul(const char* text) {
  const char* at = text + std::strspn(text, " \t\v\f\r");
  const bool negative = *at == '-';
  at += *at == '+' || *at == '-' ? 1 : 0;
  if (*at == '\0') {
    return std::nullopt;
  }
  constexpr UnsignedLong largest = std::numeric_limits<UnsignedLong>::max();
  UnsignedLong number = 0;
  bool overflows = false;
  for (; *at != '\0'; ++at) {
    if (*at < '0' || *at > '9') {
      return std::nullopt;
    }
    const UnsignedLong digit = static_cast<UnsignedLong>(*at - '0');
    overflows = overflows || number > largest / 10 || number * 10 > largest - digit;
    number = number * 10 + digit;
  }
  return overflows ? largest : negative ? UnsignedLong(0) - number : number;
}

constexpr std::uint64_t largestId = 0xffffffff;

LibraryAnswer TakenIf(bool taken, std::uint64_t value, std::uint32_t& number) {
  if (taken) {
    number = static_cast<std::uint32_t>(value);
  }
  return taken ? LibraryAnswer::Taken : LibraryAnswer::Refused;
}

// What does not fit is refused: glibc 2.36 on every target, and older ones of 64 bits.
LibraryAnswer Refusing64(const char* text, std::uint32_t& number) {
  const auto value = Strtoul<std::uint64_t>(text);
  return TakenIf(value && *value <= largestId, value.value_or(0), number);
}

// strtoul's number of 32 bits, taken as it is.
LibraryAnswer Saturating32(const char* text, std::uint32_t& number) {
  const auto value = Strtoul<std::uint32_t>(text);
  return TakenIf(value.has_value(), value.value_or(0), number);
}

// A number of 64 bits, where what is too large becomes the largest.
LibraryAnswer Clamping64(const char* text, std::uint32_t& number) {
  const auto value = Strtoul<std::uint64_t>(text);
  return TakenIf(value.has_value(), value.value_or(0) > largestId ? largestId : value.value_or(0), number);
}

// A number of 64 bits, assigned to one of 32.
LibraryAnswer Truncating64(const char* text, std::uint32_t& number) {
  const auto value = Strtoul<std::uint64_t>(text);
  return TakenIf(value.has_value(), value.value_or(0), number);
}

// musl's loop over the digits.
LibraryAnswer WrappingDigits(const char* text, std::uint32_t& number) {
  std::uint32_t value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    value = value * 10 + static_cast<std::uint32_t>(*text - '0');
  }
  return TakenIf(*text == '\0', value, number);
}

// The same for a careful library: nothing that does not fit, nothing empty, and a minus only of 0.
LibraryAnswer RefusingDigits(const char* text, std::uint32_t& number) {
  const bool negative = *text == '-';
  text += negative ? 1 : 0;
  std::uint64_t value = 0;
  const char* const first = text;
  for (; *text >= '0' && *text <= '9' && value <= largestId; ++text) {
    value = value * 10 + static_cast<std::uint64_t>(*text - '0');
  }
  const bool fits = value <= (negative ? 0 : largestId);
  return TakenIf(text != first && *text == '\0' && fits, value, number);
}

struct SimulatedLibrary {
  const char* name;
  AskLibrary ask;
  unsigned width;
  // What these become; nothing when they are refused.
  std::optional<std::uint32_t> empty;
  std::optional<std::uint32_t> blankAndPlus7;
  std::optional<std::uint32_t> minus0;
  std::optional<std::uint32_t> minus1;
  std::optional<std::uint32_t> sevenMore32;       // 2^32 + 7
  std::optional<std::uint32_t> sevenMore64;       // 2^64 + 7
  std::optional<std::uint32_t> minusSevenLess32;  // -(2^32 - 7)
  std::optional<std::uint32_t> minusSevenLess64;  // -(2^64 - 7)
  std::optional<std::uint32_t> minusSevenMore64;  // -(2^64 + 7)
};

constexpr std::nullopt_t no = std::nullopt;
constexpr std::uint32_t largest = 0xffffffff;
const SimulatedLibrary libraries[] = {
    {"refuses what is beyond 32 of 64 bits", Refusing64, 64, no, 7, 0, no, no, no, no, 7, no},
    {"saturates in 32 bits", Saturating32, 32, no, 7, 0, largest, largest, largest, 7, largest, largest},
    {"takes the largest instead", Clamping64, 64, no, 7, 0, largest, largest, largest, largest, 7, largest},
    {"cuts 64 bits to 32", Truncating64, 64, no, 7, 0, largest, 7, largest, 7, 7, largest},
    {"wraps digits", WrappingDigits, 64, 0, no, no, no, 7, 7, no, no, no},
    {"refuses what does not fit", RefusingDigits, 64, no, no, 0, no, no, no, no, no, no},
};

std::optional<std::uint32_t> ReadBy(const AccountNumberRules& rules, const std::string& text) {
  std::uint32_t number = 4711;
  if (ReadAccountNumber(rules, text.data(), text.size(), number)) {
    return number;
  }
  EXPECT_EQ(number, 4711u) << "a text that is refused leaves the number alone";
  return std::nullopt;
}

TEST(AccountNumberRulesTest, AreFoundByAskingTheLibrary) {
  for (const SimulatedLibrary& library : libraries) {
    SCOPED_TRACE(library.name);
    AccountNumberRules rules{};
    ASSERT_TRUE(FindAccountNumberRules(library.ask, rules));

    EXPECT_EQ(rules.width, library.width);
    EXPECT_EQ(ReadBy(rules, ""), library.empty);
    EXPECT_EQ(ReadBy(rules, " \t\v\f\r+7"), library.blankAndPlus7);
    EXPECT_EQ(ReadBy(rules, "-0"), library.minus0);
    EXPECT_EQ(ReadBy(rules, "-1"), library.minus1);
    EXPECT_EQ(ReadBy(rules, "4294967303"), library.sevenMore32);
    EXPECT_EQ(ReadBy(rules, "18446744073709551623"), library.sevenMore64);
    EXPECT_EQ(ReadBy(rules, "-4294967289"), library.minusSevenLess32);
    EXPECT_EQ(ReadBy(rules, "-18446744073709551609"), library.minusSevenLess64);
    EXPECT_EQ(ReadBy(rules, "-18446744073709551623"), library.minusSevenMore64);
    for (const std::string text :
         {"0", "00", "007", "1000", "4294967295", "000000000000000000000000000005"}) {
      EXPECT_EQ(ReadBy(rules, text), std::strtoul(text.c_str(), nullptr, 10)) << text;
    }
    for (const std::string& text : {std::string(" "), std::string("+"), std::string("-"), std::string("7 "),
                                    std::string("0x7"), std::string("- 7"), std::string("+-7"),
                                    std::string("1000abc"), std::string("0\0", 2), std::string("\0", 1),
                                    std::string("\0"
                                                "7",
                                                2),
                                    std::string("\xa0"
                                                "7"),
                                    std::string("/"), std::string(";")}) {
      EXPECT_EQ(ReadBy(rules, text), no) << testing::PrintToString(text);
    }
  }
}

TEST(AccountNumberRulesTest, ReadRandomTextsAsTheLibraryDoesThatTheyWereFoundFrom) {
  for (const SimulatedLibrary& library : libraries) {
    SCOPED_TRACE(library.name);
    AccountNumberRules rules{};
    ASSERT_TRUE(FindAccountNumberRules(library.ask, rules));
    RandomNumberTexts random(3);
    int taken = 0;
    for (int round = 0; round < 20000; ++round) {
      const RandomNumberText made = random.Next();
      const std::string text(made.text, made.length);
      std::uint32_t expected = 0;
      const bool expectTaken =
          text.find('\0') == std::string::npos && library.ask(text.c_str(), expected) == LibraryAnswer::Taken;
      ASSERT_EQ(ReadBy(rules, text), expectTaken ? std::optional<std::uint32_t>(expected) : no)
          << testing::PrintToString(text);
      taken += expectTaken ? 1 : 0;
    }
    EXPECT_GT(taken, 500) << "both answers are put to the test";
    EXPECT_LT(taken, 18000);
  }
}

TEST(AccountNumberRulesTest, OneBlankIsTakenWhereAnotherIsNot) {
  // Given a library that takes spaces and carriage returns in front, and no other blanks
  const AskLibrary ask = [](const char* text, std::uint32_t& number) {
    return Refusing64(std::strpbrk(text, "\t\v\f") == nullptr ? text : "x", number);
  };
  AccountNumberRules rules{};
  ASSERT_TRUE(FindAccountNumberRules(ask, rules));

  EXPECT_EQ(ReadBy(rules, " \r7"), 7u);
  for (const char* const text : {"\t7", "\v7", "\f7", "\n7"}) {
    EXPECT_EQ(ReadBy(rules, text), no) << testing::PrintToString(text);
  }
}

// The library that is asked below, and from which question on it does not answer.
int questions = 0;
int unanswered = 0;

LibraryAnswer AskForgetful(const char* text, std::uint32_t& number) {
  return ++questions == unanswered ? LibraryAnswer::None : WrappingDigits(text, number);
}

TEST(AccountNumberRulesTest, AreNotKnownWhenAnyQuestionWasNotAnswered) {
  AccountNumberRules rules{};
  rules.width = 1;
  unanswered = 0;
  questions = 0;
  ASSERT_TRUE(FindAccountNumberRules(AskForgetful, rules));
  const int all = questions;
  ASSERT_GT(all, 10);
  for (unanswered = 1; unanswered <= all; ++unanswered) {
    questions = 0;
    rules.width = 1;
    EXPECT_FALSE(FindAccountNumberRules(AskForgetful, rules)) << "question " << unanswered;
    EXPECT_EQ(rules.width, 1u) << "question " << unanswered;
  }
}

TEST(AccountNumberReaderTest, AsksTheLibraryOnceAtTheFirstReading) {
  questions = 0;
  unanswered = 0;
  AccountNumberReader reader(AskForgetful);
  EXPECT_EQ(questions, 0);

  EXPECT_EQ(reader.Read("4294967303"), 7u);
  const int asked = questions;
  EXPECT_EQ(reader.Read(""), 0u);
  EXPECT_EQ(reader.Read(" 7"), no);

  EXPECT_GT(asked, 0);
  EXPECT_EQ(questions, asked);
}

TEST(AccountNumberReaderTest, ReadsLikeARefusingStrtoulUntilTheLibraryAnswers) {
  AccountNumberReader reader(AskForgetful);
  const struct {
    const char* text;
    std::optional<std::uint32_t> number;
  } rows[] = {{"0000000000", 0}, {" \t\v\f\r+7", 7},      {"-0", 0},          {"", no},
              {"7 ", no},        {"4294967295", largest}, {"4294967296", no}, {"18446744073709551616", no}};
  for (const auto& row : rows) {
    questions = 0;
    unanswered = 5;  // another one each time, and never all of them
    EXPECT_EQ(reader.Read(row.text), row.number) << testing::PrintToString(row.text);
    EXPECT_GE(questions, 5);
  }

  unanswered = 0;
  EXPECT_EQ(reader.Read("4294967296"), 0u) << "it answered, and it wraps";
  EXPECT_EQ(reader.Read("+7"), no);
}

TEST(AccountNumberReaderTest, NobodyIsAskedAboutPlainDigits) {
  AccountNumberReader reader(AskForgetful);
  questions = 0;
  for (const char* const text : {"0", "7", "000000000", "999999999", "1000"}) {
    EXPECT_EQ(reader.Read(text), std::strtoul(text, nullptr, 10));
  }
  EXPECT_EQ(questions, 0);
  for (const char* const text : {"1000000000", "12a4", ""}) {
    unanswered = 5;  // so that it is asked again the next time
    reader.Read(text);
    EXPECT_GT(questions, 0) << text;
    questions = 0;
  }
}

TEST(AccountNumberReaderTest, ThreadsThatReadAtTheSameTimeAllGetTheLibrarysAnswer) {
  for (int round = 0; round < 50; ++round) {
    AccountNumberReader reader(Clamping64);
    std::vector<std::thread> threads;
    std::vector<std::optional<std::uint32_t>> numbers(4);
    for (std::optional<std::uint32_t>& number : numbers) {
      threads.emplace_back([&reader, &number] { number = reader.Read("4294967296"); });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    ASSERT_THAT(numbers, testing::Each(std::optional<std::uint32_t>(largest)));
  }
}

// The tests below are about the C library that they are linked with.

AccountNumberRules RulesOfThisLibrary() {
  AccountNumberRules rules{};
  EXPECT_TRUE(FindAccountNumberRules(AskThisLibrary, rules));
  return rules;
}

TEST(AccountNumberTest, TheLibraryIsAskedWithoutARealFile) {
  std::uint32_t number = 4711;
  EXPECT_EQ(AskThisLibrary("1000", number), LibraryAnswer::Taken);
  EXPECT_EQ(number, 1000u);
  EXPECT_EQ(AskThisLibrary("x", number), LibraryAnswer::Refused);
  EXPECT_EQ(number, 1000u);
  EXPECT_EQ(AskThisLibrary(std::string(1000, '0').c_str(), number), LibraryAnswer::None) << "too long";
}

TEST(AccountNumberTest, WithoutMemoryTheLibraryGivesNoAnswerInsteadOfARefusal) {
  AccountNumberReader reader(AskThisLibrary);
  for (const Shortage kind : {Shortage::OfStreams, Shortage::OfBuffers}) {
    shortage = kind;
    std::uint32_t number = 4711;
    EXPECT_EQ(AskThisLibrary("7", number), LibraryAnswer::None);
    EXPECT_EQ(AskThisLibrary("x", number), LibraryAnswer::None);
    EXPECT_EQ(number, 4711u);
    AccountNumberRules rules{};
    EXPECT_FALSE(FindAccountNumberRules(AskThisLibrary, rules));
    EXPECT_EQ(reader.Read(" +0"), 0u);
  }
  shortage = Shortage::None;
  EXPECT_EQ(reader.Read("-18446744073709551615"), 1u) << "asked again, which no 32-bit strtoul gives";
}

// glibc's reader is the same on all targets.
TEST(AccountNumberTest, ThisLibraryReadsNumbersOf64BitsAndRefusesWhatIsBeyond32) {
  const AccountNumberRules rules = RulesOfThisLibrary();
  EXPECT_TRUE(rules.takesSpace && rules.takesTab && rules.takesVerticalTab && rules.takesFormFeed &&
              rules.takesCarriageReturn && rules.takesPlus);
  EXPECT_FALSE(rules.takesEmpty);
  EXPECT_EQ(rules.minus, MinusSign::Turned);
  EXPECT_EQ(rules.width, 64u);
  EXPECT_EQ(rules.beyond32Bits, BeyondRange::Refused);
}

void ExpectTheSameAsThisLibrary(IdField field, std::uint64_t seed) {
  const unsigned long texts = VELTA_CODE_IS_SLOW ? 50000 : 1000000;
  const NumberComparison found = CompareWithThisLibrary(RulesOfThisLibrary(), field, seed, texts);
  std::printf("seed %lu, %lu texts: %lu taken, %lu refused, %lu of them with a NUL, %lu read otherwise\n",
              static_cast<unsigned long>(seed), texts, found.taken, found.refused, found.withNul,
              found.differing);

  EXPECT_EQ(found.differing, 0u) << "the first: " << found.firstDifference;
  EXPECT_EQ(found.taken + found.refused, texts);
  EXPECT_GT(found.taken, texts / 10) << "both answers are put to the test";
  EXPECT_GT(found.refused, texts / 10);
  EXPECT_GT(found.withNul, texts / 100);
}

TEST(AccountNumberTest, RandomUserIdsAreReadAsThisLibraryReadsThem) {
  ExpectTheSameAsThisLibrary(IdField::User, 1);
}

TEST(AccountNumberTest, RandomGroupIdsAreReadAsThisLibraryReadsThem) {
  ExpectTheSameAsThisLibrary(IdField::Group, 2);
}

TEST(AccountNumberTest, TheServiceReadsBase10ByTheRulesOfThisLibrary) {
  const AccountNumberRules rules = RulesOfThisLibrary();
  RandomNumberTexts random(4);
  for (int round = 0; round < 50000; ++round) {
    const RandomNumberText made = random.Next();
    const std::string text(made.text, made.length);
    unsigned value = 4711;
    const bool taken = ConvertStrToNum(text, value, 10);
    ASSERT_EQ(taken ? std::optional<std::uint32_t>(value) : no, ReadBy(rules, text))
        << testing::PrintToString(text);
    ASSERT_TRUE(taken || value == 4711) << testing::PrintToString(text);
  }
}

}  // namespace
