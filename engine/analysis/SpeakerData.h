// What a channel knows of its talker's voice: the part that the segment detector uses. The patterns that tell
// the voice from other sound in one spectrum belong to SourceSeparation.
//
// A voice profile (sAPISpeaker) is an image of both:
//
//   | sSpeakerHead | histograms | templates | separation: fixed block | pattern records: count x 4740 |
//        32           8,400        636,000          10,560
#pragma once

#include <array>
#include <cstdint>

#include "engine/MyFilters.h"
#include "engine/ZeroedArray.h"

// A spectral template: the shape of a voiced spectrum, and of the background it was heard in. A value is the
// bin's magnitude in 0..99, relative to the largest bin; bins 0 to 4 of the voice are 0, since the telephone
// band and the talker's loudness decide what is there.
struct sFftSchemaType {
  static constexpr int kMaxBins = 96;
  static constexpr int kFirstBin = 5;

  std::array<std::uint8_t, kMaxBins> uValue{};
  std::array<std::uint8_t, kMaxBins> uNoise{};
  std::int32_t iBins = 0;
  std::int32_t iStep = 0;  // magnitude per unit of uValue
  std::int32_t iNoiseBins = 0;
  std::int32_t iNoiseStep = 0;
  std::int32_t iEndTime = 0;  // sample time of its last sample
};
static_assert(sizeof(sFftSchemaType) == 212, "voice profiles hold templates as they stand in memory");
static_assert(sizeof(MyFilters::Histogram) == 28, "voice profiles hold histograms as they stand in memory");

inline constexpr int kMaxHistograms = 300;
inline constexpr int kMaxTemplates = 3000;
inline constexpr int kPitchBins = 101;  // periods of 0..100 samples
inline constexpr std::int32_t kSpeakerVersion = 2;

// The first 32 bytes of a voice profile.
struct sSpeakerHead {
  std::int32_t iVersion = kSpeakerVersion;
  // Pitch in samples per period at 8 kHz: a voiced stretch may be the talker's when its period lies within
  // centre +- 2 x spread. The pair (53, 53) accepts every voice.
  std::int32_t iPitchCentre = kAnyVoice;
  std::int32_t iPitchSpread = kAnyVoice;
  std::int32_t bHistogramsPresent = 0;
  std::int32_t iHistograms = 0;
  std::int32_t bTemplatesPresent = 0;
  std::int32_t iTemplates = 0;
  std::int32_t iReserved = 0;

  static constexpr std::int32_t kAnyVoice = 53;

  // Whether its figures can be.
  [[nodiscard]] bool isConsistent() const;
};
static_assert(sizeof(sSpeakerHead) == 32);

struct sSpeakerData : sSpeakerHead {
  // Throws std::bad_alloc. The tables are mapped when they are first written.
  sSpeakerData() : histograms(kMaxHistograms), templates(kMaxTemplates) {}

  // Forgets the voice; the tables' memory stays.
  void clear() {
    static_cast<sSpeakerHead&>(*this) = sSpeakerHead{};
    piPitchHistogram.fill(0);
    iPitchEntries = 0;
  }
  // Whether the figures of a profile's head and tables can be.
  [[nodiscard]] static bool canLoad(const std::uint8_t* puProfile);
  // Takes head and tables from a profile that can be loaded.
  void load(const std::uint8_t* puProfile);
  // Writes kTableBytes bytes.
  void store(std::uint8_t* puProfile) const;
  // The pitch histogram, which a profile keeps in a byte per period: counts above 255 are cut.
  using PackedPeriods = std::array<std::uint8_t, kPitchBins>;
  [[nodiscard]] PackedPeriods packedPeriods() const;
  void takePeriods(const PackedPeriods& uPeriods);

  [[nodiscard]] int shortestPeriod() const;  // centre - 4 x spread, at least 12 samples
  // Whether a period range lies within centre +- 2 x spread.
  [[nodiscard]] bool mayHavePeriod(int iNear, int iFar) const {
    return iNear >= iPitchCentre - 2 * iPitchSpread && iFar <= iPitchCentre + 2 * iPitchSpread;
  }

  ZeroedArray<MyFilters::Histogram> histograms;
  ZeroedArray<sFftSchemaType> templates;
  std::array<std::int32_t, kPitchBins> piPitchHistogram{};
  std::int32_t iPitchEntries = 0;

  static constexpr int kHistogramBytes = kMaxHistograms * static_cast<int>(sizeof(MyFilters::Histogram));
  static constexpr int kTemplateBytes = kMaxTemplates * static_cast<int>(sizeof(sFftSchemaType));
  static constexpr int kTableBytes =
      static_cast<int>(sizeof(sSpeakerHead)) + kHistogramBytes + kTemplateBytes;
};

// Sizes of the separation's part of a profile.
inline constexpr int kSeparationBytes = 10560;
inline constexpr int kPatternBytes = 4740;
static_assert(sSpeakerData::kTableBytes + kSeparationBytes == 654992);
