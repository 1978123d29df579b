#ifndef VELTA_BENCH_READING_PLAIN_MODULE_H
#define VELTA_BENCH_READING_PLAIN_MODULE_H

#include <set>
#include <string>
#include <vector>

#include "collector/passwd_info.h"

// What the module is measured against: the same steps in the same order, each written down in the plainest
// way, with the standard containers and nothing clever. Its alerts are the same, too.
//
// Repeated records are not erased where they stand, one by one: a storm of repeated names would then take
// minutes, and every comparison would be won by that alone.
namespace plain {

// The services that a reading calls, the agent's own or the plain ones below.
struct Services {
  std::vector<std::string> (*split)(const std::string& text, const std::string& separator, bool skipEmpty);
  bool (*toNumber)(const std::string& text, unsigned& value, int base);
};

std::vector<std::string> StrSplit(const std::string& text, const std::string& separator, bool skipEmpty);
bool ConvertStrToNum(const std::string& text, unsigned& value, int base);

bool ReadPasswd(std::vector<PasswdInfo>& users, const Services& services);
void RemoveRepeatedNames(std::vector<PasswdInfo>& users);

class Detector {
 public:
  void Detect(const std::vector<PasswdInfo>& users);
  void CmpUserInfo(const std::set<PasswdInfo>& users);

 private:
  std::set<PasswdInfo> baseline;
};

// One reading, from the file to the compared snapshot.
void Read(Detector& detector, const Services& services);

}  // namespace plain

#endif  // VELTA_BENCH_READING_PLAIN_MODULE_H
