#ifndef VELTA_FUZZ_FUZZ_TARGET_H
#define VELTA_FUZZ_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <string>

// What libFuzzer calls, or replay.cpp in its place.
extern "C" {

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Optional: changes data, of which size bytes of at most maxSize are used, and returns the new size.
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed);

// The fuzzer's own small changes, for a mutator to use.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

}  // extern "C"

inline std::string InputText(const std::uint8_t* data, std::size_t size) {
  return std::string(data, data + size);
}

// Says what is wrong and ends the process: a fuzzer takes that for a crash and keeps the input.
[[noreturn]] void Fail(const std::string& what);

inline void Check(bool right, const char* what) {
  if (!right) {
    Fail(what);
  }
}

#endif  // VELTA_FUZZ_FUZZ_TARGET_H
