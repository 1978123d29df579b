#include "host/send_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/contract/host_under_test.h"
#include "tests/contract/waiting.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

std::string Event(const std::string& name) {
  return R"({"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":{"userName":")" +
         name + R"(","uid":0,"gid":0,"shell":"/bin/sh","home":"/root","type":"illegal"}})";
}

class SendQueueContract : public testing::Test {
 protected:
  HostUnderTest host;
};

TEST_F(SendQueueContract, EventsLeaveInTheirOrder) {
  std::vector<std::string> events;
  for (int number = 0; number < 200; ++number) {
    events.push_back(Event("toor" + std::to_string(number)));
    PushMinuteLimitEventToSendQueue(events.back());
  }
  EXPECT_THAT(host.SentEvents(events.size(), patience), ElementsAreArray(events));
}

TEST_F(SendQueueContract, AnEventLeavesUnchanged) {
  const std::vector<std::string> events = {
      Event(R"(a\"b\\c\n\t\u0001)"),       // escapes stay as they are
      Event("\xC3\xA9\xE2\x82\xAC"),       // so do letters beyond ASCII
      Event("%s%n%d"),                     // and what a formatter would take for its own
      Event(std::string(100 * 1000, 'x'))  // and length
  };
  for (const std::string& event : events) {
    PushMinuteLimitEventToSendQueue(event);
  }
  EXPECT_THAT(host.SentEvents(events.size(), patience), ElementsAreArray(events));
}

TEST_F(SendQueueContract, TheSameEventTwiceLeavesTwice) {
  PushMinuteLimitEventToSendQueue(Event("toor"));
  PushMinuteLimitEventToSendQueue(Event("toor"));
  EXPECT_THAT(host.SentEvents(2, patience), ElementsAre(Event("toor"), Event("toor")));
}

TEST_F(SendQueueContract, TheTextMayGoRightAfterThePush) {
  {
    std::string event = Event("toor");
    PushMinuteLimitEventToSendQueue(event);
    event.assign(event.size(), 'x');
  }
  EXPECT_THAT(host.SentEvents(1, patience), ElementsAre(Event("toor")));
}

TEST_F(SendQueueContract, APushWorksWhileTheCallerHoldsALock) {
  // As the detector does: a queue that calls back, or that waits for somebody who needs that lock, hangs.
  std::mutex mutex;
  {
    std::lock_guard<std::mutex> lock(mutex);
    PushMinuteLimitEventToSendQueue(Event("toor"));
  }
  EXPECT_THAT(host.SentEvents(1, patience), ElementsAre(Event("toor")));
}

TEST_F(SendQueueContract, EachThreadsEventsLeaveInItsOrder) {
  constexpr int threadCount = 4;
  constexpr int eventCount = 50;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([thread] {
      for (int number = 0; number < eventCount; ++number) {
        PushMinuteLimitEventToSendQueue(std::to_string(thread) + " " + std::to_string(number));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  std::vector<std::vector<std::string>> numbers(threadCount);
  for (const std::string& event : host.SentEvents(threadCount * eventCount, patience)) {
    numbers.at(static_cast<std::size_t>(event[0] - '0')).push_back(event.substr(2));
  }
  std::vector<std::string> inOrder;
  for (int number = 0; number < eventCount; ++number) {
    inOrder.push_back(std::to_string(number));
  }
  EXPECT_THAT(numbers, testing::Each(inOrder));
}

}  // namespace
