// What the output stage takes from the canceller: the echo estimate and the gain.
#include <algorithm>
#include <cmath>

#include "engine/aec/MyAEC.h"
#include "engine/MyChannel.h"

namespace {

constexpr int kAudibleSpeaker = 31;  // spread of what the loudspeaker played for the cycle
constexpr int kAudibleSpan = 199;    // of the active set's span
constexpr int kLowEcho = 16;         // 1/1024 of the microphone: 36 dB below it
constexpr int kStaysLowEcho = 31;

}  // namespace

// Never beyond the history: what is older has left it, and what is not closed yet cannot be told from that.
int MyAEC::ageOf(cHandle cycle) const {
  return std::min(CycleInformation::before(now.cycle, cycle), SupressionHistory::kEntries - 1);
}

bool MyAEC::isAecDataNeeded(cHandle cycle) const {
  constexpr int kLookedAt = 5;
  if (iAecMode.low() == 4) return true;
  if (iAecMode.low() == 1) return false;
  const int iAge = ageOf(cycle);
  if (iAge == 0) return now.bConvergenceOk && (now.bNearEndTalk || iAecMode.low() >= 3);
  const bool bNearEnd = history.entry(iAge).bNearEndTalk;
  if (!now.bConvergenceOk) return bNearEnd;
  const int iFirst = std::min(iAge + 2, SupressionHistory::kEntries - 1);
  for (int i = iFirst; i >= std::max(0, iFirst - kLookedAt + 1); --i) {
    if (!history.entry(i).bConverged) return bNearEnd;
  }
  return iAecMode.low() > 2 || bNearEnd;
}

int MyAEC::getSupressionCoef(cHandle cycle) {
  return history.getSupressionCoef(ageOf(cycle), bEchoOutputActive && iEchoOutputStart <= now.iFirst);
}

void MyAEC::activateEchoOutput() {
  if (!bEchoOutputActive) iEchoOutputStart = now.iFirst;
  bEchoOutputActive = true;
}

void MyAEC::prepareSpectralNoise() {
  psEchoRing.startCycle(now.iFirst);
  if (choice.preferred() == kFrequencyDomain) {
    writeFrequencyDomainEcho();
  } else {
    writeTimeDomainEcho();
  }
}

// Of an estimate that is not taken off.
void MyAEC::measureEchoLevel() {
  EchoRing::sBlock block;
  if (!psEchoRing.gather(now.fMic, timeFilter.estimate(), block)) return;
  iEchoLevel = timeResidual.hasSeenEcho() ? block.iEchoSpread : 0;
}

void MyAEC::writeTimeDomainEcho() {
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const bool bUsed = timeResidual.hasSeenEcho() && isAecDataNeeded(now.cycle) &&
                     now.iSpkAmp > kAudibleSpeaker && !now.bRestarted && !now.bMicAboveEcho &&
                     active.iSpeakerLevel > kAudibleSpan;
  if (!bUsed) {
    bEchoOutputActive = false;
    psEchoRing.writeZeros();
    if (iAecMode.low() > 1) {
      bEchoBySpectrum = true;
      psEchoRing.resetBlocks();
      iEchoLevel = 0;
    } else {
      measureEchoLevel();
    }
    return;
  }
  activateEchoOutput();
  bEchoBySpectrum = true;
  EchoRing::sBlock block;
  if (psEchoRing.gather(now.fMic, timeFilter.estimate(), block)) {
    iEchoLevel = block.iEchoSpread;
    const int iRatio = static_cast<int>(std::int64_t{block.iEchoSpread} * 1024 / (block.iMicSpread + 1));
    psEchoRing.judge(iRatio < (psEchoRing.isLow() ? kStaysLowEcho : kLowEcho));
  }
  if (psEchoRing.weight() == 0) {
    psEchoRing.writeZeros();
    return;
  }
  std::array<float, kCycleSamples * kMaxRateFactor> fMic;
  const std::int64_t lFirst = static_cast<std::int64_t>(now.iFirst) * pMic->rateFactor();
  const auto uCount = static_cast<std::size_t>(kCycleSamples * pMic->rateFactor());
  for (std::size_t i = 0; i < uCount; ++i) {
    fMic[i] = static_cast<float>(pMic->pInputData->atFullRate(lFirst + static_cast<std::int64_t>(i)));
  }
  psEchoRing.writeEstimate(timeFilter.estimate(), std::span(fMic).first(uCount));
}

void MyAEC::writeFrequencyDomainEcho() {
  using enum FrequencyFilter::Ratio;
  constexpr int kSpectralCycles = 5;
  activateEchoOutput();
  const int iSince = choice.cyclesSinceSwitch();
  const int iLate = pMic->iAecDelayCycles + 10 + pMic->iFrameSize / kCycleSamples;
  if (iAecMode.low() < 2) {
    bEchoBySpectrum = false;
  } else if (iSince < kSpectralCycles) {
    bEchoBySpectrum = true;
  } else if (iSince > iLate) {
    bEchoBySpectrum = false;
  }
  const float fResidualLimit =
      std::max(100.0F, frequencyFilter.speakerPower() * (psEchoRing.isLow() ? 0.03F : 0.01F));
  const bool bMatters = frequencyFilter.ratio(kUsedNow) >= 0.9F ||
                        frequencyFilter.ratio(kUsedLasting) >= 0.85F ||
                        frequencyFilter.residualPower() > fResidualLimit;
  psEchoRing.judge(!bMatters);
  // Spread of a sine of that power.
  iEchoLevel = static_cast<int>(std::min<float>(std::sqrt(8 * frequencyFilter.echoPower()), kLargestSpread));
  const auto uCount = static_cast<std::size_t>(kCycleSamples * pMic->rateFactor());
  psEchoRing.writeAtFullRate({frequencyFilter.estimate(), uCount}, {frequencyFilter.microphone(), uCount});
}
