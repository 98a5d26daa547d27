// The output stage's noise estimate and its removal.
#include <algorithm>
#include <cmath>

#include "engine/MyChannel.h"
#include "engine/OutputData.h"

namespace {

constexpr int kFactorStep = 6;       // Q7 per cycle: the subtraction comes and goes within 88 ms
constexpr int kRatioScale = 1024;    // noise to speaker ratios are held in 1/1024
constexpr int kStaysQuietBelow = 3;  // a background this far below the speaker needs no cleaning
constexpr int kBecomesQuietBelow = 2;

constexpr int kRecentSamples = 40000;  // 5 s: a recent estimate is replaced only by a better one
constexpr int kRecentExtraCycles = 30;
constexpr int kBypassedRecentSamples = 16000;
constexpr int kMinEstimateDistance = 160;   // samples
constexpr int kMaxNoiseOfSpeaker = 38;      // Q7, 30 %
constexpr int kMaxNoiseOfNeighbours = 141;  // Q7, 110 %
// How far a bin is lowered at most, at full strength: in speech, in its beginning, while there is doubt, and
// in pauses. Deeper there, and the level of what is left swings (worst file 4.3 instead of 2.6 dB), though
// the comfort-noise level takes it 16 dB further down.
constexpr double kLeastInSpeechDb = -6;
constexpr double kLeastAtOnsetDb = -1.5;
constexpr double kLeastWhenDoubtfulDb = -20;
constexpr double kLeastInPausesDb = -8;
constexpr int kProtectedUpTo = 10;  // the stronger levels of cleaning spare nothing
constexpr double kOversubtraction = 0.75;
constexpr double kOversubtractionWhenDoubtful = 1.8;
constexpr float kCertainRise = 0.2F;  // steady noise does not reach it
constexpr int kOnsetCycles = 15;      // 60 ms
// With the decision bypassed no pause ends what is certain: as long as speech is held after a verb.
constexpr int kBypassedCertainSamples = 1920;  // 240 ms
constexpr int kNoiseFrames = 3;

}  // namespace

int OutputData::speechLevel() const {
  if (pMyChannel->bBypassVAD) return pMyChannel->pCycleInformation->trackers().blockRange(2).spread();
  return pMyChannel->pFirstScan->voiceLevel();
}

void OutputData::prepareNoise() {
  calcNoiseData();
  // Strong cleaning never lets go of the background altogether.
  constexpr int kStrongCleaning = 10;
  if (pMyChannel->sCleanAggressiveLevel >= kStrongCleaning || pMyChannel->bRegistrationRunning) {
    psNoise[0].iSubtractFactor = std::max(psNoise[0].iSubtractFactor, 2);
  }
}

void OutputData::calcNoiseData() {
  if (!bSpectralAllowed || iTime < kCycleSamples * iBlocks) return;
  const int iLevel = speechLevel();
  if (psNoise[0].hasEstimate()) updateSubtractFactor(iLevel);
  estimateNoise(iLevel);
}

void OutputData::updateSubtractFactor(int iLevel) {
  sSpectralNoiseType& noise = psNoise[0];
  const int iRatio = iLevel > 0 ? noise.iNoiseLevel * kRatioScale / iLevel : kRatioScale;
  noise.bNoisy = iRatio < (noise.bNoisy ? kStaysQuietBelow : kBecomesQuietBelow);
  if (noise.bNoisy) {
    noise.iSubtractFactor = std::max(0, noise.iSubtractFactor - kFactorStep);
  } else {
    noise.iSubtractFactor = std::min(noise.iSubtractFactor + kFactorStep, iCleanStrength);
  }
}

void OutputData::estimateNoise(int iLevel) {
  const sSpectralNoiseType& noise = psNoise[0];
  const bool bRecent = noise.hasEstimate() && iTime - noise.iLastNoisePosition < kRecentSamples;
  const int k = 2 * iBlocks;
  const int iExtra = bRecent ? kRecentExtraCycles : 0;
  const int d = std::max(k, MySbt::kDepthCycles - pMyChannel->iMaxNumCyclesInDelayBuffer) + iExtra;
  const int iChecked = d + 2 * k;
  if (iTime <= kCycleSamples * iChecked) return;
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const cHandle last = CycleInformation::before(current, d);
  const int iFirst = iTime - (d + k) * kCycleSamples;
  if (iFirst - noise.iLastNoisePosition < kMinEstimateDistance && noise.hasEstimate()) return;
  if (iFirst <= pMyChannel->iLastEchoPosition || !cycles.containsNoiseOnly(current, iChecked)) return;
  const int iAmp = cycles.calcAmp(last, k + 1);
  if (iAmp == CycleInformation::kNoAmp || !isNoise(last, k, iLevel, iAmp, bRecent)) return;
  takeNoiseSpectrum(iFirst, iAmp);
}

// Whether the stretch of k + 1 cycles ending at `last` holds the background alone: no part of a verb, well
// below the speaker, and no louder than what surrounds it.
bool OutputData::isNoise(cHandle last, int k, int iLevel, int iAmp, bool bRecent) const {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  if (pMyChannel->bBypassVAD) {
    const sSpectralNoiseType& noise = psNoise[0];
    const bool bCompare = noise.hasEstimate() && iTime - noise.iLastNoisePosition < kBypassedRecentSamples;
    if (bCompare && iAmp * kUnityQ7 >= iLevel * kMaxNoiseOfSpeaker) return false;
  } else {
    if (iLevel > 0 && iAmp * kUnityQ7 >= iLevel * kMaxNoiseOfSpeaker) return false;
    for (int i = 0; i <= k; ++i) {
      if (cycles.at(CycleInformation::before(last, i)).bInVerb) return false;
    }
  }
  if (!bRecent) return true;
  const int iBefore = cycles.calcAmp(CycleInformation::before(last, k), k + 1);
  const int iAfter = cycles.calcAmp(CycleInformation::before(last, -k), k + 1);
  return iAmp * kUnityQ7 <= std::min(iBefore, iAfter) * kMaxNoiseOfNeighbours;
}

void OutputData::takeNoiseSpectrum(int iFirst, int iAmp) {
  sSpectralNoiseType& noise = psNoise[0];
  MyFilters& filters = *pMyChannel->pMyFilters;
  const int iFrame = kCycleSamples * iBlocks;
  std::array<double, kMaxNoiseBins> dSpectrum{};
  for (int i = 0; i < kNoiseFrames; ++i) {
    const int iFrom = iFirst + i * iFrame / 2;
    const int iLength = filters.calcFFTWithHanning(filters.buildInput(true, iFrom, iFrom + iFrame - 1));
    filters.addMagnitudes(iLength, dSpectrum);
    noise.iLastBin = iLength / 2 - 1;
  }
  const bool bFirst = !noise.hasEstimate();
  for (std::size_t k = 0; k <= static_cast<std::size_t>(noise.iLastBin); ++k) {
    const double dMean = dSpectrum[k] / kNoiseFrames;
    noise.dNoise[k] = bFirst ? dMean : (noise.dNoise[k] + dMean) / 2;
    noise.iBelow[k] = 0;
  }
  noise.iLastNoisePosition = iFirst;
  noise.iNoiseLevel = iAmp;
}

// ---- Removal

// A gain in dB at full strength, as a factor at the channel's.
double OutputData::leastGain(double dDecibels) const {
  return std::pow(10.0, dDecibels / 20 * iCleanStrength / kUnityQ7);
}

sProtection OutputData::protectionOfPauses() const {
  if (pMyChannel->sCleanAggressiveLevel > kProtectedUpTo) return {};
  return {.dLeastGain = leastGain(kLeastInPausesDb)};
}

// What is only presumed to be speech may be the background as well, which is to stay down then, but not lower
// than pauses are, which would be heard as holes in a high comfort-noise level. The beginning
// of an utterance carries its first consonant, which the smoothed power does not show yet.
sProtection OutputData::protectionOfSpeech() {
  if (pMyChannel->sCleanAggressiveLevel > kProtectedUpTo) return {};
  const sCycleInformation& cycle = pMyChannel->pCycleInformation->at(current);
  if (cycle.bInSelfVerb || cycle.fRise >= kCertainRise) {
    bCertain = true;
    iCertainTime = iTime;
  } else if (pMyChannel->bBypassVAD && iTime - iCertainTime > kBypassedCertainSamples) {
    bCertain = false;
  }
  if (!bCertain)
    return {.dLeastGain =
                std::max(leastGain(kLeastWhenDoubtfulDb), leastGain(kLeastInPausesDb) * iCngLevel / kUnityQ7),
            .dOversubtraction = kOversubtractionWhenDoubtful};
  const bool bOnset = iSpeechCycles < kOnsetCycles;
  return {.dLeastGain = leastGain(bOnset ? kLeastAtOnsetDb : kLeastInSpeechDb),
          .dOversubtraction = kOversubtraction};
}

void OutputData::removeNoise() {
  const bool bNeeded = psNoise[0].iSubtractFactor >= 1 || pMyChannel->pMyFilters->separates();
  if (!bSpectralAllowed || pMyChannel->bStartBypassed || !bNeeded) {
    overlap.restart();
    copyInput();
    return;
  }
  calcFrames(overlap, iTime, protection, psNoise[0]);
  takeOverlap();
}

// The cycle's samples are what has been summed up for them.
void OutputData::takeOverlap() {
  for (int i = 0; i < iSamples; ++i) {
    psCycle[static_cast<std::size_t>(i)] =
        clampSample(static_cast<int>(overlap.pdSum[static_cast<std::size_t>(i)]));
  }
}

// Frames follow one another by half their length; a run of cycles begins with a frame half before its first
// cycle.
void OutputData::calcFrames(sOverlap& run, int iFrom, const sProtection& spared,
                            sSpectralNoiseType& estimate) {
  const int iFactor = pMyChannel->rateFactor();
  const int iFrame = kCycleSamples * iBlocks;
  const int iHeld = iFrame + kCycleSamples;  // samples that pdSum may hold, at 8 kHz
  double* pdFirst = run.pdSum.data();
  if (run.iSumTime >= 0 && iFrom == run.iSumTime + kCycleSamples) {
    std::copy(pdFirst + kCycleSamples * iFactor, pdFirst + iHeld * iFactor, pdFirst);
    std::fill(pdFirst + iFrame * iFactor, pdFirst + iHeld * iFactor, 0.0);
  } else {
    std::fill(pdFirst, pdFirst + iHeld * iFactor, 0.0);
    run.iNextFrame = iFrom - iFrame / 2;
  }
  run.iSumTime = iFrom;
  const int iEnd = static_cast<int>(std::min<long>(iFrom + kCycleSamples, run.iLastFrame + 1L));
  for (; run.iNextFrame < iEnd; run.iNextFrame += iFrame / 2) {
    calcFrame(run, run.iNextFrame, spared, estimate);
  }
}

// One frame, added to the run; what lies before its start is dropped.
void OutputData::calcFrame(sOverlap& run, int iFrom, const sProtection& spared,
                           sSpectralNoiseType& estimate) {
  const int iFactor = pMyChannel->rateFactor();
  const int iLast = iFrom + kCycleSamples * iBlocks - 1;
  if (!pMyChannel->pInputData->indexExists(iLast)) return;
  MyFilters& filters = *pMyChannel->pMyFilters;
  if (pMyChannel->isEchoMicrophone()) takeEchoSpectrum(iFrom, kCycleSamples * iBlocks);
  const int iLength = filters.calcCleanFFTSubstractingNoise(iFrom, iBlocks, spared, estimate);
  const auto dFrame = filters.calcCleanIFFTSubstractingNoise(iLength, (iLast - iFrom + 1) * iFactor);
  const int iSkip = std::max(0, run.iSumTime - iFrom) * iFactor;
  const int iOffset = std::max(0, iFrom - run.iSumTime) * iFactor;
  for (int i = iSkip; i < static_cast<int>(dFrame.size()); ++i) {
    run.pdSum[static_cast<std::size_t>(iOffset + i - iSkip)] += dFrame[static_cast<std::size_t>(i)];
  }
}
