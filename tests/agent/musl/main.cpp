// Built by a compiler for musl, run on the machine that builds: the rules that are found by asking musl, and
// whether they read random texts as it does. Usage: account-numbers-on-musl TEXTS
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "agent/account_number_rules.h"
#include "tests/agent/account_number_comparison.h"

#ifdef __GLIBC__
#error "this program is about another C library"
#endif

namespace {

bool Is(const char* what, bool holds) {
  if (!holds) {
    printf("not so: %s\n", what);
  }
  return holds;
}

// Digits only, an empty field is 0, and numbers wrap.
bool AreMuslsRules(const AccountNumberRules& rules) {
  const bool rulesAsExpected[] = {
      Is("no blanks", !rules.takesSpace && !rules.takesTab && !rules.takesVerticalTab &&
                          !rules.takesFormFeed && !rules.takesCarriageReturn),
      Is("no signs", !rules.takesPlus && rules.minus == MinusSign::Refused),
      Is("an empty field is 0", rules.takesEmpty),
      Is("2^32 is 0", rules.beyond32Bits == BeyondRange::Wrapped),
      Is("2^64 is 0", rules.width == 64 && rules.beyondWidth == BeyondRange::Wrapped),
  };
  bool all = true;
  for (const bool holds : rulesAsExpected) {
    all = all && holds;
  }
  return all;
}

bool ReadsTheSame(const AccountNumberRules& rules, IdField field, uint64_t seed, unsigned long texts) {
  const NumberComparison found = CompareWithThisLibrary(rules, field, seed, texts);
  printf("%s: seed %lu, %lu texts: %lu taken, %lu refused, %lu of them with a NUL, %lu read otherwise\n",
         field == IdField::User ? "uid" : "gid", static_cast<unsigned long>(seed), texts, found.taken,
         found.refused, found.withNul, found.differing);
  if (found.differing > 0) {
    printf("the first: %s\n", found.firstDifference);
  }
  // Both answers were put to the test.
  return found.differing == 0 && found.taken > texts / 10 && found.refused > texts / 10;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned long texts = argc == 2 ? strtoul(argv[1], nullptr, 10) : 0;
  AccountNumberRules rules{};
  if (texts == 0 || !FindAccountNumberRules(AskThisLibrary, rules)) {
    puts("no texts, or no answer");
    return 2;
  }
  const bool known = AreMuslsRules(rules);
  const bool user = ReadsTheSame(rules, IdField::User, 1, texts);
  const bool group = ReadsTheSame(rules, IdField::Group, 2, texts);
  return known && user && group ? 0 : 1;
}
