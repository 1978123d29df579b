// What the kernel hands over, or would if it were out of its mind.

#include <sys/inotify.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "agent/inotify.h"
#include "fuzz/fuzz_target.h"

namespace {

// In memory of exactly that size, so that a sanitizer sees a reading beyond it.
std::vector<InotifyEvent> Decode(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> copy(new char[size]);
  std::copy(data, data + size, copy.get());
  return DecodeInotifyEvents(copy.get(), size);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<InotifyEvent> events = Decode(data, size);
  std::size_t total = 0;
  for (const InotifyEvent& event : events) {
    Check(event.name.find('\0') == std::string::npos, "a name with a NUL");
    total += sizeof(inotify_event) + event.name.size();
  }
  Check(total <= size, "more than the data can hold");

  // A reading that was cut off gives the same events, only fewer.
  const std::vector<InotifyEvent> fewer = Decode(data, size / 2);
  Check(fewer.size() <= events.size(), "more events from less data");
  for (std::size_t index = 0; index < fewer.size(); ++index) {
    Check(fewer[index].watch == events[index].watch && fewer[index].mask == events[index].mask &&
              fewer[index].name == events[index].name,
          "another event from less data");
  }
  return 0;
}
