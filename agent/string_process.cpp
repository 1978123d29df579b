#include "host/string_process.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/account_number.h"

namespace {

constexpr int notADigit = 36;
constexpr std::size_t usualPieces = 7;  // of an account; counting them takes longer than the memory is worth

// What isspace says in the C locale. The account file is not read in the language of whoever starts the
// agent.
bool IsBlank(char character) { return character == ' ' || (character >= '\t' && character <= '\r'); }

int DigitValue(char character) {
  if (character >= '0' && character <= '9') {
    return character - '0';
  }
  if (character >= 'a' && character <= 'z') {
    return character - 'a' + 10;
  }
  if (character >= 'A' && character <= 'Z') {
    return character - 'A' + 10;
  }
  return notADigit;
}

// The most common one, a single character, is looked for without the detour of a general search.
std::size_t Find(const std::string& separator, const std::string& text, std::size_t start) {
  if (separator.size() != 1) {
    return text.find(separator, start);
  }
  return std::string_view(text).find(separator.front(), start);  // in place, where a string's own is a call
}

}  // namespace

namespace Utils {
namespace StringProcess {

// An empty separator separates nothing: the text is its only piece.
std::vector<std::string> StrSplit(const std::string& text, const std::string& separator, bool skipEmpty) {
  std::vector<std::string> pieces;
  pieces.reserve(usualPieces);
  std::size_t start = 0;
  while (true) {
    const std::size_t end = separator.empty() ? std::string::npos : Find(separator, text, start);
    const std::size_t length = (end == std::string::npos ? text.size() : end) - start;
    if (length > 0 || !skipEmpty) {
      pieces.emplace_back(text, start, length);
    }
    if (end == std::string::npos) {
      return pieces;
    }
    start = end + separator.size();
  }
}

}  // namespace StringProcess
}  // namespace Utils

// To base 10 exactly what the C library takes in a line of the account file: an account with user ID " +0" is
// root to a host with glibc, so it must be root to us.
bool ConvertStrToNum(const std::string& text, unsigned& value, int base) {
  static_assert(std::numeric_limits<unsigned>::digits == 32, "the result is a number of 32 bits");
  if (base == 10) {
    static AccountNumberReader reader(AskThisLibrary);
    const std::optional<std::uint32_t> number = reader.Read(text);
    value = number.value_or(value);
    return number.has_value();
  }
  if (base < 2 || base > 36) {
    return false;
  }
  std::size_t at = 0;
  while (at < text.size() && IsBlank(text[at])) {
    ++at;
  }
  bool negative = false;
  if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    negative = text[at] == '-';
    ++at;
  }
  if (base == 16 && at + 1 < text.size() && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X')) {
    at += 2;
  }
  if (at == text.size()) {
    return false;
  }
  std::uint64_t number = 0;
  for (; at < text.size(); ++at) {
    const int digit = DigitValue(text[at]);
    if (digit >= base) {
      return false;
    }
    number = number * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
    if (number > std::numeric_limits<unsigned>::max()) {
      return false;
    }
  }
  if (negative && number != 0) {
    return false;
  }
  value = static_cast<unsigned>(number);
  return true;
}
