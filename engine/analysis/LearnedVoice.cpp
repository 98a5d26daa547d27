#include "engine/analysis/LearnedVoice.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "engine/analysis/WorldVoices.h"

namespace {

constexpr int kMinPatterns = 120;       // 2 s of voiced sound
constexpr int kEnoughRecords = 500;     // for a voice without clusters
constexpr int kPatternsPerCluster = 6;  // fewer would learn single frames
constexpr int kMinClusters = 16;
constexpr int kMostClusters = 192;  // more tell hardly more apart
constexpr int kRounds = 6;
// Patterns that clusters are made of; more than half a minute of voice adds nothing and takes its time.
constexpr int kMaxForClusters = 2000;

// The bounds keep a short or poor sample from closing or opening the gate.
constexpr float kLowestThreshold = 0;
constexpr float kHighestThreshold = 3;

EnvelopeSet unpackedSet(std::span<const sPackedEnvelope> all) {
  std::vector<sEnvelope> list;
  std::transform(all.begin(), all.end(), std::back_inserter(list), unpacked);
  return EnvelopeSet(list);
}

const EnvelopeSet& worldEnvelopes() {
  static const EnvelopeSet all = unpackedSet(kWorldEnvelopes);
  return all;
}

const EnvelopeSet& fineWorldEnvelopes() {
  static const EnvelopeSet all = unpackedSet(kFineWorldEnvelopes);
  return all;
}

// Centres of the envelopes by k-means, begun with envelopes evenly spaced in time.
std::vector<sEnvelope> centresOf(std::span<const sEnvelope> all, int iWanted) {
  const auto uWanted = static_cast<std::size_t>(iWanted);
  std::vector<sEnvelope> centres;
  for (std::size_t i = 0; i < uWanted; ++i) centres.push_back(all[i * all.size() / uWanted]);
  for (int iRound = 0; iRound < kRounds; ++iRound) {
    std::vector<sEnvelope> sums(uWanted, sEnvelope{});
    std::vector<int> counts(uWanted, 0);
    const EnvelopeSet set(centres);
    for (const sEnvelope& each : all) {
      const auto u = static_cast<std::size_t>(set.nearest(each).iIndex);
      ++counts[u];
      for (std::size_t i = 0; i < each.size(); ++i) sums[u][i] += each[i];
    }
    for (std::size_t u = 0; u < uWanted; ++u) {
      if (counts[u] == 0) continue;
      for (std::size_t i = 0; i < sums[u].size(); ++i)
        centres[u][i] = sums[u][i] / static_cast<float>(counts[u]);
    }
  }
  return centres;
}

int wantedClusters(std::size_t uPatterns) {
  return std::clamp(static_cast<int>(uPatterns) / kPatternsPerCluster, kMinClusters, kMostClusters);
}

std::vector<sEnvelope> validEnvelopes(std::span<const sVoicePattern> patterns) {
  std::vector<sEnvelope> all;
  for (const sVoicePattern& pattern : patterns) {
    if ((pattern.uFlags & sVoicePattern::kValid) != 0) all.push_back(pattern.envelope);
  }
  if (all.size() <= kMaxForClusters) return all;
  std::vector<sEnvelope> chosen;
  for (std::size_t i = 0; i < kMaxForClusters; ++i) chosen.push_back(all[i * all.size() / kMaxForClusters]);
  return chosen;
}

}  // namespace

std::vector<sEnvelope> clustersOf(std::span<const sEnvelope> all) {
  return centresOf(all, wantedClusters(all.size()));
}

void prepareWorldVoices() {
  (void)worldEnvelopes();
  (void)fineWorldEnvelopes();
}

float scoreAgainst(const sEnvelope& envelope, const EnvelopeSet& own) {
  return (fineWorldEnvelopes().nearest(envelope).fDistance - own.nearest(envelope).fDistance) / 2;
}

float coarseScoreAgainst(const sEnvelope& envelope, const EnvelopeSet& own) {
  return (worldEnvelopes().nearest(envelope).fDistance - own.nearest(envelope).fDistance) / 2;
}

namespace {

// What the talker's sounds score that the clusters have not seen: the last third against the rest.
float ownScoreOf(std::span<const sEnvelope> all) {
  const std::size_t uKnown = all.size() * 2 / 3;
  const auto known = all.first(uKnown);
  const EnvelopeSet centres(clustersOf(known));
  float fSum = 0;
  for (const sEnvelope& each : all.subspan(uKnown)) fSum += scoreAgainst(each, centres);
  return fSum / static_cast<float>(all.size() - uKnown);
}

}  // namespace

bool sLearnedVoice::isConsistent() const {
  const bool bFinite = std::isfinite(fOwnScore) && std::isfinite(fThreshold) && std::isfinite(fMeanPower);
  const bool bEnough = iClusters > 0 || iPatterns >= kEnoughRecords;
  return uMagic == kMagic && iPatterns >= 0 && (bLearned == 0 || (bLearned == 1 && bEnough)) &&
         (bLearned == 0 || uRules == kRules) && iClusters >= 0 && iClusters <= kMaxClusters && bFinite &&
         fMeanPower >= 0 && std::abs(fThreshold) <= kHighestThreshold;
}

sSourceSeparationStatistics statisticsOf(std::span<const sVoicePattern> patterns) {
  sSourceSeparationStatistics statistics;
  double dPower = 0;
  statistics.iRecords = static_cast<int>(patterns.size());
  for (const sVoicePattern& pattern : patterns) {
    if ((pattern.uFlags & sVoicePattern::kValid) == 0) continue;
    ++statistics.iValid;
    dPower += pattern.fPower;
  }
  statistics.fMeanPower = static_cast<float>(dPower / std::max(1, statistics.iValid));
  return statistics;
}

bool buildLearnedVoice(std::span<sVoicePattern> patterns, sLearnedVoice& voice) {
  const sSourceSeparationStatistics statistics = statisticsOf(patterns);
  voice.uRules = sLearnedVoice::kRules;
  voice.iClusters = 0;
  voice.fMeanPower = statistics.fMeanPower;
  voice.fOwnScore = 0;
  voice.fThreshold = kLowestThreshold;
  if (statistics.iValid < kMinPatterns) return statistics.iRecords >= kEnoughRecords;
  const std::vector<sEnvelope> all = validEnvelopes(patterns);
  const std::vector<sEnvelope> centres = clustersOf(all);
  voice.iClusters = static_cast<int>(centres.size());
  for (std::size_t u = 0; u < centres.size(); ++u) voice.asCluster[u] = {packed(centres[u]), 0};
  const EnvelopeSet set(centres);
  for (sVoicePattern& pattern : patterns) {
    if ((pattern.uFlags & sVoicePattern::kValid) == 0) continue;
    pattern.iCluster = set.nearest(pattern.envelope).iIndex;
    auto& cluster = voice.asCluster[static_cast<std::size_t>(pattern.iCluster)];
    if (cluster.uPatterns < 0xffff) ++cluster.uPatterns;
  }
  voice.fOwnScore = ownScoreOf(all);
  voice.fThreshold = std::clamp(kThresholdOfOwnScore * voice.fOwnScore, kLowestThreshold, kHighestThreshold);
  return true;
}
