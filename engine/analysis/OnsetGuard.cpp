#include "engine/analysis/OnsetGuard.h"

#include <algorithm>

#include "engine/analysis/SpectralRise.h"

namespace {

// All lengths in cycles of 4 ms.
// Shorter: holes where the syllables of a word sink into noise, which cost intelligibility (120 for 240 ms:
// 0.004 of STOI and 0.5 dB of the weak frames). Longer: noise after every word.
constexpr int kHoldCycles = 60;
constexpr int kTailCycles = 30;
constexpr int kPresumedCycles = 30;  // as long as an initial consonant lasts
constexpr int kLatchCycles = 3;      // the rise of a consonant is ragged
constexpr int kQuietCycles = 5;

// Scores of SpectralRise, which tells how often steady noise reaches them.
constexpr float kTail = 0.085F;
constexpr float kRisen = 0.155F;

// Spreads below this are no speech, whatever the background.
constexpr int kLeastSpread = 100;

}  // namespace

bool OnsetGuard::presume(const sCycle& cycle) {
  if (cycle.iSpread < kLeastSpread) return false;
  // Rumble begins to repeat in every tenth of a second.
  const bool bMayRepeat = cycle.bUnknownBackground || cycle.fRise >= SpectralRise::kQuiet;
  if (cycle.fRise >= kRisen || (cycle.bRepeating && bMayRepeat)) iLatch = kLatchCycles;
  return iLatch-- > 0;
}

OnsetGuard::Verdict OnsetGuard::judge(const sCycle& cycle) {
  if (cycle.bInSegment) {
    *this = OnsetGuard{};
    iHold = kHoldCycles;
    iTail = kTailCycles;
    return Verdict::kKept;
  }
  iQuiet = cycle.iSpread >= kLeastSpread && cycle.fRise >= kTail ? 0 : iQuiet + 1;
  if (iHold > 0) {
    --iHold;
    return Verdict::kKept;
  }
  if (iTail > 0 && iQuiet < kQuietCycles) {
    --iTail;
    return Verdict::kKept;
  }
  iTail = 0;
  if (iQuiet >= kQuietCycles) {
    bArmed = true;
    iPresumed = 0;
  }
  iLatch = std::max(iLatch, 0);
  if (!bArmed || !presume(cycle)) return Verdict::kSilence;
  if (++iPresumed >= kPresumedCycles) bArmed = false;
  return Verdict::kPresumed;
}
