#ifndef VELTA_TESTS_SUPPORT_SHORT_TEXTS_H
#define VELTA_TESTS_SUPPORT_SHORT_TEXTS_H

#include <string>
#include <vector>

// Every text of one byte and every text of two. Where code is slow it is every seventh of two bytes: all
// bytes still come first, and all come second, beside bytes of each kind.
inline std::vector<std::string> TextsOfOneOrTwoBytes() {
  std::vector<std::string> texts;
  for (int byte = 0; byte < 256; ++byte) {
    texts.emplace_back(1, static_cast<char>(byte));
  }
  for (int bytes = 0; bytes < 65536; bytes += VELTA_CODE_IS_SLOW ? 7 : 1) {
    texts.push_back({static_cast<char>(bytes / 256), static_cast<char>(bytes % 256)});
  }
  return texts;
}

#endif  // VELTA_TESTS_SUPPORT_SHORT_TEXTS_H
