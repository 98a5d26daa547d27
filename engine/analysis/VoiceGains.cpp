#include "engine/analysis/VoiceGains.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "engine/analysis/WorldVoices.h"

namespace {

// Logarithms of power: 1 is 4.3 dB.

// Shapes are tried at the level at which they are as loud as what is heard, a little above and far below it,
// where the other voice adds the rest.
constexpr std::array<float, 8> kBelow{-1, 0, 1, 2, 3, 4.5F, 6, 8};
constexpr float kMostExcess = 2;  // what is louder than the shape is another's, no matter by how much
constexpr float kLackWeight = 2;  // what the shape has and is not heard counts more
// Of each voice so many shapes enter pairs; twice as many separate no better.
constexpr std::size_t kFits = 12;
constexpr float kMostMiss = 4;  // of a band
// A pair that misses the bands by this more, as a sum of squares, weighs a third: sounds vary that much
// around their shapes.
constexpr float kMissOfThird = 24;
constexpr float kLeastWeight = 0.01F;
constexpr float kMostOdds = 7;

// Of the odds of bands, which are not independent of one another.
constexpr float kBandWeight = 1.3F;
constexpr float kBeforeWeight = 0.7F;  // of the frame before
constexpr float kPeriodWeight = 1.5F;
constexpr float kScoreWeight = 0.6F;
// He is heard on his own line: louder than the other more often than not.
constexpr float kFirstOdds = 0.5F;
// Up to 2 kHz: the period is known to two samples, and harmonics above lie anywhere.
constexpr int kCombBins = 64;
constexpr int kMostHarmonics = 11;

using Fits = std::array<BandPower, kFits + 1>;

float misfit(const BandPower& heard, const BandPower& shape, float fLevel) {
  constexpr std::size_t kLanes = 4;
  static_assert(kEnvelopeBands % kLanes == 0);
  std::array<float, kLanes> fSum{};
  for (std::size_t b = 0; b < heard.size(); b += kLanes) {
    for (std::size_t i = 0; i < kLanes; ++i) {
      const float fExcess = heard[b + i] - shape[b + i] - fLevel;
      const float fAbove = std::clamp(fExcess, 0.0F, kMostExcess);
      const float fBelow = std::min(fExcess, 0.0F);
      fSum[i] += fAbove + kLackWeight * fBelow * fBelow;
    }
  }
  return (fSum[0] + fSum[1]) + (fSum[2] + fSum[3]);
}

// The shapes, at their levels, that fit under what is heard best; and silence, behind them.
void bestFits(const BandPower& heard, std::span<const BandPower> shapes, const BandPower& silence,
              Fits& fits) {
  struct sFit {
    float fMisfit = 1e9F;
    const BandPower* pShape = nullptr;
    float fLevel = 0;
  };
  std::array<sFit, kFits> best;
  for (const BandPower& shape : shapes) {
    float fMean = 0;
    for (std::size_t b = 0; b < heard.size(); ++b) fMean += (heard[b] - shape[b]) / kEnvelopeBands;
    for (const float fBelow : kBelow) {
      const sFit fit{misfit(heard, shape, fMean - fBelow), &shape, fMean - fBelow};
      if (fit.fMisfit >= best.back().fMisfit) continue;
      const auto at = std::upper_bound(best.begin(), best.end(), fit,
                                       [](const sFit& a, const sFit& b) { return a.fMisfit < b.fMisfit; });
      std::move_backward(at, best.end() - 1, best.end());
      *at = fit;
    }
  }
  fits.fill(silence);
  for (std::size_t i = 0; i < best.size(); ++i) {
    if (best[i].pShape == nullptr) return;
    for (std::size_t b = 0; b < heard.size(); ++b) fits[i][b] = (*best[i].pShape)[b] + best[i].fLevel;
  }
}

// log(1 + exp(-f)), f at least 0.
float aboveLouder(float f) {
  constexpr int kSteps = 8;
  constexpr int kEnd = 8 * kSteps;
  static const std::array<float, kEnd + 1> fTable = [] {
    std::array<float, kEnd + 1> table;
    for (std::size_t i = 0; i < table.size(); ++i)
      table[i] = std::log1p(std::exp(-(static_cast<float>(i) + 0.5F) / kSteps));
    return table;
  }();
  return fTable[static_cast<std::size_t>(std::min(f * kSteps, static_cast<float>(kEnd)))];
}

// How far two voices together miss what is heard.
float missOfPair(const BandPower& heard, const BandPower& a, const BandPower& b) {
  float fSum = 0;
  for (std::size_t i = 0; i < heard.size(); ++i) {
    const float fTogether = std::max(a[i], b[i]) + aboveLouder(std::abs(a[i] - b[i]));
    const float fMiss = std::min(std::abs(heard[i] - fTogether), kMostMiss);
    fSum += fMiss * fMiss;
  }
  return fSum;
}

float shareAt(float fOdds) {
  return 1 / (1 + std::exp(-fOdds));
}

// The share of the first voice per band, over all pairs.
void meanShare(const BandPower& heard, const Fits& own, const Fits& others, BandPower& fShare) {
  std::array<std::array<float, kFits + 1>, kFits + 1> fMiss;
  float fLeast = 1e9F;
  for (std::size_t i = 0; i < own.size(); ++i) {
    for (std::size_t j = 0; j < others.size(); ++j) {
      fMiss[i][j] = missOfPair(heard, own[i], others[j]);
      fLeast = std::min(fLeast, fMiss[i][j]);
    }
  }
  float fAll = 0;
  fShare.fill(0);
  for (std::size_t i = 0; i < own.size(); ++i) {
    for (std::size_t j = 0; j < others.size(); ++j) {
      const float fWeight = std::exp((fLeast - fMiss[i][j]) / kMissOfThird);
      if (fWeight < kLeastWeight) continue;
      fAll += fWeight;
      for (std::size_t b = 0; b < fShare.size(); ++b)
        fShare[b] += fWeight * shareAt(own[i][b] - others[j][b]);
    }
  }
  for (float& fBand : fShare) fBand /= fAll;
}

const std::array<BandPower, kFineWorldVoices>& worldShapes() {
  static const auto shapes = [] {
    std::array<BandPower, kFineWorldVoices> all;
    for (std::size_t u = 0; u < all.size(); ++u) bandShape(unpacked(kFineWorldEnvelopes[u]), all[u]);
    return all;
  }();
  return shapes;
}

// The bin nearest to a harmonic of a period in samples.
int binOfHarmonic(int i, int iPeriod) {
  return (2 * i * kEnvelopeSamples + iPeriod) / (2 * iPeriod);
}

using Odds = std::array<float, kEnvelopeBins>;

// A bin and its two neighbours take over the best odds that the five around them had.
void keepAround(int k, const Odds& fHad, Odds& fOdds) {
  const auto index = [&](int i) { return std::clamp(i, 0, kEnvelopeBins - 1); };
  const float fBest = *std::max_element(fHad.begin() + index(k - 2), fHad.begin() + index(k + 2) + 1);
  for (int i = index(k - 1); i <= index(k + 1); ++i) {
    float& fKept = fOdds[static_cast<std::size_t>(i)];
    fKept = std::max(fKept, fBest);
  }
}

void keepHarmonicsOfTalker(int iUsualPeriod, const Odds& fHad, Odds& fOdds) {
  for (int i = 1; i <= kMostHarmonics && iUsualPeriod > 0; ++i) {
    const int k = binOfHarmonic(i, iUsualPeriod);
    if (k >= kEnvelopeBins) return;
    keepAround(k, fHad, fOdds);
  }
}

// The period is known to two samples only: at the higher harmonics the strongest bin near by is the one.
void keepHarmonicsOfFrame(const sVoiceFrame& frame, const Odds& fHad, Odds& fOdds) {
  constexpr int kNear = 2;
  for (int i = 1; frame.iPeriod > 0; ++i) {
    const int k = binOfHarmonic(i, frame.iPeriod);
    if (k >= kEnvelopeBins) return;
    const auto first = frame.fBinPower.begin() + std::max(0, k - kNear);
    const auto last = frame.fBinPower.begin() + std::min(k + kNear, kEnvelopeBins - 1);
    keepAround(static_cast<int>(std::max_element(first, last + 1) - frame.fBinPower.begin()), fHad, fOdds);
  }
}

Odds oddsOfBins(const BandPower& fBands) {
  Odds fOdds;
  for (std::size_t k = 0; k < fOdds.size(); ++k) {
    const float fBand = bandOfBin(static_cast<int>(k));
    const auto uLow = static_cast<std::size_t>(fBand);
    fOdds[k] = std::lerp(fBands[uLow], fBands[std::min(uLow + 1, fBands.size() - 1)],
                         fBand - static_cast<float>(uLow));
  }
  return fOdds;
}

// 1 at the harmonics of a period, -1 half way between them.
float combAt(std::size_t k, int iPeriod) {
  constexpr float kTurn = 2 * std::numbers::pi_v<float> / kEnvelopeSamples;
  return k < kCombBins ? std::cos(kTurn * static_cast<float>(k) * static_cast<float>(iPeriod)) : 0;
}

}  // namespace

void VoiceGains::learn() {
  (void)worldShapes();
  (void)aboveLouder(0);
  shapes.resize(scorer.own().size());
  for (std::size_t u = 0; u < shapes.size(); ++u) bandShape(scorer.own()[u], shapes[u]);
  pause();
}

void VoiceGains::oddsOfBands(const sVoiceFrame& frame, BandPower& fOdds) const {
  constexpr float kOfBackground = 0.1F;
  BandPower heard;
  BandPower silence;
  bandPower(frame.fBinPower, heard);
  bandPower(frame.fBackground, silence);
  for (std::size_t b = 0; b < heard.size(); ++b) {
    const float fRest = kOfBackground * silence[b];
    heard[b] = std::log(std::max(heard[b] - silence[b], fRest) + 1);
    silence[b] = std::log(fRest + 1);
  }
  Fits own;
  Fits others;
  bestFits(heard, shapes, silence, own);
  bestFits(heard, worldShapes(), silence, others);
  meanShare(heard, own, others, fOdds);
  for (float& fBand : fOdds)
    fBand = std::clamp(std::log(fBand / (1 - fBand + 1e-6F) + 1e-6F), -kMostOdds, kMostOdds);
}

void VoiceGains::shareOfVoice(const sVoiceFrame& frame, float fScore, int iUsualPeriod,
                              std::span<float> fShare) {
  BandPower fNow;
  oddsOfBands(frame, fNow);
  BandPower fBands;
  for (std::size_t b = 0; b < fBands.size(); ++b)
    fBands[b] = kBandWeight * (fNow[b] + kBeforeWeight * fBefore[b]) / (1 + kBeforeWeight);
  fBefore = fNow;
  const Odds fHad = oddsOfBins(fBands);
  Odds fOdds = fHad;
  keepHarmonicsOfTalker(iUsualPeriod, fHad, fOdds);
  keepHarmonicsOfFrame(frame, fHad, fOdds);
  const float fFrame = kFirstOdds + kScoreWeight * fScore;
  const float fPeriod = kPeriodWeight * scorer.periodScore(frame.iPeriod);
  for (std::size_t k = 0; k < fShare.size(); ++k)
    fShare[k] = shareAt(fOdds[k] + fPeriod * combAt(k, frame.iPeriod) + fFrame);
}
