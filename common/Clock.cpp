#include "common/Clock.h"

#include <atomic>

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t kFollowSystem = -1;

std::atomic<std::int64_t> frozenMicroseconds{kFollowSystem};

}  // namespace

std::time_t Clock::now() {
  const std::int64_t frozen = frozenMicroseconds.load(std::memory_order_relaxed);
  return frozen == kFollowSystem ? std::time(nullptr)
                                 : static_cast<std::time_t>(frozen / kMicrosecondsPerSecond);
}

timeval Clock::timeOfDay() {
  timeval result{};
  const std::int64_t frozen = frozenMicroseconds.load(std::memory_order_relaxed);
  if (frozen == kFollowSystem) {
    gettimeofday(&result, nullptr);
  } else {
    result.tv_sec = static_cast<time_t>(frozen / kMicrosecondsPerSecond);
    result.tv_usec = static_cast<suseconds_t>(frozen % kMicrosecondsPerSecond);
  }
  return result;
}

std::int64_t Clock::monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void Clock::freezeAt(std::time_t seconds, std::int32_t microseconds) {
  frozenMicroseconds = static_cast<std::int64_t>(seconds) * kMicrosecondsPerSecond + microseconds;
}

void Clock::advanceMicroseconds(std::int64_t difference) {
  frozenMicroseconds += difference;
}

void Clock::followSystem() {
  frozenMicroseconds = kFollowSystem;
}
