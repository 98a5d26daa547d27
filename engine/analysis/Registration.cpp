#include "engine/analysis/Registration.h"

#include <algorithm>
#include <cmath>

#include "engine/analysis/TalkerSplit.h"
#include "engine/MyChannel.h"

namespace {

// While learning, every period is accepted.
constexpr int kLearningCentre = 56;  // samples
constexpr int kLearningSpread = 44;

constexpr int kLevelCycles = 4;
constexpr int kShortestPeriod = 12;  // samples
constexpr int kLongestPeriod = 100;
constexpr int kMinVerbs = 3;
constexpr int kMatchesOfSureVerb = 6;  // more than that
constexpr int kMatchesOfVerb = 4;
constexpr double kOneVoiceDeviation = 8;  // samples: no outliers below
constexpr double kLeastDeviation = 5;
constexpr double kMostDeviation = 7;
constexpr int kRangeDeviations = 4;

// The talker must stand out from what is behind him, and reach a level at which the line's own noise is
// small.
constexpr int kMinVoiceOverNoise = 3;  // as spreads, 10 dB
constexpr int kMinVoiceLevel = 1000;   // spread

// A histogram of periods with its mean and deviation.
class PeriodHistogram {
 public:
  void add(int iPeriod) { ++piCount[static_cast<std::size_t>(clamped(iPeriod))]; }
  static int clamped(int iPeriod) { return std::clamp(iPeriod, kShortestPeriod, kLongestPeriod); }

  [[nodiscard]] int entries() const {
    int iSum = 0;
    for (const int iCount : piCount) iSum += iCount;
    return iSum;
  }
  [[nodiscard]] double mean() const {
    double dSum = 0;
    for (std::size_t u = 0; u < piCount.size(); ++u) dSum += static_cast<double>(u) * piCount[u];
    return dSum / std::max(1, entries());
  }
  [[nodiscard]] double deviation() const {
    const double dMean = mean();
    double dSum = 0;
    for (std::size_t u = 0; u < piCount.size(); ++u) {
      const double d = static_cast<double>(u) - dMean;
      dSum += d * d * piCount[u];
    }
    return std::sqrt(dSum / std::max(1, entries()));
  }
  // Empties the outer bin that lies farther from the mean; both when they are equally far.
  void removeOutlier() {
    const auto occupied = [](int iCount) { return iCount > 0; };
    const auto low = std::find_if(piCount.begin(), piCount.end(), occupied);
    const auto high = std::find_if(piCount.rbegin(), piCount.rend(), occupied);
    const double dBelow = mean() - static_cast<double>(low - piCount.begin());
    const double dAbove = static_cast<double>(piCount.rend() - high - 1) - mean();
    if (dBelow >= dAbove) *low = 0;
    if (dAbove >= dBelow) *high = 0;
  }

  std::array<int, kPitchBins> piCount{};
};

double oneVoice(double dDeviation) {
  return std::clamp(dDeviation, kLeastDeviation, kMostDeviation);
}

// Where the level, seen backwards from the verb's end, stops rising. The level of a low voice ripples from
// period to period, which is no fall.
cHandle loudestBehind(const CycleInformation& cycles, const sSegment& segment) {
  constexpr int kRipplePercent = 70;
  cHandle start = segment.last;
  int iLargest = cycles.calcAmp(start, kLevelCycles);
  for (cHandle c = start; cycles.at(c).StartIndex > segment.iStartTime;) {
    c = CycleInformation::before(c, 1);
    if (!cycles.isValid(c)) break;
    const int iAmp = cycles.calcAmp(c, kLevelCycles);
    if (iAmp * 100 < iLargest * kRipplePercent) break;
    if (iAmp < iLargest) continue;
    iLargest = iAmp;
    start = c;
  }
  return start;
}

// Forgets what was derived of a voice unless the registration has completed, also when memory was short.
struct VoiceOrNothing {
  MyChannel& channel;
  explicit VoiceOrNothing(MyChannel& owner) : channel(owner) {}
  ~VoiceOrNothing() {
    if (!channel.bRegistrationCompleted) channel.psSpeakerData->clear();
  }
  VoiceOrNothing(const VoiceOrNothing&) = delete;
  VoiceOrNothing& operator=(const VoiceOrNothing&) = delete;
};

bool isSureVerb(const sSegment& segment, int iMoreMatchesThan) {
  return segment.type == kSelfVerb && segment.bGood && segment.iNumMatches > iMoreMatchesThan;
}

}  // namespace

Registration::Registration(MyChannel& owner) : channel(owner), psStore(kMaxSegments) {}

void Registration::start() {
  channel.pSourceSeparation->initDynamicInfo();
  sSpeakerData& speaker = *channel.psSpeakerData;
  speaker.bHistogramsPresent = speaker.bTemplatesPresent = 1;
  speaker.iPitchCentre = kLearningCentre;
  speaker.iPitchSpread = kLearningSpread;
  channel.bRegistrationRunning = true;
  bOverflow = bPending = false;
  iSegments = 0;
}

bool Registration::validEntry() const {
  return channel.pFftSchema->validEntry();
}

// ---- While the talker speaks

void Registration::insertNewSegment(const sSegment& segment) {
  if (!validEntry()) return;
  if (iSegments >= kMaxSegments) {
    bOverflow = true;
    return;
  }
  psStore[static_cast<std::size_t>(iSegments++)] = segment;
}

sSegment* Registration::findSelfVerb(int iIdentity) {
  const auto isWanted = [&](const sSegment& segment) {
    return segment.type == kSelfVerb && segment.iIdentity == iIdentity;
  };
  FirstScan& scan = *channel.pFirstScan;
  for (int i = scan.closedSegments() - 1; i >= 0; --i) {
    if (isWanted(scan.closedSegment(i))) return &scan.closedSegment(i);
  }
  for (int i = iSegments - 1; i >= 0; --i) {
    if (isWanted(psStore[static_cast<std::size_t>(i)])) return &psStore[static_cast<std::size_t>(i)];
  }
  return nullptr;
}

void Registration::learnPending() {
  sSegment* pVerb = findSelfVerb(iPendingIdentity);
  if (pVerb != nullptr) stopSegmentDuringRegistration(*pVerb);
  bPending = false;
}

void Registration::handleProcessingForSegment(const sSegment& segment) {
  if (!channel.bRegistrationRunning || !validEntry()) return;
  if (bPending) learnPending();
  bPending = true;
  iPendingIdentity = segment.iIdentity;
  iPendingTime = segment.iEndTime;
  iPendingAmp = channel.pCycleInformation->calcAmp(segment.last, kLevelCycles);
}

void Registration::handleProcessingForCycle() {
  if (!bPending || !validEntry()) return;
  const CycleInformation& cycles = *channel.pCycleInformation;
  for (;;) {
    const cHandle next = cycles.cycleOf(iPendingTime + kCycleSamples);
    if (next < 0) return;
    const int iAmp = cycles.calcAmp(next, kLevelCycles);
    if (iAmp <= iPendingAmp) break;
    iPendingAmp = iAmp;
    iPendingTime = cycles.at(next).EndIndex;
  }
  learnPending();
}

void Registration::stopSegmentDuringRegistration(sSegment& segment) {
  const CycleInformation& cycles = *channel.pCycleInformation;
  if (!cycles.isValid(segment.last) || cycles.at(segment.last).EndIndex != segment.iEndTime) return;
  const cHandle start = loudestBehind(cycles, segment);
  channel.pSourceSeparation->learnAndPopulateDynamicInfoDuringRegistration(start, segment.last);
  const sSpectralNoiseType& noise = channel.pOutputData->noise();
  for (cHandle c = start;; c = CycleInformation::before(c, -1)) {
    channel.pFftSchema->addSchemaToSegment(c, &segment, noise);
    if (c == segment.last) break;
  }
}

// ---- The end

void Registration::end() {
  if (bPending) learnPending();
  while (channel.pFirstScan->closedSegments() > 0) channel.pFirstScan->shiftOneSegment();
  channel.bRegistrationRunning = channel.bRegistrationCompleted = false;
}

Registration::Outcome Registration::discard() {
  end();
  const VoiceOrNothing atTheEnd{channel};
  return isWeak() ? Outcome::kWeak : learnPitch(true);
}

Registration::Outcome Registration::stop(bool bFresh) {
  end();
  const VoiceOrNothing atTheEnd{channel};
  const Outcome outcome = derive(bFresh);
  channel.bRegistrationCompleted = outcome == Outcome::kLearned;
  return outcome;
}

Registration::Outcome Registration::derive(bool bFresh) {
  if (isWeak()) return Outcome::kWeak;
  if (const Outcome outcome = learnPitch(bFresh); outcome != Outcome::kLearned) return outcome;
  if (areTwoTalkers(splitTalkers(channel.pSourceSeparation->patterns()))) return Outcome::kMixed;
  learnHistograms();
  learnTemplates();
  sSpeakerData& speaker = *channel.psSpeakerData;
  speaker.bHistogramsPresent = speaker.iHistograms > 0;
  speaker.bTemplatesPresent = speaker.iTemplates > 0;
  return channel.pSourceSeparation->stopRegistration() ? Outcome::kLearned : Outcome::kTooShort;
}

// Too soft for the detector to find anything, or hardly above the background.
bool Registration::isWeak() const {
  std::vector<int> levels;
  for (int i = 0; i < iSegments; ++i) {
    const sSegment& segment = psStore[static_cast<std::size_t>(i)];
    if (isSureVerb(segment, kMatchesOfVerb)) levels.push_back(segment.iAmp);
  }
  const int iLoudest = channel.pCycleInformation->largestAmp();
  if (levels.empty()) return iLoudest < kMinVoiceLevel;
  std::nth_element(levels.begin(), levels.begin() + static_cast<std::ptrdiff_t>(levels.size() / 2),
                   levels.end());
  const int iVoice = levels[levels.size() / 2];
  return iVoice < kMinVoiceLevel || iVoice < kMinVoiceOverNoise * channel.pOutputData->noise().iNoiseLevel;
}

Registration::Outcome Registration::learnPitch(bool bFresh) {
  PeriodHistogram first;
  for (int i = 0; i < iSegments; ++i) {
    const sSegment& segment = psStore[static_cast<std::size_t>(i)];
    if (isSureVerb(segment, kMatchesOfSureVerb)) first.add(segment.lastMatch().period());
  }
  if (first.entries() < kMinVerbs) return Outcome::kTooShort;
  while (first.entries() > 2) {
    const double dMean = first.mean();
    if (first.deviation() < kOneVoiceDeviation || dMean <= kShortestPeriod || dMean > kLongestPeriod - 1)
      break;
    first.removeOutlier();
  }
  if (first.entries() == 0) return Outcome::kMixed;  // two groups of the same size, and nothing between them
  sSpeakerData& speaker = *channel.psSpeakerData;
  if (bFresh) {
    speaker.piPitchHistogram.fill(0);
    speaker.iHistograms = speaker.iTemplates = 0;
  }
  const double dReach = kRangeDeviations * oneVoice(first.deviation());
  PeriodHistogram learned;
  learned.piCount = speaker.piPitchHistogram;
  for (int i = 0; i < iSegments; ++i) {
    const sSegment& segment = psStore[static_cast<std::size_t>(i)];
    if (!isSureVerb(segment, kMatchesOfVerb)) continue;
    const int iPeriod = PeriodHistogram::clamped(segment.lastMatch().period());
    if (std::abs(iPeriod - first.mean()) <= dReach) learned.add(iPeriod);
  }
  speaker.piPitchHistogram = learned.piCount;
  speaker.iPitchEntries = learned.entries();
  if (speaker.iPitchEntries == 0) return Outcome::kTooShort;
  speaker.iPitchCentre = static_cast<int>(std::lround(learned.mean()));
  speaker.iPitchSpread = static_cast<int>(std::lround(oneVoice(learned.deviation())));
  return Outcome::kLearned;
}

// Whether a verb's middle match lies in the learned range.
bool Registration::isOwn(const sSegment& segment) const {
  if (segment.type != kSelfVerb || segment.iNumMatches <= kMatchesOfVerb) return false;
  const sSpeakerData& speaker = *channel.psSpeakerData;
  const int iReach = kRangeDeviations * speaker.iPitchSpread;
  const int iPeriod = segment.asMatch[static_cast<std::size_t>(segment.iNumMatches / 2)].period();
  return iPeriod >= std::max(speaker.iPitchCentre - iReach, kShortestPeriod) &&
         iPeriod <= std::min(speaker.iPitchCentre + iReach, kLongestPeriod);
}

void Registration::learnHistograms() {
  sSpeakerData& speaker = *channel.psSpeakerData;
  for (int i = 0; i < iSegments && speaker.iHistograms < kMaxHistograms; ++i) {
    const sSegment& segment = psStore[static_cast<std::size_t>(i)];
    if (!isOwn(segment) || !segment.bHasHistogram) continue;
    if (channel.pMyFilters->validateFFTHistogram(true, segment.histogram)) continue;
    speaker.histograms[static_cast<std::size_t>(speaker.iHistograms++)] = segment.histogram;
  }
}

void Registration::learnTemplates() {
  constexpr int kTheSame = 0;
  sSpeakerData& speaker = *channel.psSpeakerData;
  for (int i = 0; i < iSegments; ++i) {
    const sSegment& segment = psStore[static_cast<std::size_t>(i)];
    if (!isOwn(segment)) continue;
    for (int k = 0; k < segment.iSchemas && speaker.iTemplates < kMaxTemplates; ++k) {
      const sFftSchemaType& schema = segment.asSchema[static_cast<std::size_t>(k)];
      float fDrift;
      if (channel.pFftSchema->validateSchema(schema, kTheSame, &fDrift) >= 0) continue;
      speaker.templates[static_cast<std::size_t>(speaker.iTemplates++)] = schema;
    }
  }
}
