#include "agent/safe_text.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace {

struct Character {
  std::uint32_t codePoint;
  std::size_t length;  // in bytes; 0 when the bytes are not UTF-8
};

constexpr Character notUtf8{0, 0};

std::uint32_t ByteAt(const std::string& text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

Character CharacterAt(const std::string& text, std::size_t at) {
  const std::uint32_t first = ByteAt(text, at);
  if (first < 0x80) {
    return {first, 1};
  }
  // Below the smallest code point that needs its length, a sequence is another spelling of a shorter one.
  std::uint32_t codePoint = 0;
  std::uint32_t smallest = 0;
  std::size_t length = 0;
  if (first >= 0xc0 && first < 0xe0) {
    codePoint = first & 0x1fU;
    smallest = 0x80;
    length = 2;
  } else if (first >= 0xe0 && first < 0xf0) {
    codePoint = first & 0x0fU;
    smallest = 0x800;
    length = 3;
  } else if (first >= 0xf0 && first < 0xf8) {
    codePoint = first & 0x07U;
    smallest = 0x10000;
    length = 4;
  } else {
    return notUtf8;
  }
  if (text.size() - at < length) {
    return notUtf8;
  }
  for (std::size_t next = at + 1; next < at + length; ++next) {
    const std::uint32_t byte = ByteAt(text, next);
    if ((byte & 0xc0U) != 0x80) {
      return notUtf8;
    }
    codePoint = (codePoint << 6U) | (byte & 0x3fU);
  }
  const bool isSurrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
  return codePoint < smallest || codePoint > 0x10ffff || isSurrogate ? notUtf8 : Character{codePoint, length};
}

bool IsControl(std::uint32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0);
}

// Ends a line, turns the text behind it around, or cannot be seen at all.
bool DisturbsALine(std::uint32_t codePoint) {
  return codePoint == 0x2028 || codePoint == 0x2029 || codePoint == 0x061c || codePoint == 0x200e ||
         codePoint == 0x200f || (codePoint >= 0x202a && codePoint <= 0x202e) ||
         (codePoint >= 0x2066 && codePoint <= 0x2069) || codePoint == 0xfeff;
}

void AppendHex(std::uint32_t number, unsigned digits, std::string& out) {
  while (digits > 0) {
    --digits;
    out += "0123456789abcdef"[(number >> (4 * digits)) & 0xfU];
  }
}

void AppendByteEscape(std::uint32_t byte, std::string& out) {
  out += "\\x";
  AppendHex(byte, 2, out);
}

// Appends the character or byte that stands there; returns its length in text.
std::size_t AppendOne(const std::string& text, std::size_t at, std::string& out) {
  const Character character = CharacterAt(text, at);
  if (character.length == 0) {
    AppendByteEscape(ByteAt(text, at), out);
    return 1;
  }
  const std::uint32_t codePoint = character.codePoint;
  if (codePoint == '\\') {
    out += "\\\\";
  } else if (codePoint == '\n') {
    out += "\\n";
  } else if (codePoint == '\r') {
    out += "\\r";
  } else if (codePoint == '\t') {
    out += "\\t";
  } else if (IsControl(codePoint) && codePoint < 0x80) {
    AppendByteEscape(codePoint, out);
  } else if (IsControl(codePoint) || DisturbsALine(codePoint)) {
    out += "\\u";
    AppendHex(codePoint, 4, out);
  } else {
    out.append(text, at, character.length);
  }
  return character.length;
}

}  // namespace

std::string SafeText(const std::string& text) {
  std::string safe;
  safe.reserve(text.size());
  AppendSafeText(text, std::numeric_limits<std::size_t>::max(), safe);
  return safe;
}

std::size_t AppendSafeText(const std::string& text, std::size_t longest, std::string& out) {
  const std::size_t start = out.size();
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t before = out.size();
    const std::size_t length = AppendOne(text, at, out);
    if (out.size() - start > longest) {
      out.resize(before);
      break;
    }
    at += length;
  }
  return at;
}

bool IsUtf8(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t length = CharacterAt(text, at).length;
    if (length == 0) {
      return false;
    }
    at += length;
  }
  return true;
}

std::string HexText(const std::string& bytes) {
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    AppendHex(ByteAt(bytes, at), 2, hex);
  }
  return hex;
}
