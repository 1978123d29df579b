#include "module/detect_user_policy.h"

#include <string>

#include "host/json.h"
#include "host/logger.h"

namespace {

// What a policy can name. The module carries out the last one; the others are for its siblings.
const std::string hiddenAccountKey("hidden-account");
const std::string sshAuthorizedPublicKeyKey("ssh-authorized-public-key");
const std::string unauthorizedRootUserKey("unauthorized-root-user");

DetectUserPolicy detectUserPolicy;

// Filters match log records on file and line: both stay as they are wherever the call moves to.
constexpr char sourceName[] = "detect_user_policy.cpp";
constexpr int policyTextLine = 35;
constexpr unsigned verbatimLevel = 0;

bool ParseText(const char* policy, utils::MyJson::MyValue& root) {
  const std::string text(policy);
  return utils::MyJson::MyCharReader().Parse(text, root);
}

}  // namespace

DetectUserPolicy* DetectUserPolicy::GetInstance() { return &detectUserPolicy; }

bool DetectUserPolicy::PrasePolicy(const char* policy) {
  unauthorizedRootUserStatus = false;
  WriteStartupLog("detect user policy %s", policy);
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, verbatimLevel, sourceName, policyTextLine, 0,
                 "detect user policy %s", policy);
  if (policy == nullptr) {
    return false;
  }
  utils::MyJson::MyValue root;
  if (!ParseText(policy, root)) {
    return false;
  }
  // The key's presence is the switch; its value is never read, so false turns the detection on too.
  if (root.IsMember(unauthorizedRootUserKey)) {
    unauthorizedRootUserStatus = true;
  }
  return true;
}

bool DetectUserPolicy::GetUnauthorizedRootUserStatus() const { return unauthorizedRootUserStatus; }
