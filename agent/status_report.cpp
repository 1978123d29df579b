#include "agent/status_report.h"

#include <nlohmann/json.hpp>

#include "agent/options.h"
#include "agent/safe_text.h"
#include "agent/status_file.h"

namespace {

using nlohmann::json;

// Whatever stands in the file is shown on one line of a terminal, escaped.
std::string TextIn(const json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) {
    return "?";
  }
  return SafeText(found->is_string() ? found->get<std::string>()
                                     : found->dump(-1, ' ', false, json::error_handler_t::replace));
}

json ObjectIn(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_object() ? *found : json::object();
}

bool IsOn(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

std::string Moment(const json& object, const char* key) {
  const std::string text = TextIn(object, key);
  return text.empty() ? "never" : text + " UTC";
}

bool NeedsALook(const json& output) {
  const std::string state = TextIn(output, "state");
  return state == "failing" || state == "blocked" || TextIn(output, "lost") != "0";
}

std::string OutputLines(const json& output) {
  std::string text = "output    " + TextIn(output, "output") + ": " + TextIn(output, "state") + "; " +
                     TextIn(output, "sent") + " sent, " + TextIn(output, "waiting") + " waiting (" +
                     TextIn(output, "deferred") + " deferred by the limit), " + TextIn(output, "lost") +
                     " lost\n";
  if (!TextIn(output, "lastError").empty()) {
    text += "          last error, " + Moment(output, "lastErrorTime") + ": " + TextIn(output, "lastError") +
            "\n";
  }
  return text;
}

std::string Readable(const json& event, const json& content) {
  const json policy = ObjectIn(content, "policy");
  const json reading = ObjectIn(content, "reading");
  const json watch = ObjectIn(content, "watch");
  const json trouble = ObjectIn(content, "lastError");
  const std::string file = TextIn(policy, "file");
  std::string text = "velta-agent " + TextIn(content, "version") + ", process " + TextIn(content, "process") +
                     ", since " + Moment(content, "since") + "\n";
  text += "policy    " + (file.empty() ? std::string("built in") : file) + ", since " +
          Moment(policy, "since") + ": detection " + (IsOn(policy, "detects") ? "on" : "off") + "\n";
  text += "reading   " + TextIn(reading, "file") + ": " + TextIn(reading, "count") + " begun, the last " +
          Moment(reading, "last");
  text += reading.contains("lines") ? "; " + TextIn(reading, "lines") + " lines\n" : "\n";
  if (!TextIn(reading, "obstacle").empty()) {
    text += "          NOT READ: " + TextIn(reading, "obstacle") + "\n";
  }
  if (reading.contains("failures")) {
    text += "          FAILING: " + TextIn(reading, "failures") + " in a row, since " +
            Moment(reading, "failingSince") + "; the log says why\n";
  }
  text += "watching  " + TextIn(watch, "watches") + " watches" +
          (IsOn(watch, "polls") ? ", and polling, as one was refused\n" : "\n");
  for (const json& output : content.value("outputs", json::array())) {
    text += output.is_object() ? OutputLines(output) : "";
  }
  if (!TextIn(trouble, "time").empty()) {
    text += "log       last error, " + Moment(trouble, "time") + ": " + TextIn(trouble, "text") + "\n";
  }
  return text + "as of     " + Moment(event, "eventTime") + "\n";
}

bool HasTrouble(const json& content) {
  for (const json& output : content.value("outputs", json::array())) {
    if (output.is_object() && NeedsALook(output)) {
      return true;
    }
  }
  const json reading = ObjectIn(content, "reading");
  return !TextIn(reading, "obstacle").empty() || reading.contains("failures") ||
         IsOn(ObjectIn(content, "watch"), "polls") || !IsOn(ObjectIn(content, "policy"), "detects");
}

}  // namespace

StatusReport ReportStatus(const std::string& path, bool asJson) {
  const StatusFound status = ReadStatusFile(path);
  if (!status.found) {
    return {"", "no agent tells of itself here: " + status.error, EXIT_NO_AGENT};
  }
  const json event = json::parse(status.text, nullptr, false);
  const json content = event.is_object() ? ObjectIn(event, "eventContent") : json::object();
  if (content.empty()) {
    return {"", path + ": not the status of an agent", EXIT_NO_AGENT};
  }
  if (!status.running) {
    return {"", path + ": its agent is gone; this was its last word, " + Moment(event, "eventTime"),
            EXIT_NO_AGENT};
  }
  const int code = HasTrouble(content) ? EXIT_ALERTS : EXIT_DONE;
  return {asJson ? status.text : Readable(event, content), "", code};
}
