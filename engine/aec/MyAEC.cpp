#include "engine/aec/MyAEC.h"

#include <algorithm>

#include "engine/MyChannel.h"

namespace {

constexpr int kSilentSpeaker = 200;   // spread below which the loudspeaker makes no audible echo
constexpr int kSettledCycles = 2501;  // after a switch, before one filter may run alone
constexpr int kResidualModeExtra = 30;
constexpr int kTalkTail = 160;  // samples for which a room still sounds beyond the filter

}  // namespace

// ---- Life

void MyAEC::clean() {
  iAecMode = sAecMode::ofAlgorithm(pMic->iAecAlgorithm);
  echoSpan = sEchoSpan::ofTail(pMic->iAecTailType, pMic->iAecTailStart);
  now = sAecCycle{};
  speaker.clean(pMic->pSpkChannel);
  levels.clean(pMic);
  delaySearch.clean(pMic, &speaker, echoSpan);
  frequencyFilter.clean(pMic, &speaker, echoSpan);
  // At rates without a transform the time-domain filter does all of it, and its estimate is always used.
  if (iAecMode.hasFrequencyDomain() && !frequencyFilter.supportsRate()) iAecMode = sAecMode::ofAlgorithm(4);
  timeFilter.clean(&speaker, &delaySearch, echoSpan, iAecMode);
  choice.clean(iAecMode);
  timeResidual.clean(kCycleSamples);
  const auto uFullRate = static_cast<std::size_t>(kCycleSamples * pMic->rateFactor());
  frequencyResidual.clean(frequencyFilter.supportsRate() ? uFullRate : kCycleSamples);
  talk.clean(pMic->iAecAggressiveLevel, pMic->iAecTalkHoldSamples, pMic->iAecHold2Samples);
  howling.clean(pMic, pMic->iAecHowlingLevel);
  breathing.clean();
  history.clean(pMic->iAecMinOutput, pMic->iAecSupressionHold);
  psEchoRing.clean(pMic->rateFactor());
  bEchoOutputActive = false;
  iEchoOutputStart = 0;
  bEchoBySpectrum = true;
  iEchoLevel = iEchoReference = 0;
  iLastStrongEcho = kNever;
  iResidualMode = 0;
  iResidualModeLimit = 100;
  iPathChanges = iLosses = 0;
  iLastRecentring = kNever;
}

// ---- One cycle

void MyAEC::performAec(cHandle cycle) {
  beginCycle(cycle);
  measureSpeaker();
  searchDelay();
  if (pMic->iAecHowlingLevel > 0) checkHowling();
  now.iResidualRatio = kUnityQ7;
  now.iWorkingAmp = now.iMicAmp;
  if (needsTimeDomain()) {
    performTimeDomainAnalysis();
  } else {
    now.iTalkScore = score::kDefault;  // what it said last means nothing any more
    now.bConvergenceOk = false;
  }
  if (iAecMode.hasFrequencyDomain()) performFrequencyDomainAnalysis();
  levels.updateRise(now);
  updateBurst();
  if (now.bClipping || now.anyDoublePath() || now.bLoudBurst) talk.resetTimers(now);
  updateResidualMode();
  updateSupression();
  if (iAecMode.uValue != 0x01) {
    prepareSpectralNoise();
  } else {
    measureEchoLevel();
  }
}

void MyAEC::beginCycle(cHandle cycle) {
  const sCycleInformation& info = pMic->pCycleInformation->at(cycle);
  now.cycle = cycle;
  now.iFirst = info.StartIndex;
  now.iLast = info.EndIndex;
  now.iSpkLast = speaker.newest();
  levels.measure(now);
  levels.cacheMicValues(now);
}

void MyAEC::measureSpeaker() {
  constexpr int kShortSpan = 96;
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const bool bFrequency = choice.preferred() == kFrequencyDomain;
  const int iStart = bFrequency ? frequencyFilter.bulkDelay() : active.iStart;
  const int iLength = bFrequency ? frequencyFilter.endDelay() - iStart : active.iLength;
  now.iSpkReachAmp = speaker.calcSpkrAmp(now.iLast - iStart, iLength + kShortSpan);
  now.iSpkSpanAmp = speaker.calcSpkrAmp(now.iLast - active.iStart, active.iLength);
  const int iPeak = active.newestPeak() == kUnknownPeak ? active.iStart : active.newestPeak();
  now.iSpkAmp = speaker.calcSpkrAmp(now.iLast - iPeak, kShortSpan);
  now.iSpkAverageAmp = std::max(1, (now.iSpkAverageAmp * 31 + now.iSpkAmp) / 32);
}

void MyAEC::searchDelay() {
  const bool bTalk = needsTimeDomain() && (now.bMicQuiet || now.iTalkScore > 99);
  const bool bMayCount =
      iAecMode.hasFrequencyDomain() ? !bTalk && delaySearch.speakerPower() >= 1000 : !bTalk;
  delaySearch.setCoupling(talk.coupling());
  noteStrongEcho();
  constexpr float kCancelled = 0.35F;  // residual over microphone, 9 dB
  delaySearch.setCalm(choice.preferred() == kFrequencyDomain && frequencyFilter.matches() &&
                      frequencyFilter.ratio(FrequencyFilter::kUsedNow) < kCancelled);
  delaySearch.updateEchoDelayParams(now, bMayCount);
  now.iEchoDelay = delaySearch.delay();
}

// An echo far above its average stands out: then only large changes of level say where it comes from.
void MyAEC::noteStrongEcho() {
  constexpr int kStrong = 8;
  constexpr int kLeastReference = 600;
  constexpr int kRemembered = 40000;  // samples
  if (iEchoLevel > kStrong * std::max(iEchoReference, kLeastReference)) iLastStrongEcho = now.iFirst;
  iEchoReference = (iEchoReference * 63 + iEchoLevel) / 64;
  delaySearch.setStrongEcho(now.iFirst - iLastStrongEcho < kRemembered &&
                            now.iTalkScore >= score::kFarSilent);
}

void MyAEC::checkHowling() {
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const bool bSure = now.bStablePath && active.isLastinglyGood();
  // Of the ten latest cycles that have come in: the loudspeaker's packets may be behind.
  const int iSpkNow = std::min(now.iLast, (now.iSpkLast + 1) / kCycleSamples * kCycleSamples - 1);
  howling.checkHowlingConditions(now, speaker.calcSpkrAmp(iSpkNow, 10 * kCycleSamples - 1), bSure);
}

bool MyAEC::needsTimeDomain() const {
  return iAecMode.high() != 1 || !frequencyFilter.isReady() || choice.cyclesSinceSwitch() < kSettledCycles ||
         choice.preferred() != kFrequencyDomain;
}

// Whether the loudspeaker has been silent at all delays of the range, and for as long as a room sounds on.
bool MyAEC::isFarSilent(int iFromDelay, int iToDelay) const {
  return speaker.calcSpkrAmp(now.iLast - iFromDelay, iToDelay - iFromDelay + kTalkTail) < kSilentSpeaker;
}

void MyAEC::performTimeDomainAnalysis() {
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  breathing.checkBreathingVoiceInSpeaker(now, speaker, now.iFirst - active.end(),
                                         std::min(now.iLast - active.iStart, now.iSpkLast));
  // Before the echo is found it may be anywhere.
  const bool bFound = timeResidual.hasSeenEcho() || delaySearch.coupledDelay() >= 0;
  const bool bSilent = bFound ? isFarSilent(active.iStart, active.end())
                              : isFarSilent(echoSpan.startSamples(), echoSpan.endSamples());
  talk.checkNearEndTalk(now, timeResidual, active, bSilent);
  now.bFilterLost = frequencyFilter.ratio(FrequencyFilter::kAdaptedLasting) > 0.95F;
  timeFilter.checkIfConvergenceOkay(now, TalkDetector::echoPercent(timeResidual));

  const bool bTalk = now.iTalkScore >= score::kAboveEcho && now.bConvergenceOk;
  timeFilter.performTimeDomainAnalysis(now, !bTalk && !now.bHowling && !now.bBreathing && !bSilent);
  timeResidual.update(now.fMic, timeFilter.estimate(), !bSilent);
  // Before there is proof of echo a small residual only shows that talk can be predicted.
  if (!timeResidual.hasSeenEcho()) return;
  now.iWorkingAmp = std::max(1, std::min({now.iMicAmp, timeFilter.smallestResidual(), now.iMicSpread}));
  now.iResidualRatio = std::min(
      kUnityQ7, static_cast<int>(std::int64_t{now.iWorkingAmp} * kUnityQ7 / std::max(now.iMicSpread, 1)));
}

void MyAEC::performFrequencyDomainAnalysis() {
  if ((now.iLast + 1) % FrequencyFilter::kBlock != 0 || !frequencyFilter.supportsRate()) return;
  considerRecentring();
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const float fTimeDomain = needsTimeDomain() ? static_cast<float>(active.r[1]) / 1000 : 1.0F;
  const bool bRan = frequencyFilter.run(now, fTimeDomain);
  now.bPathLost = frequencyFilter.isPathLost();
  now.bTalkOverPath = frequencyFilter.isTalkOverKnownPath();
  if (frequencyFilter.losses() != iLosses) {
    iLosses = frequencyFilter.losses();
    delaySearch.searchAnew();
  }
  if (frequencyFilter.pathChanges() != iPathChanges) {
    iPathChanges = frequencyFilter.pathChanges();
    frequencyResidual.relearn();
    TalkDetector::endFrequencyDomainHold(now);
  }
  const bool bSilent = isFarSilent(frequencyFilter.bulkDelay(), frequencyFilter.endDelay());
  const auto uSamples = static_cast<std::size_t>(kCycleSamples * pMic->rateFactor());
  if (bRan) {
    frequencyResidual.update({frequencyFilter.microphone(), uSamples}, {frequencyFilter.estimate(), uSamples},
                             !bSilent);
  }
  talk.checkFrequencyDomainTalk(now, frequencyResidual, bSilent);
  if (!bRan && frequencyFilter.isReady()) {
    choice.countMissedBlock();
    return;
  }
  choice.chooseBestAecAlgorithm(
      now, frequencyFilter, active, levels.trackedPower(),
      {frequencyResidual.hasSeenEcho(), timeResidual.hasSeenEcho() && !timeResidual.isLearning()});
}

// The range follows the estimate when it cancels next to nothing and the estimate lies outside it.
void MyAEC::considerRecentring() {
  using enum FrequencyFilter::Ratio;
  constexpr int kDistance = 2000;
  constexpr int kTail = 4 * FrequencyFilter::kBlock;
  if (now.iEchoDelay < 0 || now.iLast - iLastRecentring < kDistance) return;
  // A first estimate may have been late: the range then lacks the echo's beginning, and what it has is kept.
  constexpr int kBefore = 8 * FrequencyFilter::kBlock;
  const int iBulk = frequencyFilter.bulkDelay();
  if (now.iEchoDelay < iBulk && now.iEchoDelay >= iBulk - kBefore && frequencyFilter.matches() &&
      frequencyFilter.peakDelay() < iBulk + kBefore && !now.bTalkOverPath) {
    iLastRecentring = now.iLast;
    frequencyFilter.recentre(now.iEchoDelay);
    return;
  }
  const bool bOutside = !frequencyFilter.covers(now.iEchoDelay) ||
                        !frequencyFilter.covers(std::min(now.iEchoDelay + kTail, echoSpan.endSamples() - 1));
  const bool bLost = frequencyFilter.ratio(kUsedLasting) > 1.1F;
  if (!bLost && !(bOutside && frequencyFilter.ratio(kUsedLasting) > 0.7F)) return;
  if (frequencyFilter.matches() || now.bTalkOverPath) return;
  iLastRecentring = now.iLast;
  frequencyFilter.recentre(now.iEchoDelay);
}

// ---- Guards

void MyAEC::updateBurst() {
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const bool bQuickRise = now.iRiseRatio >= 128 && (now.iTalkScore == score::kFarSilent ||
                                                    now.iTalkScore == score::kFarSilentNearActive);
  const bool bBeyondFilter = active.iPeakDrift <= 32 && now.bStablePath && active.r[0] > 900 &&
                             active.r[2] > 900 && active.r[1] < 400 && active.r[3] < 400;
  const bool bBothPoor =
      !iAecMode.hasFrequencyDomain() || (frequencyFilter.presentRatio(FrequencyFilter::kUsed) >= 0.7F &&
                                         frequencyFilter.presentRatio(FrequencyFilter::kAdapted) >= 0.7F);
  now.bLoudBurst =
      bQuickRise && (now.bMicAboveEcho || bBeyondFilter) && bBothPoor && !now.bDoublePath2 && !now.bMicQuiet;
}

// Counts how long what is left of the microphone has been faint.
void MyAEC::updateResidualMode() {
  constexpr int kAfterTrouble = -100;
  constexpr int kLarge = 60;
  constexpr int kFaintResidual = 500;
  constexpr float kFaintPower = 15000;
  constexpr int kRaise = 15;
  if (now.bClipping || now.anyDoublePath()) {
    iResidualMode = kAfterTrouble;
    return;
  }
  const bool bPowerLarge = iAecMode.hasFrequencyDomain() && frequencyFilter.residualPower() > kFaintPower;
  const bool bRatioLarge = now.iResidualRatio > kLarge;
  if (bPowerLarge || (bRatioLarge && now.iWorkingAmp > kFaintResidual)) {
    iResidualModeLimit = std::min(iResidualModeLimit + kRaise, 1 << 20);
    iResidualMode = 0;
  } else if (bRatioLarge) {
    ++iResidualMode;
  }
}

bool MyAEC::isOnStablePath() const {
  return now.bStablePath && iResidualMode >= iResidualModeLimit + kResidualModeExtra;
}

void MyAEC::updateSupression() {
  if (isOnStablePath()) {
    history.updateOnStablePath(now, !iAecMode.hasFrequencyDomain() || frequencyFilter.isHardlyHeard());
  } else if (choice.selected() == kFrequencyDomain) {
    history.fd_updateSupressionCoef(now, frequencyFilter.isReady());
  } else {
    history.td_updateSupressionCoef(now);
  }
}

// ---- Status

bool MyAEC::isWorking() const {
  return bEchoOutputActive || history.entry(0).iGain < kUnityQ7 || now.bHowling;
}

void MyAEC::fillStatus(sKestrovaAECStatus& status) {
  const sAecCoefSet& active = timeFilter.set(TimeDomainFilter::kActive);
  const bool bFrequency = choice.selected() == kFrequencyDomain;
  status = sKestrovaAECStatus{};
  status.bFlags[1] = bFrequency ? now.bFdNearEndTalk : now.bNearEndTalk;
  status.bFlags[2] = bFrequency ? frequencyFilter.isReady() : now.bConvergenceOk;
  status.bFlags[3] = static_cast<std::uint8_t>(choice.selected());
  status.bFlags[4] = now.bHowling;
  status.bFlags[5] = now.bStablePath;
  const sAecSupressionEntry& newest = history.entry(0);
  const std::array<int, 8> iValues{newest.iTalkScore, now.iEchoDelay, newest.iGain, active.iStart,
                                   active.iLength,    active.r[1],    active.r[3],  active.iGoodUpdates};
  std::copy(iValues.begin(), iValues.end(), status.iValues);
}
