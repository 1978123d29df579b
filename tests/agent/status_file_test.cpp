#include "agent/status_file.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/agent_status.h"
#include "agent/options.h"
#include "agent/status_report.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::HasSubstr;

class StatusFileTest : public testing::Test {
 protected:
  TemporaryFolder folder;
  const std::string path = folder.Path("status.json");
};

TEST_F(StatusFileTest, WhatWasWrittenLastIsReadAndItsAgentLives) {
  StatusFile file(path);
  ASSERT_TRUE(file.Write("one")) << file.Error();
  ASSERT_TRUE(file.Write("two")) << file.Error();
  const StatusFound found = ReadStatusFile(path);
  EXPECT_TRUE(found.found);
  EXPECT_TRUE(found.running);
  EXPECT_EQ(found.text, "two\n");
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0644U);
}

TEST_F(StatusFileTest, AnAgentThatEndsTakesItsFileWithIt) {
  { EXPECT_TRUE(StatusFile(path).Write("one")); }
  EXPECT_TRUE(std::filesystem::is_empty(folder.Path()));
  EXPECT_FALSE(ReadStatusFile(path).found);
}

TEST_F(StatusFileTest, AFileWhoseAgentWasKilledIsNobodysAndTheNextAgentTakesItsPlace) {
  const pid_t child = fork();
  if (child == 0) {
    StatusFile file(path);
    file.Write("of the killed one");
    raise(SIGKILL);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  const StatusFound found = ReadStatusFile(path);
  EXPECT_TRUE(found.found);
  EXPECT_FALSE(found.running);
  EXPECT_EQ(found.text, "of the killed one\n");
  StatusFile next(path);
  EXPECT_TRUE(next.Write("of the next"));
  EXPECT_TRUE(ReadStatusFile(path).running);
}

TEST_F(StatusFileTest, ASecondAgentLeavesTheFirstOnesFileAlone) {
  StatusFile first(path);
  ASSERT_TRUE(first.Write("first"));
  {
    StatusFile second(path);
    EXPECT_FALSE(second.Write("second"));
    EXPECT_EQ(second.Error(), path + ": another agent's");
  }
  EXPECT_EQ(ReadStatusFile(path).text, "first\n");
  EXPECT_TRUE(ReadStatusFile(path).running);
}

TEST_F(StatusFileTest, AFileThatWasRemovedIsThereAgainAfterTheNextChange) {
  StatusFile file(path);
  ASSERT_TRUE(file.Write("one"));
  std::filesystem::remove(path);
  EXPECT_TRUE(file.Write("two"));
  EXPECT_EQ(ReadStatusFile(path).text, "two\n");
}

TEST_F(StatusFileTest, AFolderThatIsNotThereIsAnErrorWithItsReason) {
  StatusFile file(folder.Path("inner/status.json"));
  EXPECT_FALSE(file.Write("one"));
  EXPECT_EQ(file.Error(), folder.Path("inner/status.json") + ": No such file or directory");
  std::filesystem::create_directory(folder.Path("inner"));
  EXPECT_TRUE(file.Write("two"));
}

TEST_F(StatusFileTest, AReaderNeverMeetsHalfAFileNorTakesALivingAgentForAGoneOne) {
  StatusFile file(path);
  const std::string texts[] = {std::string(3000, 'a'), std::string(10, 'b')};
  ASSERT_TRUE(file.Write(texts[0]));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int time = 0; time < 2000; ++time) {
      EXPECT_TRUE(file.Write(texts[time % 2])) << file.Error();
    }
    done = true;
  });
  int readings = 0;
  while (!done) {
    const StatusFound found = ReadStatusFile(path);
    if (found.found) {
      EXPECT_TRUE(found.running);
      EXPECT_TRUE(found.text == texts[0] + "\n" || found.text == texts[1] + "\n") << found.text;
      ++readings;
    }
  }
  writer.join();
  EXPECT_GT(readings, 0);
}

const char trouble[] =
    R"({"eventType":"agent-status","eventTime":"2026-11-21 07:35:00","eventContent":{"version":"1","process":7,)"
    R"("since":"2026-11-21 07:34:42","policy":{"file":"p\u001b[2J.json","since":"2026-11-21 07:34:43",)"
    R"("detects":true},"reading":{"file":"/etc/passwd","count":2,"last":"2026-11-21 07:34:44","lines":24,)"
    R"("obstacle":"/etc/passwd is not a regular file"},"watch":{"watches":3,"polls":true},"outputs":[)"
    R"({"output":"syslog","state":"failing","sent":1,"waiting":2,"deferred":1,"lost":3,"lastError":"no",)"
    R"("lastErrorTime":"2026-11-21 07:34:45"}],"lastError":{"time":"2026-11-21 07:34:46","text":"a\nb"}}})";

const char health[] =
    R"({"eventType":"agent-status","eventTime":"2026-11-21 07:35:00","eventContent":{"version":"1","process":7,)"
    R"("since":"2026-11-21 07:34:42","policy":{"file":"","since":"2026-11-21 07:34:43","detects":true},)"
    R"("reading":{"file":"/etc/passwd","count":0,"last":"","obstacle":""},"watch":{"watches":3,"polls":false},)"
    R"("outputs":[{"output":"-","state":"untried","sent":0,"waiting":0,"deferred":0,"lost":0,"lastError":"",)"
    R"("lastErrorTime":""}],"lastError":{"time":"","text":""}}})";

TEST_F(StatusFileTest, TroubleIsShownEscapedAndEndsWithOne) {
  StatusFile file(path);
  ASSERT_TRUE(file.Write(trouble));
  const StatusReport report = ReportStatus(path, false);
  EXPECT_EQ(report.errors, "");
  EXPECT_EQ(report.output,
            "velta-agent 1, process 7, since 2026-11-21 07:34:42 UTC\n"
            "policy    p\\x1b[2J.json, since 2026-11-21 07:34:43 UTC: detection on\n"
            "reading   /etc/passwd: 2 begun, the last 2026-11-21 07:34:44 UTC; 24 lines\n"
            "          NOT READ: /etc/passwd is not a regular file\n"
            "watching  3 watches, and polling, as one was refused\n"
            "output    syslog: failing; 1 sent, 2 waiting (1 deferred by the limit), 3 lost\n"
            "          last error, 2026-11-21 07:34:45 UTC: no\n"
            "log       last error, 2026-11-21 07:34:46 UTC: a\\nb\n"
            "as of     2026-11-21 07:35:00 UTC\n");
  EXPECT_EQ(report.exitCode, EXIT_ALERTS);
}

TEST_F(StatusFileTest, HealthIsShownAndEndsWithZero) {
  StatusFile file(path);
  ASSERT_TRUE(file.Write(health));
  const StatusReport report = ReportStatus(path, false);
  EXPECT_EQ(report.output,
            "velta-agent 1, process 7, since 2026-11-21 07:34:42 UTC\n"
            "policy    built in, since 2026-11-21 07:34:43 UTC: detection on\n"
            "reading   /etc/passwd: 0 begun, the last never\n"
            "watching  3 watches\n"
            "output    -: untried; 0 sent, 0 waiting (0 deferred by the limit), 0 lost\n"
            "as of     2026-11-21 07:35:00 UTC\n");
  EXPECT_EQ(report.exitCode, EXIT_DONE);
  const StatusReport asJson = ReportStatus(path, true);
  EXPECT_EQ(asJson.output, std::string(health) + "\n");
  EXPECT_EQ(asJson.exitCode, EXIT_DONE);
}

TEST_F(StatusFileTest, AnAgentThatDetectsNothingNeedsALook) {
  const std::string on = "\"detects\":true";
  std::string off = health;
  off.replace(off.find(on), on.size(), "\"detects\":false");
  StatusFile file(path);
  ASSERT_TRUE(file.Write(off));
  const StatusReport report = ReportStatus(path, false);
  EXPECT_THAT(report.output, HasSubstr(": detection off\n"));
  EXPECT_EQ(report.exitCode, EXIT_ALERTS);
}

TEST_F(StatusFileTest, ReadingsThatFailNeedALook) {
  AgentStatus status;
  status.detects = true;
  status.accountFile = "/etc/passwd";
  status.watch.watches = 3;
  StatusFile file(path);
  ASSERT_TRUE(file.Write(StatusJson(status)));
  EXPECT_THAT(ReportStatus(path, false).output, testing::Not(HasSubstr("FAILING")));
  EXPECT_EQ(ReportStatus(path, false).exitCode, EXIT_DONE);
  EXPECT_EQ(StatusLine(status), "watching /etc/passwd");
  status.failures = 7;
  status.failingSince = 1795246482;
  ASSERT_TRUE(file.Write(StatusJson(status)));
  const StatusReport report = ReportStatus(path, false);
  EXPECT_THAT(report.output,
              HasSubstr("          FAILING: 7 in a row, since 2026-11-21 07:34:42 UTC; the log says why\n"));
  EXPECT_EQ(report.exitCode, EXIT_ALERTS);
  EXPECT_EQ(StatusLine(status), "watching /etc/passwd, but readings fail");
}

TEST_F(StatusFileTest, WithoutARunningAgentNothingIsPrintedAsTheState) {
  EXPECT_EQ(ReportStatus(path, true).exitCode, EXIT_NO_AGENT);
  folder.Write("status.json", health);  // nobody holds it
  const StatusReport gone = ReportStatus(path, true);
  EXPECT_EQ(gone.output, "");
  EXPECT_THAT(gone.errors, HasSubstr("its agent is gone; this was its last word, 2026-11-21 07:35:00 UTC"));
  EXPECT_EQ(gone.exitCode, EXIT_NO_AGENT);
  for (const char* const text : {"", "{", "[]", "{\"eventContent\":3}", "\xff"}) {
    folder.Write("status.json", text);
    EXPECT_THAT(ReportStatus(path, false).errors, HasSubstr("not the status of an agent")) << text;
  }
}

TEST(ReadingRecordTest, WhyReadingsFindNothingIsKeptUntilOneMayBeginWithoutAReason) {
  using Answer = TaskScheduler::Permission::Answer;
  ReadingRecord record;
  record.Asked({Answer::No, "a folder"});
  EXPECT_EQ(record.Now().obstacle, "a folder");
  EXPECT_EQ(record.Now().count, 0u);
  record.Asked({Answer::NotYet, ""});
  EXPECT_EQ(record.Now().obstacle, "a folder");
  record.Asked({Answer::Yes, "missing"});
  EXPECT_EQ(record.Now().obstacle, "missing");
  EXPECT_EQ(record.Now().count, 1u);
  record.Asked({Answer::Yes, ""});
  EXPECT_EQ(record.Now().obstacle, "");
  EXPECT_EQ(record.Now().count, 2u);
}

}  // namespace
