#include "tests/support/records.h"

#include <string>
#include <vector>

PasswdInfo Account(const std::string& name, std::uint32_t uid) {
  PasswdInfo account = PasswdInfo();
  account.userName = name;
  account.uid = uid;
  account.gid = 100;
  account.home = "/home/" + name;
  account.shell = "/bin/sh";
  account.readTime = 1;
  return account;
}

std::vector<std::string> Texts(const std::vector<PasswdInfo>& records) {
  std::vector<std::string> texts;
  for (const PasswdInfo& record : records) {
    texts.push_back(record.userName + ":" + std::to_string(record.uid) + ":" + std::to_string(record.gid) +
                    ":" + record.home + ":" + record.shell);
  }
  return texts;
}
