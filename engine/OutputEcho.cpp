// The output stage of an echo channel's microphone entry.
#include <algorithm>

#include "engine/MyChannel.h"
#include "engine/OutputData.h"

namespace {

constexpr int kBasicStep = 6;  // Q7 per cycle: the basic suppressor opens and closes within 88 ms
constexpr int kCoefUnit = 1024;

}  // namespace

int OutputData::writeAEC(cHandle cycle) {
  if (!calcMiscIndexes(cycle)) return 0;
  echo.iGain = kUnityQ7;
  if (pMyChannel->bStartBypassed) {
    copyInput();
  } else if (pMyChannel->iAecAlgorithm == 0) {
    copyInput();
    echo.iGain = basicGain(cycle);
  } else {
    removeEcho(*pMyChannel->pMyAEC);
    echo.iGain = pMyChannel->pMyAEC->getSupressionCoef(cycle);
  }
  pMyChannel->iEchoGain = echo.iGain;
  applyGain(echo.iGain);
  const int iAmp = pMyChannel->pCycleInformation->calcAmp(cycle, 1);
  const int iLevel = ((kUnityQ7 - echo.iGain) * iAmp + echo.iGain * echo.iResidualLevel) / kUnityQ7;
  echo.iResidualLevel = std::min(iAmp, iLevel);
  return finish(std::span(psCycle).first(static_cast<std::size_t>(iSamples)),
                echo.iGain < kUnityQ7 ? kSilence : kSpeech);
}

void OutputData::removeEcho(const MyAEC& aec) {
  if (aec.isEchoOutputActive() && aec.isEchoBySpectrum() && bSpectralAllowed) {
    calcFrames(overlap, iTime, {}, psNoise[0]);
    takeOverlap();
    return;
  }
  overlap.restart();
  copyInput();
  if (!aec.isEchoOutputActive()) return;
  const std::int64_t lFirst = static_cast<std::int64_t>(iTime) * pMyChannel->rateFactor();
  for (int i = 0; i < iSamples; ++i) {
    auto& sSample = psCycle[static_cast<std::size_t>(i)];
    sSample = clampSample(sSample - aec.echoRing().at(lFirst + i));
  }
}

int OutputData::basicGain(cHandle cycle) {
  const int iStep = isOurPartyTalkingAEC(cycle) ? kBasicStep : -kBasicStep;
  return echo.iBasicGain = std::clamp(echo.iBasicGain + iStep, pMyChannel->iAecMinOutput, kUnityQ7);
}

// The echo's spectrum over the frame's span takes the place of the background's.
void OutputData::takeEchoSpectrum(int iFrom, int iFrameSamples) {
  const EchoRing& ring = pMyChannel->pMyAEC->echoRing();
  MyFilters& filters = *pMyChannel->pMyFilters;
  sSpectralNoiseType& noise = psNoise[0];
  const int iFactor = pMyChannel->rateFactor();
  const int iLength = filters.calcFFTWithHanningCyclicInput(
      ring.samples(), ring.positionOf(static_cast<std::int64_t>(iFrom) * iFactor), iFrameSamples * iFactor);
  const std::span dNoise = std::span(noise.dNoise).first(static_cast<std::size_t>(iLength / 2));
  std::fill(dNoise.begin(), dNoise.end(), 0.0);
  filters.addMagnitudes(iLength, dNoise);
  for (double& dMagnitude : dNoise) dMagnitude = std::max(dMagnitude, 1.0);
  noise.iSubtractFactor = ring.weight();
}

// The basic suppressor: who is louder? The near end talks when the loudspeaker, through the coupling that
// echo is expected to have, cannot explain the microphone.
bool OutputData::isOurPartyTalkingAEC(cHandle cycle) {
  constexpr int kFaintMic = 99;
  constexpr int kLeastCoef = 50;
  constexpr int kRise = 160;  // Q7
  constexpr int kRiseWhileTalking = 140;
  constexpr int kHoldDistance = 80000;
  constexpr int kLoudSpeaker = 9999;
  const CycleInformation& mic = *pMyChannel->pCycleInformation;
  const int iMicAmp = mic.calcAmp(cycle, 4);
  const int iSpkAmp = speakerSpread();
  const std::int64_t lExpected = std::int64_t{iSpkAmp} * echo.iCoupling / kCoefUnit;
  echo.iBasicLevel = static_cast<int>(std::min<std::int64_t>(lExpected, iMicAmp));
  if (echo.iTalkHold > 0) {
    echo.iTalkHold -= kCycleSamples;
    return echo.bPartyTalking = true;
  }
  if (iMicAmp <= kFaintMic) return echo.bPartyTalking = false;
  const int iRatio = static_cast<int>(std::int64_t{iMicAmp} * kCoefUnit / std::max(iSpkAmp, 1));
  followBasicCoupling(iRatio, iSpkAmp);
  int c =
      static_cast<int>(std::int64_t{echo.iCoupling} * (echo.bPartyTalking ? kRiseWhileTalking : kRise) >> 7);
  c = std::min(c, pMyChannel->iAecMaxCoef);
  if (c > pMyChannel->iAecMinCoef) c = std::max(c, kLeastCoef);
  if (c <= iRatio) return echo.bPartyTalking = true;
  const bool bNewHold =
      echo.bPartyTalking && iTime - echo.iLastTalkHold > kHoldDistance && iSpkAmp > kLoudSpeaker;
  if (bNewHold) {
    echo.iLastTalkHold = iTime;
    echo.iTalkHold = pMyChannel->iAecTalkHoldSamples;
  }
  return echo.bPartyTalking = bNewHold;
}

// The loudspeaker over all delays at which its echo may arrive.
int OutputData::speakerSpread() const {
  const CycleInformation& spk = *pMyChannel->pSpkChannel->pCycleInformation;
  const sEchoSpan span = pMyChannel->pMyAEC->span();
  const cHandle cycle =
      spk.cycleOf(std::min(iTime - span.startSamples() + kCycleSamples - 1, spk.lastSampleTime()));
  return cycle < 0 ? 1 : spk.calcAmp(cycle, span.cycles());
}

// The coupling by level: the microphone's loudest over the loudspeaker's loudest, second by second. The near
// end rests in one second of eight while the loudspeaker talks, and then it is the echo's.
void OutputData::followBasicCoupling(int iRatio, int iSpkAmp) {
  constexpr int kTalkingSpeaker = 3000;
  constexpr int kRecent = 250;  // cycles: the loudest of a second is the echo's loudest
  if (iSpkAmp < kTalkingSpeaker) return;
  echo.iCouplingPeak = std::max(echo.iCouplingPeak, std::min(iRatio, pMyChannel->iAecMaxCoef));
  if (++echo.iCouplingCycles < kRecent) return;
  std::shift_left(echo.iPeaks.begin(), echo.iPeaks.end(), 1);
  if (echo.iCoupling == 0) echo.iPeaks.fill(echo.iCouplingPeak);
  echo.iPeaks.back() = echo.iCouplingPeak;
  echo.iCoupling = *std::min_element(echo.iPeaks.begin(), echo.iPeaks.end());
  echo.iCouplingPeak = echo.iCouplingCycles = 0;
}
