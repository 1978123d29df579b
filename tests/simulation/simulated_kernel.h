#ifndef VELTA_TESTS_SIMULATION_SIMULATED_KERNEL_H
#define VELTA_TESTS_SIMULATION_SIMULATED_KERNEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/watch_table.h"

enum class Presence : std::uint8_t { Absent, Ordinary, Root };

// What an account file says: of each account, and how many of its two halves have been written. The account
// "root" stands in the first half of all of them.
struct Content {
  static constexpr std::size_t count = 4;
  static constexpr int whole = 2;

  std::array<Presence, count> accounts{};
  int halves = whole;

  static bool InFirstHalf(std::size_t account) { return account < count / 2; }
  Presence Of(std::size_t account) const {
    return (InFirstHalf(account) ? halves > 0 : halves == whole) ? accounts[account] : Presence::Absent;
  }
  bool operator==(const Content& other) const;
};

// The part of a kernel that matters to whoever watches one file, "/etc/passwd": inodes, the ways that lead to
// them, and inotify as it behaves: which watch hears of what, equal events in a row as one, a queue that
// overflows. No time and no threads; before each answer to the watcher it lets somebody else have a turn.
//
// Also made for mistakes: it can forget an event, to see whether that is noticed.
class SimulatedKernel : public WatchedSystem {
 public:
  using Inode = int;
  static constexpr Inode none = -1;

  SimulatedKernel(std::size_t queueLength, std::function<void()> turnOfOthers);

  // What a watcher asks.
  bool Open() override;
  int OpenError() const override { return openError; }
  int Add(const std::string& path, std::uint32_t mask) override;
  void Remove(int watch) override;
  std::optional<FileStatus> Look(const std::string& path) override;
  void Tell(LogLevel, const std::string&) override {}
  std::vector<InotifyEvent> Read(std::size_t most);
  bool HasEvents() const { return !queue.empty(); }
  bool TakeMountNotice();
  bool HasMountNotice() const { return mountNotice; }

  // What inotify answers from now on to whoever opens it or adds a watch; 0 ends that.
  void Refuse(int toOpen, int toAdd);
  void ForgetEvents(std::uint32_t mask) { forgotten = mask; }
  std::size_t Overflows() const { return overflows; }

  // What a reader does.
  Inode Resolve() const;  // "/etc/passwd"
  const Content& Of(Inode inode) const { return inodes[Index(inode)].content; }

  // What a writer does. An inode that is `none` makes it nothing.
  Inode MakeElsewhere(const Content& content);
  void RenameOver(Inode fresh);
  void LinkTo(Inode target);  // replaces the name by a symbolic link
  void PointLinkTo(Inode target);
  bool IsLink() const { return isLink; }
  void HardLink();
  void Unlink();
  Inode Create();
  Inode MoveAway();
  void OpenToWrite(Inode inode);
  void Write(Inode inode, const Content& content);
  void Close(Inode inode);                        // after writing
  void Change(Inode inode, std::uint32_t event);  // ATTRIB, or CLOSE_WRITE without a write
  void Mount(Inode inode);
  void Unmount();
  void MoveFolderAway();
  void MakeFolder();
  bool HasFolder() const { return folder != none; }
  void TouchOther(int name);  // another entry of the folder comes

 private:
  struct Node {
    Content content;
    int links = 1;
    int writers = 0;
    std::uint32_t version = 0;
    int watch = -1;
    std::uint32_t mask = 0;
    bool gone = false;
  };

  static std::size_t Index(Inode inode) { return static_cast<std::size_t>(inode); }
  Inode NewNode(const Content& content);
  Inode Named() const { return folder == none ? none : entry; }
  Inode ResolvePath(const std::string& path) const;
  void Tell(Inode inode, std::uint32_t event, const std::string& name = "");
  void TellOfName(Inode inode, std::uint32_t event);
  void Push(InotifyEvent event);
  void DropLink(Inode inode);
  void EndIfUnused(Inode inode);
  void EndWatch(Inode inode);

  std::size_t longestQueue;
  std::function<void()> others;
  std::vector<Node> inodes;
  Inode top = none;
  Inode folder = none;
  Inode entry = none;  // what the name in the folder leads to, through the link if it is one
  bool isLink = false;
  Inode cover = none;  // what is mounted over the name
  std::deque<InotifyEvent> queue;
  std::size_t overflows = 0;
  int lastWatch = 0;
  bool open = false;
  int openError = 0;
  int refusal = 0;
  int addRefusal = 0;
  std::uint32_t forgotten = 0;
  bool mountNotice = false;
};

#endif  // VELTA_TESTS_SIMULATION_SIMULATED_KERNEL_H
