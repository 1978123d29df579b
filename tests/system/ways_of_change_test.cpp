#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/line_reader.h"
#include "tests/system/agent_fixture.h"
#include "tests/system/agent_process.h"
#include "tests/system/target.h"
#include "tests/system/tool.h"

namespace {

using testing::AnyOf;
using testing::Each;
using testing::HasSubstr;
using testing::IsSupersetOf;

// The check interval of the agent.
const char eventsAlone[] = "0";
const char oftenStat[] = "50";

// How an account with the ID 0 gets into the file: commands of a shell in "/etc", which know its $name and
// $line.
struct Way {
  std::string name;
  std::string command;
  // The second of two changes in a row, where the first one's way is not open any more.
  std::string again = "";
  // What the command is to find; made before the agent starts.
  std::string before = "true";
};

// Whether the account file is without its accounts for a moment on the way. One change is read when it has
// settled; of two in a row, the first may be read in that moment of the second, and then whatever comes back
// is reported again.
enum class Passing { Whole, Emptied };

class WaysOfChange : public AgentFixture {
 protected:
  // Has read the file, and reported the account that all further readings find accepted, if that is there.
  std::unique_ptr<AgentProcess> Accepting(const char* interval, const Circumstances& circumstances = {}) {
    Readings readings;
    // Some ways pass through lines that only the cross-check reads.
    auto agent = Watching({"--check-interval", interval, "--limit", "0", "--no-cross-check"}, circumstances);
    if (etc.Passwd().find("\naccepted:") != std::string::npos) {
      EXPECT_EQ(agent->NextAlert(), AlertFor("accepted"));
    } else {
      EXPECT_TRUE(readings.WaitForOne());
    }
    return agent;
  }

  void StartFresh() {
    const std::string content = rootAndAlice + RootLine("accepted") + "\n";
    Do("printf %s '" + content + "' >fresh && mv fresh passwd");
  }

  // As the answer to a change: the timer reads as well, but later.
  static void ExpectReadSoon(Readings& readings) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(readings.WaitForOne());
    EXPECT_LT(std::chrono::steady_clock::now() - start, soon);
  }

  static void ExpectRefusedSoon(AgentProcess& agent) {
    const auto start = std::chrono::steady_clock::now();
    const std::string refused = "Failed to read /etc/passwd.";
    EXPECT_THAT(agent.LogUntil(refused), HasSubstr(refused));
    EXPECT_LT(std::chrono::steady_clock::now() - start, soon);
  }

  static void Append(const std::string& name) { Do("echo " + RootLine(name) + " >>/etc/passwd"); }

  // As ExpectSilence, also where something covers the private "/etc".
  void ExpectNothingElse(AgentProcess& agent) {
    const std::string marker = "zz-marker-" + std::to_string(++markers);
    Append(marker);
    EXPECT_EQ(agent.NextAlert(), AlertFor(marker));
  }

  static std::string With(const std::string& name, const std::string& command) {
    return "export name=" + name + " line=" + RootLine(name) + " && { " + command + "; }";
  }

  void ExpectOneIsReported(const Way& way, const char* interval) {
    const std::string name = way.name + "-1";
    const std::string link = way.name + "-1-link";
    StartFresh();
    ASSERT_NO_FATAL_FAILURE(Do(With(name, way.before)));
    const auto agent = Accepting(interval);
    ASSERT_NO_FATAL_FAILURE(Do(With(name, way.command)));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
    ASSERT_NO_FATAL_FAILURE(Do(With(link, onlyTheFileWatchSees)));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(link));
    ExpectNothingElse(*agent);
    ASSERT_NO_FATAL_FAILURE(Do(afterwards));
    ExpectOrderlyEnd(*agent);
  }

  void ExpectTwoInARowAreReported(const Way& way, Passing passing, const char* interval) {
    const std::string first = way.name + "-2";
    const std::string second = way.name + "-3";
    const bool alike = way.again.empty();
    StartFresh();
    ASSERT_NO_FATAL_FAILURE(Do(With(first, way.before)));
    if (alike) {
      ASSERT_NO_FATAL_FAILURE(Do(With(second, way.before)));
    }
    const auto agent = Accepting(interval);
    ASSERT_NO_FATAL_FAILURE(
        Do(With(first, way.command) + " && " + With(second, alike ? way.command : way.again)));
    if (passing == Passing::Whole) {
      EXPECT_EQ(agent->NextAlert(soon), AlertFor(first));
      EXPECT_EQ(agent->NextAlert(soon), AlertFor(second));
      ExpectNothingElse(*agent);
    } else {
      const auto known = AnyOf(AlertFor("accepted"), AlertFor(first), AlertFor(second), AlertFor("zz-last"));
      std::vector<std::string> alerts = AlertsUntil(*agent, second);
      Append("zz-last");
      for (const std::string& alert : AlertsUntil(*agent, "zz-last")) {
        alerts.push_back(alert);
      }
      EXPECT_THAT(alerts, IsSupersetOf({AlertFor(first), AlertFor(second), AlertFor("zz-last")}));
      EXPECT_THAT(alerts, Each(known));
    }
    ASSERT_NO_FATAL_FAILURE(Do(afterwards));
    ExpectOrderlyEnd(*agent);
  }

  static std::vector<std::string> AlertsUntil(AgentProcess& agent, const std::string& name) {
    std::vector<std::string> alerts;
    do {
      alerts.push_back(agent.NextAlert(soon));
    } while (alerts.back() != AlertFor(name) && alerts.back().front() == '{');
    return alerts;
  }

  void ExpectReported(const std::vector<Way>& ways, Passing passing = Passing::Whole,
                      const char* interval = eventsAlone) {
    for (const Way& way : ways) {
      SCOPED_TRACE(way.name);
      ASSERT_NO_FATAL_FAILURE(ExpectOneIsReported(way, interval));
      ASSERT_NO_FATAL_FAILURE(ExpectTwoInARowAreReported(way, passing, interval));
    }
  }

  // An agent that finds its program and its module where an ordinary user may read them.
  Circumstances Ordinary() const {
    const std::filesystem::path module = VELTA_MODULE_FILE;
    Circumstances ordinary;
    ordinary.ordinaryUser = true;
    ordinary.program = folder.Path("velta-agent");
    std::filesystem::copy_file(VELTA_AGENT_FILE, ordinary.program);
    std::filesystem::copy_file(module, folder.Path(module.filename().string()));
    return ordinary;
  }

  // After a change, a write that nothing but a watch on the inode behind the path tells of: the agent must
  // have left the old one.
  std::string onlyTheFileWatchSees =
      R"(ln -fL passwd another-link && printf '\n%s\n' $line >>another-link && rm another-link)";
  // Ends each proof.
  std::string afterwards = "true";
};

const std::string useradd = "useradd -l -M -N -o -u 0 -g 0 -s /bin/sh -d /nowhere $name";
const std::string copyWithLine = "cp -p /etc/passwd copy && echo $line >>copy && ";

// The tool writes nothing but one account with the ID 0, and refuses when there is one. The name service of a
// running systemd knows a root of its own.
const std::string withoutRoot =
    "sed -i '/:x:0:/d' passwd && sed -i 's/^passwd:.*/passwd: files/' nsswitch.conf";

TEST_F(WaysOfChange, Way01TheOldFileIsClosedBeforeTheNewOneTakesItsName) {
  ExpectReported({
      {"useradd", useradd},
      {"usermod", "usermod -o -u 0 $name", "", "echo $name:x:7:0::/nowhere:/bin/sh >>passwd"},
      // A line of more than a thousand characters is not read: the account appears when the tool shortens it.
      {"chsh", "chsh -s /bin/sh $name", "", "echo $line$(printf /%01000d 0) >>passwd"},
      {"chfn", "chfn -f '' $name", "", "echo $name:x:0:0:$(printf %01000d 0):/nowhere:/bin/sh >>passwd"},
      // Of two accounts of one name the first one counts, and the tool sorts them by their IDs.
      {"pwck", "pwck -s", useradd, "echo $name:x:7:0::/:/bin/sh >>passwd && echo $line >>passwd"},
  });
}

TEST_F(WaysOfChange, Way01AnAccountThatUserdelRemovedIsReportedWhenItComesBack) {
  StartFresh();
  const auto agent = Accepting(eventsAlone);
  for (int time = 0; time < 2; ++time) {
    ASSERT_NO_FATAL_FAILURE(Do(With("toor", useradd)));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
    ASSERT_NO_FATAL_FAILURE(Do("userdel -f toor"));  // by force: this process counts as one of the user's
    ExpectNothingElse(*agent);                       // so it was read without the account
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way02AdduserCallsSeveralTools) {
  ExpectReported({{"adduser",
                   "adduser --quiet --uid 0 --gid 0 --no-create-home --home /nowhere --shell /bin/sh "
                   "--disabled-password --gecos '' $name",
                   useradd, withoutRoot}});
}

TEST_F(WaysOfChange, Way03TheOldFileStaysAliveUnderAnotherName) {
  ExpectReported({
      // It takes for unchanged what was written in the same second as before.
      {"vipw", "EDITOR=/etc/editor vipw -q", "",
       R"(printf '#!/bin/sh\nthen=$(stat -c %%Y $1)\necho $line >>$1\ntouch -d @$((then + 60)) $1\n' >editor && )"
       "chmod 755 editor"},
      {"by-hand", copyWithLine + "ln -f passwd passwd- && mv copy passwd"},
  });
}

TEST_F(WaysOfChange, Way04UpdatePasswdKeepsTheOldFile) {
  ExpectReported({{"update-passwd",
                   "cp -p passwd master && echo $line >>master && update-passwd --passwd-master /etc/master "
                   "--group-master /etc/group && cmp passwd master && [ -e passwd.org ]"}});
}

TEST_F(WaysOfChange, Way05AToolThatChangesNothingIsFollowedByAReadingAndByNoAlert) {
  StartFresh();
  ASSERT_NO_FATAL_FAILURE(Do("pwconv"));  // what there is to convert
  const auto agent = Accepting(eventsAlone);
  Readings readings;
  ASSERT_NO_FATAL_FAILURE(Do("before=$(stat -c %i passwd) && pwconv && [ $before = $(stat -c %i passwd) ]"));
  ExpectReadSoon(readings);
  ASSERT_NO_FATAL_FAILURE(Do(With("toor", onlyTheFileWatchSees)));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectNothingElse(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way06TheFileThatTookTheNameIsClosedLast) {
  ExpectReported(
      {{"sysusers",
        "echo \"u $name 0:0 - /nowhere /bin/sh\" >users.conf && systemd-sysusers /etc/users.conf && "
        "grep \"^$line\" passwd",
        useradd, withoutRoot}});
}

TEST_F(WaysOfChange, Way07ANewFileTakesTheName) {
  ExpectReported({
      {"sed", R"(sed -i "\$a $line" passwd)"},
      {"perl", R"(perl -i -pe 'print "$ENV{line}\n" if $. == 1' passwd)"},
      {"patch", copyWithLine + "{ diff -u passwd copy >difference; patch -s passwd difference; }"},
      {"rsync", copyWithLine + "rsync copy passwd"},
      {"mv", copyWithLine + "mv copy passwd"},
      {"ln", copyWithLine + "ln -f copy passwd && rm copy"},
      {"from-below", copyWithLine + "mkdir -p below && mv copy below/passwd && mv below/passwd ."},
  });
}

TEST_F(WaysOfChange, Way08ALineIsAppended) {
  ExpectReported({
      {"shell", "echo $line >>passwd"},
      {"tee", "echo $line | tee -a passwd"},
      {"descriptor", "exec 3>>passwd && echo $line >&3 && exec 3>&-"},
      {"in-parts", "{ printf $name:x:0: && echo 0::/nowhere:/bin/sh; } >>passwd"},
  });
}

TEST_F(WaysOfChange, Way08ADescriptorThatStaysOpenIsNotWaitedFor) {
  StartFresh();
  const auto agent = Accepting(eventsAlone);
  std::FILE* const held = std::fopen("/etc/passwd", "a");
  ASSERT_NE(held, nullptr);
  const auto write = [held](const std::string& name) {
    std::fputs((RootLine(name) + "\n").c_str(), held);
    std::fflush(held);
  };
  write("held-1");
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("held-1"));
  write("held-2");
  write("held-3");
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("held-2"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("held-3"));
  std::fclose(held);
  ExpectNothingElse(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way09TheFileIsWrittenAnewInPlace) {
  ExpectReported(
      {
          {"cat", copyWithLine + "cat copy >passwd"},
          {"cp", copyWithLine + "cp copy passwd"},
          {"ed", R"(printf '$a\n%s\n.\nw\nq\n' $line | ed -s passwd)"},
          {"rsync", copyWithLine + "rsync --inplace copy passwd"},
      },
      Passing::Emptied);
}

// Runs the command on a terminal of its own, and types once that shows the prompt.
void TypeAt(const std::string& command, const std::string& prompt, const std::string& keys) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
    throw std::runtime_error("no terminal");
  }
  const std::string name = ptsname(terminal);
  const pid_t process = fork();
  if (process == 0) {
    setsid();
    const int screen = open(name.c_str(), O_RDWR);  // the session's terminal from now on
    for (int stream = 0; stream < 3; ++stream) {
      dup2(screen, stream);
    }
    execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::string shown;
  bool typed = false;
  bool ended = false;
  while (!ended && std::chrono::steady_clock::now() < deadline) {
    pollfd readable = {terminal, POLLIN, 0};
    std::array<char, 4096> part;
    const ssize_t length = poll(&readable, 1, 100) > 0 ? read(terminal, part.data(), part.size()) : 0;
    ended = length < 0;  // nobody has the other side open any more
    shown.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (!typed && shown.find(prompt) != std::string::npos) {
      typed = write(terminal, keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
    }
  }
  close(terminal);
  if (!ended) {
    kill(process, SIGKILL);
  }
  int status = 0;
  waitpid(process, &status, 0);
  EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << ": " << shown;
}

TEST_F(WaysOfChange, Way09AnEditorOnATerminalWritesInPlace) {
  StartFresh();
  const auto agent = Accepting(eventsAlone);
  for (const char* const name : {"nano-1", "nano-2"}) {
    const std::string endOfFile = "\x1b/";
    const std::string saveAndLeave = "\x13\x18";
    TypeAt("cd /etc && TERM=linux LC_ALL=C exec nano --ignorercfiles passwd", "GNU nano",
           endOfFile + RootLine(name) + saveAndLeave);
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
  }
  ExpectNothingElse(*agent);
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way10TheFileIsRemovedAndMadeAgain) {
  ExpectReported(
      {
          {"cp", copyWithLine + "cp --remove-destination copy passwd"},
          {"install", copyWithLine + "install -m 644 copy passwd"},
          {"tar", copyWithLine +
                      "mkdir -p packed && mv copy packed/passwd && tar -C packed -cf packed.tar passwd && "
                      "tar -xf packed.tar"},
          {"shell", copyWithLine + "rm passwd && cat copy >passwd"},
          {"mv-from-afar", copyWithLine + "mv copy /var/mail/copy && mv /var/mail/copy passwd"},
      },
      Passing::Emptied);
}

TEST_F(WaysOfChange, Way11AnEditorRenamesTheFileAndWritesANewOne) {
  const std::string vim = R"(printf '$a\n%s\n.\nx\n' $line | vim.tiny -u NONE -i NONE -es passwd -c )";
  ExpectReported(
      {
          {"renamed", vim + "'set writebackup backupcopy=no'"},
          {"renamed-and-kept", vim + "'set backup backupcopy=no' && [ -e passwd~ ]"},
          {"copied", vim + "'set writebackup backupcopy=yes'"},
      },
      Passing::Emptied);
}

TEST_F(WaysOfChange, Way12TheFileIsWrittenThroughAnotherLink) {
  ExpectReported({{"append", "echo $line >>link", "", "ln -f passwd link"},
                  {"elsewhere", "echo $line >>below/link", "", "mkdir -p below && ln -f passwd below/link"}});
  ExpectReported({{"anew", copyWithLine + "cat copy >link", "", "ln -f passwd link"}}, Passing::Emptied);
}

TEST_F(WaysOfChange, Way13APartOfTheFileIsWritten) {
  const std::string ordinary = "echo $name:x:7:0::/nowhere:/bin/sh >>passwd";
  const std::string offset = R"($(grep -abo "^$name:x:7:" passwd | cut -d: -f1))";
  ExpectReported({
      {"dd", "printf 0 | dd of=passwd bs=1 conv=notrunc seek=$((" + offset + " + ${#name} + 3))", "",
       ordinary},
      // Of two accounts of one name the first one counts, unless it is no account any more.
      {"fallocate", "fallocate --punch-hole --offset " + offset + " --length $((${#name} + 3)) passwd", "",
       ordinary + " && echo $line >>passwd"},
      {"truncate", "truncate -s -1001 passwd",
       R"(printf '\n%s\n' $line | dd of=passwd conv=notrunc oflag=append)",
       "printf %s $line$(printf /%01000d 0) >>passwd"},
  });
}

TEST_F(WaysOfChange, Way14ModeAndTimesChangeNoAccount) {
  StartFresh();
  const auto agent = Accepting(eventsAlone);
  for (const char* const command :
       {"chmod 000 passwd", "touch passwd", "chown alice passwd", "chmod 644 passwd"}) {
    Readings readings;
    ASSERT_NO_FATAL_FAILURE(Do(command));
    ExpectReadSoon(readings);
    ExpectNothingElse(*agent);
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way14WhatMayNotBeReadIsReadOnceItMay) {
  StartFresh();
  const auto agent = Accepting(eventsAlone, Ordinary());
  ASSERT_NO_FATAL_FAILURE(Do("chmod 000 passwd"));
  ExpectRefusedSoon(*agent);
  EXPECT_EQ(agent->NextAlert(soon), UnreadableFor("/etc/passwd cannot be opened: Permission denied"));
  ASSERT_NO_FATAL_FAILURE(Do("touch passwd"));
  ExpectRefusedSoon(*agent);
  Append("toor-1");
  ExpectRefusedSoon(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("chmod 644 passwd"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor-1"));
  ASSERT_NO_FATAL_FAILURE(Do("chmod 000 passwd && chmod 644 passwd"));
  ASSERT_NO_FATAL_FAILURE(Do(With("toor-2", onlyTheFileWatchSees)));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor-2"));
  ExpectNothingElse(*agent);
  ExpectOrderlyEnd(*agent);
}

const std::string asLink =
    "mkdir -p behind && cp -p passwd behind/new && mv behind/new behind/passwd && "
    "ln -sf behind/passwd passwd";

TEST_F(WaysOfChange, Way15TheFileIsReplacedByALinkWhoseTargetIsWritten) {
  const std::string changed = "cp -p behind/passwd behind/copy && echo $line >>behind/copy && ";
  ExpectReported({
      {"link", copyWithLine + "mkdir -p $name && mv copy $name/passwd && ln -sf $name/passwd passwd"},
      {"append", "echo $line >>behind/passwd", "", "[ -L passwd ] || { " + asLink + "; }"},
      {"rename", changed + "mv behind/copy behind/passwd", "", "[ -L passwd ] || { " + asLink + "; }"},
      {"rename-and-keep", changed + "ln -f behind/passwd behind/passwd- && mv behind/copy behind/passwd", "",
       "[ -L passwd ] || { " + asLink + "; }"},
  });
}

TEST_F(WaysOfChange, Way15WhatHappensBehindALinkOutOfSightIsSeenByTheStat) {
  const std::string chain =
      "[ -L passwd ] || { mkdir -p behind/0 && cp -p passwd behind/0/passwd && ln -sfn 0 behind/way && "
      "ln -sf behind/way/passwd passwd; }";
  ExpectReported(
      {{"way",
        copyWithLine + "mkdir -p behind/$name && mv copy behind/$name/passwd && ln -sfn $name behind/way", "",
        chain}},
      Passing::Whole, oftenStat);
  ExpectReported({{"removed",
                   "cp -p behind/passwd behind/copy && echo $line >>behind/copy && rm behind/passwd && "
                   "cat behind/copy >behind/passwd",
                   "", "[ -L passwd ] || { " + asLink + "; }"}},
                 Passing::Emptied, oftenStat);
}

TEST_F(WaysOfChange, Way16AMountCoversTheFile) {
  onlyTheFileWatchSees = "echo $line >>/etc/passwd";  // under the name that the covered folder does not watch
  afterwards = "while umount /etc/passwd 2>/dev/null; do true; done";
  ExpectReported({{"file", copyWithLine + "mv copy covering-$name && mount --bind covering-$name passwd"}});
  // What is uncovered is the new content.
  ExpectReported(
      {{"uncovered", "umount passwd", "echo $line >>passwd",
        "echo $line >>passwd && sed /^$name:/d passwd >covering && mount --bind covering passwd"}});
}

TEST_F(WaysOfChange, Way16AMountCoversTheFolder) {
  afterwards = "cd / && while [ -e /etc/covering ]; do umount -l /etc; done";
  const std::string cover =
      "mkdir -p /var/mail/$name && touch /var/mail/$name/covering && mv /var/mail/copy "
      "/var/mail/$name/passwd && mount --bind /var/mail/$name /etc";
  const std::string uncover = "cd / && [ -e /etc/covering ] && umount /etc";
  ExpectReported({{"folder", "cp -p /etc/passwd /var/mail/copy && echo $line >>/var/mail/copy && " + cover}});
  ExpectReported({{"uncovered", uncover, "echo $line >>/etc/passwd",
                   "echo $line >>passwd && sed /^$name:/d passwd >/var/mail/copy && " + cover}});
}

const std::string asMount =
    "grep -q ' /etc/passwd ' /proc/self/mountinfo || { mkdir -p below && cp -p passwd below && "
    "mount --bind below/passwd passwd; }";

TEST_F(WaysOfChange, Way17TheFileIsAMountAndIsWrittenInPlace) {
  onlyTheFileWatchSees = "echo $line >>below/passwd";
  afterwards = "umount passwd";
  ExpectReported({{"append", "echo $line >>passwd", "", asMount}});
  ExpectReported({{"cat", copyWithLine + "cat copy >passwd", "", asMount},
                  {"cp", copyWithLine + "cp copy passwd", "", asMount}},
                 Passing::Emptied);
}

TEST_F(WaysOfChange, Way18AFileThatIsAMountCannotBeReplacedAndNothingIsMissedAfterThat) {
  StartFresh();
  ASSERT_NO_FATAL_FAILURE(Do(asMount));
  const auto agent = Accepting(eventsAlone);
  for (const std::string& command :
       {useradd, std::string(R"(sed -i "\$a $line" passwd)"), copyWithLine + "mv copy passwd",
        copyWithLine + "install -m 644 copy passwd", std::string("rm passwd")}) {
    const ToolResult result = RunTool({"sh", "-c", "cd /etc && " + With("replaced", command)});
    EXPECT_NE(result.exitCode, 0) << command;
    EXPECT_THAT(result.output,
                AnyOf(HasSubstr("Device or resource busy"), HasSubstr("failure while writing")))
        << command;
    ExpectNothingElse(*agent);
  }
  ASSERT_NO_FATAL_FAILURE(Do(With("toor", "echo $line >>below/passwd")));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectNothingElse(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("umount passwd"));
  ExpectOrderlyEnd(*agent);
}

// What is written goes to the upper of two layers.
const std::string layers =
    "cd / && mkdir -p /var/log/upper /var/log/work && "
    "mount -t overlay overlay -o lowerdir=/etc,upperdir=/var/log/upper,workdir=/var/log/work /etc";

TEST_F(WaysOfChange, Way19ThroughTheMergedPathOfAnOverlay) {
  ASSERT_NO_FATAL_FAILURE(Do(layers));
  ExpectReported({{"useradd", useradd},
                  {"by-hand", copyWithLine + "ln -f passwd passwd- && mv copy passwd"},
                  {"sed", R"(sed -i "\$a $line" passwd)"},
                  {"append", "echo $line >>passwd"},
                  {"link", "echo $line >>link", "", "ln -f passwd link"}});
  ExpectReported(
      {{"cat", copyWithLine + "cat copy >passwd"}, {"anew", copyWithLine + "rm passwd && cat copy >passwd"}},
      Passing::Emptied);
  ASSERT_NO_FATAL_FAILURE(Do("cd / && umount /etc"));
}

// The first write gives the file another inode, and the path none of the events of a replacement.
TEST_F(WaysOfChange, Way19TheFirstWriteCopiesTheFileUp) {
  StartFresh();
  ASSERT_NO_FATAL_FAILURE(Do(layers));
  const auto agent = Accepting(eventsAlone);
  for (const char* const name : {"toor-1", "toor-2"}) {
    Append(name);
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(name));
  }
  ASSERT_NO_FATAL_FAILURE(Do(With("toor-3", onlyTheFileWatchSees)));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor-3"));
  ExpectNothingElse(*agent);
  ASSERT_NO_FATAL_FAILURE(Do("cd / && umount /etc"));
  ExpectOrderlyEnd(*agent);
}

std::array<char, PATH_MAX> otherRootFolder;

// The machine's folders under another root, whose "/etc" is a copy and no mount: it can be moved and removed.
class OtherRoot {
 public:
  explicit OtherRoot(const std::string& path) {
    Run("mkdir " + path + " && mount -t tmpfs -o mode=755 tmpfs " + path + " && mount --make-unbindable " +
        path + " && for top in /*; do if [ -L $top ]; then cp -P $top " + path +
        "; elif [ $top = /etc ]; then cp -a $top " + path + "; elif [ -d $top ]; then mkdir " + path +
        "$top && mount --rbind $top " + path + "$top || exit; fi; done");
    path.copy(otherRootFolder.data(), otherRootFolder.size() - 1);
    otherRootFolder[path.size()] = '\0';
  }
  ~OtherRoot() { RunTool({"umount", "-l", otherRootFolder.data()}); }
  OtherRoot(const OtherRoot&) = delete;
  OtherRoot& operator=(const OtherRoot&) = delete;

  static bool Enter() { return chroot(otherRootFolder.data()) == 0 && chdir("/") == 0; }

  void Do(const std::string& command) const {
    Run(std::string("cd ") + otherRootFolder.data() + " && " + command);
  }

 private:
  static void Run(const std::string& command) {
    const ToolResult result = RunTool({"sh", "-c", command});
    if (result.exitCode != 0) {
      throw std::runtime_error(command + ": " + result.output);
    }
  }
};

// The emulator looks "/" up among the target's own files: there, the events of the real one do not come, and
// the stat has to do.
constexpr bool rootIsSeen = !emulated;
const char* const eventsOfRoot = rootIsSeen ? eventsAlone : oftenStat;

TEST_F(WaysOfChange, Way20TheFolderIsRemovedAndMadeAgain) {
  const std::string filled = "cp -p etc/passwd kept && echo $line >>kept && ";
  const std::vector<Way> ways = {
      {"moved-and-made", filled + "rm -rf away && mv etc away && mkdir etc && mv kept etc/passwd"},
      {"removed-and-made", filled + "rm -r etc && mkdir etc && mv kept etc/passwd"},
      {"another", filled + "rm -rf away && mkdir new && mv kept new/passwd && mv etc away && mv new etc"},
  };
  StartFresh();
  const OtherRoot root(folder.Path("root"));
  Circumstances inside;
  inside.prepare = OtherRoot::Enter;
  const auto agent = Accepting(eventsOfRoot, inside);
  for (const Way& way : ways) {
    root.Do(With(way.name + "-1", way.command));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(way.name + "-1"));
    root.Do(With(way.name + "-1-link", "cd etc && " + onlyTheFileWatchSees));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(way.name + "-1-link"));
    root.Do(With(way.name + "-2", way.command) + " && " + With(way.name + "-3", way.command));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(way.name + "-2"));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor(way.name + "-3"));
    root.Do(With("zz-" + way.name, "echo $line >>etc/passwd"));
    EXPECT_EQ(agent->NextAlert(), AlertFor("zz-" + way.name));
  }
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way20AFolderThatIsGoneIsWaitedFor) {
  StartFresh();
  const OtherRoot root(folder.Path("root"));
  Circumstances inside;
  inside.prepare = OtherRoot::Enter;
  const auto agent = Accepting(eventsOfRoot, inside);
  root.Do("mv etc away");
  ExpectRefusedSoon(*agent);
  EXPECT_EQ(agent->NextAlert(soon), UnreadableFor("/etc/passwd cannot be opened: No such file or directory"));
  root.Do(With("elsewhere", "echo $line >>away/passwd"));  // not the account file any more
  root.Do("mkdir etc");
  if (rootIsSeen) {
    ExpectRefusedSoon(*agent);
  }
  root.Do(With("toor",
               "cp -p away/passwd etc/new && sed -i /^elsewhere:/d etc/new && echo $line >>etc/new && "
               "mv etc/new etc/passwd"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  root.Do(With("zz-last", "echo $line >>etc/passwd"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("zz-last"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way21TheFileSystemIsUnmounted) {
  StartFresh();
  const OtherRoot root(folder.Path("root"));
  Circumstances inside;
  inside.prepare = OtherRoot::Enter;
  for (const char* const unmount : {"umount etc", "umount -l etc"}) {
    root.Do("cp -p etc/passwd kept && mount -t tmpfs -o mode=755 tmpfs etc && mv kept etc/passwd");
    const auto agent = Accepting(eventsAlone, inside);
    root.Do(With("covered", "echo $line >>etc/passwd"));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("covered"));
    root.Do(unmount);
    root.Do(With("toor", "echo $line >>etc/passwd"));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
    root.Do(With("toor-link", "cd etc && " + onlyTheFileWatchSees));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor-link"));
    ExpectOrderlyEnd(*agent);
    root.Do("sed -i /^toor/d etc/passwd");
  }
}

TEST_F(WaysOfChange, Way21WhatWasBeneathTheFileSystemIsRead) {
  StartFresh();
  const OtherRoot root(folder.Path("root"));
  Circumstances inside;
  inside.prepare = OtherRoot::Enter;
  root.Do("cp -p etc/passwd kept && " + With("beneath", "echo $line >>etc/passwd") +
          " && mount -t tmpfs -o mode=755 tmpfs etc && mv kept etc/passwd");
  const auto agent = Accepting(eventsAlone, inside);
  root.Do("umount etc");
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("beneath"));
  root.Do(With("zz-last", "echo $line >>etc/passwd"));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("zz-last"));
  ExpectOrderlyEnd(*agent);
}

TEST_F(WaysOfChange, Way21ALinkIntoAFileSystemThatGoesAndComesBack) {
  StartFresh();
  ASSERT_NO_FATAL_FAILURE(
      Do("mkdir disk other && mount -t tmpfs -o mode=755 tmpfs other && cp -p passwd other && "
         "mount --bind other disk && ln -sf disk/passwd passwd"));
  for (const char* const unmount : {"umount disk", "umount -l disk"}) {
    const auto agent = Accepting(eventsAlone);
    ASSERT_NO_FATAL_FAILURE(Do(unmount));
    ExpectRefusedSoon(*agent);
    EXPECT_EQ(agent->NextAlert(soon),
              UnreadableFor("/etc/passwd cannot be opened: No such file or directory"));
    ASSERT_NO_FATAL_FAILURE(Do(With("toor", "echo $line >>other/passwd && mount --bind other disk")));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
    ASSERT_NO_FATAL_FAILURE(Do(With("behind", "echo $line >>other/passwd")));
    EXPECT_EQ(agent->NextAlert(soon), AlertFor("behind"));
    ExpectNothingElse(*agent);
    ExpectOrderlyEnd(*agent);
    ASSERT_NO_FATAL_FAILURE(
        Do("grep -v -e ^toor: -e ^behind: -e ^zz-marker- passwd >fresh && cat fresh >disk/passwd"));
  }
}

// Nothing but the link and its target is watched; the folder of a target that is gone is not.
TEST_F(WaysOfChange, Way21AFileThatAppearsOnAnEmptyFileSystemBehindALinkIsSeenByTheStat) {
  StartFresh();
  ASSERT_NO_FATAL_FAILURE(
      Do("mkdir disk && mv passwd disk && ln -s disk/passwd passwd && cp -p disk/passwd kept"));
  const auto agent = Accepting(oftenStat);
  ASSERT_NO_FATAL_FAILURE(Do("mount -t tmpfs -o mode=755 tmpfs disk"));
  ExpectRefusedSoon(*agent);
  EXPECT_EQ(agent->NextAlert(soon), UnreadableFor("/etc/passwd cannot be opened: No such file or directory"));
  ASSERT_NO_FATAL_FAILURE(Do(With("toor", "echo $line >>kept && mv kept disk/passwd")));
  EXPECT_EQ(agent->NextAlert(soon), AlertFor("toor"));
  ExpectNothingElse(*agent);
  ExpectOrderlyEnd(*agent);
}

// Each change adds one more account. Where all is slow, a tenth of them.
constexpr int changeCount = VELTA_CODE_IS_SLOW ? 200 : 2000;

std::string NumberedName(int number) {
  std::array<char, 16> name;
  std::snprintf(name.data(), name.size(), "toor%04d", number);
  return name.data();
}

class BackToBack : public AgentFixture {
 protected:
  BackToBack() : output(folder.MakeFifo("alerts")), alerts(output) {
    for (int number = 0; number < changeCount; ++number) {
      expected.push_back(NumberedName(number));
    }
    expected.emplace_back("zz-last");
  }

  std::unique_ptr<AgentProcess> Start() {
    StartFresh();
    auto agent = Watching({"--check-interval", "0", "--limit", "0", "--output", output});
    EXPECT_EQ(NextName(), "accepted");
    return agent;
  }

  void StartFresh() {
    content = rootAndAlice + RootLine("accepted") + "\n";
    etc.ReplacePasswd(content);
  }

  std::string NextName() {
    std::string alert;
    do {  // half a line may look like an account that only the cross-check reads
      alert = alerts.Next(patience);
    } while (alert.find("uncovered-root-account") != std::string::npos);
    const std::string key = R"("userName":")";
    const std::size_t begin = alert.find(key);
    return begin == std::string::npos
               ? alert
               : alert.substr(begin + key.size(), alert.find('"', begin + key.size()) - begin - key.size());
  }

  // Up to the named account's.
  std::vector<std::string> NamesUntil(const std::string& last) {
    std::vector<std::string> names;
    do {
      names.push_back(NextName());
    } while (names.back() != last && names.back().front() != '[');
    return names;
  }

  // Makes the changes back to back, while the alerts are being taken. The names of all that came, up to a
  // marker.
  std::vector<std::string> NamesFrom(const std::function<void(const std::string& line)>& change) {
    std::future<std::vector<std::string>> coming =
        std::async(std::launch::async, [this] { return NamesUntil(NumberedName(changeCount - 1)); });
    for (int number = 0; number < changeCount; ++number) {
      content += RootLine(NumberedName(number)) + "\n";
      change(RootLine(NumberedName(number)));
    }
    std::vector<std::string> names = coming.get();
    content += RootLine("zz-last") + "\n";
    etc.AppendPasswd(RootLine("zz-last"));
    for (const std::string& name : NamesUntil("zz-last")) {
      names.push_back(name);
    }
    return names;
  }

  // An account is new again when a reading saw the file without it, empty or cut short.
  void ExpectEachOnceOrAgain(const std::vector<std::string>& names) {
    std::map<std::string, int> times;
    for (const std::string& name : names) {
      ++times[name];
    }
    times.erase("accepted");
    std::vector<std::string> reported;
    for (const auto& [name, count] : times) {
      reported.push_back(name);
    }
    EXPECT_EQ(reported, expected);
    std::printf("%zu alerts for %zu accounts\n", names.size(), expected.size());
  }

  const std::string output;
  LineReader alerts;
  std::string content;
  std::vector<std::string> expected;
};

TEST_F(BackToBack, Way07TwoThousandRenamesAreAllReportedOnce) {
  const auto agent = Start();
  EXPECT_EQ(NamesFrom([this](const std::string&) { etc.ReplacePasswd(content); }), expected);
  agent->Send(SIGTERM);
  EXPECT_EQ(alerts.Rest(patience), "");
}

TEST_F(BackToBack, Way08TwoThousandLinesAppendedAreAllReportedOnce) {
  const auto agent = Start();
  EXPECT_EQ(NamesFrom([this](const std::string& line) { etc.AppendPasswd(line); }), expected);
  agent->Send(SIGTERM);
  EXPECT_EQ(alerts.Rest(patience), "");
}

TEST_F(BackToBack, Way09TwoThousandRewritingsInPlaceAreAllReported) {
  const auto agent = Start();
  ExpectEachOnceOrAgain(NamesFrom([this](const std::string&) { etc.WritePasswd(content); }));
  agent->Send(SIGTERM);
  EXPECT_EQ(alerts.Rest(patience), "");
}

TEST_F(BackToBack, Way10TwoThousandRemovalsAndNewFilesAreAllReported) {
  const auto agent = Start();
  ExpectEachOnceOrAgain(NamesFrom([this](const std::string&) {
    std::filesystem::remove("/etc/passwd");
    etc.WritePasswd(content);
  }));
  agent->Send(SIGTERM);
  EXPECT_EQ(alerts.Rest(patience), "");
}

TEST_F(BackToBack, Way07TheNextRenameComesAsSoonAsTheLastOneIsReported) {
  const auto agent = Start();
  std::vector<std::string> names;
  for (const std::string& name : expected) {
    content += RootLine(name) + "\n";
    etc.ReplacePasswd(content);
    names.push_back(NextName());
    ASSERT_EQ(names.back(), name);
  }
  agent->Send(SIGTERM);
  EXPECT_EQ(alerts.Rest(patience), "");
}

}  // namespace
