// Entry points let no exception out: it is logged, and the operation fails.
#pragma once

#include "app/config/Log.h"

// What the body returns, or the failure value after an exception. function: the writer of the log line.
template <typename Result, typename Body>
[[nodiscard]] Result guarded(const char* function, Result failure, Body body) noexcept {
  try {
    return body();
  } catch (...) {
    Log::error(function, "exception caught");
    return failure;
  }
}
