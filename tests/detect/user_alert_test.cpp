#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "collector/passwd_info.h"
#include "detect/unauthorized_root_user.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const char* const noTimeRecord = "log 0 0xF0680045 2 unauthorized_root_user.cpp:80 0 \"\" -> ";

class UserAlertTest : public testing::Test {
 protected:
  UserAlertTest() { host.Reset(); }
  ~UserAlertTest() override {
    host.Reset();
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
  }

  static void Send(const PasswdInfo& account) { UnauthorizedRootUser::GetInstance().SendUserAlert(account); }

  RecordingHost& host = RecordingHost::Get();
};

TEST_F(UserAlertTest, TheTimeIsFetchedIntoAnEmptyStringAndTheEventCarriesItsFieldsInOrder) {
  PasswdInfo toor = Account("toor", 0);
  toor.gid = 0;
  toor.home = "/var/toor";
  toor.shell = "/bin/sh";
  toor.readTime = 1234567;

  Send(toor);

  EXPECT_THAT(
      host.TakeCalls(),
      ElementsAre(
          "time \"\"",
          R"(push {"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
          R"({"userName":"toor","uid":0,"gid":0,"shell":"/bin/sh","home":"/var/toor","type":"illegal"}})"));
}

TEST_F(UserAlertTest, NothingIsBuiltBeforeTheTimeIsThere) {
  const PasswdInfo toor = Account("toor", 0);
  std::size_t before = 1;
  const AllocationFailure allocations(0);
  host.onCall = [&](const std::string& entry) {
    if (RecordingHost::VerbOf(entry) == "time") {
      before = allocations.Seen();
    }
  };

  const std::size_t earlier = allocations.Seen();
  Send(toor);

  EXPECT_EQ(before, earlier);
  EXPECT_GT(allocations.Seen(), earlier) << "building an event allocates, or this test proves nothing";
}

TEST_F(UserAlertTest, AnEmptyShellOrHomeIsAMemberThatHoldsAnEmptyString) {
  PasswdInfo toor = Account("toor", 0);
  toor.home = "";
  toor.shell = "";

  Send(toor);

  EXPECT_THAT(host.TakeCalls("push"),
              ElementsAre(HasSubstr(
                  R"({"userName":"toor","uid":0,"gid":100,"shell":"","home":"","type":"illegal"})")));
}

TEST_F(UserAlertTest, ANameThatJsonMustEscapeIsPassedAsItIsAndEscapedOnce) {
  Send(Account("a\"b\\c\nd", 0));

  EXPECT_THAT(host.TakeCalls("push"), ElementsAre(HasSubstr(R"("userName":"a\"b\\c\nd","uid")")));
}

TEST_F(UserAlertTest, FieldsAreNeitherTrimmedNorConverted) {
  PasswdInfo account = Account("  toor ", 0);
  account.home = " /home ";
  account.shell = "%s";

  Send(account);

  EXPECT_THAT(host.TakeCalls("push"),
              ElementsAre(HasSubstr(
                  R"({"userName":"  toor ","uid":0,"gid":100,"shell":"%s","home":" /home ","type":)")));
}

TEST_F(UserAlertTest, IdsAboveTheSignedRangeLeaveAsTheirNegativeCounterparts) {
  host.makesEvents = false;  // of accounts that are not root
  struct Row {
    std::uint32_t id;
    const char* text;
  };
  const Row rows[] = {
      {0, "0"},
      {1, "1"},
      {2147483647u, "2147483647"},
      {2147483648u, "-2147483648"},
      {4294967294u, "-2"},
      {4294967295u, "-1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    PasswdInfo account = Account("toor", row.id);
    account.gid = 1000;
    Send(account);
    account.uid = 1000;
    account.gid = row.id;
    Send(account);
    const std::string text(row.text);
    EXPECT_THAT(host.TakeCalls("push"), ElementsAre(HasSubstr("\"uid\":" + text + ",\"gid\":1000,"),
                                                    HasSubstr("\"uid\":1000,\"gid\":" + text + ",")));
  }
}

TEST_F(UserAlertTest, TheTimeTextIsSentUnchangedAndFetchedForEachEvent) {
  host.makesEvents = false;
  host.utcTime = " about noon ";
  Send(Account("toor", 0));
  host.utcTime = "0";
  Send(Account("toor", 0));

  EXPECT_THAT(host.TakeCalls("push"),
              ElementsAre(HasSubstr(R"("eventTime":" about noon ",)"), HasSubstr(R"("eventTime":"0",)")));
}

TEST_F(UserAlertTest, WithoutATimeNoEventIsQueuedAndOneCodedRecordIsLoggedPerAccount) {
  host.utcTime = "";

  UnauthorizedRootUser::DetectUnauthorizedRootUser(
      {Account("toor", 0), Account("alice", 0), Account("bob", 1000)});

  EXPECT_THAT(host.TakeCalls(), ElementsAre("time \"\"", noTimeRecord, "time \"\"", noTimeRecord));
}

TEST_F(UserAlertTest, AnAlertDroppedForWantOfATimeIsDroppedForGood) {
  host.utcTime = "";
  UnauthorizedRootUser::DetectUnauthorizedRootUser({Account("toor", 0)});
  host.utcTime = "2026-03-01 08:15:42";
  host.TakeCalls();

  UnauthorizedRootUser::DetectUnauthorizedRootUser({Account("toor", 0)});

  EXPECT_THAT(host.TakeCalls(), ElementsAre());
}

TEST_F(UserAlertTest, TwoAlertsOfOneDetectionAreTwoEventsInTheDetectorsOrder) {
  UnauthorizedRootUser::DetectUnauthorizedRootUser({Account("zoe", 0), Account("adam", 0)});

  EXPECT_THAT(host.TakeCalls(), ElementsAre("time \"\"", HasSubstr(R"("userName":"adam")"), "time \"\"",
                                            HasSubstr(R"("userName":"zoe")")));
}

TEST_F(UserAlertTest, WhatTheTimeServiceOrTheQueueThrowsReachesTheCaller) {
  host.onCall = ThrowAt("time", 1);
  EXPECT_THROW(Send(Account("toor", 0)), HostFailure);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("time \"\""));

  host.onCall = ThrowAt("push", 1);
  EXPECT_THROW(Send(Account("toor", 0)), HostFailure);
  EXPECT_THAT(
      host.TakeCalls(),
      ElementsAre(
          "time \"\"",
          R"(push {"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
          R"({"userName":"toor","uid":0,"gid":100,"shell":"/bin/sh","home":"/home/toor","type":"illegal"}})"));

  host.utcTime = "";
  host.onCall = ThrowAt("log", 1);
  EXPECT_THROW(Send(Account("toor", 0)), HostFailure);
  EXPECT_THAT(host.TakeCalls(), ElementsAre("time \"\"", noTimeRecord));
}

}  // namespace
