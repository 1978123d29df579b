#include "agent/spare_memory.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
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

// The loader tells of addresses as numbers.
void* PointerTo(std::uintptr_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

// Rare, and of 32-bit libraries only: the loader has then written into what nobody else writes to.
bool HasRelocatedCode(const dl_phdr_info& object) {
  for (unsigned number = 0; number < object.dlpi_phnum; ++number) {
    if (object.dlpi_phdr[number].p_type != PT_DYNAMIC) {
      continue;
    }
    const auto* entry =
        static_cast<const ElfW(Dyn)*>(PointerTo(object.dlpi_addr + object.dlpi_phdr[number].p_vaddr));
    for (; entry->d_tag != DT_NULL; ++entry) {
      if (entry->d_tag == DT_TEXTREL || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
        return true;
      }
    }
  }
  return false;
}

// Of one loaded object the segments that nobody writes to: there, memory holds what the file does. Whole
// pages only, as a page at the edge may belong to the next segment, too.
int LetGoOfSegments(dl_phdr_info* object, std::size_t /*size*/, void* pageSize) {
  if (HasRelocatedCode(*object)) {
    return 0;
  }
  const std::uintptr_t page = *static_cast<const std::size_t*>(pageSize);
  for (unsigned number = 0; number < object->dlpi_phnum; ++number) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[number];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) {
      continue;
    }
    const std::uintptr_t start = object->dlpi_addr + segment.p_vaddr;
    const std::uintptr_t firstPage = (start + page - 1) / page * page;
    const std::uintptr_t endOfLast = (start + segment.p_memsz) / page * page;
    if (firstPage < endOfLast) {
      madvise(PointerTo(firstPage), endOfLast - firstPage, MADV_DONTNEED);
    }
  }
  return 0;
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

void LetGoOfFilePages() {
  std::size_t page = PageSize();
  dl_iterate_phdr(LetGoOfSegments, &page);
}
