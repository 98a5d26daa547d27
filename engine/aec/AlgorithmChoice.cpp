#include "engine/aec/AlgorithmChoice.h"

#include <algorithm>

namespace {

constexpr int kVotesForFrequency = 2;
constexpr int kVotesForTime = 4;
constexpr int kRising = 33;  // twice the running average: something has just begun

}  // namespace

void AlgorithmChoice::clean(sAecMode aecMode) {
  *this = AlgorithmChoice{};
  mode = aecMode;
  iPreferredAlgorithm = mode.low() != 1 ? kTimeDomain : kNoAlgorithm;
}

void AlgorithmChoice::switchTo(int iAlgorithm) {
  iPreferredAlgorithm = iSelectedAlgorithm = iAlgorithm;
  iCyclesSinceSwitch = 0;
  iSwitchVotes = 0;
}

void AlgorithmChoice::forceTimeDomain() {
  if (iPreferredAlgorithm != kFrequencyDomain) return;
  switchTo(kTimeDomain);
}

bool AlgorithmChoice::isBad(const sAecCycle& now, const FrequencyFilter& filter) {
  using enum FrequencyFilter::Ratio;
  const float fBadNow = now.bRestarted ? 1.12F : 1.47F;
  const float fBadLasting = now.bRestarted ? 0.8F : 1.05F;
  return filter.ratio(kUsedNow) > fBadNow || filter.ratio(kAdaptedNow) > fBadNow ||
         filter.ratio(kUsedLasting) > fBadLasting || filter.ratio(kAdaptedLasting) > fBadLasting;
}

// Ratios against the time-domain figures: the present one may be a little worse when the lasting one is
// better; the better the filter cancels, the more freely.
bool AlgorithmChoice::frequencyDomainWins(const FrequencyFilter& filter, const sAecCoefSet& active) const {
  using enum FrequencyFilter::Ratio;
  const float fLeeway = iCyclesSinceSwitch <= 15 || filter.isHardlyHeard() ? 0.2F : 0.0F;
  const auto beats = [&](float fNow, float fLasting) {
    const auto less = [&](FrequencyFilter::Ratio which, float fMargin, int iFigure) {
      return filter.ratio(which) * 1000 < fMargin * static_cast<float>(iFigure);
    };
    return less(kUsedNow, fNow + fLeeway, active.r[0]) && less(kUsedLasting, fLasting, active.r[1]);
  };
  const float a = filter.ratio(kUsedNow);
  const float b = filter.ratio(kAdaptedNow);
  return beats(1.05F, 0.95F) || (a < 0.7F && b < 0.5F && beats(0.8F, 0.9F)) ||
         (a < 0.4F && b < 0.3F && beats(1.3F, 0.7F));
}

bool AlgorithmChoice::mustSwitchBack(const sAecCycle& now, const FrequencyFilter& filter,
                                     std::int64_t lTrackedMicPower) const {
  using enum FrequencyFilter::Ratio;
  // The tracked power is that of a spread, 8 times the mean square of a sine.
  const float fTracked = static_cast<float>(lTrackedMicPower) / 8;
  return filter.ratio(kUsedLasting) > 0.75F && filter.ratio(kUsedNow) > 1.05F && now.iRiseRatio >= kRising &&
         filter.speakerPower() > 2000 && filter.residualPower() > 4 * filter.echoPower() &&
         filter.micPower() > 4 * fTracked;
}

void AlgorithmChoice::chooseBestAecAlgorithm(const sAecCycle& now, const FrequencyFilter& filter,
                                             const sAecCoefSet& active, std::int64_t lTrackedMicPower,
                                             sProofs proofs) {
  using enum FrequencyFilter::Ratio;
  ++iCyclesSinceSwitch;
  if (!filter.isReady() || !proofs.bFrequencyDomain) {
    forceTimeDomain();
    return;
  }
  // While the loudspeaker is silent the ratios stand still, and the present figures say nothing of a filter.
  if (active.iSpeakerLevel < kSpeakerAudible) return;
  const bool bBad = isBad(now, filter);
  const bool bWins = !bBad && frequencyDomainWins(filter, active);
  if (iSelectedAlgorithm != kFrequencyDomain) {
    iSwitchVotes = bWins ? iSwitchVotes + 1 : 0;
    const bool bAtOnce =
        !bBad && filter.ratio(kUsedNow) < 0.4F && !now.bMicQuiet && now.iRiseRatio >= kRising;
    if (iSwitchVotes > kVotesForFrequency || bAtOnce || (mode.high() == 1 && bWins))
      switchTo(kFrequencyDomain);
    return;
  }
  if (mode.high() != 3) return;
  // Talk raises the figures of both filters alike; only a clear advantage counts as a vote.
  const bool bTimeBetter = filter.ratio(kUsedNow) * 800 > static_cast<float>(active.r[0]) &&
                           filter.ratio(kUsedLasting) * 800 > static_cast<float>(active.r[1]) &&
                           active.isGood() && proofs.bTimeDomain;
  iSwitchVotes = bTimeBetter ? iSwitchVotes + 1 : 0;
  if (iSwitchVotes > kVotesForTime || mustSwitchBack(now, filter, lTrackedMicPower)) switchTo(kTimeDomain);
}
