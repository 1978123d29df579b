#include "agent/file_event.h"

#include <sys/inotify.h>

#include <algorithm>

namespace {

struct Row {
  std::uint32_t mask;
  Reaction reaction;
};

// Everything but a write to the watched inode may have put another inode behind the path. A hard link
// (ATTRIB) is one step of an editor that renames next, so even that attaches again.
constexpr Row rows[] = {
    {IN_MODIFY, {false, Report::Settled}},     // may be the truncation before the write
    {IN_CLOSE_WRITE, {false, Report::Now}},    // a writer is done
    {IN_ATTRIB, {true, Report::Settled}},      // mode, owner, times or link count
    {IN_CREATE, {true, Report::Settled}},      // still empty, most likely
    {IN_DELETE, {true, Report::Settled}},      // a new file is on its way, most likely
    {IN_MOVED_FROM, {true, Report::Settled}},  // the same
    {IN_MOVED_TO, {true, Report::Now}},        // a complete file took the name
    {IN_DELETE_SELF, {true, Report::Settled}}, {IN_MOVE_SELF, {true, Report::Settled}},
    {IN_IGNORED, {true, Report::Settled}},  // the kernel dropped the watch
    {IN_UNMOUNT, {true, Report::Now}},
};

constexpr std::uint32_t selfEvents = IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t nameEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

}  // namespace

std::uint32_t EventsOf(WatchRole role) {
  switch (role) {
    case WatchRole::File:
      return IN_MODIFY | IN_CLOSE_WRITE | selfEvents;
    case WatchRole::Directory:
      return IN_MODIFY | IN_CLOSE_WRITE | selfEvents | nameEvents | IN_ONLYDIR;
    case WatchRole::Ancestor:
      break;
  }
  return selfEvents | nameEvents | IN_ONLYDIR;
}

Reaction ReactionTo(WatchRole role, std::uint32_t mask) {
  // An ancestor shares its inode, and so its events, with whatever else is watched there: a write below it
  // that another rule asked for says nothing about this path.
  const std::uint32_t known =
      role == WatchRole::Ancestor ? mask & ~std::uint32_t{IN_MODIFY | IN_CLOSE_WRITE} : mask;
  Reaction reaction = {false, Report::None};
  for (const Row& row : rows) {
    if ((known & row.mask) != 0) {
      reaction.attach = reaction.attach || row.reaction.attach;
      reaction.report = std::max(reaction.report, row.reaction.report);
    }
  }
  return reaction;
}

void Settling::Add(Report report, Time now) {
  if (report == Report::None) {
    return;
  }
  if (!first) {
    first = now;
  }
  const Time settled = report == Report::Now ? now : std::min(now + quiet, *first + longest);
  // A complete change is not put off again by what follows it.
  const bool complete = due && *due <= now;
  if (!complete) {
    due = settled;
  }
}

void Settling::Retry(Time now) {
  if (!due) {
    first = now;
    due = now + longest;
  }
}

void Settling::Clear() {
  first.reset();
  due.reset();
}
