#include "engine/analysis/SpectralRise.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "engine/MyFilters.h"

namespace {

constexpr int kLearningCycles = 12;  // 48 ms until the background is first known
constexpr int kBlockCycles = 125;    // 0.5 s
constexpr float kSmoothing = 0.06F;  // of a band's power, per cycle: 67 ms
constexpr float kFollowing = 0.02F;  // of the background, per quiet cycle: 200 ms
// The lowest smoothed power of steady noise over three seconds, to its mean.
constexpr float kLowestToMean = 2.0F;
// Power of a band below which there is nothing to hear: one quantisation step of A-law near zero.
constexpr float kLeastPower = 128.0F * 64.0F * 0.375F * 0.25F;

const std::array<double, SpectralRise::kSpanSamples>& window() {
  static const auto dWindow = [] {
    std::array<double, SpectralRise::kSpanSamples> d;
    for (std::size_t i = 0; i < d.size(); ++i) {
      d[i] = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / d.size());
    }
    return d;
  }();
  return dWindow;
}

}  // namespace

void SpectralRise::power(std::span<const double> dSamples) {
  std::array<double, kSpanSamples> dWork;
  for (std::size_t i = 0; i < dWork.size(); ++i) dWork[i] = dSamples[i] * window()[i];
  MyFilters::executeFFT(kSpanSamples, dWork.data());
  Bands& fNewest = fSpan[static_cast<std::size_t>(iCycles) % kSpans];
  for (std::size_t b = 0; b < kBands; ++b) {
    double dSum = 0;
    for (std::size_t k = kFirstBin + b * kBandBins; k < kFirstBin + (b + 1) * kBandBins; ++k) {
      dSum += dWork[2 * k] * dWork[2 * k] + dWork[2 * k + 1] * dWork[2 * k + 1];
    }
    fNewest[b] = std::max(kLeastPower, static_cast<float>(dSum) / kBandBins);
    fPower[b] = 0;
    for (const Bands& fEach : fSpan) fPower[b] += fEach[b] / kSpans;
  }
}

float SpectralRise::score() const {
  float fSum = 0;
  for (std::size_t b = 0; b < kBands; ++b) {
    const float r = fPower[b] / fBackground[b];
    if (r > 1) fSum += r - 1 - std::log(r);
  }
  return fSum / kBands;
}

float SpectralRise::push(std::span<const double> dSamples) {
  power(dSamples);
  if (iCycles < kLearningCycles) {
    const Bands& fNewest = fSpan[static_cast<std::size_t>(iCycles) % kSpans];
    ++iCycles;
    const float fPart = 1.0F / static_cast<float>(iCycles);
    for (std::size_t b = 0; b < kBands; ++b) {
      fBackground[b] += fPart * (fNewest[b] - fBackground[b]);
      fSmooth[b] = fBackground[b];
    }
    for (auto& fBlock : fLowest) fBlock = fBackground;
    return 0;
  }
  const float fScore = score();
  followBackground(fScore);
  return fScore;
}

// Quiet cycles are averaged in. The lowest level of the last seconds bounds the background from both sides:
// speech always leaves gaps, and noise that has risen for good has none.
void SpectralRise::followBackground(float fScore) {
  const bool bNewBlock = ++iCycles % kBlockCycles == 0;
  if (bNewBlock) {
    std::shift_right(fLowest.begin(), fLowest.end(), 1);
    fLowest[0] = fSmooth;
  }
  for (std::size_t b = 0; b < kBands; ++b) {
    fSmooth[b] += kSmoothing * (fPower[b] - fSmooth[b]);
    fLowest[0][b] = std::min(fLowest[0][b], fSmooth[b]);
    if (fScore < kQuiet) fBackground[b] += kFollowing * (fPower[b] - fBackground[b]);
    float fLow = fLowest[0][b];
    for (const auto& fBlock : fLowest) fLow = std::min(fLow, fBlock[b]);
    fBackground[b] = std::clamp(fBackground[b], fLow, kLowestToMean * fLow);
    fBackground[b] = std::max(fBackground[b], kLeastPower);
  }
}
