#include "agent/deliveries.h"

#include <algorithm>
#include <utility>

#include "agent/logger.h"

using std::chrono::milliseconds;

Deliveries::Deliveries(std::vector<std::unique_ptr<EventOutput>> outputs, Logger& logger,
                       unsigned eventsPerMinute, const std::function<void()>& whenChanged) {
  const bool alone = outputs.size() == 1;
  for (std::unique_ptr<EventOutput>& output : outputs) {
    deliveries.push_back(
        std::make_unique<Delivery>(std::move(output), logger, eventsPerMinute, whenChanged, alone));
  }
}

void Deliveries::Push(const std::string& event, Lane lane) noexcept {
  for (const std::unique_ptr<Delivery>& delivery : deliveries) {
    delivery->queue.Push(event, lane);
  }
}

std::size_t Deliveries::Accepted() const { return deliveries.front()->queue.Accepted(); }

std::vector<DeliveryState> Deliveries::States() const {
  std::vector<DeliveryState> states;
  for (const std::unique_ptr<Delivery>& delivery : deliveries) {
    states.push_back(delivery->queue.State());
  }
  return states;
}

bool Deliveries::Drain(std::optional<milliseconds> patience) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + patience.value_or(milliseconds::zero());
  for (const std::unique_ptr<Delivery>& delivery : deliveries) {
    delivery->queue.BeginDrain();
  }
  std::vector<SendQueue*> left;
  for (const std::unique_ptr<Delivery>& delivery : deliveries) {
    std::optional<milliseconds> rest;
    if (patience) {
      rest = std::max(milliseconds::zero(), std::chrono::ceil<milliseconds>(deadline - Clock::now()));
    }
    if (!delivery->queue.AwaitDrained(rest)) {
      left.push_back(&delivery->queue);
    }
  }
  // However many hang, their time runs side by side.
  for (SendQueue* const queue : left) {
    queue->GiveUp();
  }
  const auto longestAttemptEnds = Clock::now() + SendQueue::LongestAttempt();
  bool all = true;
  for (SendQueue* const queue : left) {
    all = queue->EndDrain(longestAttemptEnds) && all;
  }
  return all;
}

bool Deliveries::HasHung() const {
  return std::any_of(deliveries.begin(), deliveries.end(),
                     [](const std::unique_ptr<Delivery>& delivery) { return delivery->queue.HasHung(); });
}

std::string Deliveries::Names() const {
  std::string names;
  for (const std::unique_ptr<Delivery>& delivery : deliveries) {
    names += (names.empty() ? "" : ", ") + delivery->output->Name();
  }
  return names;
}
