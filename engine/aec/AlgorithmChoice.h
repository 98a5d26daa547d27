// Which filter's echo estimate is used: votes, block by block, on the figures of both.
#pragma once

#include "engine/aec/AecTypes.h"
#include "engine/aec/CoefSet.h"
#include "engine/aec/FrequencyFilter.h"

enum AecAlgorithm { kNoAlgorithm = 0, kTimeDomain = 1, kFrequencyDomain = 2 };

class AlgorithmChoice {
 public:
  void clean(sAecMode aecMode);

  // Once per block of the frequency-domain filter. The proofs tell of either filter that what it cancels is
  // echo; of the time-domain filter also that what it leaves is known well enough to judge talk by.
  struct sProofs {
    bool bFrequencyDomain = false;
    bool bTimeDomain = false;
  };
  void chooseBestAecAlgorithm(const sAecCycle& now, const FrequencyFilter& filter, const sAecCoefSet& active,
                              std::int64_t lTrackedMicPower, sProofs proofs);
  // A block without figures to vote by.
  void countMissedBlock() { ++iCyclesSinceSwitch; }
  // The frequency-domain result cannot be used any more.
  void forceTimeDomain();

  [[nodiscard]] int preferred() const { return iPreferredAlgorithm; }
  [[nodiscard]] int selected() const { return iSelectedAlgorithm; }
  [[nodiscard]] int cyclesSinceSwitch() const { return iCyclesSinceSwitch; }

 private:
  void switchTo(int iAlgorithm);
  [[nodiscard]] static bool isBad(const sAecCycle& now, const FrequencyFilter& filter);
  [[nodiscard]] bool frequencyDomainWins(const FrequencyFilter& filter, const sAecCoefSet& active) const;
  [[nodiscard]] bool mustSwitchBack(const sAecCycle& now, const FrequencyFilter& filter,
                                    std::int64_t lTrackedMicPower) const;

  sAecMode mode;
  int iPreferredAlgorithm = kTimeDomain;
  int iSelectedAlgorithm = kTimeDomain;
  int iCyclesSinceSwitch = 0;
  int iSwitchVotes = 0;
};
