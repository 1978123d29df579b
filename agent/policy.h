#ifndef VELTA_AGENT_POLICY_H
#define VELTA_AGENT_POLICY_H

#include <string>

// The policy without a file: the detection is on.
extern const char defaultPolicy[];

// The text of a policy file that was read and found to be JSON, ready for the module. Throws
// std::runtime_error with the file's name, and the line and column where there is one.
std::string LoadPolicy(const std::string& path);

// Whether the policy, which is JSON, turns the module's detection on.
bool PolicyTurnsDetectionOn(const std::string& policy);

#endif  // VELTA_AGENT_POLICY_H
