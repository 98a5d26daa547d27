// Does a cycle repeat what lies a period earlier?
#include <algorithm>
#include <cstdlib>
#include <optional>

#include "engine/analysis/FirstScan.h"
#include "engine/MyChannel.h"

namespace {

// Scores from which on the signal counts as repeating: over the element alone, and over twice its length,
// which noise has half the chance to imitate. While the level falls, a voice dies away evenly and the long
// comparison alone is trusted further.
struct sThresholds {
  float fShort;
  float fLong;
};
constexpr sThresholds kGoingUp{0.70F, 0.52F};
constexpr sThresholds kGoingDown{0.75F, 0.48F};

// A repetition is a peak that stands out from a valley at a shorter distance. Rumble has no such valley: it
// resembles itself at every short distance.
constexpr float kPeakAboveValley = 0.30F;
// Distances whose score comes this close to the best one are candidates: multiples of the period among them.
constexpr float kOfBest = 0.88F;

constexpr int kSameDistance = 5;   // samples between bounds that mean the same
constexpr int kMergeDistance = 8;  // samples between windows that belong together
constexpr int kLagBounds = 1;      // a score at 4 kHz stands for its distance and the samples beside it

constexpr int kMaxSizeRatio = 3;

void markCandidates(const std::array<float, PitchComparator::sScores::kLags>& fScores, float fThreshold,
                    std::array<bool, PitchComparator::kMaxPeriod + 3>& candidates) {
  constexpr int kFirst = PitchComparator::kMinPeriod / 2;
  constexpr int kLast = PitchComparator::kMaxPeriod / 2;
  const float fBest = *std::max_element(fScores.begin() + kFirst, fScores.begin() + kLast + 1);
  if (fBest < fThreshold) return;
  const float fAtLeast = std::max(fThreshold, kOfBest * fBest);
  float fValley = *std::min_element(fScores.begin() + 2, fScores.begin() + kFirst);
  for (int iLag = kFirst; iLag <= kLast; ++iLag) {
    const auto u = static_cast<std::size_t>(iLag);
    fValley = std::min(fValley, fScores[u]);
    const bool bPeak = fScores[u] >= fScores[u - 1] && fScores[u] >= fScores[u + 1];
    if (!bPeak || fScores[u] < fAtLeast || fScores[u] - fValley < kPeakAboveValley) continue;
    for (int d = 2 * iLag - kLagBounds; d <= 2 * iLag + kLagBounds; ++d)
      candidates[static_cast<std::size_t>(d)] = true;
  }
}

// What two windows share; of windows a few samples apart the gap between them.
std::optional<sWindow> intersection(const sWindow& a, const sWindow& b) {
  const int iNear = std::max(a.iNear, b.iNear);
  const int iFar = std::min(a.iFar, b.iFar);
  if (iNear - iFar >= kSameDistance) return std::nullopt;
  return sWindow{std::min(iNear, iFar), std::max(iNear, iFar), a.bDoubling};
}

}  // namespace

// ---- Acceptance of a cycle

// A quiet or slowly swinging cycle says less, so it has to repeat over more cycles.
int FirstScan::requiredMatches(int iTime) const {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const sCycleInformation& cycle = cycles.at(cycles.cycleOf(iTime));
  if (cycle.fluctuations == nullptr) return 1;
  int iRequired = cycle.fluctuations[iIndexOfA1Fluctuation - kFirstAnalysedLevel].nsegments <= 1 ||
                          tooManyFluctuations(iTime)
                      ? 2
                      : 1;
  for (int k = 1; k < kElementCycles; ++k) {
    if (spreadFrom(iTime, k) < pMyChannel->iMinAmplitudeForPotentialSegment) {
      iRequired = std::max(iRequired, k + 1);
    }
  }
  return iRequired;
}

bool FirstScan::tooManyFluctuations(int iTime) const {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const sCycleInformation& cycle = cycles.at(cycles.cycleOf(iTime));
  constexpr int kLevel = iIndexOfA2Fluctuation - kFirstAnalysedLevel;
  return cycle.fluctuations != nullptr && cycle.fluctuations[kLevel].nsegments >
                                              kFluctuationSpan / pMyChannel->psSpeakerData->shortestPeriod();
}

bool FirstScan::cycleParametersMatchSegment(int iTime, int iSpread, int iRequired, sSegment* pSegment) {
  if (pSegment->iNumMatches >= kMaxMatches) return false;
  if (bGoingDown) {
    if (iSpread * 100 > iSpreadAtTurn * 116) return false;
  } else if (pSegment->iNumMatches > 0) {
    if (iSpread > 2 * iReferenceSpread) return false;
    if (iSpread < iReferenceSpread - iSpread * 16 / 100) {
      bGoingDown = true;
      iSpreadAtTurn = iSpread;
    }
  }
  if (cycleFluctuationsMatchSegment(iTime, iRequired, pSegment)) {
    if (!bGoingDown) iReferenceSpread = std::max(iReferenceSpread, iSpread);
    return true;
  }
  bGoingDown = false;
  return false;
}

bool FirstScan::cycleFluctuationsMatchSegment(int iTime, int iRequired, sSegment* pSegment) {
  sWindows windows = windowsOf(iTime);
  if (windows.iCount == 0) return false;
  const int iNearest = windows.asWindow[0].iNear;
  if (iRequired > 1 && iNearest < kCycleSamples * iRequired - (kCycleSamples - 1)) return false;
  removeWindowsThatDoNotMatchSegment(&windows);
  removeWindowsWhosePointsDoNotRepeat(iTime, &windows);
  if (windows.iCount == 0) return false;
  segmentWindows = windows;
  // The segment keeps the period it has had; a new one takes the nearest.
  const sWindow* pChosen = windows.begin();
  if (pSegment->iNumMatches > 0) {
    const int iPeriod = pSegment->lastMatch().period();
    pChosen = std::min_element(windows.begin(), windows.end(), [&](const sWindow& a, const sWindow& b) {
      return std::abs(a.middle() - iPeriod) < std::abs(b.middle() - iPeriod);
    });
  }
  updateNewMatchParameters(pChosen->iNear, pChosen->iFar, false, iTime, pSegment);
  pSegment->lastMatch().bDoubled |= pChosen->bDoubling;
  return true;
}

// ---- Candidates and windows

const sWindows& FirstScan::windowsOf(int iTime) {
  const auto* pCached = std::find_if(asCache.begin(), asCache.end(), [&](const sCachedWindows& cached) {
    return cached.iTime == iTime && cached.bGoingDown == bGoingDown;
  });
  if (pCached != asCache.end()) return pCached->windows;
  PitchComparator::sScores scores;
  comparator.compare(iTime, scores);
  Candidates candidates{};
  if (bGoingDown) {
    doCycleFluctuationsMatchGoingDown(scores, candidates);
  } else {
    doCycleFluctuationsMatchGoingUp(scores, candidates);
  }
  sCachedWindows& cached = asCache[static_cast<std::size_t>(iCacheWrite)];
  iCacheWrite = (iCacheWrite + 1) % kCachedCycles;
  cached = {.iTime = iTime, .bGoingDown = bGoingDown, .windows = findWindows(candidates)};
  return cached.windows;
}

void FirstScan::prepareComparisonElement(bool bFirst, int iTime, int iMinLevel) {
  asElement[bFirst ? 0 : 1].prepare(*pMyChannel->pCycleInformation, bFirst, iTime, iMinLevel,
                                    pMyChannel->psSpeakerData->shortestPeriod());
}

// The comparison finds the distances in the band of the voice's fundamental; the waveform itself must bear
// one of each window out. More points than a voice has bear out none.
void FirstScan::removeWindowsWhosePointsDoNotRepeat(int iTime, sWindows* pWindows) {
  const int iMinLevel = ppiActivePassiveCycleMinThresholdIndexForMatching[bGoingDown ? 1 : 0];
  prepareComparisonElement(true, iTime - kElementSamples, iMinLevel);
  prepareComparisonElement(false, iTime, iMinLevel);
  const auto& [first, active] = asElement;
  sWindows kept;
  if (!first.bTooManyPoints && !active.bTooManyPoints) {
    for (const sWindow& window : *pWindows) {
      bool bRepeats = false;
      for (int d = window.iNear; d <= window.iFar && !bRepeats; ++d) {
        bRepeats = pointsRepeat(first, active, *pMyChannel->pInputData, d, bGoingDown ? 1 : 0);
      }
      if (bRepeats) kept.add(window);
    }
  }
  *pWindows = kept;
}

void FirstScan::doCycleFluctuationsMatchGoingUp(const PitchComparator::sScores& scores,
                                                Candidates& candidates) const {
  markCandidates(scores.fShort, kGoingUp.fShort, candidates);
  markCandidates(scores.fLong, kGoingUp.fLong, candidates);
}

void FirstScan::doCycleFluctuationsMatchGoingDown(const PitchComparator::sScores& scores,
                                                  Candidates& candidates) const {
  markCandidates(scores.fShort, kGoingDown.fShort, candidates);
  markCandidates(scores.fLong, kGoingDown.fLong, candidates);
}

sWindows FirstScan::findWindows(const Candidates& candidates) {
  sWindows windows;
  sWindow open;
  const auto close = [&] {
    if (open.iFar == 0) return;
    for (const sWindow& nearer : windows) {
      open.bDoubling |= std::abs(open.iNear - 2 * nearer.iNear) <= kSameDistance &&
                        std::abs(open.iFar - 2 * nearer.iFar) <= kSameDistance;
    }
    windows.add(open);
    open = sWindow{};
  };
  for (int d = 1; d < kCandidates; ++d) {
    if (!candidates[static_cast<std::size_t>(d)]) continue;
    if (open.iFar != 0 && d - open.iFar >= kMergeDistance) close();
    if (open.iFar == 0) open.iNear = d;
    open.iFar = d;
  }
  close();
  return windows;
}

void FirstScan::removeWindowsThatDoNotMatchSegment(sWindows* pWindows) const {
  if (segmentWindows.iCount == 0) return;
  const sMatch& last = examined().lastMatch();
  sWindows kept;
  for (const sWindow& window : *pWindows) {
    if (window.iNear > last.iFar + last.iDrift || window.iFar < last.iNear - last.iDrift) continue;
    for (const sWindow& known : segmentWindows) {
      if (const auto shared = intersection(window, known)) {
        kept.add(*shared);
        break;
      }
    }
  }
  *pWindows = kept;
}

// ---- Matches

void FirstScan::updateNewMatchParameters(int iNear, int iFar, bool bArtificial, int iTime,
                                         sSegment* pSegment) {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iPercent = piMaxDriftInNumSamplesInCycle[bGoingDown ? 1 : 0];
  sMatch match{.cycle = cycles.cycleOf(iTime), .iNear = iNear, .iFar = iFar, .bArtificial = bArtificial};
  match.iDrift = iFar * iPercent >= 400 ? iFar * iPercent / 100 : iMinDrift;
  match.iAmp = spreadFrom(iTime, kElementCycles);
  match.iReferenceAmp = spreadFrom(std::max(0, iTime - kElementCycles * kCycleSamples), kElementCycles);
  match.bResized =
      std::max(match.iAmp, match.iReferenceAmp) > kMaxSizeRatio * std::min(match.iAmp, match.iReferenceAmp);
  if (pSegment->iNumMatches > 0) {
    const int iFirstPeriod = pSegment->asMatch[0].period();
    match.bDoubled = std::abs(match.period() - 2 * iFirstPeriod) <= kSameDistance ||
                     std::abs(2 * match.period() - iFirstPeriod) <= kSameDistance;
  }
  pSegment->asMatch[static_cast<std::size_t>(pSegment->iNumMatches++)] = match;
  pSegment->iAmp = std::max(pSegment->iAmp, match.iAmp);
  pSegment->last = cycles.cycleOf(iTime + kElementCycles * kCycleSamples - 1);
  pSegment->iEndTime = iTime + kElementCycles * kCycleSamples - 1;
}

bool FirstScan::addArtificialMatch(int iTime) {
  sSegment& segment = examined();
  if (detection.bStrict || iArtificial >= iMaxArtificialMatchesAllowedToBeAdded) return false;
  if (segment.iNumMatches < iMinIndexForArtificialMatch ||
      segment.iNumMatches > iMaxIndexForArtificialMatch) {
    return false;
  }
  ++iArtificial;
  const sMatch& previous = segment.lastMatch();
  updateNewMatchParameters(previous.iNear, previous.iFar, true, iTime, &segment);
  return true;
}
