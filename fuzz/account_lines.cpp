#include "fuzz/account_lines.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;

// The same name twice, and an ordinary root account, make a finding more likely.
const std::string names[] = {"toor"s,   "toor"s,   "root"s,        "alice"s,   ""s,        "a"s,
                             "+"s,      "-"s,      "+toor"s,       "-a"s,      "+@group"s, "#toor"s,
                             "\xff"s,   "t\xc3"s,  "to\xc3\xb6r"s, "Root"s,    "root "s,   " root"s,
                             "\troot"s, "%s%n"s,   "\"\\"s,        "\x1b[2J"s, "toor\r"s,  "\xe2\x80\xa8"s,
                             "to\0or"s, "\0toor"s, "toor\0"s,      "+\0"s};

const std::string numbers[] = {"0"s,
                               "0"s,
                               "0"s,
                               "0"s,
                               "1000"s,
                               ""s,
                               "00"s,
                               "+0"s,
                               "-0"s,
                               " 0"s,
                               "\t0"s,
                               "\v0"s,
                               "\f\r0"s,
                               "\t +0"s,
                               "0 "s,
                               "0x0"s,
                               "0.0"s,
                               "+"s,
                               "-"s,
                               "+-0"s,
                               "-1"s,
                               "0\0"s,
                               "\0"s,
                               "0\0"
                               "1"s,
                               " "s,
                               "1000abc"s,
                               "4294967295"s,
                               "4294967296"s,
                               "-4294967295"s,
                               "-4294967296"s,
                               "18446744073709551615"s,
                               "18446744073709551616"s,
                               "-18446744073709551615"s,
                               "-18446744073709551616"s,
                               "36893488147419103232"s,
                               "000000000000000000000000000000000"s};

const std::string texts[] = {""s,   "x"s,          "/"s,         "/root"s, "/bin/sh"s,
                             "\0"s, "/bin/sh\0:"s, "/bin/\xfe"s, "*"s,     "0"s};

const std::string marks[] = {" "s,  "\t"s, "\0"s, ":"s,    "#"s, "+"s,    "-"s,
                             "\r"s, "\v"s, "\f"s, "\xff"s, "0"s, "\x1b"s, "\x85"s};

constexpr unsigned fieldCount = 7;
constexpr unsigned longestLine = 1000;

}  // namespace

std::string AccountLines::Field(unsigned place) {
  return place == 0 ? OneOf(names) : place == 2 || place == 3 ? OneOf(numbers) : OneOf(texts);
}

std::string AccountLines::Line() {
  const unsigned count = OneIn(4) ? 1 + Below(10) : fieldCount;
  std::string line;
  for (unsigned place = 0; place < count; ++place) {
    line += (place > 0 ? ":" : "") + Field(place);
  }
  if (OneIn(20)) {
    const std::size_t length = longestLine - 3 + Below(6);  // around the length at which the module gives up
    line.append(length > line.size() ? length - line.size() : 0, 'l');
  }
  if (OneIn(4)) {
    Distort(line);
  }
  return line;
}

void AccountLines::Distort(std::string& line) {
  const auto size = static_cast<unsigned>(line.size());
  // Most of what makes a difference stands near the beginning.
  const unsigned place = OneIn(2) ? 0 : Below((OneIn(2) ? size : size % 12) + 1);
  if (OneIn(3) && place < size) {
    line.erase(place, 1 + Below(3));
  }
  line.insert(std::min<std::size_t>(place, line.size()), OneOf(marks));
}

std::string AccountLines::Change(const std::string& content) {
  std::vector<std::string> lines(1);
  for (const char character : content) {
    if (character == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += character;
    }
  }
  for (unsigned changes = 1 + Below(6); changes > 0; --changes) {
    const std::size_t place = Below(static_cast<unsigned>(lines.size()));
    const auto at = lines.begin() + static_cast<std::ptrdiff_t>(place);
    switch (Below(8)) {
      case 0:
        if (lines.size() > 1) {
          lines.erase(at);
        }
        break;
      case 1:
        lines.push_back(*at);
        break;
      case 2:
        std::swap(*at, lines.back());
        break;
      case 3:
        Distort(*at);
        break;
      case 4: {
        const std::size_t separator = at->find(':');
        *at = OneOf(names) + (separator == std::string::npos ? std::string() : at->substr(separator));
        break;
      }
      default:
        lines.insert(at, Line());
        break;
    }
  }
  std::string changed;
  for (std::size_t line = 0; line < lines.size(); ++line) {
    changed += (line > 0 ? "\n" : "") + lines[line];
  }
  return changed;
}
