#include "host/logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/contract/host_under_test.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr unsigned verbatim = 0;
constexpr unsigned notice = 1;
constexpr unsigned failure = 2;

class LoggerContract : public testing::Test {
 protected:
  HostUnderTest host;
};

// What a host does well to keep to, and what the module can live without: see host_under_test.h.
class AdvisedLogger : public LoggerContract {};

TEST_F(LoggerContract, DiagnosticsOfEveryLevelAreWrittenWithTheirArguments) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, verbatim, "detect_user_policy.cpp", 35, 0,
                 "detect user policy %s", "{}");
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, notice, "user_info_collector.cpp", 166, 0,
                 "The line of /etc/passwd is too long.[line=%d]", 42);
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failure, "user_info_collector.cpp", 106, 0,
                 "Failed to read %s.", "/etc/passwd");
  const std::string log = host.LogText();
  EXPECT_THAT(log, HasSubstr("detect user policy {}"));
  EXPECT_THAT(log, HasSubstr("The line of /etc/passwd is too long.[line=42]"));
  EXPECT_THAT(log, HasSubstr("Failed to read /etc/passwd."));
}

TEST_F(LoggerContract, TheLogOfTheStartIsWrittenWithItsArguments) {
  WriteStartupLog("detect user policy %s", "{}");
  EXPECT_THAT(host.LogText(), HasSubstr("detect user policy {}"));
}

TEST_F(LoggerContract, ANullTextIsPrintedAndNotFollowed) {
  const char* const volatile hidden = nullptr;  // or the compiler would speak up
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, verbatim, "detect_user_policy.cpp", 35, 0,
                 "null in a record: %s", hidden);
  WriteStartupLog("null in the start: %s", hidden);
  EXPECT_THAT(host.LogText(), HasSubstr("null in a record: "));
  EXPECT_THAT(host.LogText(), HasSubstr("null in the start: "));
}

// The only trace of an alert that was dropped for want of a time.
TEST_F(LoggerContract, ACodedRecordWithAnEmptyFormatIsWritten) {
  const std::string before = host.LogText();
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"  // as the module writes it
  LoggerWriteLog(ORVAK_AGENT_LOG_CODED, 0xF0680045, failure, "unauthorized_root_user.cpp", 80, 0, "");
#pragma GCC diagnostic pop
  EXPECT_GT(host.LogText().size(), before.size());
}

TEST_F(LoggerContract, AnArgumentIsNeverTakenForAFormat) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failure, "user_info_collector.cpp", 67, 0,
                 "The user name of /etc/passwd is repeated.[name=%s]", "%s%n%d{}{:d}");
  EXPECT_THAT(host.LogText(), HasSubstr("[name=%s%n%d{}{:d}]"));
}

TEST_F(LoggerContract, ALongTextAndStrangeBytesAreSurvived) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, verbatim, "detect_user_policy.cpp", 35, 0, "a long text: %s",
                 std::string(1000 * 1000, 'x').c_str());
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failure, "user_info_collector.cpp", 67, 0,
                 "strange bytes: %s", "\xFF\xFE\x01\x1B[2J");
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, notice, "detect_user.cpp", 44, 0, "and %s", "on it goes");
  const std::string log = host.LogText();
  EXPECT_THAT(log, HasSubstr("a long text: xxxxxxxxxx"));
  EXPECT_THAT(log, HasSubstr("strange bytes: "));
  EXPECT_THAT(log, HasSubstr("and on it goes"));
}

// A name could otherwise forge a record of its own.
TEST_F(AdvisedLogger, ANewlineInAnArgumentStartsNoLine) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failure, "user_info_collector.cpp", 67, 0,
                 "The user name of /etc/passwd is repeated.[name=%s]", "toor\nforged");
  EXPECT_THAT(host.LogText(), Not(HasSubstr("\nforged")));
}

TEST_F(LoggerContract, RecordsOfManyThreadsStayWhole) {
  constexpr int threadCount = 4;
  constexpr int recordCount = 50;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < threadCount; ++thread) {
    threads.emplace_back([thread] {
      for (int record = 0; record < recordCount; ++record) {
        LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failure, "detect_user.cpp", 44, 0,
                       "[thread %d record %d]", thread, record);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string log = host.LogText();
  for (int thread = 0; thread < threadCount; ++thread) {
    for (int record = 0; record < recordCount; ++record) {
      EXPECT_THAT(log,
                  HasSubstr("[thread " + std::to_string(thread) + " record " + std::to_string(record) + "]"));
    }
  }
}

}  // namespace
