// The time-domain layer: which set is used, where the sets lie, and what is remembered of good ones.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/aec/TimeDomainFilter.h"

namespace {

constexpr int kLeastTest = 320;    // samples a test set needs to show what it can
constexpr int kStableWithin = 29;  // samples
constexpr int kPeakDistance = 8000;
constexpr int kSpeakerHeard = 1000;  // level of the loudspeaker at which a filter must show what it can

}  // namespace

// ---- Candidates

bool TimeDomainFilter::td_isCoef2BetterThanCoef1OnTst(int iSet1, int iSet2) const {
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
  const int G = bBigWin ? 16 : 15;
  return 16 * b.r[3] < F * a.r[3] && 16 * b.r[2] < F * a.r[2] && 16 * b.r[1] < G * a.r[1] &&
         16 * b.r[0] < G * a.r[0];
}

void TimeDomainFilter::copySet(int iFrom, int iTo) {
  set(iTo) = set(iFrom);
}

void TimeDomainFilter::compareTestSets(sAecCycle& now) {
  if (td_isCoef2BetterThanCoef1OnTst(kAlternative, kTest)) iTestStart = now.iLast;
  // The main test set follows the path; the active one takes over what it has learnt. Before anything is good
  // any improvement counts.
  const sAecCoefSet& test = set(kTest);
  const sAecCoefSet& active = set(kActive);
  const bool bFollow = test.r[3] < active.r[3] && test.r[1] <= active.r[1] && test.r[0] <= active.r[0] &&
                       now.iLast - iTest6Start >= kLeastTest && test.r[1] < 950;
  if (td_isCoef2BetterThanCoef1OnTst(kActive, kTest) || bFollow) {
    copySet(kTest, kActive);
    iTest6Start = now.iLast;
  }
  if (now.iLast - iTestStart < kLeastTest) return;
  const bool bBeatsTest = td_isCoef2BetterThanCoef1OnTst(kTest, kAlternative);
  const sAecCoefSet& alternative = set(kAlternative);
  const int iAge = now.iLast - iTestStart;
  const bool bBeatsActive = iAge > 800 && alternative.r[0] + 10 < active.r[0] &&
                            alternative.r[1] + 20 < active.r[1] && alternative.r[2] + 20 < active.r[2] &&
                            alternative.r[3] + 70 < active.r[3];
  if (!bBeatsTest && !bBeatsActive) return;
  copySet(kAlternative, kActive);
  copySet(kAlternative, kTest);
  iTestStart = iTest6Start = now.iLast;
  iLastMove = now.iLast;
  addToDelayHistory(now, kActive);
}

// ---- Placement

// A filter begins a little before the delay it is meant for.
int TimeDomainFilter::placementFor(int iDelay) const {
  constexpr int kBefore = 96;
  const int iLength = set(kTest).iLength;
  const int iLatest = std::max(span.startSamples(), span.endSamples() - iLength);
  return std::clamp(iDelay - kBefore, span.startSamples(), iLatest);
}

void TimeDomainFilter::placeAlternative(int iDelay) {
  set(kAlternative).updateCoefsToLatestEchoDelay(placementFor(iDelay), set(kAlternative).iLength);
}

void TimeDomainFilter::considerMove(sAecCycle& now) {
  constexpr int kMoveDistance = 2000;
  constexpr int kEvents = 90;
  constexpr int kStableSamples = 40000;
  if (now.iLast - iLastMove <= kMoveDistance) return;
  const sAecCoefSet& active = set(kActive);
  const int iCoupled = pSearch->coupledDelay();
  const bool bVoted = pSearch->events() > kEvents && pSearch->events() % 5 == 0 &&
                      pSearch->bestVotes() >= (now.iLast - iLastMove < kStableSamples ? 11 : 26);
  if (active.iGoodUpdates <= 99 || active.r[3] > 900) {
    if (iCoupled >= 0 || bVoted) updateDelayNLengthUsingEchoDelay(now, false);
  } else if (bVoted || iCoupled >= 0) {
    updateDelayNLengthUsingEchoDelay(now, true);
  }
}

// Moves the candidates to the estimate. What works stays: with bAlternativeOnly, or while the main test set
// covers the estimate, only set 7 goes there.
void TimeDomainFilter::updateDelayNLengthUsingEchoDelay(sAecCycle& now, bool bAlternativeOnly) {
  constexpr int kMargin = 64;
  const int iDelay = pSearch->coupledDelay() >= 0 ? pSearch->coupledDelay() : pSearch->votedDelay();
  if (iDelay < 0) return;
  const auto covers = [&](const sAecCoefSet& s) { return iDelay >= s.iStart && iDelay + kMargin <= s.end(); };
  if (covers(set(kTest)) && covers(set(kActive))) return;
  if (!covers(set(kAlternative))) {
    placeAlternative(iDelay);
    iTestStart = now.iLast;
  }
  if (!bAlternativeOnly) {
    const int iStart = placementFor(iDelay);
    for (const int i : {static_cast<int>(kTest), static_cast<int>(kActive)}) {
      if (covers(set(i))) continue;
      set(i).updateCoefsToLatestEchoDelay(iStart, set(i).iLength);
    }
    iTest6Start = now.iLast;
    bSearching = false;
  }
  iLastMove = now.iLast;
}

// ---- What is remembered

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
  if (now.bDoublePath3 && !now.bStablePath) widen(iRangeStart - 128, iRangeEnd + 128);
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
  copySet(kActive, iNextBackup);
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
  s.iWeight = now.bDoublePath2 ? -1 : (s.iPeak * 128 + s.iWeight) / 2;
  if (s.iGoodUpdates > 100) iEchoPeak = std::max(iEchoPeak, s.iPeak);
  if (s.iGoodUpdates > 200) {
    const auto away = [&](int i) {
      const int iOther = set(i).newestPeak();
      return iOther == kUnknownPeak ? 0 : std::abs(s.newestPeak() - iOther);
    };
    now.bDoublePath = away(1) > kDoublePathDistance && away(2) > kDoublePathDistance;
    now.bDoublePath2 = away(1) > kSecondRuleDistance;
    now.bDoublePath3 = now.bDoublePath && now.bDoublePath2;
  }
  iLastBackupTime = now.iLast;
  storeBackup();
  addToDelayHistory(now, iSet);
}

// ---- Failure

void TimeDomainFilter::rollbackToBestCoeffs(sAecCycle& now, int /*iReason*/) {
  int iBest = -1;
  for (int i = kFirstBackup; i <= kLastBackup; ++i) {
    if (set(i).iPeak > 0 && (iBest < 0 || set(i).r[3] < set(iBest).r[3])) iBest = i;
  }
  bDivergence = false;
  dMu = std::min(dMu, 0.3);
  if (iBest < 0) return;
  for (const int i : {static_cast<int>(kActive), static_cast<int>(kTest)}) copySet(iBest, i);
  iTest6Start = now.iLast;
  iPoorCycles = 0;
}

void TimeDomainFilter::td_checkRollbackAndReset(sAecCycle& now) {
  constexpr int kPoorFigure = 1000;
  constexpr int kPoorForRollback = 50;  // cycles: 200 ms with more residual than echo
  constexpr int kPoorForRestart = 250;
  constexpr int kReason = 190;
  const sAecCoefSet& active = set(kActive);
  const bool bHeard = active.iSpeakerLevel >= kSpeakerHeard && !now.bMicQuiet && !now.bHowling;
  if (bHeard) iPoorCycles = active.r[1] >= kPoorFigure && active.iPeak > 0 ? iPoorCycles + 1 : 0;
  const bool bLong = now.iFirst - iDivergenceTime > 1000;
  const bool bDiverges = bDivergence && !now.bMicQuiet && !now.bHowling &&
                         (active.iSpeakerLevel > 2000 || (active.iSpeakerLevel > 1000 && bLong &&
                                                          now.iTalkScore <= 99 && now.iSpkAmp >= 1001));
  if (bDiverges || iPoorCycles == kPoorForRollback) {
    rollbackToBestCoeffs(now, kReason);
  } else if (iPoorCycles >= kPoorForRestart) {
    restart(now);
  }
}

void TimeDomainFilter::restart(sAecCycle& now) {
  for (sAecCoefSet& s : asCoefSet) {
    s.forget();
    s.iAdaptations = 0;
  }
  pSearch->initDelaynLengthCoeffCounters();
  iPoorCycles = 0;
  iEchoPeak = 0;
  forgetPath(now);
  iLastRestart = now.iLast;
  iTestStart = iTest6Start = now.iLast;
  dMu = 0.3;
  bDivergence = false;
  now.bRestarted = true;
}
