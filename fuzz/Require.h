// What must hold whatever the input: the fuzzer keeps an input for which it does not.
#pragma once

#include <cstdlib>

inline void require(bool holds) {
  if (!holds) std::abort();
}
