// Breathing voice: a loudspeaker signal of low frequencies alone, as a breath on the far microphone makes it.
// It tells nothing about the echo path, so nothing is learnt from it.
#pragma once

#include <array>

#include "engine/aec/AecTypes.h"
#include "engine/aec/LaneTransform.h"
#include "engine/aec/SpeakerHistory.h"

class BreathingDetector {
 public:
  void clean();
  // Examines the loudspeaker samples iFrom .. iTo, at most 4000.
  void checkBreathingVoiceInSpeaker(sAecCycle& now, const SpeakerHistory& speaker, int iFrom, int iTo);

 private:
  static constexpr int kChunk = 256;
  [[nodiscard]] bool isLow(std::size_t uLane) const;

  int iHoldEnd = kNever;
  int iNextCheck = 0;
  lanes::Signal<1> signal;
  lanes::Spectrum<1> spectrum;
};
