#include "engine/analysis/VoiceGains.h"

#include <algorithm>
#include <cmath>

namespace {

// Logarithms of power: 1 is 4.3 dB.
constexpr float kMostExcess = 2;  // what is louder than the shape is another's, no matter by how much
constexpr float kLackWeight = 2;  // what the shape has and is not heard counts more
constexpr float kFreely = 2;      // a sound varies by this much around its cluster
constexpr float kLeastShare = 0.4F;
constexpr int kMostHarmonics = 11;

float misfit(const BandPower& heard, const BandPower& shape, float fLevel) {
  float fSum = 0;
  for (std::size_t b = 0; b < heard.size(); ++b) {
    const float fExcess = heard[b] - shape[b] - fLevel;
    fSum += fExcess > 0 ? std::min(fExcess, kMostExcess) : kLackWeight * fExcess * fExcess;
  }
  return fSum;
}

// The bin nearest to a harmonic of a period in samples.
int binOfHarmonic(int i, int iPeriod) {
  return (2 * i * kEnvelopeSamples + iPeriod) / (2 * iPeriod);
}

using Shares = std::array<float, kEnvelopeBins>;

// A bin and its two neighbours take over the best share that the five around them had.
void keepAround(int k, const Shares& fHad, std::span<float> fShare) {
  const auto index = [&](int i) { return std::clamp(i, 0, kEnvelopeBins - 1); };
  const float fBest = *std::max_element(fHad.begin() + index(k - 2), fHad.begin() + index(k + 2) + 1);
  for (int i = index(k - 1); i <= index(k + 1); ++i) {
    float& fKept = fShare[static_cast<std::size_t>(i)];
    fKept = std::max(fKept, fBest);
  }
}

void keepHarmonicsOfTalker(int iUsualPeriod, const Shares& fHad, std::span<float> fShare) {
  for (int i = 1; i <= kMostHarmonics && iUsualPeriod > 0; ++i) {
    const int k = binOfHarmonic(i, iUsualPeriod);
    if (k >= kEnvelopeBins) return;
    keepAround(k, fHad, fShare);
  }
}

// The period is known to two samples only: at the higher harmonics the strongest bin near by is the one.
void keepHarmonicsOfFrame(const sVoiceFrame& frame, const Shares& fHad, std::span<float> fShare) {
  constexpr int kNear = 2;
  for (int i = 1; frame.iPeriod > 0; ++i) {
    const int k = binOfHarmonic(i, frame.iPeriod);
    if (k >= kEnvelopeBins) return;
    const auto first = frame.fBinPower.begin() + std::max(0, k - kNear);
    const auto last = frame.fBinPower.begin() + std::min(k + kNear, kEnvelopeBins - 1);
    keepAround(static_cast<int>(std::max_element(first, last + 1) - frame.fBinPower.begin()), fHad, fShare);
  }
}

}  // namespace

void VoiceGains::learn() {
  shapes.resize(scorer.own().size());
  for (std::size_t u = 0; u < shapes.size(); ++u) bandShape(scorer.own()[u], shapes[u]);
}

// At the level at which shape and sound are as loud, and below it, where another voice adds the rest.
VoiceGains::sFit VoiceGains::bestFit(const BandPower& heard) const {
  sFit best;
  for (const BandPower& shape : shapes) {
    float fMean = 0;
    for (std::size_t b = 0; b < heard.size(); ++b) fMean += (heard[b] - shape[b]) / kEnvelopeBands;
    for (const float fLevel : {fMean, fMean - 1, fMean - 2}) {
      const float fMisfit = misfit(heard, shape, fLevel);
      if (fMisfit < best.fMisfit) best = {&shape, fLevel, fMisfit};
    }
  }
  return best;
}

void VoiceGains::shareOfVoice(const sVoiceFrame& frame, int iUsualPeriod, std::span<float> fShare) const {
  BandPower heard;
  bandPower(frame.fBinPower, heard);
  for (float& fBand : heard) fBand = std::log(fBand + 1);
  const sFit best = bestFit(heard);
  if (best.pShape == nullptr) return;
  const auto excess = [&](std::size_t b) { return heard[b] - (*best.pShape)[b] - best.fLevel - kFreely; };
  for (std::size_t k = 0; k < fShare.size(); ++k) {
    const float fBand = bandOfBin(static_cast<int>(k));
    const auto uLow = static_cast<std::size_t>(fBand);
    const float fWeight = fBand - static_cast<float>(uLow);
    const float fExcess =
        (1 - fWeight) * excess(uLow) + fWeight * excess(std::min(uLow + 1, heard.size() - 1));
    // Half the logarithm of power is that of amplitude.
    fShare[k] = std::clamp(std::exp(-fExcess / 2), kLeastShare, 1.0F);
  }
  Shares fHad;
  std::copy(fShare.begin(), fShare.end(), fHad.begin());
  keepHarmonicsOfTalker(iUsualPeriod, fHad, fShare);
  keepHarmonicsOfFrame(frame, fHad, fShare);
}
