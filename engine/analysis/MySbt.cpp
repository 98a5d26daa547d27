#include "engine/analysis/MySbt.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "engine/Glob.h"
#include "engine/MyChannel.h"

namespace {

constexpr int kFirstSamples = 4000;  // of a stream without tests
constexpr int kJumpPercent = 150;    // of the level before
constexpr int kRetries = 2;

// Of the spectrum within the stretch: below it is the background that jumps, and in enough tries some verb is
// found in it.
constexpr float kLeastRise = 0.2F;

// Verb detection scores.
constexpr int kSelfVerbScore = 1;
constexpr int kGoodVerbScore = 2;
constexpr int kToneScore = 3;

// CPU power below which less, and above which more is tried.
constexpr int kLittlePower = 3;
constexpr int kMuchPower = 9;
constexpr std::array<int, 3> kDelays{8, 16, 24};  // samples: quarters of a cycle

}  // namespace

MySbt::MySbt() : noise(2) {}

void MySbt::init(MyChannel* pChannel, MySbt* pOther) {
  pMyChannel = pChannel;
  pSoFar = pOther;
}

void MySbt::clean() {
  bStored = bTesting = false;
  iRetries = 0;
  iStoredTime = -1;
  iTested = iKept = 0;
}

// ---- States

void MySbt::store() {
  cycles = *pMyChannel->pCycleInformation;
  scan = *pMyChannel->pFirstScan;
  burst = *pMyChannel->pMySubState;
  dtmf = *pMyChannel->pMyDtmf;
  driver = *pMyChannel->pMyClean;
  noise[0] = pMyChannel->pOutputData->noise();
  iStoredTime = cycles.lastSampleTime();
  bStored = true;
}

void MySbt::restore() const {
  *pMyChannel->pCycleInformation = cycles;
  *pMyChannel->pFirstScan = scan;
  *pMyChannel->pMySubState = burst;
  *pMyChannel->pMyDtmf = dtmf;
  *pMyChannel->pMyClean = driver;
}

void MySbt::putInput(const Stretch& input) const {
  for (int i = 0; i < kDepthCycles; ++i) {
    std::copy_n(input.data() + i * kCycleSamples, kCycleSamples,
                pMyChannel->pInputData->cycleSamples(iStoredTime + 1 + i * kCycleSamples));
  }
}

void MySbt::storeOriginalInputData() {
  for (int i = 0; i < kStretchSamples; ++i)
    received[static_cast<std::size_t>(i)] = pMyChannel->pInputData->at(iStoredTime + 1 + i);
}

// ---- Jumps

bool MySbt::existsJump() const {
  const LevelTrackers& levels = pMyChannel->pCycleInformation->trackers();
  return levels.immediate(3).spread() * 100 >= levels.immediate(2).spread() * kJumpPercent;
}

void MySbt::afterFrameProcessed() {
  const int iNow = pMyChannel->pCycleInformation->lastSampleTime();
  if (Glob::iCPUPower == 0 || pMyChannel->bRegistrationRunning || bTesting || iNow + 1 < kFirstSamples)
    return;
  if (!bStored) {
    if (!existsJump()) return;
    iRetries = kRetries;
    store();
    return;
  }
  if (iNow < iStoredTime + kStretchSamples) return;
  if (shouldWeProceedWithTheJump()) {
    runTests();
  } else {
    --iRetries;
  }
  bStored = false;
  if (iRetries > 0) store();
}

bool MySbt::shouldWeProceedWithTheJump() const {
  const LevelTrackers& levels = pMyChannel->pCycleInformation->trackers();
  const FirstScan& now = *pMyChannel->pFirstScan;
  const bool bConfident = pMyChannel->pMySubState->isHavingConfidence();
  const int iReference = std::max(now.previousBurstsAmplitude(), bConfident ? now.burstAmplitude() : 0);
  const int iNeeded = std::max(levels.immediate(0).spread() * FirstScan::iMinAmplitudeFromImmediateAmp / 100,
                               iReference * now.detectionSettings().iJumpTestPercent / 100);
  return levels.immediate(5).spread() >= iNeeded;
}

// ---- Tests

// The best mark among the newest cycles and the one before them.
int MySbt::getVerbDetectionScore(int iCycles) const {
  const CycleInformation& now = *pMyChannel->pCycleInformation;
  int iBest = 0;
  for (int i = 0; i <= iCycles; ++i) {
    const cHandle c = CycleInformation::before(now.newest(), i);
    if (!now.isValid(c)) break;
    const sCycleInformation& cycle = now.at(c);
    const int iScore = cycle.bTone         ? kToneScore
                       : cycle.bInGoodVerb ? kGoodVerbScore
                       : cycle.bInSelfVerb ? kSelfVerbScore
                                           : 0;
    iBest = std::max(iBest, iScore);
  }
  // A stretch that holds one of the talker's templates needs no more than repetition to be his.
  return iBest == kSelfVerbScore && winnerDrift ? kGoodVerbScore : iBest;
}

void MySbt::addDelays(const Stretch& input, int iMostDelay) {
  inputs[static_cast<std::size_t>(iInputs)] = input;
  for (const int iDelay : kDelays) {
    if (iDelay > iMostDelay || iCandidates >= kMaxCandidates) break;
    asCandidate[static_cast<std::size_t>(iCandidates++)] = {iInputs, iDelay};
  }
  ++iInputs;
}

// Takes a run of cleaned frames from one sample of the stretch to the next but one into the result. From
// iAlone on, the falling half of the frame that starts at iFrame is all there is of a sample: it is made up
// for the window, as far as the window leaves something of it.
void MySbt::takeCleaned(const sCleanedPart& part, sSpectralNoiseType& estimate, Stretch& result) {
  constexpr double kLeastWindow = 0.1;
  OutputData& output = *pMyChannel->pOutputData;
  const int iFactor = pMyChannel->rateFactor();
  const int iLength = output.blocks() * kCycleSamples;
  const double dStep = 2 * std::numbers::pi / (iLength * iFactor - 1);
  overlap.restart();
  overlap.iLastFrame = iStoredTime + 1 + part.iFrame;
  for (int i = part.iFrom; i < part.iTo; ++i) {
    const int k = (i - part.iFrom) % kCycleSamples;
    if (k == 0) output.calcFrames(overlap, iStoredTime + 1 + i, {}, estimate);
    double dSample = overlap.pdSum[static_cast<std::size_t>((k + 1) * iFactor - 1)];
    if (i >= part.iAlone) {
      const double dWindow = 0.5 * (1 - std::cos(dStep * ((i - part.iFrame + 1) * iFactor - 1)));
      if (dWindow < kLeastWindow) continue;
      dSample /= dWindow;
    }
    result[static_cast<std::size_t>(i)] = clampSample(static_cast<int>(dSample));
  }
}

// The stretch with the background taken off. Frames overlap by half up to the end of the rising half of the
// last one that has come in whole; the frame that ends with the newest sample brings the rest.
MySbt::Stretch MySbt::cleaned(sSpectralNoiseType& estimate) {
  estimate.iSubtractFactor = kUnityQ7;
  estimate.dPreviousGain.fill(1);
  Stretch result = received;
  const int iLength = pMyChannel->pOutputData->blocks() * kCycleSamples;
  const int iHop = iLength / 2;
  const int iNewest = kStretchSamples - iLength;
  const int iWhole = iNewest / iHop * iHop;
  takeCleaned({0, kStretchSamples - iHop, iWhole, iWhole + iHop}, estimate, result);
  takeCleaned({kStretchSamples - iHop, kStretchSamples, iNewest, kStretchSamples - iHop}, estimate, result);
  return result;
}

void MySbt::findWinner() {
  winnerDrift.reset();
  const sSpeakerData& speaker = *pMyChannel->psSpeakerData;
  if (speaker.iTemplates == 0 || !pMyChannel->pFftSchema->validEntry()) return;
  const CycleInformation& cyclesNow = *pMyChannel->pCycleInformation;
  const auto back = [&](int i) { return CycleInformation::before(cyclesNow.newest(), i); };
  for (const cHandle c : {cyclesNow.cycleOf(pMyChannel->pFirstScan->currentTime()), back(kDepthCycles / 4),
                          back(kDepthCycles / 2), back(3 * kDepthCycles / 4)}) {
    if (!cyclesNow.isValid(c)) continue;
    int iWinner;
    float fDrift;
    if (!pMyChannel->pFftSchema->findWinnerSchema(c, &iWinner, &fDrift, pMyChannel->pOutputData->noise()))
      continue;
    winnerDrift = std::min(fDrift, winnerDrift.value_or(fDrift));
    if (fDrift < pMyChannel->fVerbDriftLimit) return;
  }
}

void MySbt::prepareTestCandidates() {
  iInputs = iCandidates = 0;
  const bool bLittle = Glob::iCPUPower < kLittlePower;
  const bool bMuch = Glob::iCPUPower > kMuchPower;
  addDelays(received, bLittle ? kDelays[1] : kDelays[2]);
  findWinner();
  const sSpectralNoiseType& now = pMyChannel->pOutputData->noise();
  sSpectralNoiseType& work = noise[1];
  if (bMuch && noise[0].hasEstimate()) {
    work = noise[0];
    addDelays(cleaned(work), kDelays[2]);
  }
  if (now.hasEstimate()) {
    work = now;
    addDelays(cleaned(work), bLittle ? kDelays[0] : kDelays[2]);
  }
  if (!bMuch) return;
  MyFilters::initializeSpectralNoise(work);
  addDelays(cleaned(work), kDelays[2]);
}

// Whether a self verb can still be found by the end of the stretch: one that begins too late for as many
// comparisons as it takes cannot.
bool MySbt::mayFindVerb() const {
  constexpr int kComparisons = std::min(FirstScan::iMinNumMatchesInSelfVerbSegmentDuringBuilding,
                                        FirstScan::iMinNumMatchesInSelfVerbSegmentWhenFinal + 1);
  constexpr int kLeastCycles = 2 * kElementCycles + kComparisons - 1;
  return pMyChannel->pFirstScan->earliestVerb() + kLeastCycles * kCycleSamples <=
         iStoredTime + 1 + kStretchSamples;
}

// Analyses the stretch again from the stored state; the score. Ends early when it cannot beat another.
int MySbt::run(const sCandidate& candidate, int iToBeat) {
  const Stretch& input = inputs[static_cast<std::size_t>(candidate.iSource)];
  Stretch delayed{};
  std::copy_n(input.begin(), kStretchSamples - candidate.iDelay, delayed.begin() + candidate.iDelay);
  restore();
  putInput(delayed);
  bool bMore = true;
  for (int i = 1; i <= kDepthCycles && bMore; ++i) {
    pMyChannel->pFirstScan->handleNextFrame(&bMore);
    if (!mayFindVerb() && getVerbDetectionScore(i) <= iToBeat) return iToBeat;
  }
  return getVerbDetectionScore(kDepthCycles);
}

// The run's segments and marks stay; levels, tones and the background are those of what was received. A tone
// that only a run has found would let five seconds pass as they came in.
void MySbt::keepRun() {
  std::array<sCycleInformation, kDepthCycles + 1> asMarked;
  CycleInformation& now = *pMyChannel->pCycleInformation;
  for (int i = 0; i <= kDepthCycles; ++i)
    asMarked[static_cast<std::size_t>(i)] = now.at(CycleInformation::before(now.newest(), i));
  now = pSoFar->cycles;
  *pMyChannel->pMyDtmf = pSoFar->dtmf;
  *pMyChannel->pMyClean = pSoFar->driver;
  for (int i = 0; i <= kDepthCycles; ++i) {
    const sCycleInformation& marked = asMarked[static_cast<std::size_t>(i)];
    sCycleInformation& cycle = now.at(CycleInformation::before(now.newest(), i));
    cycle.bInVerb |= marked.bInVerb;
    cycle.bInSelfVerb |= marked.bInSelfVerb;
    cycle.bInGoodVerb |= marked.bInGoodVerb;
  }
  pMyChannel->pFirstScan->adoptBackgroundOf(pSoFar->scan);
}

void MySbt::runTests() {
  winnerDrift.reset();
  const int iBefore = getVerbDetectionScore(kDepthCycles);
  if (iBefore > kSelfVerbScore || pMyChannel->pFirstScan->highestRise(kDepthCycles) < kLeastRise) return;
  ++iTested;
  bTesting = true;
  pSoFar->store();
  storeOriginalInputData();
  prepareTestCandidates();
  int iBest = iBefore;
  int iBestRun = -1;
  int iLastRun = -1;
  for (int i = 0; i < iCandidates && iBest < kGoodVerbScore; ++i) {
    const int iScore = run(asCandidate[static_cast<std::size_t>(i)], iBest);
    iLastRun = i;
    if (iScore <= iBest) continue;
    iBest = iScore;
    iBestRun = i;
  }
  constexpr int kToTheEnd = -1;
  if (iBestRun >= 0 && iBestRun != iLastRun)
    (void)run(asCandidate[static_cast<std::size_t>(iBestRun)], kToTheEnd);
  putInput(received);
  if (iBestRun >= 0) {
    keepRun();
    ++iKept;
  } else {
    pSoFar->restore();
  }
  bTesting = false;
}
