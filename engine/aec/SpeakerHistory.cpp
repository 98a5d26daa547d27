#include "engine/aec/SpeakerHistory.h"

#include <algorithm>

#include "engine/MyChannel.h"

void SpeakerHistory::clean(const MyChannel* pSpkChannel) {
  pChannel = pSpkChannel;
  asPower.fill(sCached{});
}

int SpeakerHistory::newest() const {
  return pChannel->pInputData->getNumValues() - 1;
}

bool SpeakerHistory::copy(int iFrom, std::span<float> fOut) const {
  const InputData& input = *pChannel->pInputData;
  const int iCount = static_cast<int>(fOut.size());
  const int iOldest = std::max(0, input.getNumValues() - kAnalysisRingSamples);
  const int iFirst = std::clamp(iOldest - iFrom, 0, iCount);
  const int iEnd = std::clamp(input.getNumValues() - iFrom, iFirst, iCount);
  std::fill(fOut.begin(), fOut.begin() + iFirst, 0.0F);
  // At most two runs: to the end of the ring and from its start.
  for (int i = iFirst; i < iEnd;) {
    const int iPosition = (iFrom + i) % kAnalysisRingSamples;
    const int iRun = std::min(iEnd - i, kAnalysisRingSamples - iPosition);
    std::copy_n(input.analysisRing() + iPosition, iRun, fOut.begin() + i);
    i += iRun;
  }
  std::fill(fOut.begin() + iEnd, fOut.end(), 0.0F);
  return iFirst == 0 && iEnd == iCount;
}

int SpeakerHistory::fd_copyChannelRealData(int iFrom, std::span<float> fOut) const {
  const InputData& input = *pChannel->pInputData;
  const int iFactor = input.rateFactor();
  const int iCount = static_cast<int>(fOut.size()) / iFactor;
  if (!input.indexExists(iFrom) || !input.indexExists(iFrom + iCount - 1)) {
    std::fill(fOut.begin(), fOut.end(), 0.0F);
    return 1;
  }
  const std::int64_t lFirst = static_cast<std::int64_t>(iFrom) * iFactor;
  for (std::size_t i = 0; i < fOut.size(); ++i) {
    fOut[i] = static_cast<float>(input.atFullRate(lFirst + static_cast<std::int64_t>(i)));
  }
  return 0;
}

int SpeakerHistory::calcSpkrAmp(int iTime, int iSpan) const {
  const CycleInformation& cycles = *pChannel->pCycleInformation;
  const int iLast = std::min(iTime, cycles.lastSampleTime());
  const cHandle cycle = cycles.cycleOf(iLast);
  if (cycle < 0) return 1;
  const int iFirst = std::max(0, iTime - iSpan);
  return cycles.calcAmp(cycle, iLast / kCycleSamples - iFirst / kCycleSamples + 1);
}

int SpeakerHistory::cycleAmp(int iTime) const {
  const CycleInformation& cycles = *pChannel->pCycleInformation;
  const cHandle cycle = cycles.cycleOf(iTime);
  return cycle < 0 ? 0 : cycles.at(cycle).Amp;
}

std::int64_t SpeakerHistory::cyclePower(int iCycle) {
  if (iCycle < 0) return 0;
  sCached& cached = asPower[static_cast<std::size_t>(iCycle % kCachedCycles)];
  if (cached.iCycle == iCycle) return cached.lPower;
  std::array<float, kCycleSamples> fSamples;
  const bool bComplete = copy(iCycle * kCycleSamples, fSamples);
  float fSum = 0;
  for (const float x : fSamples) fSum += x * x;
  const auto lPower = static_cast<std::int64_t>(fSum / 16384.0F);
  if (bComplete) cached = {iCycle, lPower};
  return lPower;
}

std::int64_t SpeakerHistory::power(int iFrom, int iTo) {
  std::int64_t lSum = 0;
  for (int i = std::max(0, iFrom) / kCycleSamples; i <= iTo / kCycleSamples; ++i) lSum += cyclePower(i);
  return lSum;
}
