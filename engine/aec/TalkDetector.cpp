#include "engine/aec/TalkDetector.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr int kUnityCoupling = 1024;
// A loudspeaker that hardly speaks beside a loud echo would tell of any: 24 dB, more than telephones have.
constexpr int kLargestCoupling = 16 * kUnityCoupling;
constexpr int kAudibleMic = 40;  // spread below which nobody hears an echo

// Evidence in dB, as ResidualModel gives it, and the score it earns.
struct sGrade {
  float fEvidence;
  int iScore;
};
constexpr std::array<sGrade, 12> psGrades{{{6.0F, score::kTwiceTheEcho},
                                           {4.5F, score::kWellAboveEcho},
                                           {3.5F, score::kAboveEcho},
                                           {3.0F, 60},
                                           {2.6F, 50},
                                           {2.2F, 45},
                                           {1.9F, 40},
                                           {1.7F, 38},
                                           {1.5F, 35},
                                           {1.3F, 27},
                                           {1.2F, 20},
                                           {1.1F, 4}}};

}  // namespace

void TalkDetector::clean(int iAggressiveLevel, int iTalkHoldSamples, int iHold2Samples) {
  *this = TalkDetector{};
  fThreshold = static_cast<float>(1500 - 50 * iAggressiveLevel) / 1000;
  iTalkHold = iTalkHoldSamples;
  iStrongHold = iHold2Samples;
}

int TalkDetector::echoPercent(const ResidualModel& residual) {
  return static_cast<int>(100 * std::min(residual.evidence(), 10.0F) / 2);
}

void TalkDetector::resetTimers(sAecCycle& now) {
  now.iStrongHoldEnd = std::min(now.iStrongHoldEnd, now.iFirst - 1);
  now.iTalkHoldEnd = std::min(now.iTalkHoldEnd, now.iFirst - 1);
  endFrequencyDomainHold(now);
  iStrongCycles = 0;
}

void TalkDetector::endFrequencyDomainHold(sAecCycle& now) {
  now.iFdHoldEnd = std::min(now.iFdHoldEnd, now.iFirst - 1);
}

// ---- The score

// The thresholds of talk, looser while there are two echo paths: a filter covers but one.
float TalkDetector::threshold(const sAecCycle& now) const {
  constexpr float kLeast = 0.3F;
  return std::max(fThreshold * (now.bDoublePath3 ? 0.75F : 1.0F), kLeast);
}

// Loudest echo ever seen at this loudspeaker level.
float TalkDetector::expectedEcho(const sAecCycle& now) const {
  return static_cast<float>(now.iSpkReachAmp) * static_cast<float>(iCoupling) / kUnityCoupling;
}

// What is louder than that is talk. 0: nothing can be said.
int TalkDetector::scoreOfCoupling(const sAecCycle& now) const {
  if (iCoupling == 0 || now.bWeak) return 0;
  const float fRatio = static_cast<float>(now.iMicAmp) / std::max(1.0F, expectedEcho(now) * threshold(now));
  return fRatio > 2.0F   ? score::kTwiceTheEcho
         : fRatio > 1.7F ? score::kWellAboveEcho
         : fRatio > 1.5F ? score::kAboveEcho
                         : 0;
}

int TalkDetector::scoreOfResidual(float fEvidence, const ResidualModel& residual,
                                  const sAecCycle& now) const {
  const float fLimit = threshold(now);
  for (const sGrade& grade : psGrades) {
    if (fEvidence < grade.fEvidence * fLimit) continue;
    return now.bWeak ? std::min(grade.iScore, score::kWellAboveEcho) : grade.iScore;
  }
  // Nothing beyond the expectation: the surer the filter, the lower the score.
  if (fEvidence > 0.8F * fLimit) return score::kDefault;
  if (fEvidence > 0.5F * fLimit) return score::kEchoLikely;
  if (residual.isLearning()) {
    const bool bBelow = iCoupling > 0 && static_cast<float>(now.iMicAmp) < expectedEcho(now);
    return bBelow ? score::kEchoByCoupling : score::kEcho;
  }
  return residual.remaining() < 0.25F ? score::kEchoCertain : score::kResidualBelowReference;
}

int TalkDetector::scoreOf(const sAecCycle& now, const ResidualModel& residual, bool bFarSilent) const {
  if (now.bHowling) return score::kHowling;
  if (bFarSilent) {
    return now.bMicActive && !now.bWeak ? score::kFarSilentNearActive : score::kFarSilent;
  }
  if (now.bPathLost) return score::kEcho;
  if (residual.hasSeenEcho()) {
    if (now.iMicAmp < kAudibleMic) return score::kBelowResidual;
    const int iByCoupling = scoreOfCoupling(now);
    if (iByCoupling != 0) return iByCoupling;
    return scoreOfResidual(residual.evidence(), residual, now);
  }
  // No filter has found echo. What is far louder than the loudspeaker is talk; of the rest nothing is known,
  // and what is not known to be echo passes.
  if (!now.bWeak && now.iMicAmp > 2 * now.iSpkReachAmp) return score::kTwiceTheEcho;
  return now.bMicActive ? 20 : 4;
}

void TalkDetector::checkNearEndTalk(sAecCycle& now, const ResidualModel& residual, const sAecCoefSet& active,
                                    bool bFarSilent) {
  updateCoupling(now, active.isGoodForCoupling(), residual);
  now.iTalkScore = scoreOf(now, residual, bFarSilent);
  now.bNearEndTalk = now.iTalkScore > 0;
  const int iRatio = static_cast<int>(std::min<std::int64_t>(
      std::int64_t{now.iMicAmp} * kUnityCoupling / std::max(1, now.iSpkReachAmp), 1 << 30));
  now.bMicAboveEcho = iRatio > std::max(8 * iCoupling, 2048);
  updateStrongHold(now, active.isLastinglyGood());
  updateTalkHold(now);
  shortenHolds(now);
  iLastScores[0] = iLastScores[1];
  iLastScores[1] = iLastScores[2];
  iLastScores[2] = now.iTalkScore;
}

// With the echo alone in the microphone, the largest ratio seen; it falls slowly, so that a moved phone is
// measured anew.
void TalkDetector::updateCoupling(const sAecCycle& now, bool bFilterGood, const ResidualModel& residual) {
  if (!bFilterGood || now.iMicAmp <= 6000 || now.iSpkSpanAmp <= 3000 || echoPercent(residual) >= 60) return;
  const int iRatio = static_cast<int>(static_cast<std::int64_t>(now.iMicAmp) * kUnityCoupling /
                                      std::max(1, now.iSpkSpanAmp));
  iCoupling = std::min(std::max(iCoupling * 1023 / 1024, iRatio), kLargestCoupling);
}

// ---- Holds

void TalkDetector::updateStrongHold(sAecCycle& now, bool bFilterGood) {
  constexpr int kStrongCycles = 12;
  constexpr int kStrongCyclesOnStablePath = 8;
  constexpr int kLeastHold = 200;
  if (now.iTalkScore < score::kAboveEcho) {
    iStrongCycles /= 2;
    if (iStrongCycles == 0) iStrongAmp = 0;
    return;
  }
  const std::int64_t a2 = std::int64_t{now.iMicAmp} * now.iMicAmp;
  if (!now.bMicActive || a2 * 32 <= now.lLargestPower) return;
  ++iStrongCycles;
  iStrongAmp = std::max(iStrongAmp, now.iMicAmp1);
  const bool bOver = now.iFirst > now.iStrongHoldEnd && !bFilterGood;
  if (iStrongCycles < (now.bStablePath && !bOver ? kStrongCyclesOnStablePath : kStrongCycles)) return;
  now.iStrongHoldEnd = std::max(now.iStrongHoldEnd, now.iFirst + std::max(iStrongHold, kLeastHold));
  now.iStrongHoldAmp = iStrongAmp;
}

void TalkDetector::updateTalkHold(sAecCycle& now) {
  constexpr int kStrong = 74;
  constexpr int kStartGuard = 2000;  // after the microphone's start
  const int s = now.iTalkScore;
  iTalkAmp = s < 1 ? 0 : std::max(iTalkAmp, now.iMicAmp1);
  if (s < 1) {
    if (now.iFirst - now.iTalkHoldEnd > kRecentHold) now.iTalkHoldAmp = 0;
    return;
  }
  now.iTalkHoldAmp = std::max(now.iTalkHoldAmp, iTalkAmp);
  const bool bStarted = now.iMicStart >= 0 && now.iFirst - now.iMicStart > kStartGuard;
  if (now.iFirst > now.iTalkHoldEnd && (bStarted || s > kStrong)) {
    now.iTalkHoldEnd = now.iFirst + (s < 18 ? std::min(iTalkHold / 8, 100) : iTalkHold);
  } else if (iLastScores[0] + iLastScores[1] + iLastScores[2] > 0) {
    now.iTalkHoldEnd = std::max(now.iTalkHoldEnd, now.iFirst + 64);
  }
  if (s > kStrong) now.iTalkHoldEnd = std::max(now.iTalkHoldEnd, now.iFirst + std::max(iTalkHold / 2, 200));
}

void TalkDetector::shortenHolds(sAecCycle& now) const {
  const int s = now.iTalkScore;
  if (s >= 0) return;
  if (s < -19 && now.iFirst - now.iLastClipping < 8000) now.iStrongHoldEnd = now.iFirst - 1;
  const int iLeft = now.iStrongHoldEnd - now.iFirst;
  if (iLeft <= 0 || now.iFirst <= now.iTalkHoldEnd) return;
  const auto exceeds = [&](int iNumerator, int iDenominator) {
    return static_cast<std::int64_t>(now.iMicAmp) * iDenominator >
           static_cast<std::int64_t>(now.iStrongHoldAmp) * iNumerator;
  };
  if ((s <= score::kEcho && exceeds(2, 1)) || (!now.bStablePath && exceeds(3, 2))) {
    now.iStrongHoldEnd = now.iFirst + iLeft / 4;
  } else if ((now.iQuietCycles >= 51 && s < -19) || exceeds(8, 1)) {
    now.iStrongHoldEnd = now.iFirst + iLeft / 2;
  }
}

// ---- Frequency domain

// The hold keeps the near-end flag over the pauses of talk that was certain; with a score below 0 the gain
// then stays as it is or rises slowly.
void TalkDetector::checkFrequencyDomainTalk(sAecCycle& now, const ResidualModel& residual,
                                            bool bFarSilent) const {
  now.iFdScore = scoreOf(now, residual, bFarSilent);
  now.bFdNearEndTalk = now.iFdScore > 0;
  if (now.bPathLost) endFrequencyDomainHold(now);
  const int iHeldFrom = residual.isLearning() ? score::kAboveEcho : 50;
  if (now.iFdScore >= iHeldFrom && !bFarSilent) {
    const int iHold = now.iFdScore >= score::kAboveEcho ? iTalkHold : iTalkHold / 2;
    now.iFdHoldEnd = std::max(now.iFdHoldEnd, now.iFirst + iHold);
    now.iFdHoldAmp = std::max(now.iFdHoldAmp, now.iMicAmp1);
  } else if (now.iFirst > now.iFdHoldEnd) {
    if (now.iFirst - now.iFdHoldEnd > kRecentHold) now.iFdHoldAmp = 0;
  } else if (!now.bHowling) {
    now.bFdNearEndTalk = true;
  }
}
