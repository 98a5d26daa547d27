// Start, end and type of segments.
#include <algorithm>
#include <cstdlib>

#include "engine/analysis/FirstScan.h"
#include "engine/MyChannel.h"

namespace {

// A stretch is loud from this many sixteenths of the background's spread on.
constexpr int kLoudQ4 = 30;
// A verb that stands out less than this from the background is the background.
constexpr int kVerbAboveFloorQ4 = 19;

constexpr int kAllowedDriftPercent = 8;  // of the mean period, per match, within a self verb
constexpr int kAllowedDrift = 5;         // samples, at least

}  // namespace

// ---- One comparison

void FirstScan::analyzeNextComparison() {
  const int iTime = iNextTime;
  const int iSpread = spreadFrom(iTime, kElementCycles);
  if (iSpread < pMyChannel->iMinAmplitudeForPotentialSegment) {
    iNextTime = iTime + kCycleSamples;
    if (bExamining) endSegment();
    return;
  }
  if (!bExamining) {
    startSegment(iTime);
    return;
  }
  iNextTime = iTime + kCycleSamples;
  if (cycleParametersMatchSegment(iTime, iSpread, requiredMatches(iTime), &examined())) {
    stopExaminedVerbSegment(false);
  } else if (!addArtificialMatch(iTime)) {
    endSegment();
  }
}

void FirstScan::startSegment(int iTime) {
  bExamining = true;
  bAccepted = false;
  bGoingDown = false;
  iReferenceSpread = iSpreadAtTurn = 0;
  iArtificial = 0;
  segmentWindows.iCount = 0;
  sSegment& segment = examined();
  segment.iIdentity = ++iIdentities;
  segment.type = kUnsettled;
  segment.first = segment.last = pMyChannel->pCycleInformation->cycleOf(iTime);
  segment.iStartTime = iTime;
  segment.iEndTime = iTime + kCycleSamples - 1;
  segment.iNumMatches = 0;
  segment.iAmp = 0;
  segment.bGood = segment.bExaminedForNoise = segment.bHasHistogram = false;
  segment.iWinner = -1;
  segment.iSchemas = 0;
  iNextTime = iTime + kElementCycles * kCycleSamples;
}

// ---- Self verbs

// Periods that stay together, in a stretch that stands out from the background in level and in spectrum, with
// few matches in doubt.
bool FirstScan::isStable(const sSegment& segment) const {
  if (segment.iAmp * 16 < floor.floor() * kVerbAboveFloorQ4) return false;
  // Rumble repeats as well as a voice does, but nothing stands out from it.
  const int iCycles = (segment.iEndTime + 1 - segment.iStartTime) / kCycleSamples;
  if (highestRise(iCycles) < SpectralRise::kQuiet) return false;
  int iSum = 0;
  int iDoubled = 0;
  int iResized = 0;
  for (int i = 0; i < segment.iNumMatches; ++i) {
    const sMatch& match = segment.asMatch[static_cast<std::size_t>(i)];
    iSum += match.period();
    iDoubled += match.bDoubled;
    iResized += match.bResized;
  }
  if (iDoubled * 100 > iMaxPercentOfRevokingDoublingInSelf * segment.iNumMatches ||
      iResized * 100 > iMaxPercentOfRevokingSizeInSelf * segment.iNumMatches) {
    return false;
  }
  // The drift is judged from match to match: a voice glides, it does not jump.
  int iJumps = 0;
  const int iAllowed = std::max(kAllowedDrift, iSum / segment.iNumMatches * kAllowedDriftPercent / 100);
  for (int i = 1; i < segment.iNumMatches; ++i) {
    const auto u = static_cast<std::size_t>(i);
    iJumps += std::abs(segment.asMatch[u].period() - segment.asMatch[u - 1].period()) > iAllowed;
  }
  return iJumps * 100 <= detection.iSegmentLimitPercent * segment.iNumMatches;
}

int FirstScan::matchesNeeded(bool bFinal) const {
  if (pMyChannel->pMySubState->isHavingConfidence()) {
    return bFinal ? iMinNumMatchesInSelfVerbSegmentDuringBurstWhenFinal
                  : iMinNumMatchesInSelfVerbSegmentDuringBurstDuringBuilding;
  }
  return bFinal ? iMinNumMatchesInSelfVerbSegmentWhenFinal : iMinNumMatchesInSelfVerbSegmentDuringBuilding;
}

bool FirstScan::stopExaminedVerbSegment(bool bFinal) {
  sSegment& segment = examined();
  const int iNeeded = matchesNeeded(bFinal);
  if (bAccepted) {
    pMyChannel->pMySubState->updateExistingSelfVerbLength(&segment.type, &segment, 0);
    markVerb(segment, true);
    return true;
  }
  if (segment.iNumMatches < iNeeded || !isStable(segment)) return false;
  acceptSelfVerb();
  return true;
}

void FirstScan::acceptSelfVerb() {
  endOtherVerb();  // moves the examined segment
  sSegment& segment = examined();
  bAccepted = true;
  bSelfVerb = true;
  pMyChannel->pMySubState->updateNewSelfVerbLength(&segment.type, &segment, 0);
  markVerb(segment, true);
}

// What was examined becomes a segment, or nothing; the search goes on after its last match.
void FirstScan::endSegment() {
  const bool bVerb = stopExaminedVerbSegment(true);
  sSegment& segment = examined();
  const int iLastMatch =
      segment.iNumMatches > 0 ? segment.iEndTime + 1 - kElementCycles * kCycleSamples : segment.iStartTime;
  bExamining = false;
  iNextTime = std::max(iLastMatch, segment.iStartTime) + kCycleSamples;
  if (!bVerb) return;
  if (segment.bGood) updateMaxAmplitudeOfGoodVerbsInPrevBursts(segment.iAmp);
  keepExamined();
  if (pMyChannel->bRegistrationRunning) learnFrom(closedSegment(iClosed - 1));
}

// The talker is being learned: the spectrum of the last period goes with the segment.
void FirstScan::learnFrom(sSegment& segment) {
  const int iPeriod = estimatePitch(segment, segment.last);
  pMyChannel->pMyFilters->buildFFTHistogram(segment.histogram, segment.iEndTime + 1 - iPeriod,
                                            segment.iEndTime);
  segment.bHasHistogram = true;
  pMyChannel->pRegistration->handleProcessingForSegment(segment);
}

void FirstScan::markVerb(const sSegment& segment, bool bSelf) {
  CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iFrom = std::max(segment.iStartTime, iReleasedTime + kCycleSamples);
  for (int iTime = iFrom; iTime <= segment.iEndTime; iTime += kCycleSamples) {
    sCycleInformation& cycle = cycles.at(cycles.cycleOf(iTime));
    cycle.bInVerb = true;
    cycle.bInSelfVerb |= bSelf;
    cycle.bInGoodVerb |= segment.bGood;
  }
}

// ---- Other verbs

// Follows how long the signal has been loud without repeating.
void FirstScan::followLoudness() {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iTime = cycles.lastSampleTime() + 1 - kElementCycles * kCycleSamples;
  if (iTime < 0) return;
  const int iSpread = cycles.calcAmp(cycles.newest(), kElementCycles);
  const bool bLoud = iSpread >= pMyChannel->iMinAmplitudeForPotentialSegment && floor.floor() > 0 &&
                     iSpread * 16 >= floor.floor() * kLoudQ4 &&
                     highestRise(kElementCycles) >= SpectralRise::kQuiet;
  if (!bLoud || (bExamining && bAccepted)) {
    iLoudCycles = 0;
    endOtherVerb();
    return;
  }
  const bool bBurst = pMyChannel->pMySubState->isHavingConfidence();
  const int iNeeded =
      bBurst ? iMinNumMatchesInNonSelfVerbSegmentDuringBurst : iMinNumMatchesInNonSelfVerbSegment;
  if (++iLoudCycles < iNeeded) return;
  if (bOtherVerb) {
    growOtherVerb(iTime);
  } else if (bBurst || !guard.mayPresume()) {
    startOtherVerb(iTime - (iNeeded - 1) * kCycleSamples, iTime);
  }
}

void FirstScan::startOtherVerb(int iFrom, int iTime) {
  bOtherVerb = true;
  otherVerb.iStartTime = std::max(iFrom, iReleasedTime + kCycleSamples);
  otherVerb.first = pMyChannel->pCycleInformation->cycleOf(otherVerb.iStartTime);
  otherVerb.iNumMatches = 0;
  otherVerb.iAmp = 0;
  otherVerb.bGood = otherVerb.bExaminedForNoise = false;
  otherVerb.iEndTime = iTime + kCycleSamples - 1;
  pMyChannel->pMySubState->updateNewOtherVerbLength(&otherVerb.type, &otherVerb);
  bSelfVerb = false;
  growOtherVerb(iTime);
}

void FirstScan::growOtherVerb(int iTime) {
  otherVerb.iEndTime = iTime + kCycleSamples - 1;
  otherVerb.last = pMyChannel->pCycleInformation->cycleOf(iTime);
  pMyChannel->pMySubState->updateExistingOtherVerbLength(&otherVerb.type, &otherVerb);
  markVerb(otherVerb, false);
}

// Kept like any segment. The examined one moves up by a slot to make room.
void FirstScan::endOtherVerb() {
  if (!bOtherVerb) return;
  bOtherVerb = false;
  if (iClosed == kSegments - 2) shiftOneSegment();
  psSegments[slot(iClosed + 1)] = examined();
  psSegments[slot(iClosed)] = otherVerb;
  ++iClosed;
}
