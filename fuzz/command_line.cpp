// Arguments, separated by a NUL or a newline.

#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "agent/options.h"
#include "fuzz/fuzz_target.h"

namespace {

class Silence : public std::streambuf {
 protected:
  int_type overflow(int_type character) override { return traits_type::not_eof(character); }
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Silence silence;
  std::cout.rdbuf(&silence);
  std::cerr.rdbuf(&silence);

  std::vector<std::string> arguments(1);
  for (const char character : InputText(data, size)) {
    if (character == '\0' || character == '\n') {
      arguments.emplace_back();
    } else {
      arguments.back() += character;
    }
  }
  std::vector<const char*> argv = {"velta-agent"};
  for (const std::string& argument : arguments) {
    argv.push_back(argument.c_str());
  }
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);

  const CommandLine commandLine = ParseCommandLine(argc, argv.data());
  if (!commandLine.run) {
    Check(commandLine.exitCode == EXIT_DONE || commandLine.exitCode == EXIT_USAGE, "an unknown exit code");
    return 0;
  }
  const Options& options = commandLine.options;
  Check(commandLine.exitCode == EXIT_DONE, "it runs with an exit code");
  Check(options.syslog || !options.outputs.empty(), "events go nowhere");
  for (const std::string& output : options.outputs) {
    Check(!output.empty(), "an empty output was taken");
  }
  Check(options.identityInterval.count() >= 0 && options.identityInterval.count() <= 3600000,
        "an interval beyond its range was taken");
  Check(options.logLevel >= LogLevel::Debug && options.logLevel <= LogLevel::Off, "no such log level");
  return 0;
}
