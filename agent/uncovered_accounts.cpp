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

// The fields of a line, in order. A line of more than seven has a rest.
enum Field { Name, Password, UserId, GroupId, Comment, Home, Shell, Rest, FieldLimit };

// What is shown to the library of a password, and of everything behind the numbers. Neither decides who the
// account is, and a line may be as long as the file.
constexpr std::size_t longestShown = std::size_t{1} << 20;

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

struct Line {
  Line(std::string_view whole, bool hasEnd)
      : text(whole), ended(hasEnd), hasNul(whole.find('\0') != std::string_view::npos) {
    std::size_t start = 0;
    for (count = 0; count < FieldLimit; ++count) {
      const std::size_t end = std::min(text.find(':', start), text.size());
      fields[count] = text.substr(start, count == Rest ? std::string_view::npos : end - start);
      if (end == text.size() || count == Rest) {
        ++count;
        break;
      }
      start = end + 1;
    }
  }

  bool IsComment() const {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin != std::string_view::npos && text[begin] == '#';
  }

  // Such a line is no account but a directive to include others; the library's reader makes one of it all the
  // same.
  bool IsNisEntry() const {
    const std::size_t begin = text.find_first_not_of(" \t\v\f\r");
    return begin != std::string_view::npos && (text[begin] == '+' || text[begin] == '-');
  }

  std::string_view text;
  bool ended;  // by a newline, as all are but the last one of some files
  bool hasNul;
  std::string_view fields[FieldLimit];
  std::size_t count = 0;  // how many fields there are; FieldLimit stands for all larger numbers
};

std::optional<unsigned> NumberIn(std::string_view field) {
  unsigned number = 0;
  return ConvertStrToNum(std::string(field), number, 10) ? std::optional<unsigned>(number) : std::nullopt;
}

// Whether the library can find user ID 0 on the line: asking takes a thousand times as long as looking.
bool MayBeRoot(const Line& line) {
  if (line.hasNul || line.IsNisEntry() || !line.ended) {
    return true;  // the line may end, or be read, otherwise than it looks
  }
  return line.count > UserId && NumberIn(line.fields[UserId]) == 0u;
}

std::string Shown(const Line& line) {
  if (line.text.size() <= longestShown || !line.ended) {
    // glibc reads a line without its end in its own way when blanks lead it: "    a:0:0" has user ID 0.
    // Nobody knows how much of such a line counts, so all of it is shown.
    return std::string(line.text) + (line.ended ? "\n" : "");
  }
  if (line.hasNul) {  // where the library sees the line end, and no newline
    return Shown(Line(line.text.substr(0, line.text.find('\0')), false));
  }
  std::string text;
  for (std::size_t field = 0; field < line.count && field <= GroupId; ++field) {
    text += field == 0 ? "" : ":";
    text += field == Password && line.fields[field].size() > longestShown ? std::string_view("x")
                                                                          : line.fields[field];
  }
  if (line.count > Comment) {
    const auto behind = static_cast<std::size_t>(line.fields[Comment].data() - line.text.data());
    text += ':';
    text += line.text.substr(behind, longestShown);
  }
  return text + "\n";
}

// What the C library's reader makes of one line, if anything.
std::optional<UncoveredAccount> AskLibrary(const Line& line) {
  std::string text = Shown(line);
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
// the module's rules, in its order. A record with a NUL before its user ID is none of the library's: for it
// the line ends there, and a line "+toor" or "+toor:" is an account with user ID 0.
const char* WhyUncovered(const Line& line, std::set<std::string>& names) {
  if (line.text.size() > longestLine) {
    return "line too long";
  }
  if (line.IsComment()) {
    return "comment";
  }
  if (line.count != Rest) {
    if (line.hasNul) {
      return "NUL in line";
    }
    if (line.IsNisEntry()) {
      return "NIS entry";
    }
    return line.count < Rest ? "too few fields" : "too many fields";
  }
  if (line.fields[Name].empty()) {
    return "empty name";
  }
  if (!NumberIn(line.fields[UserId]) || !NumberIn(line.fields[GroupId])) {
    return line.hasNul ? "NUL in line" : (line.IsNisEntry() ? "NIS entry" : "no user or group ID");
  }
  if (!names.emplace(line.fields[Name]).second) {
    return "shadowed by a repeated name";
  }
  const bool endsEarly = line.fields[Name].find('\0') != std::string_view::npos ||
                         line.fields[Password].find('\0') != std::string_view::npos;
  return endsEarly ? "NUL in line" : nullptr;
}

}  // namespace

bool UncoveredAccount::operator==(const UncoveredAccount& other) const {
  return userName == other.userName && uid == other.uid && gid == other.gid && shell == other.shell &&
         home == other.home && line == other.line && std::strcmp(reason, other.reason) == 0;
}

void ForEachUncoveredRoot(const std::string& content,
                          const std::function<bool(const UncoveredAccount&)>& found,
                          const std::atomic<bool>* stop) {
  std::set<std::string> names;
  std::size_t number = 0;
  for (std::size_t start = 0; start < content.size() && (stop == nullptr || !*stop);) {
    const std::size_t end = std::min(content.find('\n', start), content.size());
    const Line line(std::string_view(content).substr(start, end - start), end < content.size());
    start = end + 1;
    ++number;
    const char* const reason = WhyUncovered(line, names);
    if (reason == nullptr || !MayBeRoot(line)) {
      continue;
    }
    std::optional<UncoveredAccount> account = AskLibrary(line);
    if (account && account->uid == 0 && account->userName != "root") {
      account->line = number;
      account->reason = reason;
      if (!found(*account)) {
        return;
      }
    }
  }
}

std::vector<UncoveredAccount> FindUncoveredRoots(const std::string& content) {
  std::vector<UncoveredAccount> accounts;
  ForEachUncoveredRoot(content, [&accounts](const UncoveredAccount& account) {
    accounts.push_back(account);
    return true;
  });
  return accounts;
}
