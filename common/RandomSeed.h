// The seed of the standard random generator, which draws Call-IDs, tags and branches.
#pragma once

#include <unistd.h>

#include "common/Clock.h"

// The current time, and the process: two instances that start at the same moment draw different ones.
inline unsigned randomSeed() {
  const timeval now = Clock::timeOfDay();
  constexpr unsigned kMicroseconds = 1'000'000;
  return static_cast<unsigned>(now.tv_sec) * kMicroseconds + static_cast<unsigned>(now.tv_usec) +
         static_cast<unsigned>(getpid()) * 2'654'435'761U;  // spread over all bits (Knuth, volume 3, 6.4)
}
