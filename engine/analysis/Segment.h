// Segments: stretches of the signal that the detector has judged.
#pragma once

#include <array>

#include "engine/analysis/Cycle.h"
#include "engine/analysis/SpeakerData.h"

enum POTENTIAL_SEGMENT_TYPE {
  kUnsettled = 0,
  kSelfVerb = 2,          // cycles repeat at a stable period: voiced speech
  kOtherVerb = 3,         // loud without repetition, outside a burst
  kOtherVerbInBurst = 4,  // the same inside a burst: a consonant, kept with it
};

// A range of distances, in samples at 8 kHz, at which the waveform may repeat.
struct sWindow {
  int iNear = 0;
  int iFar = 0;
  bool bDoubling = false;  // its bounds are twice those of a nearer window

  [[nodiscard]] int middle() const { return (iNear + iFar) / 2; }
};

inline constexpr int kMaxWindows = 16;
struct sWindows {
  std::array<sWindow, kMaxWindows> asWindow;
  int iCount = 0;

  // Windows beyond the sixteenth, the farthest ones, are not kept.
  void add(const sWindow& window) {
    if (iCount < kMaxWindows) asWindow[static_cast<std::size_t>(iCount++)] = window;
  }
  [[nodiscard]] const sWindow* begin() const { return asWindow.data(); }
  [[nodiscard]] const sWindow* end() const { return asWindow.data() + iCount; }
};

// One accepted repetition.
struct sMatch {
  cHandle cycle = 0;
  int iNear = 0;  // bounds of the period, samples
  int iFar = 0;
  int iDrift = 0;         // how far the next period may differ, samples
  int iAmp = 0;           // spread of the matched cycles
  int iReferenceAmp = 0;  // spread of the cycles they repeat
  bool bArtificial = false;
  bool bDoubled = false;  // revocable: about twice or half the segment's first period
  bool bResized = false;  // revocable: the two amplitudes have little in common

  [[nodiscard]] int period() const { return (iNear + iFar) / 2; }
};

inline constexpr int kMaxMatches = 100;

struct sSegment {
  static constexpr int kMaxSchemas = 20;

  int iIdentity = 0;  // counts the segments of a stream
  POTENTIAL_SEGMENT_TYPE type = kUnsettled;
  cHandle first = 0;
  cHandle last = 0;
  int iStartTime = 0;  // sample times of its first and last sample
  int iEndTime = 0;
  std::array<sMatch, kMaxMatches> asMatch;
  int iNumMatches = 0;
  int iAmp = 0;        // largest spread of four cycles
  bool bGood = false;  // belongs to the channel's own voice
  bool bExaminedForNoise = false;
  int iWinner = -1;  // the learned template that it matched best

  // What a registration learns from it.
  bool bHasHistogram = false;
  MyFilters::Histogram histogram{};
  std::array<sFftSchemaType, kMaxSchemas> asSchema{};
  int iSchemas = 0;

  [[nodiscard]] const sMatch& lastMatch() const { return asMatch[static_cast<std::size_t>(iNumMatches - 1)]; }
  [[nodiscard]] sMatch& lastMatch() { return asMatch[static_cast<std::size_t>(iNumMatches - 1)]; }
  [[nodiscard]] bool contains(int iTime) const { return iTime >= iStartTime && iTime <= iEndTime; }
};
