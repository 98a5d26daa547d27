// The residual-echo suppression gain of each cycle: it falls while the talk detector reports echo only and
// rises while it reports talk, with hangover, hold times and guards against bursts and howling.
#pragma once

#include <array>

#include "engine/aec/AecTypes.h"

struct sAecSupressionEntry {
  int iGain = kUnityQ7;      // Q7
  int iResidualRatio = 128;  // Q7, smoothed
  int iRiseRatio = 16;       // 16 = 1.0
  int iHangover = 0;         // of the talk decision
  int iTalkScore = -1;
  bool bNearEndTalk = false;
  bool bConverged = false;
};

class SupressionHistory {
 public:
  static constexpr int kEntries = 58;

  // iMinOutput is the floor of the gain, Q7; iHold the hangover setting 0..10.
  void clean(int iMinOutput, int iHold);

  // Each pushes the cycle's entry: by the time-domain rules, by the frequency-domain filter's talk score, and
  // by the residual alone, for a path that has long been stable.
  void td_updateSupressionCoef(const sAecCycle& now);
  void fd_updateSupressionCoef(const sAecCycle& now, bool bReady);
  // bResidualLow: the microphone is quiet and the frequency-domain filter has nothing to judge by.
  void updateOnStablePath(const sAecCycle& now, bool bResidualLow);

  // The gain of the cycle iAge cycles before the newest. bSubtracted: the echo estimate is in use at the
  // cycle.
  [[nodiscard]] int getSupressionCoef(int iAge, bool bSubtracted);
  // Entry of that cycle, 0 .. 57 before the newest.
  [[nodiscard]] const sAecSupressionEntry& entry(int iAge) const { return asSupression[index(iAge)]; }
  // Position of the newest entry in the ring.
  [[nodiscard]] int newestIndex() const { return iSupressionIndex; }

 private:
  [[nodiscard]] std::size_t index(int iAge) const {
    return static_cast<std::size_t>((iSupressionIndex - iAge + kEntries) % kEntries);
  }
  sAecSupressionEntry& at(int iAge) { return asSupression[index(iAge)]; }
  sAecSupressionEntry& push(const sAecCycle& now);
  void silenceLatest();
  void echoBranch(const sAecCycle& now, sAecSupressionEntry& e, const sAecSupressionEntry& p);
  void talkBranch(const sAecCycle& now, sAecSupressionEntry& e, const sAecSupressionEntry& p) const;
  [[nodiscard]] static int burstFactor(const sAecCycle& now);
  [[nodiscard]] static int hangoverStep(const sAecCycle& now);
  void keepWithin(const sAecCycle& now, int& iGain) const;

  std::array<sAecSupressionEntry, kEntries> asSupression{};
  int iSupressionIndex = kEntries - 1;
  int iFloor = 0;
  int iHoldLevel = 16;
  int iEchoOnlyCycles = 0;
};
