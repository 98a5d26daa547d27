#include "engine/aec/EchoRing.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kBlockSamples = 128;
constexpr int kWeightFall = 24;  // Q7 per block
constexpr int kWeightRise = 64;
constexpr float kEstimateLimit = 32767;

}  // namespace

void EchoRing::clean(int iRateFactor) {
  *this = EchoRing{};
  iFactor = iRateFactor;
  resetBlocks();
}

void EchoRing::resetBlocks() {
  iGathered = 0;
  fMicLow = fEchoLow = kSampleLimit;
  fMicHigh = fEchoHigh = -kSampleLimit;
}

bool EchoRing::gather(std::span<const float> fMic, std::span<const float> fEcho, sBlock& block) {
  for (std::size_t i = 0; i < fMic.size(); ++i) {
    fMicLow = std::min(fMicLow, fMic[i]);
    fMicHigh = std::max(fMicHigh, fMic[i]);
    fEchoLow = std::min(fEchoLow, fEcho[i]);
    fEchoHigh = std::max(fEchoHigh, fEcho[i]);
  }
  iGathered += static_cast<int>(fMic.size());
  if (iGathered < kBlockSamples) return false;
  block = {static_cast<int>(fMicHigh - fMicLow),
           static_cast<int>(std::min<float>(fEchoHigh - fEchoLow, kLargestSpread))};
  resetBlocks();
  return true;
}

void EchoRing::judge(bool bLow) {
  bEchoLow = bLow;
  iWeight = bLow ? std::max(0, iWeight - kWeightFall) : std::min(kUnityQ7, iWeight + kWeightRise);
}

void EchoRing::startCycle(int iFirst) {
  const std::int64_t lWanted = static_cast<std::int64_t>(iFirst) * iFactor;
  if (lWanted - iEchoRingTime > kSamples || lWanted < iEchoRingTime) {
    psEchoRing.fill(0);
    iEchoRingTime = lWanted;
    iEchoRingPos = 0;
  }
  while (iEchoRingTime < lWanted) write(0, 0);
}

void EchoRing::write(float fEcho, int iMic) {
  auto iLimited = static_cast<int>(std::lround(std::clamp(fEcho, -kEstimateLimit, kEstimateLimit)));
  if ((iLimited < 0) != (iMic < 0)) {
    iLimited = 0;
  } else if (std::abs(iLimited) > std::abs(iMic)) {
    iLimited = iMic;
  }
  psEchoRing[static_cast<std::size_t>(iEchoRingPos)] = static_cast<std::int16_t>(iLimited);
  iEchoRingPos = iEchoRingPos == kSamples - 1 ? 0 : iEchoRingPos + 1;
  ++iEchoRingTime;
}

void EchoRing::writeAtFullRate(std::span<const float> fEcho, std::span<const float> fMic) {
  for (std::size_t i = 0; i < fEcho.size(); ++i) {
    write(fEcho[i], static_cast<int>(fMic[i]));
  }
}

// The analysis takes the last of the samples that make up one of its own: the others lie on the way there.
void EchoRing::writeEstimate(std::span<const float> fEcho, std::span<const float> fMic) {
  if (iFactor == 1) {
    writeAtFullRate(fEcho, fMic);
    fPreviousEcho = fEcho.back();
    return;
  }
  for (std::size_t i = 0; i < fEcho.size(); ++i) {
    for (int k = 1; k <= iFactor; ++k) {
      const float fPart = static_cast<float>(k) / static_cast<float>(iFactor);
      const std::size_t uMic = i * static_cast<std::size_t>(iFactor) + static_cast<std::size_t>(k - 1);
      write(fPreviousEcho + fPart * (fEcho[i] - fPreviousEcho), static_cast<int>(fMic[uMic]));
    }
    fPreviousEcho = fEcho[i];
  }
}

void EchoRing::writeZeros() {
  for (int i = 0; i < kCycleSamples * iFactor; ++i) write(0, 0);
  fPreviousEcho = 0;
}

std::int16_t EchoRing::at(std::int64_t lIndex) const {
  const std::int64_t lBack = iEchoRingTime - lIndex;
  if (lBack <= 0 || lBack > kSamples) return 0;
  const int iPosition = static_cast<int>((iEchoRingPos - lBack + kSamples) % kSamples);
  return psEchoRing[static_cast<std::size_t>(iPosition)];
}
