#include "tests/system/shipped_module.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "tests/support/recording_host.h"

namespace {

template <typename Function>
Function* Find(void* handle, const char* name) {
  void* const address = dlsym(handle, name);
  if (address == nullptr) {
    throw std::runtime_error(dlerror());
  }
  return reinterpret_cast<Function*>(address);
}

}  // namespace

std::string ModulePath() { return VELTA_MODULE_FILE; }

ShippedModule::ShippedModule() : handle(dlopen(VELTA_MODULE_FILE, RTLD_NOW | RTLD_LOCAL)) {
  if (handle == nullptr) {
    throw std::runtime_error(dlerror());
  }
  initModule = Find<int()>(handle.get(), "InitModule");
  startModule = Find<int(const char*)>(handle.get(), "StartModule");
  stopModule = Find<void()>(handle.get(), "StopModule");
  deinitModule = Find<void()>(handle.get(), "DeinitModule");
}

void ShippedModule::Unload() {
  if (handle) {
    RecordingHost::Get().added.reset();
    RecordingHost::Get().removed.reset();
    handle.reset();
  }
}

void ShippedModule::Close::operator()(void* library) const { dlclose(library); }
