// Sound of both sides through the engine, with settings of any value: noise reduction, echo cancellation,
// both in either order, and the learning and use of a voice.
//
//   byte 0       bit 0 16 kHz, bits 1-2 what the near end's sound passes through, bit 3 a voice is learned of
//                it, bits 5-7 frame length in units of 4 ms, less one
//   then         the settings, 16 bits each, in the order of initOf
//   then each    length in units of 32 ms, less one; source of the near end (low half) and of the far end's
//                sound; a level for each; and with the source "samples" the samples themselves, 16 bits each
//
// Few bytes make long sounds, so that what takes seconds to converge, to be found or to be learned is
// reached.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine/analysis/LearnedVoice.h"
#include "engine/Kestrova.h"
#include "fuzz/EnginePackage.h"
#include "fuzz/Require.h"

namespace {

constexpr int kSampleLimit = 32512;
constexpr int kMaxFrame = 512;  // 8 units of 32 samples at 16 kHz
constexpr int kSegmentMs = 32;
// Of sound; the rest of the input is left out. Echo cancellation takes longest.
constexpr int kMaxMs = 6'000, kMaxEchoMs = 2'000;

class Input {
 public:
  Input(const std::uint8_t* first, std::size_t length) : puNext(first), uLeft(length) {}
  bool isEmpty() const { return uLeft == 0; }
  int byte() {
    if (uLeft == 0) return 0;
    --uLeft;
    return *puNext++;
  }
  template <typename Number>
  void read(Number& number) {
    const int low = byte();
    number = static_cast<Number>(static_cast<std::int16_t>(low | byte() << 8));
  }

 private:
  const std::uint8_t* puNext;
  std::size_t uLeft;
};

// Every field but the voice; values beyond their range are the engine's to bound.
sKestrovaInit initOf(int choice, Input& input) {
  sKestrovaInit init{};
  init.sBitsPerSample = 16;
  init.iSampleRate = (choice & 1) != 0 ? 16000 : 8000;
  init.sFrameUnits = static_cast<std::uint16_t>((choice >> 5 & 7) + 1);
  input.read(init.sInitialDelayUnits);
  input.read(init.bCheckDTMF);
  input.read(init.bRemoveNonSelfFrequencies);
  input.read(init.sCNGInitialValue);
  input.read(init.sCNGStep);
  input.read(init.sCNGEndValue);
  input.read(init.sBurstEndDecrease);
  input.read(init.sBurstEndMode);
  input.read(init.sBurstEndLowerValue);
  input.read(init.sBurstEndStep);
  input.read(init.sMaxNumCyclesInDelayBuffer);
  input.read(init.sDetectAggressiveLevel);
  input.read(init.sCleanAggressiveLevel);
  input.read(init.bCancelAcousticShock);
  input.read(init.bStartBypassed);
  input.read(init.bBypassVAD);
  input.read(init.bDoAGC);
  input.read(init.iAGCLevel);
  input.read(init.iAGCMinPercent);
  input.read(init.iAGCMaxPercent);
  input.read(init.iGroupType);
  input.read(init.sAecAlgorithm);
  input.read(init.sSpkLagFrames);
  input.read(init.sMicLagFrames);
  input.read(init.sAecSupressionHold);
  input.read(init.sAecAggressiveLevel);
  input.read(init.sAecHowlingLevel);
  input.read(init.sAecMaxCoef);
  input.read(init.sAecMinCoef);
  input.read(init.sAecTailType);
  input.read(init.sAecTailStart);
  input.read(init.iAecTalkHoldSamples);
  input.read(init.iAecHold2Samples);
  input.read(init.sMinOutputPercentDuringEcho);
  return init;
}

enum Source {
  kSilence,
  kNoise,
  kVoice,
  kTone,
  kDigit,
  kClicks,
  kSquare,
  kSamples,
  kEcho,
  kConstant,
  kNoFrames
};

// One end's sound; its phase goes on from segment to segment.
class Talker {
 public:
  explicit Talker(int rate) : iRate(rate) {}

  int sample(int source, int level, Input& input) {
    const double time = static_cast<double>(++iTime) / iRate;
    const double peak = 128.0 * (level + 1);
    uRandom = uRandom * 1664525U + 1013904223U;
    switch (source) {
      case kNoise:
        return static_cast<int>(uRandom >> 16) * (level + 1) / 512 - 64 * (level + 1);
      case kVoice:
        return voice(80 + level);
      case kTone:
        return static_cast<int>(8000 * std::sin(kTurn * 15 * (level + 1) * time));
      case kDigit: {
        constexpr std::array<double, 4> kRows = {697, 770, 852, 941}, kColumns = {1209, 1336, 1477, 1633};
        const std::size_t row = static_cast<std::size_t>(level) & 3,
                          column = static_cast<std::size_t>(level) >> 2 & 3;
        return static_cast<int>(
            6000 * (std::sin(kTurn * kRows[row] * time) + std::sin(kTurn * kColumns[column] * time)));
      }
      case kClicks:
        return iTime % (8 * (level + 1)) == 0 ? 32767 : 0;
      case kSquare:
        return iTime / (level + 1) % 2 == 0 ? 32767 : -32768;
      case kSamples: {
        std::int16_t value = 0;
        input.read(value);
        return value;
      }
      case kConstant:
        return static_cast<int>(peak) - 16'384;
      default:
        return 0;
    }
  }

 private:
  static constexpr double kTurn = 2 * 3.14159265358979;

  // Harmonics under three formants, which change every 0.25 s, with pauses between.
  int voice(double pitch) {
    const int syllable = iTime / (iRate / 4);
    if (iTime % (iRate / 4) > iRate / 5) return 0;
    const auto period = static_cast<std::size_t>(iRate / pitch);
    if (syllable != iSyllable || period != psPeriod.size()) {
      iSyllable = syllable;
      psPeriod.resize(period);
      makePeriod();
    }
    return psPeriod[static_cast<std::size_t>(iTime) % period];
  }

  void makePeriod() {
    static constexpr std::array<std::array<double, 3>, 4> kFormants = {
        {{730, 1090, 2440}, {270, 2290, 3010}, {300, 870, 2240}, {530, 1840, 2480}}};
    const auto& formants = kFormants[static_cast<std::size_t>(iSyllable) * 7 % 11 % 4];
    const double pitch = iRate / static_cast<double>(psPeriod.size());
    std::fill(psPeriod.begin(), psPeriod.end(), 0);
    for (int harmonic = 1; harmonic * pitch < 3400; ++harmonic) {
      double gain = 0.01;
      for (const double formant : formants)
        gain += 0.3 / (1 + std::pow((harmonic * pitch - formant) / 120, 2));
      for (std::size_t i = 0; i < psPeriod.size(); ++i)
        psPeriod[i] += static_cast<int>(
            9000 * gain *
            std::sin(kTurn * harmonic * static_cast<double>(i) / static_cast<double>(psPeriod.size())));
    }
  }

  int iRate;
  int iSyllable = -1;
  std::vector<int> psPeriod;
  int iTime = 0;
  std::uint32_t uRandom = 1;
};

// The far end's sound as it comes back at the microphone: later and softer.
class Room {
 public:
  int echo(int played, int level) {
    psPlayed[uNext % psPlayed.size()] = played;
    const std::size_t delay = static_cast<std::size_t>(level & 31) * 16 + 1;
    const int heard = psPlayed[(uNext++ + psPlayed.size() - delay) % psPlayed.size()];
    return heard >> (level >> 5);
  }

 private:
  std::array<int, 1024> psPlayed{};
  std::size_t uNext = 0;
};

using Frame = std::array<std::int16_t, kMaxFrame>;

void process(int path, Frame& frame, int bytes) {
  sKestrovaFrameResult result{};
  using Call = int (*)(std::uint16_t, const void*, std::int32_t, void*, sKestrovaFrameResult*);
  constexpr std::array<Call, 4> kCalls = {KestrovaProcessFrame, KestrovaAECProcessMicFrame,
                                          KestrovaComboAECNRProcessFrame, KestrovaComboNRAECProcessFrame};
  require(kCalls[static_cast<std::size_t>(path)](0, frame.data(), bytes, frame.data(), &result) == 0);
  require(result.iOutBytes >= 0 && result.iOutBytes <= bytes && result.iOutBytes % 2 == 0);
  for (int i = 0; i < result.iOutBytes / 2; ++i)
    require(std::abs(frame[static_cast<std::size_t>(i)]) <= kSampleLimit);
  for (const std::int32_t flag : {result.iSpeech, result.iConfidentVoice, result.iDtmf})
    require(flag == 0 || flag == 1);
  for (const std::int32_t level : {result.iNoiseLevel, result.iSpeakerMatch, result.iEchoLevel})
    require(level >= 0 && level <= 2 * kSampleLimit);
  require(result.iGainPercent >= 0);
}

// The input's sounds, frame by frame, as a call brings them.
void talk(int path, const sKestrovaInit& init, Input& input) {
  const int samples = 32 * init.sFrameUnits * (init.iSampleRate / 8000);
  const int bytes = 2 * samples;
  Talker near(init.iSampleRate), far(init.iSampleRate);
  Room room;
  const int maxMs = path != 0 ? kMaxEchoMs : kMaxMs;
  const int maxSamples = maxMs * (init.iSampleRate / 1000);
  for (int passed = 0; passed < maxSamples && !input.isEmpty();) {
    const int length = (input.byte() + 1) * kSegmentMs * (init.iSampleRate / 1000);
    const int sources = input.byte(), nearLevel = input.byte(), farLevel = input.byte();
    const int nearSource = sources & 15, farSource = sources >> 4;
    for (int done = 0; done < length && passed < maxSamples; done += samples, passed += samples) {
      Frame microphone, loudspeaker;
      for (int i = 0; i < samples; ++i) {
        const auto at = static_cast<std::size_t>(i);
        const int played = std::clamp(far.sample(farSource, farLevel, input), -32768, 32767);
        const int echo = room.echo(played, nearLevel);
        const int heard = nearSource == kEcho ? echo : near.sample(nearSource, nearLevel, input);
        loudspeaker[at] = static_cast<std::int16_t>(played);
        microphone[at] = static_cast<std::int16_t>(std::clamp(heard, -32768, 32767));
      }
      if (path != 0 && farSource < kNoFrames)
        require(KestrovaAECProcessSpkFrame(0, loudspeaker.data(), bytes) == 0);
      if (nearSource < kNoFrames) process(path, microphone, bytes);
    }
  }
  std::array<char, 100> digits;
  (void)KestrovaGetLastDTMFBuffer(0, digits.data(), static_cast<std::int32_t>(digits.size()));
  sKestrovaAECStatus status{};
  require(KestrovaGetAECInternalStatusParameters(0, &status) == 0);
}

void checkPatterns(const std::vector<std::uint8_t>& profile) {
  const auto isFinite = [](float value) { return std::isfinite(value); };
  constexpr std::size_t kPatterns = sSpeakerData::kTableBytes + kSeparationBytes;
  for (std::size_t at = kPatterns; at + sizeof(sVoicePattern) <= profile.size();
       at += sizeof(sVoicePattern)) {
    sVoicePattern pattern;
    std::memcpy(&pattern, &profile[at], sizeof pattern);
    require(std::isfinite(pattern.fPower) && std::isfinite(pattern.fAlpha));
    require(std::all_of(pattern.fMagnitude.begin(), pattern.fMagnitude.end(), isFinite));
    require(std::all_of(pattern.fBackground.begin(), pattern.fBackground.end(), isFinite));
  }
}

// What was learned, if anything was, is a profile that the engine takes and works with.
void finishLearning(sKestrovaInit init) {
  std::uint32_t bytes = 0;
  const int completed = KestrovaCompleteRegistration(0, &bytes);
  std::int32_t outcome = -1;
  require(KestrovaGetRegistrationOutcome(0, &outcome) == 0);
  require((completed == 0) == (outcome == KESTROVA_REGISTRATION_LEARNED));
  if (completed != 0) return;
  std::vector<std::uint8_t> profile(bytes);
  auto* speaker = reinterpret_cast<sAPISpeaker*>(profile.data());
  require(KestrovaCopySpeakerInformationAfterRegistration(0, speaker) == 0);
  require(KestrovaCheckSpeakerInformation(speaker, bytes) == 0);
  checkPatterns(profile);
  init.psSpeakerInformation = speaker;
  require(KestrovaIpsavoxInit(0, &init) == 0);
  constexpr std::array<std::uint8_t, 8> kHalfASecond = {15, kVoice, 40, 0, 3, kNoise, 40, 0};
  Input talkAgain(kHalfASecond.data(), kHalfASecond.size());
  talk(0, init, talkAgain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool prepared = prepareEngine();
  Input input(data, size);
  const int choice = input.byte();
  sKestrovaInit init = initOf(choice, input);
  const bool learns = (choice & 8) != 0;
  const int path = learns ? 0 : choice >> 1 & 3;
  init.bStartRegistration = learns ? 1 : 0;
  require((learns ? KestrovaIpsavoxInit(0, &init) : KestrovaGroupInit(0, &init)) == 0);
  require(KestrovaAECInit(0, &init) == 0);
  talk(path, init, input);
  init.bStartRegistration = 0;
  if (learns) finishLearning(init);
  require(KestrovaTerminate(0) == 0 && KestrovaAECTerminate(0) == 0);
  return 0;
}
