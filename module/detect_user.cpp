#include "module/detect_user.h"

#include "collector/user_info_collector.h"
#include "detect/unauthorized_root_user.h"
#include "host/logger.h"
#include "module/detect_user_policy.h"

namespace {

// The first global of the module to be built, so the last one to go: see the order of the sources in
// CMakeLists.txt.
UserInfoCollector userInfoCollector;

// Filters match log records on file and line: both stay as they are wherever a call moves to.
constexpr char sourceName[] = "detect_user.cpp";
constexpr int parseFailedLine = 38;
constexpr int initResultLine = 44;
constexpr unsigned outcomeLevel = 1;
constexpr unsigned failureLevel = 2;

}  // namespace

int InitModule() { return 1; }

int StartModule(const char* policy) {
  StopModule();
  DetectUserPolicy* const detectUserPolicy = DetectUserPolicy::GetInstance();
  if (!detectUserPolicy->PrasePolicy(policy)) {
    LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, failureLevel, sourceName, parseFailedLine, 0,
                   "Failed to parse detect user policy.");
    return 0;
  }
  if (detectUserPolicy->GetUnauthorizedRootUserStatus()) {
    const bool subscribed = UnauthorizedRootUser::GetInstance().Init();
    LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, outcomeLevel, sourceName, initResultLine, 0,
                   "Unauthorized root user detect init result=%s", subscribed ? "true" : "false");
  }
  // Also with the detection off, and whatever the collector answers: the policy is what a start reports on.
  userInfoCollector.Start();
  return 1;
}

void StopModule() {
  UnauthorizedRootUser::GetInstance().UnInit();
  userInfoCollector.Stop();
}

void DeinitModule() {}
