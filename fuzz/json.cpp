// JSON texts that are read and written, and any bytes as the text of an event.

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/json.h"
#include "fuzz/fuzz_target.h"
#include "host/json.h"

namespace {

bool IsOneLineOfAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char character) { return character >= ' ' && character <= '~'; });
}

std::string WithoutOthers(std::string text) {
  const auto isOther = [](char character) { return static_cast<unsigned char>(character) >= 0x80; };
  text.erase(std::remove_if(text.begin(), text.end(), isOther), text.end());
  return text;
}

// What is read is written as it was meant, on one line, and written the same after it was read again.
void CheckDocument(const std::string& text) {
  const std::optional<JsonFault> fault = FindJsonFault(text);
  utils::MyJson::MyValue document;
  const bool parsed = utils::MyJson::MyCharReader().Parse(text, document);
  Check(parsed != fault.has_value(), "a fault in a text that parses, or none in one that does not");
  if (fault) {
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    Check(fault->line >= 1 && fault->line <= lines, "a fault beyond the last line");
    Check(fault->column >= 1 && fault->column <= text.size() + 1, "a fault beyond the end of a line");
    Check(!fault->reason.empty(), "a fault without a reason");
    return;
  }
  const std::string written = Utils::Convert::JsonToString(document);
  Check(IsOneLineOfAscii(written), "a document is not written as one line of ASCII");
  Check(nlohmann::json::parse(written) == nlohmann::json::parse(text), "another document was written");
  utils::MyJson::MyValue again;
  Check(utils::MyJson::MyCharReader().Parse(written, again), "what was written does not parse");
  Check(Utils::Convert::JsonToString(again) == written, "written another way the second time");
}

bool IsUtf8(const std::string& bytes) {
  std::string quoted = "\"";
  for (const char character : bytes) {
    const bool plain = static_cast<unsigned char>(character) >= 0x20 && character != '"' && character != '\\';
    quoted += plain ? character : ' ';
  }
  return nlohmann::json::accept(quoted + '"');
}

void CheckString(const std::string& bytes) {
  utils::MyJson::MyValue content;
  content["userName"] = bytes;
  content[bytes.c_str()] = 1;
  utils::MyJson::MyValue event;
  event.JsonItemAddToObject("eventContent", content);
  const std::string text = Utils::Convert::JsonToString(event);
  Check(IsOneLineOfAscii(text), "an event is not one line of ASCII");
  const nlohmann::json read = nlohmann::json::parse(text).at("eventContent");
  if (std::string(bytes.c_str()) == "userName") {
    Check(read == nlohmann::json({{"userName", 1}}), "the last value of a name is not there");
    return;
  }
  Check(read.size() == 2, "an event has other members");
  const std::string name = read.at("userName");
  if (IsUtf8(bytes)) {
    Check(name == bytes, "a text has changed");
  } else {
    Check(name.find("\xef\xbf\xbd") != std::string::npos, "invalid bytes are not marked");
    Check(WithoutOthers(name) == WithoutOthers(bytes), "invalid bytes have changed others");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input = InputText(data, size);
  CheckDocument(input);
  CheckString(input);
  return 0;
}
