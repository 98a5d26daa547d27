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
  const int iKeptWeight = iWeight;
  *this = sAecCoefSet{};
  iStart = iKeptStart;
  iLength = iKeptLength;
  iProcessedTime = iKeptTime;
  iAdaptations = iKeptAdaptations;
  iWeight = iKeptWeight;
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

float sAecCoefSet::blockUpdateAecCoefs(const float* fSpeaker, std::span<const float, 16> fError, float fMu,
                                       float fPower, const StepProfile& profile) {
  // c(k) at index length - 1 - k, so that the inner loop runs forward over the loudspeaker samples.
  std::array<float, kMaxTaps> c;
  std::fill_n(c.begin(), iLength, 1.0F);
  for (std::size_t j = 0; j < 16; ++j) {
    const float e = fError[j];
    const float* x = fSpeaker + j;
    for (std::size_t i = 0; i < static_cast<std::size_t>(iLength); ++i) c[i] += x[i] * e;
  }
  const float fScale = 0.25F * fMu / (fPower / 4);
  float fLargest = 0;
  float fLargestRaw = 0;
  for (int k = 0; k < iLength; ++k) {
    const float fRaw = c[static_cast<std::size_t>(iLength - 1 - k)] * fScale;
    const float fWanted = fRaw * profile[static_cast<std::size_t>(k / kTapsPerWeight)] / 1024;
    const float fStep = std::clamp(fWanted, -kLargestStep, kLargestStep);
    fLargestRaw = std::max(fLargestRaw, std::abs(fRaw));
    fLargest = std::max(fLargest, std::abs(fStep));
    fTaps[static_cast<std::size_t>(k)] += fStep;
  }
  constexpr float kLargestRawKept = 1e7F;
  iLargestRawStep = std::max(iLargestRawStep, static_cast<int>(std::min(fLargestRaw, kLargestRawKept) * 128));
  return fLargest;
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
  int iPeakTap = 0;
  float fSum = 0;
  for (int k = 0; k < iLength; ++k) {
    fSum += magnitude(k);
    if (magnitude(k) > magnitude(iPeakTap)) iPeakTap = k;
  }
  const float fPeak = magnitude(iPeakTap);
  iPeak = static_cast<int>(std::min(fPeak, 1e9F));
  constexpr int kShortFilter = 300;
  fSpread = iLength >= kShortFilter ? fPeak * 32 : fPeak > 0 ? fSum / fPeak : 16.0F;
  if (fPeak > 0) recordPeak(iStart + iPeakTap);

  iTapsAboveHalf = iHalfCrossings = iOscillations = 0;
  int iDirection = 0;
  for (int k = 0; k < iLength; ++k) {
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
  for (int k = 0; k < iLength; ++k) {
    const auto uWeight = std::min(static_cast<std::size_t>(k / kTapsPerWeight), profile.size() - 1);
    profile[uWeight] += std::abs(fTaps[static_cast<std::size_t>(k)]);
    fLargest = std::max(fLargest, profile[uWeight]);
  }
  const float fLeast = 1024.0F / static_cast<float>(std::max(1, iDivisor));
  for (std::size_t i = 0; i < profile.size(); ++i) {
    const float fWeight = fLargest > 0 ? profile[i] * 1024 / fLargest : 1024.0F;
    profile[i] = std::max(fWeight, i < uWeights ? fLeast : 0.0F);
  }
}
