#include "agent/send_queue.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/event_sink.h"
#include "agent/logger.h"
#include "tests/agent/hanging_output.h"
#include "tests/agent/patience.h"
#include "tests/support/event_record.h"
#include "tests/support/event_time.h"
#include "tests/support/line_reader.h"
#include "tests/support/temporary_folder.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;

std::string Lines(const std::vector<std::string>& events) {
  std::string text;
  for (const std::string& event : events) {
    text += event + "\n";
  }
  return text;
}

// "event 0", "event 1" ... of that length at least.
std::vector<std::string> Events(std::size_t count, std::size_t length = 0) {
  std::vector<std::string> events;
  for (std::size_t number = 0; number < count; ++number) {
    events.push_back("event " + std::to_string(number));
    events.back().append(length > events.back().size() ? length - events.back().size() : 0, '.');
  }
  return events;
}

// A log whose records can be waited for.
class LogPipe {
 public:
  LogPipe() {
    if (pipe(ends.data()) != 0) {
      throw std::runtime_error("no pipe for the log");
    }
    reader = std::make_unique<LineReader>(ends[0]);
    logger = std::make_unique<Logger>(LogLevel::Debug, ends[1]);
  }
  ~LogPipe() { End(); }
  LogPipe(const LogPipe&) = delete;
  LogPipe& operator=(const LogPipe&) = delete;

  Logger& Log() { return *logger; }

  // The next record, without its time.
  std::string Next() {
    const std::string line = reader->Next(generous);
    return line.front() == '[' ? line : line.substr(line.find(' ') + 1);
  }

  // All records that are left; nobody logs any more.
  std::vector<std::string> Rest() {
    End();
    std::vector<std::string> records;
    for (;;) {
      const std::string record = Next();
      if (record == "[the end] ") {
        return records;
      }
      records.push_back(record);
    }
  }

 private:
  void End() {
    if (logger) {
      logger.reset();
      close(ends[1]);
    }
  }

  std::array<int, 2> ends{};
  std::unique_ptr<LineReader> reader;
  std::unique_ptr<Logger> logger;
};

class SendQueueTest : public testing::Test {
 protected:
  SendQueueTest() { std::signal(SIGPIPE, SIG_IGN); }

  void Open(unsigned eventsPerMinute) { Open(path, eventsPerMinute); }
  void Open(const std::string& output, unsigned eventsPerMinute) {
    sink = std::make_unique<EventSink>(output);
    queue = std::make_unique<SendQueue>(*sink, log.Log(), eventsPerMinute);
  }

  void Push(const std::vector<std::string>& events) const {
    for (const std::string& event : events) {
      queue->Push(event);
    }
  }

  // Ends the queue and gives what is left of the log.
  std::vector<std::string> RestOfLog() {
    queue.reset();
    return log.Rest();
  }

  TemporaryFolder folder;
  const std::string path = folder.Path("events");
  LogPipe log;
  std::unique_ptr<EventSink> sink;
  std::unique_ptr<SendQueue> queue;
};

TEST_F(SendQueueTest, EventsLeaveInTheirOrderWithoutAWord) {
  Open(noLimit);
  Push(Events(500));
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(folder.Read("events"), Lines(Events(500)));
  EXPECT_EQ(queue->Accepted(), 500U);
  EXPECT_THAT(RestOfLog(), ElementsAre());
}

TEST_F(SendQueueTest, AnEmptyQueueIsDrainedAtOnce) {
  Open(noLimit);
  EXPECT_TRUE(queue->Drain(milliseconds(0)));
  EXPECT_EQ(queue->Accepted(), 0U);
}

TEST_F(SendQueueTest, Fault13EventsBeyondTheLimitWaitAndAreNotLost) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(2);
  Push({"aaa", "bbb", "zzz"});
  EXPECT_THAT(reader.Next(2, generous), ElementsAre("aaa", "bbb"));
  EXPECT_EQ(
      log.Next(),
      "warning send queue: the limit of events a minute is reached; 1 or more wait for the next minute");
  EXPECT_EQ(reader.Next(brief), "[no line in time] ");

  // The end does not wait for the next minute.
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(reader.Next(generous), "zzz");
  EXPECT_THAT(RestOfLog(), ElementsAre());
}

TEST_F(SendQueueTest, Fault13ManyEventsBeyondTheLimitAreOneWarningAndKeepTheirOrder) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(2);
  const std::vector<std::string> events = Events(1000);
  Push(events);
  std::vector<std::string> received = reader.Next(2, generous);
  EXPECT_THAT(log.Next(),
              testing::StartsWith("warning send queue: the limit of events a minute is reached; "));
  EXPECT_TRUE(queue->Drain(generous));
  for (const std::string& event : reader.Next(998, generous)) {
    received.push_back(event);
  }
  EXPECT_THAT(received, ElementsAreArray(events));
  EXPECT_THAT(RestOfLog(), ElementsAre());
}

TEST_F(SendQueueTest, Fault13TheLimitHoldsAgainAfterADrain) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(1);
  Push({"aaa", "bbb"});
  EXPECT_TRUE(queue->Drain(generous));
  Push({"ccc"});
  EXPECT_THAT(reader.Next(2, generous), ElementsAre("aaa", "bbb"));
  EXPECT_EQ(reader.Next(brief), "[no line in time] ");
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(reader.Next(generous), "ccc");
}

TEST_F(SendQueueTest, Fault16AReaderThatResumesGetsEveryRecordWhole) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  const std::vector<std::string> events = Events(5, 100000);
  Push(events);
  EXPECT_EQ(log.Next(),
            "warning send queue: " + path + " is not being read; events are kept and tried again");
  EXPECT_THAT(reader.Next(5, generous), ElementsAreArray(events));
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_THAT(RestOfLog(), ElementsAre(testing::MatchesRegex("info send queue: .*/events takes events again; "
                                                             "[0-4] are still waiting")));
}

TEST_F(SendQueueTest, Fault16ADrainOfAStuckReaderGivesUpAndNamesWhatIsLeft) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  const std::string large(40000, 'x');  // of which the FIFO holds one, and a record of the log none
  Push({large, large});
  EXPECT_EQ(log.Next(),
            "warning send queue: " + path + " is not being read; events are kept and tried again");
  Push({"toor", "alice"});
  EXPECT_FALSE(queue->Drain(brief));
  std::vector<std::string> records = RestOfLog();
  ASSERT_GT(records.size(), 3u);
  EXPECT_EQ(records.front(), "error send queue: 3 events could not be delivered to " + path);
  EXPECT_EQ(records[records.size() - 2], "error send queue: not delivered: toor");
  EXPECT_EQ(records.back(), "error send queue: not delivered: alice");
  std::string told;
  const std::size_t parts = records.size() - 3;
  for (std::size_t part = 1; part <= parts; ++part) {
    const std::string head = "error send queue: not delivered, part " + std::to_string(part) + " of " +
                             std::to_string(parts) + ": ";
    EXPECT_EQ(records[part].substr(0, head.size()), head);
    told += records[part].substr(head.size());
  }
  EXPECT_TRUE(told == large);
}

TEST_F(SendQueueTest, ADrainWithoutPatienceWaitsForASlowReader) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  const std::vector<std::string> events = Events(3, 1024 * 1024);
  Push(events);
  EXPECT_EQ(log.Next(),
            "warning send queue: " + path + " is not being read; events are kept and tried again");
  std::thread slow([&] { EXPECT_THAT(reader.Next(3, generous), ElementsAreArray(events)); });
  EXPECT_TRUE(queue->Drain(std::nullopt));
  slow.join();
}

TEST_F(SendQueueTest, ADrainWithoutPatienceGivesUpOnAnOutputThatFails) {
  Open("/dev/full", noLimit);
  Push({"toor"});
  EXPECT_FALSE(queue->Drain(std::nullopt));
  EXPECT_THAT(RestOfLog(), testing::Contains("error send queue: not delivered: toor"));
}

TEST_F(SendQueueTest, Fault15APushDoesNotWaitForAStuckReader) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  Push({std::string(1024 * 1024, 'x')});
  EXPECT_EQ(log.Next(),
            "warning send queue: " + path + " is not being read; events are kept and tried again");
  const auto start = std::chrono::steady_clock::now();
  Push(Events(1000));
  // One attempt of the sink takes a fifth of a second: a thousand pushes that wait for one take minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_EQ(queue->Accepted(), 1001U);
}

TEST_F(SendQueueTest, Fault16AReaderThatGoesAndReturnsGetsWhatWasPushedMeanwhile) {
  folder.MakeFifo("events");
  auto reader = std::make_unique<LineReader>(path);
  Open(noLimit);
  Push({"one"});
  EXPECT_EQ(reader->Next(generous), "one");
  reader->Close();
  Push({"two"});
  EXPECT_EQ(log.Next(), "warning send queue: " + path +
                            " cannot be written: Broken pipe; events are kept and tried again");
  Push({"three"});
  LineReader another(path);
  Push({"four"});
  EXPECT_THAT(another.Next(3, generous), ElementsAre("two", "three", "four"));
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_THAT(RestOfLog(), ElementsAre(testing::MatchesRegex(
                               "info send queue: .*/events takes events again; [12] are still waiting")));
}

TEST_F(SendQueueTest, Fault16AFullDeviceIsToldOnceAndNothingIsDropped) {
  Open("/dev/full", noLimit);
  Push({"one"});
  EXPECT_EQ(log.Next(),
            "warning send queue: /dev/full cannot be written: No space left on device; events are "
            "kept and tried again");
  Push({"two", "three"});
  EXPECT_FALSE(queue->Drain(brief));
  EXPECT_FALSE(queue->Drain(brief));
  const std::vector<std::string> left = {"error send queue: 3 events could not be delivered to /dev/full",
                                         "error send queue: not delivered: one",
                                         "error send queue: not delivered: two",
                                         "error send queue: not delivered: three"};
  std::vector<std::string> twice = left;
  twice.insert(twice.end(), left.begin(), left.end());
  EXPECT_THAT(RestOfLog(), ElementsAreArray(twice));
}

TEST_F(SendQueueTest, Fault16WhatFailedIsTriedAgainWithoutAnotherEvent) {
  std::filesystem::create_directory(folder.Path("inner"));
  Open(folder.Path("inner/events"), noLimit);
  std::filesystem::remove_all(folder.Path("inner"));
  Push({"one"});
  EXPECT_EQ(log.Next(), "warning send queue: " + folder.Path("inner/events") +
                            " cannot be opened: No such file or directory; events are kept and tried again");
  std::filesystem::create_directory(folder.Path("inner"));
  EXPECT_EQ(log.Next(),
            "info send queue: " + folder.Path("inner/events") + " takes events again; 0 are still waiting");
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(folder.Read("inner/events"), "one\n");
}

// A text of that length as the queue counts it, with a user's name.
std::string LongAlert(const std::string& name, std::size_t cost) {
  const std::string text = R"({"userName":")" + name + R"("} )";
  return text + std::string(cost - text.size() - sizeof(std::string) - 16, '.');
}

TEST_F(SendQueueTest, Fault14AFullQueueLosesWithASummaryThatSaysHowManyAndWhom) {
  folder.MakeFifo("events");  // without a reader
  Open(noLimit);
  const std::vector<std::string> events = {
      LongAlert("a", SendQueue::longestQueue / 4), LongAlert("b", SendQueue::longestQueue / 4),
      LongAlert("c", SendQueue::longestQueue / 4), LongAlert("d", SendQueue::longestQueue / 4)};
  Push(events);
  EXPECT_EQ(queue->Accepted(), 4U);
  Push({R"({"userName":"x"})", R"({"userName":"y"})", "z"});
  EXPECT_EQ(queue->Accepted(), 4U);
  EXPECT_EQ(log.Next(), "warning send queue: " + path + " has no reader; events are kept and tried again");
  EXPECT_EQ(log.Next(), "error send queue: full with 4 events; more are being lost");

  std::filesystem::remove(path);  // a file takes its place, which has room for everything
  EXPECT_TRUE(queue->Drain(generous));
  Push({"later"});
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(queue->Accepted(), 6U);
  const std::string kept = Lines(events);
  const std::string written = folder.Read("events");
  ASSERT_TRUE(written.compare(0, kept.size(), kept) == 0);
  EXPECT_EQ(
      WithoutTimes(written.substr(kept.size())),
      R"({"eventType":"lost-alerts","eventTime":"TIME","eventContent":{"count":3,"userNames":["x","y"],"unnamed":1}})"
      "\nlater\n");
}

TEST_F(SendQueueTest, Fault14TheSummaryDoesNotWaitForTheEnd) {
  folder.MakeFifo("events");  // without a reader
  Open(noLimit);
  const std::string half = LongAlert("half", SendQueue::longestQueue / 2);
  Push({half, half, R"({"userName":"x"})"});
  EXPECT_EQ(log.Next(), "warning send queue: " + path + " has no reader; events are kept and tried again");
  EXPECT_EQ(log.Next(), "error send queue: full with 2 events; more are being lost");
  std::filesystem::remove(path);
  EXPECT_EQ(log.Next(), "info send queue: " + path + " takes events again; 1 are still waiting");
  EXPECT_EQ(log.Next(),
            "error send queue: 1 events were lost: the queue was full; one that says so takes their place");
  EXPECT_TRUE(queue->Drain(generous));
  const std::string written = folder.Read("events");
  ASSERT_TRUE(written.compare(0, 2 * half.size() + 2, Lines({half, half})) == 0);
  const std::string summary = written.substr(2 * half.size() + 2);
  RecordEvent(summary.substr(0, summary.find('\n')));
  EXPECT_THAT(summary, testing::HasSubstr(R"("count":1,"userNames":["x"])"));
}

TEST_F(SendQueueTest, Fault14AHundredThousandAlertsAtOnceAreAllDelivered) {
  Open(noLimit);
  const std::vector<std::string> events = Events(100000, 220);
  Push(events);
  EXPECT_EQ(queue->Accepted(), events.size());
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_TRUE(folder.Read("events") == Lines(events));
}

TEST_F(SendQueueTest, Fault16AnOutputThatNeverComesBackDoesNotHoldUpAnEnd) {
  HangingOutput output;
  queue = std::make_unique<SendQueue>(output, log.Log(), noLimit);
  Push({"one", "two"});
  output.AwaitEntry();
  EXPECT_FALSE(queue->HasHung());
  EXPECT_FALSE(queue->Drain(brief));
  EXPECT_TRUE(queue->HasHung());
  output.Release();
  EXPECT_THAT(
      RestOfLog(),
      ElementsAre(
          "error send queue: an attempt to deliver to hanging does not end; its event may have arrived",
          "error send queue: 2 events could not be delivered to hanging",
          "error send queue: not delivered: one", "error send queue: not delivered: two"));
}

TEST_F(SendQueueTest, Fault14AnEventIsEitherDeliveredOrToldAsNotDelivered) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  const std::vector<std::string> events = Events(80, 900);  // more than the FIFO holds
  Push(events);
  EXPECT_FALSE(queue->Drain(brief));
  // The reader wakes while the last attempt may still be waiting for it.
  std::vector<std::string> outcome;
  while (outcome.size() < events.size()) {
    const std::string line = reader.Next(milliseconds(500));
    if (line.front() == '[') {
      break;
    }
    outcome.push_back(line);
  }
  EXPECT_LT(outcome.size(), events.size());
  for (const std::string& record : RestOfLog()) {
    const std::string told = "error send queue: not delivered: ";
    if (record.rfind(told, 0) == 0) {
      outcome.push_back(record.substr(told.size()));
    }
  }
  EXPECT_THAT(outcome, ElementsAreArray(events));
}

TEST_F(SendQueueTest, FindingsHaveAQuarterOfTheLimitBesideTheAlerts) {
  Open(8);
  for (int number = 0; number < 20; ++number) {
    queue->Push("finding " + std::to_string(number), EventQueue::Lane::Findings);
  }
  EXPECT_THAT(log.Next(),
              testing::MatchesRegex("warning send queue: the limit of events a minute is reached; "
                                    "[0-9]+ or more wait for the next minute"));
  EXPECT_EQ(folder.Read("events"), "finding 0\nfinding 1\n");
  Push(Events(8));  // all of the limit is theirs
  Push({"the ninth"});
  EXPECT_EQ(
      log.Next(),
      "warning send queue: the limit of events a minute is reached; 1 or more wait for the next minute");
  EXPECT_EQ(folder.Read("events"), "finding 0\nfinding 1\n" + Lines(Events(8)));
  EXPECT_TRUE(queue->Drain(generous));
  const std::string written = folder.Read("events");
  EXPECT_THAT(written, testing::HasSubstr("event 7\nthe ninth\nfinding 2\n")) << "alerts first";
  EXPECT_THAT(written, testing::EndsWith("finding 18\nfinding 19\n"));
}

TEST_F(SendQueueTest, AnAlertThatComesBetweenTheAttemptsOfAFindingDoesNotSplitIt) {
  folder.MakeFifo("events");
  LineReader reader(path);
  Open(noLimit);
  const std::string large(100000, 'f');  // more than the FIFO holds
  queue->Push(large, EventQueue::Lane::Findings);
  EXPECT_EQ(log.Next(),
            "warning send queue: " + path + " is not being read; events are kept and tried again");
  Push({"alert"});
  EXPECT_TRUE(reader.Next(generous) == large);
  EXPECT_EQ(reader.Next(generous), "alert");
}

TEST_F(SendQueueTest, AFloodOfFindingsTakesNoRoomOfTheAlerts) {
  folder.MakeFifo("events");  // without a reader
  Open(noLimit);
  const std::string large = LongAlert("large", SendQueue::longestFindings / 2);
  for (int number = 0; number < 5; ++number) {
    queue->Push(large, EventQueue::Lane::Findings);
  }
  EXPECT_EQ(queue->Accepted(), 2U);
  Push({"alert"});
  EXPECT_EQ(queue->Accepted(), 3U);
  std::filesystem::remove(path);
  EXPECT_TRUE(queue->Drain(generous));
  const std::string written = folder.Read("events");
  EXPECT_NE(written.find("alert\n"), std::string::npos);
  EXPECT_NE(written.find(R"("eventContent":{"count":3,"userNames":["large","large","large"])"),
            std::string::npos);
}

TEST_F(SendQueueTest, EventsOfManyThreadsAreAllThereInTheOrderOfEachThread) {
  constexpr std::size_t threadCount = 8;
  constexpr std::size_t eventCount = 250;
  Open(noLimit);
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([this, thread] {
      for (const std::string& event : Events(eventCount)) {
        queue->Push(std::to_string(thread) + " " + event);
      }
    });
  }
  while (queue->Accepted() < threadCount * eventCount / 2) {
    EXPECT_TRUE(queue->Drain(generous));  // in the middle of it, too
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(queue->Accepted(), threadCount * eventCount);

  std::vector<std::vector<std::string>> byThread(threadCount);
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    byThread.at(static_cast<std::size_t>(line[0] - '0')).push_back(line.substr(2));
  }
  EXPECT_THAT(byThread, testing::Each(Events(eventCount)));
}

// A pipe in the place of standard output.
class OutputPipe {
 public:
  OutputPipe() : before(dup(STDOUT_FILENO)) {
    if (pipe2(ends.data(), O_CLOEXEC) != 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
      throw std::runtime_error("no pipe for standard output");
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
  }
  ~OutputPipe() {
    dup2(before, STDOUT_FILENO);
    close(before);
    close(ends[0]);
    close(ends[1]);
  }
  OutputPipe(const OutputPipe&) = delete;
  OutputPipe& operator=(const OutputPipe&) = delete;

  // All that is there now.
  std::string Take() const {
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t size = 0; (size = read(ends[0], part.data(), part.size())) > 0;) {
      text.append(part.data(), static_cast<std::size_t>(size));
    }
    return text;
  }

 private:
  const int before;
  std::array<int, 2> ends{};
};

TEST_F(SendQueueTest, AnAlertHasLeftWhenItIsPushedWhereNothingHoldsItUp) {
  const OutputPipe output;
  Open("-", noLimit);
  for (const std::string& event : Events(1000)) {
    queue->Push(event);
    ASSERT_EQ(output.Take(), event + "\n");
  }
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(queue->Accepted(), 1000U);
  EXPECT_THAT(RestOfLog(), ElementsAre());
}

TEST_F(SendQueueTest, AnAlertThatMeetsAFullPipeFollowsWhatIsBeforeItAndNothingIsSplit) {
  const OutputPipe output;
  Open("-", noLimit);
  const std::vector<std::string> events = Events(100, 2000);  // more than a pipe holds
  Push(events);
  queue->Push("finding", EventQueue::Lane::Findings);
  std::string text;
  while (text.size() < Lines(events).size() + 8) {
    text += output.Take();
  }
  EXPECT_EQ(text, Lines(events) + "finding\n");
  queue->Push("behind");
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(output.Take(), "behind\n");
}

TEST_F(SendQueueTest, Fault13TheLimitHoldsForAlertsThatCouldLeaveAtOnce) {
  const OutputPipe output;
  Open("-", 2);
  Push(Events(3));
  EXPECT_THAT(log.Next(), testing::HasSubstr("the limit of events a minute is reached; 1 or more wait"));
  EXPECT_EQ(output.Take(), Lines(Events(2)));
  EXPECT_TRUE(queue->Drain(generous));
  EXPECT_EQ(output.Take(), "event 2\n");
}

TEST_F(SendQueueTest, AlertsOfManyThreadsLeaveAPipeInTheOrderOfEachThread) {
  constexpr std::size_t threadCount = 4;
  const OutputPipe output;
  Open("-", noLimit);
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([this, thread] {
      for (const std::string& event : Events(250)) {
        queue->Push(std::to_string(thread) + " " + event);
      }
    });
  }
  std::vector<std::string> expected(threadCount);
  std::size_t left = 0;
  for (std::size_t thread = 0; thread < threadCount; ++thread) {
    for (const std::string& event : Events(250)) {
      expected[thread] += std::to_string(thread) + " " + event + "\n";
    }
    left += expected[thread].size();
  }
  std::string text;
  while (text.size() < left) {
    text += output.Take();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> found(threadCount);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    found.at(static_cast<std::size_t>(line[0] - '0')) += line + "\n";
  }
  EXPECT_EQ(found, expected);
}

TEST_F(SendQueueTest, AQueueEndsWhateverItsSinkDoes) {
  // Made and ended again and again: idle, busy, stuck, failing.
  folder.MakeFifo("stuck");
  LineReader reader(folder.Path("stuck"));
  for (int time = 0; time < 20; ++time) {
    for (const std::string& output : {path, folder.Path("stuck"), std::string("/dev/full")}) {
      Open(output, 1);
      if (time % 2 == 1) {
        Push({std::string(20000, 'x'), "two"});
      }
      queue.reset();
    }
  }
}

}  // namespace
