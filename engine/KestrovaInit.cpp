// The engine's call interface: package, channel life and learned voices.
#include <algorithm>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <memory>
#include <string_view>

#include "engine/ApiSupport.h"
#include "engine/Glob.h"
#include "engine/Kestrova.h"
#include "engine/VoiceProfileImage.h"
#include "engine/ZeroedArray.h"

namespace {

using api::guarded;
using api::isChannel;
using api::kBadChannelOrProcessing;
using api::kInitFailure;
using api::kSuccess;

constexpr int kMaxCPUPower = 10;

struct sScratch {
  ZeroedArray<std::uint8_t> puZeroes;
  ZeroedArray<std::uint8_t> puTmpOutput;
};
sScratch scratch;

sScratch allocateScratch() {
  return {.puZeroes = ZeroedArray<std::uint8_t>(kMaxFrameBytes),
          .puTmpOutput = ZeroedArray<std::uint8_t>(std::size_t{kNoiseChannels} * kMaxFrameBytes)};
}

// A learned voice is told from others only with this much delay.
constexpr std::uint16_t kMinDelayCyclesWithVoice = 10;

[[nodiscard]] bool storeBinDirectory(const char* pcDirectory) {
  // The application may hand us the very text that we store into.
  const std::string_view directory(pcDirectory == nullptr ? "" : pcDirectory);
  if (!Glob::pcKestrovaBin.assign(directory)) return false;
  if (Glob::pcKestrovaBin.empty()) return true;
  return directory.ends_with('/') || directory.ends_with('\\') || Glob::pcKestrovaBin.append("/");
}

int initEchoEntry(MyChannel& entry, MyChannel* pSpkEntry, const sKestrovaInit& init, int iLagFrames) {
  constexpr int kMaxLagFrames = 50;
  entry.bIsAecChannel = true;
  entry.pSpkChannel = pSpkEntry;
  sKestrovaInit forced = init;
  forced.bRemoveNonSelfFrequencies = 1;
  if (entry.doInternalKestrovaInit(forced) != 0) return kInitFailure;
  // The frame at hand is part of the count, so it does not count as lag.
  entry.iLagLimit = (std::min(iLagFrames, kMaxLagFrames) * kCycleSamples - kCycleSamples) * init.sFrameUnits;
  return kSuccess;
}

int initEchoChannel(std::uint16_t uChannel, const sKestrovaInit& init) {
  MyChannel& mic = api::micEntry(uChannel);
  MyChannel& spk = api::spkEntry(uChannel);
  if (initEchoEntry(mic, &spk, init, init.sMicLagFrames) != 0) return kInitFailure;
  mic.storeAecSettings(init);
  // The basic suppressor compares levels and needs no look-ahead.
  const bool bDelayed = mic.iAecAlgorithm >= 2 || init.sMaxNumCyclesInDelayBuffer > 1;
  mic.iAecDelayCycles = bDelayed ? mic.iMaxNumCyclesInDelayBuffer : 0;
  if (initEchoEntry(spk, nullptr, init, init.sSpkLagFrames) != 0) return kInitFailure;
  spk.iAecAlgorithm = mic.iAecAlgorithm;
  mic.pMyAEC->clean();
  return kSuccess;
}

void startRegistration(MyChannel& channel) {
  channel.pRegistration = std::make_unique<Registration>(channel);
  channel.pRegistration->start();
}

// However its end goes, the registration is over. Until then the channel has it: what waits in the queues is
// handed to it.
struct RegistrationEnds {
  MyChannel& channel;
  explicit RegistrationEnds(MyChannel& owner) : channel(owner) {}
  ~RegistrationEnds() {
    channel.bRegistrationRunning = false;
    channel.pRegistration.reset();
  }
  RegistrationEnds(const RegistrationEnds&) = delete;
  RegistrationEnds& operator=(const RegistrationEnds&) = delete;
};

// Without a speaker every voice counts, as after the init.
bool loadSpeaker(MyChannel& channel, const sAPISpeaker* pSpeaker) {
  if (pSpeaker == nullptr) return true;
  const auto* puProfile = reinterpret_cast<const std::uint8_t*>(pSpeaker);
  return channel.pSourceSeparation && loadProfile(channel, puProfile);
}

// What all channels share is made with the first of them, which would hold the first call for 1 ms.
void prepareChannelTables() {
  sKestrovaInit init{};
  init.sBitsPerSample = 16;
  init.iSampleRate = kAnalysisRate;
  init.sFrameUnits = 1;
  init.sMaxNumCyclesInDelayBuffer = kMinDelayCycles;
  init.sCleanAggressiveLevel = 10;
  const auto channel = std::make_unique<MyChannel>();
  (void)channel->doInternalKestrovaInit(init);
}

// Channels come and go with calls. Given back to the system by one and taken again by the next, their memory
// would have to be paged in each time: 1 ms for a start that is 0.1 ms without.
void keepFreedMemory() {
#ifdef __GLIBC__
  constexpr int kKeptBytes = 32 << 20;    // a dozen channels
  constexpr int kLargestBlock = 4 << 20;  // of a channel; larger ones get pages of their own
  (void)mallopt(M_TRIM_THRESHOLD, kKeptBytes);
  (void)mallopt(M_MMAP_THRESHOLD, kLargestBlock);
#endif
}

}  // namespace

const std::uint8_t* api::pbApiZeroes() {
  return scratch.puZeroes.data();
}

std::uint8_t* api::pbApiTmpOutput(std::uint16_t uChannel) {
  return scratch.puTmpOutput.data() + std::size_t{uChannel} * kMaxFrameBytes;
}

int KestrovaVersion(uint32_t* version) {
  if (version == nullptr) return kBadChannelOrProcessing;
  *version = KESTROVA_VERSION_NUMBER;
  return kSuccess;
}

int KestrovaPackageInit(const sKestrovaPackage* package) {
  return guarded(kInitFailure, [&] {
    if (package == nullptr || package->iAPIVersion != KESTROVA_API_VERSION) return kInitFailure;
    if (!storeBinDirectory(package->pcBinDirectory)) return kInitFailure;
    if (package->iCPUPower < 0 || package->iCPUPower > kMaxCPUPower) return kInitFailure;
    if (scratch.puZeroes.size() == 0) scratch = allocateScratch();
    prepareWorldVoices();
    keepFreedMemory();
    Glob::iCPUPower = package->iCPUPower;
    Glob::sAPIVersion = package->iAPIVersion;
    prepareChannelTables();
    return kSuccess;
  });
}

int KestrovaInit(uint16_t channel, const sKestrovaInit* init) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  if (init == nullptr) return kInitFailure;
  return guarded(kInitFailure, [&] { return api::noiseChannel(channel).doInternalKestrovaInit(*init); });
}

int KestrovaGroupInit(uint16_t channel, const sKestrovaInit* init) {
  if (const int iResult = KestrovaInit(channel, init); iResult != kSuccess) return iResult;
  api::noiseChannel(channel).presetVoiceGroup(init->iGroupType);
  return kSuccess;
}

int KestrovaIpsavoxInit(uint16_t channel, const sKestrovaInit* init) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  if (init == nullptr) return kInitFailure;
  sKestrovaInit raised = *init;
  raised.sMaxNumCyclesInDelayBuffer = std::max(raised.sMaxNumCyclesInDelayBuffer, kMinDelayCyclesWithVoice);
  // While learning, every voice counts.
  if (init->bStartRegistration != 0) raised.sDetectAggressiveLevel = 0;
  if (const int iResult = KestrovaInit(channel, &raised); iResult != kSuccess) return iResult;
  MyChannel& noise = api::noiseChannel(channel);
  const int iResult = guarded(kInitFailure, [&] {
    if (init->bStartRegistration == 0)
      return loadSpeaker(noise, init->psSpeakerInformation) ? kSuccess : kInitFailure;
    startRegistration(noise);
    return kSuccess;
  });
  // A channel that ran without what it was asked for would look as if it had it.
  if (iResult != kSuccess) noise.terminate();
  return iResult;
}

int KestrovaAECInit(uint16_t channel, const sKestrovaInit* init) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  if (init == nullptr) return kInitFailure;
  return guarded(kInitFailure, [&] { return initEchoChannel(channel, *init); });
}

int KestrovaCompleteRegistration(uint16_t channel, uint32_t* size) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  MyChannel& noise = api::noiseChannel(channel);
  if (!noise.isInitialized() || !noise.pRegistration) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing, [&] {
    const RegistrationEnds atTheEnd{noise};
    Registration& ending = *noise.pRegistration;
    if (size == nullptr)
      return ending.discard() == Registration::Outcome::kLearned ? kSuccess : kBadChannelOrProcessing;
    noise.registrationOutcome = Registration::Outcome::kNoMemory;  // unless it comes to its end
    noise.registrationOutcome = ending.stop(false);
    if (!noise.bRegistrationCompleted) return kBadChannelOrProcessing;
    *size = profileBytes(noise.pSourceSeparation->patternRecords());
    return kSuccess;
  });
}

int KestrovaCopySpeakerInformationAfterRegistration(uint16_t channel, sAPISpeaker* speaker) {
  if (!isChannel(channel) || speaker == nullptr) return kBadChannelOrProcessing;
  const MyChannel& noise = api::noiseChannel(channel);
  if (!noise.isInitialized() || !noise.bRegistrationCompleted) return kBadChannelOrProcessing;
  storeProfile(noise, reinterpret_cast<std::uint8_t*>(speaker));
  return kSuccess;
}

int KestrovaGetRegistrationOutcome(uint16_t channel, int32_t* outcome) {
  if (!isChannel(channel) || outcome == nullptr) return kBadChannelOrProcessing;
  *outcome = static_cast<std::int32_t>(api::noiseChannel(channel).registrationOutcome);
  return kSuccess;
}

const char* KestrovaGetRegistrationOutcomeText(int32_t outcome) {
  switch (outcome) {
    case KESTROVA_REGISTRATION_LEARNED:
      return "a voice was learned";
    case KESTROVA_REGISTRATION_WEAK:
      return "the voice is too weak or too near the background";
    case KESTROVA_REGISTRATION_MIXED:
      return "more than one talker was heard";
    case KESTROVA_REGISTRATION_NO_MEMORY:
      return "memory is short";
    default:
      return "too little speech was heard";
  }
}

int KestrovaCheckSpeakerInformation(const sAPISpeaker* speaker, uint32_t size) {
  if (speaker == nullptr || size < profileBytes(0)) return kInitFailure;
  const auto* puProfile = reinterpret_cast<const std::uint8_t*>(speaker);
  return isWholeProfile(puProfile, size) ? kSuccess : kInitFailure;
}

int KestrovaTerminate(uint16_t channel) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  api::noiseChannel(channel).terminate();
  return kSuccess;
}

int KestrovaAECTerminate(uint16_t channel) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  api::micEntry(channel).terminate();
  api::spkEntry(channel).terminate();
  return kSuccess;
}

int KestrovaPrintInitValues(const sKestrovaInit* /*init*/) {
  return kSuccess;
}
