#include "engine/OutputData.h"

#include <algorithm>
#include <cstddef>

#include "engine/MyChannel.h"

namespace {

// Speech gain per cycle: up over 88 ms, down over 44 ms.
constexpr int kSpeechRise = 6;
constexpr int kSpeechFall = 12;
constexpr int kCngStepSamples = 4003;  // half a second between steps of the comfort noise

// Automatic gain per cycle: a weak talker comes up within 40 ms, a loud one is cut at once.
constexpr int kAgcRise = 50;
constexpr int kAgcFall = 500;

constexpr int productQ7(int iA, int iB) {
  return static_cast<int>(std::int64_t{iA} * iB >> 7);
}

}  // namespace

OutputData::OutputData() : psNoise(1) {}

void OutputData::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
  clean();
}

void OutputData::clean() {
  iState = kStart;
  iLastWritten = -1;
  lSpeechSamples = lConfidentSamples = 0;
  bFirstSilence = bFirstSpeech = true;
  iCngLevel = iCngLastStep = 0;
  iSpeechCoef = iAgcCoef = kUnityQ7;
  updateRealFrequency();
  overlap.restart();
  protection = {};
  bCertain = false;
  iCertainTime = 0;
  iSpeechCycles = 0;
  iPresumedUntil = -1;
  iQueueRead = iQueued = 0;
  MyFilters::initializeSpectralNoise(psNoise[0]);
  echo = sEcho{};
}

void OutputData::updateRealFrequency() {
  bSpectralAllowed =
      pMyChannel->bRemoveNonSelfFrequencies != 0 && pMyChannel->iRealFrequency % kAnalysisRate == 0;
}

int OutputData::closeOutput() const {
  // Samples that do not fill a cycle yet were not analysed.
  const int iPending = pMyChannel->pCycleInformation->lastSampleTime() - iLastWritten;
  return iPending >= 0 && iPending <= pMyChannel->iMaxNumCyclesInDelayBuffer * kCycleSamples ? 0 : 1;
}

void OutputData::setBlocks(int iCycles) {
  const int iBefore = iBlocks;
  iBlocks = iCycles >= 8 ? 8 : std::clamp(iCycles, 2, 4);
  overlap.restart();
  // The bins of another frame length lie elsewhere.
  if (iBlocks != iBefore) MyFilters::initializeSpectralNoise(psNoise[0]);
}

// ---- One cycle

// False when the cycle has been written already.
bool OutputData::calcMiscIndexes(cHandle cycle) {
  const sCycleInformation& info = pMyChannel->pCycleInformation->at(cycle);
  if (info.EndIndex <= iLastWritten) return false;
  current = cycle;
  iTime = info.StartIndex;
  iLastWritten = info.EndIndex;
  iSamples = kCycleSamples * pMyChannel->rateFactor();
  return true;
}

void OutputData::copyInput() {
  std::copy_n(pMyChannel->pInputData->fullRateSamples(iTime), iSamples, psCycle.begin());
}

void OutputData::applyGain(int iGain) {
  if (iGain == kUnityQ7) return;
  for (int i = 0; i < iSamples; ++i) {
    auto& sSample = psCycle[static_cast<std::size_t>(i)];
    const std::int64_t lValue = std::int64_t{sSample} * iGain / kUnityQ7;
    sSample = static_cast<std::int16_t>(std::clamp<std::int64_t>(lValue, -kSampleLimit, kSampleLimit));
  }
}

int OutputData::finish(std::span<const std::int16_t> samples, State newState) {
  iState = newState;
  if (iQueued + static_cast<int>(samples.size()) > kQueueSamples) return 1;
  for (const std::int16_t sSample : samples) {
    psQueue[static_cast<std::size_t>((iQueueRead + iQueued++) % kQueueSamples)] = sSample;
  }
  return 0;
}

int OutputData::take(void* pOut, int iCount, bool bIs16Bit) {
  const int iTaken = std::min(iCount, iQueued);
  auto* puOut = static_cast<std::uint8_t*>(pOut);
  for (int i = 0; i < iTaken; ++i) {
    const std::int16_t sSample = psQueue[static_cast<std::size_t>(iQueueRead)];
    iQueueRead = (iQueueRead + 1) % kQueueSamples;
    if (bIs16Bit) {
      std::copy_n(reinterpret_cast<const std::uint8_t*>(&sSample), 2, puOut + 2 * i);
    } else {
      puOut[i] = static_cast<std::uint8_t>((sSample + 32768) >> 8);
    }
  }
  iQueued -= iTaken;
  return iTaken * (bIs16Bit ? 2 : 1);
}

// ---- Kinds of cycles

int OutputData::writeData(cHandle cycle) {
  if (!calcMiscIndexes(cycle)) return 0;
  prepareNoise();
  // What is still in the frames was computed for silence.
  protection = protectionOfSpeech();
  if (iSpeechCycles++ == 0 && protection.dLeastGain > 0) overlap.restart();
  removeNoise();
  calcCoefDuringWriteData();
  return writeRegularDataDuringWriteData();
}

int OutputData::writeRegularDataDuringWriteData() {
  const int iAgc = agcWhenOn();
  applyGain(productQ7(iAgc, pMyChannel->bStartBypassed ? kUnityQ7 : iSpeechCoef));
  bFirstSilence = true;
  const bool bConfident = pMyChannel->pMySubState->isHavingConfidence();
  (bConfident ? lConfidentSamples : lSpeechSamples) += kCycleSamples;
  return finish(std::span(psCycle).first(static_cast<std::size_t>(iSamples)),
                bConfident ? kConfidentSpeech : kSpeech);
}

int OutputData::writeSilence(cHandle cycle) {
  if (!calcMiscIndexes(cycle)) return 0;
  stepComfortNoise();
  bFirstSpeech = true;
  iSpeechCycles = 0;
  bCertain = false;
  protection = protectionOfPauses();
  const int iLevel = pMyChannel->bStartBypassed ? kUnityQ7 : iCngLevel;
  if (iLevel < 1) {
    std::fill_n(psCycle.begin(), iSamples, sSilenceValue);
    overlap.restart();
  } else {
    prepareNoise();
    removeNoise();
    applyGain(productQ7(agcWhenOn(), iLevel));
  }
  return finish(std::span(psCycle).first(static_cast<std::size_t>(iSamples)), kSilence);
}

int OutputData::writeDTMF(cHandle cycle) {
  if (!calcMiscIndexes(cycle)) return 0;
  iSpeechCycles = 0;
  bCertain = false;
  copyInput();
  applyGain(agcWhenOn());
  return finish(std::span(psCycle).first(static_cast<std::size_t>(iSamples)), kDtmf);
}

// ---- Gains

bool OutputData::agcEnabled() const {
  return pMyChannel->bDoAGC != 0;
}

void OutputData::stepComfortNoise() {
  const auto& piShaping = pMyChannel->psNoiseShaping;
  if (bFirstSilence) {
    bFirstSilence = false;
    iCngLevel = piShaping[kCngStart];
    iCngLastStep = iTime;
  } else if (iTime - iCngLastStep > kCngStepSamples) {
    iCngLevel = std::max(iCngLevel - piShaping[kCngStep], piShaping[kCngEnd]);
    iCngLastStep = iTime;
  }
}

// Pulls a stretch that is much louder than the speaker down to the speaker's level.
int OutputData::voiceCoef() const {
  if (!pMyChannel->bCancelAcousticShock) return kUnityQ7;
  const int iSpeaker = pMyChannel->pFirstScan->speakerLevel();
  if (iSpeaker <= 0) return kUnityQ7;
  const int iNow = std::max(1, pMyChannel->pCycleInformation->trackers().immediate(1).spread());
  return std::max(iSpeaker * kUnityQ7 / iNow, pMyChannel->psNoiseShaping[kBurstEndLowerValue]);
}

// Speech that is only presumed comes before the verb that will make it confident, unless another talks: his
// verbs are not good. A bypassed decision makes nothing confident.
int OutputData::postGoodVerbCoef() {
  constexpr int kHoldSamples = kAnalysisRate;  // as long as the gain stands after confident speech
  const sSegment* pSegment = pMyChannel->pFirstScan->findSegment(iTime);
  if (pSegment != nullptr && pMyChannel->pMySubState->isRejected(*pSegment)) {
    iPresumedUntil = -1;
  } else if (pMyChannel->pCycleInformation->at(current).bPresumed && !pMyChannel->hearsAnotherTalker()) {
    iPresumedUntil = iTime + kHoldSamples;
  }
  if (pMyChannel->bBypassVAD || iTime <= iPresumedUntil) return kUnityQ7;
  return pMyChannel->pMySubState->calculatePostGoodVerbCoef128(iTime);
}

void OutputData::calcCoefDuringWriteData() {
  const auto& piShaping = pMyChannel->psNoiseShaping;
  const int iLower = piShaping[kBurstEndLowerValue];
  const int iPost = postGoodVerbCoef();
  const int iTarget = std::min(std::min(voiceCoef(), iPost) + piShaping[kBurstEndStep], kUnityQ7);
  if (bFirstSpeech) {
    bFirstSpeech = false;
    iSpeechCoef = std::max(iTarget, iLower);
  } else if (iSpeechCoef < iTarget) {
    iSpeechCoef = std::min({iSpeechCoef + kSpeechRise, iTarget, kUnityQ7});
  } else {
    iSpeechCoef = std::max({iSpeechCoef - kSpeechFall, iTarget, iLower});
  }
}

// R, S, c, p and q are spreads: of the last second and a half, of the last half second, of this burst's good
// verbs, of the bursts before, and of this burst when it was last taken stock of.
int OutputData::agcLevel() const {
  const LevelTrackers& trackers = pMyChannel->pCycleInformation->trackers();
  const FirstScan& scan = *pMyChannel->pFirstScan;
  const int R = trackers.blockRange(2).spread();
  if (pMyChannel->bBypassVAD) return (R + pMyChannel->pCycleInformation->largestAmp()) / 2;
  const int c = scan.burstAmplitude();
  const int p = scan.previousBurstsAmplitude();
  const int q = scan.lastUpdateAmplitude();
  if (scan.isInSelfVerb() && pMyChannel->pMySubState->isHavingConfidence()) {
    return (R + 2 * c + q + std::max(c, p)) / 5;
  }
  return (p + q) / 2;
}

int OutputData::updateAGCCoef() {
  const int L = agcLevel();
  if (L == 0) return iAgcCoef;
  const int S = std::max(1, pMyChannel->pCycleInformation->trackers().immediate(0).spread());
  const long lWanted = static_cast<long>(pMyChannel->iAGCLevel) * kUnityQ7;
  const int iTarget = static_cast<int>(std::min({lWanted / L, lWanted / S, long{pMyChannel->iAGCMax}}));
  if (iAgcCoef < iTarget) {
    iAgcCoef = std::min(iAgcCoef + kAgcRise, iTarget);
  } else if (iAgcCoef > iTarget) {
    iAgcCoef = std::max({iAgcCoef - kAgcFall, iTarget, pMyChannel->iAGCMin});
  }
  return iAgcCoef;
}
