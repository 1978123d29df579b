#ifndef VELTA_AGENT_UTC_TIME_H
#define VELTA_AGENT_UTC_TIME_H

#include <ctime>
#include <string>

// The moment as "2026-03-01 08:15:42", in UTC; empty when the calendar does not reach that far.
std::string UtcTimeText(std::time_t moment);

#endif  // VELTA_AGENT_UTC_TIME_H
