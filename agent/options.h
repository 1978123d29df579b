#ifndef VELTA_AGENT_OPTIONS_H
#define VELTA_AGENT_OPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "agent/logger.h"

// How the agent ends. Documented in --help and in the README: scripts rely on the numbers.
enum ExitCode {
  EXIT_DONE = 0,
  EXIT_ALERTS = 1,        // --once: at least one alert; --status: an agent that needs a look
  EXIT_USAGE = 2,         // the command line
  EXIT_POLICY = 3,        // the policy
  EXIT_MODULE = 4,        // the module cannot be loaded or did not start
  EXIT_OUTPUT = 5,        // the output cannot be opened, or did not take every event
  EXIT_SYSTEM = 6,        // a thread, descriptor or memory
  EXIT_ACCOUNT_FILE = 7,  // --once: the account file could not be read
  EXIT_NO_AGENT = 10,     // --status: no running agent tells of itself; 8 and 9 are those of ./run
};

struct Options {
  std::string policyPath;            // empty: the built-in policy
  std::string modulePath;            // empty: where an installation or a build puts it
  std::vector<std::string> outputs;  // files, and "-" for standard output, each once
  bool syslog = false;
  int syslogSeverity = 0;  // as in <syslog.h>
  int syslogFacility = 0;
  unsigned eventsPerMinute = 60;  // 0: no limit
  std::chrono::milliseconds identityInterval{1000};
  LogLevel logLevel = LogLevel::Info;
  bool crossCheck = true;
  bool once = false;
  std::string checkPolicyPath;  // not empty: check that policy and end
  std::string statusPath;       // empty: where one is looked for
  bool status = false;
  bool json = false;
};

// What the command line asks for: options, or to end with a code after --help, --version or a mistake, whose
// text has been printed.
struct CommandLine {
  bool run;
  int exitCode;
  Options options;
};

CommandLine ParseCommandLine(int argc, const char* const* argv);

#endif  // VELTA_AGENT_OPTIONS_H
