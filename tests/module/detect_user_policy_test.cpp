#include "module/detect_user_policy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "tests/support/recording_host.h"

namespace {

using testing::ElementsAre;

static_assert(std::is_trivially_default_constructible<DetectUserPolicy>::value,
              "stands before any constructor runs");
static_assert(std::is_trivially_destructible<DetectUserPolicy>::value, "stands after every destructor");
static_assert(sizeof(DetectUserPolicy) == sizeof(bool), "the switch is its only member");

class DetectUserPolicyTest : public testing::Test {
 protected:
  DetectUserPolicyTest() { host.Reset(); }
  ~DetectUserPolicyTest() override { host.Reset(); }

  void SwitchOn() {
    ASSERT_TRUE(policy.PrasePolicy("{\"unauthorized-root-user\": {}}"));
    ASSERT_TRUE(policy.GetUnauthorizedRootUserStatus());
    host.TakeCalls();
  }

  RecordingHost& host = RecordingHost::Get();
  DetectUserPolicy& policy = *DetectUserPolicy::GetInstance();
};

TEST_F(DetectUserPolicyTest, ThereIsOneObjectForTheProcess) {
  EXPECT_EQ(DetectUserPolicy::GetInstance(), &policy);
}

TEST_F(DetectUserPolicyTest, ANullPolicyReturnsFalseAndStillWritesBothLines) {
  SwitchOn();

  EXPECT_FALSE(policy.PrasePolicy(nullptr));

  EXPECT_THAT(host.TakeCalls(),
              ElementsAre("startup \"detect user policy %s\" -> detect user policy (null)",
                          "log 2 0x0 0 detect_user_policy.cpp:35 0 \"detect user policy %s\" -> "
                          "detect user policy (null)"));
  EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(DetectUserPolicyTest, ThePolicyIsWrittenVerbatimToTheStartupLogThenToTheLog) {
  EXPECT_TRUE(policy.PrasePolicy("{ \"note\" : \"%s 100%\" }"));

  EXPECT_THAT(
      host.TakeCalls(),
      ElementsAre("startup \"detect user policy %s\" -> detect user policy { \"note\" : \"%s 100%\" }",
                  "log 2 0x0 0 detect_user_policy.cpp:35 0 \"detect user policy %s\" -> "
                  "detect user policy { \"note\" : \"%s 100%\" }"));
}

TEST_F(DetectUserPolicyTest, ATextThatIsNotJsonReturnsFalseAndLeavesTheSwitchOffAlsoAfterOneThatSetIt) {
  for (const char* text : {"", " ", "not json", "{", "{\"unauthorized-root-user\": }",
                           "{\"unauthorized-root-user\"}", "{\"unauthorized-root-user\": {}"}) {
    SCOPED_TRACE(text);
    SwitchOn();
    EXPECT_FALSE(policy.PrasePolicy(text));
    EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
  }
}

TEST_F(DetectUserPolicyTest, AnEmptyObjectReturnsTrueWithTheSwitchOffAlsoAfterOneThatSetIt) {
  EXPECT_TRUE(policy.PrasePolicy("{}"));
  EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
  SwitchOn();
  EXPECT_TRUE(policy.PrasePolicy("{}"));
  EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(DetectUserPolicyTest, ThePresenceOfTheKeySwitchesOnWhateverItsValue) {
  for (const char* value :
       {"false", "0", "null", "{}", "[]", "\"\"", "\"off\"", "true", "1", "{\"enable\": false}"}) {
    SCOPED_TRACE(value);
    policy.PrasePolicy("{}");
    EXPECT_TRUE(policy.PrasePolicy(("{\"unauthorized-root-user\": " + std::string(value) + "}").c_str()));
    EXPECT_TRUE(policy.GetUnauthorizedRootUserStatus());
  }
}

TEST_F(DetectUserPolicyTest, TheKeyCountsBesideOthersAndWhereverItStands) {
  EXPECT_TRUE(
      policy.PrasePolicy("\n{\"hidden-account\": {}, \"ssh-authorized-public-key\": "
                         "{},\t\"unauthorized-root-user\": {}, \"x\": 1}\n"));
  EXPECT_TRUE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(DetectUserPolicyTest, TheKeyCountsOnlyAsAMemberOfTheTopLevelObject) {
  for (const char* text :
       {"{\"detections\": {\"unauthorized-root-user\": true}}",
        "{\"list\": [{\"unauthorized-root-user\": true}]}", "{\"name\": \"unauthorized-root-user\"}",
        "{\"list\": [\"unauthorized-root-user\"]}"}) {
    SCOPED_TRACE(text);
    SwitchOn();
    EXPECT_TRUE(policy.PrasePolicy(text));
    EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
  }
}

TEST_F(DetectUserPolicyTest, AnotherDetectionAloneReturnsTrueWithTheSwitchOff) {
  for (const char* text :
       {"{\"hidden-account\": true}", "{\"ssh-authorized-public-key\": true}",
        "{\"hidden-account\": {}, \"ssh-authorized-public-key\": {}}", "{\"Unauthorized-Root-User\": true}",
        "{\"unauthorized-root-user \": true}", "{\"unauthorized-root-use\": true}", "{\"\": true}"}) {
    SCOPED_TRACE(text);
    SwitchOn();
    EXPECT_TRUE(policy.PrasePolicy(text));
    EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
  }
}

TEST_F(DetectUserPolicyTest, TheSwitchIsOffBeforeAnythingElseHappens) {
  SwitchOn();
  std::vector<bool> status;
  host.onCall = [&](const std::string&) { status.push_back(policy.GetUnauthorizedRootUserStatus()); };

  EXPECT_TRUE(policy.PrasePolicy("{\"unauthorized-root-user\": {}}"));

  EXPECT_THAT(status, ElementsAre(false, false));
  EXPECT_TRUE(policy.GetUnauthorizedRootUserStatus());
}

}  // namespace
