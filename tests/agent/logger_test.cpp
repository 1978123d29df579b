#include "agent/logger.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/event_queue.h"
#include "agent/file_monitor.h"
#include "agent/safe_text.h"
#include "agent/services.h"
#include "agent/task_scheduler.h"
#include "agent/utc_time.h"
#include "host/logger.h"
#include "tests/agent/file_size_limit.h"
#include "tests/agent/patience.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/short_texts.h"

namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr std::size_t timeLength = sizeof("2026-03-01T08:15:42.123Z") - 1;

// Level and text of each line. A line without a time in front, or without an end, is given whole.
std::vector<std::string> Records(const std::string& written) {
  std::vector<std::string> records;
  std::size_t start = 0;
  while (start < written.size()) {
    const std::size_t end = written.find('\n', start);
    if (end == std::string::npos) {
      records.push_back("no end: " + written.substr(start));
      break;
    }
    std::string line = written.substr(start, end - start);
    if (line.size() > timeLength && line[timeLength - 1] == 'Z') {
      line.erase(0, timeLength + 1);
    }
    records.push_back(line);
    start = end + 1;
  }
  return records;
}

// A pipe between the log and the test.
class Pipe {
 public:
  Pipe() {
    if (pipe(ends.data()) != 0) {
      std::abort();
    }
  }
  ~Pipe() {
    CloseReader();
    close(Writer());
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int Writer() const { return ends[1]; }

  void CloseReader() {
    if (ends[0] >= 0) {
      close(ends[0]);
      ends[0] = -1;
    }
  }

  int Reader() const { return ends[0]; }

  // What is in the pipe now.
  std::string TakeAll() {
    SetNonBlocking(ends[0], true);
    std::string taken;
    std::array<char, 4096> part{};
    for (ssize_t length = 1; length > 0;) {
      length = read(ends[0], part.data(), part.size());
      if (length > 0) {
        taken.append(part.data(), static_cast<std::size_t>(length));
      }
    }
    return taken;
  }

  void Fill() {
    SetNonBlocking(Writer(), true);
    const std::array<char, 4096> part{};
    while (write(Writer(), part.data(), part.size()) > 0) {
    }
    SetNonBlocking(Writer(), false);
  }

 private:
  static void SetNonBlocking(int descriptor, bool nonBlocking) {
    const int flags = fcntl(descriptor, F_GETFL);
    fcntl(descriptor, F_SETFL, nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
  }

  std::array<int, 2> ends{};
};

// A file without a name.
class TemporaryFile {
 public:
  TemporaryFile() : file(std::tmpfile()) {
    if (file == nullptr) {
      std::abort();
    }
  }
  ~TemporaryFile() { std::fclose(file); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int Descriptor() const { return fileno(file); }

  std::string Content() const {
    std::string content;
    std::array<char, 4096> part{};
    ssize_t length = 0;
    while ((length = pread(Descriptor(), part.data(), part.size(), static_cast<off_t>(content.size()))) > 0) {
      content.append(part.data(), static_cast<std::size_t>(length));
    }
    return content;
  }

 private:
  std::FILE* file;
};

class LoggerTest : public testing::Test {
 protected:
  Pipe pipe;
};

TEST_F(LoggerTest, ARecordIsOneLineWithTimeLevelAndText) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  logger.Warning("Failed to read /etc/passwd.");

  EXPECT_THAT(pipe.TakeAll(),
              MatchesRegex("[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]"
                           "\\.[0-9][0-9][0-9]Z warning Failed to read /etc/passwd\\.\n"));
}

// By the clock of the log: time() may still tell the second before.
std::time_t Now() { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

TEST_F(LoggerTest, TheTimeIsInUtc) {
  setenv("TZ", "TEST-05:30", 1);
  tzset();
  Logger logger(LogLevel::Debug, pipe.Writer());
  const std::string before = UtcTimeText(Now());
  logger.Info("now");
  const std::string after = UtcTimeText(Now());
  unsetenv("TZ");
  tzset();

  std::string time = pipe.TakeAll().substr(0, before.size());
  ASSERT_EQ(time.substr(10, 1), "T");
  time[10] = ' ';
  EXPECT_THAT(time, testing::AllOf(testing::Ge(before), testing::Le(after)));
}

TEST_F(LoggerTest, OnlyRecordsFromTheThresholdUpAreWritten) {
  const std::vector<std::string> all = {"debug d", "info i", "warning w", "error e"};
  const std::vector<LogLevel> thresholds = {LogLevel::Debug, LogLevel::Info, LogLevel::Warning,
                                            LogLevel::Error, LogLevel::Off};
  for (std::size_t hidden = 0; hidden < thresholds.size(); ++hidden) {
    Logger logger(thresholds[hidden], pipe.Writer());
    logger.Debug("d");
    logger.Info("i");
    logger.Warning("w");
    logger.Error("e");
    logger.Write(LogLevel::Off, "never");
    const auto firstShown = all.begin() + static_cast<std::ptrdiff_t>(hidden);
    EXPECT_EQ(Records(pipe.TakeAll()), std::vector<std::string>(firstShown, all.end()));
  }
}

TEST_F(LoggerTest, NoTextForgesASecondRecordOrReachesTheTerminalRaw) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  logger.Info("name=a\n2026-03-01T08:15:42.123Z error forged\r");
  logger.Info("\x1b[2J\xe2\x80\xae\xff\\");
  logger.Info(std::string("a\0b", 3));
  logger.Info("");

  EXPECT_THAT(Records(pipe.TakeAll()), ElementsAre("info name=a\\n2026-03-01T08:15:42.123Z error forged\\r",
                                                   "info \\x1b[2J\\u202e\\xff\\\\", "info a\\x00b", "info "));
}

TEST_F(LoggerTest, BracesAndPercentSignsAreText) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  logger.Error("{} {0} {:>99999999} %s %n %v");

  EXPECT_THAT(Records(pipe.TakeAll()), ElementsAre("error {} {0} {:>99999999} %s %n %v"));
}

TEST_F(LoggerTest, ALongTextIsCutAndSaysSo) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  const std::string longest(Logger::longestText, 'x');
  logger.Info(longest);
  logger.Info(longest + "y");
  logger.Info(longest.substr(1) + "\n");
  logger.Info(std::string(1024 * 1024, '\n'));

  std::string newLines;
  for (std::size_t length = 0; length < Logger::longestText; length += 2) {
    newLines += "\\n";
  }
  EXPECT_THAT(Records(pipe.TakeAll()),
              ElementsAre("info " + longest, "info " + longest + " [cut]",
                          "info " + longest.substr(1) + " [cut]", "info " + newLines + " [cut]"));
}

TEST_F(LoggerTest, RecordsForAFullPipeAreDroppedAndCounted) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.Fill();
  logger.Info("lost");
  logger.Error("lost, too");
  logger.Info("and this one");
  pipe.TakeAll();

  logger.Info("there again");
  logger.Info("and on");

  EXPECT_THAT(Records(pipe.TakeAll()),
              ElementsAre("warning 3 log records dropped: the log could not be written", "info there again",
                          "info and on"));
}

TEST_F(LoggerTest, AFullPipeHoldsUpAThousandRecordsOnlyOnce) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.Fill();

  const auto start = std::chrono::steady_clock::now();
  for (int count = 0; count < 1000; ++count) {
    logger.Info("lost");
  }
  const auto passed = std::chrono::steady_clock::now() - start;

  // One wait is a fifth of a second, a thousand of them are more than three minutes.
  EXPECT_GE(passed, std::chrono::milliseconds(190));
  EXPECT_LT(passed, std::chrono::seconds(20));
}

TEST_F(LoggerTest, WhatWasDroppedIsToldAtTheEndIfThereIsRoom) {
  auto logger = std::make_unique<Logger>(LogLevel::Debug, pipe.Writer());
  pipe.Fill();
  logger->Info("lost");
  pipe.TakeAll();
  logger.reset();

  EXPECT_THAT(Records(pipe.TakeAll()),
              ElementsAre("warning 1 log records dropped: the log could not be written"));
}

TEST_F(LoggerTest, AReaderThatIsGoneRaisesNoSignal) {
  struct sigaction inherited = {};
  struct sigaction fatal = {};
  fatal.sa_handler = SIG_DFL;
  ASSERT_EQ(sigaction(SIGPIPE, &fatal, &inherited), 0);
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.CloseReader();

  for (int count = 0; count < 100; ++count) {
    logger.Info("nobody reads this");
  }

  ASSERT_EQ(sigaction(SIGPIPE, &inherited, nullptr), 0);
}

TEST_F(LoggerTest, AClosedDescriptorIsNoError) {
  const int closed = dup(pipe.Writer());
  close(closed);
  for (const int descriptor : {closed, -1}) {
    Logger logger(LogLevel::Debug, descriptor);
    logger.Info("nowhere");
    logger.Info("nowhere");
  }

  EXPECT_EQ(pipe.TakeAll(), "");
}

TEST(LoggerFileTest, ALineThatAFullDiskCutShortIsNotJoinedToTheNext) {
  TemporaryFile file;
  Logger logger(LogLevel::Debug, file.Descriptor());
  {
    const FileSizeLimit limit(timeLength + 11);
    logger.Info("cut here|and not here");
    logger.Info("no room at all");
  }
  logger.Info("room again");

  EXPECT_EQ(file.Content().substr(timeLength, 12), " info cut h\n");
  EXPECT_THAT(Records(file.Content()),
              ElementsAre("info cut h", "warning 2 log records dropped: the log could not be written",
                          "info room again"));
}

TEST(LoggerFileTest, EveryTextOfOneOrTwoBytesIsOneRecordOfPrintableCharacters) {
  const TemporaryFile file;
  std::vector<std::string> expected;
  {
    Logger logger(LogLevel::Debug, file.Descriptor());
    for (const std::string& text : TextsOfOneOrTwoBytes()) {
      logger.Info(text);
      expected.push_back("info " + SafeText(text));
    }
  }
  const std::string content = file.Content();
  EXPECT_EQ(Records(content), expected);
  for (std::size_t at = 0; at < content.size(); ++at) {
    const unsigned char byte = static_cast<unsigned char>(content[at]);
    ASSERT_TRUE(byte == '\n' || (byte >= ' ' && byte != 0x7f)) << "at " << at;
  }
}

TEST(LoggerFileTest, RecordsOfManyThreadsAreWholeAndInTheOrderOfEachThread) {
  constexpr int threadCount = 4;
  constexpr int recordCount = 250;
  TemporaryFile file;
  {
    Logger logger(LogLevel::Debug, file.Descriptor());
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
      threads.emplace_back([&logger, number] {
        for (int count = 0; count < recordCount; ++count) {
          logger.Info("thread " + std::to_string(number) + " record " + std::to_string(count) +
                      std::string(300, '.'));
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  std::vector<std::vector<std::string>> byThread(threadCount);
  for (const std::string& record : Records(file.Content())) {
    ASSERT_THAT(record, MatchesRegex("info thread [0-3] record [0-9]+\\.+"));
    byThread[static_cast<std::size_t>(record[12] - '0')].push_back(record);
  }
  for (int number = 0; number < threadCount; ++number) {
    std::vector<std::string> expected;
    for (int count = 0; count < recordCount; ++count) {
      expected.push_back("info thread " + std::to_string(number) + " record " + std::to_string(count) +
                         std::string(300, '.'));
    }
    EXPECT_EQ(byThread[static_cast<std::size_t>(number)], expected);
  }
}

void TakeSignal(int /*signal*/) {}

// Interrupts system calls: once after a while, or again and again.
class Alarm {
 public:
  Alarm(void (*handler)(int), suseconds_t first, suseconds_t next) {
    struct sigaction action = {};
    action.sa_handler = handler;  // without SA_RESTART
    sigaction(SIGALRM, &action, &inherited);
    Set(first, next);
  }
  ~Alarm() {
    Set(0, 0);
    sigaction(SIGALRM, &inherited, nullptr);
  }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  static void Set(suseconds_t first, suseconds_t next) {
    itimerval times = {};
    times.it_value.tv_usec = first;
    times.it_interval.tv_usec = next;
    setitimer(ITIMER_REAL, &times, nullptr);
  }

  struct sigaction inherited = {};
};

volatile std::sig_atomic_t fullPipe = -1;

void TakeOnePart(int /*signal*/) {
  std::array<char, 4096> part;
  if (read(fullPipe, part.data(), part.size()) <= 0) {
    std::abort();
  }
}

TEST_F(LoggerTest, ARecordWaitsForAReaderThatMakesRoomInTime) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.Fill();
  fullPipe = pipe.Reader();
  {
    const Alarm readsABitLater(TakeOnePart, 20000, 0);
    logger.Info("waited for");
  }
  const std::string read = pipe.TakeAll();

  EXPECT_THAT(Records(read.substr(read.find_last_of('\0') + 1)), ElementsAre("info waited for"));
}

TEST_F(LoggerTest, AReaderThatWasStuckIsWaitedForAgainOnceItReads) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.Fill();
  logger.Info("lost after the whole wait");
  pipe.TakeAll();
  logger.Info("there again");
  pipe.TakeAll();

  pipe.Fill();
  fullPipe = pipe.Reader();
  {
    const Alarm readsABitLater(TakeOnePart, 20000, 0);
    logger.Info("waited for");
  }
  const std::string read = pipe.TakeAll();

  EXPECT_THAT(Records(read.substr(read.find_last_of('\0') + 1)), ElementsAre("info waited for"));
}

TEST_F(LoggerTest, InterruptedWaitsGoOnAndEnd) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  pipe.Fill();
  const auto start = std::chrono::steady_clock::now();
  {
    const Alarm storm(TakeSignal, 500, 500);
    logger.Info("lost after the whole wait");
  }
  const auto passed = std::chrono::steady_clock::now() - start;
  pipe.TakeAll();
  logger.Info("there again");

  EXPECT_GE(passed, std::chrono::milliseconds(190));
  EXPECT_LT(passed, std::chrono::seconds(20));
  EXPECT_THAT(Records(pipe.TakeAll()),
              ElementsAre("warning 1 log records dropped: the log could not be written", "info there again"));
}

// An agent whose module logs, and nothing else.
class LoggingAgent {
 public:
  LoggingAgent(LogLevel threshold, int descriptor) : logger(threshold, descriptor) {}

  Logger logger;

 private:
  class NoQueue : public EventQueue {
    void Push(const std::string& /*event*/, Lane /*lane*/) noexcept override {}
  };

  NoQueue queue;
  TaskScheduler scheduler{0, logger};
  FileMonitor monitor{logger, std::chrono::milliseconds(0)};
  InstalledServices services{logger, queue, scheduler, monitor};
};

constexpr unsigned notice = 1;
constexpr unsigned failure = 2;

void LogAsTheModule(unsigned level, const std::string& name) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, level, "user_info_collector.cpp", 67, 0,
                 "The user name of /etc/passwd is repeated.[name=%s]", name.c_str());
}

std::string RecordOfTheModule(const std::string& name) {
  return "error user_info_collector.cpp:67 The user name of /etc/passwd is repeated.[name=" + name + "]";
}

const std::string droppedOfModule =
    " log records of the module dropped: it may log " + std::to_string(Logger::mostOfModule) + " in a second";

// More than any machine here has written before it is through: that would take 20 s.
constexpr std::size_t floodSize = 20000;

class FloodTest : public testing::Test {
 protected:
  void Begin(LogLevel threshold) { agent = std::make_unique<LoggingAgent>(threshold, file.Descriptor()); }

  static void Flood(unsigned level) {
    for (std::size_t number = 0; number < floodSize; ++number) {
      LogAsTheModule(level, std::to_string(number));
    }
  }

  // Of the module, in the log so far.
  std::size_t Written() const {
    const std::vector<std::string> records = Records(file.Content());
    return static_cast<std::size_t>(
        std::count_if(records.begin(), records.end(),
                      [](const std::string& record) { return record.find("[name=") != std::string::npos; }));
  }

  // As the log tells it so far.
  std::size_t Dropped(const std::string& level = "warning") const {
    std::size_t dropped = 0;
    for (const std::string& record : Records(file.Content())) {
      if (record.find(droppedOfModule) != std::string::npos) {
        const std::size_t number = std::stoul(record.substr(level.size()));
        EXPECT_EQ(record, level + " " + std::to_string(number) + droppedOfModule);
        dropped += number;
      }
    }
    return dropped;
  }

  TemporaryFile file;
  std::unique_ptr<LoggingAgent> agent;
};

TEST_F(FloodTest, Fault25OfAFloodTheFirstOfEachSecondAreWrittenAndTheRestIsCounted) {
  Begin(LogLevel::Info);
  const auto start = std::chrono::steady_clock::now();
  Flood(failure);
  const auto passed = std::chrono::steady_clock::now() - start;
  agent.reset();

  const std::size_t seconds = static_cast<std::size_t>(passed / std::chrono::seconds(1)) + 1;
  EXPECT_GE(Written(), Logger::mostOfModule);
  EXPECT_LE(Written(), Logger::mostOfModule * seconds);
  EXPECT_GT(Dropped(), 0U);
  EXPECT_EQ(Written() + Dropped(), floodSize);
  const std::vector<std::string> records = Records(file.Content());
  for (std::size_t number = 0; number < Logger::mostOfModule; ++number) {
    ASSERT_EQ(records[number], RecordOfTheModule(std::to_string(number)));
  }
}

TEST_F(FloodTest, Fault25TheNumberIsToldInFrontOfTheNextRecordBehindTheSecondWhoeverLogsIt) {
  Begin(LogLevel::Info);
  const auto deadline = std::chrono::steady_clock::now() + generous;
  Flood(failure);
  do {
    std::this_thread::sleep_for(brief);
    agent->logger.Info("the agent's next");
  } while (Written() + Dropped() < floodSize && std::chrono::steady_clock::now() < deadline);
  EXPECT_EQ(Written() + Dropped(), floodSize);
  EXPECT_EQ(Records(file.Content()).back(), "info the agent's next");

  Flood(failure);
  const std::size_t writtenBefore = Written();
  std::size_t logged = 2 * floodSize;
  while (Written() == writtenBefore && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(brief);
    LogAsTheModule(failure, "next");
    ++logged;
  }
  EXPECT_EQ(Written() + Dropped(), logged);
  EXPECT_EQ(Records(file.Content()).back(), RecordOfTheModule("next"));
}

TEST_F(FloodTest, Fault25NeitherTheAgentNorACodedRecordIsDroppedForAFlood) {
  Begin(LogLevel::Info);
  std::vector<std::string> expected;
  for (std::size_t number = 0; number < floodSize; ++number) {
    LogAsTheModule(failure, std::to_string(number));
    if (number % 10 == 0) {
      agent->logger.Info("of the agent");
      expected.emplace_back("info of the agent");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"  // as the module writes it
      LoggerWriteLog(ORVAK_AGENT_LOG_CODED, 0xF0680045, failure, "unauthorized_root_user.cpp", 80, 0, "");
#pragma GCC diagnostic pop
      expected.emplace_back("error unauthorized_root_user.cpp:80 code 0xF0680045");
    }
  }
  agent.reset();
  std::vector<std::string> records = Records(file.Content());
  records.erase(std::remove_if(records.begin(), records.end(),
                               [](const std::string& record) {
                                 return record.find("[name=") != std::string::npos ||
                                        record.find(droppedOfModule) != std::string::npos;
                               }),
                records.end());
  EXPECT_EQ(records, expected);
  EXPECT_GT(Dropped(), 0U);
}

TEST_F(FloodTest, Fault25WhatNobodyWouldSeeTakesNoRoomAndIsNotCounted) {
  Begin(LogLevel::Error);
  Flood(notice);
  LogAsTheModule(failure, "seen");
  agent.reset();
  EXPECT_THAT(Records(file.Content()), ElementsAre(RecordOfTheModule("seen")));
}

TEST_F(FloodTest, Fault25WhereOnlyErrorsAreShownTheNumberIsOne) {
  Begin(LogLevel::Error);
  Flood(failure);
  agent.reset();
  EXPECT_GT(Dropped("error"), 0U);
  EXPECT_EQ(Written() + Dropped("error"), floodSize);
}

TEST_F(FloodTest, Fault25AnErrorIsKeptAlsoWhereNoneIsShown) {
  Begin(LogLevel::Off);
  LogAsTheModule(failure, "kept");
  EXPECT_EQ("error " + agent->logger.LastError().text, RecordOfTheModule("kept"));
  Flood(failure);
  agent.reset();
  EXPECT_EQ(file.Content(), "");
}

TEST_F(FloodTest, Fault25ADroppedRecordIsNotEvenMade) {
  Begin(LogLevel::Info);
  const std::string name(100, 'n');
  std::size_t without = 0;  // a piece of memory
  for (std::size_t number = 0; number < floodSize; ++number) {
    const AllocationFailure watched(0);
    LogAsTheModule(failure, name);
    without += watched.Seen() == 0 ? 1U : 0U;
  }
  agent.reset();
  EXPECT_EQ(without, Dropped());
}

std::string Printed(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Printed(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::string text = PrintedText(format, arguments);
  va_end(arguments);
  return text;
}

TEST(PrintedTextTest, IsWhatPrintfPrints) {
  EXPECT_EQ(Printed("The user name of /etc/passwd is repeated.[name=%s]", "toor"),
            "The user name of /etc/passwd is repeated.[name=toor]");
  EXPECT_EQ(Printed("%d %u %x %%", -1, 4294967295U, 255U), "-1 4294967295 ff %");
  EXPECT_EQ(Printed("%s", "%s%n"), "%s%n");
  EXPECT_EQ(Printed("%s", ""), "");
}

TEST(PrintedTextTest, ANullTextIsPrintedAndNotFollowed) {
  const char* const volatile nothing = nullptr;  // or the compiler warns of what is meant here

  EXPECT_EQ(Printed("detect user policy %s", nothing), "detect user policy (null)");
}

TEST(PrintedTextTest, IsOneByteLongerThanARecordTakesAtMost) {
  const std::string longest(Logger::longestText, 'x');

  EXPECT_EQ(Printed("%s", longest.c_str()), longest);
  EXPECT_EQ(Printed("%sx", longest.c_str()), longest + "x");
  EXPECT_EQ(Printed("%s", std::string(1024 * 1024, 'x').c_str()), longest + "x");
}

TEST_F(LoggerTest, APrintedTextOfAMegabyteIsCutBetweenCharacters) {
  Logger logger(LogLevel::Debug, pipe.Writer());
  std::string characters = "x";
  std::string shown = "x";
  while (characters.size() < 1024 * 1024) {
    characters += "\xe2\x82\xac";
  }
  while (shown.size() + 3 <= Logger::longestText) {
    shown += "\xe2\x82\xac";
  }
  logger.Info(Printed("%s", characters.c_str()));

  EXPECT_THAT(Records(pipe.TakeAll()), ElementsAre("info " + shown + " [cut]"));
}

}  // namespace
