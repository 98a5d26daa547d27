#include "engine/InputData.h"

#include <algorithm>
#include <cstdlib>
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
  bDcLocked = false;
  iDcOffset = 0;
  iDcLockPosition = -1;
}

bool InputData::indexExists(int iSampleTime) const {
  const int iReceived = getNumValues();
  return iSampleTime >= 0 && iSampleTime < iReceived && iSampleTime >= iReceived - kAnalysisRingSamples;
}

std::int16_t InputData::at(int iSampleTime) const {
  return psAnalysisRing[static_cast<std::size_t>(iSampleTime % kAnalysisRingSamples)];
}

std::int16_t* InputData::cycleSamples(int iStartTime) {
  return psAnalysisRing.data() + iStartTime % kAnalysisRingSamples;
}

std::int16_t InputData::atFullRate(std::int64_t lIndex) const {
  return psFullRateRing[static_cast<std::size_t>(lIndex % (kAnalysisRingSamples * iRateFactor))];
}

int InputData::oldestTime() const {
  return std::max(0, getNumValues() - kAnalysisRingSamples);
}

const std::int16_t* InputData::analysisSamples(int iSampleTime) const {
  return psAnalysisRing.data() + iSampleTime % kAnalysisRingSamples;
}

const std::int16_t* InputData::fullRateSamples(int iSampleTime) const {
  return psFullRateRing.data() + std::ptrdiff_t{iSampleTime % kAnalysisRingSamples} * iRateFactor;
}

// A line with a constant on it would look loud for ever. The constant is believed only when the signal is
// loud enough to judge and the constant is a large part of it.
void InputData::updateDcOffset() {
  constexpr int kMinOffset = 500;
  constexpr int kMinRange = 3000;
  constexpr int kMaxRangeToOffset = 16;
  const LevelTrackers& trackers = pMyChannel->pCycleInformation->trackers();
  const int iEstimate = trackers.dcEstimate();
  if (!bDcLocked) {
    const int iRange = trackers.immediate(0).spread();
    const int iMagnitude = std::abs(iEstimate);
    if (iMagnitude <= kMinOffset || iRange <= kMinRange || iRange >= kMaxRangeToOffset * iMagnitude) return;
    bDcLocked = true;
    iDcLockPosition = getNumValues();
  }
  iDcOffset = iEstimate;
}

void InputData::append(int iSample) {
  const std::int16_t sSample = clampSample(iSample - iDcOffset);
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
  updateDcOffset();
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
