#ifndef VELTA_COLLECTOR_PASSWD_INFO_H
#define VELTA_COLLECTOR_PASSWD_INFO_H

#include <cstdint>
#include <ctime>
#include <string>

// One account of the account database. The password and the comment field are not kept.
struct PasswdInfo {
  std::string userName;
  std::uint32_t uid;
  std::uint32_t gid;
  std::string home;
  std::string shell;
  std::time_t readTime;  // the moment of the read; the same in every record of one snapshot

  // The name alone orders records: to a set, two records of one name are the same account.
  bool operator<(const PasswdInfo& other) const { return userName < other.userName; }
};

#endif  // VELTA_COLLECTOR_PASSWD_INFO_H
