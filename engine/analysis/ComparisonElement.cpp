#include "engine/analysis/ComparisonElement.h"

#include <algorithm>
#include <cstdlib>

#include "engine/analysis/CycleInformation.h"
#include "engine/analysis/FirstScan.h"
#include "engine/analysis/MyMath.h"
#include "engine/InputData.h"

namespace {

constexpr int kSteps = 49;

// The points of the finer level between which the waveform swings by iThreshold steps or more, the last one
// still open.
void keepSwings(const sElementPoints& finer, int iThreshold, sElementPoints& coarser) {
  coarser.iCount = 0;
  const sElementPoint* pLow = nullptr;
  const sElementPoint* pHigh = nullptr;
  int iDirection = 0;
  for (const sElementPoint& point : finer) {
    if (pLow == nullptr || point.iLevel < pLow->iLevel) pLow = &point;
    if (pHigh == nullptr || point.iLevel > pHigh->iLevel) pHigh = &point;
    const bool bRises = iDirection <= 0 && point.iLevel - pLow->iLevel >= iThreshold;
    const bool bFalls = iDirection >= 0 && pHigh->iLevel - point.iLevel >= iThreshold;
    if (!bRises && !bFalls) continue;
    coarser.add(bRises ? *pLow : *pHigh);
    iDirection = bRises ? 1 : -1;
    pLow = pHigh = &point;
  }
  if (iDirection != 0) coarser.add(iDirection > 0 ? *pHigh : *pLow);
}

// The point of `passive` that the active one meets when it is moved back: of its kind, behind the point met
// before, within the drift; the nearest of them, or null.
const sElementPoint* partnerOf(const sElementPoint& active, int iDistance, int iDrift, int iAfter,
                               const sElementPoints& passive) {
  const sElementPoint* pBest = nullptr;
  int iNearest = iDrift + 1;
  for (const sElementPoint& point : passive) {
    const int iAway = std::abs(point.iTime - (active.iTime - iDistance));
    if (point.bPeak != active.bPeak || point.iTime <= iAfter || iAway >= iNearest) continue;
    pBest = &point;
    iNearest = iAway;
  }
  return pBest;
}

int levelOf(const sComparisonElement& element, int iSample) {
  return (iSample - element.iMin) / element.iStep;
}

int pointsThatMeet(const sComparisonElement& first, const sComparisonElement& active, int iDistance,
                   int iDrift, int iActiveLevel, int iPassiveLevel) {
  int iMet = 0;
  int iAfter = -1;
  int iLastLevel = -kSteps;
  for (const sElementPoint& point : active.level(iActiveLevel)) {
    if (point.bSplit && !FirstScan::pbNeedToMatchSplitSegment[static_cast<std::size_t>(iActiveLevel)])
      continue;
    const int iLeast =
        FirstScan::ppiMinLevelDiffPerActiveFluctuationForMatching[static_cast<std::size_t>(iActiveLevel)];
    if (std::abs(point.iLevel - iLastLevel) < iLeast) continue;
    const sElementPoint* pMet = partnerOf(point, iDistance, iDrift, iAfter, first.level(iPassiveLevel));
    if (pMet == nullptr) pMet = partnerOf(point, iDistance, iDrift, iAfter, active.level(iPassiveLevel));
    if (pMet == nullptr) continue;
    ++iMet;
    iAfter = pMet->iTime;
    iLastLevel = point.iLevel;
  }
  return iMet;
}

// The waveform stands at about the same level where both stretches begin, and where they end.
bool edgesAgree(const sComparisonElement& active, const InputData& input, int iDistance, int iMode) {
  const int iMost = FirstScan::piMaxDiffLevelBetweenCycleEdges[static_cast<std::size_t>(iMode)];
  for (const int iTime : {active.iStartTime, active.iStartTime + kElementSamples - 1}) {
    if (iTime < iDistance) return false;
    const int iHere = levelOf(active, input.at(iTime));
    if (std::abs(iHere - levelOf(active, input.at(iTime - iDistance))) > iMost) return false;
  }
  return true;
}

}  // namespace

void sComparisonElement::prepare(const CycleInformation& cycles, bool bIsFirst, int iTime, int iMinLevel,
                                 int iShortestPeriod) {
  const cHandle last = cycles.cycleOf(iTime + kElementSamples - 1);
  const sRange range = cycles.calcMinMax(last, kElementCycles);
  CycleIndex = cycles.cycleOf(iTime);
  bFirst = bIsFirst;
  iMinFluctuationCalculated = iMinLevel;
  iStartTime = iTime;
  iMin = range.iLow;
  iStep = std::max(1, range.spread() / kSteps);
  bTooManyPoints = false;
  joinCycles(cycles);
  for (std::size_t i = 1; i < asLevel.size(); ++i) {
    const int iPercent = CycleInformation::piThresholdPercent[kFirstAnalysedLevel + i];
    keepSwings(asLevel[i - 1], kSteps * iPercent / 100, asLevel[i]);
  }
  for (int n = 0; n < kElementCycles; ++n) {
    const cHandle c = cycles.cycleOf(iTime + n * kCycleSamples);
    const sFluctuationInformation* pLevels = c >= 0 ? cycles.at(c).fluctuations : nullptr;
    bTooManyPoints |=
        pLevels != nullptr && pLevels[0].nsegments > (n + 1) * kFluctuationSpan / iShortestPeriod;
  }
}

// A cycle's last extreme is still open where it ends; what follows tells whether it was a turning point.
void sComparisonElement::joinCycles(const CycleInformation& cycles) {
  sElementPoints& points = asLevel[0];
  points.iCount = 0;
  const sFluctuationInformation* pBefore = nullptr;
  sElementPoint open;
  for (int n = 0; n < kElementCycles; ++n) {
    const cHandle c = cycles.cycleOf(iStartTime + n * kCycleSamples);
    const sFluctuationInformation* pNow = c >= 0 ? cycles.at(c).fluctuations : nullptr;
    if (pNow == nullptr || pNow->nsegments == 0) continue;
    bool bKeepsFirst = true;
    if (pBefore != nullptr) {
      const auto piStays = MyMath::analyzeConnectionBetweenTwoCycles1(*pBefore, *pNow);
      const int iFirstLevel = levelOf(*this, pNow->points[0].lval);
      const bool bSameKind = open.bPeak != pNow->startingup;
      const bool bFurther = open.bPeak ? open.iLevel > iFirstLevel : open.iLevel < iFirstLevel;
      if (piStays[0] < 0 && points.iCount > 0) --points.iCount;
      if (!bSameKind || bFurther) points.add(open);
      bKeepsFirst = piStays[1] >= 0 && !(bSameKind && bFurther);
    }
    for (int k = bKeepsFirst ? 0 : 1; k < pNow->nsegments; ++k) {
      const sTurningPoint& point = pNow->points[static_cast<std::size_t>(k)];
      points.add({.iTime = point.toidx,
                  .iLevel = levelOf(*this, point.lval),
                  .bPeak = (k % 2 == 0) != pNow->startingup,
                  .bSplit = k == 0 && n > 0});
    }
    open = {.iTime = pNow->ExtremeIdx[1],
            .iLevel = levelOf(*this, pNow->ExtremeVals[1]),
            .bPeak = (pNow->nsegments % 2 == 0) != pNow->startingup,
            .bSplit = true};
    pBefore = pNow;
  }
  if (pBefore != nullptr) points.add(open);
}

void sComparisonElement::print(std::FILE* pFile) const {
  std::fprintf(pFile, "Prepared the following comparison element:\n");
  std::fprintf(pFile, "CycleIndex=%d First=%s MinFluctuationCalculated=%d\n", CycleIndex,
               bFirst ? "true" : "false", iMinFluctuationCalculated);
}

bool pointsRepeat(const sComparisonElement& first, const sComparisonElement& active, const InputData& input,
                  int iDistance, int iMode) {
  const auto uMode = static_cast<std::size_t>(iMode);
  const int iDrift =
      std::max(FirstScan::iMinDrift, iDistance * FirstScan::piMaxDriftInNumSamplesInCycle[uMode] / 100);
  if (!edgesAgree(active, input, iDistance, iMode)) return false;
  for (std::size_t i = 0; i < static_cast<std::size_t>(FirstScan::piNumFluctuationsToMatch[uMode]); ++i) {
    const int iActive = FirstScan::ppiActiveCycleThresholdIndexForMatching[uMode][i];
    const int iPassive = FirstScan::ppiPassiveCycleThresholdIndexForMatching[uMode][i];
    const int iNeeded = FirstScan::piMinNumFluctuationsToMatch[static_cast<std::size_t>(iActive)];
    if (pointsThatMeet(first, active, iDistance, iDrift, iActive, iPassive) < iNeeded) return false;
  }
  return true;
}
