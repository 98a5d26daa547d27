// One frame of 8 cycles of a channel's signal, as learning and telling voices apart see it.
#pragma once

#include "engine/analysis/Cycle.h"
#include "engine/analysis/VoiceEnvelope.h"

class MyChannel;

inline constexpr int kVoiceFrameCycles = 8;
inline constexpr int kVoiceHopCycles = 4;  // frames follow one another by half their length

struct sVoiceFrame {
  int iEndTime = -1;  // sample time of its last sample
  int iAmp = 0;       // spread of its samples
  float fAlpha = 0;   // how well it repeats, 1 perfectly
  int iPeriod = 0;    // at this distance, samples; 0 when it does not
  bool bVoiced = false;
  float fPower = 0;  // mean square
  std::array<float, kEnvelopeBins> fBinPower{};
  std::array<float, kEnvelopeBins> fBackground{};  // power of the noise, by estimate
  sEnvelope envelope{};
};

// The frame that ends with a cycle, from the analysis samples, which must be in the ring.
void analyseVoiceFrame(const MyChannel& channel, cHandle last, sVoiceFrame& frame);
