#include "engine/analysis/CycleInformation.h"

#include <algorithm>
#include <numeric>
#include <span>

#include "engine/MyChannel.h"

namespace {

constexpr int kSteps = 49;           // a cycle's amplitude is counted in this many steps
constexpr int kToneStartTime = 200;  // samples before the tone detector is fed; the line settles first
constexpr int kPlateauDivisor = 5;   // a plateau reaches Amp / 5 from the turning value

}  // namespace

CycleInformation::CycleInformation() : psRing(kRingCycles), psBlocks(kBlocks) {}

CycleInformation::CycleInformation(const CycleInformation& other) : CycleInformation() {
  *this = other;
}

CycleInformation& CycleInformation::operator=(const CycleInformation& other) {
  if (this == &other) return *this;
  pMyChannel = other.pMyChannel;
  psRing = other.psRing;
  copyBlocksOf(other);
  levels = other.levels;
  digitText = other.digitText;
  iWrite = other.iWrite;
  bWrapped = other.bWrapped;
  iLap = other.iLap;
  iLastSampleTime = other.iLastSampleTime;
  iBlock = other.iBlock;
  iLargestAmp = other.iLargestAmp;
  iLastToneFeed = other.iLastToneFeed;
  adoptBlocksOf(other);
  return *this;
}

void CycleInformation::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
  clean();
}

void CycleInformation::clean() {
  levels = LevelTrackers{};
  digitText = DigitText{};
  iWrite = 0;
  bWrapped = false;
  iLap = 1;
  iLastSampleTime = -1;
  iBlock = -1;
  iLargestAmp = 0;
  iLastToneFeed = -1;
}

// ---- The ring

bool CycleInformation::isValid(cHandle c) const {
  if (c < 0 || c >= kRingCycles || (!bWrapped && c >= iWrite)) return false;
  const int iAhead = c - iWrite;
  return (iAhead < 0 ? iAhead + kRingCycles : iAhead) >= kGuardCycles;
}

cHandle CycleInformation::newest() const {
  return iLastSampleTime < 0 ? -1 : before(iWrite, 1);
}

cHandle CycleInformation::cycleOf(int iSampleTime) const {
  if (iSampleTime < 0 || iSampleTime > iLastSampleTime) return -1;
  const cHandle c = (iSampleTime / kCycleSamples) % kRingCycles;
  return isValid(c) && at(c).StartIndex <= iSampleTime && at(c).EndIndex >= iSampleTime ? c : -1;
}

sRange CycleInformation::calcMinMax(cHandle c, int n) const {
  sRange range;
  for (int i = 0; i < n && isValid(c); ++i, c = before(c, 1)) {
    const sCycleInformation& cycle = at(c);
    if (i == 0) range = {cycle.min, cycle.max};
    range = {std::min<int>(range.iLow, cycle.min), std::max<int>(range.iHigh, cycle.max)};
  }
  return range;
}

int CycleInformation::calcAmp(cHandle c, int n) const {
  return std::max(kNoAmp, calcMinMax(c, n).spread());
}

int CycleInformation::calcMeanCrossing(cHandle c, int n) const {
  int iSum = 0;
  for (int i = 0; i < n && isValid(c); ++i, c = before(c, 1)) iSum += at(c).NMeanCross;
  return iSum;
}

bool CycleInformation::containsNoiseOnly(cHandle c, int k) const {
  return at(c).StartIndex - k * kCycleSamples > toneUntil();
}

cHandle CycleInformation::getLastValidCycleInFrameThatContainsCycle(cHandle c) const {
  const int iFrame = pMyChannel->iFrameSize;
  const int iFrameEnd = (at(c).StartIndex / iFrame + 1) * iFrame - 1;
  cHandle last = c;
  for (cHandle next = before(c, -1);
       isValid(next) && at(next).EndIndex <= iFrameEnd && at(next).StartIndex > at(last).StartIndex;
       next = before(next, -1)) {
    last = next;
  }
  return last;
}

// Few of a level's places are in use, and the copy is made at every jump of the level.
void CycleInformation::copyBlocksOf(const CycleInformation& other) {
  for (std::size_t i = 0; i < kBlocks; ++i) {
    for (std::size_t iLevel = 0; iLevel < kLevels; ++iLevel) {
      const sFluctuationInformation& from = other.psBlocks[i][iLevel];
      sFluctuationInformation& to = psBlocks[i][iLevel];
      to.threshold = from.threshold;
      to.startingup = from.startingup;
      to.nsegments = from.nsegments;
      to.ExtremeVals = from.ExtremeVals;
      to.ExtremeIdx = from.ExtremeIdx;
      std::copy_n(from.points.begin(), from.nsegments, to.points.begin());
    }
  }
}

// The copied cycles point to the other's blocks; they are led to the same places in ours.
void CycleInformation::adoptBlocksOf(const CycleInformation& other) {
  for (cHandle c = 0; c < kRingCycles; ++c) {
    const sFluctuationInformation*& pFluctuations = at(c).fluctuations;
    if (pFluctuations == nullptr) continue;
    const auto uBlock =
        static_cast<std::size_t>(reinterpret_cast<const Block*>(pFluctuations) - other.psBlocks.data());
    pFluctuations = psBlocks[uBlock].data();
  }
}

// ---- One cycle

bool CycleInformation::calculateCyclesInformation() {
  const int iEnd = iLastSampleTime + kCycleSamples;
  if (iEnd >= pMyChannel->pInputData->getNumValues()) {
    if (pMyChannel->pRegistration) pMyChannel->pRegistration->handleProcessingForCycle();
    return false;
  }
  std::int16_t* psSamples = samplesOf(iLastSampleTime + 1);
  sCycleInformation& cycle = at(iWrite);
  cycle = sCycleInformation{};
  cycle.StartIndex = iLastSampleTime + 1;
  cycle.EndIndex = iEnd;
  storeLevels(cycle, psSamples);
  if (!pMyChannel->isEchoMicrophone()) iLargestAmp = std::max(iLargestAmp, cycle.Amp);
  if (!pMyChannel->bIsAecChannel) analyseFluctuations(cycle, psSamples);
  // A stretch may be analysed again, and not to its end.
  if (pMyChannel->iEchoGain < kUnityQ7)
    pMyChannel->iLastEchoPosition = std::max(pMyChannel->iLastEchoPosition, cycle.EndIndex);
  detectTone(cycle, psSamples);
  const std::span samples(psSamples, kCycleSamples);
  const int iMean = std::accumulate(samples.begin(), samples.end(), 0) / kCycleSamples;
  advance();
  levels.push(cycle.min, cycle.max, iMean + pMyChannel->pInputData->dcOffset());
  return true;
}

std::int16_t* CycleInformation::samplesOf(int iStartTime) {
  return pMyChannel->pInputData->cycleSamples(iStartTime);
}

void CycleInformation::storeLevels(sCycleInformation& cycle, std::int16_t* psSamples) {
  const auto [pMin, pMax] = std::minmax_element(psSamples, psSamples + kCycleSamples);
  cycle.min = *pMin;
  cycle.max = *pMax;
  if (cycle.min == cycle.max) {
    // No cycle has an amplitude of 0: everyone may divide by it.
    const bool bAtTop = psSamples[0] > kSampleLimit - 1;
    psSamples[0] = static_cast<std::int16_t>(psSamples[0] + (bAtTop ? -1 : 1));
    (bAtTop ? cycle.min : cycle.max) = psSamples[0];
  }
  cycle.Amp = cycle.max - cycle.min;
  cycle.step = static_cast<std::int16_t>(cycle.Amp >= kSteps ? cycle.Amp / kSteps : 1);
}

void CycleInformation::analyseFluctuations(sCycleInformation& cycle, const std::int16_t* psSamples) {
  iBlock = (iBlock + 1) % kBlocks;
  Block& block = psBlocks[static_cast<std::size_t>(iBlock)];
  for (std::size_t i = 0; i < block.size(); ++i) {
    block[i].threshold = std::max(1, cycle.Amp * piThresholdPercent[kFirstAnalysedLevel + i] / 100);
  }
  pMyChannel->pMyMath->calculateFluctuationsInformation(std::span(psSamples, kCycleSamples), cycle.StartIndex,
                                                        cycle.Amp / kPlateauDivisor, block);
  cycle.fluctuations = block.data();
  cycle.MeanVal = MyMath::calculateMeanVal(block[0]);
  cycle.NMeanCross = MyMath::calculateNumValCrossing(cycle.MeanVal, block[0]);
}

void CycleInformation::detectTone(sCycleInformation& cycle, const std::int16_t* psSamples) {
  // Digits are looked for on noise channels only.
  if (!pMyChannel->bCheckDTMF || pMyChannel->bIsAecChannel) return;
  if (cycle.EndIndex <= std::max(iLastToneFeed, kToneStartTime)) return;
  iLastToneFeed = cycle.EndIndex;
  MyDtmf& detector = *pMyChannel->pMyDtmf;
  cycle.bTone = detector.insertSampleForCycle(std::span(psSamples, kCycleSamples));
  digitText.cycle(cycle.bTone, detector.digit(), cycle.EndIndex);
}

void CycleInformation::advance() {
  iLastSampleTime += kCycleSamples;
  if (++iWrite < kRingCycles) return;
  iWrite = 0;
  ++iLap;
  bWrapped = true;
}

// ---- Debug output

void CycleInformation::print(std::FILE* pFile) const {
  std::fprintf(pFile, "There are %d cycles\n", (iLap - 1) * kRingCycles + iWrite);
  for (cHandle c = 0; c < kRingCycles; ++c) {
    if (isValid(c)) printCycle(pFile, at(c));
  }
}

void CycleInformation::printCycle(std::FILE* pFile, const sCycleInformation& cycle) {
  std::fprintf(pFile, "StartIndex=%d EndIndex=%d Amp=%d MeanVal=%d N.MeanCross=%d\n", cycle.StartIndex,
               cycle.EndIndex, cycle.Amp, cycle.MeanVal, cycle.NMeanCross);
  constexpr sFluctuationInformation kNotAnalysed{};
  for (int iLevel = 0; iLevel < kFluctuationLevels; ++iLevel) {
    const bool bAnalysed = cycle.fluctuations != nullptr && iLevel >= kFirstAnalysedLevel;
    const auto& level = bAnalysed ? cycle.fluctuations[iLevel - kFirstAnalysedLevel] : kNotAnalysed;
    std::fprintf(pFile,
                 "**threshold=%d, startingup=%s, ExtremeVals=(%d,%d) ExtremeIdx=(%d,%d) n.segments=%d:\n",
                 level.threshold, level.startingup ? "true" : "false", level.ExtremeVals[0],
                 level.ExtremeVals[1], level.ExtremeIdx[0], level.ExtremeIdx[1], level.nsegments);
    for (int k = 0; k < level.nsegments; ++k) {
      const sTurningPoint& point = level.points[static_cast<std::size_t>(k)];
      const bool bInner = k > 0 && k + 1 < level.nsegments;
      // The last three belong to later stages, which have none yet.
      std::fprintf(pFile,
                   ":%d# toidx=%d l.val=%d f.thresh=%d l.thresh=%d efi=%d eti=%d up=%d f.low=%d t.low =%d\n",
                   k, point.toidx, point.lval, point.fthresh, point.lthresh, k > 0 ? point.efi : 0,
                   bInner ? point.eti : 0, -1, -1, -1);
    }
  }
}
