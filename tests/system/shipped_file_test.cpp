#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <sstream>
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

#define VELTA_HIGHEST_GLIBCXX "3.4.29"
#define VELTA_HIGHEST_CXXABI "1.3.9"
#define VELTA_HIGHEST_GLIBC "2.32"

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
  const char* const prefixes[] = {"__asan_", "__ubsan_", "__tsan_", "__lsan_", "__sanitizer_"};
  return sanitized && std::any_of(std::begin(prefixes), std::end(prefixes),
                                  [&](const char* prefix) { return symbol.rfind(prefix, 0) == 0; });
}

TEST(ShippedFile, IsOfTheTargetThatItWasBuiltFor) {
  const ElfFile module(ModulePath());
  const unsigned bits = module.Bytes()[EI_CLASS] == ELFCLASS32 ? 32 : 64;
  EXPECT_EQ(bits, 8 * sizeof(void*));
  const bool bigEndian = module.Bytes()[EI_DATA] == ELFDATA2MSB;
  EXPECT_EQ(bigEndian, __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__);
#ifdef __powerpc__
  EXPECT_EQ(module.Machine(), EM_PPC);
#endif
}

TEST(ShippedFile, OffersTheFourFunctionsAndNothingElse) {
  const ElfFile module(ModulePath());
  std::vector<std::string> offered;
  for (const ElfFile::Symbol& symbol : module.DynamicSymbols()) {
    if (symbol.defined &&
        symbol.binding != STB_LOCAL) {  // a section counts as a local symbol on some targets
      offered.push_back(symbol.name);
    }
  }
  EXPECT_THAT(offered, UnorderedElementsAre("InitModule", "StartModule", "StopModule", "DeinitModule"));
}

// With one of them in the dynamic table, dlclose does nothing. The version script hides them, too; here it is
// the compiler that makes none.
TEST(ShippedFile, IsMadeOfObjectsWithoutAUniqueSymbolThatWouldKeepItLoaded) {
  std::istringstream objects(VELTA_MODULE_OBJECTS);
  int objectCount = 0;
  bool busIsIncluded = false;
  for (std::string path; std::getline(objects, path, '|'); ++objectCount) {
    const ElfFile object(path);
    for (const ElfFile::Symbol& symbol : object.LinkSymbols()) {
      EXPECT_NE(symbol.binding, unsigned{STB_GNU_UNIQUE}) << Demangled(symbol.name) << " in " << path;
      busIsIncluded = busIsIncluded || Demangled(symbol.name) == "MessageBus::GetSubMutex()::subMtx";
    }
  }
  EXPECT_EQ(objectCount, 5);
  EXPECT_TRUE(busIsIncluded) << "statics of a header are what the compiler makes unique";
  const ElfFile module(ModulePath());
  for (const ElfFile::Symbol& symbol : module.DynamicSymbols()) {
    EXPECT_NE(symbol.binding, unsigned{STB_GNU_UNIQUE}) << Demangled(symbol.name);
  }
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

// "3.4.29" as {3, 4, 29}, so that versions compare as numbers.
std::vector<int> Numbers(const std::string& version) {
  std::vector<int> numbers;
  std::istringstream parts(version);
  for (std::string part; std::getline(parts, part, '.');) {
    numbers.push_back(std::stoi(part));
  }
  return numbers;
}

// The highest version of a family, such as "GLIBC", that the module asks for.
std::string HighestVersion(const ElfFile& module, const std::string& family) {
  std::string highest = "0";
  for (const std::string& version : module.RequiredVersions()) {
    if (version.rfind(family + "_", 0) == 0) {
      const std::string number = version.substr(family.size() + 1);
      highest = Numbers(highest) < Numbers(number) ? number : highest;
    }
  }
  return highest;
}

// The module is loaded on boxes whose libraries are older than the machine that builds it. What it needs must
// not rise unnoticed, and a fall is to be told of, too; docs/targets.md has the same table and says what
// needs the highest.
TEST(ShippedFile, NeedsNoNewerLibrariesThanTheTableSays) {
  if (sanitized) {
    GTEST_SKIP() << "a sanitizer brings needs of its own";
  }
  const ElfFile module(ModulePath());
  EXPECT_EQ(HighestVersion(module, "GLIBCXX"), VELTA_HIGHEST_GLIBCXX);
  EXPECT_EQ(HighestVersion(module, "CXXABI"), VELTA_HIGHEST_CXXABI);
  EXPECT_EQ(HighestVersion(module, "GLIBC"), VELTA_HIGHEST_GLIBC);
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
