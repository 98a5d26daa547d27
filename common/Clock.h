// The one source of time. Production code asks here for wall-clock seconds, time of day and elapsed time; a
// test sets the clock and moves it, so that a rule about 60 seconds is tested in a millisecond. Every call is
// safe from any thread and from signal handlers.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/time.h>

class Clock {
 public:
  // Wall-clock time in whole seconds since the epoch.
  static std::time_t now();
  // Wall-clock time with microseconds, as gettimeofday gives it.
  static timeval timeOfDay();
  // Nanoseconds on a clock that is never set, for measuring durations.
  static std::int64_t monotonicNanoseconds();

  // Tests only: stop the wall clock at the given time, move it (also backwards), give it back to the system.
  static void freezeAt(std::time_t seconds, std::int32_t microseconds = 0);
  static void advanceMicroseconds(std::int64_t difference);
  static void advanceSeconds(std::int64_t difference) { advanceMicroseconds(difference * 1'000'000); }
  static void followSystem();
};
