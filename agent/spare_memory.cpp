#include "agent/spare_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

#ifdef __GLIBC__
#include <malloc.h>
#if __GLIBC_PREREQ(2, 33)
#define VELTA_HAS_MALLINFO2
#endif
#endif

namespace {

std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

#ifdef VELTA_HAS_MALLINFO2
// Memory that is there and that no file stands behind; 0 when the system does not tell.
std::size_t ResidentAnonymousMemory() {
  const int descriptor = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return 0;
  }
  char text[128];
  const ssize_t size = read(descriptor, text, sizeof(text) - 1);
  close(descriptor);
  text[size > 0 ? size : 0] = '\0';
  unsigned long all = 0;
  unsigned long resident = 0;
  unsigned long ofFiles = 0;
  if (std::sscanf(text, "%lu %lu %lu", &all, &resident, &ofFiles) != 3 || resident < ofFiles) {
    return 0;
  }
  return (resident - ofFiles) * PageSize();
}
#endif

struct Range {
  std::uintmax_t start = 0;
  std::uintmax_t end = 0;
};

// The lowest mapping that a file of /proc/self names.
Range FirstRange(const char* path) {
  Range range;
  std::FILE* const maps = std::fopen(path, "re");
  if (maps != nullptr) {
    if (std::fscanf(maps, "%jx-%jx", &range.start, &range.end) != 2) {
      range = Range();
    }
    std::fclose(maps);
  }
  return range;
}

// An emulator shows its program the program's memory in one of the two and its own in the other.
bool MapsAreOurs() {
  const Range one = FirstRange("/proc/self/maps");
  const Range other = FirstRange("/proc/self/smaps");
  return one.end != 0 && one.start == other.start && one.end == other.end;
}

// Addresses come as text.
void* PointerTo(std::uintptr_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

}  // namespace

void AllocateFromOnePlace() {
#ifdef __GLIBC__
  mallopt(M_ARENA_MAX, 1);
#endif
}

void GiveBackFreedMemory([[maybe_unused]] std::size_t worthwhile) {
#ifdef VELTA_HAS_MALLINFO2
  const auto allocated = mallinfo2();
  if (allocated.fordblks <= worthwhile) {
    return;
  }
  // What the allocator calls free counts what was given back already, so the system is asked what there is.
  if (ResidentAnonymousMemory() > allocated.uordblks + allocated.hblkhd + worthwhile) {
    malloc_trim(0);
  }
#endif
}

// A mapping that holds anything but what its file does (relocated or patched code, a breakpoint, code that
// was moved to larger pages) is left alone: that could not come back.
void LetGoOfFilePages() {
  if (!MapsAreOurs()) {
    return;
  }
  std::FILE* const maps = std::fopen("/proc/self/smaps", "re");
  if (maps == nullptr) {
    return;
  }
  char line[512];
  std::uintptr_t start = 0;
  std::uintptr_t end = 0;
  bool ofFile = false;
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    std::uintmax_t first = 0;
    std::uintmax_t behind = 0;
    char rights[5] = "";
    char path = '\0';
    unsigned long kilobytes = 1;
    if (std::sscanf(line, "%jx-%jx %4s %*x %*x:%*x %*u %c", &first, &behind, rights, &path) >= 3) {
      start = static_cast<std::uintptr_t>(first);
      end = static_cast<std::uintptr_t>(behind);
      ofFile = rights[1] != 'w' && rights[3] == 'p' && path == '/';
    } else if (ofFile && std::sscanf(line, "Anonymous: %lu kB", &kilobytes) == 1) {
      if (kilobytes == 0) {
        madvise(PointerTo(start), end - start, MADV_DONTNEED);
      }
      ofFile = false;
    }
  }
  std::fclose(maps);
}
