#include "engine/analysis/VoiceScorer.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "engine/analysis/PitchComparator.h"

namespace {

// Density over the logarithm of the period.
float normal(float fPeriod, float fMean, float fSpread) {
  const float f = std::log(fPeriod / fMean) / fSpread;
  return std::exp(-f * f / 2) / (fSpread * std::sqrt(2 * std::numbers::pi_v<float>));
}

// How often all voices have a period: men and women as often, each spread by a quarter around their mean.
float worldDensity(float fPeriod) {
  constexpr float kMen = 70;    // samples, 114 Hz
  constexpr float kWomen = 40;  // 200 Hz
  constexpr float kSpread = 0.25F;
  constexpr float kAny = 0.01F;
  return (normal(fPeriod, kMen, kSpread) + normal(fPeriod, kWomen, kSpread)) / 2 + kAny;
}

}  // namespace

VoiceScorer::VoiceScorer() {
  ownVoices.reserve(sLearnedVoice::kMaxClusters);
  ownSet.reserve(sLearnedVoice::kMaxClusters);
}

void VoiceScorer::learn(const sLearnedVoice& voice, std::span<const sVoicePattern> patterns) {
  ownVoices.clear();
  for (std::size_t u = 0; u < static_cast<std::size_t>(voice.iClusters); ++u)
    ownVoices.push_back(unpacked(voice.asCluster[u].envelope));
  ownSet.assign(ownVoices);
  fThreshold = voice.fThreshold;
  learnPeriods(patterns);
}

// The talker's periods, each widened to what he may do another day, against those of all voices.
void VoiceScorer::learnPeriods(std::span<const sVoicePattern> patterns) {
  constexpr float kWidening = 0.08F;
  constexpr float kUnheard = 0.1F;  // of all voices' density: he may do what he has not done yet
  constexpr float kWeight = 0.5F;   // successive frames have much the same period
  fPeriodScore.fill(0);
  if (patterns.empty()) return;
  std::array<float, kPeriods> fCount{};
  float fAll = 1e-6F;
  for (const sVoicePattern& pattern : patterns) {
    if (pattern.iPeriod < PitchComparator::kMinPeriod || pattern.iPeriod >= kPeriods) continue;
    ++fCount[static_cast<std::size_t>(pattern.iPeriod)];
    ++fAll;
  }
  float fUsual = 0;
  for (int i = PitchComparator::kMinPeriod; i < kPeriods; ++i) {
    const auto fPeriod = static_cast<float>(i);
    float fOwn = 0;
    for (int k = PitchComparator::kMinPeriod; k < kPeriods; ++k) {
      const float fHeard = fCount[static_cast<std::size_t>(k)];
      if (fHeard > 0) fOwn += fHeard * normal(fPeriod, static_cast<float>(k), kWidening) / fAll;
    }
    float& fScore = fPeriodScore[static_cast<std::size_t>(i)];
    fScore = kWeight * std::log(fOwn / worldDensity(fPeriod) + kUnheard);
    fUsual += fScore * fCount[static_cast<std::size_t>(i)] / fAll;
  }
  fThreshold += kThresholdOfOwnScore * fUsual;
}

float VoiceScorer::periodScore(int iPeriod) const {
  return fPeriodScore[static_cast<std::size_t>(std::clamp(iPeriod, 0, kPeriods - 1))];
}

float VoiceScorer::score(const sEnvelope& envelope, int iPeriod) const {
  return std::clamp(scoreAgainst(envelope, ownSet) + periodScore(iPeriod) - fThreshold, kLowest, kHighest);
}
