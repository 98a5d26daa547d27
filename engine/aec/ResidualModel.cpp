#include "engine/aec/ResidualModel.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr float kFirstLeakDb = 0;
constexpr float kLeastLeakDb = -35;
constexpr float kFaint = 4.0F;     // mean square of a band that nobody hears
constexpr float kTailKept = 0.7F;  // a room of 100 ms loses 2.4 dB in 4 ms, the echo beyond the filter too
constexpr float kNoiseRise = 1.0015F;  // 1.6 dB a second
constexpr float kNoiseMargin = 3.0F;
constexpr float kMarginDb = 3;  // what a residual may exceed its expectation by chance
constexpr float kMostDb = 15;

float decibels(float fRatio) {
  return 3.0103F * std::log2(std::max(fRatio, 1e-9F));
}

}  // namespace

void ResidualModel::clean(std::size_t uSamples) {
  *this = ResidualModel{};
  uHop = uSamples;
  uBands = std::min(kMaxBands, uHop / kBinsPerBand);
  for (std::size_t i = 0; i < 2 * uHop; ++i) {
    const double dAngle =
        2 * std::numbers::pi * (static_cast<double>(i) + 0.5) / static_cast<double>(2 * uHop);
    fWindow[i] = static_cast<float>(0.5 - 0.5 * std::cos(dAngle));
  }
  fLeakDb.fill(kFirstLeakDb);
  fNoise.fill(kFaint);
}

void ResidualModel::relearn() {
  iLearnt = 0;
  fLeakDb.fill(kFirstLeakDb);
}

void ResidualModel::update(std::span<const float> fMic, std::span<const float> fEcho, bool bSpkActive) {
  constexpr float kFollows = 0.07F;
  float fResidual = 1;
  float fTotal = 1;
  for (std::size_t i = 0; i < uHop; ++i) {
    const float e = fMic[i] - fEcho[i];
    history.x[i] = history.x[i + uHop];
    history.x[i + uHop][0] = lanes::Vector{e, fEcho[i], fMic[i], 0};
    fResidual += e * e;
    fTotal += fMic[i] * fMic[i];
  }
  if (bSpkActive) {
    fResidualPower += kFollows * (fResidual - fResidualPower);
    fMicPower += kFollows * (fTotal - fMicPower);
    fRemaining = std::min(1.0F, fResidualPower / fMicPower);
    countEcho();
  }
  transform();
  measure(bSpkActive);
}

// A filter that cancels proves that there is echo. One that has long cancelled nothing proves the contrary:
// the handset has been taken up.
void ResidualModel::countEcho() {
  constexpr int kMostProof = 250;
  constexpr int kDoubtCycles = 8;
  if (fRemaining < 0.5F) {
    iEchoCycles = std::min(iEchoCycles + 1, kMostProof);
  } else if (fRemaining > 0.8F && ++iDoubt >= kDoubtCycles) {
    iDoubt = 0;
    iEchoCycles = std::max(iEchoCycles - 1, 0);
  }
}

void ResidualModel::transform() {
  for (std::size_t i = 0; i < 2 * uHop; ++i) windowed.x[i][0] = history.x[i][0] * fWindow[i];
  lanes::Transform<1>::forward(2 * uHop, windowed, spectrum);
}

void ResidualModel::measure(bool bSpkActive) {
  constexpr float kSmoothed = 0.4F;
  // A sine of amplitude A gives (A n / 4)^2 in its bin, so this makes mean squares of band powers.
  const auto n = static_cast<float>(2 * uHop);
  const float fScale = 8.0F / (n * n);
  float fSum = 0;
  for (std::size_t b = 0; b < uBands; ++b) {
    lanes::Vector power{};
    for (std::size_t k = b * kBinsPerBand + 1; k <= (b + 1) * kBinsPerBand; ++k) {
      power += spectrum.re[k][0] * spectrum.re[k][0] + spectrum.im[k][0] * spectrum.im[k][0];
    }
    const float E = power[0] * fScale;
    const float Y = power[1] * fScale;
    fEchoTail[b] = std::max(Y, kTailKept * fEchoTail[b]);
    fNoise[b] = E < fNoise[b] ? 0.7F * fNoise[b] + 0.3F * E : fNoise[b] * kNoiseRise;
    fNoise[b] = std::max(fNoise[b], kFaint / 4);
    const float fBackground = kNoiseMargin * fNoise[b] + kFaint;
    const float fLeak = std::exp2(fLeakDb[b] / 3.0103F);
    fSum += std::clamp(decibels(E / (fLeak * fEchoTail[b] + fBackground)) - kMarginDb, 0.0F, kMostDb);
    // Only where the echo stands above the background does the residual tell of the leak.
    if (bSpkActive && fEchoTail[b] > 4 * fBackground) learn(b, decibels(E / fEchoTail[b]) - fLeakDb[b]);
  }
  fEvidence += kSmoothed * (fSum / static_cast<float>(uBands) - fEvidence);
  if (bSpkActive && hasSeenEcho() && iLearnt < kLearningCycles) ++iLearnt;
}

// Steps up and down in the ratio that leaves two of three residuals below the leak, eight of nine while it is
// being found.
void ResidualModel::learn(std::size_t b, float fExcessDb) {
  constexpr float kFastUpDb = 0.5F;
  constexpr float kUpDb = 0.04F;
  constexpr float kTalkUpDb = 0.004F;  // 1 dB a second: a misjudged echo is found in the end
  constexpr float kTalkEvidence = 3.0F;
  constexpr float kDownPart = 0.12F;
  const bool bFast = isLearning() && fRemaining < 0.5F;
  const float fUp = bFast ? kFastUpDb : fEvidence > kTalkEvidence ? kTalkUpDb : kUpDb;
  const float fDown = kDownPart * (bFast ? kFastUpDb : 4 * kUpDb);
  fLeakDb[b] = std::clamp(fLeakDb[b] + (fExcessDb > 0 ? fUp : -fDown), kLeastLeakDb, 6.0F);
}
