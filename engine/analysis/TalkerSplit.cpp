#include "engine/analysis/TalkerSplit.h"

#include <algorithm>
#include <cmath>

#include "engine/analysis/VoiceScorer.h"

namespace {

constexpr std::size_t kBlock = 20;  // a third of a second of voiced sound: shorter than any turn
constexpr std::size_t kMostPatterns = 2000;
constexpr std::size_t kSmallestPart = 5;  // a group has a fifth of all at least: a cough is no second talker
constexpr float kPitchWeight =
    8;  // a period longer by an eighth counts as one coefficient that differs by one
constexpr int kRounds = 8;

struct sBlock {
  std::vector<sEnvelope> envelopes;
  sEnvelope mean{};
  float fPitch = 0;  // mean logarithm of the period, weighted
  bool bSecond = false;
};

std::vector<sBlock> blocksOf(std::span<const sVoicePattern> patterns) {
  std::vector<sBlock> blocks;
  for (std::size_t u = 0; u + kBlock <= patterns.size(); u += kBlock) {
    sBlock& block = blocks.emplace_back();
    for (const sVoicePattern& pattern : patterns.subspan(u, kBlock)) {
      block.envelopes.push_back(pattern.envelope);
      for (std::size_t i = 0; i < block.mean.size(); ++i) block.mean[i] += pattern.envelope[i] / kBlock;
      block.fPitch += kPitchWeight * std::log(static_cast<float>(std::max(1, pattern.iPeriod))) / kBlock;
    }
  }
  return blocks;
}

float apart(const sBlock& a, const sBlock& b) {
  return distance(a.mean, b.mean) + (a.fPitch - b.fPitch) * (a.fPitch - b.fPitch);
}

sBlock meanOf(const std::vector<sBlock>& blocks, bool bSecond) {
  sBlock mean;
  float fCount = 1e-6F;
  for (const sBlock& block : blocks) {
    if (block.bSecond != bSecond) continue;
    for (std::size_t i = 0; i < mean.mean.size(); ++i) mean.mean[i] += block.mean[i];
    mean.fPitch += block.fPitch;
    ++fCount;
  }
  for (float& fMean : mean.mean) fMean /= fCount;
  mean.fPitch /= fCount;
  return mean;
}

// Two groups by k-means, begun at the two blocks that lie farthest apart.
void split(std::vector<sBlock>& blocks) {
  std::size_t uFirst = 0;
  std::size_t uSecond = 0;
  for (std::size_t a = 0; a < blocks.size(); ++a) {
    for (std::size_t b = 0; b < a; ++b) {
      if (apart(blocks[a], blocks[b]) <= apart(blocks[uFirst], blocks[uSecond])) continue;
      uFirst = a;
      uSecond = b;
    }
  }
  sBlock first = blocks[uFirst];
  sBlock second = blocks[uSecond];
  for (int i = 0; i < kRounds; ++i) {
    for (sBlock& block : blocks) block.bSecond = apart(block, second) < apart(block, first);
    first = meanOf(blocks, false);
    second = meanOf(blocks, true);
  }
}

std::vector<sEnvelope> groupOf(const std::vector<sBlock>& blocks, bool bSecond) {
  std::vector<sEnvelope> all;
  for (const sBlock& block : blocks) {
    if (block.bSecond == bSecond) all.insert(all.end(), block.envelopes.begin(), block.envelopes.end());
  }
  return all;
}

float meanScore(const std::vector<sEnvelope>& sounds, const std::vector<sEnvelope>& known) {
  const std::vector<sEnvelope> centres = clustersOf(known);
  float fSum = 0;
  for (const sEnvelope& each : sounds)
    fSum += std::clamp(scoreAgainst(each, centres), VoiceScorer::kLowest, VoiceScorer::kHighest);
  return fSum / static_cast<float>(sounds.size());
}

}  // namespace

sTalkerSplit splitTalkers(std::span<const sVoicePattern> patterns) {
  sTalkerSplit result;
  std::vector<sBlock> blocks = blocksOf(patterns.first(std::min(patterns.size(), kMostPatterns)));
  if (blocks.size() < 2 * kSmallestPart) return result;
  split(blocks);
  const std::vector<sEnvelope> first = groupOf(blocks, false);
  const std::vector<sEnvelope> second = groupOf(blocks, true);
  if (std::min(first.size(), second.size()) * kSmallestPart < blocks.size() * kBlock) return result;
  result.fLikeness = std::min(meanScore(first, second), meanScore(second, first));
  result.fPitchGap = std::abs(meanOf(blocks, true).fPitch - meanOf(blocks, false).fPitch) / kPitchWeight;
  return result;
}

bool areTwoTalkers(const sTalkerSplit& split) {
  constexpr float kStrangers = -1.2F;
  constexpr float kPitchOfTwo = 0.35F;       // a man and a woman, or two registers of one
  constexpr float kStrangersByPitch = 0.3F;  // then the sounds, too, must be strange to each other
  return split.fLikeness < (split.fPitchGap > kPitchOfTwo ? kStrangersByPitch : kStrangers);
}
