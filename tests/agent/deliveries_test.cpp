#include "agent/deliveries.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/event_sink.h"
#include "agent/logger.h"
#include "tests/agent/hanging_output.h"
#include "tests/agent/patience.h"
#include "tests/support/temporary_folder.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

// Takes no event as long as it is held.
class HeldOutput : public EventOutput {
 public:
  explicit HeldOutput(Outcome outcomeWhenHeld) : whenHeld(outcomeWhenHeld) {}

  Outcome Write(const std::string& event, milliseconds patience) override {
    std::unique_lock<std::mutex> lock(mutex);
    if (held && whenHeld == Outcome::Blocked) {
      released.wait_for(lock, patience, [this] { return !held; });
    }
    if (held) {
      return whenHeld;
    }
    taken.push_back(event);
    return Outcome::Delivered;
  }
  const std::string& Error() const override { return error; }
  const std::string& Name() const override { return name; }

  void LetGo() {
    const std::lock_guard<std::mutex> lock(mutex);
    held = false;
    released.notify_all();
  }
  std::vector<std::string> Taken() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return taken;
  }

 private:
  const Outcome whenHeld;
  const std::string error = "held: no";
  const std::string name = "held";
  mutable std::mutex mutex;
  std::condition_variable released;
  bool held = true;
  std::vector<std::string> taken;
};

// Tells when the state has changed so that a question is answered with yes.
class ChangesOfState {
 public:
  std::function<void()> Notify() {
    return [this] {
      const std::lock_guard<std::mutex> lock(mutex);
      ++count;
      changed.notify_all();
    };
  }
  bool WaitUntil(const std::function<bool()>& question) {
    const auto deadline = std::chrono::steady_clock::now() + generous;
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      const unsigned seen = count;
      lock.unlock();
      const bool answer = question();
      lock.lock();
      if (answer || (count == seen && !changed.wait_until(lock, deadline, [&] { return count != seen; }))) {
        return answer;
      }
    }
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  unsigned count = 0;
};

class DeliveriesTest : public testing::Test {
 protected:
  // A file, and an output that is held.
  void Open(EventOutput::Outcome whenHeld, unsigned limit = noLimit) {
    std::vector<std::unique_ptr<EventOutput>> outputs;
    auto output = std::make_unique<HeldOutput>(whenHeld);
    held = output.get();
    outputs.push_back(std::move(output));
    outputs.push_back(std::make_unique<EventSink>(path));
    deliveries = std::make_unique<Deliveries>(std::move(outputs), logger, limit, changes.Notify());
  }

  TemporaryFolder folder;
  const std::string path = folder.Path("events");
  Logger logger{LogLevel::Off};
  ChangesOfState changes;
  HeldOutput* held = nullptr;
  std::unique_ptr<Deliveries> deliveries;
};

TEST_F(DeliveriesTest, AnOutputThatIsBlockedHoldsUpNoOther) {
  for (const EventOutput::Outcome outcome : {EventOutput::Outcome::Blocked, EventOutput::Outcome::Failed}) {
    Open(outcome);
    deliveries->Push("one");
    deliveries->Push("two", EventQueue::Lane::Findings);
    EXPECT_TRUE(changes.WaitUntil([&] { return deliveries->States()[1].sent == 2; }));
    EXPECT_THAT(held->Taken(), ElementsAre());
    EXPECT_EQ(deliveries->States()[0].waiting, 2U);
    held->LetGo();
    EXPECT_TRUE(deliveries->Drain(generous));
    EXPECT_THAT(held->Taken(), ElementsAre("one", "two"));
  }
  EXPECT_EQ(folder.Read("events"), "one\ntwo\none\ntwo\n");
}

TEST_F(DeliveriesTest, AnEndGivesAllOutputsTheSameTime) {
  constexpr std::size_t count = 2000;  // more than an output takes in the moment after the time of another
  Open(EventOutput::Outcome::Blocked, 1);
  std::string expected;
  for (std::size_t number = 0; number < count; ++number) {
    deliveries->Push(std::to_string(number));
    expected += std::to_string(number) + "\n";
  }
  EXPECT_FALSE(deliveries->Drain(milliseconds(2000))) << "the held one has not taken anything";
  EXPECT_TRUE(folder.Read("events") == expected) << "the limit does not hold at the end, for either";
  EXPECT_EQ(deliveries->Accepted(), count);
}

TEST_F(DeliveriesTest, EachOutputHasItsOwnState) {
  Open(EventOutput::Outcome::Failed, 1);
  EXPECT_EQ(deliveries->Names(), "held, " + path);
  EXPECT_EQ(deliveries->States()[0].condition, DeliveryState::Condition::Untried);
  deliveries->Push("one");
  deliveries->Push("two");
  EXPECT_TRUE(changes.WaitUntil([&] {
    const std::vector<DeliveryState> states = deliveries->States();
    return states[0].waiting == 2 && states[0].condition == DeliveryState::Condition::Fails &&
           states[1].deferred == 1;
  }));
  const std::vector<DeliveryState> states = deliveries->States();
  EXPECT_EQ(states[0].output, "held");
  EXPECT_EQ(states[0].sent, 0U);
  EXPECT_EQ(states[0].deferred, 0U) << "it waits for the output, not for the limit";
  EXPECT_EQ(states[0].lastError, "held: no");
  EXPECT_NE(states[0].lastErrorAt, 0);
  EXPECT_EQ(states[1].output, path);
  EXPECT_EQ(states[1].condition, DeliveryState::Condition::Takes);
  EXPECT_EQ(states[1].sent, 1U);
  EXPECT_EQ(states[1].waiting, 1U);
  EXPECT_EQ(states[1].lastError, "");
}

TEST_F(DeliveriesTest, AnEventThatAnOutputRefusesIsCountedAsLostAndHoldsUpNothing) {
  Open(EventOutput::Outcome::Refused);
  deliveries->Push("too long");
  EXPECT_TRUE(changes.WaitUntil([&] { return deliveries->States()[0].lost == 1; }));
  held->LetGo();
  deliveries->Push("two");
  EXPECT_TRUE(deliveries->Drain(generous));
  EXPECT_THAT(held->Taken(), ElementsAre("two"));
  EXPECT_EQ(deliveries->States()[0].sent, 1U);
  EXPECT_EQ(deliveries->States()[0].lastError, "held: no");
  EXPECT_EQ(logger.LastError().text, "send queue: held: no; it is left to the log: too long");
}

// Never makes anybody wait, and notes who comes.
class QuickOutput : public EventOutput {
 public:
  explicit QuickOutput(std::vector<std::thread::id>& writingThreads) : writers(writingThreads) {}

  Outcome Write(const std::string& /*event*/, milliseconds /*patience*/) override {
    writers.push_back(std::this_thread::get_id());
    return Outcome::Delivered;
  }
  bool NeverWaits() const override { return true; }
  const std::string& Error() const override { return name; }
  const std::string& Name() const override { return name; }

 private:
  const std::string name = "quick";
  std::vector<std::thread::id>& writers;
};

TEST_F(DeliveriesTest, AnAlertLeavesOnTheThreadThatPushesItWhereThereIsOneOutput) {
  for (const std::size_t count : {1U, 2U}) {
    std::vector<std::thread::id> writers;
    std::vector<std::unique_ptr<EventOutput>> outputs;
    outputs.push_back(std::make_unique<QuickOutput>(writers));
    if (count == 2) {
      outputs.push_back(std::make_unique<EventSink>(folder.Path("events")));
    }
    Deliveries all(std::move(outputs), logger, noLimit);
    all.Push("alert");
    all.Push("finding", EventQueue::Lane::Findings);
    EXPECT_TRUE(all.Drain(generous));
    ASSERT_EQ(writers.size(), 2U);
    EXPECT_EQ(writers[0] == std::this_thread::get_id(), count == 1) << count << " outputs";
    EXPECT_NE(writers[1], std::this_thread::get_id()) << "a finding must not be in the way of an alert";
  }
}

TEST_F(DeliveriesTest, HoweverManyOutputsHangTheirTimeAtTheEndRunsSideBySide) {
  constexpr std::size_t count = 5;
  std::vector<std::unique_ptr<EventOutput>> outputs;
  std::vector<HangingOutput*> hanging;
  for (std::size_t number = 0; number < count; ++number) {
    auto output = std::make_unique<HangingOutput>();
    hanging.push_back(output.get());
    outputs.push_back(std::move(output));
  }
  Deliveries all(std::move(outputs), logger, noLimit);
  all.Push("event");
  for (HangingOutput* const output : hanging) {
    output->AwaitEntry();
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(all.Drain(milliseconds(1)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, (count - 1) * SendQueue::LongestAttempt());
  EXPECT_TRUE(all.HasHung());
  for (HangingOutput* const output : hanging) {
    output->Release();
  }
}

}  // namespace
