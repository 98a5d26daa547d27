#include "engine/aec/DelaySearch.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/aec/LaneTransform.h"
#include "engine/MyChannel.h"

// ---- Coupling

void CoarseFilter::clean(sEchoSpan echoSpan) {
  *this = CoarseFilter{};
  span = echoSpan;
  iTaps = std::min(kMaxTaps, span.cycles() * kPerCycle);
  iNewest = static_cast<int>(fHistory.size()) - iTaps;
  iPeaks.fill(-1);
}

void CoarseFilter::relearn() {
  fTaps.fill(0);
  iPeaks.fill(-1);
  fMicEnergy = fErrorEnergy = 1;
}

// Four samples become one, after a difference that flattens the spectrum of speech.
void CoarseFilter::decimate(const std::array<float, kCycleSamples>& fIn, float& fMemory, float& fLast,
                            std::array<float, kPerCycle>& fOut) const {
  constexpr float kSmoothed = 0.35F;
  constexpr float kEmphasis = 0.8F;
  for (std::size_t i = 0; i < fOut.size(); ++i) {
    for (std::size_t j = 0; j < kDecimation; ++j) fMemory += kSmoothed * (fIn[kDecimation * i + j] - fMemory);
    fOut[i] = fMemory - kEmphasis * fLast;
    fLast = fMemory;
  }
}

void CoarseFilter::push(const std::array<float, kCycleSamples>& fSpk,
                        const std::array<float, kCycleSamples>& fMic, bool bBelieve, bool bCalm) {
  constexpr int kCalmCycles = 4;
  const bool bAdapt = !bCalm || ++iCycle % kCalmCycles == 0;
  std::array<float, kPerCycle> x;
  std::array<float, kPerCycle> m;
  decimate(fSpk, fSpkMemory, fSpkLast, x);
  decimate(fMic, fMicMemory, fMicLast, m);
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (iNewest == 0) {
      iNewest = static_cast<int>(fHistory.size()) - iTaps;
      std::copy_n(fHistory.begin(), iTaps, fHistory.begin() + iNewest);
    }
    const float fOldest = fHistory[static_cast<std::size_t>(iNewest + iTaps - 1)];
    fHistory[static_cast<std::size_t>(--iNewest)] = x[i];
    dPower += static_cast<double>(x[i]) * x[i] - static_cast<double>(fOldest) * fOldest;
    if (bAdapt) adapt(m[i]);
  }
  if (bAdapt) findPeak(bBelieve);
}

// Normalised LMS: w += mu e x / |x|^2.
void CoarseFilter::adapt(float fMic) {
  constexpr float kStep = 0.6F;
  constexpr double kLeastMeanSquare = 400;  // a loudspeaker at -64 dB and below excites nothing
  if (dPower < kLeastMeanSquare * kShortestSpan) return;
  const float* __restrict x = fHistory.data() + iNewest;
  float* __restrict w = fTaps.data();
  constexpr std::size_t kParallel = 8;
  std::array<float, kParallel> fSums{};
  const auto uTaps = static_cast<std::size_t>(iTaps);  // a multiple of 8
  for (std::size_t k = 0; k < uTaps; k += kParallel) {
    for (std::size_t j = 0; j < kParallel; ++j) fSums[j] += w[k + j] * x[k + j];
  }
  float fEcho = 0;
  for (const float fSum : fSums) fEcho += fSum;
  constexpr float kFollows = 1.0F / 300;  // 150 ms
  const float fError = fMic - fEcho;
  fMicEnergy += kFollows * (fMic * fMic - fMicEnergy);
  fErrorEnergy += kFollows * (fError * fError - fErrorEnergy);
  const auto fScale = static_cast<float>(kStep * (fMic - fEcho) / (dPower + kLeastMeanSquare));
  for (std::size_t k = 0; k < uTaps; ++k) w[k] += fScale * x[k];
}

// A reflection stands out when it holds far more than its share of the filter, and is believed when most of
// the latest cycles have named it.
void CoarseFilter::findPeak(bool bBelieve) {
  constexpr float kStandsOut = 40;       // peak power over the mean
  constexpr float kExplained = 0.5F;     // residual over microphone
  constexpr int kAgreeing = 22;          // of the latest 30 cycles
  constexpr int kForgottenAfter = 2500;  // cycles with loudspeaker sound, 10 s: there is no echo any more
  constexpr int kSame = 3;               // taps: 1.5 ms
  constexpr double kSpkActive = 900;     // mean square
  if (dPower < kSpkActive * kShortestSpan) return;
  const auto uTaps = static_cast<std::size_t>(iTaps);
  std::array<lanes::Vector, 2> sums{};
  std::array<lanes::Vector, 2> most{};
  for (std::size_t k = 0; k < uTaps; k += 8) {
    std::array<lanes::Vector, 2> w;
    std::memcpy(w.data(), fTaps.data() + k, sizeof w);
    for (std::size_t v = 0; v < w.size(); ++v) {
      const lanes::Vector power = w[v] * w[v];
      sums[v] += power;
      most[v] = lanes::larger(most[v], power);
    }
  }
  const float fSum = lanes::sum(sums[0] + sums[1]);
  const float fLargest = lanes::largest(lanes::larger(most[0], most[1]));
  int iLargest = 0;
  while (fLargest > 0 &&
         fTaps[static_cast<std::size_t>(iLargest)] * fTaps[static_cast<std::size_t>(iLargest)] < fLargest)
    ++iLargest;
  // While somebody talks at the near end the filter explains nothing, and its peaks mean nothing.
  const bool bStandsOut = bBelieve && fLargest * static_cast<float>(iTaps) > kStandsOut * fSum &&
                          fErrorEnergy < kExplained * fMicEnergy;
  iPeak = (iPeak + 1) % kRecent;
  iPeaks[static_cast<std::size_t>(iPeak)] = bStandsOut ? iLargest : -1;
  if (!bStandsOut) {
    if (++iUnconfirmed >= kForgottenAfter) iDelay = -1;
    return;
  }
  const auto iAgree = std::count_if(iPeaks.begin(), iPeaks.end(), [&](int iOther) {
    return iOther >= 0 && std::abs(iOther - iLargest) <= kSame;
  });
  if (iAgree < kAgreeing) return;
  iDelay = span.startSamples() + iLargest * kDecimation;
  iUnconfirmed = 0;
}

// ---- Level changes

void DelaySearch::clean(const MyChannel* pMicChannel, SpeakerHistory* pSpeaker, sEchoSpan echoSpan) {
  *this = DelaySearch{};
  pMic = pMicChannel;
  pHistory = pSpeaker;
  span = echoSpan;
  iAmp.fill(kUnknownAmp);
  coarse.clean(span);
}

void DelaySearch::initDelaynLengthCoeffCounters() {
  iVotes.fill(0);
  iEvents = iBestVotes = 0;
  iVoted = -1;
}

void DelaySearch::takeLevels() {
  std::copy_backward(iAmp.begin() + 1, iAmp.end() - 1, iAmp.end());
  const int iFresh = pHistory->cycleAmp(iCompared - span.startSamples());
  iAmp[1] = iFresh > 0 ? iFresh : kUnknownAmp;
  if (iFresh > 2000 && iFresh < 65535) {
    lSpkPower = lSpkPower * 99 / 100 + static_cast<std::int64_t>(iFresh) * iFresh / 100;
  }
}

void DelaySearch::updateEchoDelayParams(const sAecCycle& now, bool bMayCount) {
  constexpr int kMostAtOnce = 2;                           // catches up without a burst of work
  constexpr int kLongestLag = kAnalysisRingSamples - 800;  // what the microphone's rings hold
  iCompared = std::max(iCompared, now.iFirst - kLongestLag);
  for (int n = 0; n < kMostAtOnce && iCompared <= now.iFirst; ++n) {
    if (iCompared + kCycleSamples - 1 - span.startSamples() > now.iSpkLast) return;
    compareCycle(now, bMayCount);
    iCompared += kCycleSamples;
  }
}

void DelaySearch::compareCycle(const sAecCycle& now, bool bMayCount) {
  const CycleInformation& cycles = *pMic->pCycleInformation;
  const cHandle cycle = cycles.cycleOf(iCompared);
  iPrevMicAmp = iMicAmp;
  iMicAmp = cycle < 0 ? 1 : cycles.calcAmp(cycle, 1);
  takeLevels();
  std::array<float, kCycleSamples> fSpk;
  std::array<float, kCycleSamples> fMic;
  pHistory->copy(iCompared - span.startSamples(), fSpk);
  std::copy_n(pMic->pInputData->cycleSamples(iCompared), kCycleSamples, fMic.begin());
  coarse.push(fSpk, fMic, !now.bTalkOverPath, bCalm);

  const int iShift = now.anyDoublePath() || bStrongEcho ? 4 : 6;
  const int iChange = iMicAmp - iPrevMicAmp;
  const bool bFilled = iCompared > span.endSamples();
  if (bFilled && !now.bHowling) {
    if (bMayCount && std::abs(iChange) > std::max(iPrevMicAmp >> iShift, 25)) {
      int iRise = 0;
      if (iChange > 0 && iMicAmp > 2999) {
        iRise = iMicAmp * 112 / std::max({iPrevMicAmp, iReference, 1});
        if (iRise < 180) iRise = 0;
      }
      countEvent(now, iRise);
    }
    punishSilentLags();
    findBest();
  }
  iReference = (iReference * 7 + iMicAmp) >> 3;
}

// Loud enough to matter: what the coupling so far would turn into an eighth of the microphone's level; until
// a coupling is known, 1000.
int DelaySearch::vote(const sAecCycle& now, int d, int iThreshold, int iRise) const {
  const auto u = static_cast<std::size_t>(d);
  const int a = iAmp[u];
  if (now.anyDoublePath() && a < iThreshold) return -2;
  if (a <= iThreshold) return 0;
  const int iBefore = iAmp[u + 1];
  if (iBefore == kUnknownAmp || a <= iBefore) return iRise > 0 ? -8 : -2;
  const bool bStrong =
      iRise > 0 && a > 2 * iThreshold && iRise < static_cast<std::int64_t>(a) * 128 / std::max(1, iBefore);
  return bStrong ? 8 : 2;
}

void DelaySearch::countEvent(const sAecCycle& now, int iRise) {
  // The votes of long ago fade, so that a path that has moved is found.
  constexpr int kFadeEvents = 250;
  const int iThreshold =
      iCoupling > 0
          ? static_cast<int>(std::min<std::int64_t>(std::int64_t{iMicAmp} * 1024 / iCoupling / 8, 8000))
          : 1000;
  const int s = iMicAmp > iPrevMicAmp ? 1 : -1;
  for (int d = 1; d <= span.cycles(); ++d) {
    if (iAmp[static_cast<std::size_t>(d)] == kUnknownAmp) continue;
    iVotes[static_cast<std::size_t>(d)] += s * vote(now, d, iThreshold, iRise);
  }
  if (++iEvents % kFadeEvents != 0) return;
  for (int& iCount : iVotes) iCount = iCount * 3 / 4;
}

// Loud loudspeaker sound at a lag at which the microphone is quiet speaks against that lag. It is the
// microphone that has to be quiet: a quiet loudspeaker says nothing about lags at which it was loud.
void DelaySearch::punishSilentLags() {
  constexpr int kQuietMic = 999;
  constexpr int kLeastVotes = -200;  // a minute on mute must not outlive its end
  if (iMicAmp > kQuietMic) return;
  const int iLoud = std::max(16 * iMicAmp, 8000);
  for (int d = 1; d <= span.cycles(); ++d) {
    const int a = iAmp[static_cast<std::size_t>(d)];
    int& iCount = iVotes[static_cast<std::size_t>(d)];
    if (a != kUnknownAmp && a > iLoud) iCount = std::max(iCount - 16, std::min(iCount, kLeastVotes));
  }
}

void DelaySearch::findBest() {
  const auto pFirst = iVotes.begin() + 1;
  const auto pBest = std::max_element(pFirst, pFirst + span.cycles());
  iBestVotes = *pBest;
  iVoted = iBestVotes > 0 ? (static_cast<int>(pBest - iVotes.begin()) + span.iStart - 1) * kCycleSamples : -1;
}
