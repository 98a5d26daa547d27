// Spectral templates: the shape of a voiced spectrum in 0..99 per bin, compared with those of the learned
// talker. A template covers as many cycles as a transform frame and is made from the analysis samples, so
// that templates taken at different channel rates compare.
#pragma once

#include <array>

#include "engine/analysis/Cycle.h"
#include "engine/analysis/Segment.h"
#include "engine/analysis/SpeakerData.h"
#include "engine/MyFilters.h"

class MyChannel;

class FftSchema {
 public:
  // How much two templates may differ, by strictness 0 (they are the same) or 1 (they are one talker's).
  static constexpr std::array<int, 2> piMaxHistogramDriftForVerbMatch{3, 30};
  static constexpr std::array<float, 2> pfMaxAvgSqrtDriftForVerbMatch{1.0F, 6.0F};
  static constexpr std::array<int, 2> piMaxHistogramDriftForNoiseMatch{3, 100};
  static constexpr std::array<float, 2> pfMaxAvgSqrtDriftForNoiseMatch{1.0F, 30.0F};
  // Parts of the background that are taken off before a spectrum is compared: which one fits is not known.
  static constexpr std::array<float, 3> pfNoiseLevelDuringFFTSchemaValidation{0.0F, 0.5F, 0.8F};
  static constexpr float kNoMatch = -1;

  void init(MyChannel* pChannel) { pMyChannel = pChannel; }
  // Cycles of a template: 2, 3, 4 or 8.
  void setBlocks(int iBlockCount) { iBlocks = iBlockCount; }

  // Whether the stream is long enough to judge by spectra, and the separation is not switched off.
  [[nodiscard]] bool validEntry() const;

  // The template of the cycles that end with `last`, with that part of the background (0..1) taken off.
  void calcSchema(sFftSchemaType* pSchema, cHandle last, float fNoiseLevel, const sSpectralNoiseType& noise);
  // Quantises the background into the template's noise part.
  void buildCurrentNoise(sFftSchemaType* pSchema, const sSpectralNoiseType& noise) const;

  // Average difference of two templates when they match at the level, else kNoMatch.
  [[nodiscard]] float validateSchemaHelper(bool bNoise, const sFftSchemaType& a, const sFftSchemaType& b,
                                           int iLevel) const;
  // The learned template with the smallest difference that matches, or -1; *pfDrift is that difference.
  [[nodiscard]] int validateSchema(const sFftSchemaType& schema, int iLevel, float* pfDrift) const;
  // Whether the noise parts match at the level.
  [[nodiscard]] bool validateNoise(const sFftSchemaType& schema, int iLearned, int iLevel) const;
  // The learned template that the cycles ending with `last` match best, whatever background lies under them.
  // False, *piWinner -1, when there is none.
  [[nodiscard]] bool findWinnerSchema(cHandle last, int* piWinner, float* pfDrift,
                                      const sSpectralNoiseType& noise);

  // Appends the template of the cycles that end with `last` to the segment, unless it has 20 already.
  void addSchemaToSegment(cHandle last, sSegment* pSegment, const sSpectralNoiseType& noise);

  // Brings magnitudes per bin of the channel's rate to the bins and the scale of a template's transform: the
  // mean of the bins that fall into each. Bins beyond the result are 0.
  using Spectrum = std::array<float, kMaxNoiseBins>;
  void adjustToInternalFrequency(Spectrum* pSpectrum) const;
  void copyAndAdjustToInternalFrequency(Spectrum* pTo, std::span<const double> dFrom) const;

 private:
  [[nodiscard]] int internalLength() const;
  [[nodiscard]] int channelLength() const;
  [[nodiscard]] int internalBins() const;

  MyChannel* pMyChannel = nullptr;
  int iBlocks = 4;
};
