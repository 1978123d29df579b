#include "tests/simulation/simulated_kernel.h"

#include <sys/inotify.h>

#include <cerrno>
#include <utility>

bool Content::operator==(const Content& other) const {
  for (std::size_t account = 0; account < count; ++account) {
    if (Of(account) != other.Of(account)) {
      return false;
    }
  }
  return (halves == 0) == (other.halves == 0);  // root stands in whatever is not empty
}

SimulatedKernel::SimulatedKernel(std::size_t queueLength, std::function<void()> turnOfOthers)
    : longestQueue(queueLength), others(std::move(turnOfOthers)) {
  top = NewNode(Content());
  folder = NewNode(Content());
  entry = NewNode(Content());
}

SimulatedKernel::Inode SimulatedKernel::NewNode(const Content& content) {
  inodes.emplace_back();
  inodes.back().content = content;
  return static_cast<Inode>(inodes.size() - 1);
}

bool SimulatedKernel::Open() {
  openError = refusal;
  open = refusal == 0;
  queue.clear();
  for (Node& node : inodes) {
    node.watch = -1;
    node.mask = 0;
  }
  return open;
}

void SimulatedKernel::Refuse(int toOpen, int toAdd) {
  refusal = toOpen;
  addRefusal = toAdd;
}

SimulatedKernel::Inode SimulatedKernel::Resolve() const {
  if (folder == none) {
    return none;
  }
  return cover != none ? cover : entry;
}

SimulatedKernel::Inode SimulatedKernel::ResolvePath(const std::string& path) const {
  if (path == "/") {
    return top;
  }
  return path == "/etc" ? folder : Resolve();
}

int SimulatedKernel::Add(const std::string& path, std::uint32_t mask) {
  others();
  if (addRefusal != 0) {
    return -addRefusal;
  }
  const Inode inode = ResolvePath(path);
  if (inode == none) {
    return -ENOENT;
  }
  Node& node = inodes[Index(inode)];
  if (node.watch < 0) {
    node.watch = ++lastWatch;
    node.mask = 0;
  }
  node.mask |= mask;
  return node.watch;
}

void SimulatedKernel::Remove(int watch) {
  others();
  for (std::size_t i = 0; i < inodes.size(); ++i) {
    if (inodes[i].watch == watch) {
      EndWatch(static_cast<Inode>(i));
    }
  }
}

std::optional<FileStatus> SimulatedKernel::Look(const std::string& path) {
  others();
  const Inode inode = ResolvePath(path);
  if (inode == none) {
    return std::nullopt;
  }
  const Node& node = inodes[Index(inode)];
  FileStatus status = FileStatus();
  status.regular = true;
  status.device = 1;
  status.inode = static_cast<std::uint64_t>(inode);
  status.size = static_cast<std::uint64_t>(node.content.halves);
  status.changedSec = node.version;
  return status;
}

std::vector<InotifyEvent> SimulatedKernel::Read(std::size_t most) {
  std::vector<InotifyEvent> events;
  while (!queue.empty() && events.size() < most) {
    events.push_back(std::move(queue.front()));
    queue.pop_front();
  }
  return events;
}

bool SimulatedKernel::TakeMountNotice() { return std::exchange(mountNotice, false); }

void SimulatedKernel::Push(InotifyEvent event) {
  if (!open || (event.mask & forgotten) != 0) {
    return;
  }
  if (!queue.empty()) {
    const InotifyEvent& last = queue.back();
    if (last.watch == event.watch && last.mask == event.mask && last.name == event.name) {
      return;
    }
  }
  if (queue.size() < longestQueue) {
    queue.push_back(std::move(event));
  } else if (queue.back().mask != IN_Q_OVERFLOW) {
    queue.push_back({-1, IN_Q_OVERFLOW, ""});
    ++overflows;
  }
}

void SimulatedKernel::Tell(Inode inode, std::uint32_t event, const std::string& name) {
  const Node& node = inodes[Index(inode)];
  if (node.watch >= 0 && (node.mask & event) != 0) {
    Push({node.watch, event, name});
  }
}

// The folder hears of what is done to the inode by the name that it gives it.
void SimulatedKernel::TellOfName(Inode inode, std::uint32_t event) {
  if (inode == Named() && !isLink && cover != inode) {
    Tell(folder, event, "passwd");
  }
  Tell(inode, event);
}

void SimulatedKernel::EndWatch(Inode inode) {
  Node& node = inodes[Index(inode)];
  if (node.watch >= 0) {
    Push({node.watch, IN_IGNORED, ""});
    node.watch = -1;
  }
}

void SimulatedKernel::DropLink(Inode inode) {
  Node& node = inodes[Index(inode)];
  --node.links;
  ++node.version;
  Tell(inode, IN_ATTRIB);
  EndIfUnused(inode);
}

void SimulatedKernel::EndIfUnused(Inode inode) {
  Node& node = inodes[Index(inode)];
  if (node.links == 0 && node.writers == 0 && !node.gone && inode != cover) {
    node.gone = true;
    Tell(inode, IN_DELETE_SELF);
    EndWatch(inode);
  }
}

SimulatedKernel::Inode SimulatedKernel::MakeElsewhere(const Content& content) { return NewNode(content); }

void SimulatedKernel::RenameOver(Inode fresh) {
  if (folder == none || fresh == none || cover != none) {  // what is mounted there keeps its name busy
    return;
  }
  const Inode old = isLink ? none : entry;
  entry = fresh;
  isLink = false;
  ++inodes[Index(fresh)].version;
  Tell(folder, IN_MOVED_TO, "passwd");
  if (old != none && old != fresh) {
    DropLink(old);
  }
}

void SimulatedKernel::LinkTo(Inode target) {
  RenameOver(target);
  isLink = Named() == target;
}

void SimulatedKernel::PointLinkTo(Inode target) {
  if (isLink && target != none) {
    entry = target;
  }
}

void SimulatedKernel::HardLink() {
  if (Named() != none) {
    Node& node = inodes[Index(entry)];
    ++node.links;
    ++node.version;
    TellOfName(entry, IN_ATTRIB);
  }
}

void SimulatedKernel::Unlink() {
  if (Named() == none) {
    return;
  }
  const Inode old = isLink ? none : entry;
  entry = none;
  isLink = false;
  Tell(folder, IN_DELETE, "passwd");
  if (old != none) {
    DropLink(old);
  }
}

SimulatedKernel::Inode SimulatedKernel::Create() {
  if (folder == none || entry != none) {
    return Named();
  }
  Content empty;
  empty.halves = 0;
  entry = NewNode(empty);
  Tell(folder, IN_CREATE, "passwd");
  return entry;
}

SimulatedKernel::Inode SimulatedKernel::MoveAway() {
  if (Named() == none || isLink) {
    return none;
  }
  const Inode moved = std::exchange(entry, none);
  Tell(folder, IN_MOVED_FROM, "passwd");
  Tell(moved, IN_MOVE_SELF);
  return moved;
}

void SimulatedKernel::OpenToWrite(Inode inode) { ++inodes[Index(inode)].writers; }

void SimulatedKernel::Write(Inode inode, const Content& content) {
  Node& node = inodes[Index(inode)];
  node.content = content;
  ++node.version;
  TellOfName(inode, IN_MODIFY);
}

void SimulatedKernel::Close(Inode inode) {
  --inodes[Index(inode)].writers;
  TellOfName(inode, IN_CLOSE_WRITE);
  EndIfUnused(inode);
}

void SimulatedKernel::Change(Inode inode, std::uint32_t event) {
  if (inode != none) {
    ++inodes[Index(inode)].version;
    TellOfName(inode, event);
  }
}

void SimulatedKernel::Mount(Inode inode) {
  if (Resolve() != none) {
    cover = inode;
    mountNotice = true;
  }
}

void SimulatedKernel::Unmount() {
  if (cover != none) {
    cover = none;
    mountNotice = true;
  }
}

void SimulatedKernel::MoveFolderAway() {
  if (folder == none || cover != none) {
    return;
  }
  const Inode moved = std::exchange(folder, none);
  entry = none;
  isLink = false;
  Tell(top, IN_MOVED_FROM, "etc");
  Tell(moved, IN_MOVE_SELF);
}

void SimulatedKernel::MakeFolder() {
  if (folder == none) {
    folder = NewNode(Content());
    Tell(top, IN_CREATE, "etc");
  }
}

void SimulatedKernel::TouchOther(int name) {
  if (folder != none) {
    Tell(folder, IN_CREATE, "other" + std::to_string(name));
  }
}
