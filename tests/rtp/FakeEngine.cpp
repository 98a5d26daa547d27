#include "tests/rtp/FakeEngine.h"

#include <cstring>

namespace {

FakeEngine& engine = FakeEngine::get();

bool exists(std::uint16_t channel) {
  return channel <= KESTROVA_MAX_CHANNEL;
}

int start(FakeEngine::Channel& channel, const sKestrovaInit* init) {
  channel = {};
  channel.sInit = *init;
  if (engine.failingInits > 0) {
    --engine.failingInits;
    return 2;
  }
  channel.bRunning = true;
  return 0;
}

int stop(std::array<FakeEngine::Channel, KESTROVA_MAX_CHANNEL + 1>& table, std::uint16_t channel) {
  if (!exists(channel)) return 1;
  table[channel].bRunning = false;
  return 0;
}

template <typename Change>
int process(FakeEngine::Channel& channel, const void* in, std::int32_t inBytes, void* out,
            sKestrovaFrameResult* result, Change change) {
  if (!channel.bRunning) return 1;
  if (engine.onFrame) engine.onFrame();
  ++channel.iFrames;
  const auto* from = static_cast<const std::int16_t*>(in);
  auto* to = static_cast<std::int16_t*>(out);
  for (int i = 0; i < inBytes / 2; ++i) to[i] = static_cast<std::int16_t>(change(from[i]));
  result->iOutBytes = inBytes - 2 * engine.outputSamplesMissing;
  return 0;
}

int halve(std::int16_t sample) {
  return sample / 2;
}

int negate(std::int16_t sample) {
  return -sample;
}

int processNoise(std::uint16_t channel, const void* in, std::int32_t inBytes, void* out,
                 sKestrovaFrameResult* result) {
  if (!exists(channel)) return 1;
  result->iSpeech = 1;
  result->iConfidentVoice = engine.noise[channel].iFrames % 2;
  result->iNoiseLevel = 40;
  result->iGainPercent = 150;
  result->iDtmf = engine.digits.empty() ? 0 : 1;
  return process(engine.noise[channel], in, inBytes, out, result, halve);
}

int processMic(std::uint16_t channel, const void* in, std::int32_t inBytes, void* out,
               sKestrovaFrameResult* result) {
  if (!exists(channel)) return 1;
  result->iEchoLevel = 9;
  return process(engine.echo[channel], in, inBytes, out, result, negate);
}

}  // namespace

FakeEngine& FakeEngine::get() {
  static FakeEngine instance;
  return instance;
}

int KestrovaPackageInit(const sKestrovaPackage* package) {
  engine.package = *package;
  return engine.failPackage ? 2 : 0;
}

int KestrovaGroupInit(std::uint16_t channel, const sKestrovaInit* init) {
  return exists(channel) ? start(engine.noise[channel], init) : 1;
}

int KestrovaIpsavoxInit(std::uint16_t channel, const sKestrovaInit* init) {
  if (!exists(channel)) return 1;
  const int result = start(engine.noise[channel], init);
  engine.noise[channel].bVoice = true;
  if (init->psSpeakerInformation != nullptr) {
    const char* bytes = reinterpret_cast<const char*>(init->psSpeakerInformation);
    engine.noise[channel].pcLoadedVoice.assign(bytes, bytes + 16);
  }
  return result;
}

int KestrovaAECInit(std::uint16_t channel, const sKestrovaInit* init) {
  return exists(channel) ? start(engine.echo[channel], init) : 1;
}

int KestrovaProcessFrame(std::uint16_t channel, const void* in, std::int32_t inBytes, void* out,
                         sKestrovaFrameResult* result) {
  return processNoise(channel, in, inBytes, out, result);
}

int KestrovaAECProcessMicFrame(std::uint16_t channel, const void* in, std::int32_t inBytes, void* out,
                               sKestrovaFrameResult* result) {
  return processMic(channel, in, inBytes, out, result);
}

int KestrovaComboAECNRProcessFrame(std::uint16_t channel, const void* in, std::int32_t inBytes, void* out,
                                   sKestrovaFrameResult* result) {
  const int echoResult = processMic(channel, in, inBytes, out, result);
  return echoResult != 0 ? echoResult : processNoise(channel, out, inBytes, out, result);
}

int KestrovaAECProcessSpkFrame(std::uint16_t channel, const void* /*in*/, std::int32_t /*inBytes*/) {
  if (!exists(channel) || !engine.echo[channel].bRunning) return 1;
  ++engine.spkFrames[channel];
  return 0;
}

int KestrovaGetLastDTMFBuffer(std::uint16_t channel, char* text, std::int32_t capacity) {
  if (!exists(channel) || engine.digits.size() >= static_cast<std::size_t>(capacity)) return 1;
  std::memcpy(text, engine.digits.c_str(), engine.digits.size() + 1);
  return 0;
}

int KestrovaCompleteRegistration(std::uint16_t channel, std::uint32_t* size) {
  if (engine.onCompletion) engine.onCompletion();
  if (!exists(channel) || engine.failCompletion) return 1;
  if (size != nullptr) *size = engine.speakerBytes;
  return 0;
}

int KestrovaCopySpeakerInformationAfterRegistration(std::uint16_t /*channel*/, sAPISpeaker* speaker) {
  std::memset(reinterpret_cast<char*>(speaker), 'v', engine.speakerBytes);
  return 0;
}

int KestrovaGetRegistrationOutcome(std::uint16_t /*channel*/, std::int32_t* outcome) {
  *outcome = engine.registrationOutcome;
  return 0;
}

const char* KestrovaGetRegistrationOutcomeText(std::int32_t outcome) {
  return outcome == KESTROVA_REGISTRATION_WEAK ? "the voice is too weak or too near the background" : "?";
}

int KestrovaCheckSpeakerInformation(const sAPISpeaker* speaker, std::uint32_t size) {
  return size == engine.speakerBytes && *reinterpret_cast<const char*>(speaker) == 'v' ? 0 : 2;
}

int KestrovaTerminate(std::uint16_t channel) {
  return stop(engine.noise, channel);
}

int KestrovaAECTerminate(std::uint16_t channel) {
  return stop(engine.echo, channel);
}
