#include "engine/aec/SupressionHistory.h"

#include <algorithm>

namespace {

constexpr int kUnityRise = 16;
constexpr int kLargeRise = 32;  // twice the running average

}  // namespace

void SupressionHistory::clean(int iMinOutput, int iHold) {
  *this = SupressionHistory{};
  iFloor = iMinOutput;
  iHoldLevel = (10 - iHold) * 4;
}

sAecSupressionEntry& SupressionHistory::push(const sAecCycle& now) {
  const int iPrevious = at(0).iResidualRatio;
  iSupressionIndex = (iSupressionIndex + 1) % kEntries;
  sAecSupressionEntry& e = at(0);
  e.iTalkScore = now.iTalkScore;
  e.bNearEndTalk = now.bNearEndTalk;
  e.bConverged = now.bConvergenceOk;
  e.iRiseRatio = now.iRiseRatio;
  e.iResidualRatio = (iPrevious * 7 + now.iResidualRatio) >> 3;
  return e;
}

void SupressionHistory::silenceLatest() {
  for (int iAge = 0; iAge < 3; ++iAge) at(iAge).iGain = 0;
}

void SupressionHistory::keepWithin(const sAecCycle& now, int& iGain) const {
  const int iLeast = now.beforeHowlingHoldEnd() ? 0 : iFloor;
  iGain = std::clamp(iGain, iLeast, kUnityQ7);
}

// ---- Time-domain rules

void SupressionHistory::td_updateSupressionCoef(const sAecCycle& now) {
  const int s = now.iTalkScore;
  iEchoOnlyCycles = s < -18 ? iEchoOnlyCycles + 1 : 0;
  sAecSupressionEntry& e = push(now);
  const sAecSupressionEntry& p = at(1);
  const bool bTalk = now.bNearEndTalk && (!now.anyDoublePath() || s > 40);
  if (!now.bLoudBurst && !bTalk && !(now.bRestarted && s >= -18)) {
    echoBranch(now, e, p);
  } else {
    talkBranch(now, e, p);
  }
  keepWithin(now, e.iGain);
}

// How much louder the cycle is than the talk that has just ended, 16 = 1.0.
int SupressionHistory::burstFactor(const sAecCycle& now) {
  const auto reference = [&](int iHoldEnd, int iAmp) {
    return now.iFirst - iHoldEnd <= kRecentHold ? std::max(iAmp, 1) : 1;
  };
  const int A = reference(now.iStrongHoldEnd, now.iStrongHoldAmp);
  const int B = reference(now.iTalkHoldEnd, now.iTalkHoldAmp);
  if (A > B) return A <= 1 ? A : now.iWorkingAmp * kUnityRise / A;
  return B >= 2 ? now.iWorkingAmp * kUnityRise / B : 1;
}

void SupressionHistory::echoBranch(const sAecCycle& now, sAecSupressionEntry& e,
                                   const sAecSupressionEntry& p) {
  constexpr int kAfterClipping = 8000;
  const int s = now.iTalkScore;
  const bool bStrongHold = now.iFirst < now.iStrongHoldEnd;
  const bool bLongQuiet = now.iQuietCycles > 10 && now.iMicAmp > now.iTalkHoldAmp;
  if (s == score::kHowling) {
    silenceLatest();
  } else if (bStrongHold && !now.anyDoublePath()) {
    e.iGain = p.iGain;
  } else if (s >= -34 && iEchoOnlyCycles <= 10 && now.iFirst - now.iLastClipping > kAfterClipping &&
             !bLongQuiet) {
    e.iGain = s < 0 ? p.iGain - 6 : p.iGain;
  } else {
    e.iGain = p.iGain - 30;
  }
  if (e.iGain < p.iGain && e.iGain > iFloor && s < 0 && !now.bMicQuiet) {
    const int g = std::max(burstFactor(now), e.iRiseRatio);
    if (g > kLargeRise) e.iGain = e.iGain * kUnityRise / g;
  }
  keepWithin(now, e.iGain);
  e.iHangover = e.iGain <= iFloor && !bStrongHold ? 0 : std::max(p.iHangover - 2, 0);
}

int SupressionHistory::hangoverStep(const sAecCycle& now) {
  const int s = now.iTalkScore;
  if (now.bQuietLevel) return -2;
  if (now.bRestarted || now.bLoudBurst || now.bMicAboveEcho) return 30;
  if (s > 74) return now.bMicActive ? 20 : 2;
  if (s > 29) return now.bMicActive ? 10 : 2;
  if (s > 0) return 2;
  if (s < -18 || now.iMicAmp > now.iTalkHoldAmp) return 0;
  return 2;
}

void SupressionHistory::talkBranch(const sAecCycle& now, sAecSupressionEntry& e,
                                   const sAecSupressionEntry& p) const {
  constexpr int kOpen = 99;  // from here on the gain jumps to unity
  if (iHoldLevel < 1) {
    e.iHangover = p.iHangover;
    e.iGain = p.iGain + (now.iTalkScore < -18 ? 5 : 10);
    return;
  }
  e.iHangover = std::min(std::max(p.iHangover + hangoverStep(now), 0), 4 * iHoldLevel);
  if (now.bLoudBurst || now.bMicAboveEcho) {
    e.iGain = kUnityQ7;
  } else if (e.iHangover < iHoldLevel) {
    e.iGain = p.iGain;
  } else {
    e.iGain = p.iGain >= kOpen ? kUnityQ7 : p.iGain + 30;
  }
}

// ---- Stable path

void SupressionHistory::updateOnStablePath(const sAecCycle& now, bool bResidualLow) {
  constexpr int kResidualLarge = 60;  // Q7 of the microphone: no echo explains the cycle
  constexpr int kResidualAll = 90;
  constexpr int kResidualSmall = 20;
  constexpr int kSure = 3;
  iEchoOnlyCycles = now.iTalkScore < -18 ? iEchoOnlyCycles + 1 : 0;
  sAecSupressionEntry& e = push(now);
  const sAecSupressionEntry& p = at(1);
  const int r = now.iResidualRatio;
  e.iGain = p.iGain;
  e.bNearEndTalk = p.bNearEndTalk;
  e.iHangover = p.iHangover;
  if (now.bMicQuiet && bResidualLow) {
    keepWithin(now, e.iGain);
    return;
  }
  if (r > kResidualLarge) {
    e.iHangover = std::min(p.iHangover + 1, kSure);
    e.iGain = p.iGain + (r > kResidualAll ? 30 : 10);
    if (e.iHangover == kSure) e.bNearEndTalk = true;
  } else if (r < kResidualSmall) {
    e.iHangover = std::max(p.iHangover - 1, 0);
    if (e.iHangover == 0) {
      e.iGain = p.iGain - 6;
      e.bNearEndTalk = false;
    }
  } else if (p.bNearEndTalk) {
    e.iGain = p.iGain + 5;
  }
  keepWithin(now, e.iGain);
}

// ---- Frequency-domain rules

void SupressionHistory::fd_updateSupressionCoef(const sAecCycle& now, bool bReady) {
  const int t = now.iFdScore;
  sAecSupressionEntry& e = push(now);
  const sAecSupressionEntry& p = at(1);
  e.iTalkScore = t;
  e.bNearEndTalk = now.bFdNearEndTalk;
  e.bConverged = bReady;
  e.iHangover = p.iHangover;
  if (now.bFdNearEndTalk) {
    e.iGain = p.iGain + (t >= 31 ? 30 : t >= 1 ? 10 : 5);
  } else if (t == score::kHowling) {
    silenceLatest();
  } else if (t < -34 || p.iTalkScore < 11) {
    e.iGain = p.iGain - 30;
  } else if (p.iGain >= 1 && t <= -10 && !now.bMicQuiet && now.iRiseRatio > kLargeRise) {
    e.iGain = p.iGain * kUnityRise / now.iRiseRatio;
  } else if (t >= 0) {
    e.iGain = p.iGain;
  } else {
    e.iGain = p.iGain - (t > -20 ? 6 : 15);
  }
  if (e.iGain < p.iGain && e.iGain > iFloor && t < 0 && !now.bMicQuiet) {
    const bool bHeld = now.iFirst - now.iFdHoldEnd <= kRecentHold && now.iFdHoldAmp > 1;
    const int f = bHeld ? now.iWorkingAmp * kUnityRise / now.iFdHoldAmp : 1;
    const int g = std::max(f, now.iRiseRatio);
    if (g > kLargeRise) e.iGain = e.iGain * kUnityRise / g;
  }
  keepWithin(now, e.iGain);
}

// ---- Reading

int SupressionHistory::getSupressionCoef(int iAge, bool bSubtracted) {
  constexpr int kRecentAge = 7;
  constexpr int kBurst = 47;  // three times the running average
  constexpr int kResidualAlmostAll = 120;
  sAecSupressionEntry& e = at(iAge);
  if (e.iTalkScore == score::kFarSilent) return kUnityQ7;
  if (bSubtracted) return e.iGain;
  // A burst that was taken for talk and has turned out to be echo.
  const bool bWronglyPassed =
      iAge < kRecentAge && e.bNearEndTalk && !at(0).bNearEndTalk && e.iRiseRatio > kBurst && e.iTalkScore < 0;
  if (bWronglyPassed) {
    if (e.iGain <= iFloor) return e.iGain;
    const int iRise = e.iRiseRatio;
    for (int i = 0; i <= iAge; ++i) at(i).iGain = at(i).iGain * kUnityRise / iRise;
  }
  if (e.iGain > iFloor && e.iResidualRatio < kResidualAlmostAll) return e.iGain * e.iResidualRatio >> 7;
  return e.iGain;
}
