#include "collector/task_handle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

#include "tests/support/recording_host.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(sizeof(TaskHandle) == sizeof(std::uint32_t), "stands where the bare identifier would");
static_assert(alignof(TaskHandle) == alignof(std::uint32_t), "stands where the bare identifier would");
static_assert(!std::is_copy_constructible<TaskHandle>::value &&
                  !std::is_move_constructible<TaskHandle>::value,
              "one owner for one task");

class TaskHandleTest : public testing::Test {
 protected:
  TaskHandleTest() { host.Reset(); }

  RecordingHost& host = RecordingHost::Get();
};

TEST_F(TaskHandleTest, AnEmptyHandleCallsNothingWhenItEndsOrGoes) {
  {
    TaskHandle handle;
    EXPECT_EQ(handle.Id(), 0u);
    handle.End();
  }
  EXPECT_THAT(host.TakeCalls(), IsEmpty());
}

TEST_F(TaskHandleTest, EndWaitsFirstUnregistersSecondAndForgetsTheTask) {
  TaskHandle handle;
  handle.Adopt(4294967295u);
  EXPECT_EQ(handle.Id(), 4294967295u);

  handle.End();
  EXPECT_EQ(handle.Id(), 0u);
  handle.End();

  EXPECT_THAT(host.TakeCalls(), ElementsAre("pause 4294967295", "unregister 4294967295"));
}

TEST_F(TaskHandleTest, TheIdentifierIsKeptUntilTheTaskIsUnregistered) {
  TaskHandle handle;
  handle.Adopt(7);
  std::vector<std::uint32_t> ids;
  host.onCall = [&](const std::string&) { ids.push_back(handle.Id()); };

  handle.End();

  EXPECT_THAT(ids, ElementsAre(7u, 7u));
}

TEST_F(TaskHandleTest, DestructionEndsTheTask) {
  {
    TaskHandle handle;
    handle.Adopt(7);
  }
  EXPECT_THAT(host.TakeCalls(), ElementsAre("pause 7", "unregister 7"));
}

}  // namespace
