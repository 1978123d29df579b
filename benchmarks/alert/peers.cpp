#include "benchmarks/alert/peers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "tests/support/temporary_folder.h"
#include "tests/system/tool.h"

namespace {

// What a shell does with the account file to find what the others find.
constexpr char search[] = R"(awk -F: '$3 == 0 && $1 != "root"' /etc/passwd)";

bool IsInstalled(const std::string& program) {
  const char* const path = std::getenv("PATH");
  std::istringstream folders(std::string(path == nullptr ? "" : path) + ":/usr/local/sbin:/usr/sbin:/sbin");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (access((folder + "/" + program).c_str(), X_OK) == 0) {
      return true;
    }
  }
  return false;
}

// The last words of a program that has failed are why.
std::string LastLine(const std::string& text) {
  std::istringstream lines(text);
  std::string last = "no reason given";
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) {
      last = line;
    }
  }
  return last;
}

Contestant ShellLoop() {
  const std::string loop =
      std::string("inotifywait -m -q -e moved_to --format %f /etc | while read -r file; do ") +
      "[ \"$file\" = passwd ] && " + search + "; done";
  return {"inotifywait | while read | awk", {"sh", "-c", loop}, "", true};
}

// A table of its own, and nobody else's.
Contestant Incron() {
  const std::string room = "/etc/velta-bench-incron";
  mkdir(room.c_str(), 0755);
  mkdir((room + "/tables").c_str(), 0755);
  mkdir((room + "/users").c_str(), 0755);
  WriteFile(room + "/incron.conf", "system_table_dir = " + room + "/tables\nuser_table_dir = " + room +
                                       "/users\nlockfile_dir = " + room + "\nlockfile_name = lock\n");
  WriteFile(room + "/tell", std::string("[ \"$1\" = passwd ] && ") + search + " >" + room + "/alerts\n");
  WriteFile(room + "/tables/passwd", "/etc IN_MOVED_TO /bin/sh " + room + "/tell $#\n");
  return {"incron", {"incrond", "-n", "-f", room + "/incron.conf"}, room + "/alerts", true};
}

// Its line about "/etc/passwd" names no account, but the inode of the new file: on a file system in memory
// never one that there was before.
std::string InodeInItsLine() {
  struct stat file = {};
  if (stat("/etc/passwd", &file) != 0) {
    throw std::runtime_error(std::string("/etc/passwd: ") + std::strerror(errno));
  }
  return "inode_new=<" + std::to_string(file.st_ino) + ">";
}

// `settings`: when it looks, and `interval` how long that takes to come round again. It checks this one file
// and does nothing else of what it could; it has no network, as it would look its own name up.
Contestant Samhain(const std::string& name, const std::string& topic, const std::string& settings,
                   std::chrono::milliseconds interval) {
  const std::string room = "/etc/velta-bench-samhain";
  const std::string own = room + "/" + topic;
  const std::string place = "/etc/samhain";  // of the configuration, whatever else is configured
  mkdir(room.c_str(), 0755);
  mkdir(own.c_str(), 0755);
  mkdir(place.c_str(), 0755);
  WriteFile(own + "/samhainrc",
            "[ReadOnly]\nfile=/etc/passwd\n"
            "[SuidCheck]\nSuidCheckActive=no\n"
            "[Utmp]\nLoginCheckActive=no\n"
            "[PortCheck]\nPortCheckActive=no\n"
            "[ProcessCheck]\nProcessCheckActive=no\n"
            "[Log]\nPrintSeverity=crit\nLogSeverity=none\nSyslogSeverity=none\n"
            "MailSeverity=none\nPreludeSeverity=none\n" +
                settings +
                "[Misc]\nDaemon=no\nChecksumTest=check\nSetLoopTime=86400\n"
                "SetDatabasePath=" +
                own + "/database\nSetLogfilePath=" + own + "/log\nSetLockfilePath=" + own + "/lock\n[EOF]\n");
  const std::string configured = "cp " + own + "/samhainrc " + place + " && exec unshare --net samhain ";
  const ToolResult made = RunTool({"sh", "-c", configured + "-t init"});
  if (made.exitCode != 0) {
    std::cerr << made.output;
    throw std::runtime_error("it makes no database, and ends with code " + std::to_string(made.exitCode));
  }
  Contestant samhain = {name, {"sh", "-c", configured + "-t check --foreground --forever 2>&1"}, "", true};
  samhain.mark = InodeInItsLine;
  samhain.rest = interval;
  return samhain;
}

}  // namespace

// A service manager of its own, with a path unit that runs what the shell loop runs. The manager's root is in
// the private "/etc"; its control groups go with this object.
class Peers::PathUnit {
 public:
  // Throws std::runtime_error, with the reason, where the machine does not allow it.
  PathUnit() {
    mkdir(room.c_str(), 0755);
    WriteFile(room + "/tell", std::string(search) + " >" + room + "/alerts\n");
    const ToolResult prepared = RunTool({VELTA_PATH_UNIT_FILE, "prepare", room});
    if (prepared.exitCode != 0) {
      Clear();
      throw std::runtime_error(LastLine(prepared.output));
    }
  }
  ~PathUnit() { Clear(); }
  PathUnit(const PathUnit&) = delete;
  PathUnit& operator=(const PathUnit&) = delete;

  Contestant Who(const std::string& name) const {
    Contestant unit = {name, {VELTA_PATH_UNIT_FILE, "start", room}, room + "/alerts", true};
    unit.patience = std::chrono::milliseconds(250);  // what it misses it never tells, and that is much
    return unit;
  }

 private:
  void Clear() {
    const ToolResult cleared = RunTool({VELTA_PATH_UNIT_FILE, "clear", room});
    if (cleared.exitCode != 0) {
      std::cerr << "a control group is left: " << LastLine(cleared.output) << '\n';
    }
  }

  const std::string room = "/etc/velta-bench-path-unit";
};

Peers::~Peers() = default;

void Peers::LeaveOut(const std::string& name, const std::string& reason) {
  std::cerr << name << " is not measured: " << reason << '\n';
  leftOut.push_back({name, reason});
}

template <typename Maker>
void Peers::AddIfItWorks(const Plan& plan, const std::string& name, const Maker& make) {
  try {
    Entry entry = make(name);
    RequireAnswer(plan, entry.contestant);
    present.push_back(std::move(entry));
  } catch (const std::runtime_error& error) {
    LeaveOut(name, error.what());
  }
}

Peers::Peers(const Plan& plan, bool quick) {
  const auto addIfInstalled = [&](const std::string& program, const std::string& name, Contestant (*make)()) {
    if (IsInstalled(program)) {
      AddIfItWorks(plan, name, [&](const std::string&) { return Entry{make(), plan.peerChanges}; });
    } else {
      LeaveOut(name, "not installed");
    }
  };
  addIfInstalled("inotifywait", "inotifywait | while read | awk", ShellLoop);
  addIfInstalled("incrond", "incron", Incron);
  AddIfItWorks(plan, "systemd path unit", [&](const std::string& name) {
    pathUnit = std::make_unique<PathUnit>();
    Entry entry = {pathUnit->Who(name), plan.peerChanges / 2};
    entry.warmUp = 4;
    return entry;
  });
  // Nothing in it is as quick as to differ from one round to the next.
  const auto slowly = [&plan](Contestant contestant) {
    Entry entry = {std::move(contestant), plan.peerChanges / 10};
    entry.rounds = 2;
    entry.warmUp = 1;
    return entry;
  };
  if (quick || !IsInstalled("samhain")) {
    LeaveOut("samhain", quick ? "a change takes it seconds: not in the quick form" : "not installed");
    return;
  }
  AddIfItWorks(plan, "samhain (every second)", [&](const std::string& name) {
    return slowly(Samhain(name, "interval", "[Misc]\nSetFilecheckTime=1\n", std::chrono::seconds(1)));
  });
  AddIfItWorks(plan, "samhain (inotify)", [&](const std::string& name) {
    return slowly(Samhain(name, "inotify", "[Inotify]\nInotifyActive=yes\n[Misc]\nSetFilecheckTime=86400\n",
                          std::chrono::seconds(2)));
  });
}
