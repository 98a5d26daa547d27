// The frequency-domain filter's range: where it lies, what becomes of its weights when it moves, and how its
// partitions share the step.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "engine/aec/FrequencyFilter.h"

namespace {

constexpr float kFirstStep = 0.2F;
// Power of the coupling that is thought possible before anything is known: an echo as loud as its source.
constexpr float kFirstUncertainty = 1.0F;
// Weighted count of missed blocks at which the loudspeaker's stream is late for good: 0.4 s on end, or some
// seconds with more than one in six.
constexpr int kMostMissed = 500;

}  // namespace

// ---- Placement

void FrequencyFilter::resetBetas() {
  fBeta.fill(0);
  std::fill_n(fBeta.begin(), iPartitions, kBetaSum / static_cast<float>(iPartitions));
}

// Moves the lanes by whole blocks: what was the weight of a delay stays the weight of that delay.
void FrequencyFilter::shiftPartitions(Spectra& spectra, int iBlocks) const {
  const auto move = [&](lanes::Lanes<kVectors>& values) {
    lanes::Lanes<kVectors> fresh{};
    for (int p = std::max(0, -iBlocks); p < iPartitions && p + iBlocks < kMaxPartitions; ++p) {
      const auto uFrom = static_cast<std::size_t>(p + iBlocks);
      lanes::setLane(fresh, static_cast<std::size_t>(p), lanes::lane(values, uFrom));
    }
    values = fresh;
  };
  for (std::size_t k = 0; k < uBins; ++k) {
    move(spectra.re[k]);
    move(spectra.im[k]);
  }
}

void FrequencyFilter::moveWeights(int iOldBulk, bool bKeep) {
  for (Spectra& weights : W) {
    if (bKeep) {
      shiftPartitions(weights, (iBulk - iOldBulk) / kBlock);
    } else {
      weights = Spectra{};
    }
  }
}

// Places the range on the delays iFrom..iTo; weights of delays that stay inside are kept when the peak is
// among them and the range has moved by whole blocks.
void FrequencyFilter::fd_resetFreqDomainAnalysisParams(int iFrom, int iTo) {
  const int iOldBulk = iBulk;
  iBulk = std::max(0, iFrom);
  iPartitions = std::clamp((iTo - iBulk + 1) / kBlock, kMinPartitions, kMaxPartitions);
  const bool bKeep = bHadEcho && covers(iPeakDelay) && (iBulk - iOldBulk) % kBlock == 0;
  moveWeights(iOldBulk, bKeep);
  resetBetas();
  for (int k = 0; k < iPartitions; ++k) fd_setSpkrFftData(iBlockEnd, k);
  iHeadToDrop = iTailToDrop = -1;
  iSteadySamples.fill(0);
  if (bKeep) return;
  bHadEcho = false;
  fStep.fill(kFirstStep);
  fUncertainty.fill(kFirstUncertainty);
  present = brief = lasting = sEnergies{};
  iActiveBlocks = iPoorBlocks = iSinceRaise = 0;
  iPeakDelay = iBulk;
  iEarlierPeaks.fill(iBulk);
  fd_invalidate_fda(false);
}

void FrequencyFilter::recentre(int iDelay) {
  constexpr int kBlocksBefore = 2;
  const int iWanted = std::max(0, iDelay / kBlock - kBlocksBefore) * kBlock;
  const int iFrom = std::clamp(std::max(iWanted, leastBulk()), span.startSamples(), latestBulk());
  if (iFrom == iBulk && !isTrimmed()) return;  // there is no better place
  fd_resetFreqDomainAnalysisParams(iFrom, fullEnd(iFrom) - 1);
  fd_invalidate_fda(bHadEcho);
}

void FrequencyFilter::widen() {
  fd_resetFreqDomainAnalysisParams(iBulk, fullEnd(iBulk) - 1);
}

// The loudspeaker stream may lag behind the microphone's by a packet or more. What has not arrived cannot be
// in the microphone either, so the range begins beyond the largest lag of late. What was so for longer than
// two windows is over: a gap in the microphone's stream has changed which of them is ahead.
void FrequencyFilter::noteLag(int iLag) {
  constexpr int kWindowBlocks = 250;  // 1 s
  const int iBlocks = (std::max(iLag, 0) + kBlock - 1) / kBlock * kBlock;
  iLags[0] = std::max(iLags[0], iBlocks);
  if (++iLagBlocks < kWindowBlocks) return;
  iLags = {iBlocks, iLags[0]};
  iLagBlocks = 0;
}

int FrequencyFilter::leastBulk() const {
  return std::min(std::max(iLags[0], iLags[1]), latestBulk());
}

int FrequencyFilter::latestBulk() const {
  return std::max(span.startSamples(), span.endSamples() - kMinPartitions * kBlock);
}

void FrequencyFilter::makeRoomForLag(int iLag) {
  noteLag(iLag);
  const int iFrom = leastBulk();
  if (iFrom <= iBulk) return;
  // What has been learnt of an earlier echo is worth waiting for a packet that is late.
  if (bHadEcho && iPeakDelay < iFrom && iMissed < kMostMissed) return;
  iMissed = 0;
  fd_resetFreqDomainAnalysisParams(iFrom, fullEnd(iFrom) - 1);
}

// ---- Partitions

// The stronger a partition, the larger its share of the step; with bTrack false only the peak is followed.
void FrequencyFilter::fd_updateBetaValuesFreqDomain(bool bTrack) {
  std::array<float, kMaxPartitions> fEnergy{};
  lanes::Lanes<kVectors> sum{};
  for (std::size_t k = 0; k < uBins; ++k) {
    for (std::size_t v = 0; v < kVectors; ++v) {
      const lanes::Vector re = W[kAdapted].re[k][v];
      const lanes::Vector im = W[kAdapted].im[k][v];
      const lanes::Vector square = re * re + im * im;
      for (std::size_t l = 0; l < lanes::kPerVector; ++l) sum[v][l] += std::sqrt(square[l]);
    }
  }
  for (std::size_t p = 0; p < fEnergy.size(); ++p) fEnergy[p] = lanes::lane(sum, p);
  const auto pLast = fEnergy.begin() + iPartitions;
  const auto iStrongest = static_cast<int>(std::max_element(fEnergy.begin(), pLast) - fEnergy.begin());
  trackPeak(iStrongest);
  if (!bTrack) return;
  findWeakPartitions(fEnergy, iStrongest);
  const float fStrongest = fEnergy[static_cast<std::size_t>(iStrongest)];
  // A hundredth of the strongest, spread over the partitions, is the least.
  const auto fCount = static_cast<float>(iPartitions);
  const float fFloor = fStrongest > 0 ? 0.01F * fStrongest / fCount : 0.01F / fCount;
  std::array<float, kMaxPartitions + 2> fRaised{};
  for (int p = 0; p < iPartitions; ++p) {
    fRaised[static_cast<std::size_t>(p) + 1] = std::max(fEnergy[static_cast<std::size_t>(p)], fFloor);
  }
  // Neighbours share: the path may move a little.
  float fSum = 0;
  for (std::size_t p = 0; p < static_cast<std::size_t>(iPartitions); ++p) {
    const bool bEdge = p == 0;
    fBeta[p] = bEdge ? fRaised[1] + fRaised[2] / 4 : fRaised[p + 1] + (fRaised[p] + fRaised[p + 2]) / 8;
    fSum += fBeta[p];
  }
  float fSquares = 0;
  for (float& fBetaOfPartition : fBeta) {
    fBetaOfPartition *= kBetaSum / fSum;
    fSquares += fBetaOfPartition * fBetaOfPartition;
  }
  fEffective = kBetaSum * kBetaSum / fSquares;
}

void FrequencyFilter::trackPeak(int iStrongest) {
  const int iPeak = iBulk + iStrongest * kBlock;
  for (std::size_t i = 0; i < iEarlierPeaks.size(); ++i) {
    const bool bSteady = std::abs(iPeak - iEarlierPeaks[i]) <= kBlock;
    iSteadySamples[i] = bSteady ? iSteadySamples[i] + kBlock : 0;
  }
  iEarlierPeaks = {iPeak, iEarlierPeaks[0]};
  iPeakDelay = iPeak;
}

// With a steady peak, partitions at the ends that hold next to nothing only slow the others down.
void FrequencyFilter::findWeakPartitions(const std::array<float, kMaxPartitions>& fEnergy, int iStrongest) {
  constexpr int kLeastToTrim = 10;
  constexpr int kMostAtOnce = 2;
  constexpr float kWeak = 1.0F / 40;
  iHeadToDrop = iTailToDrop = -1;
  constexpr int kSteady = 800;  // samples
  if (iPartitions <= kLeastToTrim || std::min(iSteadySamples[0], iSteadySamples[1]) < kSteady) return;
  const float fLimit = kWeak * fEnergy[static_cast<std::size_t>(iStrongest)];
  const auto weak = [&](int p) { return fEnergy[static_cast<std::size_t>(p)] < fLimit; };
  const int iSpare = std::min(kMostAtOnce, iPartitions - kLeastToTrim);
  for (int n = 0; n < iSpare && iPartitions - 1 - n > iStrongest + 3 && weak(iPartitions - 1 - n); ++n) {
    iTailToDrop = n + 1;
  }
  for (int n = 0; n < iSpare && n < iStrongest - 2 && weak(n); ++n) iHeadToDrop = n + 1;
}

// Trims only a filter that has long been good. What was cut off is taken back when all that the rest
// estimates has long been found in the microphone and yet most of the microphone is not explained.
void FrequencyFilter::fd_considerBlockRemoval() {
  constexpr int kLongActive = 1000;   // blocks, 4 s of loudspeaker sound
  constexpr float kRight = 0.9F;      // of the estimate, found in the microphone lately
  constexpr float kLongRight = 0.8F;  // the same over 0.8 s
  const bool bRight = fMatch > kRight * fEstimate && fLongMatch > kLongRight * fLongEstimate;
  if (isTrimmed() && bRight && fRatio[kUsedLasting] > 0.7F && !isTalkOverKnownPath()) {
    widen();
    return;
  }
  if ((iHeadToDrop < 0 && iTailToDrop < 0) || iActiveBlocks < kLongActive) return;
  if (fRatio[kUsedLasting] > 0.3F) return;
  const int iFrom = iBulk + std::max(iHeadToDrop, 0) * kBlock;
  const int iEnd = iHeadToDrop > 0 ? fullEnd(iFrom) : endDelay();
  const int iTo = iEnd - std::max(iTailToDrop, 0) * kBlock - 1;
  iActiveBlocks = 0;
  fd_resetFreqDomainAnalysisParams(iFrom, iTo);
}
