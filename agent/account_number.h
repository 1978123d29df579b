#ifndef VELTA_AGENT_ACCOUNT_NUMBER_H
#define VELTA_AGENT_ACCOUNT_NUMBER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "agent/account_number_rules.h"

// Reads numbers as the C library of this host reads them in the account file. An account that the library
// takes for root must be root to us, too, however its user ID is spelled.
//
// The library is asked for its rules at the first reading. As long as it does not answer, which is when
// memory is short, strtoul's rules count, with numbers that do not fit refused.
//
// Thread use: any thread.
class AccountNumberReader {
 public:
  constexpr explicit AccountNumberReader(AskLibrary askLibrary) : ask(askLibrary) {}

  std::optional<std::uint32_t> Read(const std::string& text);

 private:
  const AccountNumberRules& Rules();

  const AskLibrary ask;
  std::mutex mutex;                // held while the library is asked
  std::atomic<bool> known{false};  // once it is true, rules does not change
  AccountNumberRules rules{};
};

#endif  // VELTA_AGENT_ACCOUNT_NUMBER_H
