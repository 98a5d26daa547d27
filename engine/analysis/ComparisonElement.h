// A cycle prepared for matching: the turning points of the four cycles that begin with it, at levels 6 to 9,
// joined across the cycle borders, and the test whether they come back a distance later.
//
//   passive points   o        o  o      o           of what lies a distance d earlier, at the finer levels
//   active points     \      /    \    /            of the element, at the coarser levels
//   moved back by d    o    o      o  o             a peak must meet a peak, a valley a valley, in order
#pragma once

#include <array>
#include <cstdio>

#include "engine/analysis/Cycle.h"
#include "engine/EngineUnits.h"

class CycleInformation;
class InputData;

inline constexpr int kElementCycles = 4;
inline constexpr int kElementSamples = kElementCycles * kCycleSamples;
inline constexpr int kFluctuationSpan = 320;

struct sElementPoint {
  int iTime = 0;   // sample time
  int iLevel = 0;  // value, in steps of a 49th of the element's spread
  bool bPeak = false;
  bool bSplit = false;  // the swing that leads to it crosses a cycle border
};

struct sElementPoints {
  static constexpr int kCapacity = 128;
  std::array<sElementPoint, kCapacity> asPoint;
  int iCount = 0;

  void add(const sElementPoint& point) {
    if (iCount < kCapacity) asPoint[static_cast<std::size_t>(iCount++)] = point;
  }
  [[nodiscard]] const sElementPoint* begin() const { return asPoint.data(); }
  [[nodiscard]] const sElementPoint* end() const { return asPoint.data() + iCount; }
};

struct sComparisonElement {
  int CycleIndex = -1;
  bool bFirst = false;  // what the other one is compared with
  int iMinFluctuationCalculated = kFluctuationLevels;
  int iStartTime = 0;
  int iMin = 0;   // smallest sample
  int iStep = 1;  // a 49th of the spread
  bool bTooManyPoints = false;
  std::array<sElementPoints, kFluctuationLevels - kFirstAnalysedLevel> asLevel;

  // Takes the four cycles from sample time iTime on, levels from iMinLevel up. The cycles' turning points
  // must still be kept; a cycle without any adds none. The k-th cycle of a voice may have k x 320 /
  // iShortestPeriod points at the lowest level: 320 samples are ten cycles.
  void prepare(const CycleInformation& cycles, bool bIsFirst, int iTime, int iMinLevel, int iShortestPeriod);
  [[nodiscard]] const sElementPoints& level(int iLevel) const {
    return asLevel[static_cast<std::size_t>(iLevel - kFirstAnalysedLevel)];
  }
  void print(std::FILE* pFile) const;

 private:
  void joinCycles(const CycleInformation& cycles);
};

// Whether the points of `active` come back iDistance samples earlier, in `first` or in `active` itself. iMode
// 0 while the level rises, 1 while it falls.
[[nodiscard]] bool pointsRepeat(const sComparisonElement& first, const sComparisonElement& active,
                                const InputData& input, int iDistance, int iMode);
