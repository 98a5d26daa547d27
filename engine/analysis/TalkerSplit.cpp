#include "engine/analysis/TalkerSplit.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "engine/analysis/VoiceScorer.h"

namespace {

// A third of a second of voiced sound, 1.3 s in the longest registrations: shorter than a turn.
constexpr std::size_t kBlock = 20;
constexpr std::size_t kMostBlocks = 100;
constexpr std::size_t kSmallestPart = 5;  // a group has a fifth of all at least: a cough is no second talker
constexpr float kPitchWeight =
    8;  // a period longer by an eighth counts as one coefficient that differs by one
constexpr int kRounds = 8;

struct sBlock {
  std::vector<sEnvelope> envelopes;
  sEnvelope mean{};
  float fPitch = 0;  // middle logarithm of the period
  bool bSecond = false;
};

// Blocks from all over the registration.
std::vector<sBlock> blocksOf(std::span<const sVoicePattern> patterns) {
  std::vector<sBlock> blocks;
  const std::size_t uAll = patterns.size() / kBlock;
  const std::size_t uTaken = std::min(uAll, kMostBlocks);
  for (std::size_t n = 0; n < uTaken; ++n) {
    const std::size_t u = n * uAll / uTaken * kBlock;
    sBlock& block = blocks.emplace_back();
    std::array<int, kBlock> piPeriod;
    std::transform(patterns.begin() + static_cast<std::ptrdiff_t>(u),
                   patterns.begin() + static_cast<std::ptrdiff_t>(u + kBlock), piPeriod.begin(),
                   [](const sVoicePattern& pattern) { return std::max(1, pattern.iPeriod); });
    std::nth_element(piPeriod.begin(), piPeriod.begin() + kBlock / 2, piPeriod.end());
    block.fPitch = std::log(static_cast<float>(piPeriod[kBlock / 2]));
    for (const sVoicePattern& pattern : patterns.subspan(u, kBlock)) {
      block.envelopes.push_back(pattern.envelope);
      for (std::size_t i = 0; i < block.mean.size(); ++i) block.mean[i] += pattern.envelope[i] / kBlock;
    }
  }
  return blocks;
}

float apart(const sBlock& a, const sBlock& b) {
  const float fPitch = kPitchWeight * (a.fPitch - b.fPitch);
  return distance(a.mean, b.mean) + fPitch * fPitch;
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

// The blocks' periods in the two groups that explain most of how they differ (Otsu, 1979).
void splitPitches(const std::vector<sBlock>& blocks, sTalkerSplit& result) {
  std::vector<float> fPitch;
  for (const sBlock& block : blocks) fPitch.push_back(block.fPitch);
  std::sort(fPitch.begin(), fPitch.end());
  const auto deviation = [](std::span<const float> values, float& fMean) {
    fMean = std::accumulate(values.begin(), values.end(), 0.0F) / static_cast<float>(values.size());
    float fSum = 0;
    for (const float f : values) fSum += (f - fMean) * (f - fMean);
    return fSum;
  };
  float fLeast = 1e9F;
  for (std::size_t u = blocks.size() / kSmallestPart;
       u * kSmallestPart <= blocks.size() * (kSmallestPart - 1); ++u) {
    float fLow;
    float fHigh;
    const float fWithin =
        deviation(std::span(fPitch).first(u), fLow) + deviation(std::span(fPitch).subspan(u), fHigh);
    if (fWithin >= fLeast) continue;
    fLeast = fWithin;
    result.fPitchGap = fHigh - fLow;
    result.fPitchContrast =
        result.fPitchGap / (0.01F + std::sqrt(fWithin / static_cast<float>(blocks.size())));
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
  const EnvelopeSet centres(clustersOf(known));
  float fSum = 0;
  for (const sEnvelope& each : sounds)
    fSum += std::clamp(coarseScoreAgainst(each, centres), VoiceScorer::kLowest, VoiceScorer::kHighest);
  return fSum / static_cast<float>(sounds.size());
}

}  // namespace

sTalkerSplit splitTalkers(std::span<const sVoicePattern> patterns) {
  sTalkerSplit result;
  std::vector<sBlock> blocks = blocksOf(patterns);
  result.uPatterns = blocks.size() * kBlock;
  if (blocks.size() < 2 * kSmallestPart) return result;
  splitPitches(blocks, result);
  split(blocks);
  const std::vector<sEnvelope> first = groupOf(blocks, false);
  const std::vector<sEnvelope> second = groupOf(blocks, true);
  if (std::min(first.size(), second.size()) * kSmallestPart < blocks.size() * kBlock) return result;
  result.fLikeness = std::min(meanScore(first, second), meanScore(second, first));
  return result;
}

// The bounds lie beyond what was seen of 30 single talkers, in some 80 samples of each length from 8 to 30
// seconds. Groups of few sounds know each other badly also when one talker has made them all.
bool areTwoTalkers(const sTalkerSplit& split) {
  constexpr float kPlenty = 900;  // patterns: half a minute of speech
  constexpr float kFew = 200;
  constexpr float kStrangers = -1.2F;
  constexpr float kStrangersOfFew = -2.6F;
  // A man and a woman: one talker's periods reach as far, but fill what lies between.
  constexpr float kPitchOfTwo = 0.42F;
  constexpr float kContrastOfTwo = 4.3F;
  if (split.fPitchGap > kPitchOfTwo && split.fPitchContrast > kContrastOfTwo) return true;
  const float fFew =
      std::clamp((kPlenty - static_cast<float>(split.uPatterns)) / (kPlenty - kFew), 0.0F, 1.0F);
  return split.fLikeness < std::lerp(kStrangers, kStrangersOfFew, fFew);
}
