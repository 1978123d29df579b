#include "agent/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "agent/syslog_sink.h"

namespace {

// In the order of LogLevel.
const std::vector<std::string> logLevelNames = {"debug", "info", "warning", "error", "off"};

LogLevel LogLevelOf(const std::string& name) {
  const auto found = std::find(logLevelNames.begin(), logLevelNames.end(), name);
  return static_cast<LogLevel>(found - logLevelNames.begin());
}

std::vector<std::string> EachOnce(const std::vector<std::string>& texts) {
  std::vector<std::string> unique;
  for (const std::string& text : texts) {
    if (std::find(unique.begin(), unique.end(), text) == unique.end()) {
      unique.push_back(text);
    }
  }
  return unique;
}

constexpr char footer[] =
    R"(Exit codes: 0 done (with --once: no alert), 1 --once raised alerts or --status found trouble,
2 usage, 3 policy, 4 module, 5 output, 6 system resources, 7 --once could not read /etc/passwd,
10 --status found no running agent. Signals: SIGHUP reloads the policy, SIGTERM and SIGINT stop.

Example: alerts to a file and to the log daemon, 100 a minute at most
  velta-agent --policy policy.json --output alerts.jsonl --syslog --limit 100)";

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  std::string logLevel = "info";
  std::string severity = "alert";
  std::string facility = "authpriv";
  long long identityMs = options.identityInterval.count();
  CLI::App app("Watches /etc/passwd and writes a JSON line for every account that newly has user ID 0.",
               "velta-agent");
  app.set_version_flag("--version", "velta-agent " VELTA_VERSION);
  app.get_formatter()->column_width(26);
  app.footer(footer);
  // An empty value is a variable that was not set in somebody's script: never a wish for the default.
  const auto refuseEmpty = [](const std::string& text) {
    return text.empty() ? std::string("the value is empty") : std::string();
  };
  // Decimal digits alone: the library would take 010 for eight, and its own message names no range.
  const auto numberUpTo = [](std::uint64_t highest) {
    return [highest](const std::string& text) {
      const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
      const bool plain = digits && text.size() < 12 && (text[0] != '0' || text.size() == 1);
      return plain && std::stoull(text) <= highest
                 ? std::string()
                 : "'" + text + "' is not a number from 0 to " + std::to_string(highest);
    };
  };
  const auto value = [&](CLI::Option* option, const char* name) {
    option->check(refuseEmpty)->option_text(name)->take_last();
  };
  value(app.add_option("--policy", options.policyPath, "the policy, a JSON file (default: detection on)"),
        "FILE");
  value(app.add_option("--module", options.modulePath,
                       "the module (default: beside the agent, or in ../lib/velta)"),
        "FILE");
  // Each counts, so that several can be given.
  app.add_option("--output", options.outputs, "where alerts go: a file, or - for standard output (-)")
      ->check(refuseEmpty)
      ->option_text("FILE|-")
      ->allow_extra_args(false)  // one value each time: what stands behind it is a mistake
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_flag("--syslog", options.syslog, "alerts go to the log daemon, too, as @cee: and the JSON")
      ->disable_flag_override();
  value(app.add_option("--syslog-severity", severity, "emerg, alert, crit, err, warning ... debug (alert)")
            ->check(CLI::IsMember(SyslogSink::SeverityNames())),
        "NAME");
  value(app.add_option("--syslog-facility", facility, "auth, authpriv, daemon, user, local0 to 7 (authpriv)")
            ->check(CLI::IsMember(SyslogSink::FacilityNames())),
        "NAME");
  value(app.add_option("--limit", options.eventsPerMinute,
                       "alerts a minute, the others wait; 0 for no limit (60)")
            ->check(numberUpTo(std::numeric_limits<unsigned>::max())),
        "N");
  value(app.add_option("--check-interval", identityMs,
                       "how often a stat looks for what no event tells; 0 for never (1000)")
            ->check(numberUpTo(3600000)),
        "MS");
  value(app.add_option("--log-level", logLevel, "debug, info, warning, error or off (info)")
            ->check(CLI::IsMember(logLevelNames)),
        "LEVEL");
  bool noCrossCheck = false;
  app.add_flag("--no-cross-check", noCrossCheck,
               "leave out what only the C library's reader of accounts finds")
      ->disable_flag_override();
  app.add_flag("--once", options.once, "read once, write the alerts, end")->disable_flag_override();
  value(
      app.add_option("--check-policy", options.checkPolicyPath, "say whether the file is a policy, and end"),
      "FILE");
  CLI::Option* const status =
      app.add_flag("--status", options.status, "tell how the running agent is, and end");
  status->disable_flag_override();
  app.add_flag("--json", options.json, "of --status: as JSON")
      ->disable_flag_override()
      ->needs(status)
      ->option_text(" ");
  value(app.add_option("--status-file", options.statusPath,
                       "where the agent tells it (/run/velta-agent/status.json)"),
        "FILE");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& outcome) {
    const int code = app.exit(outcome);
    return {false, code == 0 ? EXIT_DONE : EXIT_USAGE, options};
  }
  options.syslogSeverity = SyslogSink::SeverityOf(severity).value_or(0);
  options.syslogFacility = SyslogSink::FacilityOf(facility).value_or(0);
  options.outputs = EachOnce(options.outputs);
  if (options.outputs.empty() && !options.syslog) {
    options.outputs.emplace_back("-");
  }
  options.logLevel = LogLevelOf(logLevel);
  options.crossCheck = !noCrossCheck;
  options.identityInterval = std::chrono::milliseconds(identityMs);
  return {true, EXIT_DONE, options};
}
