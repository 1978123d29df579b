#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "host/file_monitor.h"
#include "tests/support/recording_host.h"
#include "tests/system/shipped_module.h"

// An agent may well have a function of this name. What the module calls by it is its own.
extern "C" void StopModule();
extern "C" void StopModule() { ADD_FAILURE() << "the module called a function of the agent's"; }

// The targets are what their names say.
static_assert((sizeof(std::string) == sizeof(void*)) == VELTA_ONE_WORD_STRING,
              "the string has the asked width");
#ifdef __powerpc__
static_assert(__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ && sizeof(void*) == 4 && sizeof(std::time_t) == 4 &&
                  sizeof(std::string) == 4 && sizeof(FileWatchRule) == 28,
              "32-bit big-endian PowerPC with one-word strings");
#endif

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string withoutDetection = "{}";
const std::string withDetection = R"({"unauthorized-root-user": {}})";

const std::string stopped = "remove \"\" kind 0 switches 0000000000 id 0 without callback";
const std::string registered =
    "register user_coll_task kind 1 first 10000 second 300000 switch 1 other bytes 0";
const std::string watched = "add \"/etc/passwd\" kind 1 switches 0001110001 id 0 with callback";
const std::string withdrawn = "remove \"/etc/passwd\" kind 0 switches 0001110001 id 5 with callback";
const std::string parseFailed =
    "log 2 0x0 2 detect_user.cpp:38 0 \"Failed to parse detect user policy.\" -> Failed to parse detect user "
    "policy.";

std::string InitResult(const std::string& result) {
  return "log 2 0x0 1 detect_user.cpp:44 0 \"Unauthorized root user detect init result=%s\" -> Unauthorized "
         "root "
         "user detect init result=" +
         result;
}

std::string StartupLog(const std::string& policy) {
  return "startup \"detect user policy %s\" -> detect user policy " + policy;
}

std::string PolicyLog(const std::string& policy) {
  return "log 2 0x0 0 detect_user_policy.cpp:35 0 \"detect user policy %s\" -> detect user policy " + policy;
}

// Reads a field as the agent does: in the byte order of the machine.
template <typename T>
T FieldAt(const std::vector<unsigned char>& record, std::size_t offset) {
  T field = T();
  EXPECT_LE(offset + sizeof field, record.size());
  std::memcpy(&field, record.data() + offset, sizeof field);
  return field;
}

std::vector<unsigned char> Part(const std::vector<unsigned char>& record, std::size_t offset,
                                std::size_t size) {
  const auto begin = record.begin() + static_cast<std::ptrdiff_t>(offset);
  return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

class EntryPoints : public testing::Test {
 protected:
  EntryPoints() { host.Reset(); }

  RecordingHost& host = RecordingHost::Get();
  ShippedModule module;
};

TEST_F(EntryPoints, InitGivesOneAndNeitherInitNorDeinitCallsTheAgent) {
  EXPECT_EQ(module.initModule(), 1);
  module.deinitModule();
  EXPECT_THAT(host.Calls(), IsEmpty());
}

TEST_F(EntryPoints, AStartWithoutTheDetectionRegistersTheTaskAndTheWatch) {
  EXPECT_EQ(module.startModule(withoutDetection.c_str()), 1);
  EXPECT_THAT(host.Calls(), ElementsAre(stopped, StartupLog(withoutDetection), PolicyLog(withoutDetection),
                                        registered, watched));
}

TEST_F(EntryPoints, AStartWithTheDetectionTellsOfItInBetween) {
  EXPECT_EQ(module.startModule(withDetection.c_str()), 1);
  EXPECT_THAT(host.Calls(), ElementsAre(stopped, StartupLog(withDetection), PolicyLog(withDetection),
                                        InitResult("true"), registered, watched));
}

TEST_F(EntryPoints, ANullPolicyIsLoggedAndRefused) {
  EXPECT_EQ(module.startModule(nullptr), 0);
  EXPECT_THAT(host.Calls(), ElementsAre(stopped, StartupLog("(null)"), PolicyLog("(null)"), parseFailed));
}

TEST_F(EntryPoints, ATextThatIsNotJsonIsLoggedAndRefused) {
  EXPECT_EQ(module.startModule("nonsense"), 0);
  EXPECT_THAT(host.Calls(), ElementsAre(stopped, StartupLog("nonsense"), PolicyLog("nonsense"), parseFailed));
}

TEST_F(EntryPoints, ASecondStartStopsEverythingFirst) {
  ASSERT_EQ(module.startModule(withDetection.c_str()), 1);
  host.TakeCalls();
  host.nextTaskId = 8;
  EXPECT_EQ(module.startModule(withDetection.c_str()), 1);
  EXPECT_THAT(host.Calls(), ElementsAre(withdrawn, "pause 7", "unregister 7", StartupLog(withDetection),
                                        PolicyLog(withDetection), InitResult("true"), registered, watched));
}

TEST_F(EntryPoints, AFailedStartLeavesAStartedModuleStopped) {
  ASSERT_EQ(module.startModule(withDetection.c_str()), 1);
  host.TakeCalls();
  EXPECT_EQ(module.startModule("nonsense"), 0);
  EXPECT_THAT(host.TakeCalls(), ElementsAre(withdrawn, "pause 7", "unregister 7", StartupLog("nonsense"),
                                            PolicyLog("nonsense"), parseFailed));
  module.stopModule();
  EXPECT_THAT(host.Calls(), ElementsAre(withdrawn));
}

TEST_F(EntryPoints, StopIsHarmlessBeforeAStartAndTwice) {
  module.stopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(stopped));
  ASSERT_EQ(module.startModule(withDetection.c_str()), 1);
  host.TakeCalls();
  module.stopModule();
  module.stopModule();
  EXPECT_THAT(host.Calls(), ElementsAre(withdrawn, "pause 7", "unregister 7", withdrawn));
}

TEST_F(EntryPoints, ARefusedWatchEndsTheTaskAgainAndTheStartStillSucceeds) {
  host.nextMonitorId = 0;
  EXPECT_EQ(module.startModule(withoutDetection.c_str()), 1);
  EXPECT_THAT(host.Calls(), ElementsAre(stopped, StartupLog(withoutDetection), PolicyLog(withoutDetection),
                                        registered, watched, "pause 7", "unregister 7"));
}

TEST_F(EntryPoints, WhatTheAgentThrowsPassesThroughTheModuleAndALaterStopAndStartWork) {
  ASSERT_EQ(module.startModule(withDetection.c_str()), 1);
  host.TakeCalls();
  host.onCall = ThrowAt("pause", 1);
  try {
    module.startModule(withDetection.c_str());
    ADD_FAILURE() << "the exception was swallowed";
  } catch (const HostFailure& failure) {
    EXPECT_STREQ(failure.what(), "pause");
  }
  EXPECT_THAT(host.TakeCalls(), ElementsAre(withdrawn, "pause 7"));

  module.stopModule();
  EXPECT_THAT(host.TakeCalls(), ElementsAre(withdrawn, "pause 7", "unregister 7"));
  EXPECT_EQ(module.startModule(withDetection.c_str()), 1);
  EXPECT_THAT(host.Calls(), ElementsAre(withdrawn, StartupLog(withDetection), PolicyLog(withDetection),
                                        InitResult("true"), registered, watched));
}

TEST_F(EntryPoints, TheShippedModuleWatchesTheRealAccountFile) {
  ASSERT_EQ(module.startModule(withoutDetection.c_str()), 1);
  ASSERT_TRUE(host.added.has_value());
  EXPECT_EQ(host.added->path, "/etc/passwd");
}

TEST_F(EntryPoints, AnEventForTheFileLaunchesTheTaskAndOthersDoNot) {
  ASSERT_EQ(module.startModule(withoutDetection.c_str()), 1);
  host.TakeCalls();
  host.FireFileEvent("/etc/passwd-");
  host.FireFileEvent("/etc//passwd");
  host.FireFileEvent(nullptr);
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
  host.FireFileEvent("/etc/passwd");
  EXPECT_THAT(host.Calls(), ElementsAre("launch 7"));
}

TEST_F(EntryPoints, TheTimingRecordHasItsFieldsAtTheirOffsetsAndIsZeroElsewhere) {
  ASSERT_EQ(module.startModule(withoutDetection.c_str()), 1);
  const std::vector<unsigned char>& record = host.task.condition;
  ASSERT_EQ(record.size(), 56u);
  EXPECT_EQ(FieldAt<std::int64_t>(record, 0), 10000);
  EXPECT_EQ(FieldAt<std::int64_t>(record, 8), 300000);
  EXPECT_THAT(Part(record, 16, 32), Each(0));
  EXPECT_EQ(record[48], 1);
  EXPECT_THAT(Part(record, 49, 7), Each(0));
}

// Spelled out byte by byte: reading the numbers back as numbers would agree with any order.
TEST_F(EntryPoints, TheTimesStandInTheByteOrderOfTheTarget) {
  std::vector<unsigned char> first = {0, 0, 0,    0,
                                      0, 0, 0x27, 0x10};  // 10,000, the most significant byte first
  std::vector<unsigned char> second = {0, 0, 0, 0, 0, 0x04, 0x93, 0xe0};  // 300,000
#if __BYTE_ORDER__ != __ORDER_BIG_ENDIAN__
  std::reverse(first.begin(), first.end());
  std::reverse(second.begin(), second.end());
#endif
  ASSERT_EQ(module.startModule(withoutDetection.c_str()), 1);
  EXPECT_EQ(Part(host.task.condition, 0, 8), first);
  EXPECT_EQ(Part(host.task.condition, 8, 8), second);
}

TEST_F(EntryPoints, TheRuleHasItsFieldsAtTheirOffsetsAndZeroPadding) {
  ASSERT_EQ(module.startModule(withoutDetection.c_str()), 1);
  const std::vector<unsigned char>& record = host.addedBytes;
  const std::size_t switches = sizeof(std::string);
  const std::size_t monitorId = (switches + 10 + 3) / 4 * 4;
  const std::size_t callback = (monitorId + 4 + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*);
  ASSERT_EQ(record.size(), callback + 2 * sizeof(void*));
  EXPECT_THAT(Part(record, switches, 10), ElementsAre(0, 0, 0, 1, 1, 1, 0, 0, 0, 1));
  EXPECT_THAT(Part(record, switches + 10, callback - switches - 10), Each(0)) << "padding and handle";
  EXPECT_EQ(FieldAt<const void*>(record, callback), host.added->callback.get());
  if (sizeof(void*) == 4 && sizeof(std::string) == sizeof(void*)) {
    EXPECT_EQ(monitorId, 16u);
    EXPECT_EQ(callback, 20u);
    EXPECT_EQ(record.size(), 28u);
  }
}

}  // namespace
