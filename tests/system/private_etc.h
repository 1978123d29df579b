#ifndef VELTA_TESTS_SYSTEM_PRIVATE_ETC_H
#define VELTA_TESTS_SYSTEM_PRIVATE_ETC_H

#include <sys/types.h>

#include <string>

// A copy of "/etc" in place of the machine's own, seen by the calling thread, by the threads and processes
// that it starts from now on, and by nobody else. Tests write accounts into it, with their own hands or with
// the machine's account tools; the machine's files are never touched.
//
// The copy lives in memory and has no other name: not even a killed test leaves anything behind. Destruction
// uncovers the machine's "/etc" again.
//
// Throws std::runtime_error, with the reason, when the machine refuses a mount namespace (it takes root):
// such a test fails, it is not skipped.
//
// Thread use: made before the threads that are to see the copy; made and destroyed on one thread.
class PrivateEtc {
 public:
  PrivateEtc();
  ~PrivateEtc();
  PrivateEtc(const PrivateEtc&) = delete;
  PrivateEtc& operator=(const PrivateEtc&) = delete;

  // All of "/etc/passwd".
  std::string Passwd() const;

  // Replaces the whole file, as "cat >" does: same inode.
  void WritePasswd(const std::string& content);

  // Adds one line, as ">>" does.
  void AppendPasswd(const std::string& line);

  // Puts a new file in its place, as the account tools do.
  void ReplacePasswd(const std::string& content);

 private:
  // Throws std::runtime_error when "/etc" is not the copy: a thread outside, or a cover that is gone.
  void RequireCopy() const;

  dev_t device = 0;  // of the copy
};

#endif  // VELTA_TESTS_SYSTEM_PRIVATE_ETC_H
