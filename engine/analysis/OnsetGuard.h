// The benefit of the doubt. The segment detector needs several repetitions before it is sure of a voice, and
// by then the word's beginning would have been written as silence; consonants never repeat at all. So, when a
// cycle is about to be written, this guard may still mark it as speech:
//
//         presumed      segment             hold   tail
//        /--------\/---------------------\/-----\/-----\      .
//   ____/  s  e  v  e  n                         \ t   \______
//
//   presumed  the spectrum has risen above the background, or first repetitions are there; for 120 ms at
//   most,
//             then only after quiet again: a machine that starts to hum must not pass for long
//   hold      after a segment, whatever the level: bridges the gaps between segments of one word
//   tail      while the spectrum stays above the background: final consonants
#pragma once

class OnsetGuard {
 public:
  struct sCycle {
    bool bInSegment = false;          // written as speech anyway
    bool bRepeating = false;          // an examined stretch covers it and has begun to repeat
    int iSpread = 0;                  // four cycles from this one on
    bool bUnknownBackground = false;  // the stream has just begun, perhaps in the middle of a word
    float fRise = 0;  // SpectralRise score from this cycle on, as far as the delay lets it see
  };
  enum class Verdict { kSilence, kPresumed, kKept };

  // Judges cycles in the order in which they are written.
  [[nodiscard]] Verdict judge(const sCycle& cycle);
  // Whether a loud stretch without repetition is still given the benefit of the doubt.
  [[nodiscard]] bool mayPresume() const { return bArmed; }

 private:
  [[nodiscard]] bool presume(const sCycle& cycle);

  int iHold = 0;
  int iTail = 0;
  int iLatch = 0;
  int iPresumed = 0;
  int iQuiet = 0;
  bool bArmed = true;
};
