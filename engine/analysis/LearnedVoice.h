// What telling a talker from others rests on: the clusters of his voiced sounds and how well they fit him.
//
// This is the fixed block of the separation's part of a voice profile, an image in memory:
//
//   | header 160 bytes | 650 clusters of 16 bytes: envelope, weight |
//
// followed there by the pattern records that it was made from.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "engine/analysis/SpeakerData.h"
#include "engine/analysis/VoiceEnvelope.h"

// One frame of the talker's voice, 32 ms, every 16 ms of a voiced stretch.
struct sVoicePattern {
  enum Flags : std::uint32_t {
    kValid = 1,  // its envelope may enter a cluster
    kBreak = 2,  // a stretch begins here
  };
  std::uint32_t uFlags = 0;
  std::int32_t iEndTime = 0;     // sample time of the last sample since the registration began
  std::int32_t iPeriod = 0;      // samples
  std::int32_t iPeriodMove = 0;  // against the record before, samples; 0 at a break
  std::int32_t iCluster = -1;
  float fPower = 0;  // mean square
  float fAlpha = 0;  // how well it repeats, at most 1
  MyFilters::Histogram histogram{};
  sEnvelope envelope{};
  std::int32_t iPeaks = 0;
  std::array<std::int16_t, 12> sPeakBin{};  // its strongest harmonics
  std::array<float, kEnvelopeBins> fMagnitude{};
  std::array<float, kEnvelopeBins> fBackground{};  // magnitude of the noise that was there
  std::array<std::uint8_t, 3576> uReserved{};
};
static_assert(sizeof(sVoicePattern) == kPatternBytes, "voice profiles hold patterns as they stand in memory");

struct sLearnedVoice {
  static constexpr int kMaxClusters = 650;
  static constexpr std::uint32_t kMagic = 0x31565051;  // "QPV1": the records below; others cannot be read
  // What clusters and threshold were derived by. What was derived by others cannot be used.
  static constexpr std::uint8_t kRules = 1;

  struct sCluster {
    sPackedEnvelope envelope{};
    std::uint16_t uPatterns = 0;
  };

  std::uint32_t uMagic = kMagic;
  std::uint32_t uChecksum = 0;    // of a profile's fixed part but this; set where the profile is written
  std::uint32_t uPatternSum = 0;  // of its pattern records
  std::int32_t iPatterns = 0;     // records that follow
  std::int32_t bLearned = 0;
  std::int32_t iClusters = 0;
  float fOwnScore = 0;                     // mean score of his sounds against clusters made of others of his
  float fThreshold = 0;                    // scores above are his
  float fMeanPower = 0;                    // of his valid records
  sSpeakerData::PackedPeriods uPeriods{};  // set where the profile is written
  std::uint8_t uRules = 0;
  std::array<std::uint8_t, 22> uReserved{};
  std::array<sCluster, kMaxClusters> asCluster{};

  // Whether its own figures can be: nothing in it leads outside.
  [[nodiscard]] bool isConsistent() const;
};
static_assert(sizeof(sLearnedVoice) == kSeparationBytes);

// What a registration has brought.
struct sSourceSeparationStatistics {
  int iRecords = 0;
  int iValid = 0;
  float fMeanPower = 0;  // of the valid ones
};
[[nodiscard]] sSourceSeparationStatistics statisticsOf(std::span<const sVoicePattern> patterns);
// Clusters and figures from the valid patterns. False when neither they nor all records are enough to know a
// voice by. Many records with too few valid ones make a voice without clusters: no single sound is told then.
[[nodiscard]] bool buildLearnedVoice(std::span<sVoicePattern> patterns, sLearnedVoice& voice);
// Unpacks the voices of the world that sounds are compared with. Otherwise the first comparison does it.
void prepareWorldVoices();
// Centres of some envelopes, as many as tell a voice apart without learning single frames.
[[nodiscard]] std::vector<sEnvelope> clustersOf(std::span<const sEnvelope> all);
// What a talker's own sounds score on average, times this, is what others do not reach for long.
inline constexpr float kThresholdOfOwnScore = 0.45F;
// Half of how much nearer (by squared distance) an envelope is to one of `own` than to the voices in general,
// of which there are few or many (see WorldVoices.h).
[[nodiscard]] float coarseScoreAgainst(const sEnvelope& envelope, const EnvelopeSet& own);
[[nodiscard]] float scoreAgainst(const sEnvelope& envelope, const EnvelopeSet& own);
