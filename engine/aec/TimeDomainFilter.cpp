// The time-domain layer: estimation, step size and quality figures.
#include "engine/aec/TimeDomainFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr std::size_t kBlockSamples = 16;
constexpr double kLeastMu = 0.1;
constexpr double kLargestMu = 1.2;
constexpr std::int64_t kLeastPower = 1000;
constexpr int kSmoothedParts = 100;
constexpr int kRecordCycles =
    25;  // 100 ms: five records tell whether good updates kept coming for half a second

int perMille(std::int64_t lValue, std::int64_t lReference) {
  return static_cast<int>(
      std::min<std::int64_t>(lValue * 1000 / std::max<std::int64_t>(lReference, 1), 2000));
}

}  // namespace

void TimeDomainFilter::clean(SpeakerHistory* pSpeaker, DelaySearch* pDelaySearch, sEchoSpan echoSpan,
                             sAecMode aecMode) {
  *this = TimeDomainFilter{};
  pHistory = pSpeaker;
  pSearch = pDelaySearch;
  span = echoSpan;
  mode = aecMode;
  for (sAecCoefSet& set : asCoefSet) {
    set.iStart = span.startSamples();
    set.iLength = fullLength();
  }
  bSearching = span.cycles() * kCycleSamples > fullLength();
  iRangeStart = span.startSamples();
  iRangeEnd = iRangeStart + std::min(span.cycles() * kCycleSamples / 2, kMaxTaps);
}

// ---- One cycle

void TimeDomainFilter::performTimeDomainAnalysis(sAecCycle& now, bool bAdapt) {
  updateReference(now);
  if (++iSinceRecord >= kRecordCycles) {
    std::shift_left(iGoodRecord.begin(), iGoodRecord.end(), 1);
    iGoodRecord.back() = set(kActive).iGoodUpdates;
    iSinceRecord = 0;
  }
  // A near-end talker alone says nothing about the filter: cycles without loudspeaker sound are not counted.
  const bool bRan = runSets(now, bAdapt);
  if (bRan) countCycle(now, bAdapt);
  controlStepSize(now);
  if (bRan) compareTestSets(now);
  considerMove(now);
  stepAlternative(now);
  prepareBckpCoeffs(now, kActive);
  updateStablePath(now);
  expirePath(now);
  td_checkRollbackAndReset(now);
}

// The speaker-derived reference: what the microphone has carried of the loudspeaker on average. It grows by a
// bounded amount, so that talk at the near end does not become the measure at once.
void TimeDomainFilter::updateReference(const sAecCycle& now) {
  constexpr int kGrowth = 1500;
  constexpr float kSlow = 0.002F;
  float fMean = 0;
  for (const float m : now.fMic) fMean += std::abs(m);
  fMean /= kCycleSamples;
  if (now.iSpkSpanAmp < 1000) return;
  const float fRatio = fMean * 8 / static_cast<float>(now.iSpkSpanAmp);
  fCoupling = fCoupling > 0 ? fCoupling + kSlow * (fRatio - fCoupling) : fRatio;
  const auto iLevel = static_cast<int>(fCoupling * static_cast<float>(now.iSpkSpanAmp) / 8);
  iExpected = std::max(1, std::min(iLevel, iExpected + kGrowth));
  iReferenceLevel = std::max(1, (iReferenceLevel * 15 + iExpected) / 16);
}

bool TimeDomainFilter::runSets(sAecCycle& now, bool bAdapt) {
  constexpr int kSpkForAlternative = 5000;
  iSmallestResidual = kUnknownPeak;
  const bool bRan = calcEchoAndConverge(now, kTest, bAdapt);
  calcEchoAndConverge(now, kActive, false);
  const sAecCoefSet& alternative = set(kAlternative);
  const int iPeak = set(kTest).newestPeak();
  const bool bApart = iPeak < alternative.iStart || iPeak > alternative.end();
  const bool bPoor = alternative.r[3] > 599;
  if (now.iSpkReachAmp > kSpkForAlternative && (bApart || bPoor)) {
    calcEchoAndConverge(now, kAlternative, bAdapt);
  } else {
    iTestStart += kCycleSamples;
  }
  return bRan;
}

bool TimeDomainFilter::calcEchoAndConverge(sAecCycle& now, int iSet, bool bAdapt) {
  sAecCoefSet& s = set(iSet);
  s.iProcessedTime = now.iLast;
  s.iSpeakerLevel = pHistory->calcSpkrAmp(now.iLast - s.iStart, s.iLength + kCycleSamples);
  s.iLargestRawStep = 0;
  sSignals signals;
  signals.e = now.fMic;
  const auto uNeeded = static_cast<std::size_t>(s.iLength + kCycleSamples - 1);
  // What has not arrived yet, or is not kept any more, counts as 0: such taps neither echo nor learn.
  const bool bAudible = s.iSpeakerLevel >= kSpeakerAudible;
  if (bAudible) pHistory->copy(now.iFirst - s.end(), std::span(signals.x).first(uNeeded));
  if (bAudible) runBlocks(now, s, bAdapt, signals);
  measureResidual(s, signals.e);
  if (iSet == kActive) fEstimate = signals.y;
  updateQuality(now, s, s.iResidual[0], bAudible);
  return bAudible;
}

// Estimate, error and update, block by block: the second block is estimated with what the first has taught.
void TimeDomainFilter::runBlocks(const sAecCycle& now, sAecCoefSet& s, bool bAdapt, sSignals& signals) {
  float fPower = 0;
  if (bAdapt) {
    calcStepProfile(now, s);
    const int iFrom = now.iFirst - s.end() - 1 - static_cast<int>(kBlockSamples);
    fPower = static_cast<float>(std::max(kLeastPower, pHistory->power(iFrom, now.iLast - s.iStart)));
  }
  for (std::size_t b = 0; b < kCycleSamples; b += kBlockSamples) {
    s.estimate(signals.x.data() + b, std::span<float, kBlockSamples>(signals.y.data() + b, kBlockSamples));
    for (std::size_t j = b; j < b + kBlockSamples; ++j) signals.e[j] = now.fMic[j] - signals.y[j];
    if (!bAdapt) continue;
    const std::span<const float, kBlockSamples> error(signals.e.data() + b, kBlockSamples);
    s.blockUpdateAecCoefs(signals.x.data() + b, error, static_cast<float>(dMu), fPower, profile);
  }
  if (!bAdapt) return;
  ++s.iAdaptations;
  s.updateTapStatistics();
}

void TimeDomainFilter::measureResidual(sAecCoefSet& s, const std::array<float, kCycleSamples>& e) {
  // A set that diverges may leave more than a sample can hold.
  const auto level = [&](float f) { return static_cast<int>(std::min<float>(f, kLargestSpread)); };
  const auto [pLow, pHigh] = std::minmax_element(e.begin(), e.end());
  float fSum = 0;
  for (const float fError : e) fSum += std::abs(fError);
  s.iResidualSpread = level(*pHigh - *pLow);
  s.iResidual = {level(fSum / kCycleSamples), level(std::max(*pHigh, -*pLow))};
  iSmallestResidual = std::min(iSmallestResidual, s.iResidualSpread);
}

// While the loudspeaker is silent in the set's span, the present figures say what the microphone holds, and
// the lasting ones stand still.
void TimeDomainFilter::updateQuality(const sAecCycle& now, sAecCoefSet& s, int iMeanError, bool bAudible) {
  const bool bWorse = s.iResidualSpread >= now.iMicSpread && now.iMicSpread <= 500;
  const int iDivisor = bWorse ? std::min(now.iMicSpread + 150, 500) : now.iMicSpread;
  s.r[0] = perMille(s.iResidualSpread, iDivisor);
  s.r[2] = perMille(iMeanError, iReferenceLevel);
  if (!bAudible) return;
  int p = now.bMicQuiet ? 1 : 5;
  if (!now.bMicQuiet && now.iSpkAmp > 4000 && now.iSpkAmp > 2 * now.iSpkAverageAmp) {
    constexpr int kLargestRatio = 3;  // whose square is beyond the largest step already
    const int q = std::min(now.iSpkAmp / now.iSpkAverageAmp, kLargestRatio);
    p = std::clamp(4 * q * q, 1, 20);
  }
  s.r[1] = (p * s.r[0] + (kSmoothedParts - p) * s.r[1]) / kSmoothedParts;
  s.r[3] = (p * s.r[2] + (kSmoothedParts - p) * s.r[3]) / kSmoothedParts;
  if (s.r[0] <= 799 && s.r[1] <= 899 && s.r[2] <= 699) ++s.iGoodUpdates;
}

void TimeDomainFilter::calcStepProfile(const sAecCycle& now, const sAecCoefSet& s) {
  constexpr int kAfterClipping = 2000;
  constexpr int kLongAfterClipping = 80000;
  const int iBlocks = s.blocks();
  const bool bNear = s.iPeakDrift < 31;
  float fFactor = 8;
  if ((s.iAdaptations < 51 && s.iGoodUpdates <= 99) || s.iPeak == 0) {
    profile.fill(1024);
    return;
  }
  if (now.iFirst - now.iLastClipping < kAfterClipping && iBlocks > 9 && !now.bStablePath) {
    profile.fill(256);
    return;
  }
  if (now.iFirst - now.iLastClipping < kLongAfterClipping && !now.bStablePath && s.r[0] >= 950 &&
      s.r[1] > 999 && s.r[2] >= 950 && s.r[3] > 999 && now.iFirst - iLastRestart > 40000) {
    profile.fill(512);
    return;
  }
  if (s.iAdaptations > 99 || now.bStablePath || bNear) {
    const bool bWide = bNear && (s.r[3] < 851 || iBlocks > 5);
    const int m = bWide ? std::max(4, std::min(2 * iBlocks, 32)) : std::min(iBlocks, 10);
    s.profileByTaps(m, profile);
  } else {
    profile.fill(1024);
  }
  const sPeakSample& recorded = asPeaks[static_cast<std::size_t>(iNewestPeak)];
  const bool bElsewhere = recorded.iTime > kNever && std::abs(s.newestPeak() - recorded.iDelay) > 100;
  const bool bLost = iBlocks > 9 && s.r[3] > 1000 && (now.bDoublePath || bElsewhere);
  if (bLost) {
    fFactor = 10;
  } else if (!now.bMicQuiet && iBlocks <= 9 && set(kTest).r[3] <= 599) {
    fFactor = static_cast<float>(std::clamp(8 * now.iSpkAmp / now.iSpkAverageAmp, 4, 8));
  }
  for (float& fWeight : profile) fWeight *= fFactor / 8;
}

void TimeDomainFilter::countCycle(const sAecCycle& now, bool bAdapted) {
  const sAecCoefSet& s = set(kTest);
  if (s.iGoodUpdates <= 50) return;
  ++counts.iCycles;
  const int iError = s.iResidual[0];
  if (iError > std::max(5 * iReferenceLevel, 500)) ++counts.iBad;
  if (!bAdapted || !(set(kActive).isGood() || now.bMicQuiet)) return;
  ++counts.iAdapting;
  if (2 * iError >= iReferenceLevel && 10 * iError <= 12 * iReferenceLevel) ++counts.iInRange;
  if (s.iLargestRawStep > 512 * 128) ++counts.iLargeSteps;
}

void TimeDomainFilter::controlStepSize(const sAecCycle& now) {
  constexpr int kCounted = 19;
  if (counts.iCycles <= kCounted) return;
  const bool bFewBad = 4 * counts.iBad <= counts.iCycles;
  const bool bFewLarge = 4 * counts.iLargeSteps <= counts.iAdapting || counts.iAdapting < 11;
  if (bFewBad && bFewLarge) {
    bDivergence = false;
    if (2 * counts.iInRange > counts.iAdapting && counts.iAdapting >= 11)
      dMu = std::min(1.03 * dMu, kLargestMu);
  } else {
    dMu = std::max(dMu / 1.1, kLeastMu);
    if (!now.bRestarted) {
      if (!bDivergence) iDivergenceTime = now.iFirst;
      bDivergence = true;
    }
  }
  counts = sCounts{};
}

// ---- Convergence

void TimeDomainFilter::checkIfConvergenceOkay(sAecCycle& now, int iEchoPercent) {
  const sAecCoefSet& s = set(kActive);
  now.bConvergenceOk = false;
  if (!s.isGood() || (s.iLength > 415 && s.iGoodUpdates < 201) || iEchoPercent >= 100) return;
  if (now.bRestarted && s.iGoodUpdates < 11) return;
  const auto compact = [&](int iTaps, int iCrossings, int iOscillations) {
    return s.iTapsAboveHalf <= iTaps && s.iHalfCrossings <= iCrossings && s.iOscillations <= iOscillations;
  };
  const int iGrowth = iGoodRecord.back() - iGoodRecord.front();
  if (compact(49, 9, 99) || (iEchoPercent < 35 && compact(99, 19, 199))) {
    now.bConvergenceOk = true;
  } else if (s.iGoodUpdates >= 201 && iGrowth >= 21 && compact(74, 14, 149)) {
    now.bConvergenceOk = true;
  } else if (!now.bMicQuiet) {
    bool bSteady = iGrowth > 49;
    for (std::size_t i = 1; i < iGoodRecord.size(); ++i)
      bSteady = bSteady && iGoodRecord[i] - iGoodRecord[i - 1] >= 5;
    now.bConvergenceOk = bSteady;
  }
}
