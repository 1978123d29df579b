#include "agent/module_loader.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ios>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <type_traits>

#include "agent/file_status.h"
#include "module/detect_user.h"

namespace {

constexpr char moduleName[] = "libvelta_detect-user.so";

// What dlopen last complained of, without the name of the file that it was given: ours stands in front.
std::string LoaderError(const std::string& path) {
  const char* const error = dlerror();
  const std::string text = error != nullptr ? error : "unknown error";
  return text.rfind(path + ": ", 0) == 0 ? text.substr(path.size() + 2) : text;
}

// A name without a slash would be looked for in the library path and not in this folder.
std::string WithSlash(const std::string& path) {
  return path.find('/') == std::string::npos ? "./" + path : path;
}

constexpr bool bigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;

template <typename Header>
bool ReadAt(std::istream& file, std::uint64_t position, Header& header) {
  file.seekg(static_cast<std::streamoff>(position));
  return static_cast<bool>(file.read(reinterpret_cast<char*>(&header), sizeof(header)));
}

// Where the parts of the file end that its own headers speak of; nothing when it is not of this machine's
// kind, of which the loader says more.
std::optional<std::uint64_t> EndAccordingToHeaders(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  ElfW(Ehdr) header;
  if (!ReadAt(file, 0, header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
      header.e_ident[EI_CLASS] != (sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32) ||
      header.e_ident[EI_DATA] != (bigEndian ? ELFDATA2MSB : ELFDATA2LSB)) {
    return std::nullopt;
  }
  std::uint64_t end = header.e_shoff + std::uint64_t{header.e_shnum} * header.e_shentsize;
  for (std::uint64_t number = 0; number < header.e_phnum; ++number) {
    const std::uint64_t position = header.e_phoff + number * sizeof(ElfW(Phdr));
    ElfW(Phdr) segment;
    if (!ReadAt(file, position, segment)) {
      return std::max(end, position + sizeof(segment));
    }
    end = std::max<std::uint64_t>(end, std::uint64_t{segment.p_offset} + segment.p_filesz);
  }
  return end;
}

// What the loader does not look at: it waits for the writer of a FIFO, and maps a file that was cut short,
// whose missing part then ends the process at the first touch.
void RequireWholeFile(const std::string& path) {
  const std::optional<FileStatus> status = FileStatus::OfPath(path);
  if (status && !status->regular) {
    throw std::runtime_error("module " + path + ": not a regular file");
  }
  const std::optional<std::uint64_t> end = status ? EndAccordingToHeaders(path) : std::nullopt;
  if (end && *end > status->size) {
    throw std::runtime_error("module " + path + ": the file is cut short: it has " +
                             std::to_string(status->size) + " bytes of " + std::to_string(*end));
  }
}

}  // namespace

LoadedModule::LoadedModule(const std::string& path) : file(path) {
  RequireWholeFile(file);
  dlerror();
  // Everything is resolved now: a service that is missing fails here, by name, and not at the first alert.
  library = dlopen(WithSlash(file).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    throw std::runtime_error("module " + file + ": " + LoaderError(WithSlash(file)));
  }
  struct Unload {
    void operator()(void* handle) const { dlclose(handle); }
  };
  std::unique_ptr<void, Unload> unloadOnFailure(library);
  static_assert(std::is_same_v<decltype(init), decltype(&InitModule)>);
  static_assert(std::is_same_v<decltype(start), decltype(&StartModule)>);
  static_assert(std::is_same_v<decltype(stop), decltype(&StopModule)>);
  static_assert(std::is_same_v<decltype(deinit), decltype(&DeinitModule)>);
  Find(init, "InitModule");
  Find(start, "StartModule");
  Find(stop, "StopModule");
  Find(deinit, "DeinitModule");
  static_cast<void>(unloadOnFailure.release());
}

LoadedModule::~LoadedModule() {
  stop();
  dlclose(library);
}

template <typename Function>
void LoadedModule::Find(Function& function, const char* symbol) const {
  void* const address = dlsym(library, symbol);
  if (address == nullptr) {
    throw std::runtime_error("module " + file + ": no entry point " + symbol);
  }
  function = reinterpret_cast<Function>(address);
}

std::string FindModule() {
  std::error_code failure;
  const std::filesystem::path agent = std::filesystem::read_symlink("/proc/self/exe", failure);
  if (failure) {
    throw std::runtime_error("module: /proc/self/exe cannot be read (" + failure.message() +
                             "), so the agent does not know where it stands; name the module with --module");
  }
  const std::filesystem::path beside = agent.parent_path() / moduleName;
  const std::filesystem::path installed = agent.parent_path().parent_path() / "lib" / "velta" / moduleName;
  for (const auto& candidate : {beside, installed}) {
    if (std::filesystem::exists(candidate, failure)) {
      return candidate;
    }
  }
  throw std::runtime_error("module: neither " + beside.string() + " nor " + installed.string() +
                           " exists; name one with --module");
}
