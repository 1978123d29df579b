#ifndef VELTA_TESTS_SYSTEM_TOOL_H
#define VELTA_TESTS_SYSTEM_TOOL_H

#include <string>
#include <vector>

struct ToolResult {
  int exitCode;        // 128 and the signal's number when a signal ended it
  std::string output;  // both of its streams, as they came
};

// Runs a program of the machine (the first word, looked for in PATH and in the folders of the account tools)
// and returns when it has ended. It runs in the mount namespace of the calling thread, with a plain locale
// and nothing to read. A program that cannot be started ends with 127. Throws std::system_error when no
// process can be made.
ToolResult RunTool(const std::vector<std::string>& words);

#endif  // VELTA_TESTS_SYSTEM_TOOL_H
