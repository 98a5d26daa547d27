#include "engine/analysis/MySbt.h"

#include <algorithm>

#include "engine/Glob.h"
#include "engine/MyChannel.h"

namespace {

constexpr int kFirstSamples = 4000;  // of a stream without tests
constexpr int kJumpPercent = 150;    // of the level before
constexpr int kRetries = 2;
constexpr int kOfHalfSecondPercent = 25;  // the level must still be a quarter of the half second's

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
  noise[0] = pMyChannel->pOutputData->noise();
  iStoredTime = cycles.lastSampleTime();
  bStored = true;
}

void MySbt::restore() const {
  *pMyChannel->pCycleInformation = cycles;
  *pMyChannel->pFirstScan = scan;
  *pMyChannel->pMySubState = burst;
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
  const int iNeeded = std::max(levels.immediate(0).spread() * kOfHalfSecondPercent / 100,
                               iReference * now.detectionSettings().iJumpTestPercent / 100);
  return levels.immediate(5).spread() >= iNeeded;
}

// ---- Tests

// The best mark among the cycles of the stretch and the one before.
int MySbt::getVerbDetectionScore() const {
  const CycleInformation& now = *pMyChannel->pCycleInformation;
  int iBest = 0;
  for (int i = 0; i <= kDepthCycles; ++i) {
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

// The stretch with the background taken off. The last frame has not come in whole: its samples stay as they
// are.
MySbt::Stretch MySbt::cleaned(sSpectralNoiseType& estimate) {
  OutputData& output = *pMyChannel->pOutputData;
  estimate.iSubtractFactor = kUnityQ7;
  estimate.dPreviousGain.fill(1);
  Stretch result = received;
  const int iFactor = pMyChannel->rateFactor();
  const int iWhole = kStretchSamples - output.blocks() * kCycleSamples;
  overlap.restart();
  for (int i = 0; i + kCycleSamples <= iWhole; i += kCycleSamples) {
    output.calcFrames(overlap, iStoredTime + 1 + i, estimate);
    for (int k = 0; k < kCycleSamples; ++k) {
      const double dSample = overlap.pdSum[static_cast<std::size_t>((k + 1) * iFactor - 1)];
      result[static_cast<std::size_t>(i + k)] = clampSample(static_cast<int>(dSample));
    }
  }
  return result;
}

void MySbt::findWinner() {
  winnerDrift.reset();
  const sSpeakerData& speaker = *pMyChannel->psSpeakerData;
  if (speaker.iTemplates == 0 || !pMyChannel->pFftSchema->validEntry()) return;
  const cHandle newest = pMyChannel->pCycleInformation->newest();
  for (const int iBack : {0, kDepthCycles / 4, kDepthCycles / 2, 3 * kDepthCycles / 4}) {
    const cHandle c = CycleInformation::before(newest, iBack);
    if (!pMyChannel->pCycleInformation->isValid(c)) continue;
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

// Analyses the stretch again from the stored state; the score.
int MySbt::run(const sCandidate& candidate) {
  const Stretch& input = inputs[static_cast<std::size_t>(candidate.iSource)];
  Stretch delayed{};
  std::copy_n(input.begin(), kStretchSamples - candidate.iDelay, delayed.begin() + candidate.iDelay);
  restore();
  putInput(delayed);
  bool bMore = true;
  for (int i = 0; i < kDepthCycles && bMore; ++i) pMyChannel->pFirstScan->handleNextFrame(&bMore);
  return getVerbDetectionScore();
}

// The run's segments and marks stay; levels, tones and the background are those of what was received.
void MySbt::keepRun() {
  std::array<sCycleInformation, kDepthCycles + 1> asMarked;
  CycleInformation& now = *pMyChannel->pCycleInformation;
  for (int i = 0; i <= kDepthCycles; ++i)
    asMarked[static_cast<std::size_t>(i)] = now.at(CycleInformation::before(now.newest(), i));
  now = pSoFar->cycles;
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
  const int iBefore = getVerbDetectionScore();
  if (iBefore > kSelfVerbScore || pMyChannel->pFirstScan->highestRise(kDepthCycles) < kLeastRise) return;
  ++iTested;
  bTesting = true;
  const std::uint8_t bTones = pMyChannel->bCheckDTMF;
  pMyChannel->bCheckDTMF = 0;  // the detector has heard the stretch
  pSoFar->store();
  storeOriginalInputData();
  prepareTestCandidates();
  int iBest = iBefore;
  int iBestRun = -1;
  int iLastRun = -1;
  for (int i = 0; i < iCandidates && iBest < kGoodVerbScore; ++i) {
    const int iScore = run(asCandidate[static_cast<std::size_t>(i)]);
    iLastRun = i;
    if (iScore <= iBest) continue;
    iBest = iScore;
    iBestRun = i;
  }
  if (iBestRun >= 0 && iBestRun != iLastRun) (void)run(asCandidate[static_cast<std::size_t>(iBestRun)]);
  putInput(received);
  if (iBestRun >= 0) {
    keepRun();
    ++iKept;
  } else {
    pSoFar->restore();
  }
  pMyChannel->bCheckDTMF = bTones;
  bTesting = false;
}
