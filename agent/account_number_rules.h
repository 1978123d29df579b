#ifndef VELTA_AGENT_ACCOUNT_NUMBER_RULES_H
#define VELTA_AGENT_ACCOUNT_NUMBER_RULES_H

#include <stddef.h>
#include <stdint.h>

// How a C library reads the user ID and the group ID of a line of the account file. Libraries differ: glibc
// takes blanks and signs in front, musl takes digits only, but turns 2^32 into 0.
//
// Nothing here needs the C++ library, so a compiler for another C library, without one for C++, takes this
// too.
enum class BeyondRange {
  Refused,
  Largest,  // the largest number of the range is taken instead
  Wrapped,  // what does not fit is cut off in front
};

enum class MinusSign {
  Refused,
  OnlyOfZero,
  Turned,  // as unsigned numbers are: -1 is the largest one
};

struct AccountNumberRules {
  bool takesSpace;
  bool takesTab;
  bool takesVerticalTab;
  bool takesFormFeed;
  bool takesCarriageReturn;
  bool takesPlus;
  MinusSign minus;
  bool takesEmpty;           // as 0
  unsigned width;            // in bits, of the number that the digits make: 32 or 64
  BeyondRange beyondWidth;   // of the digits; the largest number is not turned by a sign
  BeyondRange beyond32Bits;  // of what is then left
};

// Whether the rules take the text, which may hold any bytes, for a number. If not, number is left alone.
bool ReadAccountNumber(const AccountNumberRules& rules, const char* text, size_t length, uint32_t& number);

enum class LibraryAnswer { Taken, Refused, None };

// Has a library read a text, without NUL, colon and newline, as a user ID. No answer means that it could not
// read at all: memory, for one, may be short.
using AskLibrary = LibraryAnswer (*)(const char* text, uint32_t& number);

// Finds out by which rules the library reads. False, and rules left alone, when a question was not answered.
bool FindAccountNumberRules(AskLibrary ask, AccountNumberRules& rules);

// Asks the C library of this process, with an account file in memory. One thread at a time.
LibraryAnswer AskThisLibrary(const char* text, uint32_t& number);

#endif  // VELTA_AGENT_ACCOUNT_NUMBER_RULES_H
