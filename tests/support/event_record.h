#ifndef VELTA_TESTS_SUPPORT_EVENT_RECORD_H
#define VELTA_TESTS_SUPPORT_EVENT_RECORD_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

// Keeps the events that tests see in the file named by the variable VELTA_EVENTS_FILE, if there is one, so
// that all of them can be held against the schemas in docs/schema; see tests/fleet/valid_events.py. What is
// not a whole event is left out: tests make such things themselves.
//
// Thread use: any; several processes may write to one file.
inline void RecordEvent(const std::string& event) {
  static const char* const path = std::getenv("VELTA_EVENTS_FILE");
  const std::string begin = R"({"eventType":)";
  if (path == nullptr || event.compare(0, begin.size(), begin) != 0 || event.back() != '}') {
    return;
  }
  const int descriptor = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const std::string line = event + "\n";
  // A line that is cut, since the disk is full, is no JSON, and is found.
  static_cast<void>(write(descriptor, line.data(), line.size()) < 0);
  close(descriptor);
}

#endif  // VELTA_TESTS_SUPPORT_EVENT_RECORD_H
