// What part of each bin of a voiced frame fits the learned voice, when another voice may lie over it.
//
// The clusters are the shapes that the voice can have. Under a second voice the louder of the two stands in
// each band (Roweis, Eurospeech 2003), so that a shape fits when it lies nowhere far above what is heard;
// what is heard far above it is the other's. Bins at the harmonics of the talker's usual period and of the
// frame's own keep what their surroundings keep at best.
#pragma once

#include "engine/analysis/VoiceFrame.h"
#include "engine/analysis/VoiceScorer.h"

class VoiceGains {
 public:
  explicit VoiceGains(const VoiceScorer& learned) : scorer(learned) {}
  // Follows the scorer to another voice.
  void learn();
  // 0..1 per bin. iUsualPeriod: the talker's, samples.
  void shareOfVoice(const sVoiceFrame& frame, int iUsualPeriod, std::span<float> fShare) const;

 private:
  struct sFit {
    const BandPower* pShape = nullptr;
    float fLevel = 0;
    float fMisfit = 1e9F;
  };
  [[nodiscard]] sFit bestFit(const BandPower& heard) const;

  const VoiceScorer& scorer;
  std::vector<BandPower> shapes;  // of the clusters, logarithms
};
