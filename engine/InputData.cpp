#include "engine/InputData.h"

#include <cstring>

#include "engine/MyChannel.h"

InputData::InputData() : psAnalysisRing(kAnalysisRingSamples), psFullRateRing(kFullRateRingSamples) {}

void InputData::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
  openSynchronized();
}

void InputData::openSynchronized() {
  iRateFactor = pMyChannel->rateFactor();
  iAnalysisIndex = 0;
  iFullRateIndex = 0;
  iSamplesToAnalysis = iRateFactor;
  iLaps = 0;
}

void InputData::updateRealFrequency() {
  if (iRateFactor != pMyChannel->rateFactor()) openSynchronized();
}

bool InputData::indexExists(int iSampleTime) const {
  const int iReceived = getNumValues();
  return iSampleTime >= 0 && iSampleTime < iReceived && iSampleTime >= iReceived - kAnalysisRingSamples;
}

std::int16_t InputData::at(int iSampleTime) const {
  return psAnalysisRing[static_cast<std::size_t>(iSampleTime % kAnalysisRingSamples)];
}

void InputData::append(int iSample) {
  const std::int16_t sSample = clampSample(iSample);
  psFullRateRing[static_cast<std::size_t>(iFullRateIndex++)] = sSample;
  if (--iSamplesToAnalysis > 0) return;
  iSamplesToAnalysis = iRateFactor;
  psAnalysisRing[static_cast<std::size_t>(iAnalysisIndex++)] = sSample;
  if (iAnalysisIndex < kAnalysisRingSamples) return;
  iAnalysisIndex = 0;
  iFullRateIndex = 0;
  ++iLaps;
}

void InputData::addData(const void* pSamples, int iBytes, bool bIs16Bit) {
  const auto* puBytes = static_cast<const std::uint8_t*>(pSamples);
  if (!bIs16Bit) {
    for (int i = 0; i < iBytes; ++i) append((puBytes[i] << 8) - 32768);
    return;
  }
  for (int i = 0; i + 1 < iBytes; i += 2) {
    std::int16_t sSample;  // the caller's buffer need not be aligned
    std::memcpy(&sSample, puBytes + i, sizeof sSample);
    append(sSample);
  }
}
