#ifndef VELTA_TESTS_SOAK_ACCOUNT_CHANGES_H
#define VELTA_TESTS_SOAK_ACCOUNT_CHANGES_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/soak/history.h"
#include "tests/soak/soak_random.h"

// Changes "/etc/passwd", which has to be a copy that nobody else sees, in every way that account files
// change, and tells of each state that a reading can have seen on the way.
//
// The file stays below a page: the kernel shows a write of one page whole or not at all, so there are no
// states but those that are told of. A reading that spans two changes of the same inode can still mix them:
// each state tells its inode. "/etc" has to be a tmpfs, which gives no inode number twice.
//
// Thread use: one thread at a time.
class AccountChanges {
 public:
  struct Change {
    std::string way;
    std::string added;  // a root account that no file ever held before, or empty
    SoakTime begin;
    SoakTime end;
  };
  using Listener = std::function<void(const VisibleState&)>;

  AccountChanges(SoakRandom& choices, Listener told);
  ~AccountChanges();
  AccountChanges(const AccountChanges&) = delete;
  AccountChanges& operator=(const AccountChanges&) = delete;

  Change Make();

  // A new root account at the end of the file, which sorts behind every other: its alert is the last one of
  // the reading that finds it.
  Change AddMarker();

  VisibleState Current() const;

 private:
  using Lines = std::vector<std::string>;

  // What is to become of the content.
  struct Edit {
    Lines lines;
    std::string added;     // as in Change
    std::string sed;       // a script that does the same; empty when there is none
    std::string appended;  // the line, when that is all
    Lines tool;            // an account tool that does it
    const char* toolName = "";
  };

  Edit AnEdit();
  Edit Addition();
  Edit AdditionOfMany();
  Edit Removal();
  Edit RemovalOfMany();
  Edit Return();
  Edit OtherShell();
  Edit Toggle();

  std::string Apply(const Edit& edit);  // the way
  std::string ApplyInPlace(const Edit& edit);

  template <typename Call>
  void Show(const std::optional<std::string>& content, Sight sight, const char* cause, Call call);
  void ShowTool(const Lines& command, const std::string& cause);
  void Write(int descriptor, const std::string& from, const std::string& rest, Sight sight,
             const char* cause);
  void Rename(const std::string& content, const char* cause);
  void Vipw(const std::string& content);
  void Overwrite(const char* path, const std::string& content, const char* cause, bool inPieces);
  void Append(const char* path, const std::string& line, const char* cause);
  void AppendHeld(const std::string& line);
  void Recreate(const std::string& content);
  void MoveAwayAndBack();
  void TouchOrChmod();
  void Cover(const std::string& content);
  void Uncover();
  bool HeldIsCurrent() const;
  void CloseHeld();

  std::string FreshName();
  std::vector<std::size_t> RootLines() const;

  SoakRandom& random;
  const Listener listener;
  Lines lines;                       // of the file as it is
  Lines under;                       // of the covered file
  std::vector<std::string> removed;  // lines of late
  bool covered = false;
  int held = -1;
  unsigned fresh = 0;
};

#endif  // VELTA_TESTS_SOAK_ACCOUNT_CHANGES_H
