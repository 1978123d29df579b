#include "agent/spare_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

class SpareMemoryTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!VELTA_MEMORY_IS_OURS) {
      GTEST_SKIP() << "a sanitizer or an emulator manages the memory here";
    }
  }
};
class AllocateFromOnePlaceTest : public SpareMemoryTest {};
class GiveBackFreedMemoryTest : public SpareMemoryTest {};
class LetGoOfFilePagesTest : public SpareMemoryTest {};

constexpr std::size_t smallestPage = 4096;
constexpr std::size_t blockSize = 200;
constexpr std::size_t blockCount = 100000;

std::size_t PageSize() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

std::uintptr_t PageOf(const void* address) {
  return reinterpret_cast<std::uintptr_t>(address) / PageSize() * PageSize();
}

// How many of the pages this process has.
std::size_t CountMapped(const std::set<std::uintptr_t>& pages) {
  const int map = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
  std::size_t count = 0;
  for (const std::uintptr_t page : pages) {
    std::uint64_t entry = 0;
    const auto place = static_cast<off_t>(page / PageSize() * sizeof(entry));
    if (pread(map, &entry, sizeof(entry), place) != ssize_t{sizeof(entry)}) {
      close(map);
      throw std::runtime_error("no page map");
    }
    count += entry >> 63 != 0 ? 1 : 0;
  }
  close(map);
  return count;
}

struct FreeBlock {
  void operator()(void* block) const { std::free(block); }
};
using Block = std::unique_ptr<void, FreeBlock>;

// What a large reading leaves: many small blocks, all freed but for the last.
class Leftovers {
 public:
  Leftovers() {
    std::vector<Block> blocks;
    for (std::size_t i = 0; i < blockCount; ++i) {
      blocks.emplace_back(std::malloc(blockSize));
    }
    for (const Block& block : blocks) {
      pages.insert(PageOf(block.get()));
    }
    last = std::move(blocks.back());
    pages.erase(PageOf(last.get()));
  }

  std::size_t Pages() const { return pages.size(); }
  std::size_t Mapped() const { return CountMapped(pages); }

 private:
  std::set<std::uintptr_t> pages;
  Block last;
};

TEST_F(GiveBackFreedMemoryTest, GivesBackWhatLiesBeforeSomethingThatIsInUse) {
  const Leftovers leftovers;
  ASSERT_EQ(leftovers.Mapped(), leftovers.Pages());

  GiveBackFreedMemory();

  EXPECT_LT(leftovers.Mapped(), leftovers.Pages() / 20);
}

TEST_F(GiveBackFreedMemoryTest, GivesBackWhatAnotherThreadHasFreed) {
  std::unique_ptr<Leftovers> leftovers;
  std::thread([&leftovers] { leftovers = std::make_unique<Leftovers>(); }).join();
  ASSERT_EQ(leftovers->Mapped(), leftovers->Pages());

  GiveBackFreedMemory();

  EXPECT_LT(leftovers->Mapped(), leftovers->Pages() / 20);
}

TEST_F(GiveBackFreedMemoryTest, LeavesWhatIsNotWorthwhileForTheNextReading) {
  const Leftovers leftovers;

  GiveBackFreedMemory(2 * blockCount * blockSize);

  EXPECT_EQ(leftovers.Mapped(), leftovers.Pages());
}

TEST_F(GiveBackFreedMemoryTest, LeavesWhatIsInUseAsItIs) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < blockCount; ++i) {
    texts.push_back(std::string(blockSize, 'x') + std::to_string(i));
  }
  { const Leftovers leftovers; }

  GiveBackFreedMemory(0);

  for (std::size_t i = 0; i < blockCount; ++i) {
    ASSERT_EQ(texts[i], std::string(blockSize, 'x') + std::to_string(i));
  }
}

// How far a thread's first allocation is from the main thread's. A place of its own starts at a multiple of
// its largest size, far away.
[[noreturn]] void TellWhetherAThreadAllocatesNearby() {
  AllocateFromOnePlace();
  const Block ofMain(std::malloc(blockSize));
  Block ofThread;
  std::thread([&ofThread] { ofThread.reset(std::malloc(blockSize)); }).join();
  const auto one = reinterpret_cast<std::uintptr_t>(ofMain.get());
  const auto other = reinterpret_cast<std::uintptr_t>(ofThread.get());
  _exit((one < other ? other - one : one - other) < (std::uintptr_t{16} << 20) ? 0 : 1);
}

TEST_F(AllocateFromOnePlaceTest, MakesThreadsAllocateWhereTheMainThreadDoes) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";  // in a process that has had no other thread
  EXPECT_EXIT(TellWhetherAThreadAllocatesNearby(), testing::ExitedWithCode(0), "");
}

constexpr std::size_t constantPages = 256;
const std::array<char, constantPages* smallestPage> constants = {'a', 'b'};
std::array<int, 2 * smallestPage> variables = {1, 2, 3};

int Doubled(int number) { return 2 * number; }
int Squared(int number) { return number * number; }
int (*const relocated[])(int) = {Doubled, Squared};

TEST_F(LetGoOfFilePagesTest, LetsGoOfConstantsThatCanBeReadAgain) {
  std::set<std::uintptr_t> pages;
  for (std::size_t i = PageSize(); i + PageSize() < constants.size(); i += PageSize()) {
    const volatile char* const place = &constants[i];
    EXPECT_EQ(*place, '\0');
    pages.insert(PageOf(&constants[i]));
  }
  ASSERT_EQ(CountMapped(pages), pages.size());

  LetGoOfFilePages();

  EXPECT_LT(CountMapped(pages), pages.size() / 2);  // what stands near to something used has come back
  const volatile char* const start = constants.data();
  EXPECT_EQ(start[0], 'a');
  EXPECT_EQ(start[1], 'b');
}

// As a debugger leaves code behind, and whatever moves code to larger pages.
TEST_F(LetGoOfFilePagesTest, LeavesWhatDiffersFromItsFileThoughNobodyMayWriteIt) {
  const int file = memfd_create("code", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, static_cast<off_t>(PageSize())), 0);
  void* const mapped = mmap(nullptr, PageSize(), PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  close(file);
  *static_cast<char*>(mapped) = 'p';
  ASSERT_EQ(mprotect(mapped, PageSize(), PROT_READ | PROT_EXEC), 0);

  LetGoOfFilePages();

  EXPECT_EQ(*static_cast<const volatile char*>(mapped), 'p');
  munmap(mapped, PageSize());
}

TEST_F(LetGoOfFilePagesTest, LeavesWhatWasWrittenAndRelocated) {
  volatile int* const variable = &variables[smallestPage];
  *variable = 4;

  LetGoOfFilePages();

  EXPECT_EQ(*variable, 4);
  int (*const volatile* const functions)(int) = relocated;
  EXPECT_EQ(functions[0](7), 14);
  EXPECT_EQ(functions[1](7), 49);
  EXPECT_THROW(std::string().at(1), std::out_of_range);
}

}  // namespace
