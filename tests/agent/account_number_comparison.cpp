#include "tests/agent/account_number_comparison.h"

#include <pwd.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr size_t linesOfAFile = 500;

// What the library makes of one line.
struct LineResult {
  bool taken;
  uint32_t number;
};

// Reads a file of lines whose names are their places. A line that is refused is passed over.
void ReadLines(char* file, size_t length, IdField field, LineResult* results) {
  FILE* const stream = fmemopen(file, length, "r");
  if (stream == nullptr) {
    abort();
  }
  while (const passwd* const account = fgetpwent(stream)) {
    LineResult& result = results[strtoul(account->pw_name + 1, nullptr, 10)];
    result.taken = true;
    result.number = field == IdField::User ? account->pw_uid : account->pw_gid;
  }
  fclose(stream);
}

void Describe(const RandomNumberText& text, bool taken, uint32_t number, const LineResult& library, char* out,
              size_t room) {
  size_t at = 0;
  for (size_t place = 0; place < text.length; ++place) {
    at += static_cast<size_t>(snprintf(out + at, room - at, "%02x ",
                                       static_cast<unsigned>(static_cast<unsigned char>(text.text[place]))));
  }
  snprintf(out + at, room - at, "(bytes): we %s %lu, the library %s %lu", taken ? "take" : "refuse",
           static_cast<unsigned long>(number), library.taken ? "takes" : "refuses",
           static_cast<unsigned long>(library.number));
}

}  // namespace

// The upper bits of a linear congruence.
size_t RandomNumberTexts::Below(size_t limit) {
  state = state * 6364136223846793005ULL + 1442695040888963407ULL;
  return static_cast<size_t>((state >> 33U) % limit);
}

RandomNumberText RandomNumberTexts::Next() {
  // The last two digits are left out: they are random.
  static const char* const nearLimits[] = {
      "21474836",            // 2^31
      "42949672",            // 2^32
      "85899345",            // 2^33
      "429496729",           // 10 times 2^32
      "92233720368547758",   // 2^63
      "184467440694145843",  // 2^64 - 2^32, from which on a minus makes 32 bits
      "184467440737095516",  // 2^64
      "368934881474191032",  // 2^65
      "",
  };
  RandomNumberText made;
  made.length = 0;
  const auto add = [&made](char character) {
    if (made.length < RandomNumberText::longest) {
      made.text[made.length++] = character;
    }
  };
  const auto addAnyByte = [&] {
    const char byte = static_cast<char>(Below(256));
    add(byte == ':' || byte == '\n' ? '0' : byte);
  };
  const auto addDigits = [&](size_t count) {
    for (; count > 0; --count) {
      add(static_cast<char>('0' + Below(10)));
    }
  };
  if (Below(8) == 0) {
    for (size_t count = Below(RandomNumberText::longest + 1); count > 0; --count) {
      addAnyByte();
    }
  } else {
    for (size_t count = Below(2) * Below(4); count > 0; --count) {
      add(" \t\v\f\r"[Below(5)]);
    }
    for (size_t count = Below(2) * (Below(8) == 0 ? 2 : 1); count > 0; --count) {
      add("+-"[Below(2)]);
    }
    for (size_t count = Below(3) == 0 ? Below(9) : 0; count > 0; --count) {
      add('0');
    }
    if (Below(3) == 0) {
      addDigits(Below(26));
    } else {
      for (const char* digit = nearLimits[Below(sizeof(nearLimits) / sizeof(nearLimits[0]))]; *digit != '\0';
           ++digit) {
        add(*digit);
      }
      addDigits(2);
    }
    if (Below(10) == 0) {
      add(" \t-+0xaL._"[Below(10)]);
    }
    if (Below(20) == 0) {
      addAnyByte();
    }
    if (Below(50) == 0) {
      add('\0');
      addDigits(Below(3));
    }
  }
  made.text[made.length] = '\0';
  return made;
}

NumberComparison CompareWithThisLibrary(const AccountNumberRules& rules, IdField field, uint64_t seed,
                                        unsigned long texts) {
  static char file[linesOfAFile * 64];
  static RandomNumberText asked[linesOfAFile];
  static LineResult results[linesOfAFile];
  NumberComparison comparison{};
  RandomNumberTexts random(seed);
  while (texts > 0) {
    size_t length = 0;
    size_t count = 0;
    for (; count < linesOfAFile && texts > 0; ++count, --texts) {
      results[count] = LineResult{false, 0};
      asked[count] = random.Next();
      if (memchr(asked[count].text, '\0', asked[count].length) != nullptr) {
        ++comparison.withNul;
        continue;
      }
      length +=
          static_cast<size_t>(snprintf(file + length, sizeof(file) - length,
                                       field == IdField::User ? "u%lu:x:%s:7::/:\n" : "u%lu:x:7:%s::/:\n",
                                       static_cast<unsigned long>(count), asked[count].text));
    }
    ReadLines(file, length, field, results);
    for (size_t place = 0; place < count; ++place) {
      uint32_t number = 0;
      const bool taken = ReadAccountNumber(rules, asked[place].text, asked[place].length, number);
      if (taken != results[place].taken || number != results[place].number) {
        if (comparison.differing++ == 0) {
          Describe(asked[place], taken, number, results[place], comparison.firstDifference,
                   sizeof(comparison.firstDifference));
        }
      } else if (taken) {
        ++comparison.taken;
      } else {
        ++comparison.refused;
      }
    }
  }
  return comparison;
}
