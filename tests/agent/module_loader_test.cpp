#include "agent/module_loader.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/event_sink.h"
#include "agent/file_monitor.h"
#include "agent/logger.h"
#include "agent/send_queue.h"
#include "agent/services.h"
#include "agent/task_scheduler.h"
#include "tests/support/temporary_folder.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// The services that a module finds in this process, with a log that can be read.
class ModuleLoaderTest : public testing::Test {
 protected:
  static std::FILE* LogFile(const std::string& path) {
    std::FILE* const file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
      throw std::runtime_error("cannot open " + path);
    }
    return file;
  }

  // What was logged so far, without times and levels.
  std::vector<std::string> Records() const {
    std::vector<std::string> records;
    std::ifstream text(folder.Path("log"));
    for (std::string line; std::getline(text, line);) {
      records.push_back(line.substr(line.find(' ', line.find(' ') + 1) + 1));
    }
    return records;
  }

  // What the loader says of a file that is no module.
  static std::string Refusal(const std::string& path) {
    try {
      const LoadedModule module(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "accepted";
  }

  static bool IsMapped(const std::string& path) {
    std::ifstream maps("/proc/self/maps");
    const std::string text{std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>()};
    return text.find(path) != std::string::npos;
  }

  TemporaryFolder folder;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{LogFile(folder.Path("log")), std::fclose};
  Logger logger{LogLevel::Debug, fileno(file.get())};
  EventSink sink{folder.Path("events")};
  SendQueue queue{sink, logger, 0};
  TaskScheduler scheduler{1, logger};
  FileMonitor monitor{logger, std::chrono::milliseconds(0)};
  InstalledServices services{logger, queue, scheduler, monitor};
};

TEST_F(ModuleLoaderTest, EachEntryPointIsReachedAndTheEndStopsAndUnloads) {
  {
    const LoadedModule module(VELTA_SAMPLE_MODULE);
    EXPECT_TRUE(module.Init());
    EXPECT_TRUE(module.Start("{}"));
    EXPECT_FALSE(module.Start("no"));
    module.Stop();
    module.Deinit();
    EXPECT_THAT(Records(), ElementsAre("loaded", "init", "start {}", "start no", "stop", "deinit"));
    EXPECT_TRUE(IsMapped(VELTA_SAMPLE_MODULE));
  }
  EXPECT_THAT(Records(),
              ElementsAre("loaded", "init", "start {}", "start no", "stop", "deinit", "stop", "unloaded"));
  EXPECT_FALSE(IsMapped(VELTA_SAMPLE_MODULE));
}

TEST_F(ModuleLoaderTest, Fault21AMissingFileIsNamed) {
  EXPECT_THAT(Refusal(folder.Path("missing.so")),
              AllOf(StartsWith("module " + folder.Path("missing.so") + ": "),
                    HasSubstr("No such file or directory")));
}

TEST_F(ModuleLoaderTest, Fault21WhatIsNoSharedObjectIsNamed) {
  const std::string text = folder.Write("text.so", std::string(4096, 'x'));
  EXPECT_THAT(Refusal(text), AllOf(StartsWith("module " + text + ": "), HasSubstr("invalid ELF header")));
  const std::string empty = folder.Write("empty.so", "");
  EXPECT_THAT(Refusal(empty), AllOf(StartsWith("module " + empty + ": "), HasSubstr("too short")));
  EXPECT_EQ(Refusal(folder.Path()), "module " + folder.Path() + ": not a regular file");
  const std::string fifo = folder.MakeFifo("fifo.so");  // whose writer never comes
  EXPECT_EQ(Refusal(fifo), "module " + fifo + ": not a regular file");
  EXPECT_THAT(Refusal(""), StartsWith("module : "));
}

// The loader maps a part of a file, and the process ends at the first touch of what is missing.
TEST_F(ModuleLoaderTest, Fault21AModuleThatIsCutShortIsNamedWhereverItIsCut) {
  const std::string cut = folder.Path("cut.so");
  std::filesystem::copy_file(VELTA_SAMPLE_MODULE, cut);
  const std::uintmax_t whole = std::filesystem::file_size(cut);
  EXPECT_EQ(Refusal(cut), "accepted");
  std::filesystem::resize_file(cut, whole - 1);
  EXPECT_EQ(Refusal(cut), "module " + cut + ": the file is cut short: it has " + std::to_string(whole - 1) +
                              " bytes of " + std::to_string(whole));
  constexpr std::uintmax_t step = VELTA_CODE_IS_SLOW ? 4093 : 509;
  for (std::uintmax_t size = whole - whole % step; size > step; size -= step) {
    std::filesystem::resize_file(cut, size);
    ASSERT_THAT(Refusal(cut), StartsWith("module " + cut + ": the file is cut short")) << size;
  }
  for (std::uintmax_t size = 0; size < 509; size += VELTA_CODE_IS_SLOW ? 7 : 1) {
    std::filesystem::resize_file(cut, size);
    ASSERT_THAT(Refusal(cut), StartsWith("module " + cut + ": ")) << size;
    ASSERT_FALSE(IsMapped(cut)) << size;
  }
}

TEST_F(ModuleLoaderTest, Fault21AModuleForAnotherMachineIsNamed) {
  const std::string foreign = folder.Path("foreign.so");
  std::filesystem::copy_file(VELTA_SAMPLE_MODULE, foreign);
  {
    std::fstream content(foreign, std::ios::binary | std::ios::in | std::ios::out);
    constexpr std::streamoff machineField = 18;  // of an ELF header
    content.seekp(machineField);
    content.write("\x7f\x7f", 2);
  }
  EXPECT_THAT(Refusal(foreign), StartsWith("module " + foreign + ": "));
}

TEST_F(ModuleLoaderTest, Fault21AMissingEntryPointIsNamedAndTheFileIsUnloaded) {
  EXPECT_EQ(Refusal(VELTA_MODULE_WITHOUT_ENTRY_POINT),
            "module " VELTA_MODULE_WITHOUT_ENTRY_POINT ": no entry point DeinitModule");
  EXPECT_THAT(Records(), ElementsAre("loaded", "unloaded"));
  EXPECT_FALSE(IsMapped(VELTA_MODULE_WITHOUT_ENTRY_POINT));
}

TEST_F(ModuleLoaderTest, Fault21AMissingServiceIsNamedBeforeAnythingOfTheModuleRuns) {
  EXPECT_THAT(Refusal(VELTA_MODULE_WITHOUT_SERVICE),
              AllOf(StartsWith("module " VELTA_MODULE_WITHOUT_SERVICE ": "), HasSubstr("undefined symbol"),
                    HasSubstr("UtilsServiceOfTomorrow")));
  EXPECT_THAT(Records(), ElementsAre());
}

TEST_F(ModuleLoaderTest, ANameWithoutAFolderIsAFileOfTheWorkingDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::copy_file(VELTA_SAMPLE_MODULE, folder.Path("plain-name"));
  std::filesystem::current_path(folder.Path());
  const std::string refusal = Refusal("plain-name");
  const std::string missing = Refusal("libc.so.6");  // which the library path would have
  std::filesystem::current_path(before);
  EXPECT_EQ(refusal, "accepted");
  EXPECT_THAT(missing, AllOf(StartsWith("module libc.so.6: "), HasSubstr("No such file or directory")));
}

TEST_F(ModuleLoaderTest, TheModuleOfThisAgentLoadsStartsAndEndsAgainAndAgain) {
  for (int load = 0; load < 3; ++load) {
    const LoadedModule module(VELTA_MODULE);
    EXPECT_TRUE(module.Init());
    EXPECT_FALSE(module.Start("no policy"));
    EXPECT_EQ(scheduler.LaunchAll(), 0U);
    EXPECT_TRUE(module.Start("{}"));
    EXPECT_EQ(scheduler.LaunchAll(), 1U);
    EXPECT_TRUE(scheduler.WaitUntilIdle());
    module.Stop();
    EXPECT_EQ(scheduler.LaunchAll(), 0U);
    EXPECT_TRUE(module.Start("{}"));
    module.Deinit();
  }
  EXPECT_EQ(scheduler.LaunchAll(), 0U);  // the end of the module ended its task, too
  EXPECT_FALSE(IsMapped(VELTA_MODULE));
}

TEST_F(ModuleLoaderTest, TheServicesAreThoseThatWereInstalled) {
  const InstalledServices& current = InstalledServices::Current();
  EXPECT_EQ(&current.logger, &logger);
  EXPECT_EQ(&current.queue, &queue);
  EXPECT_EQ(&current.scheduler, &scheduler);
  EXPECT_EQ(&current.monitor, &monitor);
}

TEST(InstalledServicesTest, WithoutServicesAModuleCannotGoOn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(InstalledServices::Current(), testing::KilledBySignal(SIGABRT), "");
}

TEST(FindModuleTest, TheModuleBesideTheProgramIsFound) {
  // Of this program, not of the agent: they stand in the same folder.
  EXPECT_TRUE(std::filesystem::equivalent(FindModule(), VELTA_MODULE));
}

}  // namespace
