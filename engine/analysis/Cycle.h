// The engine's analysis unit: a cycle of 32 samples at 8 kHz (4 ms), and the turning points of its waveform.
//
// Turning points are the peaks and valleys that remain when swings smaller than a threshold are ignored. A
// cycle is described at several thresholds, each a percentage of its amplitude: the higher the level, the
// coarser the picture.
//
//          o                 level 6 sees all six points,
//    o    / \        o       level 9 only the two ends
//   / \  /   \  o   /        of the largest swing
//      \/     \/ \_/
#pragma once

#include <array>
#include <cstdint>

// Index of a cycle in the ring of 726.
using cHandle = int;

inline constexpr int kFluctuationLevels = 10;
inline constexpr int kFirstAnalysedLevel = 6;  // lower levels hold the noise on the waveform
// A range of n samples has fewer than n turning points.
inline constexpr int kCycleTurningPoints = 32;

// One turning point. Indexes are sample times at the first analysed level; at the levels above they count the
// points of the level below.
struct sTurningPoint {
  std::int32_t toidx = 0;    // where it is
  std::int16_t lval = 0;     // its value
  std::int32_t fthresh = 0;  // where the swing toward it first reached the threshold
  std::int32_t lthresh = 0;  // last index of that swing within the threshold of it
  std::int32_t efi = 0;      // first index of its plateau, from the third point on
  std::int32_t eti = 0;      // last index of its plateau, inner points only
};

template <int kCapacity>
struct sTurningPoints {
  std::int32_t threshold = 0;
  bool startingup = false;  // direction of the first confirmed swing
  std::int16_t nsegments = 0;
  // The extreme before the first turning point, and the one still open at the end of the range.
  std::array<std::int16_t, 2> ExtremeVals{};
  std::array<std::int32_t, 2> ExtremeIdx{};
  std::array<sTurningPoint, kCapacity> points;
};

using sFluctuationInformation = sTurningPoints<kCycleTurningPoints>;

struct sCycleInformation {
  std::int16_t max = 0;
  std::int16_t min = 0;
  std::int32_t StartIndex = 0;  // sample time of the first sample
  std::int32_t EndIndex = 0;    // StartIndex + 31
  std::int32_t Amp = 0;         // max - min, never 0
  std::int16_t step = 0;        // Amp / 49, at least 1
  std::int16_t MeanVal = 0;     // mean of the turning values of the first analysed level
  std::int16_t NMeanCross = 0;  // crossings of MeanVal by consecutive turning values
  // Levels 6 to 9, or null; valid for the 32 most recent cycles.
  const sFluctuationInformation* fluctuations = nullptr;
  bool bInVerb = false;      // set by the segment detector
  bool bInSelfVerb = false;  // of a periodic, speech-like stretch
  bool bInGoodVerb = false;  // of a stretch that belongs to the channel's own voice
  bool bPresumed = false;    // written as speech, though no verb has confirmed it
  float fRise = 0;           // by how much, from here on (SpectralRise); known when the cycle is written
  bool bTone = false;        // a DTMF digit was present
};
