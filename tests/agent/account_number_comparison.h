#ifndef VELTA_TESTS_AGENT_ACCOUNT_NUMBER_COMPARISON_H
#define VELTA_TESTS_AGENT_ACCOUNT_NUMBER_COMPARISON_H

#include <stddef.h>
#include <stdint.h>

#include "agent/account_number_rules.h"

// Random texts, read by rules and by the C library of this process, without the C++ library as the rules are.

enum class IdField { User, Group };

struct RandomNumberText {
  static constexpr size_t longest = 30;

  char text[longest + 1];
  size_t length;
};

// Texts near what a library may take for a number, and texts of any bytes; the same ones for a seed.
class RandomNumberTexts {
 public:
  explicit RandomNumberTexts(uint64_t seed) : state(seed * 2 + 1) {}

  RandomNumberText Next();

 private:
  size_t Below(size_t limit);

  uint64_t state;
};

struct NumberComparison {
  unsigned long taken;    // by both
  unsigned long refused;  // by both
  unsigned long withNul;  // refused by length, as the library ends there: no field of a whole line
  unsigned long differing;
  char firstDifference[256];
};

// Puts so many texts into the field of account lines. A text with a NUL, colon or newline is no field, and
// none is made with a colon or newline.
NumberComparison CompareWithThisLibrary(const AccountNumberRules& rules, IdField field, uint64_t seed,
                                        unsigned long texts);

#endif  // VELTA_TESTS_AGENT_ACCOUNT_NUMBER_COMPARISON_H
