#include "engine/analysis/FirstScan.h"

#include <algorithm>
#include <span>

#include "engine/MyChannel.h"

namespace {

// Strict detection wants steadier periods and makes nothing up.
constexpr std::array<sDetection, 5> psDetection{{{7.0F, 5, 25, false},
                                                 {6.0F, 10, 25, false},
                                                 {6.0F, 17, 25, false},
                                                 {4.0F, 17, 20, false},
                                                 {4.0F, 17, 20, true}}};

// Histogram of good-verb spreads: 100 bins over the largest spread there is.
constexpr int kAmpBinWidth = 656;  // kLargestSpread / 99
constexpr int kReferencePercent = 90;

}  // namespace

const sDetection& FirstScan::detectionOfLevel(int iLevel) {
  return psDetection[static_cast<std::size_t>(std::clamp(iLevel, 0, 4))];
}

FirstScan::FirstScan() : psSegments(kSegments) {}

void FirstScan::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
  clean();
}

void FirstScan::clean() {
  iOldest = iClosed = iIdentities = 0;
  bExamining = bAccepted = bGoingDown = false;
  iReferenceSpread = iSpreadAtTurn = iArtificial = 0;
  segmentWindows.iCount = 0;
  iNextTime = 0;
  for (sCachedWindows& cached : asCache) cached.iTime = -1;
  iLoudCycles = 0;
  bOtherVerb = false;
  comparator.clean();
  floor = NoiseFloor{};
  rise.clean();
  fScores.fill(0);
  guard = OnsetGuard{};
  iFlatCycles = 0;
  iReleased = -1;
  iReleasedTime = -kCycleSamples;
  bSelfVerb = false;
  iBurstAmp = iReferenceAmp = iLastUpdateAmp = 0;
  piAmpHistogram.fill(0);
  iAmpEntries = 0;
}

void FirstScan::adoptBackgroundOf(const FirstScan& other) {
  comparator = other.comparator;
  floor = other.floor;
  rise = other.rise;
  fScores = other.fScores;
}

// ---- The frame step

int FirstScan::spreadFrom(int iTime, int iCycles) const {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iLast = std::min(iTime + iCycles * kCycleSamples, cycles.lastSampleTime() + 1) - 1;
  return cycles.calcAmp(cycles.cycleOf(iLast), (iLast - iTime + 1) / kCycleSamples);
}

bool FirstScan::canCompare() const {
  return iNextTime + kElementCycles * kCycleSamples - 1 <= pMyChannel->pCycleInformation->lastSampleTime();
}

void FirstScan::handleNextFrame(bool* pbMore) {
  CycleInformation& cycles = *pMyChannel->pCycleInformation;
  *pbMore = cycles.calculateCyclesInformation();
  if (!*pbMore) return;
  if (pMyChannel->bIsAecChannel) {
    handleEchoCycle();
    return;
  }
  const sCycleInformation& newest = cycles.at(cycles.newest());
  comparator.push(std::span(pMyChannel->pInputData->cycleSamples(newest.StartIndex), kCycleSamples));
  followBackground(cycles.calcAmp(cycles.newest(), kElementCycles));
  while (canCompare()) analyzeNextComparison();
  if (!pMyChannel->bBypassVAD) followLoudness();
  releaseCycles();
  closeFrame();
}

// On echo channels the canceller judges the cycle; verbs are not looked for.
void FirstScan::handleEchoCycle() {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const bool bCancels = pMyChannel->isEchoMicrophone() && pMyChannel->iAecAlgorithm >= 1;
  if (bCancels) pMyChannel->pMyAEC->performAec(cycles.newest());
  iReleasedTime = cycles.lastSampleTime() + 1 - kCycleSamples - pMyChannel->iAecDelayCycles * kCycleSamples;
  if (iReleasedTime >= 0) iReleased = cycles.cycleOf(iReleasedTime);
}

// Zeros that fill a short gap in the stream are no background; a line that stays silent is.
void FirstScan::followBackground(int iSpread) {
  constexpr int kLongestGapCycles = 125;  // 0.5 s
  iFlatCycles = iSpread > 1 ? 0 : iFlatCycles + 1;
  if (iFlatCycles > 0 && iFlatCycles <= kLongestGapCycles && floor.floor() > NoiseFloor::kLowest) {
    fScores[static_cast<std::size_t>(pMyChannel->pCycleInformation->newest()) % kScores] = 0;
    return;
  }
  floor.push(iSpread);
  scoreRise();
}

void FirstScan::scoreRise() {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iFirst = cycles.lastSampleTime() + 1 - SpectralRise::kSpanSamples;
  if (iFirst < 0) return;
  std::array<double, SpectralRise::kSpanSamples> dSamples;
  for (int i = 0; i < SpectralRise::kSpanSamples; i += kCycleSamples) {
    std::copy_n(pMyChannel->pInputData->cycleSamples(iFirst + i), kCycleSamples, dSamples.begin() + i);
  }
  fScores[static_cast<std::size_t>(cycles.newest()) % kScores] = rise.push(dSamples);
}

// Score of the seven cycles from iTime on, or as many as there are.
float FirstScan::riseFrom(int iTime) const {
  constexpr int kScoredCycles = kElementCycles + SpectralRise::kSpans - 1;
  const int iLast =
      std::min(iTime + (kScoredCycles - 1) * kCycleSamples, pMyChannel->pCycleInformation->lastSampleTime());
  const cHandle last = pMyChannel->pCycleInformation->cycleOf(iLast);
  return fScores[static_cast<std::size_t>(last) % kScores];
}

float FirstScan::highestRise(int iCycles) const {
  const cHandle newest = pMyChannel->pCycleInformation->newest();
  float fHighest = 0;
  for (int i = 0; i < iCycles; ++i) {
    const auto uCycle = static_cast<std::size_t>(CycleInformation::before(newest, i));
    fHighest = std::max(fHighest, fScores[uCycle % kScores]);
  }
  return fHighest;
}

// The delay has passed for one more cycle; for more of them when it was cut short, for none when it has
// grown.
void FirstScan::releaseCycles() {
  const int iDelay = pMyChannel->iMaxNumCyclesInDelayBuffer * kCycleSamples;
  const int iNewest = pMyChannel->pCycleInformation->lastSampleTime() + 1 - kCycleSamples - iDelay;
  constexpr int kLongestDelay = kMaxDelayCycles * kCycleSamples;
  for (int iTime = std::max(iReleasedTime + kCycleSamples, iNewest - kLongestDelay); iTime <= iNewest;
       iTime += kCycleSamples) {
    releaseCycle(iTime);
  }
}

// Speech, or not.
void FirstScan::releaseCycle(int iTime) {
  CycleInformation& cycles = *pMyChannel->pCycleInformation;
  iReleasedTime = iTime;
  iReleased = cycles.cycleOf(iTime);
  sCycleInformation& cycle = cycles.at(iReleased);
  cycle.fRise = riseFrom(iTime);
  if (pMyChannel->bBypassVAD) return;
  const sSegment* pSegment = cycle.bInVerb ? findSegment(iTime) : nullptr;
  const auto isOf = [&](POTENTIAL_SEGMENT_TYPE type) {
    return pSegment != nullptr && pSegment->type == type;
  };
  const bool bOther = isOf(kOtherVerb) || isOf(kOtherVerbInBurst);
  const OnsetGuard::sCycle judged{
      .bInSegment = cycle.bInVerb && !bOther,
      .bRepeating = bExamining && examined().iNumMatches >= 2 && iTime >= examined().iStartTime,
      .iSpread = spreadFrom(iTime, kElementCycles),
      .bUnknownBackground = iTime < SpectralRise::kUnknownSamples,
      .fRise = cycle.fRise};
  const OnsetGuard::Verdict verdict = guard.judge(judged);
  if (isOf(kOtherVerb)) return;
  cycle.bInVerb = isOf(kOtherVerbInBurst) || verdict != OnsetGuard::Verdict::kSilence;
  cycle.bPresumed = verdict == OnsetGuard::Verdict::kPresumed;
}

// The self-verb flag tells of the present only.
void FirstScan::closeFrame() {
  if (!bExamining || !bAccepted) bSelfVerb = false;
}

// ---- Segments

const sSegment* FirstScan::findSegment(int iTime) const {
  if (bExamining && bAccepted && examined().contains(iTime)) return &examined();
  for (int i = iClosed - 1; i >= 0; --i) {
    const sSegment& segment = psSegments[slot(i)];
    if (segment.contains(iTime)) return &segment;
  }
  return bOtherVerb && otherVerb.contains(iTime) ? &otherVerb : nullptr;
}

void FirstScan::shiftOneSegment() {
  if (iClosed == 0) return;
  if (pMyChannel->bRegistrationRunning) pMyChannel->pRegistration->insertNewSegment(closedSegment(0));
  iOldest = (iOldest + 1) % kSegments;
  --iClosed;
}

// One slot stays free for the segment that is examined next.
void FirstScan::keepExamined() {
  if (iClosed == kSegments - 2) shiftOneSegment();
  ++iClosed;
}

void FirstScan::printSegment(std::FILE* pFile, const sSegment& segment) {
  std::fprintf(pFile, "Segment %d: type=%d first=%d last=%d matches=%d amp=%d period=%d good=%s\n",
               segment.iIdentity, segment.type, segment.iStartTime, segment.iEndTime, segment.iNumMatches,
               segment.iAmp, estimatePitch(segment, segment.last), segment.bGood ? "true" : "false");
}

int FirstScan::estimatePitch(const sSegment& segment, cHandle cycle) {
  if (segment.iNumMatches == 0) return 0;
  const auto* pEnd = segment.asMatch.data() + segment.iNumMatches;
  const auto* pMatch =
      std::find_if(segment.asMatch.data(), pEnd, [&](const sMatch& match) { return match.cycle == cycle; });
  return pMatch == pEnd ? segment.lastMatch().period() : pMatch->period();
}

// ---- Levels of good verbs

void FirstScan::updateMaxAmplitudeOfGoodVerbsInPrevBursts(int iVerbAmp) {
  iLastUpdateAmp = iBurstAmp;
  const int iBin = std::clamp((iVerbAmp + kAmpBinWidth / 2) / kAmpBinWidth, 0, kAmpBins - 1);
  ++piAmpHistogram[static_cast<std::size_t>(iBin)];
  ++iAmpEntries;
  int iBelow = 0;
  int iReference = 0;
  while (iReference < kAmpBins - 1) {
    iBelow += piAmpHistogram[static_cast<std::size_t>(iReference)];
    if (iBelow * 100 >= iAmpEntries * kReferencePercent) break;
    ++iReference;
  }
  iReferenceAmp = iReference * kLargestSpread / (kAmpBins - 1);
}

int FirstScan::speakerLevel() const {
  if (!bSelfVerb || !pMyChannel->pMySubState->isHavingConfidence()) return iReferenceAmp;
  return std::max(iBurstAmp, iReferenceAmp);
}

int FirstScan::voiceLevel() const {
  const bool bLouder = pMyChannel->pMySubState->isHavingConfidence() && iBurstAmp > iReferenceAmp;
  return bLouder ? iBurstAmp : iReferenceAmp;
}
