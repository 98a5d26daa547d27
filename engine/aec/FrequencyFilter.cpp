#include "engine/aec/FrequencyFilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "engine/MyChannel.h"

namespace {

constexpr float kLeastPower = 10.0F;   // of a smoothed bin
constexpr float kNoSpeaker = 100.0F;   // largest smoothed bin below which nothing is learnt
constexpr float kSpeakerTalks = 3000;  // mean square of a loudspeaker block that excites the path
constexpr float kPowerKept = 0.98F;
constexpr float kPowerNew = 0.01999998F;

// Per block the path is expected to move by this part of its power. Tuned: with 2e-3 two clocks that differ
// by 100 ppm leave 9 dB more echo; with 1e-2 the filter follows the background and converges less deep.
constexpr float kPathDrift = 7e-3F;

// A missed block weighs as much as so many others.
constexpr int kMissedWeight = 5;

float energy(const float* pfValues, std::size_t uCount) {
  float fSum = 0;
  for (std::size_t i = 0; i < uCount; ++i) fSum += pfValues[i] * pfValues[i];
  return fSum;
}

void follow(float& fOld, float fNew, float fPart) {
  fOld += fPart * (fNew - fOld);
}

}  // namespace

// ---- Life

void FrequencyFilter::clean(const MyChannel* pMicChannel, SpeakerHistory* pSpeaker, sEchoSpan echoSpan) {
  pMic = pMicChannel;
  pHistory = pSpeaker;
  span = echoSpan;
  const auto uFactor = static_cast<std::size_t>(pMic->rateFactor());
  uLength = 2 * kBlock * uFactor;
  uBins = uLength / 2 + 1;
  uSamples = kBlock * uFactor;
  fPower.fill(kLeastPower);
  fOther.fill(0);
  iLosses = iPathChanges = 0;
  iBlockEnd = -1;
  iLags.fill(0);
  iLagBlocks = iMissed = 0;
  bHadEcho = false;  // nothing of an earlier stream is kept
  fEchoGain = 0;
  iPathLost = iSinceLoss = 0;
  bMayBeLost = false;
  fMatch = fLongMatch = 0;
  fEstimate = fLongEstimate = 1;
  fEffective = kMaxPartitions;
  fSpkPower = fResidualPower = fEchoPower = fMicPower = 0;
  fAdapted.fill(0);
  X = Spectra{};
  const int iStart = span.startSamples();
  fd_resetFreqDomainAnalysisParams(iStart, std::min(iStart + kMaxTaps, span.endSamples()) - 1);
}

bool FrequencyFilter::supportsRate() const {
  return (uLength & (uLength - 1)) == 0 && uLength <= lanes::kMaxLength;
}

// There is no estimate of this block; unless the weights still hold, there is no result either.
void FrequencyFilter::fd_invalidate_fda(bool bKeep) {
  fUsed.fill(0);
  if (bKeep) return;
  bReady = false;
  fRatio.fill(1.0F);
}

// ---- One block

bool FrequencyFilter::run(const sAecCycle& cycle, float fTimeDomain) {
  if (!supportsRate()) return false;
  const bool bFollows = iBlockEnd + kBlock == cycle.iLast;
  makeRoomForLag(cycle.iLast - cycle.iSpkLast);
  iBlockEnd = cycle.iLast;
  takeMicrophone(cycle.iFirst);
  if (cycle.iLast - iBulk > cycle.iSpkLast) {
    fd_invalidate_fda(bHadEcho);
    iMissed += kMissedWeight;
    iBlockEnd = -1;  // the partitions miss this block
    return false;
  }
  if (bFollows) {
    takeSpeaker(cycle.iLast);
  } else {
    for (int k = iPartitions - 1; k >= 0; --k) (void)fd_setSpkrFftData(cycle.iLast, k);
  }
  iMissed = std::max(0, iMissed - 1);
  if (bHadEcho) bReady = true;
  estimateEchoes();
  measureErrors();
  watchPath();
  fd_checkRollbackAndResetForFreqDomainAnalysis(fTimeDomain);
  updateWeights();
  fd_considerBlockRemoval();
  return true;
}

// Transforms the 64 samples that end k blocks before the bulk delay into partition k; a range that is not in
// the ring counts as silence.
bool FrequencyFilter::fd_setSpkrFftData(int iCycleEnd, int k) {
  std::array<float, 2 * kMaxSamples> fSamples;
  const std::span samples(fSamples.data(), uLength);
  const bool bComplete =
      0 == pHistory->fd_copyChannelRealData(iCycleEnd + 1 - iBulk - (k + 2) * kBlock, samples);
  calcFFTShortToFloat(samples);
  for (std::size_t b = 0; b < uBins; ++b) {
    lanes::setLane(X.re[b], static_cast<std::size_t>(k), block.re[b][0][0]);
    lanes::setLane(X.im[b], static_cast<std::size_t>(k), block.im[b][0][0]);
  }
  if (k == 0) fSpkPower = energy(samples.data(), uLength) / static_cast<float>(uLength);
  return bComplete;
}

void FrequencyFilter::calcFFTShortToFloat(std::span<const float> samples) {
  for (std::size_t i = 0; i < uLength; ++i) blockTime.x[i][0] = lanes::Vector{samples[i]};
  lanes::Transform<1>::forward(uLength, blockTime, block);
}

// Both sets' echoes in one transform.
void FrequencyFilter::calcIFFTFloatToFloat() {
  lanes::Transform<1>::inverse(uLength, block, blockTime);
}

// Every block becomes one block older: lane p goes to lane p + 1.
void FrequencyFilter::agePartitions() {
  const auto age = [](lanes::Lanes<kVectors>& values) {
    for (std::size_t v = kVectors - 1; v > 0; --v) {
      values[v] = __builtin_shufflevector(values[v - 1], values[v], 3, 4, 5, 6);
    }
    values[0] = __builtin_shufflevector(lanes::Vector{}, values[0], 3, 4, 5, 6);
  };
  for (std::size_t k = 0; k < uBins; ++k) {
    age(X.re[k]);
    age(X.im[k]);
  }
}

void FrequencyFilter::takeSpeaker(int iCycleEnd) {
  agePartitions();
  (void)fd_setSpkrFftData(iCycleEnd, 0);
}

void FrequencyFilter::takeMicrophone(int iFirst) {
  const std::int64_t lFirst = static_cast<std::int64_t>(iFirst) * pMic->rateFactor();
  for (std::size_t i = 0; i < uSamples; ++i) {
    fMic[i] = static_cast<float>(pMic->pInputData->atFullRate(lFirst + static_cast<std::int64_t>(i)));
  }
}

// Y = sum over the partitions of X W.
void FrequencyFilter::fd_calcFreqEcho(const Spectra& weights, std::size_t uLane) {
  for (std::size_t k = 0; k < uBins; ++k) {
    lanes::Vector re{};
    lanes::Vector im{};
    for (std::size_t v = 0; v < kVectors; ++v) {
      re += X.re[k][v] * weights.re[k][v] - X.im[k][v] * weights.im[k][v];
      im += X.re[k][v] * weights.im[k][v] + X.im[k][v] * weights.re[k][v];
    }
    lanes::setLane(block.re[k], uLane, lanes::sum(re));
    lanes::setLane(block.im[k], uLane, lanes::sum(im));
  }
}

// Of a block of 64 the second half is free of wrap-around.
void FrequencyFilter::estimateEchoes() {
  fd_calcFreqEcho(W[kUsed], kUsed);
  fd_calcFreqEcho(W[kAdapted], kAdapted);
  calcIFFTFloatToFloat();
  for (std::size_t i = 0; i < uSamples; ++i) {
    fUsed[i] = blockTime.x[uSamples + i][0][kUsed];
    fAdapted[i] = blockTime.x[uSamples + i][0][kAdapted];
  }
}

void FrequencyFilter::measureErrors() {
  constexpr float kBriefly = 0.2F;
  constexpr float kLastingly = 0.02F;
  constexpr float kLeastEnergy = 1.0F;
  present = sEnergies{.fMic = kLeastEnergy, .fResidual = {kLeastEnergy, kLeastEnergy}};
  constexpr float kMatchFollows = 0.025F;  // 160 ms
  constexpr float kLongMatchFollows = 0.005F;
  float fEcho = 0;
  float fProduct = 0;
  for (std::size_t i = 0; i < uSamples; ++i) {
    const float fUsedError = fMic[i] - fUsed[i];
    const float fAdaptedError = fMic[i] - fAdapted[i];
    present.fMic += fMic[i] * fMic[i];
    present.fResidual[kUsed] += fUsedError * fUsedError;
    present.fResidual[kAdapted] += fAdaptedError * fAdaptedError;
    fEcho += fUsed[i] * fUsed[i];
    fProduct += fUsed[i] * fMic[i];
  }
  const auto fCount = static_cast<float>(uSamples);
  fMicPower = present.fMic / fCount;
  fResidualPower = present.fResidual[kUsed] / fCount;
  fEchoPower = fEcho / fCount;
  if (fSpkPower < kSpeakerTalks) return;
  ++iActiveBlocks;
  follow(fMatch, fProduct, kMatchFollows);
  follow(fEstimate, fEcho, kMatchFollows);
  follow(fLongMatch, fProduct, kLongMatchFollows);
  follow(fLongEstimate, fEcho, kLongMatchFollows);
  for (auto& [smoothed, fPart] : {std::pair{&brief, kBriefly}, std::pair{&lasting, kLastingly}}) {
    follow(smoothed->fMic, present.fMic, fPart);
    follow(smoothed->fSpk, fSpkPower, fPart);
    for (std::size_t s = 0; s < kSets; ++s) follow(smoothed->fResidual[s], present.fResidual[s], fPart);
  }
  const auto ratio = [](const sEnergies& e, Set set) { return std::sqrt(e.fResidual[set] / e.fMic); };
  fRatio = {ratio(brief, kUsed), ratio(lasting, kUsed), ratio(brief, kAdapted), ratio(lasting, kAdapted)};
}

float FrequencyFilter::presentRatio(Set set) const {
  return std::sqrt(present.fResidual[set] / present.fMic);
}

// ---- A change of the path

// Talk at the near end adds to what the estimate explains; a changed path takes it away and leaves the
// microphone as loud as before.
void FrequencyFilter::watchPath() {
  constexpr float kKnown = 0.1F;  // residual over microphone, as powers
  constexpr float kUnexplained = 0.5F;
  constexpr float kGone = 0.3F;  // of the estimate, found in the microphone
  constexpr float kGainFollows = 0.02F;
  if (fSpkPower < kSpeakerTalks) return;
  if (iPathLost > 0) --iPathLost;
  const float fLeft = lasting.fResidual[kUsed] / lasting.fMic;
  if (bHadEcho && fLeft < kKnown) {
    const float fGain = lasting.fMic / static_cast<float>(uSamples) / std::max(lasting.fSpk, 1.0F);
    fEchoGain = fEchoGain > 0 ? fEchoGain + kGainFollows * (fGain - fEchoGain) : fGain;
    bMayBeLost = true;
    iPathLost = 0;
  } else if (bMayBeLost && brief.fResidual[kUsed] > kUnexplained * brief.fMic && fMatch < kGone * fEstimate &&
             !isLouderThanEcho()) {
    losePath();
  }
}

void FrequencyFilter::losePath() {
  constexpr int kBlocks = 250;  // 1 s
  if (!bMayBeLost) return;
  bMayBeLost = false;
  iPathLost = kBlocks;
}

// Louder than the echo of this loudspeaker level has been by 3 dB and more: talk.
bool FrequencyFilter::isLouderThanEcho() const {
  constexpr float kLouder = 2.0F;
  return brief.fMic / static_cast<float>(uSamples) > kLouder * fEchoGain * std::max(brief.fSpk, lasting.fSpk);
}

bool FrequencyFilter::isPathLost() const {
  return iPathLost > 0 && !isLouderThanEcho();
}

bool FrequencyFilter::isTalkOverKnownPath() const {
  constexpr float kFound = 0.3F;
  return bHadEcho && fEchoGain > 0 && isLouderThanEcho() && fLongMatch > kFound * fLongEstimate;
}

// ---- The two sets

void FrequencyFilter::adopt() {
  W[kUsed] = W[kAdapted];
  for (sEnergies* pEnergies : {&brief, &lasting})
    pEnergies->fResidual[kUsed] = pEnergies->fResidual[kAdapted];
  bHadEcho = true;
  bReady = true;
}

void FrequencyFilter::rollBack() {
  // The used set is known to be close: this part of its power may still be wrong.
  constexpr float kLikelyError = 0.03F;
  W[kAdapted] = W[kUsed];
  for (sEnergies* pEnergies : {&brief, &lasting})
    pEnergies->fResidual[kAdapted] = pEnergies->fResidual[kUsed];
  for (std::size_t k = 0; k < uBins; ++k) {
    fUncertainty[k] = std::min(fUncertainty[k], kLikelyError * weightPower(k));
  }
}

float FrequencyFilter::weightPower(std::size_t k) const {
  lanes::Vector power{};
  for (std::size_t v = 0; v < kVectors; ++v) {
    power += W[kAdapted].re[k][v] * W[kAdapted].re[k][v] + W[kAdapted].im[k][v] * W[kAdapted].im[k][v];
  }
  return lanes::sum(power);
}

void FrequencyFilter::raiseUncertainty(float fLeast) {
  for (std::size_t k = 0; k < uBins; ++k) {
    fUncertainty[k] = std::max({fUncertainty[k], weightPower(k), fLeast});
  }
  iSinceRaise = 0;
}

void FrequencyFilter::fd_checkRollbackAndResetForFreqDomainAnalysis(float fTimeDomain) {
  constexpr int kSettleBlocks = 5;     // until the brief energies mean something
  constexpr int kPoorBlocks = 20;      // 80 ms without cancellation: somebody talks, or the path has changed
  constexpr int kRaiseDistance = 100;  // blocks between two searches for a changed path
  constexpr int kRaisedBlocks = 60;    // the adapting set may be bad for so long after a raise
  constexpr float kLeastRaised = 0.05F;
  constexpr float kFarBelow = 0.5F;  // what the time-domain filter leaves: there is more to be learnt
  if (fSpkPower < kSpeakerTalks || iActiveBlocks < kSettleBlocks) return;
  ++iSinceRaise;
  ++iSinceLoss;
  const auto& b = brief.fResidual;
  const auto& l = lasting.fResidual;
  const bool bPoor = b[kUsed] > 0.5F * brief.fMic;
  iPoorBlocks = bPoor ? iPoorBlocks + 1 : 0;
  // Talk makes both sets poor; only another path makes one of them far better.
  const bool bFarBetter = b[kAdapted] < 0.5F * b[kUsed];
  if (bFarBetter || (b[kAdapted] < 0.8F * b[kUsed] && l[kAdapted] < 0.95F * l[kUsed])) {
    if (bHadEcho && bPoor && (bFarBetter || !matches())) {
      ++iPathChanges;
      losePath();
    }
    adopt();
    return;
  }
  if (l[kUsed] > 1.05F * lasting.fMic && bHadEcho) {
    W[kUsed] = Spectra{};
    bHadEcho = false;
    raiseUncertainty(kLeastRaised);
    lasting.fResidual[kUsed] = lasting.fMic;
    brief.fResidual[kUsed] = brief.fMic;
    return;
  }
  const float fLeft = std::sqrt(l[kUsed] / lasting.fMic);
  if (bHadEcho && fTimeDomain < kFarBelow * fLeft && iSinceRaise >= kRaiseDistance) {
    raiseUncertainty(kLeastRaised);
    return;
  }
  if (iPoorBlocks >= kPoorBlocks && bHadEcho && !matches() && iSinceLoss >= kRaiseDistance) {
    ++iLosses;
    iSinceLoss = 0;
  }
  if (iPoorBlocks >= kPoorBlocks && iSinceRaise >= kRaiseDistance) {
    raiseUncertainty(kLeastRaised);
  } else if (iSinceRaise > kRaisedBlocks && b[kAdapted] > 2 * b[kUsed] && l[kAdapted] > 1.2F * l[kUsed]) {
    rollBack();
  }
}

// ---- Adaptation

bool FrequencyFilter::updatePower() {
  float fLargest = 0;
  for (std::size_t k = 0; k < uBins; ++k) {
    const float re = X.re[k][0][0];
    const float im = X.im[k][0][0];
    fPower[k] = std::max(kLeastPower, kPowerKept * fPower[k] + kPowerNew * (re * re + im * im));
    fLargest = std::max(fLargest, fPower[k]);
  }
  return fLargest >= kNoSpeaker;
}

// Sets c of a bin, and what is left of the uncertainty after the step.
void FrequencyFilter::updateStep(std::size_t k) {
  constexpr float kOtherFollows = 0.3F;
  lanes::Vector weighted{};
  for (std::size_t v = 0; v < kVectors; ++v) {
    const lanes::Vector beta{fBeta[4 * v], fBeta[4 * v + 1], fBeta[4 * v + 2], fBeta[4 * v + 3]};
    weighted += beta * (X.re[k][v] * X.re[k][v] + X.im[k][v] * X.im[k][v]);
  }
  const float fExcited = lanes::sum(weighted);
  const float re = block.re[k][0][2];
  const float im = block.im[k][0][2];
  const float fError = re * re + im * im;
  follow(fOther[k], fError, kOtherFollows);
  const float M = fUncertainty[k];
  const float fGain = M / (M * fExcited / kBetaSum + 2 * std::max(fOther[k], fError) + 1.0F);
  fStep[k] = fGain * fPower[k];
  const float fReduced = M * (1 - 0.5F * fGain * fExcited / fEffective);
  fUncertainty[k] = fReduced + kPathDrift * weightPower(k);
}

// G = mu conj(X) E with mu = beta c / S.
void FrequencyFilter::calcGradient(std::size_t k) {
  const float fMu = fStep[k] / fPower[k];
  const float re = fMu * block.re[k][0][2];
  const float im = fMu * block.im[k][0][2];
  for (std::size_t v = 0; v < kVectors; ++v) {
    const lanes::Vector beta{fBeta[4 * v], fBeta[4 * v + 1], fBeta[4 * v + 2], fBeta[4 * v + 3]};
    gradient.re[k][v] = beta * (X.re[k][v] * re + X.im[k][v] * im);
    gradient.im[k][v] = beta * (X.re[k][v] * im - X.im[k][v] * re);
  }
}

// A partition is 32 taps long: what the gradient says of later ones is wrap-around.
void FrequencyFilter::constrainGradient() {
  lanes::Transform<kVectors>::inverse(uLength, gradient, gradientTime);
  for (std::size_t i = uSamples; i < uLength; ++i) gradientTime.x[i] = {};
  lanes::Transform<kVectors>::forward(uLength, gradientTime, gradient);
}

void FrequencyFilter::updateWeights() {
  if (!updatePower()) return;
  for (std::size_t i = 0; i < uSamples; ++i) {
    blockTime.x[i][0] = lanes::Vector{};
    blockTime.x[uSamples + i][0] = lanes::Vector{0, 0, fMic[i] - fAdapted[i], 0};
  }
  lanes::Transform<1>::forward(uLength, blockTime, block);
  const bool bGood = fRatio[kAdaptedLasting] < 0.85F && fRatio[kAdaptedNow] < 0.75F;
  if (fSpkPower > kSpeakerTalks) fd_updateBetaValuesFreqDomain(bGood);
  for (std::size_t k = 0; k < uBins; ++k) {
    updateStep(k);
    calcGradient(k);
  }
  constrainGradient();
  for (std::size_t k = 0; k < uBins; ++k) {
    for (std::size_t v = 0; v < kVectors; ++v) {
      W[kAdapted].re[k][v] += gradient.re[k][v];
      W[kAdapted].im[k][v] += gradient.im[k][v];
    }
  }
}
