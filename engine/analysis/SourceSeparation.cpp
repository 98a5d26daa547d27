#include "engine/analysis/SourceSeparation.h"

#include <algorithm>
#include <cmath>

#include "engine/MyChannel.h"

namespace {

// The evidence from which on the sound goes over from the other's to the learned talker's, up to kOwn.
constexpr float kOthers = -0.5F;
// What is left of another's sound, as an amplitude: 18 dB less. The comfort noise covers the rest.
constexpr float kLeftOfOthers = 0.12F;
// Per frame of 16 ms: opens within two, closes within six.
constexpr float kOpening = 0.6F;
constexpr float kClosing = 0.3F;

// A frame counts in full from a third of the loudest of the last half second on.
constexpr float kLoudPart = 3;
constexpr float kLeastWeight = 0.1F;

// Evidence from which on the learned talker is alone.
constexpr float kCertain = 1.2F;

// Both may be talking while some of the voiced frames of the last second are surely the learned talker's:
// from a twentieth on, and plainly from a tenth on. Then the evidence may be against him as far as it goes.
// Lower scores than these are no sign of him: another of his sex makes as many of them as he does under
// another.
constexpr float kOwnFrame = 2;  // score
constexpr float kOwnStep = 1.0F / 60;
constexpr float kNoOwnPart = SourceSeparation::piThresholds[0] / 1024.0F;
constexpr float kOwnPart = SourceSeparation::piThresholds[1] / 1024.0F;
constexpr float kMostOwnPart = 0.35F;  // that is remembered: another may begin
constexpr float kOthersOfBoth = -3.2F;
constexpr float kOwnOfBoth = -2.5F;
// Then bins pass by what of them is his (VoiceGains), and a frame without voice as the sounds beside it
// score. Of frames of two talkers at 0 and 6 dB, a quarter of the sound was the learned talker's at the
// lowest scores, nine tenths at the highest.
constexpr float kLowestScore = -3;
constexpr float kHighestScore = 3;
constexpr float kLeastGate = 0.25F;
constexpr float kMostGate = 1;
constexpr float kClosedUpTo = -2;  // while the evidence is against him
constexpr float kOpenFrom = 2;
constexpr float kMostWhenClosed = 0.9F;
constexpr float kNoScoreWeight = 0.3F;
// A sound of both scores less than one of his alone. A verb of both is left to the gains of its frames.
constexpr float kBothLeniency = 1;
constexpr float kVerbLeniency = 3;

constexpr float kDefaultStep = 0.01F;
constexpr float kReferenceStep = 0.01F;
constexpr float kMostGain = 4;

// 0 up to `low`, 1 from `high` on.
float ramp(float f, float low, float high) {
  return std::clamp((f - low) / (high - low), 0.0F, 1.0F);
}

// The learned talker's sounds in one verb weigh this many frames of what was heard before.
constexpr float kBeforeFrames = 6;

}  // namespace

SourceSeparation::SourceSeparation() : voice(1), entries(kHistory) {
  clean();
}

void SourceSeparation::init(MyChannel* pChannel) {
  pMyChannel = pChannel;
}

void SourceSeparation::clean() {
  terminateDynamicInfo();
  scorer.learn(voice[0], {});
  cleanHistory();
}

void SourceSeparation::cleanHistory() {
  for (sEntry& entry : entries) entry.iEndTime = kNever;
  iNewest = 0;
  iLastLearned = -1;
  iLastPeriod = 0;
  heard = TalkerEvidence{};
  fDefault.fill(1);
  gains.pause();
  fOpen = fGain = 1;
  fOwnPart = kOwnPart;
}

bool SourceSeparation::isActive() const {
  return voice[0].bLearned != 0 && scorer.knowsVoice() && !pMyChannel->bRegistrationRunning;
}

// ---- Analysis

void SourceSeparation::analyzeDuringCleaning(cHandle cycle) {
  if (!isActive()) return;
  // Ahead of the cycle as far as the signal has come, so that its verb is judged before it is written.
  analyseUpTo(std::max(pMyChannel->pCycleInformation->at(cycle).EndIndex,
                       pMyChannel->pCycleInformation->lastSampleTime()));
}

// Frames end at multiples of the hop. What lies too far back was not cleaned, a tone perhaps.
void SourceSeparation::analyseUpTo(int iTime) {
  constexpr int kHop = kVoiceHopCycles * kCycleSamples;
  constexpr int kMostBack = 100 * kCycleSamples;
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  const int iLatest = entries[static_cast<std::size_t>(iNewest)].iEndTime;
  int iEnd = std::max({iLatest + kHop, (iTime - kMostBack) / kHop * kHop + kHop - 1, 3 * kHop - 1});
  for (; iEnd <= iTime; iEnd += kHop) {
    const cHandle last = cycles.cycleOf(iEnd);
    if (last >= 0) analyseFrame(last);
  }
}

// Patterns were learned from the loud parts of verbs; what is weaker than those says little.
float SourceSeparation::weightOf(const sVoiceFrame& frame) const {
  const int iLoudest = std::max(1, pMyChannel->pCycleInformation->trackers().immediate(0).spread());
  const float fRelative = kLoudPart * static_cast<float>(frame.iAmp) / static_cast<float>(iLoudest);
  return std::clamp(fRelative * fRelative, kLeastWeight, 1.0F);
}

bool SourceSeparation::canBeJudged(const sVoiceFrame& frame) const {
  std::array<float, kFirstScanPoints> fPoint;
  const auto fAmp = static_cast<float>(frame.iAmp);
  fPoint[kRepetition] = frame.iPeriod > 0 ? frame.fAlpha : 0;
  fPoint[kLevel] = fAmp / static_cast<float>(std::max(1, pMyChannel->iMinAmplitudeForPotentialSegment));
  fPoint[kLevelOfTalker] = fAmp / static_cast<float>(std::max(1, referenceAmp()));
  return std::all_of(psFirstScanStaticTestDefinition.begin(), psFirstScanStaticTestDefinition.end(),
                     [&](const auto& test) { return fPoint[test.point] >= test.fLeast; });
}

// The frame's power as part of what is usual with the talker; above it the ratio of amplitudes.
float SourceSeparation::powerRatio(const sVoiceFrame& frame) const {
  constexpr float kLeast = 0.05F;
  constexpr float kMost = 1.3F;
  const float fRatio = frame.fPower / std::max(1.0F, voice[0].fMeanPower);
  return fRatio < 1 ? std::max(fRatio, kLeast) : std::min(std::sqrt(fRatio), kMost);
}

void SourceSeparation::analyseFrame(cHandle last) {
  iNewest = (iNewest + 1) % kHistory;
  sEntry& entry = entries[static_cast<std::size_t>(iNewest)];
  sVoiceFrame frame;
  analyseVoiceFrame(*pMyChannel, last, frame);
  entry.iEndTime = frame.iEndTime;
  entry.bVoiced = canBeJudged(frame);
  entry.fScore = entry.bVoiced ? scorer.score(frame.envelope, frame.iPeriod) : 0;
  entry.fWeight = weightOf(frame);
  if (entry.bVoiced) {
    heard.push(entry.fScore, entry.fWeight);
  } else {
    heard.pause();
  }
  calcCoefficients(frame, entry);
}

// ---- Coefficients

// What this frame and the one before it score.
float SourceSeparation::scoreAround(const sEntry& entry) const {
  const sEntry& before = entries[static_cast<std::size_t>((iNewest + kHistory - 1) % kHistory)];
  float fSum = 0;
  float fWeight = kNoScoreWeight;
  for (const sEntry* pEach : {&before, &entry}) {
    if (!pEach->bVoiced || pEach->iEndTime < 0) continue;
    fSum += pEach->fWeight * pEach->fScore;
    fWeight += pEach->fWeight;
  }
  return fSum / fWeight;
}

// Open while the evidence is for the learned talker. Between certainty for him and certainty for another both
// may talk at once: then only frames, and bins of them, that fit his voice pass.
void SourceSeparation::calcCoefficients(const sVoiceFrame& frame, sEntry& entry) {
  const float fValue = heard.value();
  const float fScore = scoreAround(entry) + kBothLeniency;
  if (entry.bVoiced) {
    fOwnPart += kOwnStep * ((fScore > kOwnFrame ? 1.0F : 0.0F) - fOwnPart);
    fOwnPart = std::min(fOwnPart, kMostOwnPart);
  }
  const float fBoth = ramp(fOwnPart, kNoOwnPart, kOwnPart);
  const float fTarget =
      std::max(ramp(fValue, kOthers, kOwn), fBoth * ramp(fValue, kOthersOfBoth, kOwnOfBoth));
  fOpen += (fTarget - fOpen) * (fTarget > fOpen ? kOpening : kClosing);
  const float fDoubt = 1 - ramp(fValue, kOthers, kCertain);
  entry.bMatched = isForOwn();
  // A frame without voice goes by what its neighbour scored.
  const float fGate = std::lerp(kLeastGate, kMostGate, ramp(fScore, kLowestScore, kHighestScore));
  std::array<float, kEnvelopeBins> fShare;
  fShare.fill(fGate);
  if (!entry.bVoiced || fDoubt == 0) {
    gains.pause();
  } else {
    gains.shareOfVoice(frame, fScore, pMyChannel->psSpeakerData->iPitchCentre, fShare);
  }
  const float fPower = powerRatio(frame);
  const float fWhenClosed = kMostWhenClosed * ramp(fScore, kClosedUpTo, kOpenFrom);
  const float fLeast = std::max(kLeftOfOthers, fBoth * fWhenClosed);
  for (std::size_t k = 0; k < fShare.size(); ++k) {
    const float fOwnShare = 1 + fDoubt * (fShare[k] - 1);
    entry.fCoefficient[k] = std::max(fLeast, fOpen * fOwnShare);
    fDefault[k] += kDefaultStep * fPower * (entry.fCoefficient[k] - fDefault[k]);
  }
}

const SourceSeparation::sEntry* SourceSeparation::entryOf(int iTime) const {
  constexpr int kHop = kVoiceHopCycles * kCycleSamples;
  for (int i = 0; i < kHistory; ++i) {
    const sEntry& entry = entries[static_cast<std::size_t>((iNewest - i + kHistory) % kHistory)];
    if (entry.iEndTime <= iTime) return entry.iEndTime > iTime - kHop ? &entry : nullptr;
  }
  return nullptr;
}

// The gain that makes up for what the learned talker's own sounds lose on average.
void SourceSeparation::followReference(const sEntry& entry) {
  if (!entry.bMatched || !entry.bVoiced || !isSelfVerbSegment(entry.iEndTime)) return;
  float fSum = 0;
  for (const float f : entry.fCoefficient) fSum += f;
  const float fReference = std::max(fSum / kEnvelopeBins, 1 / kMostGain);
  fGain += kReferenceStep * (std::clamp(1 / fReference, 1.0F, kMostGain) - fGain);
}

void SourceSeparation::separate(std::span<double> dSpectrum, int iLength, int /*iFirst*/, int iLast) {
  if (!isActive()) return;
  const sEntry* pEntry = entryOf(iLast);
  if (pEntry != nullptr) followReference(*pEntry);
  const auto& fCoefficient = pEntry != nullptr ? pEntry->fCoefficient : fDefault;
  const int iLimit = std::min(kEnvelopeSamples * std::min(pMyChannel->rateFactor(), 2), iLength / 2);
  const auto coefficientOf = [&](int k) {
    // The analysis bin of the same frequency; above 4 kHz the highest stands for all.
    const std::int64_t lBin = std::int64_t{k} * pMyChannel->iRealFrequency * kEnvelopeSamples /
                              (std::int64_t{iLength} * kAnalysisRate);
    return fCoefficient[static_cast<std::size_t>(std::min<std::int64_t>(lBin, kEnvelopeBins - 1))] * fGain;
  };
  dSpectrum[0] *= coefficientOf(0);
  for (int k = 1; k < iLength / 2; ++k) {
    const double dFactor = k < iLimit ? coefficientOf(k) : 0;
    dSpectrum[static_cast<std::size_t>(2 * k)] *= dFactor;
    dSpectrum[static_cast<std::size_t>(2 * k + 1)] *= dFactor;
  }
}

// ---- Verdicts

bool SourceSeparation::isSelfVerbSegment(int iTime) const {
  const cHandle cycle = pMyChannel->pCycleInformation->cycleOf(iTime);
  return cycle >= 0 && pMyChannel->pCycleInformation->at(cycle).bInSelfVerb;
}

float SourceSeparation::scoreOf(const sSegment& segment) const {
  float fSum = kBeforeFrames * heard.value();
  float fFrames = kBeforeFrames;
  for (const sEntry& entry : entries) {
    if (!entry.bVoiced || entry.iEndTime < segment.iStartTime || entry.iEndTime > segment.iEndTime) continue;
    fSum += entry.fWeight * entry.fScore;
    fFrames += entry.fWeight;
  }
  return fSum / fFrames;
}

SourceSeparation::Verdict SourceSeparation::verdictOn(const sSegment& segment) const {
  if (!isActive() || heard.frames() < 1) return Verdict::kUnknown;
  return scoreOf(segment) > -kVerbLeniency * ramp(fOwnPart, kNoOwnPart, kOwnPart) ? Verdict::kLearnedVoice
                                                                                  : Verdict::kOtherSound;
}
