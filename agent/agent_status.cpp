#include "agent/agent_status.h"

#include <algorithm>
#include <limits>

#include "agent/utc_time.h"
#include "host/json.h"

using utils::MyJson::MyValue;

namespace {

// A member of an account's file may be any number; what is counted here and does not fit has long been
// enough.
int Number(std::size_t count) {
  constexpr int most = std::numeric_limits<int>::max();
  return count < static_cast<std::size_t>(most) ? static_cast<int>(count) : most;
}

std::string TimeText(std::time_t moment) { return moment == 0 ? "" : UtcTimeText(moment); }

// What the interface of values has no call for: an array, true and false.
MyValue Parsed(const std::string& text) {
  MyValue value;
  utils::MyJson::MyCharReader().Parse(text, value);
  return value;
}

void AddSwitch(MyValue& to, const char* key, bool on) {
  to.JsonItemAddToObject(key, Parsed(on ? "true" : "false"));
}

const char* ConditionName(DeliveryState::Condition condition) {
  switch (condition) {
    case DeliveryState::Condition::Takes:
      return "ok";
    case DeliveryState::Condition::Blocked:
      return "blocked";
    case DeliveryState::Condition::Fails:
      return "failing";
    case DeliveryState::Condition::Untried:
      break;
  }
  return "untried";
}

MyValue DeliveryValue(const DeliveryState& delivery) {
  MyValue value;
  value["output"] = delivery.output;
  value["state"] = ConditionName(delivery.condition);
  value["sent"] = Number(delivery.sent);
  value["waiting"] = Number(delivery.waiting);
  value["deferred"] = Number(delivery.deferred);
  value["lost"] = Number(delivery.lost);
  value["lastError"] = delivery.lastError;
  value["lastErrorTime"] = TimeText(delivery.lastErrorAt);
  return value;
}

}  // namespace

void ReadingRecord::Asked(const TaskScheduler::Permission& permission) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (permission.answer == TaskScheduler::Permission::Answer::Yes) {
    ++state.count;
    state.last = std::time(nullptr);
  }
  if (permission.answer != TaskScheduler::Permission::Answer::NotYet) {
    state.obstacle = permission.reason;
  }
}

void ReadingRecord::Counted(std::size_t lines) {
  const std::lock_guard<std::mutex> lock(mutex);
  state.lines = lines;
}

ReadingRecord::State ReadingRecord::Now() const {
  const std::lock_guard<std::mutex> lock(mutex);
  return state;
}

const char* ConditionText(DeliveryState::Condition condition) {
  switch (condition) {
    case DeliveryState::Condition::Takes:
      return "takes events";
    case DeliveryState::Condition::Blocked:
      return "is not being read";
    case DeliveryState::Condition::Fails:
      return "fails";
    case DeliveryState::Condition::Untried:
      break;
  }
  return "has not been tried";
}

std::string StatusJson(const AgentStatus& status) {
  MyValue content;
  content["version"] = VELTA_VERSION;
  content["process"] = status.process;
  content["since"] = TimeText(status.since);

  MyValue policy;
  policy["file"] = status.policy;
  policy["since"] = TimeText(status.policySince);
  AddSwitch(policy, "detects", status.detects);
  content.JsonItemAddToObject("policy", policy);

  MyValue reading;
  reading["file"] = status.accountFile;
  reading["count"] = Number(status.reading.count);
  reading["last"] = TimeText(status.reading.last);
  if (status.reading.lines) {
    reading["lines"] = Number(*status.reading.lines);
  }
  reading["obstacle"] = status.reading.obstacle;
  if (status.failures > 0) {
    reading["failures"] = Number(status.failures);
    reading["failingSince"] = TimeText(status.failingSince);
  }
  content.JsonItemAddToObject("reading", reading);

  MyValue watch;
  watch["watches"] = Number(status.watch.watches);
  AddSwitch(watch, "polls", status.watch.polls);
  content.JsonItemAddToObject("watch", watch);

  std::string outputs;
  for (const DeliveryState& delivery : status.deliveries) {
    outputs += (outputs.empty() ? "" : ",") + Utils::Convert::JsonToString(DeliveryValue(delivery));
  }
  content.JsonItemAddToObject("outputs", Parsed("[" + outputs + "]"));

  MyValue trouble;
  trouble["time"] = TimeText(status.lastError.when);
  trouble["text"] = status.lastError.text;
  content.JsonItemAddToObject("lastError", trouble);

  MyValue event;
  event["eventType"] = "agent-status";
  event["eventTime"] = TimeText(status.now);
  event.JsonItemAddToObject("eventContent", content);
  return Utils::Convert::JsonToString(event);
}

std::string StatusLine(const AgentStatus& status) {
  std::string line = status.detects ? "watching " + status.accountFile : "the policy has the detection off";
  if (!status.reading.obstacle.empty()) {
    line = "not reading: " + status.reading.obstacle;
  } else if (status.failures > 0) {
    line += ", but readings fail";
  }
  line += status.watch.polls ? ", by polling" : "";
  for (const DeliveryState& delivery : status.deliveries) {
    line += "; " + delivery.output + " " + ConditionText(delivery.condition) + ": " +
            std::to_string(delivery.sent) + " sent, " + std::to_string(delivery.waiting) + " waiting, " +
            std::to_string(delivery.lost) + " lost";
  }
  return line;
}
