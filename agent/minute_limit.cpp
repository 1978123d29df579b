#include "agent/minute_limit.h"

namespace {

constexpr std::chrono::minutes minute(1);

}  // namespace

bool MinuteLimit::MinuteIsOver(Time now) const { return counted == 0 || now - began >= minute; }

void MinuteLimit::Count(Time now) {
  if (MinuteIsOver(now)) {
    began = now;
    counted = 0;
  }
  ++counted;
}

MinuteLimit::Time MinuteLimit::NextAdmission(Time now) const {
  const bool admitted = perMinute == 0 || MinuteIsOver(now) || counted < perMinute;
  return admitted ? now : began + minute;
}
