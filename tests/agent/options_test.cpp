#include "agent/options.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

struct Parsed {
  CommandLine commandLine;
  std::string output;
  std::string errors;
};

Parsed Parse(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv = {"velta-agent"};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  const int count = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  CommandLine commandLine = ParseCommandLine(count, argv.data());
  std::string errors = testing::internal::GetCapturedStderr();
  return {std::move(commandLine), testing::internal::GetCapturedStdout(), std::move(errors)};
}

std::string Text(const std::vector<std::string>& arguments) {
  std::string text;
  for (const std::string& argument : arguments) {
    text += argument + " ";
  }
  return text;
}

// Every option in one line, so that a row of a table can be compared whole.
std::string Text(const Options& options) {
  std::ostringstream text;
  text << "policy '" << options.policyPath << "' module '" << options.modulePath << "' output '";
  for (const std::string& output : options.outputs) {
    text << (&output == &options.outputs.front() ? "" : "' '") << output;
  }
  text << "' limit " << options.eventsPerMinute << " interval " << options.identityInterval.count()
       << " level " << static_cast<int>(options.logLevel) << " once " << options.once << " check '"
       << options.checkPolicyPath << "'";
  return text.str();
}

// Those that came later, likewise.
std::string MoreText(const Options& options) {
  std::ostringstream text;
  text << "outputs " << options.outputs.size() << " syslog " << options.syslog << " severity "
       << options.syslogSeverity << " facility " << options.syslogFacility / 8 << " status " << options.status
       << " json " << options.json << " file '" << options.statusPath << "'";
  return text.str();
}

TEST(OptionsTest, EachOptionSetsItsOwnFieldOnly) {
  struct Row {
    std::vector<std::string> arguments;
    std::string options;
  };
  const std::vector<Row> rows = {
      {{}, "policy '' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--policy", "p.json"},
       "policy 'p.json' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--policy=p.json"},
       "policy 'p.json' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--module", "m.so"},
       "policy '' module 'm.so' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--output", "/var/log/alerts"},
       "policy '' module '' output '/var/log/alerts' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--output", "-"}, "policy '' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--limit", "100"}, "policy '' module '' output '-' limit 100 interval 1000 level 1 once 0 check ''"},
      {{"--limit", "0"}, "policy '' module '' output '-' limit 0 interval 1000 level 1 once 0 check ''"},
      {{"--limit", "4294967295"},
       "policy '' module '' output '-' limit 4294967295 interval 1000 level 1 once 0 check ''"},
      {{"--check-interval", "0"},
       "policy '' module '' output '-' limit 60 interval 0 level 1 once 0 check ''"},
      {{"--check-interval", "3600000"},
       "policy '' module '' output '-' limit 60 interval 3600000 level 1 once 0 check ''"},
      {{"--log-level", "debug"},
       "policy '' module '' output '-' limit 60 interval 1000 level 0 once 0 check ''"},
      {{"--log-level", "info"},
       "policy '' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
      {{"--log-level", "warning"},
       "policy '' module '' output '-' limit 60 interval 1000 level 2 once 0 check ''"},
      {{"--log-level", "error"},
       "policy '' module '' output '-' limit 60 interval 1000 level 3 once 0 check ''"},
      {{"--log-level", "off"},
       "policy '' module '' output '-' limit 60 interval 1000 level 4 once 0 check ''"},
      {{"--once"}, "policy '' module '' output '-' limit 60 interval 1000 level 1 once 1 check ''"},
      {{"--check-policy", "p.json"},
       "policy '' module '' output '-' limit 60 interval 1000 level 1 once 0 check 'p.json'"},
      {{"--limit", "1", "--once", "--limit", "2"},  // as a wrapper script adds to what it was given
       "policy '' module '' output '-' limit 2 interval 1000 level 1 once 1 check ''"},
      {{"--policy", "p", "--module", "m", "--output", "o", "--limit", "3", "--check-interval", "4",
        "--log-level", "off", "--once"},
       "policy 'p' module 'm' output 'o' limit 3 interval 4 level 4 once 1 check ''"},
      {{"--policy", "a b\"'\xff"},
       "policy 'a b\"'\xff' module '' output '-' limit 60 interval 1000 level 1 once 0 check ''"},
  };
  for (const Row& row : rows) {
    const Parsed parsed = Parse(row.arguments);
    EXPECT_TRUE(parsed.commandLine.run) << Text(row.arguments);
    EXPECT_EQ(parsed.commandLine.exitCode, 0) << Text(row.arguments);
    EXPECT_EQ(Text(parsed.commandLine.options), row.options) << Text(row.arguments);
    EXPECT_EQ(parsed.output + parsed.errors, "") << Text(row.arguments);
  }
}

TEST(OptionsTest, EveryOutputThatIsGivenCountsOnceAndStandardOutputIsThereForWantOfAny) {
  struct Row {
    std::vector<std::string> arguments;
    std::vector<std::string> outputs;
  };
  const std::vector<Row> rows = {
      {{}, {"-"}},
      {{"--output", "a", "--output", "b"}, {"a", "b"}},
      {{"--output", "b", "--output=-", "--output", "b", "--output", "a"}, {"b", "-", "a"}},
      {{"--syslog"}, {}},
      {{"--syslog", "--output", "-"}, {"-"}},
  };
  for (const Row& row : rows) {
    const Parsed parsed = Parse(row.arguments);
    EXPECT_TRUE(parsed.commandLine.run) << parsed.errors;
    EXPECT_EQ(parsed.commandLine.options.outputs, row.outputs) << Text(row.arguments);
  }
}

TEST(OptionsTest, SyslogAndStatusHaveTheirOwnFields) {
  struct Row {
    std::vector<std::string> arguments;
    std::string options;
  };
  // The numbers are those of the protocol, the same on every system.
  const std::vector<Row> rows = {
      {{}, "outputs 1 syslog 0 severity 1 facility 10 status 0 json 0 file ''"},
      {{"--syslog"}, "outputs 0 syslog 1 severity 1 facility 10 status 0 json 0 file ''"},
      {{"--syslog", "--syslog-severity", "crit", "--syslog-facility", "local7"},
       "outputs 0 syslog 1 severity 2 facility 23 status 0 json 0 file ''"},
      {{"--syslog-severity", "debug", "--syslog-severity", "err"},
       "outputs 1 syslog 0 severity 3 facility 10 status 0 json 0 file ''"},
      {{"--syslog-facility", "auth"}, "outputs 1 syslog 0 severity 1 facility 4 status 0 json 0 file ''"},
      {{"--syslog-facility", "daemon"}, "outputs 1 syslog 0 severity 1 facility 3 status 0 json 0 file ''"},
      {{"--status"}, "outputs 1 syslog 0 severity 1 facility 10 status 1 json 0 file ''"},
      {{"--status", "--json", "--status-file", "s"},
       "outputs 1 syslog 0 severity 1 facility 10 status 1 json 1 file 's'"},
      {{"--status-file", "s"}, "outputs 1 syslog 0 severity 1 facility 10 status 0 json 0 file 's'"},
  };
  for (const Row& row : rows) {
    const Parsed parsed = Parse(row.arguments);
    EXPECT_TRUE(parsed.commandLine.run) << parsed.errors;
    EXPECT_EQ(MoreText(parsed.commandLine.options), row.options) << Text(row.arguments);
  }
}

TEST(OptionsTest, AMistakeIsNamedOnStandardErrorAndEndsWithTwo) {
  struct Row {
    std::vector<std::string> arguments;
    std::string named;
  };
  const std::vector<Row> rows = {
      {{"--unknown"}, "--unknown"},
      {{"-x"}, "-x"},
      {{"stray"}, "stray"},
      {{"--once", "stray"}, "stray"},
      {{"--policy"}, "--policy"},
      {{"--module"}, "--module"},
      {{"--output"}, "--output"},
      {{"--check-policy"}, "--check-policy"},
      {{"--limit"}, "--limit"},
      {{"--limit", "-1"}, "--limit"},
      {{"--limit=-1"}, "--limit"},
      {{"--limit", "many"}, "--limit"},
      {{"--limit", "1x"}, "--limit"},
      {{"--limit", "1.5"}, "--limit"},
      {{"--limit="}, "--limit"},
      {{"--limit", ""}, "--limit"},
      {{"--policy", ""}, "--policy"},  // as a script's variable that is not set would have it
      {{"--policy="}, "--policy"},
      {{"--module", ""}, "--module"},
      {{"--output", ""}, "--output"},
      {{"--check-policy", ""}, "--check-policy"},
      {{"--check-interval", ""}, "--check-interval"},
      {{"--limit", "4294967296"}, "--limit"},
      {{"--limit", "99999999999999999999999"}, "--limit"},
      {{"--check-interval", "-1"}, "--check-interval"},
      {{"--check-interval", "3600001"}, "--check-interval"},
      {{"--check-interval", "99999999999999999999999"}, "--check-interval"},
      {{"--check-interval", "soon"}, "--check-interval"},
      {{"--log-level", "loud"}, "--log-level"},
      {{"--log-level", "INFO"}, "--log-level"},
      {{"--log-level", ""}, "--log-level"},
      {{"--log-level", "1"}, "--log-level"},
      {{"--once=maybe"}, "once"},
      {{"--output", "a", "b"}, "b"},
      {{"--output", "a", "--output", ""}, "--output"},
      {{"--syslog=maybe"}, "syslog"},
      {{"--syslog-severity", "loud"}, "--syslog-severity"},
      {{"--syslog-severity", "7"}, "--syslog-severity"},
      {{"--syslog-facility", "kern"}, "--syslog-facility"},
      {{"--syslog-facility", ""}, "--syslog-facility"},
      {{"--json"}, "--status"},
      {{"--status-file", ""}, "--status-file"},
  };
  for (const Row& row : rows) {
    const Parsed parsed = Parse(row.arguments);
    EXPECT_FALSE(parsed.commandLine.run) << Text(row.arguments);
    EXPECT_EQ(parsed.commandLine.exitCode, EXIT_USAGE) << Text(row.arguments);
    EXPECT_THAT(parsed.errors, HasSubstr(row.named)) << Text(row.arguments);
    EXPECT_EQ(parsed.output, "") << Text(row.arguments);
  }
}

TEST(OptionsTest, TheVersionGoesToStandardOutput) {
  const Parsed parsed = Parse({"--version"});
  EXPECT_FALSE(parsed.commandLine.run);
  EXPECT_EQ(parsed.commandLine.exitCode, EXIT_DONE);
  EXPECT_EQ(parsed.output, "velta-agent " VELTA_VERSION "\n");
  EXPECT_EQ(parsed.errors, "");
}

TEST(OptionsTest, TheHelpFitsOneScreenAndNamesEveryOptionAndExitCode) {
  const Parsed parsed = Parse({"--help"});
  EXPECT_FALSE(parsed.commandLine.run);
  EXPECT_EQ(parsed.commandLine.exitCode, EXIT_DONE);
  EXPECT_EQ(parsed.errors, "");
  for (const char* const word : {"--policy FILE",
                                 "--module FILE",
                                 "--output FILE|-",
                                 "--syslog ",
                                 "--syslog-severity NAME",
                                 "--syslog-facility NAME",
                                 "--status ",
                                 "--json ",
                                 "--status-file FILE",
                                 "10 --status",
                                 "--limit N",
                                 "--check-interval MS",
                                 "--log-level LEVEL",
                                 "--once",
                                 "--check-policy FILE",
                                 "--help",
                                 "--version",
                                 "0 done",
                                 "1 --once",
                                 "2 usage",
                                 "3 policy",
                                 "4 module",
                                 "5 output",
                                 "6 system",
                                 "7 --once",
                                 "SIGHUP",
                                 "SIGTERM",
                                 "Example"}) {
    EXPECT_THAT(parsed.output, HasSubstr(word));
  }
  std::istringstream text(parsed.output);
  int lines = 0;
  for (std::string line; std::getline(text, line); ++lines) {
    EXPECT_LE(line.size(), 100U) << line;
  }
  EXPECT_LE(lines, 30);
}

}  // namespace
