// A policy file is accepted exactly when the JSON library accepts its text, with two exceptions: a NUL, which
// would end the text for the module, and deep nesting, which would end the stack.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "agent/policy.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/memory_file.h"

namespace {

constexpr std::size_t deepestNesting = 1000;

// Of a text that is JSON.
std::size_t NestingOf(const std::string& text) {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool inString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (inString && text[at] == '\\') {
      ++at;
    } else if (text[at] == '"') {
      inString = !inString;
    } else if (!inString && (text[at] == '[' || text[at] == '{')) {
      deepest = std::max(deepest, ++depth);
    } else if (!inString && (text[at] == ']' || text[at] == '}')) {
      --depth;
    }
  }
  return deepest;
}

bool ShouldBeAccepted(const std::string& text) {
  return text.find('\0') == std::string::npos && nlohmann::json::accept(text) &&
         NestingOf(text) <= deepestNesting;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = InputText(data, size);
  WriteMemoryFile(text);
  try {
    Check(LoadPolicy(VELTA_MEMORY_FILE) == text, "another text was read");
  } catch (const std::runtime_error& refusal) {
    const std::string what = refusal.what();
    Check(what.find("policy " VELTA_MEMORY_FILE ":") == 0, "a refusal without the name of the file");
    Check(!ShouldBeAccepted(text), "a policy was refused");
    Check(!PolicyTurnsDetectionOn(text), "a refused policy turns the detection on");
    return 0;
  }
  Check(ShouldBeAccepted(text), "a text was accepted that is no policy");
  Check(PolicyTurnsDetectionOn(text) == nlohmann::json::parse(text).contains("unauthorized-root-user"),
        "the detection is not as the policy has it");
  return 0;
}
