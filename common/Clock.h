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
  // For durations that a setting of the date must neither lengthen nor shorten: runs on while the machine
  // sleeps, too. Its zero means nothing.
  static timeval steadyTime();
  // Nanoseconds on a clock that is never set, also for tests.
  static std::int64_t monotonicNanoseconds();

  // Tests only: stop the clocks at the given time, let time pass (also backwards), set the date by so much
  // while no time passes, give the clocks back to the system.
  static void freezeAt(std::time_t seconds, std::int32_t microseconds = 0);
  static void advanceMicroseconds(std::int64_t difference);
  static void advanceSeconds(std::int64_t difference) { advanceMicroseconds(difference * 1'000'000); }
  static void setDateBy(std::int64_t seconds);
  static void followSystem();
};
