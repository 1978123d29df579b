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

// Has every text that is put into a value, or is the name of a member that is written, and is not UTF-8
// reported as it came, since U+FFFD in its place does not tell which bytes they were. A null pointer, as at
// the start, ends that. What report throws is dropped: the text is written all the same.
//
// Thread use: any thread; report is called on the one that has the text.
void ReportInvalidTextTo(void (*report)(const std::string& raw));

#endif  // VELTA_AGENT_JSON_H
