// Levels of the microphone cycle by cycle: amplitudes, the rise against what was before, clipping, and
// whether the microphone is quiet or active.
#pragma once

#include <cstdint>

#include "engine/aec/AecTypes.h"

class MyChannel;

class MicLevels {
 public:
  void clean(const MyChannel* pMicChannel);

  // Amplitudes, trackers, microphone start and clipping of the cycle.
  void measure(sAecCycle& now) const;
  // Copies the cycle's samples and renews the level flags. The talk score is that of the cycle before.
  void cacheMicValues(sAecCycle& now);
  // The rise of the amplitude over its running average.
  void updateRise(sAecCycle& now);

  [[nodiscard]] std::int64_t trackedPower() const { return lTrackedMic; }

 private:
  const MyChannel* pChannel = nullptr;
  int iAverageAmp = 1;
  std::int64_t lTrackedMic = 0;   // power (amplitude squared) while the microphone carries something
  std::int64_t lTrackedEcho = 0;  // the same while it carries echo alone
};
