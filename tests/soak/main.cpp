#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/soak/account_changes.h"
#include "tests/soak/history.h"
#include "tests/soak/observed_agent.h"
#include "tests/soak/soak_random.h"
#include "tests/soak/soak_report.h"
#include "tests/support/temporary_folder.h"
#include "tests/system/private_etc.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr char usage[] =
    R"(usage: velta_soak [--seconds N] [--seed N] [--bound MS] [AGENT]

Changes a private copy of /etc/passwd in every way that account files change, while the agent is stopped,
killed, made to reload and kept from writing, and compares its alerts with the history of the file.

  --seconds N  how long (60)
  --seed N     makes the same choices as the run that printed this seed
  --bound MS   how soon an account that stays has to be alerted (2500)

Exit codes: 0 nothing missing, invented or repeated; 1 otherwise, or it could not run; 2 usage.
)";

struct SoakOptions {
  seconds length{60};
  std::uint64_t seed = 0;
  milliseconds bound{2500};
  std::string agent = VELTA_AGENT_FILE;
};

SoakTime Now() { return SoakTime::clock::now(); }

// Only a broken build ever reaches it.
constexpr seconds patience(sizeof(VELTA_EMULATOR) > 1 ? 60 : 20);

// After the disk is free again or the pipe is read again: the agent tries a second apart.
constexpr milliseconds outputRetry{1300};

// Empty in place of the machine's own; gone with this process's mount namespace.
void CoverFolder(const char* folder, const char* options) {
  if (mount("tmpfs", folder, "tmpfs", 0, options) != 0) {
    throw std::runtime_error(std::string("cannot cover ") + folder);
  }
}

class Soak {
 public:
  explicit Soak(const SoakOptions& soakOptions)
      : options(soakOptions),
        origin(Now()),
        random(soakOptions.seed),
        changes(random, [this](const VisibleState& state) {
          segment.Add(state);
          ++report.states;
        }) {
    CoverFolder("/var/log", "mode=755");  // the account tools keep books outside "/etc", too
    CoverFolder("/var/mail", "mode=755");
  }
  ~Soak() { umount2(disk.Path().c_str(), MNT_DETACH); }
  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  const SoakReport& Run() {
    SoakTime progress = origin + seconds(10);
    const SoakTime end = origin + options.length;
    Begin();
    while (Now() < end) {
      Act();
      if (Now() >= progress) {
        progress += seconds(10);
        std::cout << std::chrono::duration_cast<seconds>(Now() - origin).count() << " s: " << report.Changes()
                  << " changes, " << report.alerts << " alerts, " << report.lives << " lives, "
                  << report.missing << " missing, " << report.invented << " invented, " << report.repeated
                  << " repeated" << std::endl;
      }
    }
    if (Check()) {
      EndInOrder();
    }
    return report;
  }

 private:
  // One life.

  void Begin() {
    std::vector<std::string> command;
    std::istringstream emulator(VELTA_EMULATOR);
    for (std::string word; emulator >> word;) {
      command.push_back(word);
    }
    command.insert(command.end(), {options.agent, "--limit", "0"});
    toFile = random.Chance(50);
    if (toFile) {
      umount2(disk.Path().c_str(), MNT_DETACH);
      CoverFolder(disk.Path().c_str(), "size=1m,mode=755");
      command.insert(command.end(), {"--output", disk.Path("alerts")});
    }
    if (random.Chance(50)) {
      command.insert(command.end(), {"--check-interval", "0"});  // events alone have to do
    }
    segment = Segment();
    segment.Add(changes.Current());
    delays = {{Now(), SoakTime::max()}};
    agent = std::make_unique<ObservedAgent>(command, toFile ? disk.Path("alerts") : "");
    ++report.lives;
    starting = true;
    if (random.Chance(50)) {
      AwaitStart();
    }
  }

  void AwaitStart() {
    if (!starting) {
      return;
    }
    starting = false;
    const bool watching = agent->WaitUntilWatching(patience);
    delays.front().to = Now();
    if (!watching) {
      Wrong("the agent did not start to watch");
      ++report.wrongEnds;
    }
  }

  // What happened up to here is judged, and what the agent wrote is final.
  void Close(bool lastWasRead) {
    segment.end = Now();
    segment.lastWasRead = lastWasRead;
    segment.alerts = agent->TakeAlerts();
    segment.delays = delays;
    report.alerts += segment.alerts.size();
    ++report.checks;
    const Verdict verdict = Judge(segment, options.bound, origin);
    report.repeatsAfterBegun += verdict.repeatsAfterBegun;
    report.repeatsAfterEmpty += verdict.repeatsAfterEmpty;
    report.alertsOfMixtures += verdict.alertsOfMixtures;
    for (const Finding& finding : verdict.findings) {
      switch (finding.kind) {
        case Finding::Kind::Missing:
          ++report.missing;
          Wrong("missing, or too late: " + finding.name + "\n" + finding.text);
          break;
        case Finding::Kind::Invented:
          ++report.invented;
          Wrong("invented: " + finding.name + "\n" + finding.text);
          break;
        case Finding::Kind::Repeated:
          ++report.repeated;
          Wrong("repeated: " + finding.name + "\n" + finding.text);
          break;
      }
    }
    for (const std::string& fault : agent->TakeFaults()) {
      ++report.brokenRecords;
      Wrong("not a whole record: " + fault);
    }
    TakeLatencies();
    before = std::move(segment);
  }

  void TakeLatencies() {
    for (const AccountChanges::Change& change : timed) {
      const auto found =
          std::find_if(segment.alerts.begin(), segment.alerts.end(),
                       [&change](const SoakAlert& alert) { return alert.account.name == change.added; });
      if (found == segment.alerts.end() ||
          Undelayed(change.begin, found->at, delays) != found->at - change.begin ||
          WasAwayBetween(change, found->at)) {
        continue;
      }
      const std::chrono::duration<double, std::milli> latency = found->at - change.end;
      report.ways[change.way].latencies.push_back(std::max(latency.count(), 0.0));
    }
    timed.clear();
  }

  // Then the alert may be for another appearance of the account.
  bool WasAwayBetween(const AccountChanges::Change& change, SoakTime alerted) const {
    return std::any_of(segment.states.begin(), segment.states.end(), [&](const VisibleState& state) {
      return state.earliest >= change.end && state.earliest < alerted && state.roots.count(change.added) == 0;
    });
  }

  bool AwaitMarker() {
    const AccountChanges::Change marker = changes.AddMarker();
    ++report.ways[marker.way].count;
    timed.push_back(marker);
    return agent->WaitForAlert(marker.added, marker.begin, patience);
  }

  // Lets the agent catch up, and judges. False when it did not.
  bool Check() {
    AwaitStart();
    bool read = AwaitMarker();
    if (read && LastMayBeMixed(segment, options.bound, Now())) {
      // That reading is over; one that finds another marker has begun after it, and sees nothing older.
      ++report.secondMarkers;
      read = AwaitMarker();
    }
    Close(read);
    if (!read) {
      if (agent->HasEnded()) {
        Wrong("the agent ended by itself");
        ++report.wrongEnds;
      }
      agent->Kill();
      Begin();
      return false;
    }
    segment = Segment();
    segment.firstOfLife = false;
    segment.Add(changes.Current());
    delays.clear();
    return true;
  }

  void Kill() {
    starting = false;
    agent->Send(SIGKILL);
    const SoakTime killed = Now();
    agent->Kill();
    for (Delay& delay : delays) {
      delay.to = std::min(delay.to, killed);
    }
    ++report.kills;
    Close(false);
  }

  void EndInOrder() {
    const bool inOrder = agent->Terminate(patience);
    ++report.orderlyEnds;
    Close(false);
    if (!inOrder) {
      Wrong("the agent did not end in order after SIGTERM");
      ++report.wrongEnds;
    }
  }

  void Wrong(const std::string& what) {
    constexpr unsigned mostShown = 5;
    if (++shown <= mostShown) {
      std::cout << "ERROR (seed " << options.seed << ") at "
                << std::chrono::duration_cast<milliseconds>(Now() - origin).count() << " ms: " << what
                << "\n all of it:\n"
                << Described(before, origin) << Described(segment, origin) << " the agent's log:\n"
                << agent->LogTail() << std::endl;
    }
  }

  // What is done to the file and to the agent.

  AccountChanges::Change Change() {
    AccountChanges::Change change = changes.Make();
    ++report.ways[change.way].count;
    if (!change.added.empty()) {
      timed.push_back(change);
    }
    return change;
  }

  // Changes one after the other.
  AccountChanges::Change Burst() {
    const bool pauses = random.Chance(60);
    AccountChanges::Change last;
    for (std::size_t count = 1 + random.Below(random.Chance(20) ? 25 : 6); count > 0; --count) {
      last = Change();
      if (pauses && count > 1) {
        random.Pause();
      }
    }
    return last;
  }

  // No other change happens before this one had to be alerted.
  void AwaitAlert(const AccountChanges::Change& change) {
    if (!change.added.empty()) {
      AwaitStart();
      agent->WaitForAlert(change.added, change.begin, options.bound + milliseconds(200));
    }
  }

  // A change that only its own events can tell of: what the ones before it put off is over.
  void ChangeAlone() {
    SoakRandom::Sleep(200);
    AwaitAlert(Change());
  }

  void Act() {
    const std::size_t beginning = random.Below(100);
    if (beginning < 25) {
      ChangeAlone();
    } else {
      const AccountChanges::Change last = Burst();
      if (beginning < 65) {
        AwaitAlert(last);
      } else if (beginning < 67) {  // an absence is read in it, too
        SoakRandom::Sleep(static_cast<std::size_t>(options.bound.count()) + 200);
      }
    }
    const std::size_t choice = random.Below(100);
    if (choice < 25) {
      Check();
    } else if (choice < 32) {
      AwaitStart();  // a signal before it waits for them ends it
      agent->Send(SIGHUP);
      ++report.reloads;
    } else if (choice < 39) {
      Stop();
    } else if (choice < 44) {
      toFile ? FillDisk() : BlockPipe();
    } else if (choice < 49) {
      Kill();
      Begin();
    } else if (choice < 50) {
      AwaitStart();
      EndInOrder();
      Begin();
    }
  }

  void Stop() {
    AwaitStart();
    agent->Send(SIGSTOP);
    delays.push_back({Now(), SoakTime::max()});
    ++report.stops;
    const bool flood = random.Chance(30);
    AccountChanges::Change last;
    if (!flood || random.Chance(30)) {
      last = Burst();
    }
    if (flood) {  // nothing that comes after it is told, and perhaps nothing before it asks for a reading
      Flood();
      do {
        last = Change();
      } while (last.added.empty() || changes.Current().roots.count(last.added) == 0);
    }
    random.Pause();
    if (random.Chance(10)) {
      Kill();
      Begin();
      return;
    }
    agent->Send(SIGCONT);
    delays.back().to = Now();
    if (flood || random.Chance(50)) {
      AwaitAlert(last);
    }
  }

  // More events than the kernel keeps for one that does not take them.
  void Flood() {
    constexpr char file[] = "/etc/soak-flood";
    constexpr unsigned rounds = 8500;  // of two events each
    for (unsigned round = 0; round < rounds; ++round) {
      if (mkdir(file, 0700) != 0 || rmdir(file) != 0) {
        throw std::runtime_error("no flood of events");
      }
    }
    ++report.floods;
  }

  void FillDisk() {
    AwaitStart();
    delays.push_back({Now(), SoakTime::max()});
    ++report.fullDisks;
    const std::string ballast = disk.Path("ballast");
    const int file = open(ballast.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string piece(random.Chance(50) ? 4096 : 1 + random.Below(4000), 'x');
    while (file >= 0 && write(file, piece.data(), piece.size()) > 0) {
    }
    close(file);
    WhileBlocked([&ballast] { unlink(ballast.c_str()); });
  }

  void BlockPipe() {
    AwaitStart();
    delays.push_back({Now(), SoakTime::max()});
    ++report.blockedPipes;
    agent->StopTaking();
    WhileBlocked([this] { agent->TakeAgain(); });
  }

  template <typename Release>
  void WhileBlocked(Release release) {
    for (std::size_t bursts = 1 + random.Below(8); bursts > 0; --bursts) {
      Burst();
      random.Pause();
    }
    if (random.Chance(30)) {
      SoakRandom::Sleep(random.Below(1500));
    }
    if (random.Chance(15)) {
      Kill();
      Begin();
      return;
    }
    release();
    delays.back().to = Now() + outputRetry;
  }

  const SoakOptions options;
  const SoakTime origin;
  SoakRandom random;
  PrivateEtc etc;
  TemporaryFolder disk;
  SoakReport report;
  Segment segment;
  Segment before;  // the one that was judged last
  std::vector<Delay> delays;
  std::vector<AccountChanges::Change> timed;
  AccountChanges changes;
  std::unique_ptr<ObservedAgent> agent;
  bool toFile = false;
  bool starting = false;
  unsigned shown = 0;
};

std::uint64_t NumberOf(const std::string& text) {
  if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
    throw std::invalid_argument("not a number: " + text);
  }
  return std::stoull(text);
}

SoakOptions OptionsOf(int argc, char** argv) {
  SoakOptions options;
  std::random_device device;
  options.seed = device();
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const std::string value = i + 1 < argc ? argv[i + 1] : "";
    if (word == "--seconds") {
      options.length = seconds(NumberOf(value));
    } else if (word == "--seed") {
      options.seed = NumberOf(value);
    } else if (word == "--bound") {
      options.bound = milliseconds(NumberOf(value));
    } else if (word.rfind("--", 0) == 0) {
      throw std::invalid_argument("unknown option: " + word);
    } else {
      options.agent = word;
      continue;
    }
    ++i;
  }
  return options;
}

// Every wait of the driver has a limit; this is for a call that never returns.
void LimitLife(seconds length) {
  signal(SIGALRM, [](int) {
    constexpr char text[] = "the run hangs\n";
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text, sizeof(text) - 1);
    _exit(1);
  });
  alarm(static_cast<unsigned>((length + 3 * patience + seconds(20)).count()));
}

}  // namespace

int main(int argc, char** argv) {
  SoakOptions options;
  try {
    options = OptionsOf(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n" << usage;
    return 2;
  }
  std::cout << "seed " << options.seed << ", " << options.length.count() << " s" << std::endl;
  LimitLife(options.length);
  try {
    Soak soak(options);
    const SoakReport& report = soak.Run();
    std::cout << report << "seed " << options.seed << std::endl;
    return report.IsClean() ? 0 : 1;
  } catch (const std::exception& error) {
    std::cout << "the run cannot go on (seed " << options.seed << "): " << error.what() << std::endl;
    return 1;
  }
}
