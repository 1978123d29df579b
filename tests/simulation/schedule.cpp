#include "tests/simulation/schedule.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <new>
#include <optional>
#include <random>
#include <vector>

#include "agent/account_file.h"
#include "agent/task_table.h"
#include "agent/watch_table.h"
#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "host/file_monitor.h"
#include "host/logger.h"
#include "host/send_queue.h"
#include "host/task_scheduler.h"
#include "host/utc_time.h"
#include "module/detect_user.h"
#include "tests/simulation/simulated_kernel.h"

using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

using Time = std::chrono::steady_clock::time_point;

const char* const accountNames[Content::count] = {"bob", "carol", "eve", "mallory"};
constexpr char detectionOn[] = R"({"unauthorized-root-user": {}})";

class World {
 public:
  World(std::uint64_t seed, Mistake builtIn, bool tell, Tally& total);
  ~World() { current = nullptr; }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  static World* current;

  std::string Run();

  // The agent's side, for the module.
  unsigned AddMonitor(const FileWatchRule& rule) { return watches.Add(rule, now); }
  void RemoveMonitor(const FileWatchRule& rule) { watches.Remove(rule.monitorId); }
  unsigned RegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                        void* (*function)(void*), void* arg, const std::string& name);
  void LaunchTask(unsigned id);
  void PauseTask(unsigned id);
  void UnregisterTask(unsigned id) { tasks.Unregister(id); }
  void TakeAlert(const std::string& event);
  void TellTime(std::string& out);

 private:
  enum class Step {
    Open,
    Truncate,
    WriteHalf,
    WriteWhole,
    Close,
    CloseOldUnwritten,
    HardLink,
    Rename,
    CloseFresh,
    Unlink,
    Create,
    MoveAway,
    MountCopy,
    Unmount,
    Link,
    PointElsewhere,
    MoveFolderAway,
    MakeFolder,
    ChangeMode,
    Touch,
    Others,
  };
  struct Planned {
    Step step;
    microseconds pause;  // before it
    Content content;
  };
  struct Reading {
    unsigned task;
    Time began;
    bool opened = false;
    SimulatedKernel::Inode inode = SimulatedKernel::none;
    int halvesRead = 0;
    Content seen;
  };

  bool Chance(unsigned oneIn) { return random() % oneIn == 0; }
  unsigned Below(unsigned bound) { return static_cast<unsigned>(random() % bound); }
  microseconds AnyPause();

  void PlanWay();
  void Plan(Step step, microseconds pause) { plan.push_back({step, pause, wanted}); }
  void TakeWriterStep();
  void Do(const Planned& planned);
  void NoteChange(Step step);
  microseconds PutOff() const;
  void TurnOfOthers();
  void TakeMonitorTurn();
  void TakeWorkerStep();
  void BeginReading();
  void EndReading();
  void FinishReading();
  void TakeControlStep();
  void Expect(const Content& seen);
  void Check();
  void Fail(const std::string& what);
  void Say(const char* actor, const std::string& what) const;
  std::string Text(const Content& content) const;
  bool MonitorHasWork() const;

  std::mt19937_64 random;
  const Mistake mistake;
  const bool trace;
  Tally& tally;

  Time now = Time(std::chrono::hours(24));
  const Time start = now;
  const milliseconds checkInterval;
  SimulatedKernel kernel;
  WatchTable watches;
  TaskTable tasks;
  ReadingGate gate;

  // The writer.
  Content wanted;
  std::vector<Planned> plan;
  std::size_t nextStep = 0;
  Time writerDue;
  SimulatedKernel::Inode work = SimulatedKernel::none;   // open for writing
  SimulatedKernel::Inode fresh = SimulatedKernel::none;  // the last that took the name
  int others = 0;
  bool preempting = false;
  bool unseenLink = false;
  bool refused = false;  // inotify was refused at some time
  std::optional<Content> lastVisible;
  Time lastChange;
  // A reading must have begun this long after that, or after the threads got their turn.
  Time toldSince;
  microseconds promptness{0};

  // The agent's threads.
  Time monitorNotBefore;
  Time workerNotBefore;
  Time latest;  // when all of them will have been given their turn
  std::optional<Reading> reading;
  bool timerRuns = false;
  bool busy = false;  // threads do not run as soon as they could

  // The control thread.
  std::vector<Time> controlTimes;
  bool started = false;
  bool detecting = false;
  Time refusalEnds;

  // What a plain model expects, and what came.
  Content before{{}, 0};            // what the last reading that got through has seen
  std::vector<std::string> alerts;  // of the reading that is being published
  bool failNextAlert = false;
  int failures = 0;
  bool mistakeMade = false;
  std::optional<Time> answer;  // when the first reading after the last change began
  std::optional<Content> lastSeen;
  std::string failure;
};

World* World::current = nullptr;

World::World(std::uint64_t seed, Mistake builtIn, bool tell, Tally& total)
    : random(seed),
      mistake(builtIn),
      trace(tell),
      tally(total),
      checkInterval(Chance(3) ? 0 : (Chance(2) ? 1000 : 100)),
      kernel(Chance(3) ? 2 + Below(6) : 1000, [this] { TurnOfOthers(); }),
      watches(kernel, checkInterval, now),
      lastChange(now),
      toldSince(now),
      monitorNotBefore(now),
      workerNotBefore(now),
      latest(now),
      refusalEnds(now) {
  current = this;
  if (mistake == Mistake::ForgottenRename) {
    kernel.ForgetEvents(IN_MOVED_TO);
  }
  if (mistake == Mistake::ForgottenClose) {
    kernel.ForgetEvents(IN_CLOSE_WRITE);
  }
}

void World::Say(const char* actor, const std::string& what) const {
  if (trace) {
    std::printf("%10.3f ms  %-8s %s\n", static_cast<double>((now - start).count()) / 1e6, actor,
                what.c_str());
  }
}

std::string World::Text(const Content& content) const {
  std::string text = content.halves == 0 ? "(empty)" : "";
  for (std::size_t account = 0; account < Content::count; ++account) {
    const Presence presence = content.Of(account);
    if (presence != Presence::Absent) {
      text += std::string(accountNames[account]) + (presence == Presence::Root ? ":0 " : ":1000 ");
    }
  }
  return text;
}

void World::Fail(const std::string& what) {
  if (failure.empty()) {
    failure = what;
    Say("FAILURE", what);
  }
}

microseconds World::AnyPause() {
  static constexpr std::int64_t pauses[] = {0, 0, 3, 10, 50, 300, 2000, 30000, 120000, 1500000};
  return microseconds(pauses[Below(std::size(pauses))]);
}

// --- The writer.

// One of the ways in which account files change.
void World::PlanWay() {
  for (unsigned changes = 1 + Below(2); changes > 0; --changes) {
    wanted.accounts[Below(Content::count)] = static_cast<Presence>(Below(3));
  }
  switch (Below(16)) {
    case 0:  // an account tool
      Plan(Step::CloseOldUnwritten, AnyPause());
      Plan(Step::Rename, AnyPause());
      break;
    case 1:  // an editor that keeps the old file
      Plan(Step::HardLink, AnyPause());
      Plan(Step::Rename, AnyPause());
      break;
    case 2:  // a tool that closes after it has renamed
      Plan(Step::Rename, AnyPause());
      Plan(Step::CloseFresh, AnyPause());
      break;
    case 3:
      Plan(Step::Rename, AnyPause());
      break;
    case 4:  // written anew in place
    case 5:
      Plan(Step::Open, AnyPause());
      Plan(Step::Truncate, microseconds(0));
      if (Chance(2)) {
        Plan(Step::WriteHalf, AnyPause());
      }
      Plan(Step::WriteWhole, AnyPause());
      Plan(Step::Close, AnyPause());
      break;
    case 6:  // appended, by somebody who may never close the file
    case 7:
      Plan(Step::Open, AnyPause());
      Plan(Step::WriteWhole, AnyPause());
      if (Chance(2)) {
        Plan(Step::Close, AnyPause());
      }
      break;
    case 8:  // made anew
      Plan(Step::Unlink, AnyPause());
      Plan(Step::Create, AnyPause());
      Plan(Step::WriteHalf, AnyPause());
      Plan(Step::WriteWhole, AnyPause());
      Plan(Step::Close, AnyPause());
      break;
    case 9:  // an editor that moves the old file away
      Plan(Step::MoveAway, AnyPause());
      Plan(Step::Create, AnyPause());
      Plan(Step::WriteWhole, AnyPause());
      Plan(Step::ChangeMode, AnyPause());
      Plan(Step::Close, AnyPause());
      break;
    case 10:  // covered by a mount, written there, uncovered
      Plan(Step::MountCopy, AnyPause());
      if (Chance(2)) {
        Plan(Step::Open, AnyPause());
        Plan(Step::WriteWhole, AnyPause());
        Plan(Step::Close, AnyPause());
      }
      Plan(Step::Unmount, AnyPause());
      break;
    case 11:  // a link, whose target is written, and which points elsewhere
      Plan(Step::Link, AnyPause());
      Plan(Step::Open, AnyPause());
      wanted.accounts[Below(Content::count)] = Presence::Root;
      Plan(Step::WriteWhole, AnyPause());
      Plan(Step::Close, AnyPause());
      if (checkInterval > milliseconds::zero()) {
        wanted.accounts[Below(Content::count)] = Presence::Root;
        Plan(Step::PointElsewhere, AnyPause());
      }
      break;
    case 12:  // the folder is replaced
      Plan(Step::MoveFolderAway, AnyPause());
      Plan(Step::MakeFolder, AnyPause());
      Plan(Step::Rename, AnyPause());
      break;
    case 13:  // emptied, and left so
      wanted = Content();
      Plan(Step::Open, AnyPause());
      Plan(Step::Truncate, AnyPause());
      Plan(Step::Close, AnyPause());
      break;
    case 14:  // written to without a pause that would let it settle
      if (Chance(4)) {
        Plan(Step::Open, AnyPause());
        Plan(Step::WriteWhole, AnyPause());
        for (int more = 0; more < 60; ++more) {
          Plan(Step::WriteWhole, milliseconds(60));
        }
        Plan(Step::Close, AnyPause());
        break;
      }
      [[fallthrough]];
    default:
      Plan(Step::Touch, AnyPause());
      Plan(Step::Others, AnyPause());
      Plan(Step::ChangeMode, AnyPause());
      break;
  }
}

void World::TakeWriterStep() {
  const Planned planned = plan[nextStep++];
  Do(planned);
  NoteChange(planned.step);
  if (nextStep < plan.size()) {
    writerDue = now + plan[nextStep].pause;
  }
}

void World::Do(const Planned& planned) {
  constexpr SimulatedKernel::Inode none = SimulatedKernel::none;
  switch (planned.step) {
    case Step::Open:
      work = kernel.Resolve();
      if (work != none) {
        kernel.OpenToWrite(work);
      }
      break;
    case Step::Truncate:
    case Step::WriteHalf:
    case Step::WriteWhole:
      if (work != none) {
        Content content = planned.content;
        content.halves =
            planned.step == Step::Truncate ? 0 : (planned.step == Step::WriteHalf ? 1 : Content::whole);
        kernel.Write(work, content);
      }
      break;
    case Step::Close:
      if (work != none) {
        kernel.Close(work);
        work = none;
      }
      break;
    case Step::CloseOldUnwritten:
      kernel.Change(kernel.Resolve(), IN_CLOSE_WRITE);
      break;
    case Step::HardLink:
      kernel.HardLink();
      break;
    case Step::Rename:
      fresh = kernel.MakeElsewhere(planned.content);
      kernel.RenameOver(fresh);
      break;
    case Step::CloseFresh:
      kernel.Change(fresh, IN_CLOSE_WRITE);
      break;
    case Step::Unlink:
      kernel.Unlink();
      break;
    case Step::Create:
      work = kernel.Create();
      if (work != none) {
        kernel.OpenToWrite(work);
      }
      break;
    case Step::MoveAway:
      kernel.MoveAway();
      break;
    case Step::MountCopy:
      kernel.Mount(kernel.MakeElsewhere(planned.content));
      break;
    case Step::Unmount:
      kernel.Unmount();
      break;
    case Step::Link:
      kernel.LinkTo(kernel.MakeElsewhere(planned.content));
      break;
    case Step::PointElsewhere:
      kernel.PointLinkTo(kernel.MakeElsewhere(planned.content));
      break;
    case Step::MoveFolderAway:
      kernel.MoveFolderAway();
      break;
    case Step::MakeFolder:
      kernel.MakeFolder();
      break;
    case Step::ChangeMode:
      kernel.Change(kernel.Resolve(), IN_ATTRIB);
      break;
    case Step::Touch:
      kernel.Change(kernel.Resolve(), IN_ATTRIB);
      kernel.Change(kernel.Resolve(), IN_CLOSE_WRITE);
      break;
    case Step::Others:
      for (unsigned count = Below(12); count > 0; --count) {
        kernel.TouchOther(++others);
      }
      break;
  }
}

void World::NoteChange(Step step) {
  std::optional<Content> visible;
  if (kernel.Resolve() != SimulatedKernel::none) {
    visible = kernel.Of(kernel.Resolve());
  }
  Say("writer",
      "step " + std::to_string(static_cast<int>(step)) + ": " + (visible ? Text(*visible) : "(missing)"));
  if (step == Step::PointElsewhere) {
    unseenLink = true;
    toldSince = now;  // what waits to be told of the old target counts no more
    promptness = checkInterval + Settling::longest;
  }
  if (step == Step::Close && visible && visible->halves > 0 && !unseenLink && now < toldSince + promptness) {
    toldSince = now;  // the writer is done
    promptness = microseconds(0);
  }
  if (visible.has_value() == lastVisible.has_value() && (!visible || *visible == *lastVisible)) {
    return;
  }
  lastVisible = visible;
  lastChange = now;
  answer.reset();
  ++tally.changes;
  promptness = microseconds(0);
  switch (step) {
    case Step::Rename:
    case Step::Link:
    case Step::MountCopy:
    case Step::Unmount:
      break;
    default:
      promptness = Settling::longest;
  }
  if (unseenLink) {  // no event tells of it, nor of what is written behind it: a stat does
    promptness = std::max(promptness, microseconds(checkInterval + Settling::longest));
  }
  promptness += PutOff();
  toldSince = now;
}

// How long the reading of an empty file may wait.
microseconds World::PutOff() const {
  const bool empty = kernel.Resolve() != SimulatedKernel::none && kernel.Of(kernel.Resolve()).halves == 0;
  return empty ? ReadingGate::longestChange + TaskTable::putOffWait : milliseconds(0);
}

// Between two answers of the kernel, time passes and the writer may be at work.
void World::TurnOfOthers() {
  now += microseconds(Below(20));
  if (!preempting && nextStep < plan.size() && writerDue <= now) {
    preempting = true;
    TakeWriterStep();
    preempting = false;
  }
}

// --- The monitor's thread: what FileMonitor does between two waits.

bool World::MonitorHasWork() const {
  const std::optional<Time> due = watches.NextDue();
  return kernel.HasEvents() || kernel.HasMountNotice() || (due && *due <= now);
}

void World::TakeMonitorTurn() {
  const Time woke = now;
  const bool hadEvents = kernel.HasEvents() || kernel.HasMountNotice();
  for (const InotifyEvent& event : kernel.Read(1 + Below(8))) {
    Say("monitor", "event " + std::to_string(event.mask) + " of watch " + std::to_string(event.watch));
    watches.Handle(event, woke);
  }
  if (kernel.TakeMountNotice()) {
    watches.StartOver(woke);
  }
  watches.Advance(woke);
  bool reported = false;
  while (const std::optional<WatchTable::Due> due = watches.Begin(woke)) {
    Say("monitor", "reports");
    reported = true;
    TurnOfOthers();
    (*due->callback)(0, due->path.c_str(), "", false, 0, std::string());
  }
  const std::optional<Time> due = watches.NextDue();
  if (due && *due <= woke) {
    Fail("the monitor is still due after its turn: it would never sleep");
  }
  if (!hadEvents && !reported && due && *due <= now && *due <= woke) {
    Fail("the monitor woke for nothing");
  }
}

// --- The worker's thread: what TaskScheduler does with the collector's task, in steps.

void World::BeginReading() {
  const unsigned id = tasks.Begin(now);
  if (id == 0) {
    return;
  }
  if (!started) {
    Fail("a reading begins while the module is stopped");
  }
  const std::string path = accountFilePath;
  const std::optional<FileStatus> status = kernel.Look(path);
  const TaskScheduler::Permission permission = gate.Ask(path, {status, status ? 0 : ENOENT}, now);
  if (permission.answer != TaskScheduler::Permission::Answer::Yes) {
    Say("worker", "puts off");
    tasks.End(id,
              permission.answer == TaskScheduler::Permission::Answer::No ? TaskTable::Outcome::Failed
                                                                         : TaskTable::Outcome::PutOff,
              now, now);
    return;
  }
  reading = Reading();
  reading->task = id;
  reading->began = now;
}

void World::TakeWorkerStep() {
  if (!reading) {
    BeginReading();
  } else if (!reading->opened) {
    reading->opened = true;
    reading->inode = kernel.Resolve();
    reading->seen.halves = 0;
    if (!answer) {
      answer = now;
    }
    ++tally.readings;
  } else if (reading->inode != SimulatedKernel::none && reading->halvesRead < Content::whole) {
    // What is read of a half is what stands there at that moment.
    const Content& content = kernel.Of(reading->inode);
    if (content.halves <= reading->halvesRead) {
      EndReading();  // the end of the file
      return;
    }
    for (std::size_t account = 0; account < Content::count; ++account) {
      if (Content::InFirstHalf(account) == (reading->halvesRead == 0)) {
        reading->seen.accounts[account] = content.accounts[account];
      }
    }
    reading->seen.halves = ++reading->halvesRead;
  } else {
    EndReading();
  }
}

void World::EndReading() {
  const Reading done = *reading;
  bool failed = false;
  if (done.inode == SimulatedKernel::none) {
    Say("worker", "finds no file");
    lastSeen.reset();
  } else {
    Say("worker", "read " + Text(done.seen));
    std::vector<PasswdInfo> snapshot;
    const auto add = [&snapshot](const std::string& name, std::uint32_t uid) {
      PasswdInfo account = PasswdInfo();
      account.userName = name;
      account.uid = uid;
      snapshot.push_back(account);
    };
    if (done.seen.halves > 0) {
      add("root", 0);
    }
    for (std::size_t account = 0; account < Content::count; ++account) {
      if (done.seen.Of(account) != Presence::Absent) {
        add(accountNames[account], done.seen.Of(account) == Presence::Root ? 0 : 1000);
      }
    }
    alerts.clear();
    // An event may fail to be built: the next reading must make up for it.
    failNextAlert = failures < 2 && Chance(20);
    try {
      MessageBus::Publish<const std::vector<PasswdInfo>&>("detect_user", snapshot);
    } catch (const std::bad_alloc&) {
      failed = true;
      ++failures;
      Say("worker", "fails");
    }
    failNextAlert = false;
    if (!failed && detecting) {
      lastSeen = done.seen;
      Expect(done.seen);
    }
  }
  reading.reset();
  tasks.End(done.task, failed ? TaskTable::Outcome::Failed : TaskTable::Outcome::Done, done.began, now);
}

void World::FinishReading() {
  while (reading) {
    TurnOfOthers();
    TakeWorkerStep();
  }
}

// The plain model. Accounts that changed come before those that are new; each kind in the order of its names.
void World::Expect(const Content& seen) {
  std::vector<std::string> expected;
  for (const Presence earlier : {Presence::Ordinary, Presence::Absent}) {
    for (std::size_t account = 0; account < Content::count; ++account) {
      if (seen.Of(account) == Presence::Root && before.Of(account) == earlier) {
        expected.push_back(accountNames[account]);
      }
    }
  }
  before = seen;
  tally.alerts += alerts.size();
  if (alerts != expected) {
    const auto list = [](const std::vector<std::string>& names) {
      std::string text;
      for (const std::string& name : names) {
        text += (text.empty() ? "" : " ") + name;
      }
      return "[" + text + "]";
    };
    Fail("a reading of [" + Text(seen) + "] reported " + list(alerts) + " and not " + list(expected));
  }
}

// --- The agent's services.

unsigned World::RegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                             void* (*function)(void*), void* arg, const std::string& name) {
  condition.enabled = condition.enabled && timerRuns;
  return tasks.Register(type, condition, function, arg, name, now);
}

void World::LaunchTask(unsigned id) {
  if (mistake == Mistake::LaunchLostInRun && tasks.IsRunning(id)) {
    return;
  }
  tasks.Launch(id, now);
}

void World::PauseTask(unsigned id) {
  if (mistake == Mistake::LaunchLostInPause) {
    return;
  }
  tasks.Pause(id);
  detecting = false;  // a module that stops ends its detection first
  FinishReading();
}

void World::TakeAlert(const std::string& event) {
  static const std::string key = R"("userName":")";
  const std::size_t begin = event.find(key) + key.size();
  const std::string name = event.substr(begin, event.find('"', begin) - begin);
  Say("alert", name);
  if (name == "root") {
    Fail("an alert about root");
  }
  if (!mistakeMade && (mistake == Mistake::AlertLost || mistake == Mistake::AlertTwice)) {
    mistakeMade = true;
    if (mistake == Mistake::AlertLost) {
      return;
    }
    alerts.push_back(name);
  }
  alerts.push_back(name);
}

void World::TellTime(std::string& out) {
  if (failNextAlert) {
    failNextAlert = false;
    throw std::bad_alloc();
  }
  out = "2000-01-01 00:00:00";
}

// --- The control thread.

void World::TakeControlStep() {
  controlTimes.erase(controlTimes.begin());
  if (started && !controlTimes.empty()) {
    Say("control", "stops");
    StopModule();
    if (reading) {
      Fail("a task was still running when the module had stopped");
    }
    started = false;
    ++tally.stops;
    return;
  }
  Say("control", "starts");
  started = false;  // a start stops first
  StartModule(detectionOn);
  started = true;
  detecting = true;
  tasks.LaunchAll(now);
  lastChange = now;
  toldSince = now;
  promptness = PutOff();
  answer.reset();
}

// --- All together.

std::string World::Run() {
  if (Chance(8)) {
    refused = true;
    kernel.Refuse(Chance(2) ? EMFILE : 0, Chance(2) ? ENOSPC : 0);
    refusalEnds = now + milliseconds(Below(4000));
  }
  timerRuns = Chance(2);
  busy = Chance(2);
  kernel.Open();
  StartModule(detectionOn);
  started = true;
  detecting = true;
  MessageBus::Publish<const std::vector<PasswdInfo>&>("detect_user", {});  // no baseline of another schedule
  tasks.LaunchAll(now);
  lastVisible = kernel.Of(kernel.Resolve());

  for (unsigned ways = 1 + Below(4); ways > 0; --ways) {
    PlanWay();
  }
  writerDue = now + plan.front().pause;
  if (Chance(4)) {
    Time when = now;
    for (unsigned steps = 2 + 2 * Below(2); steps > 0; --steps) {
      when += AnyPause();
      controlTimes.push_back(when);  // ends with a start
    }
  }

  constexpr Time never = Time::max();
  std::optional<Time> end;
  while (failure.empty()) {
    const bool writing = nextStep < plan.size();
    if (!end && !writing && controlTimes.empty()) {
      // Long enough for whatever is settled, put off or polled.
      end = std::max(now, latest) + milliseconds(6000);
    }
    if (refused && now >= refusalEnds && refusalEnds != never) {
      kernel.Refuse(0, 0);
      refusalEnds = never;
    }
    const bool monitorReady = MonitorHasWork();
    const std::optional<Time> taskDue = tasks.NextDue();
    const bool workerReady = reading || (taskDue && *taskDue <= now);

    // Threads are kept waiting now and then, as by a busy machine.
    if (busy && writing && Chance(6)) {
      Time& notBefore = Chance(2) ? monitorNotBefore : workerNotBefore;
      notBefore = now + (Chance(10) ? microseconds(500000) : microseconds(Below(3000)));
      latest = std::max(latest, notBefore);
    }
    enum class Actor { Writer, Monitor, Worker, Control };
    Actor ready[4];
    unsigned count = 0;
    if (writing && writerDue <= now) {
      ready[count++] = Actor::Writer;
    }
    if (monitorReady && monitorNotBefore <= now) {
      ready[count++] = Actor::Monitor;
    }
    if (workerReady && workerNotBefore <= now) {
      ready[count++] = Actor::Worker;
    }
    if (!controlTimes.empty() && controlTimes.front() <= now) {
      ready[count++] = Actor::Control;
    }
    if (count == 0) {
      Time next = end ? *end : never;
      const auto consider = [&next](Time time) { next = std::min(next, time); };
      if (writing) {
        consider(writerDue);
      }
      if (!controlTimes.empty()) {
        consider(controlTimes.front());
      }
      if (monitorReady) {
        consider(monitorNotBefore);
      } else if (const auto due = watches.NextDue()) {
        consider(std::max(*due, monitorNotBefore));
      }
      if (workerReady) {
        consider(workerNotBefore);
      } else if (taskDue) {
        consider(std::max(*taskDue, workerNotBefore));
      }
      if (end && next >= *end) {
        break;
      }
      now = std::max(now, next);
      continue;
    }
    switch (ready[Below(count)]) {
      case Actor::Writer:
        TakeWriterStep();
        break;
      case Actor::Monitor:
        TakeMonitorTurn();
        break;
      case Actor::Worker:
        TakeWorkerStep();
        break;
      case Actor::Control:
        TakeControlStep();
        break;
    }
    now += microseconds(1 + Below(10));
  }
  Check();
  started = true;  // whatever went wrong: the last reading may end
  StopModule();
  tally.overflows += kernel.Overflows();
  return failure;
}

void World::Check() {
  if (!failure.empty()) {
    return;
  }
  // Where inotify was refused, files are polled until it is asked again.
  const microseconds polling =
      refused ? microseconds(WatchTable::pollInterval + Settling::longest) : microseconds(0);
  const Time limit = std::max(toldSince, latest) + promptness + polling + milliseconds(20);
  if (!answer) {
    Fail("no reading began after the last change");
    return;
  }
  if (*answer > limit) {
    Fail("the reading after the last change began " +
         std::to_string(std::chrono::duration_cast<milliseconds>(*answer - limit).count()) + " ms late");
  }
  const bool visible = kernel.Resolve() != SimulatedKernel::none;
  if (visible && !lastSeen) {
    Fail("the last reading found no file");
  } else if (visible && !(*lastSeen == kernel.Of(kernel.Resolve()))) {
    Fail("the last reading saw [" + Text(*lastSeen) + "] and not [" + Text(kernel.Of(kernel.Resolve())) +
         "]");
  }
}

}  // namespace

std::string RunSchedule(std::uint64_t seed, Mistake mistake, bool trace, Tally& tally) {
  World world(seed, mistake, trace, tally);
  return world.Run();
}

// The fence, as far as the module needs it here; JSON and strings are the agent's own.

void LoggerWriteLog(OrvakAgentDotLogType, unsigned, unsigned, const char*, int, int, const char*, ...) {}

void WriteStartupLog(const char*, ...) {}

unsigned UtilsRegisterTask(utils::thread::TASKTYPE type, utils::thread::TASK_CONDITION condition,
                           void* (*function)(void*), void* arg, const std::string& name) {
  return World::current->RegisterTask(type, condition, function, arg, name);
}

void UtilsPauseAndWaitForEnd(unsigned id) { World::current->PauseTask(id); }

void UtilsUnregisterTask(unsigned id) { World::current->UnregisterTask(id); }

void UtilsMakeTaskLaunch(unsigned id) { World::current->LaunchTask(id); }

unsigned AddMonitor(const FileWatchRule& rule, MonitorType) { return World::current->AddMonitor(rule); }

void RemoveMonitor(const FileWatchRule& rule, MonitorType) { World::current->RemoveMonitor(rule); }

void PushMinuteLimitEventToSendQueue(const std::string& event) { World::current->TakeAlert(event); }

void UtilsGetUtcTime(std::string& out) { World::current->TellTime(out); }
