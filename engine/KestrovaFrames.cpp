// The engine's call interface: frames, their results, and the state of an echo canceller.
#include <algorithm>
#include <cstring>

#include "engine/ApiSupport.h"
#include "engine/Kestrova.h"

namespace {

using api::guarded;
using api::isChannel;
using api::kBadChannelOrProcessing;
using api::kSuccess;

bool isFrame(const MyChannel& channel, const void* pIn, int iInBytes) {
  return channel.isInitialized() && pIn != nullptr && iInBytes > 0 && iInBytes <= kMaxFrameBytes &&
         iInBytes % channel.bytesPerSample() == 0;
}

// Samples at 8 kHz by which `ahead` has received more than `behind`.
int leadOf(const MyChannel& ahead, const MyChannel& behind) {
  return ahead.pInputData->getNumValues() - behind.pInputData->getNumValues();
}

// Neither stream may outgrow the sample times; one that starts over alone would lose the other.
void restartWornStreams(MyChannel& mic, MyChannel& spk) {
  if (!mic.pMyClean->isStreamWorn() && !spk.pMyClean->isStreamWorn()) return;
  mic.pMyClean->restartStream();
  spk.pMyClean->restartStream();
  mic.pMyAEC->clean();
}

// Runs one frame of silence, as long as a frame of iInBytes bytes, through an entry and discards what comes
// out. The zeros are 16-bit ones whatever the entry's format, since the 8-bit zero is another number.
int processZeros(MyChannel& entry, std::uint16_t uChannel, int iInBytes) {
  int iBytes = iInBytes / entry.bytesPerSample() * 2;
  for (; iBytes > 0; iBytes -= kMaxFrameBytes) {
    int iOutBytes = 0;
    const int iError = entry.pMyClean->cleanOneFrame(api::pbApiZeroes(), std::min(iBytes, kMaxFrameBytes),
                                                     true, api::pbApiTmpOutput(uChannel), &iOutBytes);
    if (iError != 0) return iError;
  }
  return 0;
}

void reportFrame(const MyChannel& channel, sKestrovaFrameResult& result) {
  const OutputData& output = *channel.pOutputData;
  const OutputData::State state = output.state();
  result.iSpeech = state == OutputData::kSpeech || state == OutputData::kConfidentSpeech;
  result.iConfidentVoice = state == OutputData::kConfidentSpeech;
  result.iDtmf = state == OutputData::kDtmf;
  result.iNoiseLevel = output.noise().iNoiseLevel;
  result.iGainPercent = output.agcCoef() * 100 / kUnityQ7;
  result.iSpeakerMatch = output.speechLevel();
}

int processNoise(std::uint16_t uChannel, const void* pIn, int iInBytes, void* pOut,
                 sKestrovaFrameResult* pResult) {
  MyChannel& channel = api::noiseChannel(uChannel);
  if (!isFrame(channel, pIn, iInBytes)) return kBadChannelOrProcessing;
  const int iError =
      channel.pMyClean->cleanOneFrame(pIn, iInBytes, channel.b16Bit, pOut, &pResult->iOutBytes);
  reportFrame(channel, *pResult);
  return iError;
}

int processMic(std::uint16_t uChannel, const void* pIn, int iInBytes, void* pOut,
               sKestrovaFrameResult* pResult) {
  MyChannel& mic = api::micEntry(uChannel);
  MyChannel& spk = api::spkEntry(uChannel);
  if (!isFrame(mic, pIn, iInBytes) || !spk.isInitialized()) return kBadChannelOrProcessing;
  restartWornStreams(mic, spk);
  if (leadOf(mic, spk) > spk.iLagLimit && processZeros(spk, uChannel, iInBytes) != 0) {
    return kBadChannelOrProcessing;
  }
  const int iError = mic.pMyClean->cleanOneFrame(pIn, iInBytes, mic.b16Bit, pOut, &pResult->iOutBytes);
  pResult->iEchoLevel = mic.iAecAlgorithm == 0 ? mic.pOutputData->basicEchoLevel() : mic.pMyAEC->echoLevel();
  return iError;
}

int processSpk(std::uint16_t uChannel, const void* pIn, int iInBytes) {
  MyChannel& mic = api::micEntry(uChannel);
  MyChannel& spk = api::spkEntry(uChannel);
  if (!isFrame(spk, pIn, iInBytes) || !mic.isInitialized()) return kBadChannelOrProcessing;
  restartWornStreams(mic, spk);
  if (leadOf(spk, mic) > mic.iLagLimit && processZeros(mic, uChannel, iInBytes) != 0) {
    return kBadChannelOrProcessing;
  }
  int iOutBytes = 0;
  return spk.pMyClean->cleanOneFrame(pIn, iInBytes, spk.b16Bit, api::pbApiTmpOutput(uChannel), &iOutBytes);
}

// Noise that the echo stage has just lowered is no measure of the line's background.
int processMicAheadOfNoise(std::uint16_t uChannel, const void* pIn, int iInBytes, void* pOut,
                           sKestrovaFrameResult* pResult) {
  const int iError = processMic(uChannel, pIn, iInBytes, pOut, pResult);
  api::noiseChannel(uChannel).iEchoGain = api::micEntry(uChannel).iEchoGain;
  return iError;
}

using Stage = int (*)(std::uint16_t, const void*, int, void*, sKestrovaFrameResult*);

// The second stage works on the first one's output, once that is a frame's worth; until then the first one's
// output is what the call gives back.
int processBoth(Stage first, Stage second, std::uint16_t uChannel, const void* pIn, int iInBytes, void* pOut,
                sKestrovaFrameResult* pResult) {
  if (const int iError = first(uChannel, pIn, iInBytes, pOut, pResult); iError != 0) return iError;
  if (pResult->iOutBytes < iInBytes) return kSuccess;
  return second(uChannel, pOut, pResult->iOutBytes, pOut, pResult);
}

bool isCall(std::uint16_t uChannel, const void* pOut, const sKestrovaFrameResult* pResult) {
  return isChannel(uChannel) && pOut != nullptr && pResult != nullptr;
}

}  // namespace

int KestrovaProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                         sKestrovaFrameResult* result) {
  if (!isCall(channel, out, result)) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing, [&] { return processNoise(channel, in, inBytes, out, result); });
}

int KestrovaAECProcessMicFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                               sKestrovaFrameResult* result) {
  if (!isCall(channel, out, result)) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing, [&] { return processMic(channel, in, inBytes, out, result); });
}

int KestrovaAECProcessSpkFrame(uint16_t channel, const void* in, int32_t inBytes) {
  if (!isChannel(channel)) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing, [&] { return processSpk(channel, in, inBytes); });
}

int KestrovaComboAECNRProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                                   sKestrovaFrameResult* result) {
  if (!isCall(channel, out, result)) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing, [&] {
    return processBoth(processMicAheadOfNoise, processNoise, channel, in, inBytes, out, result);
  });
}

int KestrovaComboNRAECProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                                   sKestrovaFrameResult* result) {
  if (!isCall(channel, out, result)) return kBadChannelOrProcessing;
  return guarded(kBadChannelOrProcessing,
                 [&] { return processBoth(processNoise, processMic, channel, in, inBytes, out, result); });
}

int KestrovaGetLastDTMFBuffer(uint16_t channel, char* text, int32_t capacity) {
  if (!isChannel(channel) || text == nullptr) return kBadChannelOrProcessing;
  const MyChannel& noise = api::noiseChannel(channel);
  if (!noise.pMyDtmf) return kBadChannelOrProcessing;
  const FixedText<100>& digits = noise.pCycleInformation->digits();
  if (static_cast<std::int64_t>(digits.size()) >= capacity) return kBadChannelOrProcessing;
  std::memcpy(text, digits.c_str(), digits.size() + 1);
  return kSuccess;
}

int KestrovaGetAECInternalStatus(uint16_t channel, uint8_t* status) {
  if (!isChannel(channel) || status == nullptr) return kBadChannelOrProcessing;
  const MyChannel& mic = api::micEntry(channel);
  const bool bRuns = mic.isInitialized() && mic.pMyAEC;
  *status =
      bRuns && (mic.iAecAlgorithm > 0 ? mic.pMyAEC->isWorking() : mic.pOutputData->echoGain() < kUnityQ7);
  return kSuccess;
}

int KestrovaGetAECInternalStatusParameters(uint16_t channel, sKestrovaAECStatus* status) {
  if (!isChannel(channel) || status == nullptr) return kBadChannelOrProcessing;
  *status = sKestrovaAECStatus{};
  MyChannel& mic = api::micEntry(channel);
  if (!mic.isInitialized() || !mic.pMyAEC || mic.iAecAlgorithm == 0) {
    status->bFlags[KESTROVA_AEC_NO_ALGORITHM] = 1;
  } else {
    mic.pMyAEC->fillStatus(*status);
  }
  return kSuccess;
}
