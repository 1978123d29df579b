#include "agent/module_loader.h"

#include <dlfcn.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <type_traits>

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

}  // namespace

LoadedModule::LoadedModule(const std::string& path) : file(path) {
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
