#include "tests/soak/account_changes.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "tests/system/tool.h"

namespace {

constexpr char passwd[] = "/etc/passwd";
constexpr char freshFile[] = "/etc/passwd.new";
constexpr char otherLink[] = "/etc/soak-link";
constexpr char cover[] = "/etc/soak-cover";
constexpr char edited[] = "/etc/passwd.edit";
constexpr char backup[] = "/etc/passwd-";
constexpr char away[] = "/etc/passwd.away";
constexpr std::size_t mostRoots = 18;
constexpr std::size_t firstAdded = 4;  // root, alice and the two who turn into root accounts and back stay
constexpr std::size_t longestContent = 4000;  // less than a page

void Require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
  }
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string content;
  for (const std::string& line : lines) {
    content += line + "\n";
  }
  return content;
}

std::string NameOf(const std::string& line) { return line.substr(0, line.find(':')); }

std::vector<std::string> LinesOf(const char* path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::uint64_t Inode() {
  struct stat status = {};
  Require(stat(passwd, &status) == 0, "the inode");
  return status.st_ino;
}

std::string LineFor(const std::string& name) { return name + ":x:0:0::/nowhere:/bin/sh"; }

}  // namespace

AccountChanges::AccountChanges(SoakRandom& choices, Listener told)
    : random(choices),
      listener(std::move(told)),
      lines{"root:x:0:0:root:/root:/bin/bash", "alice:x:1000:0::/nowhere:/bin/sh",
            "bob:x:2000:0::/nowhere:/bin/sh", "carol:x:2001:0::/nowhere:/bin/sh",
            "standing:x:0:0::/nowhere:/bin/sh"} {
  Rename(Joined(lines), "the beginning");
}

AccountChanges::~AccountChanges() { CloseHeld(); }

VisibleState AccountChanges::Current() const {
  const SoakTime now = SoakTime::clock::now();
  const std::string content = Joined(lines);
  return {now, now, Sight::Whole, RootAccountsIn(content), "as it stood", Inode(), content};
}

AccountChanges::Change AccountChanges::Make() {
  Change change;
  change.begin = SoakTime::clock::now();
  if (covered && random.Chance(30)) {
    change.way = "umount";
    Uncover();
  } else if (random.Chance(6)) {
    change.way = "touch, chmod";
    TouchOrChmod();
  } else if (!covered && random.Chance(3)) {
    change.way = "moved away and back";
    MoveAwayAndBack();
  } else if (!covered && random.Chance(5)) {
    change.way = "renames back to back";
    for (std::size_t count = 2 + random.Below(18); count > 0; --count) {
      const Edit edit = AnEdit();
      lines = edit.lines;
      change.added = edit.added;
      Rename(Joined(lines), "one of many renames");
    }
  } else {
    const Edit edit = AnEdit();
    if (Joined(edit.lines).size() >= longestContent) {
      throw std::logic_error("the account file grows beyond a page");
    }
    change.added = edit.added;
    change.way = covered ? ApplyInPlace(edit) : Apply(edit);
  }
  if (lines != LinesOf(passwd)) {
    throw std::runtime_error("the account file is not what " + change.way + " was to make of it");
  }
  change.end = SoakTime::clock::now();
  return change;
}

AccountChanges::Change AccountChanges::AddMarker() {
  Change change;
  change.begin = SoakTime::clock::now();
  change.way = ">>";
  const std::string number = std::to_string(++fresh);
  change.added =
      "zz" + std::string(number.size() < 8 ? 8 - number.size() : 0, '0') + number;  // behind older ones
  lines.push_back(LineFor(change.added));
  Append(passwd, lines.back(), "marker");
  change.end = SoakTime::clock::now();
  return change;
}

std::string AccountChanges::FreshName() {
  // From all over the order in which the alerts of one reading leave.
  return std::string(1, static_cast<char>('a' + random.Below(25))) + std::to_string(++fresh);
}

std::vector<std::size_t> AccountChanges::RootLines() const {
  std::vector<std::size_t> found;
  for (std::size_t i = firstAdded; i < lines.size(); ++i) {
    if (lines[i].find(":x:0:") != std::string::npos) {
      found.push_back(i);
    }
  }
  return found;
}

AccountChanges::Edit AccountChanges::AnEdit() {
  const std::size_t roots = RootLines().size();
  if (roots > mostRoots) {
    return RemovalOfMany();
  }
  const std::size_t choice = random.Below(100);
  if (choice < 40 || roots == 0) {
    return Addition();
  }
  if (choice < 62) {
    return Removal();
  }
  if (choice < 75 && !removed.empty()) {
    return Return();
  }
  if (choice < 80) {
    return OtherShell();
  }
  if (choice < 88) {
    return Toggle();
  }
  if (choice < 91) {
    return AdditionOfMany();
  }
  Edit same;
  same.lines = lines;
  same.sed = "s/^root:/root:/";
  return same;
}

AccountChanges::Edit AccountChanges::Addition() {
  Edit edit;
  edit.added = FreshName();
  edit.appended = LineFor(edit.added);
  edit.lines = lines;
  edit.lines.push_back(edit.appended);
  edit.sed = "$a " + edit.appended;
  edit.tool = {"useradd", "-M", "-o", "-u", "0", "-g", "0", "-s", "/bin/sh", "-d", "/nowhere", edit.added};
  edit.toolName = "useradd";
  return edit;
}

AccountChanges::Edit AccountChanges::AdditionOfMany() {
  Edit edit;
  edit.lines = lines;
  for (std::size_t count = 3 + random.Below(20); count > 0; --count) {
    edit.lines.push_back(LineFor(FreshName()));
  }
  edit.added = NameOf(edit.lines.back());
  return edit;
}

AccountChanges::Edit AccountChanges::Removal() {
  const std::vector<std::size_t> roots = RootLines();
  const std::size_t chosen = roots[random.Below(roots.size())];
  const std::string name = NameOf(lines[chosen]);
  Edit edit;
  edit.lines = lines;
  edit.lines.erase(edit.lines.begin() + static_cast<std::ptrdiff_t>(chosen));
  edit.sed = "/^" + name + ":/d";
  edit.tool = {"userdel", "-f", name};
  edit.toolName = "userdel";
  removed.push_back(LineFor(name));
  if (removed.size() > 5) {
    removed.erase(removed.begin());
  }
  return edit;
}

AccountChanges::Edit AccountChanges::RemovalOfMany() {
  Edit edit;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i < firstAdded || (lines[i].find(":x:0:") != std::string::npos && random.Chance(40))) {
      edit.lines.push_back(lines[i]);
    }
  }
  return edit;
}

AccountChanges::Edit AccountChanges::Return() {
  Edit edit;
  edit.lines = lines;
  edit.appended = removed[random.Below(removed.size())];
  const bool stands = std::any_of(lines.begin(), lines.end(), [&edit](const std::string& line) {
    return NameOf(line) == NameOf(edit.appended);
  });
  if (stands) {
    return Addition();
  }
  edit.lines.push_back(edit.appended);
  edit.sed = "$a " + edit.appended;
  return edit;
}

AccountChanges::Edit AccountChanges::OtherShell() {
  const std::vector<std::size_t> roots = RootLines();
  Edit edit;
  edit.lines = lines;
  std::string& line = edit.lines[roots[random.Below(roots.size())]];
  line = line.substr(0, line.rfind(':')) + (random.Chance(50) ? ":/bin/zsh" : ":/bin/sh");
  return edit;
}

AccountChanges::Edit AccountChanges::Toggle() {
  Edit edit;
  edit.lines = lines;
  std::string& line = edit.lines[firstAdded - 2 + random.Below(2)];
  const std::string name = NameOf(line);
  const bool isRoot = line.find(":x:0:") != std::string::npos;
  const std::string uid = isRoot ? (name == "bob" ? "2000" : "2001") : "0";
  const std::size_t begin = line.find(":x:") + 3;
  line.replace(begin, line.find(':', begin) - begin, uid);
  edit.sed = "s/^" + name + ":x:[0-9]*:/" + name + ":x:" + uid + ":/";
  if (!isRoot) {  // the tool refuses the way back: root, it says, is running processes
    edit.tool = {"usermod", "-o", "-u", "0", name};
    edit.toolName = "usermod";
  }
  return edit;
}

std::string AccountChanges::Apply(const Edit& edit) {
  const std::string content = Joined(edit.lines);
  const std::size_t choice = random.Below(100);
  if (choice < 22 && !edit.tool.empty()) {
    lines = edit.lines;
    ShowTool(edit.tool, edit.toolName);
    return edit.toolName;
  }
  if (choice < 32 && !edit.sed.empty()) {
    lines = edit.lines;
    ShowTool({"sed", "-i", edit.sed, passwd}, "sed -i");
    return "sed -i";
  }
  if (choice < 46) {
    lines = edit.lines;
    Vipw(content);
    return "vipw";
  }
  if (choice < 60) {
    lines = edit.lines;
    Rename(content, "rename");
    return "rename";
  }
  if (choice < 68) {
    lines = edit.lines;
    Recreate(content);
    return "delete, recreate";
  }
  if (choice < 74) {
    under = std::exchange(lines, edit.lines);
    Cover(content);
    return "mount";
  }
  if (choice < 81) {
    lines = edit.lines;
    unlink(otherLink);
    Require(link(passwd, otherLink) == 0, "another hard link");
    if (edit.appended.empty()) {
      Overwrite(otherLink, content, "cat > another hard link", false);
    } else {
      Append(otherLink, edit.appended, ">> another hard link");
    }
    return "another hard link";
  }
  return ApplyInPlace(edit);
}

std::string AccountChanges::ApplyInPlace(const Edit& edit) {
  lines = edit.lines;
  if (!edit.appended.empty() && random.Chance(70)) {
    if (random.Chance(50)) {
      AppendHeld(edit.appended);
      return "held descriptor";
    }
    Append(passwd, edit.appended, ">>");
    return ">>";
  }
  const bool inPieces = random.Chance(30);
  const char* const way = inPieces ? "cat > in pieces" : "cat >";
  Overwrite(passwd, Joined(edit.lines), way, inPieces);
  return way;
}

template <typename Call>
void AccountChanges::Show(const std::optional<std::string>& content, Sight sight, const char* cause,
                          Call call) {
  VisibleState state;
  state.earliest = SoakTime::clock::now();
  Require(call(), cause);
  state.latest = SoakTime::clock::now();
  state.sight = sight;
  state.roots = RootAccountsIn(content.value_or(""));
  state.cause = cause;
  if (content) {
    state.inode = Inode();
    state.content = content;
  }
  listener(state);
}

// The tools put a finished file in place.
void AccountChanges::ShowTool(const Lines& command, const std::string& cause) {
  Show(Joined(lines), Sight::Whole, cause.c_str(), [&] {
    const ToolResult result = RunTool(command);
    if (result.exitCode != 0) {
      throw std::runtime_error(cause + ": " + result.output);
    }
    return true;
  });
}

void AccountChanges::Write(int descriptor, const std::string& from, const std::string& rest, Sight sight,
                           const char* cause) {
  Show(from + rest, sight, cause,
       [&] { return write(descriptor, rest.data(), rest.size()) == static_cast<ssize_t>(rest.size()); });
}

void AccountChanges::Rename(const std::string& content, const char* cause) {
  std::ofstream(freshFile, std::ios::binary | std::ios::trunc) << content;
  Show(content, Sight::Whole, cause, [] { return rename(freshFile, passwd) == 0; });
}

void AccountChanges::Vipw(const std::string& content) {
  std::ofstream(edited, std::ios::binary | std::ios::trunc) << content;
  unlink(backup);
  Require(link(passwd, backup) == 0, "vipw");
  random.Pause();
  Show(content, Sight::Whole, "vipw", [] { return rename(edited, passwd) == 0; });
}

void AccountChanges::Overwrite(const char* path, const std::string& content, const char* cause,
                               bool inPieces) {
  int descriptor = -1;
  Show("", Sight::Empty, cause, [&] {
    descriptor = open(path, O_WRONLY | O_TRUNC | O_CLOEXEC);
    return descriptor >= 0;
  });
  random.Pause();
  std::string written;
  for (std::size_t pieces = inPieces ? 1 + random.Below(4) : 0; pieces > 0; --pieces) {
    const std::string piece = content.substr(written.size(), 1 + random.Below(content.size() / 5));
    if (written.size() + piece.size() >= content.size()) {
      break;
    }
    Write(descriptor, written, piece, Sight::Begun, cause);
    written += piece;
    random.Pause();
  }
  Write(descriptor, written, content.substr(written.size()), Sight::Whole, cause);
  random.Pause();
  close(descriptor);
}

void AccountChanges::Append(const char* path, const std::string& line, const char* cause) {
  const int descriptor = open(path, O_WRONLY | O_APPEND | O_CLOEXEC);
  Require(descriptor >= 0, cause);
  Lines before = lines;
  before.pop_back();
  Write(descriptor, Joined(before), line + "\n", Sight::Whole, cause);
  close(descriptor);
}

bool AccountChanges::HeldIsCurrent() const {
  struct stat one = {};
  struct stat other = {};
  return held >= 0 && fstat(held, &one) == 0 && stat(passwd, &other) == 0 && one.st_ino == other.st_ino &&
         one.st_dev == other.st_dev;
}

void AccountChanges::CloseHeld() {
  if (held >= 0) {
    close(std::exchange(held, -1));
  }
}

// Through a descriptor that stays open, so that no close tells of the write; in two pieces at times.
void AccountChanges::AppendHeld(const std::string& line) {
  if (!HeldIsCurrent()) {
    CloseHeld();
    held = open(passwd, O_WRONLY | O_APPEND | O_CLOEXEC);
    Require(held >= 0, "held descriptor");
  }
  Lines before = lines;
  before.pop_back();
  std::string from = Joined(before);
  std::string rest = line + "\n";
  if (random.Chance(30)) {
    const std::string piece = rest.substr(0, 1 + random.Below(rest.size() - 1));
    Write(held, from, piece, Sight::Whole, "held descriptor");
    from += piece;
    rest.erase(0, piece.size());
    random.Pause();
  }
  Write(held, from, rest, Sight::Whole, "held descriptor");
}

void AccountChanges::Recreate(const std::string& content) {
  constexpr char cause[] = "delete, recreate";
  Show(std::nullopt, Sight::Unreadable, cause, [] { return unlink(passwd) == 0; });
  random.Pause();
  int descriptor = -1;
  Show("", Sight::Empty, cause, [&] {
    descriptor = open(passwd, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    return descriptor >= 0;
  });
  random.Pause();
  Write(descriptor, "", content, Sight::Whole, cause);
  close(descriptor);
}

void AccountChanges::MoveAwayAndBack() {
  constexpr char cause[] = "moved away and back";
  Show(std::nullopt, Sight::Unreadable, cause, [] { return rename(passwd, away) == 0; });
  random.Pause();
  Show(Joined(lines), Sight::Whole, cause, [] { return rename(away, passwd) == 0; });
}

void AccountChanges::TouchOrChmod() {
  const bool done = random.Chance(50) ? utimensat(AT_FDCWD, passwd, nullptr, 0) == 0
                                      : chmod(passwd, random.Chance(50) ? 0600 : 0644) == 0;
  Require(done, "touch, chmod");
}

void AccountChanges::Cover(const std::string& content) {
  unlink(cover);
  std::ofstream(cover, std::ios::binary | std::ios::trunc) << content;
  Show(content, Sight::Whole, "mount", [] { return mount(cover, passwd, nullptr, MS_BIND, nullptr) == 0; });
  covered = true;
}

void AccountChanges::Uncover() {
  lines = under;
  covered = false;
  Show(Joined(lines), Sight::Whole, "umount", [] { return umount2(passwd, MNT_DETACH) == 0; });
}
