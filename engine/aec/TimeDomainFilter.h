// The time-domain layer: eight coefficient sets over the loudspeaker signal.
//
//   0      active: its estimate is used, and it is never adapted itself
//   1..5   copies of earlier good states
//   6      main test set, adapted every cycle at the active placement
//   7      alternative test set, adapted at another placement of the delay range
//
// A test set that proves better is copied into the active one; an active set that has gone bad is replaced by
// the best copy; when nothing helps, all begin anew.
#pragma once

#include <array>

#include "engine/aec/AecTypes.h"
#include "engine/aec/CoefSet.h"
#include "engine/aec/DelaySearch.h"
#include "engine/aec/SpeakerHistory.h"

class TimeDomainFilter {
 public:
  static constexpr int kSets = 8;
  enum Set { kActive, kFirstBackup, kLastBackup = 5, kTest = 6, kAlternative = 7 };

  void clean(SpeakerHistory* pSpeaker, DelaySearch* pDelaySearch, sEchoSpan echoSpan, sAecMode aecMode);

  // One cycle; the microphone's samples are cached. Renews the residual figures of the cycle. bAdapt: the
  // talk detector lets the sets learn.
  void performTimeDomainAnalysis(sAecCycle& now, bool bAdapt);
  // Sets bConvergenceOk; iEchoPercent is the detector's echo figure in percent of its reference.
  void checkIfConvergenceOkay(sAecCycle& now, int iEchoPercent);

  // Whether set 2 beats set 1; bDoublePath: there are two echo paths, the first double-path flag.
  [[nodiscard]] bool td_isCoef2BetterThanCoef1OnTst(int iSet1, int iSet2, bool bDoublePath = false) const;

  [[nodiscard]] const sAecCoefSet& set(int i) const { return asCoefSet[static_cast<std::size_t>(i)]; }
  [[nodiscard]] sAecCoefSet& set(int i) { return asCoefSet[static_cast<std::size_t>(i)]; }
  [[nodiscard]] const std::array<float, kCycleSamples>& estimate() const { return fEstimate; }
  [[nodiscard]] int smallestResidual() const { return iSmallestResidual; }
  [[nodiscard]] double stepSize() const { return dMu; }
  [[nodiscard]] bool isDiverging() const { return bDivergence; }

  // Used by the tests of the parts. False when the loudspeaker is too faint in the set's span for it to run.
  bool calcEchoAndConverge(sAecCycle& now, int iSet, bool bAdapt);
  void addToDelayHistory(const sAecCycle& now, int iSet);

 private:
  struct sPlacement {
    int iStart = 0;
    int iEnd = 0;
    int iTime = kNever;
  };
  struct sPeakSample {
    int iTime = kNever;
    int iDelay = 0;
  };
  // What the step-size control has counted.
  struct sCounts {
    int iCycles = 0;
    int iBad = 0;
    int iAdapting = 0;
    int iInRange = 0;
    int iLargeSteps = 0;
  };

  // The samples that a set works on in a cycle.
  struct sSignals {
    std::array<float, kMaxTaps + kCycleSamples> x;  // loudspeaker, from the oldest that a tap reaches
    std::array<float, kCycleSamples> y{};           // echo estimate
    std::array<float, kCycleSamples> e;             // microphone less estimate
  };

  // Estimation
  void runBlocks(const sAecCycle& now, sAecCoefSet& set, bool bAdapt, sSignals& signals);
  void measureResidual(sAecCoefSet& set, const std::array<float, kCycleSamples>& e);
  void calcStepProfile(const sAecCycle& now, const sAecCoefSet& set);
  void updateQuality(const sAecCycle& now, sAecCoefSet& set, int iMeanError, bool bAudible);
  void updateReference(const sAecCycle& now);
  void countCycle(const sAecCycle& now, bool bAdapted);
  void controlStepSize(const sAecCycle& now);
  // Sets
  // True when the main test set ran.
  bool runSets(sAecCycle& now, bool bAdapt);
  void compareTestSets(sAecCycle& now);
  void narrowAlternative(const sAecCycle& now);
  void td_updateEchoPath(int iFrom, int iTo);
  void prepareBckpCoeffs(sAecCycle& now, int iSet);
  void storeBackup();
  void rollbackToBestCoeffs(sAecCycle& now);
  void td_checkRollbackAndReset(sAecCycle& now);
  void restart(sAecCycle& now);
  // Delay
  void updateDelayNLengthUsingEchoDelay(sAecCycle& now, bool bAlternativeOnly);
  void followEstimate(const sAecCycle& now);
  void considerMove(sAecCycle& now);
  void stepAlternative(const sAecCycle& now);
  void recomputeRange(const sAecCycle& now);
  [[nodiscard]] int recentPeakSpread(const sAecCycle& now) const;
  void updateStablePath(sAecCycle& now);
  void expirePath(sAecCycle& now);
  void forgetPath(sAecCycle& now);
  [[nodiscard]] int placementFor(int iDelay) const;
  // What a set is given to search with: a narrowed one would miss the longer room of another path.
  [[nodiscard]] int fullLength() const { return std::min(span.cycles() * kCycleSamples, kMaxTaps); }

  SpeakerHistory* pHistory = nullptr;
  DelaySearch* pSearch = nullptr;
  sEchoSpan span;
  sAecMode mode;
  std::array<sAecCoefSet, kSets> asCoefSet{};
  std::array<float, kCycleSamples> fEstimate{};
  int iSmallestResidual = 1;
  StepProfile profile{};

  double dMu = 0.3;
  sCounts counts;
  bool bDivergence = false;
  int iDivergenceTime = kNever;
  int iReferenceLevel = 1;  // mean magnitude of the microphone while the loudspeaker talks
  float fCoupling = 0;      // mean microphone over mean loudspeaker magnitude, slowly
  int iExpected = 1;        // mean echo magnitude to be expected by that coupling

  bool bSearching = false;
  bool bStepping = false;  // set 7 steps through the delay range
  int iLastMove = kNever;
  int iEstimate = -1;  // of the delay, as long as it stays the same
  int iEstimateSince = kNever;
  int iLastRestart = kNever;
  int iTestStart = 0;   // sample time at which set 7's test began
  int iTest6Start = 0;  // the same for set 6
  int iPoorCycles = 0;
  int iLongPoorCycles = 0;   // the same, until the active set has been good
  bool bRolledBack = false;  // since the last copy was made
  int iBadCycles = 0;        // consecutive ones with loudspeaker sound in which the active set was not good
  int iNextBackup = kFirstBackup;
  int iLastBackupTime = kNever;
  int iEchoPeak = 0;  // recorded peak magnitude of good sets

  std::array<sPlacement, 5> asPlacements{};
  int iPlacements = 0;
  int iNewestPlacement = 0;
  std::array<sPeakSample, 10> asPeaks{};
  int iNewestPeak = 0;
  int iRangeStart = 0;
  int iRangeEnd = 0;

  std::array<int, 5> iGoodRecord{};  // set 0's good updates at a distance of 100 ms, newest last
  int iSinceRecord = 0;              // cycles
};
