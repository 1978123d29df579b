#ifndef VELTA_AGENT_DELIVERIES_H
#define VELTA_AGENT_DELIVERIES_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/event_output.h"
#include "agent/event_queue.h"
#include "agent/send_queue.h"

class Logger;

// Every event to every output. Each output has a send queue of its own, and with it a thread, a limit a
// minute and memory: one that is blocked or fails holds up no other.
//
// Thread use: as a send queue.
class Deliveries : public EventQueue {
 public:
  // At least one output. Throws std::system_error when no thread is to be had.
  Deliveries(std::vector<std::unique_ptr<EventOutput>> outputs, Logger& logger, unsigned eventsPerMinute,
             const std::function<void()>& whenChanged = nullptr);

  using EventQueue::Push;
  void Push(const std::string& event, Lane lane) noexcept override;

  // By the first output, as each gets the same.
  std::size_t Accepted() const;

  // In the order of the outputs.
  std::vector<DeliveryState> States() const;

  // All outputs at a time; see SendQueue. True when nothing is left for any.
  bool Drain(std::optional<std::chrono::milliseconds> patience);

  // See SendQueue: true when it is so for any output.
  bool HasHung() const;

  // "standard output, syslog"
  std::string Names() const;

 private:
  struct Delivery {
    Delivery(std::unique_ptr<EventOutput> eventOutput, Logger& logger, unsigned eventsPerMinute,
             const std::function<void()>& whenChanged, bool alone)
        : output(std::move(eventOutput)), queue(*output, logger, eventsPerMinute, whenChanged, alone) {}

    const std::unique_ptr<EventOutput> output;
    SendQueue queue;
  };

  std::vector<std::unique_ptr<Delivery>> deliveries;
};

#endif  // VELTA_AGENT_DELIVERIES_H
