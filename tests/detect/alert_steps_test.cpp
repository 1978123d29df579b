#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "collector/passwd_info.h"
#include "detect/unauthorized_root_user.h"
#include "tests/support/recording_host.h"
#include "tests/support/recording_json.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

class AlertStepsTest : public testing::Test {
 protected:
  AlertStepsTest() {
    host.Reset();
    RecordingJson::Reset();
  }
  ~AlertStepsTest() override {
    host.Reset();
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
  }

  // Every step of one alert. The account's user ID is 0 and its group ID 100.
  std::vector<std::string> Record(const PasswdInfo& account) {
    RecordingJson::Reset();
    UnauthorizedRootUser::GetInstance().SendUserAlert(account);
    return host.TakeCalls();
  }

  RecordingHost& host = RecordingHost::Get();
};

TEST_F(AlertStepsTest, TheInnerObjectIsWhollyBuiltBeforeTheOuterOneAndTheOuterOneGoesFirst) {
  EXPECT_THAT(
      Record(Account("toor", 0)),
      ElementsAre("time \"\"",
                  // The inner object
                  "value 1", "member 1 \"userName\" as 2", "assign 2 string \"toor\"", "free 2",
                  "member 1 \"uid\" as 3", "assign 3 int 0", "free 3",                   //
                  "member 1 \"gid\" as 4", "assign 4 int 100", "free 4",                 //
                  "member 1 \"shell\" as 5", "assign 5 string \"/bin/sh\"", "free 5",    //
                  "member 1 \"home\" as 6", "assign 6 string \"/home/toor\"", "free 6",  //
                  "member 1 \"type\" as 7", "assign 7 literal \"illegal\"", "free 7",    //
                  // The outer object
                  "value 8", "member 8 \"eventType\" as 9", "assign 9 literal \"unauthorized-root-user\"",
                  "free 9", "member 8 \"eventTime\" as 10", "assign 10 string \"2026-03-01 08:15:42\"",
                  "free 10", "item 8 \"eventContent\" 1",
                  // The event leaves, and what it was made of goes
                  "text 8", "push text of 8", "free 8", "free 1"));
}

TEST_F(AlertStepsTest, WithoutATimeNoValueIsMade) {
  host.utcTime = "";
  EXPECT_THAT(Record(Account("toor", 0)),
              ElementsAre("time \"\"", "log 0 0xF0680045 2 unauthorized_root_user.cpp:80 0 \"\" -> "));
}

TEST_F(AlertStepsTest, AnExceptionOfAnyStepEndsTheAlertFreesEverythingAndSparesTheBaseline) {
  const std::vector<PasswdInfo> users = {Account("toor", 0)};
  const std::vector<std::string> all = Record(users[0]);
  int steps = 0;
  for (std::size_t step = 0; step < all.size(); ++step) {
    if (RecordingHost::VerbOf(all[step]) == "free") {
      continue;  // an end never throws
    }
    SCOPED_TRACE(all[step]);
    ++steps;
    RecordingJson::Reset();
    std::size_t left = step + 1;
    host.onCall = [&](const std::string& entry) {
      if (left != 0 && --left == 0) {
        throw HostFailure(entry);
      }
    };

    EXPECT_THROW(UnauthorizedRootUser::DetectUnauthorizedRootUser(users), HostFailure);

    // Nothing is asked for behind the step that failed
    host.onCall = nullptr;
    std::vector<std::string> made;
    std::vector<std::string> wanted(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(step) + 1);
    for (const std::string& entry : host.TakeCalls()) {
      if (made.size() < wanted.size() || RecordingHost::VerbOf(entry) != "free") {
        made.push_back(entry);
      }
    }
    EXPECT_THAT(made, ElementsAreArray(wanted));
    EXPECT_EQ(RecordingJson::Alive(), 0);
    RecordingJson::Reset();
    UnauthorizedRootUser::DetectUnauthorizedRootUser(users);
    EXPECT_THAT(host.TakeCalls(), ElementsAreArray(all)) << "the same snapshot alerts again";
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
    EXPECT_THAT(host.TakeCalls(), IsEmpty());
  }
  EXPECT_EQ(steps, 22);
}

}  // namespace
