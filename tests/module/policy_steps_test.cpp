#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "module/detect_user_policy.h"
#include "tests/support/recording_host.h"
#include "tests/support/recording_json.h"

namespace {

using testing::ElementsAre;

std::string StartupEntry(const std::string& policy) {
  return "startup \"detect user policy %s\" -> detect user policy " + policy;
}

std::string PolicyRecord(const std::string& policy) {
  return "log 2 0x0 0 detect_user_policy.cpp:35 0 \"detect user policy %s\" -> detect user policy " + policy;
}

class PolicyStepsTest : public testing::Test {
 protected:
  PolicyStepsTest() {
    host.Reset();
    RecordingJson::Reset();
  }
  ~PolicyStepsTest() override { host.Reset(); }

  RecordingHost& host = RecordingHost::Get();
  DetectUserPolicy& policy = *DetectUserPolicy::GetInstance();
};

TEST_F(PolicyStepsTest, TheTextIsLoggedTwiceThenParsedThenAskedForTheOneKey) {
  EXPECT_TRUE(policy.PrasePolicy("some text"));
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre(StartupEntry("some text"), PolicyRecord("some text"), "value 1",
                          "parse \"some text\" into 1", "ismember 1 \"unauthorized-root-user\"", "free 1"));
  EXPECT_TRUE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(PolicyStepsTest, WithoutTheKeyTheStepsAreTheSameAndTheSwitchIsOff) {
  RecordingJson::hasMembers = false;
  EXPECT_TRUE(policy.PrasePolicy("some text"));
  EXPECT_THAT(host.TakeCalls(),
              ElementsAre(StartupEntry("some text"), PolicyRecord("some text"), "value 1",
                          "parse \"some text\" into 1", "ismember 1 \"unauthorized-root-user\"", "free 1"));
  EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(PolicyStepsTest, ATextThatDoesNotParseIsNotAskedForAnything) {
  RecordingJson::parses = false;
  EXPECT_FALSE(policy.PrasePolicy("some text"));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(StartupEntry("some text"), PolicyRecord("some text"), "value 1",
                                            "parse \"some text\" into 1", "free 1"));
  EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
}

TEST_F(PolicyStepsTest, ForANullTextNoValueIsMade) {
  EXPECT_FALSE(policy.PrasePolicy(nullptr));
  EXPECT_THAT(host.TakeCalls(), ElementsAre(StartupEntry("(null)"), PolicyRecord("(null)")));
}

TEST_F(PolicyStepsTest, WhatAServiceThrowsReachesTheCallerWithTheSwitchOffAndNothingLeftBehind) {
  ASSERT_TRUE(policy.PrasePolicy("some text"));
  for (const char* service : {"startup", "log", "value", "parse", "ismember"}) {
    SCOPED_TRACE(service);
    host.onCall = ThrowAt(service, 1);
    EXPECT_THROW(policy.PrasePolicy("some text"), HostFailure);
    EXPECT_FALSE(policy.GetUnauthorizedRootUserStatus());
    EXPECT_EQ(RecordingJson::Alive(), 0);
    host.onCall = nullptr;
    EXPECT_TRUE(policy.PrasePolicy("some text"));
    EXPECT_TRUE(policy.GetUnauthorizedRootUserStatus());
  }
}

}  // namespace
