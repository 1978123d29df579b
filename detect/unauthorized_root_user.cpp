#include "detect/unauthorized_root_user.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "host/json.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/utc_time.h"

namespace {

constexpr char topic[] = "detect_user";
constexpr char subscriber[] = "unauthorized-root-user";

// Filters match log records on file and line: both stay as they are wherever the call moves to.
constexpr char sourceName[] = "unauthorized_root_user.cpp";
constexpr int noTimeLine = 80;
constexpr unsigned noTimeCode = 0xF0680045;
constexpr unsigned failureLevel = 2;

bool IsRootAccount(const PasswdInfo& info) { return info.userName == "root"; }

// Of records with one name the first. They are put in order before they go into the set: each then belongs at
// its end, and nodes that lie in memory in the order of the names are faster to copy and to walk along. With
// many accounts that saves more than the sort costs.
std::set<PasswdInfo> SetOf(const std::vector<PasswdInfo>& users) {
  std::vector<const PasswdInfo*> ordered;
  ordered.reserve(users.size());
  for (const PasswdInfo& info : users) {
    ordered.push_back(&info);
  }
  const auto byName = [](const PasswdInfo* left, const PasswdInfo* right) { return *left < *right; };
  if (!std::is_sorted(ordered.begin(), ordered.end(), byName)) {
    std::stable_sort(ordered.begin(), ordered.end(), byName);
  }
  std::set<PasswdInfo> snapshot;
  for (const PasswdInfo* const info : ordered) {
    snapshot.insert(snapshot.end(), *info);
  }
  return snapshot;
}

}  // namespace

std::mutex UnauthorizedRootUser::detectMutex;

UnauthorizedRootUser& UnauthorizedRootUser::GetInstance() {
  static UnauthorizedRootUser instance;
  return instance;
}

bool UnauthorizedRootUser::Init() const {
  return MessageBus::Subscribe<const std::vector<PasswdInfo>&>(topic, subscriber, DetectUnauthorizedRootUser);
}

// Only the subscription ends here; the baseline stays. Every policy update restarts the module, and with an
// empty baseline each restart would raise all standing root accounts again.
void UnauthorizedRootUser::UnInit() const {
  MessageBus::Unsubscribe<const std::vector<PasswdInfo>&>(topic, subscriber);
}

void UnauthorizedRootUser::DetectUnauthorizedRootUser(const std::vector<PasswdInfo>& users) {
  // Held until the last alert is queued, so the alerts of one snapshot leave together and in order.
  std::lock_guard<std::mutex> lock(detectMutex);
  GetInstance().CmpUserInfo(SetOf(users));
}

void UnauthorizedRootUser::CmpUserInfo(const std::set<PasswdInfo>& users) {
  std::set<PasswdInfo> snapshot(users);
  if (snapshot.empty() && baseline.empty()) {
    return;
  }
  // Both sets are in the order of the names, so one walk along them finds what a lookup of every name in the
  // other set would, in the same order.
  std::vector<const PasswdInfo*> newRoots;  // alerted after all that changed
  auto known = baseline.begin();
  for (const PasswdInfo& current : snapshot) {
    while (known != baseline.end() && *known < current) {
      ++known;
    }
    if (known != baseline.end() && !(current < *known)) {
      ComparePasswd(*known, current);
    } else if (current.uid == 0 && !IsRootAccount(current)) {
      newRoots.push_back(&current);
    }
  }
  for (const PasswdInfo* const newRoot : newRoots) {
    SendUserAlert(*newRoot);
  }
  // Last: if an alert throws, the old baseline still stands and the same snapshot will be compared again. A
  // repeated alert is better than a lost one.
  baseline.swap(snapshot);
}

// A change away from user ID 0, or of any other field, is no finding.
void UnauthorizedRootUser::ComparePasswd(const PasswdInfo& oldInfo, const PasswdInfo& newInfo) {
  if (oldInfo.uid == newInfo.uid) {
    return;
  }
  if (newInfo.uid == 0 && !IsRootAccount(oldInfo)) {
    SendUserAlert(newInfo);
  }
}

void UnauthorizedRootUser::SendUserAlert(const PasswdInfo& info) {
  std::string eventTime;
  UtilsGetUtcTime(eventTime);
  if (eventTime.empty()) {
    // An alert without a time is dropped for good, and only this coded record tells of it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"  // a coded record has no text
    LoggerWriteLog(ORVAK_AGENT_LOG_CODED, noTimeCode, failureLevel, sourceName, noTimeLine, 0, "");
#pragma GCC diagnostic pop
    return;
  }
  utils::MyJson::MyValue content;
  content["userName"] = info.userName;
  content["uid"] = static_cast<int>(info.uid);
  content["gid"] = static_cast<int>(info.gid);  // above 2^31 it leaves as its negative counterpart
  content["shell"] = info.shell;
  content["home"] = info.home;
  content["type"] = "illegal";
  utils::MyJson::MyValue event;
  event["eventType"] = "unauthorized-root-user";
  event["eventTime"] = eventTime;
  event.JsonItemAddToObject("eventContent", content);
  PushMinuteLimitEventToSendQueue(Utils::Convert::JsonToString(event));
}
