#ifndef VELTA_TESTS_SUPPORT_ACCOUNT_FILE_H
#define VELTA_TESTS_SUPPORT_ACCOUNT_FILE_H

#include <string>

// The account file that the sources under test read: VELTA_PASSWD_FILE, in a folder of this object's own that
// is the working directory while it lives. There is no file at first.
class AccountFile {
 public:
  AccountFile();
  ~AccountFile();
  AccountFile(const AccountFile&) = delete;
  AccountFile& operator=(const AccountFile&) = delete;

  void Write(const std::string& content) const;
  void MakeFolder() const;
  void MakeLink(const std::string& target) const;
  void Remove() const;

 private:
  std::string before;
  std::string folder;
};

#endif  // VELTA_TESTS_SUPPORT_ACCOUNT_FILE_H
