#include "fuzz/fuzz_target.h"

#include <cstdio>
#include <cstdlib>

void Fail(const std::string& what) {
  std::fprintf(stderr, "FAULT: %s\n", what.c_str());
  std::abort();
}
