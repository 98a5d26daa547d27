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

// Four running sums let the compiler use vector registers without reordering a single sum.
float dot(const float* pfA, const float* pfB, int iCount) {
  std::array<float, 4> pfSum{};
  for (int i = 0; i < iCount; i += 4) {
    for (int k = 0; k < 4; ++k) pfSum[static_cast<std::size_t>(k)] += pfA[i + k] * pfB[i + k];
  }
  return (pfSum[0] + pfSum[1]) + (pfSum[2] + pfSum[3]);
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

void PitchComparator::compare(int iStart, sScores& scores) const {
  constexpr int kLags = sScores::kLags;
  constexpr int kSpan = 2 * kElementValues;
  // A straight copy of the span and what lies before it, so that the inner loops know no wrap.
  std::array<float, kSpan + kLags> pfLine;
  const int iFirst = iStart / kDecimation - kElementValues - kLags;
  for (int i = 0; i < kSpan + kLags; ++i) pfLine[static_cast<std::size_t>(i)] = at(iFirst + i);
  const float* pfEarly = pfLine.data() + kLags;
  const float* pfLate = pfEarly + kElementValues;
  // Energies of all stretches are differences of one running sum.
  std::array<double, kSpan + kLags + 1> dEnergyBefore;
  dEnergyBefore[0] = 0;
  for (std::size_t i = 0; i < pfLine.size(); ++i) {
    dEnergyBefore[i + 1] = dEnergyBefore[i] + double{pfLine[i]} * pfLine[i];
  }
  const auto energy = [&](const float* pfFrom) {
    const auto* pdFrom = dEnergyBefore.data() + (pfFrom - pfLine.data());
    return static_cast<float>(pdFrom[kElementValues] - pdFrom[0]);
  };
  const float fEarly = energy(pfEarly);
  const float fLate = energy(pfLate);
  for (int iLag = 2; iLag < kLags; ++iLag) {
    const float fEarlyLag = energy(pfEarly - iLag);
    const float fLateLag = energy(pfLate - iLag);
    const float fEarlyDot = dot(pfEarly, pfEarly - iLag, kElementValues);
    const float fLateDot = dot(pfLate, pfLate - iLag, kElementValues);
    const auto score = [](float fDot, float fA, float fB) {
      return fDot / std::sqrt((fA + kSilenceEnergy) * (fB + kSilenceEnergy));
    };
    scores.fShort[static_cast<std::size_t>(iLag)] = score(fLateDot, fLate, fLateLag);
    scores.fLong[static_cast<std::size_t>(iLag)] =
        score(fEarlyDot + fLateDot, fEarly + fLate, fEarlyLag + fLateLag);
  }
}
