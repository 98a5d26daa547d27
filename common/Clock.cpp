#include "common/Clock.h"

#include <atomic>

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;
constexpr std::int64_t kFollowSystem = -1;

std::atomic<std::int64_t> frozenMicroseconds{kFollowSystem};
std::atomic<std::int64_t> dateSetByMicroseconds{0};  // since the clocks were stopped

timeval timevalOf(std::int64_t microseconds) {
  timeval result{};
  result.tv_sec = static_cast<time_t>(microseconds / kMicrosecondsPerSecond);
  result.tv_usec = static_cast<suseconds_t>(microseconds % kMicrosecondsPerSecond);
  return result;
}

}  // namespace

std::time_t Clock::now() {
  const std::int64_t frozen = frozenMicroseconds.load(std::memory_order_relaxed);
  return frozen == kFollowSystem ? std::time(nullptr)
                                 : static_cast<std::time_t>(frozen / kMicrosecondsPerSecond);
}

timeval Clock::timeOfDay() {
  const std::int64_t frozen = frozenMicroseconds.load(std::memory_order_relaxed);
  if (frozen != kFollowSystem) return timevalOf(frozen);
  timeval result{};
  gettimeofday(&result, nullptr);
  return result;
}

timeval Clock::steadyTime() {
  const std::int64_t frozen = frozenMicroseconds.load(std::memory_order_relaxed);
  if (frozen != kFollowSystem)
    return timevalOf(frozen - dateSetByMicroseconds.load(std::memory_order_relaxed));
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  timeval result{};
  result.tv_sec = now.tv_sec;
  result.tv_usec = static_cast<suseconds_t>(now.tv_nsec / 1000);
  return result;
}

std::int64_t Clock::monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void Clock::freezeAt(std::time_t seconds, std::int32_t microseconds) {
  dateSetByMicroseconds = 0;
  frozenMicroseconds = static_cast<std::int64_t>(seconds) * kMicrosecondsPerSecond + microseconds;
}

void Clock::advanceMicroseconds(std::int64_t difference) {
  frozenMicroseconds += difference;
}

void Clock::setDateBy(std::int64_t seconds) {
  dateSetByMicroseconds += seconds * kMicrosecondsPerSecond;
  frozenMicroseconds += seconds * kMicrosecondsPerSecond;
}

void Clock::followSystem() {
  frozenMicroseconds = kFollowSystem;
}
