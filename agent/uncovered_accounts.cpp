#include "agent/uncovered_accounts.h"

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "host/string_process.h"

namespace {

constexpr std::size_t longestLine = 1000;
constexpr std::size_t fieldCount = 7;

// Of a longer line the library is shown the beginning: name and numbers come first, so what it makes of the
// account is the same, and its memory is bounded.
constexpr std::size_t longestShown = std::size_t{1} << 20;

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

// What the C library's reader makes of one line, if anything.
std::optional<UncoveredAccount> AskLibrary(std::string_view line) {
  std::string text(line.substr(0, longestShown));
  text += '\n';
  const std::unique_ptr<std::FILE, CloseStream> stream(fmemopen(text.data(), text.size(), "r"));
  if (stream == nullptr) {
    throw std::bad_alloc();
  }
  errno = 0;
  const passwd* const found = fgetpwent(stream.get());
  if (found == nullptr) {
    if (errno == ENOMEM) {
      throw std::bad_alloc();
    }
    return std::nullopt;
  }
  const auto textOf = [](const char* field) { return std::string(field == nullptr ? "" : field); };
  UncoveredAccount account = UncoveredAccount();
  account.userName = textOf(found->pw_name);
  account.uid = found->pw_uid;
  account.gid = found->pw_gid;
  account.shell = textOf(found->pw_shell);
  account.home = textOf(found->pw_dir);
  return account;
}

// Why the module passes the line over; null when it makes a record of it, whose name is then noted. These are
// the module's rules, in its order.
const char* WhyUncovered(std::string_view line, std::set<std::string>& names) {
  if (line.size() > longestLine) {
    return "line too long";
  }
  const std::size_t begin = line.find_first_not_of(' ');
  if (begin != std::string_view::npos && line[begin] == '#') {
    return "comment";
  }
  const std::vector<std::string> fields = Utils::StringProcess::StrSplit(std::string(line), ":", false);
  const bool hasNul = line.find('\0') != std::string_view::npos;
  if (fields.size() != fieldCount) {
    return hasNul ? "NUL in line" : (fields.size() < fieldCount ? "too few fields" : "too many fields");
  }
  if (fields[0].empty()) {
    return "empty name";
  }
  unsigned uid = 0;
  unsigned gid = 0;
  if (!ConvertStrToNum(fields[2], uid, 10) || !ConvertStrToNum(fields[3], gid, 10)) {
    return hasNul ? "NUL in line" : "no user or group ID";
  }
  return names.insert(fields[0]).second ? nullptr : "shadowed by a repeated name";
}

}  // namespace

bool UncoveredAccount::operator==(const UncoveredAccount& other) const {
  return userName == other.userName && uid == other.uid && gid == other.gid && shell == other.shell &&
         home == other.home && line == other.line && std::strcmp(reason, other.reason) == 0;
}

std::vector<UncoveredAccount> FindUncoveredRoots(const std::string& content) {
  std::vector<UncoveredAccount> accounts;
  std::set<std::string> names;
  std::size_t number = 0;
  for (std::size_t start = 0; start < content.size();) {
    const std::size_t end = std::min(content.find('\n', start), content.size());
    const std::string_view line = std::string_view(content).substr(start, end - start);
    start = end + 1;
    ++number;
    const char* const reason = WhyUncovered(line, names);
    if (reason == nullptr) {
      continue;
    }
    std::optional<UncoveredAccount> account = AskLibrary(line);
    if (account && account->uid == 0 && account->userName != "root") {
      account->line = number;
      account->reason = reason;
      accounts.push_back(std::move(*account));
    }
  }
  return accounts;
}
