// A voice profile in its file: a small whole one into which the input is written piecewise. The first byte
// says whether the sums are then made right again, so that it is the figures that are judged, and whether the
// voice is put to use; its bit 3 that four bytes with the length word and three with the file's length
// follow; then each piece: part (head, separation, patterns, anywhere), offset (three bytes), length, bytes.
// What is taken for a profile must be one that a channel can work with.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "common/Handle.h"
#include "engine/analysis/LearnedVoice.h"
#include "engine/Kestrova.h"
#include "fuzz/EnginePackage.h"
#include "fuzz/MemoryFile.h"
#include "fuzz/Require.h"
#include "rtp/VoiceProfile.h"

namespace {

constexpr std::size_t kTables = sSpeakerData::kTableBytes;
constexpr std::size_t kPatterns = kTables + kSeparationBytes;
constexpr std::int32_t kNumPatterns = 3;

template <typename Record>
void putAt(std::vector<std::uint8_t>& profile, std::size_t offset, const Record& record) {
  std::memcpy(&profile[offset], &record, sizeof record);
}

std::vector<std::uint8_t> wholeProfile() {
  std::vector<std::uint8_t> profile(kPatterns + kNumPatterns * sizeof(sVoicePattern));
  sSpeakerHead head;
  head.iPitchCentre = 66;
  head.iPitchSpread = 6;
  head.bHistogramsPresent = head.bTemplatesPresent = 1;
  head.iHistograms = head.iTemplates = 2;
  putAt(profile, 0, head);
  sLearnedVoice learned;
  learned.iPatterns = kNumPatterns;
  learned.bLearned = 1;
  learned.uRules = sLearnedVoice::kRules;
  learned.iClusters = 2;
  learned.fOwnScore = learned.fMeanPower = 1;
  putAt(profile, kTables, learned);
  for (std::size_t i = 0; i < kNumPatterns; ++i) {
    sVoicePattern pattern;
    pattern.uFlags = sVoicePattern::kValid;
    pattern.iPeriod = 66;
    pattern.iCluster = static_cast<std::int32_t>(i % 2);
    putAt(profile, kPatterns + i * sizeof pattern, pattern);
  }
  return profile;
}

void patch(std::vector<std::uint8_t>& profile, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    constexpr std::array<std::size_t, 4> kParts = {0, kTables, kPatterns, 0};
    const std::uint32_t part = takeNumber(data, size, 1) & 3;
    const std::size_t reach = part == 3 ? profile.size() : 256;
    const std::size_t offset = kParts[part] + takeNumber(data, size, 3) % reach;
    const std::size_t length =
        std::min<std::size_t>({takeNumber(data, size, 1), size, profile.size() - offset});
    std::memcpy(&profile[offset], data, length);
    data += length;
    size -= length;
  }
}

// FNV-1a over words, as the file's own sums.
std::uint32_t sumOf(const std::uint8_t* from, const std::uint8_t* end, std::uint32_t sum) {
  for (; from + 4 <= end; from += 4) {
    std::uint32_t word;
    std::memcpy(&word, from, sizeof word);
    sum = (sum ^ word) * 16777619U;
  }
  return sum;
}

void makeSumsRight(std::vector<std::uint8_t>& profile) {
  constexpr std::size_t kSum = kTables + offsetof(sLearnedVoice, uChecksum);
  const std::uint8_t* const bytes = profile.data();
  putAt(profile, kTables + offsetof(sLearnedVoice, uPatternSum),
        sumOf(bytes + kPatterns, bytes + profile.size(), 1));
  putAt(profile, kSum, sumOf(bytes + kSum + 4, bytes + kPatterns, sumOf(bytes, bytes + kSum, 2166136261U)));
}

sKestrovaInit initOf(const VoiceProfile& voice) {
  sKestrovaInit init{};
  init.sBitsPerSample = 16;
  init.iSampleRate = 8000;
  init.sFrameUnits = 8;
  init.bRemoveNonSelfFrequencies = 1;
  init.sMaxNumCyclesInDelayBuffer = 20;
  init.sDetectAggressiveLevel = 2;
  init.sCleanAggressiveLevel = 8;
  init.psSpeakerInformation = voice.speaker();
  return init;
}

// Half a second of a voice at the profile's pitch, in pieces of 32 ms.
void talk() {
  constexpr int kPieces = 16, kSamples = 256;
  for (int piece = 0, time = 0; piece < kPieces; ++piece) {
    std::array<std::int16_t, kSamples> samples;
    for (std::int16_t& sample : samples) {
      double value = 0;
      for (int harmonic = 1; harmonic < 30; ++harmonic)
        value += std::cos(2 * 3.14159265 * harmonic * time / 66.0) / harmonic;
      sample = static_cast<std::int16_t>(2500 * value);
      ++time;
    }
    sKestrovaFrameResult result{};
    require(KestrovaProcessFrame(0, samples.data(), sizeof samples, samples.data(), &result) == 0);
    require(result.iOutBytes >= 0 && result.iOutBytes <= static_cast<int>(sizeof samples));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool prepared = prepareEngine();
  static const std::vector<std::uint8_t> whole = wholeProfile();
  if (size == 0) return 0;
  std::vector<std::uint8_t> profile = whole;
  const std::uint8_t choice = *data++;
  --size;
  const bool isLengthGiven = (choice & 8) != 0;
  const auto right = static_cast<std::uint32_t>(profile.size());
  const std::uint32_t length = isLengthGiven ? takeNumber(data, size, 4) : right;
  const std::uint32_t kept = isLengthGiven ? takeNumber(data, size, 3) : right + sizeof length;
  patch(profile, data, size);
  if ((choice & 1) == 0) makeSumsRight(profile);

  std::vector<std::uint8_t> bytes(sizeof length + profile.size());
  putAt(bytes, 0, length);
  std::copy(profile.begin(), profile.end(), bytes.begin() + sizeof length);
  bytes.resize(std::min<std::size_t>(kept, bytes.size()));
  const MemoryFile memory(bytes.data(), bytes.size());
  const File file = openFile(memory.path().c_str(), "rbe");
  VoiceProfile voice;
  if (voice.readFrom(file.get()) != VoiceProfile::Read::eDone) return 0;
  require(length <= right && kept >= length + sizeof length);
  const sKestrovaInit init = initOf(voice);
  require(KestrovaIpsavoxInit(0, &init) == 0);
  if ((choice & 6) == 0) talk();
  require(KestrovaTerminate(0) == 0);
  return 0;
}
