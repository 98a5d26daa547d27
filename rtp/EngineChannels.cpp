#include <algorithm>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "rtp/MyRtp.h"

namespace {

// The engine's frame is 32 samples per 8 kHz of sample rate: 4 ms.
constexpr std::uint16_t kFrameUnits = 1;
constexpr std::uint16_t kMaxLagFrames = 15;  // 60 ms between the two directions of a call

// Tuned for telephony.
constexpr std::uint16_t kCNGStepPercent = 5;
constexpr std::uint16_t kBurstEndPeriodsPerSecond = 1;
constexpr std::uint16_t kBurstEndStepPercent = 5;
constexpr std::uint16_t kNoiseDelayCycles = 6;  // 24 ms
constexpr int kAGCMinPercent = 50;
constexpr int kAGCMaxPercent = 500;
constexpr std::uint16_t kAecDelayCycles = 2;  // 8 ms
constexpr std::uint16_t kAecSupressionHold = 6;
constexpr std::uint16_t kAecMinCoefPercent = 1;
constexpr int kTalkHoldSamplesBasic = 4000;  // 500 ms
constexpr int kTalkHoldSamples = 2000;       // 250 ms

constexpr std::uint16_t kAlgorithmBasic = 0;
constexpr std::uint16_t kAlgorithmAdvanced4 = 4;
constexpr std::uint16_t kAlgorithmAdvanced7 = 7;

template <typename Target>
Target narrowed(int value) {
  return static_cast<Target>(value);
}

std::uint8_t flag(int setting) {
  return setting != 0 ? 1 : 0;
}

std::uint16_t algorithmOf(std::string_view name) {
  if (name == "basic") return kAlgorithmBasic;
  if (name == "advanced-4") return kAlgorithmAdvanced4;
  return kAlgorithmAdvanced7;
}

bool isProcessedSide(int side, int cleaningType) {
  return cleaningType == 3 || cleaningType == side + 1;
}

}  // namespace

bool MyRtp::shouldProcessFrame(int side, int pair) const {
  return iNeedToDoNoiseCancellation != 0 && isProcessedSide(side, psPairs[pair].iCleaningType);
}

bool MyRtp::shouldProcessAECMicFrame(int side, int pair) const {
  return iNeedToDoAEC != 0 && isProcessedSide(side, psPairs[pair].iCleaningType);
}

bool MyRtp::shouldProcessAECSpkFrame(int side, int pair) const {
  return shouldProcessAECMicFrame(1 - side, pair);
}

void MyRtp::fillKestrovaInitNoise(sKestrovaInit& init, int pair) const {
  init = {};
  init.sBitsPerSample = 16;
  init.iSampleRate = psPairs[pair].iSampleRate;
  init.sFrameUnits = kFrameUnits;
  init.bCheckDTMF = flag(iNeedToCheckDTMF);
  init.bRemoveNonSelfFrequencies = flag(iRemoveNonSelfFrequencies);
  init.sCNGInitialValue = narrowed<std::uint16_t>(iCNGInitialValue);
  init.sCNGStep = kCNGStepPercent;
  init.sCNGEndValue = narrowed<std::uint16_t>(iCNGEndValue);
  init.sBurstEndDecrease = narrowed<std::uint16_t>(iBurstEndDecrease);
  init.sBurstEndMode = kBurstEndPeriodsPerSecond;
  init.sBurstEndLowerValue = narrowed<std::uint16_t>(iBurstEndLowerValue);
  init.sBurstEndStep = kBurstEndStepPercent;
  init.sMaxNumCyclesInDelayBuffer = kNoiseDelayCycles;
  init.sDetectAggressiveLevel = narrowed<std::uint16_t>(iDetectAggressiveLevel);
  init.sCleanAggressiveLevel = narrowed<std::uint16_t>(iCleanAggressiveLevel);
  init.bCancelAcousticShock = flag(iCancelAcousticShock);
  init.bBypassVAD = flag(iBypassVAD);
  init.bDoAGC = flag(iNeedToDoAGC);
  init.iAGCLevel = iAGCLevel;
  init.iAGCMinPercent = kAGCMinPercent;
  init.iAGCMaxPercent = kAGCMaxPercent;
  init.iGroupType = iGroupType;
}

// What an echo channel shares with a noise channel has the noise channel's values.
void MyRtp::fillKestrovaInitAEC(sKestrovaInit& init, int pair) const {
  fillKestrovaInitNoise(init, pair);
  const std::uint16_t algorithm = algorithmOf(pcAECAlgorithm.load());
  const bool basic = algorithm == kAlgorithmBasic;
  init.bRemoveNonSelfFrequencies = 1;
  init.sMaxNumCyclesInDelayBuffer = basic ? 0 : kAecDelayCycles;
  init.sAecAlgorithm = algorithm;
  init.sSpkLagFrames = kMaxLagFrames;
  init.sMicLagFrames = kMaxLagFrames;
  init.sAecSupressionHold = kAecSupressionHold;
  init.sAecAggressiveLevel = narrowed<std::uint16_t>(iAECAggressiveLevel);
  init.sAecHowlingLevel = narrowed<std::uint16_t>(iAECHowlingLevel);
  init.sAecMaxCoef = narrowed<std::uint16_t>(iMaxCoefInAECParam);
  init.sAecMinCoef = kAecMinCoefPercent;
  init.sAecTailType = narrowed<std::int16_t>(iAECTailType);
  init.sAecTailStart = 0;
  init.iAecTalkHoldSamples = basic ? kTalkHoldSamplesBasic : kTalkHoldSamples;
  init.iAecHold2Samples = kTalkHoldSamples;
  init.sMinOutputPercentDuringEcho =
      basic ? std::uint16_t{0} : narrowed<std::uint16_t>(iAECMinOutputPercentageDuringEcho);
}

// A channel that could not be initialised is given back at once, so that closing finds only channels that
// run.
bool MyRtp::startEngineChannels(int pair) {
  constexpr const char* kFunction = "MyRtp::openSessionPair";
  sRtpSessionPair& record = psPairs[pair];
  const std::uint8_t startBypassed = iStartWithFilterActivated == 0 ? 1 : 0;
  for (int side = 0; side < 2; ++side) {
    const std::uint16_t channel = channelOf(side, pair);
    sKestrovaInit init;
    if (shouldProcessFrame(side, pair)) {
      fillKestrovaInitNoise(init, pair);
      init.bStartBypassed = startBypassed;
      if (KestrovaGroupInit(channel, &init) != 0) {
        (void)KestrovaTerminate(channel);
        Log::error(kFunction, "unable to initialize kestrova channel %d\n", channel);
        return false;
      }
      record.bNoiseReduction[side] = true;
    }
    if (shouldProcessAECMicFrame(side, pair)) {
      fillKestrovaInitAEC(init, pair);
      init.bStartBypassed = startBypassed;
      if (KestrovaAECInit(channel, &init) != 0) {
        (void)KestrovaAECTerminate(channel);
        Log::error(kFunction, "unable to initialize kestrova aec channel %d\n", channel);
        return false;
      }
      record.bAecMic[side] = true;
    }
    record.bAecSpk[side] = shouldProcessAECSpkFrame(side, pair);
  }
  return true;
}
