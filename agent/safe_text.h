#ifndef VELTA_AGENT_SAFE_TEXT_H
#define VELTA_AGENT_SAFE_TEXT_H

#include <cstddef>
#include <string>

// The text as one line that a terminal shows as it stands: control characters, line and paragraph separators,
// bidirectional controls and bytes that are not UTF-8 become escapes (\n, \t, \x1b, \u202e), so that no
// name can forge a second record or turn a line around. A backslash is doubled, so escapes can be told from
// text.
std::string SafeText(const std::string& text);

// Appends as much of SafeText(text) to out as fits into longest bytes, without splitting a character or an
// escape; returns how many bytes of text that stands for.
std::size_t AppendSafeText(const std::string& text, std::size_t longest, std::string& out);

bool IsUtf8(const std::string& text);

// Two hexadecimal digits for each byte.
std::string HexText(const std::string& bytes);

#endif  // VELTA_AGENT_SAFE_TEXT_H
