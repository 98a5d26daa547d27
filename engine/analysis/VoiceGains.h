// What part of each bin of a voiced frame is the learned voice's, when another voice may lie over it.
//
//   bands of the frame, background off
//     -> shapes of the learned voice, and of voices in general, that fit under them at some level
//     -> every pair of one and the other, weighed by how well both together explain what is heard
//     -> odds of the learned voice per band, then per bin
//     -> where the period is his, for him at the frame's harmonics and against him between them; where it is
//        not, the other way round
//
// (A spectrum of two talkers explained by pairs of shapes: Roweis, Eurospeech 2003; what of a bin belongs to
// one of two known powers: Wiener.) Bins at the harmonics of the talker's usual period and of the frame's own
// take over the best odds around them before the last step.
#pragma once

#include "engine/analysis/VoiceFrame.h"
#include "engine/analysis/VoiceScorer.h"

class VoiceGains {
 public:
  explicit VoiceGains(const VoiceScorer& learned) : scorer(learned) {}
  // Follows the scorer to another voice. Takes memory beyond the scorer's. Throws std::bad_alloc.
  void learn();
  // Forgets the frame before.
  void pause() { fBefore.fill(0); }
  // 0..1 per bin. fScore: of the frame, see VoiceScorer. iUsualPeriod: the talker's, samples. Frames come in
  // order.
  void shareOfVoice(const sVoiceFrame& frame, float fScore, int iUsualPeriod, std::span<float> fShare);

 private:
  // Logarithms of the odds, natural.
  void oddsOfBands(const sVoiceFrame& frame, BandPower& fOdds) const;

  const VoiceScorer& scorer;
  std::vector<BandPower> shapes;  // of the clusters, logarithms of power
  BandPower fBefore{};            // the odds of the frame before, 0 after a pause
};
