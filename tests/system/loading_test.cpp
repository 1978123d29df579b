#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/recording_host.h"
#include "tests/system/load_recorder.h"
#include "tests/system/shipped_module.h"
#include "tests/system/target.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// One entry of "/proc/self/maps": what a file, the heap or an anonymous mapping covers.
std::vector<std::string> Mappings() {
  std::vector<std::string> mappings;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    mappings.push_back(line);
  }
  return mappings;
}

std::vector<std::string> MappingsOfTheModule() {
  const std::string name = std::filesystem::path(ModulePath()).filename().string();
  std::vector<std::string> found;
  for (const std::string& mapping : Mappings()) {
    if (mapping.find(name) != std::string::npos) {
      found.push_back(mapping);
    }
  }
  return found;
}

// Of this process.
std::size_t ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      return std::stoul(line.substr(std::strlen("VmRSS:")));
    }
  }
  throw std::runtime_error("the memory that is in use is not told");
}

std::ptrdiff_t ThreadCount() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                       std::filesystem::directory_iterator());
}

bool IsInTheModule(const void* object) {
  Dl_info info = {};
  return dladdr(object, &info) != 0 && info.dli_fname == ModulePath();
}

class Loading : public testing::Test {
 protected:
  Loading() { host.Reset(); }

  RecordingHost& host = RecordingHost::Get();
};

TEST_F(Loading, BuildsTheCollectorFirstThenThePolicyKeysThenThePath) {
  const LoadRecorder recorder;
  const ShippedModule module;
  const std::vector<const void*> built = recorder.Objects();
  ASSERT_EQ(module.startModule(detectionOn), 1);  // tells which of them is the collector

  std::vector<std::string> names;
  for (const void* const object : built) {
    ASSERT_TRUE(IsInTheModule(object));
    names.push_back(object == host.task.arg ? "the collector" : *static_cast<const std::string*>(object));
  }
  EXPECT_THAT(names, ElementsAre("the collector", "hidden-account", "ssh-authorized-public-key",
                                 "unauthorized-root-user", "/etc/passwd"));
}

TEST_F(Loading, CallsNothingOfTheAgent) {
  ShippedModule module;
  EXPECT_THAT(host.Calls(), IsEmpty());
  module.Unload();
  EXPECT_THAT(host.Calls(), IsEmpty());
}

TEST_F(Loading, CreatesNoThreadNorDoesAnythingThatFollows) {
  const std::ptrdiff_t before = ThreadCount();
  ShippedModule module;
  EXPECT_EQ(ThreadCount(), before) << "load";
  module.initModule();
  ASSERT_EQ(module.startModule(detectionOn), 1);
  EXPECT_EQ(ThreadCount(), before) << "start";
  host.RunTask();
  EXPECT_EQ(ThreadCount(), before) << "run";
  module.stopModule();
  EXPECT_EQ(ThreadCount(), before) << "stop";
}

TEST_F(Loading, AnUnloadedModuleIsGone) {
  ShippedModule module;
  ASSERT_EQ(module.startModule(detectionOn), 1);
  host.RunTask();  // whatever is built on first use has been built
  module.stopModule();
  ASSERT_NE(MappingsOfTheModule(), std::vector<std::string>());
  module.Unload();
  EXPECT_THAT(MappingsOfTheModule(), IsEmpty());
}

TEST_F(Loading, AnUnloadWithoutAStopEndsTheTask) {
  ShippedModule module;
  ASSERT_EQ(module.startModule(detectionOn), 1);
  host.TakeCalls();
  module.Unload();
  EXPECT_THAT(host.Calls(), ElementsAre("pause 7", "unregister 7"));
  EXPECT_THAT(MappingsOfTheModule(), IsEmpty());
}

TEST_F(Loading, Fault23TenThousandLoadsLeaveNothingBehind) {
  const auto live = [this] {
    ShippedModule module;
    ASSERT_EQ(module.startModule(detectionOn), 1);
    host.RunTask();
    module.stopModule();
    host.TakeCalls();
  };
  for (int load = 0; load < 50; ++load) {
    live();  // until the allocator and the loader have settled
  }
  const std::size_t before = Mappings().size();
  const std::size_t residentBefore = ResidentKiB();
  for (int load = 0; load < (VELTA_CODE_IS_SLOW ? 1000 : 10000); ++load) {
    live();
    if (load % 500 == 0) {
      ASSERT_THAT(MappingsOfTheModule(), IsEmpty());
    }
  }
  EXPECT_THAT(MappingsOfTheModule(), IsEmpty());
  // What stays behind after each load would be thousands; an allocator, a sanitizer's above all, takes some.
  EXPECT_LE(Mappings().size(), before + 20);
  // A sanitizer keeps a record of what was loaded and freed, the emulator what it has translated.
  if (!VELTA_SANITIZED && !emulated) {
    EXPECT_LE(ResidentKiB(), residentBefore + 1000) << "a tenth of a KiB a load";
  }
}

}  // namespace
