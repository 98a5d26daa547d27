#include "engine/VoiceProfileImage.h"

#include <cstddef>
#include <cstring>

#include "engine/MyChannel.h"

namespace {

constexpr int kFixedBytes = sSpeakerData::kTableBytes + kSeparationBytes;
constexpr std::size_t kSumOffset = sSpeakerData::kTableBytes + offsetof(sLearnedVoice, uChecksum);

// FNV-1a over 32-bit words. It shall find accidents, not forgeries.
std::uint32_t sumOf(const std::uint8_t* puFrom, std::size_t uBytes, std::uint32_t uSum) {
  for (std::size_t i = 0; i + 4 <= uBytes; i += 4) {
    std::uint32_t uWord;
    std::memcpy(&uWord, puFrom + i, sizeof uWord);
    uSum = (uSum ^ uWord) * 16777619U;
  }
  return uSum;
}
static_assert(kFixedBytes % 4 == 0 && kSumOffset % 4 == 0 && kPatternBytes % 4 == 0);

std::uint32_t fixedSum(const std::uint8_t* puProfile) {
  constexpr std::uint32_t kStart = 2166136261U;
  constexpr std::size_t kBehind = kSumOffset + sizeof(sLearnedVoice::uChecksum);
  const std::uint32_t uSum = sumOf(puProfile, kSumOffset, kStart);
  return sumOf(puProfile + kBehind, static_cast<std::size_t>(kFixedBytes) - kBehind, uSum);
}

std::uint32_t patternSum(const std::uint8_t* puProfile, int iRecords) {
  return sumOf(puProfile + kFixedBytes, static_cast<std::size_t>(iRecords) * kPatternBytes, 1);
}

}  // namespace

std::uint32_t profileBytes(int iRecords) {
  return static_cast<std::uint32_t>(kFixedBytes + iRecords * kPatternBytes);
}

std::optional<int> recordsOfProfile(const std::uint8_t* puProfile) {
  std::int32_t iVersion;
  std::memcpy(&iVersion, puProfile, sizeof iVersion);
  if (iVersion != kSpeakerVersion) return {};
  sLearnedVoice voice;
  std::memcpy(&voice, puProfile + sSpeakerData::kTableBytes, sizeof voice);
  const bool bPossible = voice.isConsistent() && voice.iPatterns <= SourceSeparation::kMaxPatterns &&
                         sSpeakerData::canLoad(puProfile);
  if (!bPossible || voice.uChecksum != fixedSum(puProfile)) return {};
  return voice.iPatterns;
}

bool isWholeProfile(const std::uint8_t* puProfile, std::uint32_t uBytes) {
  const std::optional<int> records = recordsOfProfile(puProfile);
  if (!records || uBytes != profileBytes(*records)) return false;
  sLearnedVoice voice;
  std::memcpy(&voice, puProfile + sSpeakerData::kTableBytes, sizeof voice);
  return voice.uPatternSum == patternSum(puProfile, *records);
}

bool loadProfile(MyChannel& channel, const std::uint8_t* puProfile) {
  const std::optional<int> records = recordsOfProfile(puProfile);
  if (!records) return false;
  channel.psSpeakerData->load(puProfile);
  const std::uint8_t* puSeparation = puProfile + sSpeakerData::kTableBytes;
  sLearnedVoice voice;
  std::memcpy(&voice, puSeparation, sizeof voice);
  if (voice.uPatternSum == patternSum(puProfile, *records) &&
      channel.pSourceSeparation->copySpeakerDataToDynamicInfo(puSeparation) == 0) {
    channel.psSpeakerData->takePeriods(voice.uPeriods);
    return true;
  }
  channel.psSpeakerData->clear();
  return false;
}

void setSumOfFixedPart(std::uint8_t* puProfile) {
  const std::uint32_t uFixed = fixedSum(puProfile);
  std::memcpy(puProfile + kSumOffset, &uFixed, sizeof uFixed);
}

void storeProfile(const MyChannel& channel, std::uint8_t* puProfile) {
  channel.psSpeakerData->store(puProfile);
  std::uint8_t* puSeparation = puProfile + sSpeakerData::kTableBytes;
  channel.pSourceSeparation->copySpeakerDataFromDynamicInfo(puSeparation);
  const sSpeakerData::PackedPeriods uPeriods = channel.psSpeakerData->packedPeriods();
  std::memcpy(puSeparation + offsetof(sLearnedVoice, uPeriods), uPeriods.data(), uPeriods.size());
  const std::uint32_t uPatterns = patternSum(puProfile, channel.pSourceSeparation->patternRecords());
  std::memcpy(puSeparation + offsetof(sLearnedVoice, uPatternSum), &uPatterns, sizeof uPatterns);
  setSumOfFixedPart(puProfile);
}
