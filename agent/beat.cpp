#include "agent/beat.h"

#include <algorithm>

using std::chrono::microseconds;

Beat::Beat(microseconds watchdog, Time now) : period(watchdog / 2) {
  if (period > microseconds::zero()) {
    nextSign = now + period;
  }
}

void Beat::NoteChange(Time now) { stateDue = stateDue.value_or(now + settling); }

void Beat::SentMessage(bool sent, Time now) {
  if (sent) {
    messageDue.reset();
    messageRetry = retryInterval;
    return;
  }
  messageDue = now + messageRetry;
  messageRetry = std::min(messageRetry * 2, longestRetryInterval);
}

bool Beat::TakeMessage(Time now) {
  const bool due = messageDue && *messageDue <= now;
  if (due) {
    messageDue.reset();
  }
  return due;
}

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
  std::optional<Time> next;
  for (const std::optional<Time>& due : {stateDue, messageDue, nextSign}) {
    if (due && (!next || *due < *next)) {
      next = due;
    }
  }
  return next;
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
