#include "agent/account_number.h"

#include <atomic>
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

}  // namespace

std::optional<std::uint32_t> AccountNumberReader::Read(const std::string& text) {
  std::uint32_t number = 0;
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
