// Runs a fuzz target over files and folders of files, where there is no fuzzer: any compiler, any target.
// With --changes N each file is also run N times as the target's own mutator changes it, the same way every
// time.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_target.h"

extern "C" __attribute__((weak)) std::size_t LLVMFuzzerCustomMutator(std::uint8_t*, std::size_t, std::size_t,
                                                                     unsigned);

// A plain stand-in for the fuzzer's own changes.
std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t /*maxSize*/) {
  if (size > 0) {
    data[size / 2] = static_cast<std::uint8_t>(data[size / 2] + 1);
  }
  return size;
}

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t largestInput = 4096;

Bytes ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  Bytes bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file.is_open() || file.bad()) {
    throw std::runtime_error("cannot read " + path.string());
  }
  return bytes;
}

std::vector<std::filesystem::path> FilesIn(const std::filesystem::path& path) {
  if (!std::filesystem::is_directory(path)) {
    return {path};
  }
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

void Run(const Bytes& bytes) { LLVMFuzzerTestOneInput(bytes.data(), bytes.size()); }

// Each change starts from the last one, so that a file grows into many.
unsigned long RunChanged(Bytes bytes, unsigned changes) {
  const std::size_t size = bytes.size();
  const Bytes original = bytes;
  for (unsigned change = 1; change <= changes; ++change) {
    if (change % 32 == 0) {
      bytes = original;
    }
    const std::size_t used = std::min(bytes.size(), largestInput);
    bytes.resize(largestInput);
    const unsigned seed = change + 1000003 * static_cast<unsigned>(size);
    bytes.resize(LLVMFuzzerCustomMutator(bytes.data(), used, largestInput, seed));
    Run(bytes);
  }
  return changes;
}

int Replay(const std::vector<std::string>& arguments) {
  unsigned changes = 0;
  unsigned long runs = 0;
  std::vector<std::filesystem::path> files;
  for (std::size_t at = 0; at < arguments.size(); ++at) {
    if (arguments[at] == "--changes" && at + 1 < arguments.size()) {
      changes = static_cast<unsigned>(std::stoul(arguments[++at]));
    } else {
      const auto found = FilesIn(arguments[at]);
      files.insert(files.end(), found.begin(), found.end());
    }
  }
  if (files.empty() || (changes > 0 && LLVMFuzzerCustomMutator == nullptr)) {
    std::fprintf(stderr, files.empty() ? "no files to run\n" : "this target does not change files\n");
    return 2;
  }
  for (const std::filesystem::path& path : files) {
    std::fprintf(stderr, "%s\n", path.filename().c_str());  // the last one printed is the one that failed
    const Bytes bytes = ReadFile(path);
    Run(bytes);
    runs += 1 + RunChanged(bytes, changes);
  }
  std::fprintf(stderr, "%lu inputs\n", runs);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Replay(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& fault) {
    std::fprintf(stderr, "%s\n", fault.what());
    return 1;
  }
}
