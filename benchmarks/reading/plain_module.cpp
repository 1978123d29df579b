#include "benchmarks/reading/plain_module.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "collector/passwd_info.h"
#include "host/json.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/utc_time.h"

namespace plain {
namespace {

void SendUserAlert(const PasswdInfo& info) {
  std::string eventTime;
  UtilsGetUtcTime(eventTime);
  utils::MyJson::MyValue content;
  content["userName"] = info.userName;
  content["uid"] = static_cast<int>(info.uid);
  content["gid"] = static_cast<int>(info.gid);
  content["shell"] = info.shell;
  content["home"] = info.home;
  content["type"] = "illegal";
  utils::MyJson::MyValue event;
  event["eventType"] = "unauthorized-root-user";
  event["eventTime"] = eventTime;
  event.JsonItemAddToObject("eventContent", content);
  PushMinuteLimitEventToSendQueue(Utils::Convert::JsonToString(event));
}

}  // namespace

std::vector<std::string> StrSplit(const std::string& text, const std::string& separator, bool skipEmpty) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  std::size_t end = text.find(separator);
  while (end != std::string::npos) {
    if (!skipEmpty || end > start) {
      pieces.push_back(text.substr(start, end - start));
    }
    start = end + separator.size();
    end = text.find(separator, start);
  }
  if (!skipEmpty || start < text.size()) {
    pieces.push_back(text.substr(start));
  }
  return pieces;
}

bool ConvertStrToNum(const std::string& text, unsigned& value, int base) {
  char* end = nullptr;
  errno = 0;
  const unsigned long number = std::strtoul(text.c_str(), &end, base);
  if (text.empty() || end != text.c_str() + text.size() || errno != 0 ||
      number > std::numeric_limits<std::uint32_t>::max()) {
    return false;
  }
  value = static_cast<unsigned>(number);
  return true;
}

bool ReadPasswd(std::vector<PasswdInfo>& users, const Services& services) {
  std::ifstream file(VELTA_PASSWD_FILE);
  if (!file.is_open()) {
    return false;
  }
  const std::time_t readTime = std::time(nullptr);
  int lineNumber = 0;
  std::string line;
  while (std::getline(file, line)) {
    ++lineNumber;
    if (line.size() > 1000) {
      LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, 1, "user_info_collector.cpp", 166, 0,
                     "The line of /etc/passwd is too long.[line=%d]", lineNumber);
      continue;
    }
    const std::size_t first = line.find_first_not_of(' ');
    if (first != std::string::npos && line[first] == '#') {
      continue;
    }
    std::vector<std::string> fields = services.split(line, ":", false);
    if (fields.size() != 7 || fields[0].empty()) {
      continue;
    }
    PasswdInfo info;
    if (!services.toNumber(fields[2], info.uid, 10) || !services.toNumber(fields[3], info.gid, 10)) {
      continue;
    }
    info.userName = fields[0];
    info.home = fields[5];
    info.shell = fields[6];
    info.readTime = readTime;
    users.push_back(std::move(info));
  }
  file.close();
  RemoveRepeatedNames(users);
  return true;
}

void RemoveRepeatedNames(std::vector<PasswdInfo>& users) {
  std::set<std::string> seen;
  std::vector<PasswdInfo> kept;
  kept.reserve(users.size());
  for (PasswdInfo& info : users) {
    if (!seen.insert(info.userName).second) {
      LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, 2, "user_info_collector.cpp", 67, 0,
                     "The user name of /etc/passwd is repeated.[name=%s]", info.userName.c_str());
    } else {
      kept.push_back(std::move(info));
    }
  }
  users.swap(kept);
}

void Detector::Detect(const std::vector<PasswdInfo>& users) {
  const std::set<PasswdInfo> snapshot(users.begin(), users.end());
  CmpUserInfo(snapshot);
}

void Detector::CmpUserInfo(const std::set<PasswdInfo>& users) {
  std::set<PasswdInfo> snapshot(users);
  if (snapshot.empty() && baseline.empty()) {
    return;
  }
  for (const PasswdInfo& known : baseline) {
    const auto current = snapshot.find(known);
    if (current != snapshot.end() && known.uid != current->uid && current->uid == 0 &&
        known.userName != "root") {
      SendUserAlert(*current);
    }
  }
  for (const PasswdInfo& current : snapshot) {
    if (baseline.find(current) == baseline.end() && current.uid == 0 && current.userName != "root") {
      SendUserAlert(current);
    }
  }
  baseline.swap(snapshot);
}

void Read(Detector& detector, const Services& services) {
  std::vector<PasswdInfo> snapshot;
  if (!ReadPasswd(snapshot, services)) {
    LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, 2, "user_info_collector.cpp", 106, 0, "Failed to read %s.",
                   VELTA_PASSWD_FILE);
    return;
  }
  detector.Detect(snapshot);
}

}  // namespace plain
