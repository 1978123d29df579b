#ifndef VELTA_AGENT_MODULE_LOADER_H
#define VELTA_AGENT_MODULE_LOADER_H

#include <string>

// A module in memory, from its loading to its unloading. Destruction stops and unloads it, in that order: a
// watch that outlived the module would call into memory that is gone.
//
// Thread use: the control thread.
class LoadedModule {
 public:
  // Throws std::runtime_error that names the file, and the service or entry point that is missing.
  explicit LoadedModule(const std::string& path);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  bool Init() const { return init() != 0; }
  bool Start(const char* policy) const { return start(policy) != 0; }
  void Stop() const { stop(); }
  void Deinit() const { deinit(); }

 private:
  template <typename Function>
  void Find(Function& function, const char* symbol) const;

  std::string file;
  void* library;
  int (*init)() = nullptr;
  int (*start)(const char*) = nullptr;
  void (*stop)() = nullptr;
  void (*deinit)() = nullptr;
};

// The module that belongs to this agent: beside it, as in a build, or in the library folder of its
// installation. Throws std::runtime_error that names both when neither is there.
std::string FindModule();

#endif  // VELTA_AGENT_MODULE_LOADER_H
