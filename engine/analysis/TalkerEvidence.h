// Who is talking: the scores of voiced frames gathered into one figure, above 0 for the learned talker.
//
// The scores are summed up as what they are, evidence for one of two talkers, with a bound on either side
// (cumulative sums: Page, Biometrika 41, 1954). What is soon plain is soon decided, and voices that are alike
// are told apart as well, only later; a few frames that say otherwise change nothing. The bound is what lets
// another talker begin. Until something was heard the learned talker is presumed: on his own line he is the
// one to be expected. After a pause another may begin: what was known weighs less then.
#pragma once

#include <algorithm>

class TalkerEvidence {
 public:
  // A voiced frame's score; fWeight 0..1 tells how much it can say.
  void push(float fScore, float fWeight) {
    fValue = std::clamp(fValue + kStep * fWeight * fScore, -kBound, kBound);
    ++iFrames;
    iPause = 0;
  }
  // A frame without voice.
  void pause() {
    if (++iPause < kPauseFrames) return;
    fValue += kForget * (std::clamp(fValue, -kKept, kKept) - fValue);
  }
  [[nodiscard]] float value() const { return fValue; }
  // Frames that stand behind it.
  [[nodiscard]] int frames() const { return iFrames; }

 private:
  // Of a frame's score: larger, and the sounds that one talker makes less often count against him; smaller,
  // and another is heard for longer.
  static constexpr float kStep = 0.075F;
  static constexpr float kBound = 3;
  static constexpr float kPresumed = 0.75F;
  static constexpr int kPauseFrames = 30;  // half a second
  static constexpr float kKept = 2;        // of the bound, after a long pause
  static constexpr float kForget = 0.02F;  // per frame

  float fValue = kPresumed;
  int iFrames = 0;
  int iPause = 0;
};
