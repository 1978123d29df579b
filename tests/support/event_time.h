#ifndef VELTA_TESTS_SUPPORT_EVENT_TIME_H
#define VELTA_TESTS_SUPPORT_EVENT_TIME_H

#include <cstddef>
#include <string>

// The events with "TIME" in the place of each time in them; what has not the form of one stays.
inline std::string WithoutTimes(std::string events) {
  const std::string begin = R"("eventTime":")";
  const std::string form = R"(0000-00-00 00:00:00")";
  for (std::size_t at = events.find(begin); at != std::string::npos; at = events.find(begin, at + 1)) {
    std::string time = events.substr(at + begin.size(), form.size());
    for (char& letter : time) {
      letter = letter >= '0' && letter <= '9' ? '0' : letter;
    }
    if (time == form) {
      events.replace(at + begin.size(), form.size(), "TIME\"");
    }
  }
  return events;
}

#endif  // VELTA_TESTS_SUPPORT_EVENT_TIME_H
