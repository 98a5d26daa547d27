#include "engine/analysis/FftSchema.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>

#include "engine/MyChannel.h"

namespace {

constexpr int kSettledSamples = 3999;  // analysed before spectra are judged
constexpr int kShortestSpan = 11;      // samples; less has no spectrum
constexpr int kLargestValue = 99;
constexpr float kLargestDrift = 10000;
// A difference from here on is believed only when the backgrounds match as well.
constexpr float kCertainDrift = 4;

using Values = std::array<std::uint8_t, sFftSchemaType::kMaxBins>;

// Bins from iFirst on in 0..99, relative to the largest of them; returns the step.
int quantise(std::span<const float> fMagnitude, int iFirst, Values* pValues) {
  pValues->fill(0);
  const auto used = fMagnitude.subspan(static_cast<std::size_t>(iFirst));
  const auto iLargest = static_cast<int>(*std::max_element(used.begin(), used.end()));
  const int iStep = std::max(1, (iLargest + kLargestValue / 2) / kLargestValue);
  for (std::size_t k = static_cast<std::size_t>(iFirst); k < fMagnitude.size(); ++k) {
    const int iValue = (static_cast<int>(fMagnitude[k]) + iStep / 2) / iStep;
    (*pValues)[k] = static_cast<std::uint8_t>(std::min(iValue, kLargestValue));
  }
  return iStep;
}

// Average difference of the bins iFirst..iBins - 1; kNoMatch when one differs by more than iLimit.
float averageDrift(const Values& a, const Values& b, int iFirst, int iBins, int iLimit) {
  int iSum = 0;
  for (std::size_t k = static_cast<std::size_t>(iFirst); k < static_cast<std::size_t>(iBins); ++k) {
    const int iDifference = std::abs(a[k] - b[k]);
    if (iDifference > iLimit) return FftSchema::kNoMatch;
    iSum += iDifference;
  }
  return static_cast<float>(iSum) / static_cast<float>(std::max(1, iBins - iFirst));
}

}  // namespace

bool FftSchema::validEntry() const {
  return !pMyChannel->bSeparationOff && pMyChannel->pCycleInformation->lastSampleTime() >= kSettledSamples;
}

// ---- Bins

int FftSchema::internalLength() const {
  return static_cast<int>(std::bit_ceil(static_cast<unsigned>(kCycleSamples * iBlocks)));
}

int FftSchema::channelLength() const {
  return static_cast<int>(
      std::bit_ceil(static_cast<unsigned>(kCycleSamples * iBlocks * pMyChannel->rateFactor())));
}

int FftSchema::internalBins() const {
  return std::min(internalLength() / 2, sFftSchemaType::kMaxBins);
}

// A bin of a transform of n samples at rate r is r / n wide. At a multiple of 8 kHz that is not a power of
// two the padding makes the channel's bins narrower than the internal ones. A frame of f times as many
// samples has f times the magnitude.
void FftSchema::adjustToInternalFrequency(Spectrum* pSpectrum) const {
  const Spectrum fFrom = *pSpectrum;
  const int iFactor = pMyChannel->rateFactor();
  const int iTo = internalLength() * iFactor;
  const int iFrom = channelLength();
  pSpectrum->fill(0);
  for (int k = 0; k < internalLength() / 2; ++k) {
    // The channel's bins j with k - 1/2 <= j x iTo / iFrom < k + 1/2, in whole numbers.
    const int iLow = std::max(0, ((2 * k - 1) * iFrom + 2 * iTo - 1) / (2 * iTo));
    const int iHigh = std::max(iLow + 1, ((2 * k + 1) * iFrom + 2 * iTo - 1) / (2 * iTo));
    double dSum = 0;
    for (int j = iLow; j < iHigh && j < static_cast<int>(fFrom.size()); ++j) {
      dSum += fFrom[static_cast<std::size_t>(j)];
    }
    (*pSpectrum)[static_cast<std::size_t>(k)] = static_cast<float>(dSum / (iHigh - iLow) / iFactor);
  }
}

void FftSchema::copyAndAdjustToInternalFrequency(Spectrum* pTo, std::span<const double> dFrom) const {
  std::transform(dFrom.begin(), dFrom.end(), pTo->begin(),
                 [](double dValue) { return static_cast<float>(dValue); });
  std::fill(pTo->begin() + static_cast<std::ptrdiff_t>(dFrom.size()), pTo->end(), 0.0F);
  adjustToInternalFrequency(pTo);
}

// ---- Making templates

void FftSchema::calcSchema(sFftSchemaType* pSchema, cHandle last, float fNoiseLevel,
                           const sSpectralNoiseType& noise) {
  *pSchema = sFftSchemaType{};
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  int iCycles = 0;
  while (iCycles < iBlocks && cycles.isValid(CycleInformation::before(last, iCycles))) ++iCycles;
  const int iSpan = iCycles * kCycleSamples;
  if (iSpan < kShortestSpan) {
    pSchema->iBins = sFftSchemaType::kFirstBin;
    return;
  }
  pSchema->iEndTime = cycles.at(last).EndIndex;
  MyFilters& filters = *pMyChannel->pMyFilters;
  const int iFirst = pSchema->iEndTime + 1 - iSpan;
  const int iLength = filters.calcFFTWithHanning(filters.buildInput(false, iFirst, pSchema->iEndTime));
  std::array<double, kMaxNoiseBins> dMagnitude{};
  filters.addMagnitudes(iLength, dMagnitude);
  Spectrum fBackground;
  copyAndAdjustToInternalFrequency(&fBackground, noise.dNoise);
  pSchema->iBins = std::min(iLength / 2, sFftSchemaType::kMaxBins);
  std::array<float, sFftSchemaType::kMaxBins> fVoice{};
  for (std::size_t k = 0; k < static_cast<std::size_t>(pSchema->iBins); ++k) {
    fVoice[k] = std::max(0.0F, static_cast<float>(dMagnitude[k]) - fNoiseLevel * fBackground[k]);
  }
  pSchema->iStep = quantise(std::span(fVoice).first(static_cast<std::size_t>(pSchema->iBins)),
                            sFftSchemaType::kFirstBin, &pSchema->uValue);
  buildCurrentNoise(pSchema, noise);
}

void FftSchema::buildCurrentNoise(sFftSchemaType* pSchema, const sSpectralNoiseType& noise) const {
  Spectrum fBackground;
  copyAndAdjustToInternalFrequency(&fBackground, noise.dNoise);
  pSchema->iNoiseBins = internalBins();
  pSchema->iNoiseStep = quantise(std::span(fBackground).first(static_cast<std::size_t>(pSchema->iNoiseBins)),
                                 0, &pSchema->uNoise);
}

void FftSchema::addSchemaToSegment(cHandle last, sSegment* pSegment, const sSpectralNoiseType& noise) {
  if (pSegment->iSchemas >= sSegment::kMaxSchemas) return;
  calcSchema(&pSegment->asSchema[static_cast<std::size_t>(pSegment->iSchemas++)], last, 0, noise);
}

// ---- Comparing

float FftSchema::validateSchemaHelper(bool bNoise, const sFftSchemaType& a, const sFftSchemaType& b,
                                      int iLevel) const {
  const auto u = static_cast<std::size_t>(iLevel);
  if (bNoise) {
    if (a.iNoiseBins != b.iNoiseBins) return kNoMatch;
    const float fDrift =
        averageDrift(a.uNoise, b.uNoise, 0, a.iNoiseBins, piMaxHistogramDriftForNoiseMatch[u]);
    return fDrift <= pfMaxAvgSqrtDriftForNoiseMatch[u] ? fDrift : kNoMatch;
  }
  if (a.iBins != b.iBins) return kNoMatch;
  const float fDrift = averageDrift(a.uValue, b.uValue, sFftSchemaType::kFirstBin, a.iBins,
                                    piMaxHistogramDriftForVerbMatch[u]);
  return fDrift <= std::min(pfMaxAvgSqrtDriftForVerbMatch[u], pMyChannel->fVerbDriftLimit) ? fDrift
                                                                                           : kNoMatch;
}

int FftSchema::validateSchema(const sFftSchemaType& schema, int iLevel, float* pfDrift) const {
  const sSpeakerData& speaker = *pMyChannel->psSpeakerData;
  int iBest = -1;
  *pfDrift = kLargestDrift;
  for (int i = 0; i < speaker.iTemplates; ++i) {
    const float fDrift =
        validateSchemaHelper(false, schema, speaker.templates[static_cast<std::size_t>(i)], iLevel);
    if (fDrift == kNoMatch || fDrift >= *pfDrift) continue;
    iBest = i;
    *pfDrift = fDrift;
  }
  return iBest;
}

bool FftSchema::validateNoise(const sFftSchemaType& schema, int iLearned, int iLevel) const {
  const auto& learned = pMyChannel->psSpeakerData->templates[static_cast<std::size_t>(iLearned)];
  return validateSchemaHelper(true, schema, learned, iLevel) != kNoMatch;
}

bool FftSchema::findWinnerSchema(cHandle last, int* piWinner, float* pfDrift,
                                 const sSpectralNoiseType& noise) {
  constexpr int kOneTalker = 1;
  *piWinner = -1;
  *pfDrift = kLargestDrift;
  for (const float fNoiseLevel : pfNoiseLevelDuringFFTSchemaValidation) {
    sFftSchemaType schema;
    calcSchema(&schema, last, fNoiseLevel, noise);
    float fDrift;
    const int iLearned = validateSchema(schema, kOneTalker, &fDrift);
    if (iLearned < 0 || fDrift >= *pfDrift) continue;
    if (fDrift >= kCertainDrift && !validateNoise(schema, iLearned, kOneTalker)) continue;
    *piWinner = iLearned;
    *pfDrift = fDrift;
  }
  return *piWinner >= 0;
}
