// Learning a voice, and its part of a profile.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "engine/analysis/SourceSeparation.h"
#include "engine/MyChannel.h"

namespace {

constexpr int kWeakest = 5;          // stretches below a fifth of the good verbs' level are not learned
constexpr int kExtendAbove = 3;      // a stretch reaches back while its level is a third of the largest
constexpr int kMostExtension = 250;  // cycles, one second
constexpr int kUnsettledSamples = 2 * kVoiceHopCycles * kCycleSamples;

// The strongest bins that stand above their neighbours, strongest first.
void takePeaks(sVoicePattern& pattern) {
  const auto& f = pattern.fMagnitude;
  for (int i = 0; i < static_cast<int>(pattern.sPeakBin.size()); ++i) {
    int iBest = -1;
    for (int k = 2; k + 1 < kEnvelopeBins; ++k) {
      const auto u = static_cast<std::size_t>(k);
      const bool bPeak = f[u] >= f[u - 1] && f[u] > f[u + 1];
      const bool bTaken = std::find(pattern.sPeakBin.begin(), pattern.sPeakBin.begin() + i, k) !=
                          pattern.sPeakBin.begin() + i;
      if (bPeak && !bTaken && (iBest < 0 || f[u] > f[static_cast<std::size_t>(iBest)])) iBest = k;
    }
    if (iBest < 0) return;
    pattern.sPeakBin[static_cast<std::size_t>(i)] = static_cast<std::int16_t>(iBest);
    pattern.iPeaks = i + 1;
  }
}

}  // namespace

void SourceSeparation::initDynamicInfo() {
  if (psPatterns.size() == 0) psPatterns = ZeroedArray<sVoicePattern>(kMaxPatterns);
  uLearnedFrames = 0;
  uTakeEvery = 1;
  bBreakOpen = false;
}

void SourceSeparation::terminateDynamicInfo() {
  voice[0] = sLearnedVoice{};
  psPatterns = ZeroedArray<sVoicePattern>();
}

int SourceSeparation::referenceAmp() const {
  const FirstScan& scan = *pMyChannel->pFirstScan;
  const bool bConfident = pMyChannel->pMySubState->isHavingConfidence();
  return std::max(scan.previousBurstsAmplitude(), bConfident ? scan.burstAmplitude() : 0);
}

void SourceSeparation::learnAndPopulateDynamicInfoDuringRegistration(cHandle from, cHandle to) {
  const CycleInformation& cycles = *pMyChannel->pCycleInformation;
  if (!cycles.isValid(from) || !cycles.isValid(to)) return;
  const int iLength = (cycles.at(to).EndIndex - cycles.at(from).StartIndex + 1) / kCycleSamples;
  int iLargest = cycles.calcAmp(to, std::max(1, iLength));
  if (iLargest * kWeakest < referenceAmp()) return;
  cHandle first = from;
  for (int i = 0; i < kMostExtension; ++i) {
    const cHandle earlier = CycleInformation::before(first, 1);
    if (!cycles.isValid(earlier) || cycles.at(earlier).StartIndex > cycles.at(first).StartIndex ||
        cycles.at(earlier).StartIndex <= iLastLearned) {
      break;
    }
    const int iAmp = cycles.calcAmp(earlier, kVoiceFrameCycles);
    if (iAmp * kExtendAbove < iLargest) break;
    iLargest = std::max(iLargest, iAmp);
    first = earlier;
  }
  bool bBreak = true;
  const int iEnd = cycles.at(to).EndIndex;
  for (int iTime = cycles.at(first).EndIndex; iTime <= iEnd; iTime += kVoiceHopCycles * kCycleSamples) {
    const cHandle last = cycles.cycleOf(iTime);
    if (last < 0 || iTime < kEnvelopeSamples - 1 || cycles.at(last).EndIndex <= iLastLearned) continue;
    sVoiceFrame frame;
    analyseVoiceFrame(*pMyChannel, last, frame);
    if (!frame.bVoiced) continue;
    addPattern(frame, bBreak);
    bBreak = false;
  }
  iLastLearned = std::max(iLastLearned, iEnd);
}

void SourceSeparation::addPattern(const sVoiceFrame& frame, bool bBreak) {
  sLearnedVoice& own = voice[0];
  bBreakOpen |= bBreak;
  if (uLearnedFrames++ % uTakeEvery != 0) return;
  if (own.iPatterns >= kMaxPatterns) keepEverySecondPattern();
  bBreak = std::exchange(bBreakOpen, false);
  sVoicePattern& pattern = psPatterns[static_cast<std::size_t>(own.iPatterns++)];
  pattern = sVoicePattern{};
  pattern.uFlags = sVoicePattern::kValid | (bBreak ? sVoicePattern::kBreak : 0U);
  pattern.iEndTime = frame.iEndTime;
  pattern.iPeriod = frame.iPeriod;
  pattern.iPeriodMove = bBreak ? 0 : frame.iPeriod - iLastPeriod;
  iLastPeriod = frame.iPeriod;
  pattern.fPower = frame.fPower;
  pattern.fAlpha = frame.fAlpha;
  pattern.envelope = frame.envelope;
  for (std::size_t k = 0; k < kEnvelopeBins; ++k) {
    pattern.fMagnitude[k] = std::sqrt(frame.fBinPower[k]);
    pattern.fBackground[k] = std::sqrt(frame.fBackground[k]);
  }
  pMyChannel->pMyFilters->buildFFTHistogram(pattern.histogram, frame.iEndTime + 1 - frame.iPeriod,
                                            frame.iEndTime);
  takePeaks(pattern);
}

// A long registration is represented evenly: when the records are full, half of them make room, and from then
// on half as many frames are taken. A break stays between the records that it was between.
void SourceSeparation::keepEverySecondPattern() {
  sLearnedVoice& own = voice[0];
  const auto uKept = static_cast<std::size_t>(own.iPatterns / 2);
  std::uint32_t uBreakOfDropped = 0;
  for (std::size_t i = 0; i < uKept; ++i) {
    const std::uint32_t uBreak =
        std::exchange(uBreakOfDropped, psPatterns[2 * i + 1].uFlags & sVoicePattern::kBreak);
    psPatterns[i] = psPatterns[2 * i];
    psPatterns[i].uFlags |= uBreak;
  }
  bBreakOpen |= uBreakOfDropped != 0;
  own.iPatterns = static_cast<std::int32_t>(uKept);
  uTakeEvery *= 2;
}

// The last sounds before a break, and the very last ones, die away and are no pattern of a voice.
bool SourceSeparation::stopRegistration() {
  sLearnedVoice& own = voice[0];
  own.bLearned = 0;
  const std::span all(psPatterns.data(), static_cast<std::size_t>(own.iPatterns));
  for (std::size_t i = 1; i <= all.size(); ++i) {
    if (i < all.size() && (all[i].uFlags & sVoicePattern::kBreak) == 0) continue;
    const int iSettled = all[i - 1].iEndTime - kUnsettledSamples;
    for (std::size_t back = i; back-- > 0 && all[back].iEndTime > iSettled;)
      all[back].uFlags &= ~static_cast<std::uint32_t>(sVoicePattern::kValid);
  }
  if (!buildLearnedVoice(all, own)) return false;
  scorer.learn(own, patterns());
  gains.learn();
  own.bLearned = 1;
  return true;
}

// ---- Profiles

void SourceSeparation::copySpeakerDataFromDynamicInfo(std::uint8_t* puProfile) const {
  std::memcpy(puProfile, voice.data(), kSeparationBytes);
  if (patternRecords() == 0) return;
  std::memcpy(puProfile + kSeparationBytes, psPatterns.data(),
              static_cast<std::size_t>(patternRecords()) * kPatternBytes);
}

int SourceSeparation::copySpeakerDataToDynamicInfo(const std::uint8_t* puProfile) {
  constexpr int kRefused = 2;
  sLearnedVoice& own = voice[0];
  std::memcpy(&own, puProfile, kSeparationBytes);
  if (!own.isConsistent() || own.iPatterns > kMaxPatterns) {
    clean();
    return kRefused;
  }
  try {
    initDynamicInfo();
    const std::span all(psPatterns.data(), static_cast<std::size_t>(own.iPatterns));
    std::memcpy(all.data(), puProfile + kSeparationBytes, all.size_bytes());
  } catch (const std::bad_alloc&) {
    clean();
    return kRefused;
  }
  scorer.learn(own, patterns());
  gains.learn();
  cleanHistory();
  return 0;
}
