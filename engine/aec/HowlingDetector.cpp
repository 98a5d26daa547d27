#include "engine/aec/HowlingDetector.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numbers>

#include "engine/MyChannel.h"

namespace {

constexpr int kHighFrom = 25;  // bin of 62.5 Hz
constexpr int kTonalFrom = 27;
constexpr int kTonalTo = 31;
constexpr int kTonalHold = 100;  // samples
constexpr int kStrongHold = 1200;
constexpr int kHold = 400;
constexpr int kStrongPeak = 350000;
constexpr int kSpkLoud = 5001;
constexpr int kMicFullScale = kLargestSpread * 9 / 10;  // the low levels' limit is beyond what there is

}  // namespace

void HowlingDetector::clean(const MyChannel* pMicChannel, int iLevel) {
  *this = HowlingDetector{};
  pChannel = pMicChannel;
  iLevelSetting = iLevel;
  const int h = iLevel;
  const int q = std::max(h * h / 10, 1);
  limits = {.lPowerFloor = 25000000 / q,
            .iTonalPeak = 550000 / q,
            .iHighBand = 1000000 / q,
            .iRatio = 150 - 5 * h,
            .iStrongRatio = (150 - 5 * h) * 4,
            .iAmp = 65500 >> (q / 10),
            .iAveraged = std::max(h / 2, 1),
            .iSplitBin = 25 - (5 * h - 50) / 10,
            .iPeak = 2000000 / q,
            .iPeakCount = h * 4 / 10};
  for (std::size_t i = 0; i < fWindow.size(); ++i) {
    fWindow[i] = static_cast<float>(
        0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / (kSamples - 1)));
  }
}

void HowlingDetector::transform(const sAecCycle& now) {
  const InputData& input = *pChannel->pInputData;
  const int iFrom = now.iLast + 1 - kSamples;
  for (std::size_t i = 0; i < fWindow.size(); ++i) {
    signal.x[i][0] = lanes::Vector{} + static_cast<float>(input.at(iFrom + static_cast<int>(i))) * fWindow[i];
  }
  lanes::Transform<1>::forward(kSamples, signal, spectrum);
  for (std::size_t k = 0; k < kBins; ++k) {
    const float re = spectrum.re[k][0][0];
    const float im = spectrum.im[k][0][0];
    iMagnitude[k] = static_cast<int>(std::sqrt(re * re + im * im));
  }
}

void HowlingDetector::interrupt() {
  iBroadbandStart = -1;
  iSteadyCycles = 0;
}

int HowlingDetector::largest(int iFrom, int iTo) const {
  return *std::max_element(iMagnitude.begin() + iFrom, iMagnitude.begin() + iTo);
}

// The bands' levels follow their largest lines slowly: a consonant is over before it looks like a whistle.
void HowlingDetector::followBands() {
  const auto follow = [&](int& iLevel, int iNow) { iLevel += (iNow - iLevel) / limits.iAveraged; };
  follow(iLowLevel, largest(0, limits.iSplitBin));
  follow(iHighLevel, largest(limits.iSplitBin, kBins));
}

int HowlingDetector::ratioPercent() const {
  return static_cast<int>(std::int64_t{iHighLevel} * 100 / std::max(1, iLowLevel));
}

// Every limit of the ratio is relaxed after the hold.
bool HowlingDetector::hasRatio(int iLeast, bool bAfterHold) const {
  return ratioPercent() >= (bAfterHold ? iLeast * 8 / 10 : iLeast);
}

bool HowlingDetector::isTonal(bool bAfterHold) const {
  const auto pStrongest = std::max_element(iMagnitude.begin(), iMagnitude.end());
  const auto iStrongest = static_cast<int>(pStrongest - iMagnitude.begin());
  const int iPeak = *pStrongest;
  const int iHigh = largest(kHighFrom, kBins);
  const int iLow = largest(0, kHighFrom);
  const int iLeast = bAfterHold ? limits.iTonalPeak : limits.iTonalPeak * 9 / 10;
  if (iStrongest < kTonalFrom || iStrongest > kTonalTo || iHigh < iLow || iHigh < iLeast) return false;
  const int d = iPeak >= 300001 ? 3 : iPeak < 150001 ? 10 : iPeak < 200001 && bAfterHold ? 8 : 5;
  if (iHigh / d < iLow) return false;
  return hasTonalPeaks(iStrongest, iHigh);
}

// Walks the peaks of the high band: one begins where the level rises above a twentieth of the band's largest,
// and ends when the level has fallen below two thirds of it, so that a ripple on a slope is no peak. A
// whistle has one or two strong ones close together.
bool HowlingDetector::hasTonalPeaks(int iStrongest, int iHigh) const {
  constexpr int kMostPeaks = 4;  // more than 9 above a twentieth fail in any case
  constexpr int kApart = 4;      // bins
  const int iPeak = iMagnitude[static_cast<std::size_t>(iStrongest)];
  int iPeaks = 0, iStrongPeaks = 0, iFirstStrong = -1, iLastPeak = -1, iGaps = 0;
  const auto take = [&](int k, int iTop) {
    ++iPeaks;
    if (iLastPeak >= 0 && k - iLastPeak > kApart) ++iGaps;
    iLastPeak = k;
    if ((k < iStrongest ? 4 : 2) * std::int64_t{iTop} < iPeak) return true;
    ++iStrongPeaks;
    if (iFirstStrong < 0) iFirstStrong = k;
    return k >= kTonalFrom && k <= kTonalTo && k - iFirstStrong <= kApart;
  };
  int iTop = 0;  // of the peak that the walk is on; 0 between two
  int iTopBin = 0;
  for (int k = kHighFrom; k < kBins; ++k) {
    const int a = iMagnitude[static_cast<std::size_t>(k)];
    if (a > iTop &&
        (iTop > 0 || (20 * std::int64_t{a} > iHigh && a > iMagnitude[static_cast<std::size_t>(k) - 1]))) {
      iTop = a;
      iTopBin = k;
    } else if (iTop > 0 && 3 * std::int64_t{a} < 2 * std::int64_t{iTop}) {
      if (!take(iTopBin, iTop)) return false;
      iTop = 0;
    }
  }
  if (iTop > 0 && !take(iTopBin, iTop)) return false;
  return iStrongPeaks >= 1 && iStrongPeaks <= 2 && iPeaks <= kMostPeaks && iGaps <= 1;
}

bool HowlingDetector::isBroadband(bool bAfterHold, int iMicAmp, int iSpkAmp10) const {
  const int iPeak = largest(0, kBins);
  int iPeaks = 0;
  int iLowPeaks = 0;
  for (int k = 1; k < kBins - 1; ++k) {
    const auto u = static_cast<std::size_t>(k);
    if (3 * std::int64_t{iMagnitude[u]} <= iPeak || iMagnitude[u] <= iMagnitude[u - 1] ||
        iMagnitude[u] < iMagnitude[u + 1]) {
      continue;
    }
    ++iPeaks;
    if (k < kHighFrom) ++iLowPeaks;
  }
  const int iMostPeaks = bAfterHold ? 2 * std::max(1, limits.iPeakCount) : std::max(1, limits.iPeakCount);
  const int iLeastAmp = bAfterHold ? limits.iAmp / 2 : std::min(limits.iAmp, kMicFullScale);
  return iPeaks <= iMostPeaks && iLowPeaks <= iMostPeaks / 2 && iPeak >= limits.iPeak &&
         hasRatio(limits.iRatio, bAfterHold) && iHighLevel >= limits.iHighBand && iMicAmp >= iLeastAmp &&
         iSpkAmp10 >= kSpkLoud;
}

// One line that keeps its place and does not fade for a time that no vowel lasts, loud in both directions.
bool HowlingDetector::isSteadyLine(const sAecCycle& now, int iSpkAmp10) {
  constexpr int kSteadyCycles = 30;  // 120 ms
  constexpr float kShare = 0.9F;
  const auto pStrongest = std::max_element(iMagnitude.begin(), iMagnitude.end());
  const auto iBin = static_cast<int>(pStrongest - iMagnitude.begin());
  float fAll = 0;
  float fLine = 0;
  for (int k = 0; k < kBins; ++k) {
    const auto f = static_cast<float>(iMagnitude[static_cast<std::size_t>(k)]);
    fAll += f * f;
    if (std::abs(k - iBin) <= 2) fLine += f * f;
  }
  const bool bLine = iBin > 2 && fLine > kShare * fAll && iSpkAmp10 >= kSpkLoud && now.iMicAmp >= 1000;
  const bool bSame =
      std::abs(iBin - iSteadyBin) <= 1 && 5 * std::int64_t{*pStrongest} > 4 * std::int64_t{iSteadyPeak};
  iSteadyCycles = bLine ? (bSame ? iSteadyCycles + 1 : 1) : 0;
  iSteadyBin = iBin;
  iSteadyPeak = *pStrongest;
  return iSteadyCycles >= kSteadyCycles;
}

void HowlingDetector::checkHowlingConditions(sAecCycle& now, int iSpkAmp10, bool bFilterSure) {
  now.bHowling = false;
  if (now.iLast + 1 < kSamples || now.iSpkLast < 0) return;
  const bool bAfterHold = now.iFirst > now.iHowlingHoldEnd;
  const std::int64_t a2 = std::int64_t{now.iMicAmp} * now.iMicAmp;
  if (a2 < (bAfterHold ? limits.lPowerFloor : limits.lPowerFloor / 2)) {
    interrupt();
    iLowLevel = iHighLevel = 0;
    return;
  }
  const bool bSure = bFilterSure && now.iTalkScore == score::kFarSilentNearActive;
  if (iLevelSetting <= 9 && (bSure || now.bMicAboveEcho)) return;
  transform(now);
  followBands();
  const bool bTonal = isTonal(bAfterHold);
  const bool bBroadNow = isBroadband(bAfterHold, now.iMicAmp, iSpkAmp10);
  if (!bBroadNow) iBroadbandStart = -1;
  if (bBroadNow && iBroadbandStart < 0) iBroadbandStart = now.iFirst;
  const bool bBroadband = bBroadNow && now.iFirst - iBroadbandStart > kCycleSamples;
  const bool bSteady = isSteadyLine(now, iSpkAmp10);
  if (!bTonal && !bBroadband && !bSteady) return;
  now.bHowling = true;
  const bool bStrong =
      bBroadband && largest(0, kBins) > kStrongPeak && hasRatio(limits.iStrongRatio, bAfterHold);
  const int iHold = bTonal ? kTonalHold : bStrong ? kStrongHold : kHold;
  now.iHowlingHoldEnd = std::max(now.iHowlingHoldEnd, now.iFirst + iHold);
}
