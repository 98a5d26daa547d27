// Who is talking: the scores of voiced frames gathered into one figure, above 0 for the learned talker.
//
// A frame says little, so that the mean over the latest two thirds of a second of voiced sound decides; a run
// of a sixth of a second that says plainly otherwise wins over it. Until something was heard, and a little
// ever after, the learned talker is presumed: on his own line he is the one to be expected. What is known
// outlasts pauses, but weighs less after them: another one may begin.
#pragma once

#include <algorithm>

class TalkerEvidence {
 public:
  // A voiced frame's score; fWeight 0..1 tells how much it can say.
  void push(float fScore, float fWeight) {
    fSum += fWeight * (fScore - fSum / kSlowFrames);
    fFrames += fWeight * (1 - fFrames / kSlowFrames);
    fFastCount = std::min(fFastCount + fWeight, kFastFrames);
    fFast += fWeight * (fScore - fFast) / std::max(fFastCount, 1.0F);
    iPause = 0;
  }
  // A frame without voice.
  void pause() {
    if (++iPause < kPauseFrames || fFrames <= kKeptFrames) return;
    fSum *= kForget;
    fFrames *= kForget;
    fFastCount = 0;
  }
  [[nodiscard]] float value() const {
    const float fMean = (fSum + kPresumedFrames * kPresumed) / (fFrames + kPresumedFrames);
    if (fFastCount < kFastFrames) return fMean;
    return std::clamp(fMean, fFast - kDissent, fFast + kDissent);
  }
  // Frames that stand behind it, up to 40.
  [[nodiscard]] float frames() const { return fFrames; }

 private:
  static constexpr float kSlowFrames = 40;  // of 16 ms
  static constexpr float kFastFrames = 10;
  static constexpr float kDissent = 1.0F;
  static constexpr float kPresumed = 0.8F;
  static constexpr float kPresumedFrames = 6;
  static constexpr int kPauseFrames = 30;   // half a second
  static constexpr float kKeptFrames = 12;  // that remain of what was known before a long pause
  static constexpr float kForget = 0.98F;

  float fSum = 0;
  float fFrames = 0;
  float fFast = 0;
  float fFastCount = 0;
  int iPause = 0;
};
