// The time-domain layer: which set is used, where the sets lie, and what is remembered of good ones.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/aec/TimeDomainFilter.h"
#include "engine/Glob.h"

namespace {

constexpr int kMatureTest = 800;  // samples after which set 7 is also held against the active set
constexpr int kMatureStepTest = 8800;
constexpr int kMoreWithPower = 640;   // with processor power to spare
constexpr int kLeastTest = 320;       // samples a test set needs to show what it can
constexpr int kLeastStepTest = 4000;  // the same while set 7 steps through the delay range
constexpr int kStableWithin = 29;     // samples
constexpr int kPeakDistance = 8000;
constexpr int kSpeakerHeard = 1000;  // level of the loudspeaker at which a filter must show what it can

}  // namespace

// ---- Candidates

bool TimeDomainFilter::td_isCoef2BetterThanCoef1OnTst(int iSet1, int iSet2, bool bDoublePath) const {
  const sAecCoefSet& a = set(iSet1);
  const sAecCoefSet& b = set(iSet2);
  const int iGain = a.iResidualSpread - b.iResidualSpread;
  const bool bBigWin = 3 * b.r[2] < 2 * a.r[2] && iGain > 3000;
  const int iStart = iSet1 == kAlternative || iSet2 == kAlternative ? iTestStart : iTest6Start;
  if (!bBigWin && b.iProcessedTime - iStart < kLeastTest) return false;
  if (b.r[3] >= 900 || b.iPeakDrift >= 100 || b.r[2] >= 900 || b.r[3] >= a.r[3]) return false;
  if (!bBigWin && b.iPeakDrift > std::min(a.iPeakDrift, 10)) return false;
  const bool bNearReference = a.iResidualSpread <= 3000 + iReferenceLevel;
  const int F = iGain <= (bNearReference ? 3000 : 1000) ? 14 : iGain <= 3000 ? 15 : 16;
  const int G = bBigWin && bDoublePath ? 16 : 15;
  return 16 * b.r[3] < F * a.r[3] && 16 * b.r[2] < F * a.r[2] && 16 * b.r[1] < G * a.r[1] &&
         16 * b.r[0] < G * a.r[0];
}

void TimeDomainFilter::td_updateEchoPath(int iFrom, int iTo) {
  set(iTo) = set(iFrom);
}

void TimeDomainFilter::compareTestSets(sAecCycle& now) {
  if (td_isCoef2BetterThanCoef1OnTst(kAlternative, kTest, now.bDoublePath)) iTestStart = now.iLast;
  // The main test set follows the path; the active one takes over what it has learnt. Before anything is good
  // any improvement counts.
  const sAecCoefSet& test = set(kTest);
  const sAecCoefSet& active = set(kActive);
  const bool bFollow = test.r[3] < active.r[3] && test.r[1] <= active.r[1] && test.r[0] <= active.r[0] &&
                       now.iLast - iTest6Start >= kLeastTest && test.r[1] < 950;
  if (td_isCoef2BetterThanCoef1OnTst(kActive, kTest, now.bDoublePath) || bFollow) {
    td_updateEchoPath(kTest, kActive);
    iTest6Start = now.iLast;
  }
  const int iAge = now.iLast - iTestStart;
  if (iAge < (bStepping ? kLeastStepTest : kLeastTest)) return;
  const bool bBeatsTest = td_isCoef2BetterThanCoef1OnTst(kTest, kAlternative, now.bDoublePath);
  const sAecCoefSet& alternative = set(kAlternative);
  const int iMature =
      (bStepping ? kMatureStepTest : kMatureTest) + (Glob::iCPUPower != 0 ? kMoreWithPower : 0);
  const bool bBeatsActive = iAge > iMature && alternative.r[0] + 10 < active.r[0] &&
                            alternative.r[1] + 20 < active.r[1] && alternative.r[2] + 20 < active.r[2] &&
                            alternative.r[3] + 70 < active.r[3];
  if (!bBeatsTest && !bBeatsActive) return;
  narrowAlternative(now);
  td_updateEchoPath(kAlternative, kActive);
  td_updateEchoPath(kAlternative, kTest);
  iTestStart = iTest6Start = now.iLast;
  iLastMove = now.iLast;
  addToDelayHistory(now, kActive);
}

// A winner whose peak keeps its place needs no more than the 256 taps around it.
void TimeDomainFilter::narrowAlternative(const sAecCycle& now) {
  constexpr int kNarrow = 256;
  constexpr int kAfterStart = 8000;
  constexpr int kSteadyPeak = 29;
  sAecCoefSet& s = set(kAlternative);
  const bool bAllowed = mode.low() <= 1 || Glob::iCPUPower == 0;
  if (!bAllowed || s.iLength <= kNarrow || s.iPeakDrift > kSteadyPeak || now.iMicStart < 0) return;
  if (now.iLast - now.iMicStart <= kAfterStart) return;
  const int iStart = std::clamp(s.newestPeak() - kNarrow / 2, s.iStart, s.end() + 1 - kNarrow);
  (void)s.updateCoefsToLatestEchoDelay(iStart, kNarrow);
}

// ---- Placement

// A filter begins a little before the delay it is meant for.
int TimeDomainFilter::placementFor(int iDelay) const {
  constexpr int kBefore = 96;
  const int iLatest = std::max(span.startSamples(), span.endSamples() - fullLength());
  return std::clamp(iDelay - kBefore, span.startSamples(), iLatest);
}

// Where nothing says where the echo is, set 7 tries one placement after the other: the whole span while the
// path has never been found, later the range in which it has lain.
void TimeDomainFilter::stepAlternative(const sAecCycle& now) {
  // Samples with loudspeaker sound: some more than it takes to be held against the active set.
  constexpr int kStepTest = kMatureStepTest + kMoreWithPower + kLeastTest;
  if (pSearch->coupledDelay() >= 0 || set(kActive).isGood()) {
    bStepping = false;
    return;
  }
  bStepping = true;
  if (now.iLast - iTestStart < kStepTest) return;
  sAecCoefSet& s = set(kAlternative);
  const int iFrom = bSearching ? span.startSamples() : iRangeStart;
  const int iTo = bSearching ? span.endSamples() : iRangeEnd + 1;
  const int iNext = s.iStart + fullLength() / 2;
  const int iLatest = std::max(iFrom, std::min(iTo, span.endSamples()) - fullLength());
  const int iLast = std::max(span.startSamples(), span.endSamples() - fullLength());
  const int iStart = s.iStart >= iLatest ? iFrom : std::clamp(iNext, iFrom, iLatest);
  (void)s.updateCoefsToLatestEchoDelay(std::min(iStart, iLast), fullLength());
  iTestStart = now.iLast;
}

// Since when the estimate of the delay has been the same.
void TimeDomainFilter::followEstimate(const sAecCycle& now) {
  const int iNow = pSearch->delay();
  if ((iNow < 0) == (iEstimate < 0) && std::abs(iNow - iEstimate) <= kStableWithin) return;
  iEstimate = iNow;
  iEstimateSince = now.iLast;
}

void TimeDomainFilter::considerMove(sAecCycle& now) {
  constexpr int kMoveDistance = 2000;
  constexpr int kEvents = 90;
  constexpr int kStableSamples = 40000;
  constexpr int kVotes = 11;
  constexpr int kVotesBesideStrongEcho = 26;
  followEstimate(now);
  if (now.iLast - iLastMove <= kMoveDistance || now.bTalkOverPath) return;
  const sAecCoefSet& active = set(kActive);
  const int iVotes = pSearch->hasStrongEcho() ? kVotesBesideStrongEcho : kVotes;
  const bool bVoted =
      pSearch->events() > kEvents && pSearch->events() % 5 == 0 && pSearch->bestVotes() >= iVotes;
  if (pSearch->coupledDelay() < 0 && !bVoted) return;
  const bool bMayMove =
      mode.hasFrequencyDomain() ? now.bFilterLost : active.iGoodUpdates <= 99 || active.r[3] > 900;
  const bool bStable = Glob::iCPUPower != 0 && now.iLast - iEstimateSince > kStableSamples;
  if (bMayMove || bStable) updateDelayNLengthUsingEchoDelay(now, !bMayMove);
}

// Moves the candidates to the estimate. What works stays: with bAlternativeOnly, or while the main test set
// covers the estimate, only set 7 goes there.
void TimeDomainFilter::updateDelayNLengthUsingEchoDelay(sAecCycle& now, bool bAlternativeOnly) {
  constexpr int kMargin = 64;
  const int iDelay = pSearch->delay();
  if (iDelay < 0) return;
  const int iLast = std::min(iDelay + kMargin, span.endSamples() - 1);
  const auto covers = [&](int i) { return iDelay >= set(i).iStart && iLast <= set(i).end(); };
  if (covers(kTest) && covers(kActive)) return;
  const auto place = [&](int i) {
    if (covers(i) || !set(i).updateCoefsToLatestEchoDelay(placementFor(iDelay), fullLength())) return false;
    iLastMove = now.iLast;
    return true;
  };
  if (place(kAlternative)) iTestStart = now.iLast;
  if (bAlternativeOnly) return;
  bSearching = false;
  const bool bTestMoved = place(kTest);
  if (!place(kActive) && !bTestMoved) return;
  // The votes have been followed.
  pSearch->initDelaynLengthCoeffCounters();
  iTest6Start = now.iLast;
}

// ---- What is remembered

// Of the peak samples of the last 80000 samples.
int TimeDomainFilter::recentPeakSpread(const sAecCycle& now) const {
  constexpr int kRecent = 80000;
  int iLow = kUnknownPeak;
  int iHigh = 0;
  for (const sPeakSample& sample : asPeaks) {
    if (now.iLast - sample.iTime > kRecent) continue;
    iLow = std::min(iLow, sample.iDelay);
    iHigh = std::max(iHigh, sample.iDelay);
  }
  return std::max(0, iHigh - iLow);
}

void TimeDomainFilter::recomputeRange(const sAecCycle& now) {
  if (iPlacements == 0) return;
  iRangeStart = kUnknownPeak;
  iRangeEnd = 0;
  const auto widen = [&](int iStart, int iEnd) {
    iRangeStart = std::min(iRangeStart, iStart);
    iRangeEnd = std::max(iRangeEnd, iEnd);
  };
  for (int i = 0; i < iPlacements; ++i) {
    const sPlacement& placement = asPlacements[static_cast<std::size_t>((iNewestPlacement + 5 - i) % 5)];
    widen(placement.iStart, placement.iEnd);
  }
  if (!now.bStablePath || now.anyDoublePath()) {
    for (int i = 0; i <= 2; ++i) widen(set(i).iStart, set(i).end());
  }
  const int iSecond = set(kFirstBackup).newestPeak();
  if (now.bDoublePath && iSecond != kUnknownPeak) widen(2 * iSecond - iRangeEnd, 2 * iSecond - iRangeStart);
  if (now.bDoublePath3 && !now.bStablePath) widen(iRangeStart - 128, iRangeEnd + 128);
  if (iRangeStart >= span.startSamples() && iRangeEnd < span.endSamples()) {
    const int iMargin = 2 * recentPeakSpread(now) + 32;
    widen(iRangeStart - iMargin, iRangeEnd + iMargin);
  }
  iRangeStart = std::clamp(iRangeStart, span.startSamples(), span.endSamples() - 1);
  iRangeEnd = std::clamp(iRangeEnd, iRangeStart, span.endSamples() - 1);
}

void TimeDomainFilter::addToDelayHistory(const sAecCycle& now, int iSet) {
  constexpr int kPushDistance = 500;
  const sAecCoefSet& s = set(iSet);
  const sPlacement& newest = asPlacements[static_cast<std::size_t>(iNewestPlacement)];
  if (s.iGoodUpdates <= 99 && now.iLast - newest.iTime <= kPushDistance) return;
  int iCopies = std::max(1, (s.iGoodUpdates + 100) / 200);
  if (now.bDoublePath) iCopies = std::min(iCopies, 2);
  if (now.bStablePath) iCopies = std::min(iCopies, 3);
  for (int i = 0; i < std::min(iCopies, 5); ++i) {
    iNewestPlacement = (iNewestPlacement + 1) % 5;
    asPlacements[static_cast<std::size_t>(iNewestPlacement)] = {s.iStart, s.end(), now.iLast};
    iPlacements = std::min(iPlacements + 1, 5);
  }
  if (s.newestPeak() != kUnknownPeak &&
      now.iLast - asPeaks[static_cast<std::size_t>(iNewestPeak)].iTime >= kPeakDistance) {
    iNewestPeak = (iNewestPeak + 1) % static_cast<int>(asPeaks.size());
    asPeaks[static_cast<std::size_t>(iNewestPeak)] = {now.iLast, s.newestPeak()};
  }
  recomputeRange(now);
}

// The path is stable when every sampled peak lies at the same delay, and the present one too.
void TimeDomainFilter::updateStablePath(sAecCycle& now) {
  const auto [pLow, pHigh] = std::minmax_element(
      asPeaks.begin(), asPeaks.end(), [](const auto& a, const auto& b) { return a.iDelay < b.iDelay; });
  const bool bAll =
      std::all_of(asPeaks.begin(), asPeaks.end(), [](const auto& p) { return p.iTime > kNever; });
  const int iPresent = set(kActive).newestPeak();
  now.bStablePath = bAll && pHigh->iDelay - pLow->iDelay <= kStableWithin &&
                    std::abs(iPresent - pLow->iDelay) <= kStableWithin;
}

// What was remembered of the path is worth nothing once the active set has been bad for long: it has changed.
void TimeDomainFilter::expirePath(sAecCycle& now) {
  constexpr int kLongBad = 250;  // cycles with loudspeaker sound, 1 s
  const sAecCoefSet& active = set(kActive);
  if (active.iSpeakerLevel >= kSpeakerHeard && !now.bMicQuiet)
    iBadCycles = active.isGood() ? 0 : iBadCycles + 1;
  if (iBadCycles >= kLongBad) forgetPath(now);
}

void TimeDomainFilter::forgetPath(sAecCycle& now) {
  asPeaks.fill(sPeakSample{});
  iPlacements = 0;
  iBadCycles = 0;
  now.bStablePath = now.bDoublePath = now.bDoublePath2 = now.bDoublePath3 = false;
}

void TimeDomainFilter::storeBackup() {
  bRolledBack = false;
  td_updateEchoPath(kActive, iNextBackup);
  iNextBackup = iNextBackup == kLastBackup ? kFirstBackup : iNextBackup + 1;
}

void TimeDomainFilter::prepareBckpCoeffs(sAecCycle& now, int iSet) {
  constexpr int kBackupDistance = 4000;
  constexpr int kDoublePathDistance = 640;
  constexpr int kSecondRuleDistance = 800;
  sAecCoefSet& s = set(iSet);
  if (now.bConvergenceOk || s.iGoodUpdates > 50) now.bRestarted = false;
  if (!s.isGood() || now.iLast - iLastBackupTime < kBackupDistance) return;
  if (now.bMicQuiet && s.iPeakDrift > 50) return;
  if (8 * s.iPeak > 9 * iEchoPeak && iEchoPeak > 0 && now.iLast - iLastRestart < kBackupDistance) return;
  if (s.iGoodUpdates > 100) iEchoPeak = std::max(iEchoPeak, s.iPeak);
  if (s.iGoodUpdates > 200) {
    const auto away = [&](int i) {
      const int iOther = set(i).newestPeak();
      return iOther == kUnknownPeak ? 0 : std::abs(s.newestPeak() - iOther);
    };
    now.bDoublePath = away(1) > kDoublePathDistance && away(2) > kDoublePathDistance;
    now.bDoublePath2 = away(1) > kSecondRuleDistance && away(2) > kSecondRuleDistance;
    now.bDoublePath3 = now.bDoublePath && now.bDoublePath2;
  }
  iLastBackupTime = now.iLast;
  storeBackup();
  addToDelayHistory(now, iSet);
}

// ---- Failure

void TimeDomainFilter::rollbackToBestCoeffs(sAecCycle& now) {
  int iBest = -1;
  for (int i = kFirstBackup; i <= kLastBackup; ++i) {
    if (set(i).iPeak > 0 && (iBest < 0 || set(i).r[3] < set(iBest).r[3])) iBest = i;
  }
  bDivergence = false;
  dMu = std::min(dMu, 0.3);
  if (iBest < 0) return;
  for (const int i : {static_cast<int>(kActive), static_cast<int>(kTest)}) td_updateEchoPath(iBest, i);
  iTest6Start = now.iLast;
  iPoorCycles = 0;
  bRolledBack = true;
}

void TimeDomainFilter::td_checkRollbackAndReset(sAecCycle& now) {
  constexpr int kPoorFigure = 1000;
  constexpr int kPoorForRollback = 50;  // cycles: 200 ms with more residual than echo
  constexpr int kPoorForRestart = 250;
  const sAecCoefSet& active = set(kActive);
  const bool bHeard = active.iSpeakerLevel >= kSpeakerHeard && !now.bMicQuiet && !now.bHowling;
  if (bHeard) {
    const bool bPoor = active.r[1] >= kPoorFigure && active.iPeak > 0;
    iPoorCycles = bPoor ? iPoorCycles + 1 : 0;
    iLongPoorCycles = bPoor ? iLongPoorCycles + 1 : active.isGood() ? 0 : iLongPoorCycles;
  }
  const bool bLong = now.iFirst - iDivergenceTime > 1000;
  const bool bDiverges = bDivergence && !now.bMicQuiet && !now.bHowling &&
                         (active.iSpeakerLevel > 2000 || (active.iSpeakerLevel > 1000 && bLong &&
                                                          now.iTalkScore <= 99 && now.iSpkReachAmp >= 1001));
  // A copy that did not help once will not help again.
  if (iLongPoorCycles >= kPoorForRestart) {
    restart(now);
  } else if (!bRolledBack && (bDiverges || iPoorCycles >= kPoorForRollback)) {
    rollbackToBestCoeffs(now);
  }
}

void TimeDomainFilter::restart(sAecCycle& now) {
  for (sAecCoefSet& s : asCoefSet) {
    s.forget();
    s.iAdaptations = 0;
    s.iLength = fullLength();
    s.iStart = std::min(s.iStart, span.endSamples() - s.iLength);
  }
  pSearch->initDelaynLengthCoeffCounters();
  iPoorCycles = iLongPoorCycles = 0;
  bRolledBack = false;
  iEchoPeak = 0;
  forgetPath(now);
  iLastRestart = now.iLast;
  iTestStart = iTest6Start = now.iLast;
  dMu = 0.3;
  bDivergence = false;
  now.bRestarted = true;
}
