#include "engine/MyChannel.h"

#include <algorithm>
#include <array>
#include <new>

#include "engine/Cli.h"
#include "engine/Glob.h"

std::array<MyChannel, kNoiseChannels> KestrovapMyChannels;
std::array<MyChannel, kAecEntries> KestrovapMyAECChannels;

namespace {

// How soon the noise estimate follows a bin that has become quieter, in frames.
constexpr int noiseTimeConstant(int iCleanLevel) {
  if (iCleanLevel <= 10) return 5;
  return iCleanLevel == 11 ? 10 : 50;
}

constexpr int kCoefficientUnit = 1024;  // echo coefficients are held in 1/1024

struct sVoiceGroup {
  int iPitchCentre;
  int iPitchSpread;
};
constexpr std::array<sVoiceGroup, 4> psVoiceGroups{{{53, 53}, {61, 14}, {28, 5}, {17, 5}}};

constexpr int clampedCoefficient(int iPercent, int iLow, int iHigh) {
  return std::clamp(iPercent, iLow, iHigh) * kCoefficientUnit / 100;
}

}  // namespace

FixedText<256> MyChannel::defaultSpeakerName() {
  FixedText<256> text;
  text.assignCut("None");
  return text;
}

// ---- Life

int MyChannel::init() {
  terminate();
  try {
    createComponents();
  } catch (const std::bad_alloc&) {
    terminate();  // who asks for one component takes the others to be there
    return 1;
  }
  pMyClean->init(this);
  pMyFilters->init(this);
  pInputData->init(this);
  pMySubState->init(this);
  pCycleInformation->init(this);
  pFirstScan->init(this);
  pOutputData->init(this);
  if (pMyAEC) pMyAEC->init(this);
  pFftSchema->init(this);
  if (pSourceSeparation) pSourceSeparation->init(this);
  if (psSbt[0]) {
    psSbt[0]->init(this, psSbt[1].get());
    psSbt[1]->init(this, nullptr);
  }
  updateRealFrequency();
  iEchoGain = kUnityQ7;
  iLastEchoPosition = kNoEchoPosition;
  return 0;
}

void MyChannel::createComponents() {
  psSpeakerData = std::make_unique<sSpeakerData>();
  pMyDtmf = std::make_unique<MyDtmf>();
  if (isEchoMicrophone()) pMyAEC = std::make_unique<MyAEC>();
  pMyMath = std::make_unique<MyMath>();
  pFirstScan = std::make_unique<FirstScan>();
  pMyClean = std::make_unique<MyClean>();
  pMySubState = std::make_unique<MySubState>();
  pInputData = std::make_unique<InputData>();
  pOutputData = std::make_unique<OutputData>();
  pCycleInformation = std::make_unique<CycleInformation>();
  pMyFilters = std::make_unique<MyFilters>();
  pFftSchema = std::make_unique<FftSchema>();
  if (needsMySbt()) {
    for (auto& pSbt : psSbt) pSbt = std::make_unique<MySbt>();
  }
  if (needsSourceSeparation()) pSourceSeparation = std::make_unique<SourceSeparation>();
}

bool MyChannel::needsMySbt() const {
  return !bIsAecChannel && Glob::iCPUPower != 0 && !bBypassVAD;
}

bool MyChannel::hearsAnotherTalker() const {
  return pSourceSeparation && pSourceSeparation->isActive() && !pSourceSeparation->isForOwn();
}

void MyChannel::terminate() {
  bInitialized = false;
  pFftSchema.reset();
  pSourceSeparation.reset();
  pMyFilters.reset();
  pRegistration.reset();
  pCycleInformation.reset();
  pOutputData.reset();
  pInputData.reset();
  pMySubState.reset();
  pMyClean.reset();
  pFirstScan.reset();
  pMyMath.reset();
  pMyAEC.reset();
  pMyDtmf.reset();
  for (auto& pSbt : psSbt) pSbt.reset();
  psSpeakerData.reset();
  bRegistrationRunning = false;
  bRegistrationCompleted = false;
  registrationOutcome = Registration::Outcome::kTooShort;
}

// ---- Settings

int MyChannel::doInternalKestrovaInit(const sKestrovaInit& initRecord) {
  bInitialized = false;
  if (initRecord.sFrameUnits < 1 || initRecord.sFrameUnits > kMaxFrameUnits) return 2;
  bBypassVAD = initRecord.bBypassVAD;
  if (init() != 0 || Glob::sAPIVersion != KESTROVA_API_VERSION) return 2;
  storeFormat(initRecord);
  storeNoiseShaping(initRecord);
  openStages();
  psSpeakerData->clear();
  setMaxNumCyclesInDelayBuffer(initRecord.sMaxNumCyclesInDelayBuffer);
  storeDetection(initRecord);
  storeLevelControl(initRecord);
  bInitialized = true;
  return 0;
}

void MyChannel::storeFormat(const sKestrovaInit& init) {
  bCheckDTMF = init.bCheckDTMF;
  bRemoveNonSelfFrequencies = init.bRemoveNonSelfFrequencies;
  iFrameSize = std::clamp(kCycleSamples * init.sFrameUnits, kCycleSamples, kMaxFrameSamples);
  iInitialDelay = std::clamp(8 * init.sInitialDelayUnits, 0, kMaxInitialDelaySamples);
  KestrovaCli.setChannelRealFormat(*this, init.iSampleRate, init.sBitsPerSample == 16);
}

void MyChannel::storeNoiseShaping(const sKestrovaInit& init) {
  constexpr int kFullPercent = 100;  // what is kept of silence and of a spurt's end is never lifted
  const auto level = [=](int iPercent) { return percentToQ7(std::min(iPercent, kFullPercent)); };
  const int iStart = level(std::max(init.sCNGInitialValue, init.sCNGEndValue));
  psNoiseShaping[kCngStart] = iStart;
  psNoiseShaping[kCngStep] = percentToQ7(init.sCNGStep);
  psNoiseShaping[kCngEnd] = level(init.sCNGEndValue);
  psNoiseShaping[kBurstEndDecrease] = percentToQ7(init.sBurstEndDecrease);
  psNoiseShaping[kBurstEndMode] = init.sBurstEndMode;
  psNoiseShaping[kBurstEndLowerValue] = std::max(level(init.sBurstEndLowerValue), iStart);
  psNoiseShaping[kBurstEndStep] = percentToQ7(init.sBurstEndStep);
}

void MyChannel::openStages() {
  pInputData->openSynchronized();
  pOutputData->openSynchronized();
  pMyClean->beforeCleaning();
  constexpr std::array<std::int16_t, kMaxInitialDelaySamples> psSilence{};
  pInputData->addData(psSilence.data(), iInitialDelay * 2, true);
}

void MyChannel::storeDetection(const sKestrovaInit& init) {
  sDetectAggressiveLevel = std::clamp<int>(init.sDetectAggressiveLevel, 0, 4);
  sCleanAggressiveLevel = std::clamp<int>(init.sCleanAggressiveLevel, 5, 12);
  const sDetection& detection = FirstScan::detectionOfLevel(sDetectAggressiveLevel);
  fVerbDriftLimit = detection.fVerbDriftLimit;
  pFirstScan->setDetection(detection);
  // Levels 5 to 10 take off half to all of the noise.
  pOutputData->setCleanStrength(std::min(sCleanAggressiveLevel, 10) * kUnityQ7 / 10);
  pMyFilters->setNoiseTimeConstant(noiseTimeConstant(sCleanAggressiveLevel));
}

void MyChannel::storeLevelControl(const sKestrovaInit& init) {
  // Keeps the scaling within 32 bits. Every sample but 0 clips long before.
  constexpr int kMaxGainPercent = 16'000'000;
  bCancelAcousticShock = init.bCancelAcousticShock;
  bStartBypassed = init.bStartBypassed;
  bDoAGC = init.bDoAGC;
  iAGCLevel = init.iAGCLevel;
  iAGCMin = percentToQ7(std::clamp(init.iAGCMinPercent, 0, kMaxGainPercent));
  iAGCMax = std::max(iAGCMin, percentToQ7(std::clamp(init.iAGCMaxPercent, 0, kMaxGainPercent)));
}

void MyChannel::presetVoiceGroup(int iGroupType) {
  const bool bKnown = iGroupType > 0 && iGroupType < static_cast<int>(psVoiceGroups.size());
  const sVoiceGroup& group = psVoiceGroups[bKnown ? static_cast<std::size_t>(iGroupType) : 0];
  psSpeakerData->iPitchCentre = group.iPitchCentre;
  psSpeakerData->iPitchSpread = group.iPitchSpread;
}

void MyChannel::storeAecSettings(const sKestrovaInit& init) {
  iAecAlgorithm = std::min<int>(init.sAecAlgorithm, 7);
  iAecMaxCoef = clampedCoefficient(init.sAecMaxCoef, 10, 300);
  iAecMinCoef = clampedCoefficient(init.sAecMinCoef, 1, 150);
  iAecSupressionHold = std::min<int>(init.sAecSupressionHold, 10);
  iAecAggressiveLevel = std::min<int>(init.sAecAggressiveLevel, 20);
  iAecHowlingLevel = std::min<int>(init.sAecHowlingLevel, 20);
  iAecTailType = std::clamp<int>(init.sAecTailType, -58, 5);
  iAecTailStart = std::clamp<int>(init.sAecTailStart, -58, 0);
  constexpr int kLongestHold = 80000;  // 10 s: what is added to a sample time must stay one
  iAecTalkHoldSamples = std::clamp(init.iAecTalkHoldSamples, 0, kLongestHold);
  iAecHold2Samples = std::clamp(init.iAecHold2Samples, 0, kLongestHold);
  iAecMinOutput = percentToQ7(std::min<int>(init.sMinOutputPercentDuringEcho, 100));
}

void MyChannel::updateRealFrequency() {
  iSamplesPerFrameAtRate = rateFactor() * iFrameSize;
  if (pOutputData) pOutputData->updateRealFrequency();
  if (!pInputData || pInputData->rateFactor() == rateFactor()) return;
  // Everything that holds sample times starts over with the input stage.
  pInputData->openSynchronized();
  if (bInitialized) pMyClean->restartStream();
}

void MyChannel::setMaxNumCyclesInDelayBuffer(int iCycles) {
  iMaxNumCyclesInDelayBuffer = std::clamp(iCycles, kMinDelayCycles, kMaxDelayCycles);
  if (pOutputData) pOutputData->setBlocks(iMaxNumCyclesInDelayBuffer);
  if (pFftSchema) pFftSchema->setBlocks(pOutputData->blocks());
}
