// Adding to counters of calls that may last for days: they stop at the largest value instead of overflowing.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>

#include "common/Relaxed.h"

inline void addSaturated(Relaxed<int>& counter, int amount) {
  const std::int64_t sum = std::int64_t{counter.load()} + amount;
  counter = static_cast<int>(std::min<std::int64_t>(sum, std::numeric_limits<int>::max()));
}
