#include "agent/account_number.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

namespace {

// Refuses where strtoul takes the largest number instead: a number that nobody wrote is worse than none.
constexpr AccountNumberRules strtoulRules{true,
                                          true,
                                          true,
                                          true,
                                          true,
                                          true,
                                          MinusSign::Turned,
                                          false,
                                          std::numeric_limits<unsigned long>::digits,
                                          BeyondRange::Refused,
                                          BeyondRange::Refused};

constexpr std::size_t mostPlainDigits = 9;  // fit 32 bits whatever they are

// A few digits and nothing else, as nearly every number is: there is nothing in it that libraries differ in.
bool ReadPlainNumber(const std::string& text, std::uint32_t& number) {
  if (text.empty() || text.size() > mostPlainDigits) {
    return false;
  }
  number = 0;
  for (const char character : text) {
    if (character < '0' || character > '9') {
      return false;
    }
    number = number * 10 + static_cast<std::uint32_t>(character - '0');
  }
  return true;
}

}  // namespace

std::optional<std::uint32_t> AccountNumberReader::Read(const std::string& text) {
  std::uint32_t number = 0;
  if (ReadPlainNumber(text, number)) {
    return number;
  }
  if (!ReadAccountNumber(Rules(), text.data(), text.size(), number)) {
    return std::nullopt;
  }
  return number;
}

const AccountNumberRules& AccountNumberReader::Rules() {
  if (!known.load(std::memory_order_acquire)) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!known.load(std::memory_order_relaxed) && !FindAccountNumberRules(ask, rules)) {
      return strtoulRules;
    }
    known.store(true, std::memory_order_release);
  }
  return rules;
}
