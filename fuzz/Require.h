// What must hold whatever the input: the fuzzer keeps an input for which it does not.
#pragma once

#include <cstdio>
#include <cstdlib>

// Defaults: where the call stands (clang 14 has no std::source_location).
inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (holds) return;
  std::fprintf(stderr, "%s:%d does not hold\n", file, line);
  std::abort();
}
