#include "agent/utc_time.h"

#include <ctime>
#include <string>

#include "host/utc_time.h"

std::string UtcTimeText(std::time_t moment) {
  std::tm calendar = std::tm();
  if (gmtime_r(&moment, &calendar) == nullptr) {
    return std::string();
  }
  char text[64];  // a year has at most eleven digits
  return std::string(text, std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &calendar));
}

void UtilsGetUtcTime(std::string& out) {
  const std::time_t now = std::time(nullptr);
  out = now == static_cast<std::time_t>(-1) ? std::string() : UtcTimeText(now);
}
