#ifndef VELTA_HOST_UTC_TIME_H
#define VELTA_HOST_UTC_TIME_H

#include <string>

#pragma GCC visibility push(default)

// Puts the current UTC time into out, as text in the agent's form. An empty out means that no time was to be
// had.
//
// Thread use: any thread.
void UtilsGetUtcTime(std::string& out);

#pragma GCC visibility pop

#endif  // VELTA_HOST_UTC_TIME_H
