#ifndef VELTA_AGENT_EVENT_QUEUE_H
#define VELTA_AGENT_EVENT_QUEUE_H

#include <string>

// What takes events from those who make them.
//
// Thread use: any thread.
class EventQueue {
 public:
  enum class Lane { Alerts, Findings };

  virtual ~EventQueue() = default;

  // Never throws, and never waits for an output, with the exception that SendQueue has: it is called with the
  // detector's lock held.
  virtual void Push(const std::string& event, Lane lane) noexcept = 0;
  void Push(const std::string& event) noexcept { Push(event, Lane::Alerts); }
};

#endif  // VELTA_AGENT_EVENT_QUEUE_H
