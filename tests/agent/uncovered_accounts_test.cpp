#include "agent/uncovered_accounts.h"

#include <atomic>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// For the messages of the matchers.
void PrintTo(const UncoveredAccount& account, std::ostream* out) {
  *out << account.line << ": " << account.userName << ":" << account.uid << ":" << account.gid << ":"
       << account.home << ":" << account.shell << " (" << account.reason << ")";
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using namespace std::string_literals;

UncoveredAccount Account(const std::string& name, const std::string& home, const std::string& shell,
                         std::size_t line, const char* reason) {
  return {name, 0, 0, shell, home, line, reason};
}

TEST(UncoveredAccountsTest, WhatTheModuleReadsIsNotTheirs) {
  EXPECT_THAT(FindUncoveredRoots(""), IsEmpty());
  EXPECT_THAT(FindUncoveredRoots("root:x:0:0:root:/root:/bin/bash\n"
                                 "toor:x:0:0::/root:/bin/sh\n"
                                 "plus:x: +0:00::/:/bin/sh\n"
                                 "   lead:x:0:0::/root:/bin/sh\n"
                                 "alice:x:1000:1000::/home/alice:/bin/sh"),
              IsEmpty());
}

TEST(UncoveredAccountsTest, WhatTheLibraryDoesNotReadAsRootIsNobodys) {
  EXPECT_THAT(FindUncoveredRoots("one\n"
                                 "three:x:0\n"
                                 "hex:x:0x0:0::/:/bin/sh\n"
                                 "blank:x:0 :0::/:/bin/sh\n"
                                 "wrapped:x:4294967296:0:\n"
                                 "alice:x:1000:1000:\n"
                                 "#toor:x:0:0:\n"
                                 "  # toor:x:0:0:\n"
                                 "\n"
                                 "   \n"),
              IsEmpty());
}

TEST(UncoveredAccountsTest, NobodyNamedRootIsOneOfThem) {
  EXPECT_THAT(FindUncoveredRoots("root:x:0:0:root\nroot:x:0:0::/:/bin/sh\nroot:x:0:0::/:/bin/sh\n"),
              IsEmpty());
}

TEST(UncoveredAccountsTest, EachReasonHasItsLine) {
  const std::string longText(1200, 'g');
  std::string text =
      "root:x:0:0:root:/root:/bin/bash\nfour:x:0:0\nfive:x:0:0:\nsix:x:0:0::/root\n"
      "eight:x:0:0::/root:/bin/sh:more\n:x:0:0::/root:/bin/sh\ntwice:x:1000:0::/:/bin/sh\n"
      "twice:x:0:0::/:/bin/sh\n";
  text += "nul:x:0:0::/root:/bin/sh\0:junk\n"s;
  text += "long:x:0:0:" + longText + ":/root:/bin/sh\n";
  text += "last:x:0:0";
  EXPECT_THAT(
      FindUncoveredRoots(text),
      ElementsAre(Account("four", "", "", 2, "too few fields"), Account("five", "", "", 3, "too few fields"),
                  Account("six", "/root", "", 4, "too few fields"),
                  Account("eight", "/root", "/bin/sh:more", 5, "too many fields"),
                  Account("", "/root", "/bin/sh", 6, "empty name"),
                  Account("twice", "/", "/bin/sh", 8, "shadowed by a repeated name"),
                  Account("nul", "/root", "/bin/sh", 9, "NUL in line"),
                  Account("long", "/root", "/bin/sh", 10, "line too long"),
                  Account("last", "", "", 11, "too few fields")));
}

// The library trims what stands in front of a name, and so does the report.
TEST(UncoveredAccountsTest, TheNameIsTheLibrarys) {
  EXPECT_THAT(FindUncoveredRoots(" \ttoor:x:0:0:\n"),
              ElementsAre(Account("toor", "", "", 1, "too few fields")));
}

TEST(UncoveredAccountsTest, ALineOfExactlyAThousandCharactersIsNotTooLong) {
  const std::string head = "toor:x:0:0:";
  const std::string tail = ":/:/bin/sh";
  const std::string fits = head + std::string(1000 - head.size() - tail.size(), 'g') + tail;
  EXPECT_THAT(FindUncoveredRoots(fits + "\n"), IsEmpty());
  EXPECT_THAT(FindUncoveredRoots("x" + fits + "\n"),
              ElementsAre(Account("xtoor", "/", "/bin/sh", 1, "line too long")));
}

TEST(UncoveredAccountsTest, NoFieldIsTooLongToHideBehind) {
  const std::string longer(std::size_t{VELTA_CODE_IS_SLOW ? 9 : 16} << 17,
                           '0');  // than what the library is shown
  EXPECT_THAT(FindUncoveredRoots("toor:" + longer + ":0:0::/root:/bin/sh\n"),
              ElementsAre(Account("toor", "/root", "/bin/sh", 1, "line too long")));
  EXPECT_THAT(FindUncoveredRoots("toor:x:" + longer + ":0::/root:/bin/sh\n"),
              ElementsAre(Account("toor", "/root", "/bin/sh", 1, "line too long")));
  EXPECT_THAT(FindUncoveredRoots("toor:x:0:" + longer + ":\n"),
              ElementsAre(Account("toor", "", "", 1, "line too long")));
}

TEST(UncoveredAccountsTest, ADirectiveToIncludeOthersIsReportedAsSuch) {
  EXPECT_THAT(FindUncoveredRoots("+\n+::::::\n-bob\nalice:x:1000:1000::/:/bin/sh\n"),
              ElementsAre(Account("+", "", "", 1, "NIS entry"), Account("+", "", "", 2, "NIS entry"),
                          Account("-bob", "", "", 3, "NIS entry")));
}

// The library sees the line end at the NUL, and a bare name with a plus in front has user ID 0 for it.
TEST(UncoveredAccountsTest, ANulMayMakeSomethingElseOfALineThatTheModuleReads) {
  EXPECT_THAT(FindUncoveredRoots("+toor\0:x:1000:1000::/:/bin/sh\n"s),
              ElementsAre(Account("+toor", "", "", 1, "NUL in line")));
  EXPECT_THAT(FindUncoveredRoots("+toor:\0:1000:1000::/:/bin/sh\n"s),
              ElementsAre(Account("+toor", "", "", 1, "NUL in line")));
}

#ifdef __GLIBC__
// Its last bytes are read once more when blanks lead it, so three fields become five.
TEST(UncoveredAccountsTest, TheLastLineIsReadAsItStandsWithoutAnEnd) {
  EXPECT_THAT(FindUncoveredRoots("    a:0:0"), ElementsAre(Account("a", "", "", 1, "too few fields")));
  EXPECT_THAT(FindUncoveredRoots("    a:0:0\n"), IsEmpty());
}

TEST(UncoveredAccountsTest, NoLengthHidesALineThatIsReadAsItStands) {
  const std::string longer(std::size_t{VELTA_CODE_IS_SLOW ? 9 : 16} << 17, 'g');
  EXPECT_THAT(FindUncoveredRoots("  la:x:0\0"s + longer + "\n"),
              ElementsAre(Account("la", "", "", 1, "line too long")));
  EXPECT_THAT(FindUncoveredRoots("  lb:" + longer + ":0"),
              ElementsAre(Account("lb", "", "", 1, "line too long")));
}
#endif

TEST(UncoveredAccountsTest, TheSearchEndsWhenItIsTold) {
  std::vector<std::string> names;
  ForEachUncoveredRoot("a:x:0:0\nb:x:0:0\nc:x:0:0\n", [&names](const UncoveredAccount& account) {
    names.push_back(account.userName);
    return names.size() < 2;
  });
  EXPECT_THAT(names, ElementsAre("a", "b"));
  const std::atomic<bool> stop{true};
  ForEachUncoveredRoot(
      "d:x:0:0\n",
      [&names](const UncoveredAccount& account) {
        names.push_back(account.userName);
        return true;
      },
      &stop);
  EXPECT_THAT(names, ElementsAre("a", "b"));
}

TEST(UncoveredAccountsTest, OfALineWithoutEndTheLibraryIsShownTheBeginning) {
  const std::string line =
      "toor:x:0:0:" + std::string(std::size_t{VELTA_CODE_IS_SLOW ? 4 : 20} << 20, 'g') + ":/root:/bin/sh\n";
  EXPECT_THAT(FindUncoveredRoots(line), ElementsAre(Account("toor", "", "", 1, "line too long")));
}

}  // namespace
