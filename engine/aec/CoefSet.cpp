#include "engine/aec/CoefSet.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/aec/LaneTransform.h"

// ---- Placement

void sAecCoefSet::forget() {
  const int iKeptStart = iStart;
  const int iKeptLength = iLength;
  const int iKeptTime = iProcessedTime;
  const int iKeptAdaptations = std::min(iAdaptations, 90);
  *this = sAecCoefSet{};
  iStart = iKeptStart;
  iLength = iKeptLength;
  iProcessedTime = iKeptTime;
  iAdaptations = iKeptAdaptations;
}

bool sAecCoefSet::updateCoefsToLatestEchoDelay(int iNewStart, int iNewLength) {
  if (iNewStart == iStart && iNewLength == iLength) return false;
  const int iFrom = std::max(iStart, iNewStart);
  const int iTo = std::min(end(), iNewStart + iNewLength - 1);
  const int iPeakAt = newestPeak();
  if (iFrom > iTo || iPeakAt < iFrom || iPeakAt > iTo) {
    forget();
  } else {
    std::array<float, kTapStore> fMoved{};
    std::copy_n(fTaps.begin() + (iFrom - iStart), iTo - iFrom + 1, fMoved.begin() + (iFrom - iNewStart));
    fTaps = fMoved;
    if (2 * (iTo - iFrom + 1) < iNewLength) iAdaptations = std::min(iAdaptations, 90);
  }
  iStart = iNewStart;
  iLength = iNewLength;
  return true;
}

// ---- Estimate and update

// Sixteen sums side by side: every tap meets sixteen neighbouring loudspeaker samples.
void sAecCoefSet::estimate(const float* fSpeaker, std::span<float, 16> fEcho) const {
  std::array<lanes::Vector, 4> y{};
  for (int k = 0; k < iLength; ++k) {
    const float w = fTaps[static_cast<std::size_t>(k)];
    std::array<lanes::Vector, 4> x;
    std::memcpy(x.data(), fSpeaker + (iLength - 1 - k), sizeof x);
    for (std::size_t v = 0; v < y.size(); ++v) y[v] += w * x[v];
  }
  for (std::size_t j = 0; j < 16; ++j) fEcho[j] = y[j / 4][j % 4] / kCouplingOne;
}

void sAecCoefSet::blockUpdateAecCoefs(const float* fSpeaker, std::span<const float, 16> fError, float fMu,
                                      float fPower, const StepProfile& profile) {
  // Sixteen taps at a time, whose sums stay in registers while the block's sixteen errors pass. The
  // loudspeaker runs forward and the taps run backward: tap k meets fSpeaker[length - 1 - k + j].
  const float fScale = 0.25F * fMu / (fPower / 4);
  lanes::Vector mostRaw{};
  for (int k = 0; k < iLength; k += 16) {
    std::array<lanes::Vector, 4> c;
    c.fill(lanes::Vector{1, 1, 1, 1});
    const float* x = fSpeaker + (iLength - 16 - k);
    for (std::size_t j = 0; j < fError.size(); ++j) {
      std::array<lanes::Vector, 4> heard;
      std::memcpy(heard.data(), x + j, sizeof heard);
      for (std::size_t v = 0; v < c.size(); ++v) c[v] += heard[v] * fError[j];
    }
    const float fWeight = profile[static_cast<std::size_t>(k / kTapsPerWeight)] / 1024;
    float* const pfTap = fTaps.data() + k;
    for (std::size_t v = 0; v < c.size(); ++v) {
      const lanes::Vector raw = __builtin_shufflevector(c[3 - v], c[3 - v], 3, 2, 1, 0) * fScale;
      const lanes::Vector step = lanes::clamped(raw * fWeight, kLargestStep);
      mostRaw = lanes::larger(mostRaw, lanes::magnitude(raw));
      lanes::Vector tap;
      std::memcpy(&tap, pfTap + 4 * v, sizeof tap);
      tap += step;
      std::memcpy(pfTap + 4 * v, &tap, sizeof tap);
    }
  }
  const float fLargestRaw = lanes::largest(mostRaw);
  constexpr float kLargestRawKept = 1e7F;
  iLargestRawStep = std::max(iLargestRawStep, static_cast<int>(std::min(fLargestRaw, kLargestRawKept) * 128));
}

// ---- Shape

void sAecCoefSet::recordPeak(int iDelay) {
  iPeakIndex = (iPeakIndex + 1) % kPeaks;
  iPeakHistory[static_cast<std::size_t>(iPeakIndex)] = iDelay;
  iPeakDrift = 0;
  for (const int iOther : iPeakHistory) {
    if (iOther == kUnknownPeak) {
      iPeakDrift = kUnknownPeak;
      return;
    }
    iPeakDrift = std::max(iPeakDrift, std::abs(iOther - iDelay));
  }
}

void sAecCoefSet::updateTapStatistics() {
  const auto magnitude = [&](int k) { return std::abs(fTaps[static_cast<std::size_t>(k)]); };
  const lanes::sSums sums = lanes::magnitudes(fTaps.data(), static_cast<std::size_t>(iLength));
  const float fPeak = sums.fLargest;
  iPeak = static_cast<int>(std::min(fPeak, 1e9F));
  constexpr int kShortFilter = 300;
  fSpread = iLength >= kShortFilter ? fPeak * 32 : fPeak > 0 ? sums.fSum / fPeak : 16.0F;
  if (fPeak > 0) {
    int iPeakTap = 0;
    while (magnitude(iPeakTap) < fPeak) ++iPeakTap;
    recordPeak(iStart + iPeakTap);
  }

  countShape(fPeak);
}

// Groups of taps far below the peak, which are most of them, are passed over at once.
void sAecCoefSet::countShape(float fPeak) {
  constexpr int kGroup = 16;
  const auto magnitude = [&](int k) { return std::abs(fTaps[static_cast<std::size_t>(k)]); };
  iTapsAboveHalf = iHalfCrossings = iOscillations = 0;
  int iDirection = 0;
  for (int k = 0; k < iLength; ++k) {
    while (k % kGroup == 0 && k < iLength &&
           16 * lanes::magnitudes(fTaps.data() + k, kGroup).fLargest <= fPeak)
      k += kGroup;
    if (k >= iLength) return;
    const float a = magnitude(k);
    const float b = k > 0 ? magnitude(k - 1) : 0;
    if (2 * a > fPeak) {
      ++iTapsAboveHalf;
      if (2 * b < fPeak) ++iHalfCrossings;
    }
    if (16 * a <= fPeak) continue;
    const float t = std::max(b / 20, 10.0F);
    const int iNow = a > b + t ? 1 : a < b - t ? -1 : 0;
    if (iNow != 0 && iDirection != 0 && iNow != iDirection) ++iOscillations;
    if (iNow != 0) iDirection = iNow;
  }
}

void sAecCoefSet::profileByTaps(int iDivisor, StepProfile& profile) const {
  float fLargest = 0;
  const auto uWeights = static_cast<std::size_t>(std::max(1, blocks()));
  profile.fill(0);
  for (std::size_t i = 0; i < uWeights; ++i) {
    profile[i] = lanes::magnitudes(fTaps.data() + i * kTapsPerWeight, kTapsPerWeight).fSum;
    fLargest = std::max(fLargest, profile[i]);
  }
  const float fLeast = 1024.0F / static_cast<float>(std::max(1, iDivisor));
  for (std::size_t i = 0; i < profile.size(); ++i) {
    const float fWeight = fLargest > 0 ? profile[i] * 1024 / fLargest : 1024.0F;
    profile[i] = std::max(fWeight, i < uWeights ? fLeast : 0.0F);
  }
}
