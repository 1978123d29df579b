#ifndef VELTA_AGENT_STATUS_REPORT_H
#define VELTA_AGENT_STATUS_REPORT_H

#include <string>

// What velta-agent --status prints and ends with.
struct StatusReport {
  std::string output;
  std::string errors;
  int exitCode;
};

// asJson: the text as the agent wrote it. Otherwise a few lines for people. Nothing of a file that is there
// without an agent is printed as JSON: a program would take it for the state of things.
StatusReport ReportStatus(const std::string& path, bool asJson);

#endif  // VELTA_AGENT_STATUS_REPORT_H
