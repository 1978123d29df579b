#include "agent/beat.h"

#include <algorithm>

using std::chrono::microseconds;

Beat::Beat(microseconds watchdog, Time now) : period(watchdog / 2) {
  if (period > microseconds::zero()) {
    nextSign = now + period;
  }
}

void Beat::NoteChange(Time now) { stateDue = stateDue.value_or(now + settling); }

void Beat::RetryState(Time now) { stateDue = now + retryInterval; }

bool Beat::TakeState(Time now) {
  const bool due = stateDue && *stateDue <= now;
  if (due) {
    stateDue.reset();
  }
  return due;
}

void Beat::GaveSign(bool given, Time now) {
  nextSign = now + (given ? period : std::min<microseconds>(period, retryInterval));
}

std::optional<Beat::Time> Beat::NextDue() const {
  if (!stateDue || !nextSign) {
    return stateDue ? stateDue : nextSign;
  }
  return std::min(*stateDue, *nextSign);
}

std::string WhatIsStuck(const Pulse& before, const Pulse& now, microseconds longest, Beat::Time time) {
  if (now.monitorRounds == before.monitorRounds) {
    return "the file monitor's thread makes no round";
  }
  if (now.readingSince && time - *now.readingSince > longest) {
    return "a reading does not end";
  }
  for (const DeliveryState& delivery : now.deliveries) {
    if (delivery.writingSince && time - *delivery.writingSince > longest) {
      return "an attempt to deliver to " + delivery.output + " does not end";
    }
  }
  return "";
}
