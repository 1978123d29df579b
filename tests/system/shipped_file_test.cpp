#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "tests/system/elf_file.h"
#include "tests/system/shipped_module.h"

namespace {

using testing::AnyOf;
using testing::Each;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;

constexpr bool sanitized = VELTA_SANITIZED;
constexpr char reportsNameSources[] =
    "the reports of a sanitizer name the sources in full, whatever the compiler is told; this is no object "
    "to ship";

std::string ReplaceAll(std::string text, const std::string& part, const std::string& by) {
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + by.size())) {
    text.replace(at, part.size(), by);
  }
  return text;
}

// As it stands in the headers of host/, whichever string layout it was built with.
std::string Demangled(const std::string& name) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
  if (status != 0) {
    return name;
  }
  std::string plain = ReplaceAll(text.get(), "[abi:cxx11]", "");
  return ReplaceAll(plain, "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
                    "std::string");
}

// Whether one of the libraries that the module asks for, or one that those bring along, has the symbol.
bool IsInALibrary(const ElfFile& module, const std::string& symbol) {
  for (const std::string& library : module.DynamicTexts(DT_NEEDED)) {
    const std::unique_ptr<void, int (*)(void*)> handle(dlopen(library.c_str(), RTLD_LAZY), dlclose);
    if (handle && dlsym(handle.get(), symbol.c_str()) != nullptr) {
      return true;
    }
  }
  return false;
}

// References that every link brings in and that stay empty: hooks for profiling and transactional memory.
bool IsEmptyHook(const ElfFile::Symbol& symbol) {
  return symbol.binding == STB_WEAK &&
         (symbol.name == "__gmon_start__" || symbol.name.rfind("_ITM_", 0) == 0);
}

// A sanitizer that is linked into the executable, and not a library.
bool IsOfASanitizer(const std::string& symbol) {
  const std::regex prefix("__(asan|ubsan|tsan|lsan|sanitizer)_.*");
  return sanitized && std::regex_match(symbol, prefix);
}

TEST(ShippedFile, OffersTheFourFunctionsAndNothingElse) {
  const ElfFile module(ModulePath());
  std::vector<std::string> offered;
  for (const ElfFile::Symbol& symbol : module.DynamicSymbols()) {
    if (symbol.defined) {
      offered.push_back(symbol.name);
    }
  }
  EXPECT_THAT(offered, UnorderedElementsAre("InitModule", "StartModule", "StopModule", "DeinitModule"));
}

TEST(ShippedFile, HasNoUniqueSymbolThatWouldKeepItLoaded) {
  const ElfFile module(ModulePath());
  std::vector<std::string> unique;
  for (const ElfFile::Symbol& symbol : module.DynamicSymbols()) {
    if (symbol.binding == STB_GNU_UNIQUE) {
      unique.push_back(Demangled(symbol.name));
    }
  }
  EXPECT_THAT(unique, IsEmpty());
}

TEST(ShippedFile, AsksTheAgentForExactlyTheServicesOfTheFence) {
  const ElfFile module(ModulePath());
  std::vector<std::string> services;
  for (const ElfFile::Symbol& symbol : module.DynamicSymbols()) {
    if (!symbol.defined && !IsEmptyHook(symbol) && !IsOfASanitizer(symbol.name) &&
        !IsInALibrary(module, symbol.name)) {
      services.push_back(Demangled(symbol.name));
    }
  }
  const std::vector<std::string> fence = {
      "AddMonitor(FileWatchRule const&, MonitorType)",
      "ConvertStrToNum(std::string const&, unsigned int&, int)",
      "LoggerWriteLog(OrvakAgentDotLogType, unsigned int, unsigned int, char const*, int, int, char const*, "
      "...)",
      "PushMinuteLimitEventToSendQueue(std::string const&)",
      "RemoveMonitor(FileWatchRule const&, MonitorType)",
      "UtilsGetUtcTime(std::string&)",
      "UtilsMakeTaskLaunch(unsigned int)",
      "UtilsPauseAndWaitForEnd(unsigned int)",
      "UtilsRegisterTask(utils::thread::TASKTYPE, utils::thread::TASK_CONDITION, void* (*)(void*), void*, "
      "std::string const&)",
      "UtilsUnregisterTask(unsigned int)",
      "WriteStartupLog(char const*, ...)",
      "Utils::Convert::JsonToString(utils::MyJson::MyValue const&)",
      "Utils::StringProcess::StrSplit(std::string const&, std::string const&, bool)",
      "utils::MyJson::MyCharReader::Parse(std::string const&, utils::MyJson::MyValue&) const",
      "utils::MyJson::MyValue::MyValue()",
      "utils::MyJson::MyValue::~MyValue()",
      "utils::MyJson::MyValue::operator=(std::string)",
      "utils::MyJson::MyValue::operator=(char const*)",
      "utils::MyJson::MyValue::operator=(int)",
      "utils::MyJson::MyValue::operator[](char const*)",
      "utils::MyJson::MyValue::IsMember(std::string const&) const",
      "utils::MyJson::MyValue::JsonItemAddToObject(char const*, utils::MyJson::MyValue const&) const",
  };
  EXPECT_THAT(services, UnorderedElementsAreArray(fence));
}

TEST(ShippedFile, NeedsTheStandardLibrariesAlone) {
  const ElfFile module(ModulePath());
  const auto standard = AnyOf("libstdc++.so.6", "libgcc_s.so.1", "libm.so.6", "libc.so.6", "ld.so.1",
                              StartsWith("ld-linux"), StartsWith("ld64.so"));
  const auto sanitizer = AnyOf(StartsWith("libasan.so"), StartsWith("libubsan.so"), StartsWith("libtsan.so"));
  if (sanitized) {
    EXPECT_THAT(module.DynamicTexts(DT_NEEDED), Each(AnyOf(standard, sanitizer)));
  } else {
    EXPECT_THAT(module.DynamicTexts(DT_NEEDED), Each(standard));
  }
}

TEST(ShippedFile, LooksForNoLibraryInAFolderOfItsOwn) {
  const ElfFile module(ModulePath());
  EXPECT_THAT(module.DynamicTexts(DT_RPATH), IsEmpty());
  EXPECT_THAT(module.DynamicTexts(DT_RUNPATH), IsEmpty());
}

TEST(ShippedFile, NamesNoFolderOfTheMachineThatBuiltIt) {
  if (sanitized) {
    GTEST_SKIP() << reportsNameSources;
  }
  const ElfFile module(ModulePath());
  const std::string& bytes = module.Bytes();
  for (const std::string folder : {VELTA_SOURCE_FOLDER, VELTA_BUILD_FOLDER}) {
    const std::size_t at = bytes.find(folder + "/");
    EXPECT_EQ(at, std::string::npos) << bytes.substr(at, 200).c_str();
  }
}

// An absolute path of one of our sources, wherever the tree that it was built from stood.
TEST(ShippedFile, NamesItsSourcesWithoutAnAbsolutePath) {
  if (sanitized) {
    GTEST_SKIP() << reportsNameSources;
  }
  const ElfFile module(ModulePath());
  const std::string& bytes = module.Bytes();
  const std::array<const char*, 6> sources = {
      "module/detect_user.cpp",    "module/detect_user_policy.cpp",     "collector/user_info_collector.cpp",
      "collector/task_handle.cpp", "detect/unauthorized_root_user.cpp", "bus/message_bus.h",
  };
  for (const char* const source : sources) {
    for (std::size_t at = bytes.find(source); at != std::string::npos; at = bytes.find(source, at + 1)) {
      const std::size_t start = bytes.rfind('\0', at) + 1;
      EXPECT_NE(bytes[start], '/') << bytes.substr(start, at - start) << source;
    }
  }
}

}  // namespace
