#include "agent/account_number_rules.h"

#include <pwd.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

constexpr uint64_t largest32Bits = 0xffffffff;

bool IsBlank(const AccountNumberRules& rules, char character) {
  switch (character) {
    case ' ':
      return rules.takesSpace;
    case '\t':
    case '\n':  // ends a line, so that no library can be asked about it
      return rules.takesTab;
    case '\v':
      return rules.takesVerticalTab;
    case '\f':
      return rules.takesFormFeed;
    case '\r':
      return rules.takesCarriageReturn;
    default:
      return false;
  }
}

bool IsDigit(char character) { return character >= '0' && character <= '9'; }

// A series of questions to one library.
class Questions {
 public:
  explicit Questions(AskLibrary library) : ask(library) {}

  bool Takes(const char* text, uint32_t expected) { return Ask(text) && number == expected; }

  BeyondRange Beyond(const char* sevenBeyondTheRange) {
    if (!Ask(sevenBeyondTheRange)) {
      return BeyondRange::Refused;
    }
    return number == largest32Bits ? BeyondRange::Largest : BeyondRange::Wrapped;
  }

  bool AllAnswered() const { return allAnswered; }

 private:
  bool Ask(const char* text) {
    const LibraryAnswer answer = ask(text, number);
    allAnswered = allAnswered && answer != LibraryAnswer::None;
    return answer == LibraryAnswer::Taken;
  }

  const AskLibrary ask;
  uint32_t number = 0;
  bool allAnswered = true;
};

}  // namespace

bool ReadAccountNumber(const AccountNumberRules& rules, const char* text, size_t length, uint32_t& number) {
  if (length == 0 && rules.takesEmpty) {
    number = 0;
    return true;
  }
  size_t at = 0;
  while (at < length && IsBlank(rules, text[at])) {
    ++at;
  }
  bool negative = false;
  if (at < length &&
      ((text[at] == '+' && rules.takesPlus) || (text[at] == '-' && rules.minus != MinusSign::Refused))) {
    negative = text[at] == '-';
    ++at;
  }
  if (at == length) {
    return false;
  }
  const uint64_t largest = rules.width == 32 ? largest32Bits : UINT64_MAX;
  uint64_t value = 0;
  bool beyondWidth = false;
  for (; at < length; ++at) {
    if (!IsDigit(text[at])) {
      return false;
    }
    const uint64_t digit = static_cast<uint64_t>(text[at] - '0');
    beyondWidth = beyondWidth || value > (largest - digit) / 10;
    value = (value * 10 + digit) & largest;
  }
  if (beyondWidth && rules.beyondWidth == BeyondRange::Refused) {
    return false;
  }
  if (beyondWidth && rules.beyondWidth == BeyondRange::Largest) {
    value = largest;
  } else if (negative && rules.minus == MinusSign::Turned) {
    value = (0 - value) & largest;
  }
  if (negative && rules.minus == MinusSign::OnlyOfZero && value != 0) {
    return false;
  }
  if (value > largest32Bits && rules.beyond32Bits == BeyondRange::Refused) {
    return false;
  }
  if (value > largest32Bits && rules.beyond32Bits == BeyondRange::Largest) {
    value = largest32Bits;
  }
  number = static_cast<uint32_t>(value & largest32Bits);
  return true;
}

// Seven is no number that a library arrives at by accident, as 0 and 1 are.
bool FindAccountNumberRules(AskLibrary ask, AccountNumberRules& rules) {
  Questions library(ask);
  AccountNumberRules found{};
  found.takesSpace = library.Takes(" 7", 7);
  found.takesTab = library.Takes("\t7", 7);
  found.takesVerticalTab = library.Takes("\v7", 7);
  found.takesFormFeed = library.Takes("\f7", 7);
  found.takesCarriageReturn = library.Takes("\r7", 7);
  found.takesPlus = library.Takes("+7", 7);
  found.takesEmpty = library.Takes("", 0);
  const bool takesMinus = library.Takes("-0", 0);
  const bool turnsIn64Bits = library.Takes("-18446744073709551609", 7);  // 7 - 2^64
  const bool turnsIn32Bits = library.Takes("-4294967289", 7);            // 7 - 2^32
  found.minus = turnsIn64Bits || turnsIn32Bits ? MinusSign::Turned
                : takesMinus                   ? MinusSign::OnlyOfZero
                                               : MinusSign::Refused;
  // Without a sign, 64 bits and the rule for what is beyond 32 can stand for a width of 32.
  found.width = turnsIn32Bits && !turnsIn64Bits ? 32 : 64;
  found.beyond32Bits = library.Beyond("4294967303");  // 2^32 + 7
  found.beyondWidth = found.width == 32 ? found.beyond32Bits : library.Beyond("18446744073709551623");
  if (!library.AllAnswered()) {
    return false;
  }
  rules = found;
  return true;
}

// The second account shows that the library got past the first one, and did not just run out of memory.
LibraryAnswer AskThisLibrary(const char* text, uint32_t& number) {
  char file[128];
  const int length = snprintf(file, sizeof(file), "asked:x:%s:1::/:\nwitness:x:1:1::/:\n", text);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(file)) {
    return LibraryAnswer::None;
  }
  FILE* const stream = fmemopen(file, static_cast<size_t>(length), "r");
  if (stream == nullptr) {
    return LibraryAnswer::None;
  }
  LibraryAnswer answer = LibraryAnswer::None;
#ifdef __GLIBC__
  passwd account;
  passwd* read = nullptr;
  char texts[256];
  fgetpwent_r(stream, &account, texts, sizeof(texts), &read);
#else
  const passwd* const read = fgetpwent(stream);
#endif
  if (read != nullptr && strcmp(read->pw_name, "asked") == 0) {
    number = read->pw_uid;
    answer = LibraryAnswer::Taken;
  } else if (read != nullptr && strcmp(read->pw_name, "witness") == 0) {
    answer = LibraryAnswer::Refused;
  }
  fclose(stream);
  return answer;
}
