#include "engine/analysis/PitchComparator.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace {

constexpr double kCutoffHz = 1000;
// y[n] = x[n] - x[n-1] + 0.88 y[n-1] at 4 kHz: 3 dB down at 76 Hz, below any voice and above rumble.
constexpr float kHighPassPole = 0.88F;
constexpr int kElementValues = 4 * kCycleSamples / 2;
// Keeps the score of silence at 0; a real signal's energy is far above.
constexpr float kSilenceEnergy = 64;

// Windowed sinc (Hamming), unity at 0 Hz.
template <int kTaps>
std::array<float, kTaps> designLowPass() {
  std::array<double, kTaps> pdTap;
  constexpr double kCentre = (kTaps - 1) / 2.0;
  double dSum = 0;
  for (int i = 0; i < kTaps; ++i) {
    const double t = i - kCentre;
    const double dOmega = 2 * std::numbers::pi * kCutoffHz / kAnalysisRate;
    const double dSinc = t == 0 ? dOmega : std::sin(dOmega * t) / t;
    const double dWindow = 0.54 - 0.46 * std::cos(2 * std::numbers::pi * i / (kTaps - 1));
    dSum += pdTap[static_cast<std::size_t>(i)] = dSinc * dWindow;
  }
  std::array<float, kTaps> pfTap;
  for (std::size_t i = 0; i < kTaps; ++i) pfTap[i] = static_cast<float>(pdTap[i] / dSum);
  return pfTap;
}

}  // namespace

void PitchComparator::push(std::span<const std::int16_t> samples) {
  static const auto pfTap = designLowPass<kTaps>();
  std::copy(pfInput.end() - kHistory, pfInput.end(), pfInput.begin());
  std::copy(samples.begin(), samples.end(), pfInput.begin() + kHistory);
  for (int i = 0; i < kCycleValues; ++i) {
    const float* pfFrom = pfInput.data() + kDecimation * i + 1;
    float fLow = 0;
    for (int k = 0; k < kTaps; ++k) fLow += pfTap[static_cast<std::size_t>(k)] * pfFrom[k];
    fLastHigh = fLow - fLastLow + kHighPassPole * fLastHigh;
    fLastLow = fLow;
    pfRing[static_cast<std::size_t>(iWrite++ & (kRingValues - 1))] = fLastHigh;
  }
}

// By index j: the sum of v[i] v[i - (kLags - j)] over the cycle's values. The inner loop runs over the
// distances, whose sums do not depend on one another.
const PitchComparator::Products& PitchComparator::productsOf(int iFirst, const float* pfCycle) const {
  sKeptProducts& kept = asKept[static_cast<std::size_t>(iFirst / kCycleValues) % kKeptCycles];
  if (kept.iFirst == iFirst) return kept.fProducts;
  kept.iFirst = iFirst;
  kept.fProducts.fill(0);
  for (int i = 0; i < kCycleValues; ++i) {
    const float* pfBefore = pfCycle + i - sScores::kLags;
    for (int j = 0; j < sScores::kLags; ++j) {
      kept.fProducts[static_cast<std::size_t>(j)] += pfCycle[i] * pfBefore[j];
    }
  }
  return kept.fProducts;
}

bool PitchComparator::holds(int iStart) const {
  const int iElement = iStart / kDecimation;
  return iElement + kElementValues <= iWrite &&
         iElement - kElementValues - sScores::kLags >= iWrite - kRingValues;
}

void PitchComparator::compare(int iStart, sScores& scores) const {
  constexpr int kLags = sScores::kLags;
  constexpr int kElementCycleCount = kElementValues / kCycleValues;
  constexpr int kSpan = 2 * kElementValues;
  // A straight copy of the span and what lies before it, so that the inner loops know no wrap.
  std::array<float, kSpan + kLags> pfLine;
  const int iSpanStart = iStart / kDecimation - kElementValues;
  for (int i = 0; i < kSpan + kLags; ++i) pfLine[static_cast<std::size_t>(i)] = at(iSpanStart - kLags + i);
  // Energies of all stretches are differences of one running sum.
  std::array<double, kSpan + kLags + 1> dEnergyBefore;
  dEnergyBefore[0] = 0;
  for (std::size_t i = 0; i < pfLine.size(); ++i) {
    dEnergyBefore[i + 1] = dEnergyBefore[i] + double{pfLine[i]} * pfLine[i];
  }
  const auto energy = [&](int iFrom) {
    const double* pdFrom = dEnergyBefore.data() + iFrom;
    return static_cast<float>(pdFrom[kElementValues] - pdFrom[0]);
  };
  Products fEarlyDot{};
  Products fLateDot{};
  for (int n = 0; n < kElementCycleCount; ++n) {
    const auto add = [&](int iCycle, Products& fSum) {
      const int iOffset = iCycle * kCycleValues;
      const Products& fCycle = productsOf(iSpanStart + iOffset, pfLine.data() + kLags + iOffset);
      for (std::size_t j = 0; j < fSum.size(); ++j) fSum[j] += fCycle[j];
    };
    add(n, fEarlyDot);
    add(n + kElementCycleCount, fLateDot);
  }
  const float fEarly = energy(kLags);
  const float fLate = energy(kLags + kElementValues);
  for (int j = 1; j <= kLags - 2; ++j) {
    const auto u = static_cast<std::size_t>(j);
    const auto uLag = static_cast<std::size_t>(kLags - j);
    const float fEarlyLag = energy(j);
    const float fLateLag = energy(j + kElementValues);
    const auto score = [](float fDot, float fA, float fB) {
      return fDot / std::sqrt((fA + kSilenceEnergy) * (fB + kSilenceEnergy));
    };
    scores.fShort[uLag] = score(fLateDot[u], fLate, fLateLag);
    scores.fLong[uLag] = score(fEarlyDot[u] + fLateDot[u], fEarly + fLate, fEarlyLag + fLateLag);
  }
}
