#include "engine/analysis/MySubState.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <span>

#include "engine/analysis/ComparisonElement.h"
#include "engine/Glob.h"
#include "engine/MyChannel.h"

namespace {

// A pause ends no burst, but one so long is the other party's turn: what comes behind it is as loud as it is
// itself, and one loud word does not set the gain of all that follow.
constexpr int kTurnSamples = 5 * kAnalysisRate;
// Where the last good end stands when a burst begins: just farther back than a closing consonant may end.
constexpr int kNoGoodEnd = -Glob::iMaxDistanceBetweenVerbEndToPostVconstEnd * 1001 / 1000;

// What a verb needs to be checked: matches, the share of them that may be revoked, and whether it must differ
// from the background. Where the separation decides in the end, the check is loose; where it must not be
// misled, strict.
struct sVerbCheck {
  int iMinMatches;
  int iMaxRevokedPercent;
  bool bNoiseTest;
};
constexpr sVerbCheck kUsualCheck{5, 25, true};
constexpr sVerbCheck kLooseCheck{3, 50, false};
constexpr sVerbCheck kStrictCheck{8, 1, true};

const sVerbCheck& checkOf(const MyChannel& channel) {
  if (channel.bSeparationLoose) return kLooseCheck;
  return channel.bSeparationStrict ? kStrictCheck : kUsualCheck;
}

// Bad verbs that a burst survives: an unconfident one fewer.
constexpr int kMaxBadWhenConfident = 9;
constexpr int kMaxBadWhenRunning = 5;

constexpr int kMinGoodEntries = 4;
// A verb that was not good is checked again as it grows: three more cycles make a new picture of it.
constexpr int kMatchesBetweenTests = 3;

// Noise test: spreads that differ by no more than this factor are the same background.
constexpr int kSameLevelPercent = 120;
constexpr int kSpectrumPeriods = 3;
constexpr int kMinPeaks = 2;
constexpr int kMaxPeaks = 24;

// Magnitudes of the discrete Fourier transform of three periods, in which a harmonic falls on every third bin
// and the bins between are empty. The length is no power of two, and padding would fill them.
class PeriodSpectrum {
 public:
  PeriodSpectrum(const InputData& input, int iLast, int iPeriod) : iBins(iPeriod * 3 / 2) {
    const int iLength = kSpectrumPeriods * iPeriod;
    std::array<float, kMaxLength> pfSamples;
    for (int i = 0; i < iLength; ++i) {
      pfSamples[static_cast<std::size_t>(i)] = static_cast<float>(input.at(iLast - iLength + 1 + i));
    }
    for (int k = 1; k <= iBins; k += kTogether)
      bins(std::span(pfSamples).first(static_cast<std::size_t>(iLength)), k);
  }

  [[nodiscard]] bool looksHarmonic() const {
    const int iPeaks = countPeaks();
    return iPeaks >= kMinPeaks && iPeaks <= kMaxPeaks && risesFromAValley();
  }

 private:
  static constexpr int kTogether = 8;  // bins whose recurrences run side by side
  static constexpr int kMaxLength = PitchComparator::kMaxPeriod * kSpectrumPeriods;
  static constexpr int kMaxBins = PitchComparator::kMaxPeriod * 3 / 2 + 1 + kTogether;

  // Goertzel's recurrence at the bins from iFirst on.
  void bins(std::span<const float> samples, int iFirst) {
    std::array<float, kTogether> fCoefficient;
    std::array<float, kTogether> s1{};
    std::array<float, kTogether> s2{};
    for (int k = 0; k < kTogether; ++k) {
      fCoefficient[static_cast<std::size_t>(k)] =
          2 * std::cos(2 * std::numbers::pi_v<float> * static_cast<float>(iFirst + k) /
                       static_cast<float>(samples.size()));
    }
    for (const float fSample : samples) {
      for (std::size_t k = 0; k < kTogether; ++k) {
        const float s = fCoefficient[k] * s1[k] - s2[k] + fSample;
        s2[k] = s1[k];
        s1[k] = s;
      }
    }
    for (std::size_t k = 0; k < kTogether; ++k) {
      const float fPower = s1[k] * s1[k] + s2[k] * s2[k] - fCoefficient[k] * s1[k] * s2[k];
      pfMagnitude[static_cast<std::size_t>(iFirst) + k] = std::sqrt(std::max(0.0F, fPower));
    }
  }

  [[nodiscard]] float at(int k) const { return pfMagnitude[static_cast<std::size_t>(k)]; }

  [[nodiscard]] int countPeaks() const {
    int iPeaks = 0;
    float fValley = at(1);
    float fPrevious = 0;
    float fLargest = 0;
    for (int k = 2; k < iBins; ++k) {
      fValley = std::min(fValley, at(k));
      const float fHalf = at(k) / 2;
      const float fNext = at(k + 1);
      fLargest = std::max(fLargest, at(k));
      if (at(k) < at(k - 1)) continue;
      if (fHalf <= fValley || fHalf <= fNext) continue;
      if (at(k) <= 0.2F * fPrevious || at(k) <= 0.05F * fLargest) continue;
      ++iPeaks;
      fPrevious = at(k);
      fValley = at(k);
    }
    return iPeaks;
  }

  [[nodiscard]] bool risesFromAValley() const {
    const float fLargest = *std::max_element(pfMagnitude.begin() + 1, pfMagnitude.begin() + 1 + iBins);
    float fValley = at(1);
    for (int k = 2; k <= iBins; ++k) {
      fValley = std::min(fValley, at(k));
      if (at(k) - fValley > 0.1F * fLargest) return true;
    }
    return false;
  }

  int iBins;
  std::array<float, kMaxBins> pfMagnitude{};
};

}  // namespace

void MySubState::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
  clean();
}

void MySubState::clean() {
  MyChannel* pChannel = pMyChannel;
  *this = MySubState{};
  pMyChannel = pChannel;
  iLastGoodEnd = kNoGoodEnd;
}

// ---- Bursts

void MySubState::startNewBurst() {
  burstState = kRunning;
  iGood = iBad = iOther = 0;
  iLastGoodEnd = kNoGoodEnd;
}

void MySubState::stopBurst() {
  burstState = kNoBurst;
}

bool MySubState::staysInBurst() const {
  return iBad <= (burstState == kConfident ? kMaxBadWhenConfident : kMaxBadWhenRunning);
}

// ---- Self verbs

void MySubState::updateNewSelfVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment, int iRevoked) {
  *pType = kSelfVerb;
  if (burstState == kNoBurst) {
    pMyChannel->pFirstScan->startAmplitudeOfNewBurst();
    startNewBurst();
  }
  settleSelfVerb(pSegment, iRevoked);
  if (pSegment->bGood) return;
  if (!staysInBurst()) {
    stopBurst();
  } else {
    ++iBad;
  }
}

void MySubState::updateExistingSelfVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment,
                                              int iRevoked) {
  *pType = kSelfVerb;
  const int iSince = pSegment->iNumMatches - checkOf(*pMyChannel).iMinMatches;
  if (!pSegment->bGood && iSince % kMatchesBetweenTests != 0) return;
  settleSelfVerb(pSegment, iRevoked);
}

bool MySubState::isRejected(const sSegment& segment) const {
  const sSpeakerData& speaker = *pMyChannel->psSpeakerData;
  if (speaker.iTemplates == 0 &&
      speaker.mayHavePeriod(PitchComparator::kMinPeriod, PitchComparator::kMaxPeriod))
    return false;
  const int iSecondTest = checkOf(*pMyChannel).iMinMatches + kMatchesBetweenTests;
  return segment.type == kSelfVerb && !segment.bGood && segment.iNumMatches >= iSecondTest;
}

void MySubState::settleSelfVerb(sSegment* pSegment, int iRevoked) {
  if (!pSegment->bExaminedForNoise) {
    int iPeriod = 0;
    if (!hasVoicePitch(pSegment, iRevoked, &iPeriod)) return;
    if (checkOf(*pMyChannel).bNoiseTest && !differentFromNoise(iPeriod, pSegment)) return;
    pSegment->bExaminedForNoise = true;
  }
  if (!pSegment->bGood && !isLearnedVoice(pSegment)) return;
  const bool bNew = !pSegment->bGood;
  pSegment->bGood = true;
  updateGood(pSegment->iStartTime, pSegment->iEndTime, pSegment->iAmp, bNew ? pSegment->iNumMatches : 0,
             pSegment->lastMatch().period());
}

// Every voice is, while one is being learned and as long as none has been.
bool MySubState::isLearnedVoice(sSegment* pSegment) const {
  if (pMyChannel->bRegistrationRunning || pMyChannel->psSpeakerData->iTemplates == 0) return true;
  if (pMyChannel->pSourceSeparation) {
    const auto verdict = pMyChannel->pSourceSeparation->verdictOn(*pSegment);
    if (verdict != SourceSeparation::Verdict::kUnknown) {
      return verdict == SourceSeparation::Verdict::kLearnedVoice;
    }
  }
  if (!pMyChannel->pFftSchema->validEntry()) return false;
  float fDrift;
  return pMyChannel->pFftSchema->findWinnerSchema(pSegment->last, &pSegment->iWinner, &fDrift,
                                                  pMyChannel->pOutputData->noise());
}

bool MySubState::hasVoicePitch(const sSegment* pSegment, int iRevoked, int* piPeriod) const {
  const sVerbCheck& check = checkOf(*pMyChannel);
  if (pSegment->iNumMatches < check.iMinMatches) return false;
  int iDoubled = 0;
  int iResized = 0;
  for (int i = 0; i < pSegment->iNumMatches; ++i) {
    iDoubled += pSegment->asMatch[static_cast<std::size_t>(i)].bDoubled;
    iResized += pSegment->asMatch[static_cast<std::size_t>(i)].bResized;
  }
  const int iWorst = std::max({iDoubled, iResized, iRevoked});
  if (iWorst * 100 >= check.iMaxRevokedPercent * pSegment->iNumMatches) return false;
  for (int i = pSegment->iNumMatches - 1; i >= 0; --i) {
    const sMatch& match = pSegment->asMatch[static_cast<std::size_t>(i)];
    if (!pMyChannel->psSpeakerData->mayHavePeriod(match.iNear, match.iFar)) continue;
    *piPeriod = match.period();
    return true;
  }
  return false;
}

void MySubState::updateGood(int iTime, int iEnd, int iAmp, int iLength, int iValue) {
  if (iLastGoodEnd < iTime) ++iGood;
  if (iTime - iLastGoodEnd > kTurnSamples) pMyChannel->pFirstScan->startAmplitudeOfNewBurst();
  iLastGoodEnd = iEnd;
  pMyChannel->pFirstScan->raiseGoodVerbAmplitude(iAmp);
  iBad = iOther = 0;
  burstState = kConfident;
  if (iLength <= 0) return;
  asGood[static_cast<std::size_t>(iGoodWrite)] = {iLength, iValue};
  iGoodWrite = (iGoodWrite + 1) % kGoodHistory;
  iGoodEntries = std::min(iGoodEntries + 1, kGoodHistory);
  if (iGoodEntries < kMinGoodEntries) return;
  iAvgGoodLength = iAvgGoodValue = 0;
  for (const sGood& good : asGood) {
    iAvgGoodLength += good.iLength;
    iAvgGoodValue += good.iValue;
  }
  iAvgGoodLength /= iGoodEntries;
  iAvgGoodValue /= iGoodEntries;
}

void MySubState::print(std::FILE* pFile) const {
  std::fprintf(pFile, "Burst: state=%d good=%d bad=%d other=%d length=%d value=%d\n", burstState, iGood, iBad,
               iOther, iAvgGoodLength, iAvgGoodValue);
}

// ---- Other verbs

void MySubState::updateNewOtherVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment) {
  if (burstState != kNoBurst) ++iOther;
  updateExistingOtherVerbLength(pType, pSegment);
}

void MySubState::updateExistingOtherVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* /*pSegment*/) {
  if (burstState != kNoBurst && !staysInBurst()) stopBurst();
  *pType = burstState == kNoBurst ? kOtherVerb : kOtherVerbInBurst;
}

// ---- What follows

int MySubState::calculatePostGoodVerbCoef128(int iTime) const {
  const auto& piShaping = pMyChannel->psNoiseShaping;
  const int iFloor = std::max(0, piShaping[kBurstEndLowerValue]);
  const int iPeriod = std::max(1, kAnalysisRate / std::max(1, piShaping[kBurstEndMode]));
  // A verb that is still growing ends after the cycle that is written: less than a period ahead counts as 0.
  const long k = (iTime - iLastGoodEnd) / iPeriod;
  if (k < 0) return iFloor;
  return static_cast<int>(std::max<long>(iFloor, kUnityQ7 - k * piShaping[kBurstEndDecrease]));
}

bool MySubState::differentFromNoise(int iPeriod, const sSegment* pSegment) const {
  const LevelTrackers& trackers = pMyChannel->pCycleInformation->trackers();
  const long lNow = trackers.immediate(3).spread();
  const long lBefore = trackers.immediate(4).spread();
  if (std::max(lNow, lBefore) * 100 <= std::min(lNow, lBefore) * kSameLevelPercent) return false;
  const int iLast = pSegment->iEndTime - kElementSamples;  // before the last match
  if (iLast < kSpectrumPeriods * iPeriod) return false;
  return PeriodSpectrum(*pMyChannel->pInputData, iLast,
                        std::clamp(iPeriod, PitchComparator::kMinPeriod, PitchComparator::kMaxPeriod))
      .looksHarmonic();
}
