#include "agent/lost_events.h"

#include <string_view>

namespace {

// The user name as it stands in the event, quotes included; empty without one. No text inside of an event can
// look like the key: its quotes would be escaped.
std::string_view QuotedName(std::string_view event) noexcept {
  constexpr std::string_view key = "\"userName\":";
  const std::size_t found = event.find(key);
  if (found == std::string_view::npos) {
    return {};
  }
  const std::string_view value = event.substr(found + key.size());
  if (value.empty() || value.front() != '"') {
    return {};
  }
  for (std::size_t end = 1; end < value.size(); ++end) {
    if (value[end] == '\\') {
      ++end;
    } else if (value[end] == '"') {
      return value.substr(0, end + 1);
    }
  }
  return {};
}

}  // namespace

LostEvents::LostEvents() { names.reserve(longestNames); }

void LostEvents::Add(const std::string& event) noexcept {
  ++count;
  const std::string_view name = QuotedName(event);
  if (!name.empty() && names.size() + 1 + name.size() <= longestNames) {
    if (named > 0) {
      names += ',';
    }
    names += name;
    ++named;
  }
}

std::string LostEvents::Summary(const std::string& time) const {
  return R"({"eventType":"lost-alerts","eventTime":")" + time + R"(","eventContent":{"count":)" +
         std::to_string(count) + R"(,"userNames":[)" + names + R"(],"unnamed":)" +
         std::to_string(count - named) + "}}";
}

void LostEvents::Clear() noexcept {
  count = 0;
  named = 0;
  names.clear();  // the memory stays reserved
}
