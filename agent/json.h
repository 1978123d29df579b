#ifndef VELTA_AGENT_JSON_H
#define VELTA_AGENT_JSON_H

#include <cstddef>
#include <optional>
#include <string>

// Where and why a text is not JSON. Line and column count from 1; the column counts bytes.
struct JsonFault {
  std::size_t line;
  std::size_t column;
  std::string reason;
};

// The first fault of the text, or nothing when it is one JSON document. A byte order mark in front is passed
// over; a NUL is a fault wherever it stands, as the module would see the text end there.
std::optional<JsonFault> FindJsonFault(const std::string& text);

#endif  // VELTA_AGENT_JSON_H
