#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/recording_host.h"
#include "tests/system/private_etc.h"
#include "tests/system/shipped_module.h"
#include "tests/system/tool.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char rootAndAlice[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "alice:x:1000:1000:Alice,,,:/home/alice:/bin/zsh\n";

std::string Alert(const std::string& name, const std::string& gid, const std::string& shell,
                  const std::string& home) {
  return R"(push {"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
         R"({"userName":")" +
         name + R"(","uid":0,"gid":)" + gid + R"(,"shell":")" + shell + R"(","home":")" + home +
         R"(","type":"illegal"}})";
}

// The shipped module reads the real "/etc/passwd"; here that is a copy that only this test sees.
class Detection : public testing::Test {
 protected:
  Detection() {
    host.Reset();
    etc.WritePasswd(rootAndAlice);
  }

  // The alerts of one run of the task, which an agent's scheduler would do on a thread of its own.
  std::vector<std::string> Run() {
    host.TakeCalls();
    host.RunTask();
    return host.TakeCalls("push");
  }

  RecordingHost& host = RecordingHost::Get();
  PrivateEtc etc;
  ShippedModule module;
};

TEST_F(Detection, AnAccountThatIsNewWithRootIdentityIsReportedOnce) {
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), IsEmpty());
  etc.AppendPasswd("toor:x:0:0::/var/toor:/bin/sh");
  EXPECT_THAT(Run(), ElementsAre(Alert("toor", "0", "/bin/sh", "/var/toor")));
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(Detection, TheFirstRunReportsStandingRootAccountsInNameOrder) {
  etc.AppendPasswd("zoe:x:0:100::/zoe:/bin/sh");
  etc.AppendPasswd("bob:x:0:0:::");
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), ElementsAre(Alert("bob", "0", "", ""), Alert("zoe", "100", "/bin/sh", "/zoe")));
}

TEST_F(Detection, AnAccountThatTurnsIntoRootIsReported) {
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), IsEmpty());
  const ToolResult edit = RunTool({"sed", "-i", "s/^alice:x:1000/alice:x:0/", "/etc/passwd"});
  ASSERT_EQ(edit.exitCode, 0) << edit.output;
  EXPECT_THAT(Run(), ElementsAre(Alert("alice", "1000", "/bin/zsh", "/home/alice")));
}

TEST_F(Detection, TheAccountToolsOfTheMachineAreSeen) {
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), IsEmpty());
  const ToolResult add =
      RunTool({"useradd", "-M", "-o", "-u", "0", "-g", "0", "-s", "/bin/sh", "-d", "/var/toor", "toor"});
  ASSERT_EQ(add.exitCode, 0) << add.output;
  EXPECT_THAT(Run(), ElementsAre(Alert("toor", "0", "/bin/sh", "/var/toor")));
  const ToolResult change = RunTool({"usermod", "-o", "-u", "0", "alice"});
  ASSERT_EQ(change.exitCode, 0) << change.output;
  EXPECT_THAT(Run(), ElementsAre(Alert("alice", "1000", "/bin/zsh", "/home/alice")));
  const ToolResult remove = RunTool({"sed", "-i", "/^toor:/d", "/etc/passwd"});
  ASSERT_EQ(remove.exitCode, 0) << remove.output;
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(Detection, WithoutThePolicyKeyTheTaskReadsAndReportsNothing) {
  etc.AppendPasswd("toor:x:0:0::/var/toor:/bin/sh");
  ASSERT_EQ(module.startModule("{}"), 1);
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(Detection, AMissingFileIsLoggedAndTheBaselineStays) {
  etc.AppendPasswd("toor:x:0:0::/var/toor:/bin/sh");
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), ElementsAre(Alert("toor", "0", "/bin/sh", "/var/toor")));

  ASSERT_EQ(RunTool({"mv", "/etc/passwd", "/etc/passwd.away"}).exitCode, 0);
  host.TakeCalls();
  host.RunTask();
  EXPECT_THAT(
      host.TakeCalls(),
      ElementsAre("log 2 0x0 2 user_info_collector.cpp:106 0 \"Failed to read %s.\" -> Failed to read "
                  "/etc/passwd."));

  ASSERT_EQ(RunTool({"mv", "/etc/passwd.away", "/etc/passwd"}).exitCode, 0);
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(Detection, AStopAndANewStartKeepTheBaseline) {
  etc.AppendPasswd("toor:x:0:0::/var/toor:/bin/sh");
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), ElementsAre(Alert("toor", "0", "/bin/sh", "/var/toor")));
  module.stopModule();
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_THAT(Run(), IsEmpty());
}

TEST_F(Detection, AFreshLoadStartsWithAnEmptyBaseline) {
  etc.AppendPasswd("toor:x:0:0::/var/toor:/bin/sh");
  module.Unload();
  for (int load = 0; load < 3; ++load) {
    ShippedModule fresh;
    ASSERT_EQ(fresh.startModule(detectionOn), 1);
    EXPECT_THAT(Run(), ElementsAre(Alert("toor", "0", "/bin/sh", "/var/toor"))) << "load " << load;
    fresh.stopModule();
  }
}

}  // namespace
