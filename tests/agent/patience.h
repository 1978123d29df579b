#ifndef VELTA_TESTS_AGENT_PATIENCE_H
#define VELTA_TESTS_AGENT_PATIENCE_H

#include <chrono>

// Only a broken build ever reaches it.
constexpr std::chrono::milliseconds generous(60000);
// For a reader, or an output, that is known to be stuck.
constexpr std::chrono::milliseconds brief(20);

constexpr unsigned noLimit = 0;  // of alerts a minute

#endif  // VELTA_TESTS_AGENT_PATIENCE_H
