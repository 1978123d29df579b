#ifndef VELTA_BENCH_READING_QUIET_HOST_H
#define VELTA_BENCH_READING_QUIET_HOST_H

#include <cstddef>

// The agent's services as far as the module needs them here: JSON and strings are the agent's own, and the
// rest does nothing. No thread runs.

// Runs the task that the module has registered: one reading, from the file to the compared snapshot.
void RunTask();

// How many events the module has sent so far.
std::size_t SentEvents();

#endif  // VELTA_BENCH_READING_QUIET_HOST_H
