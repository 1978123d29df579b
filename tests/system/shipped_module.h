#ifndef VELTA_TESTS_SYSTEM_SHIPPED_MODULE_H
#define VELTA_TESTS_SYSTEM_SHIPPED_MODULE_H

#include <memory>
#include <string>

// The shipped module, loaded as an agent loads it, and its four functions. Throws std::runtime_error, with
// what the loader said, when it cannot be loaded or lacks a function.
class ShippedModule {
 public:
  ShippedModule();
  ~ShippedModule() { Unload(); }
  ShippedModule(const ShippedModule&) = delete;
  ShippedModule& operator=(const ShippedModule&) = delete;

  int (*initModule)() = nullptr;
  int (*startModule)(const char*) = nullptr;
  void (*stopModule)() = nullptr;
  void (*deinitModule)() = nullptr;

  // As an agent does before an unload, drops the recording host's copies of the module's rules: their
  // callbacks are the module's code.
  void Unload();

 private:
  struct Close {
    void operator()(void* library) const;
  };

  std::unique_ptr<void, Close> handle;
};

// A policy that has the detection on.
constexpr char detectionOn[] = R"({"unauthorized-root-user": {}})";

// Where the module lies.
std::string ModulePath();

#endif  // VELTA_TESTS_SYSTEM_SHIPPED_MODULE_H
