// Percentiles as the load programs print them.
#pragma once

#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench/LoadSocket.h"

// ,"name":{"p50":...} in microseconds.
inline void printDelays(const char* name, std::vector<Nanoseconds> delays) {
  std::sort(delays.begin(), delays.end());
  const auto at = [&](double share) {
    if (delays.empty()) return 0.0;
    const auto place = static_cast<std::size_t>(static_cast<double>(delays.size() - 1) * share + 0.5);
    return static_cast<double>(delays[place]) / 1000;
  };
  std::printf(R"(,"%s":{"p50":%.1f,"p99":%.1f,"p999":%.1f,"max":%.1f})", name, at(0.5), at(0.99), at(0.999),
              at(1));
}
