// Tells near-end talk from echo, cycle by cycle, as a signed score, and keeps the holds that let a pause
// between two syllables pass. It judges by what the filters leave over (ResidualModel) and, where a filter
// has nothing to say yet, by the coupling: how loud the microphone has been for the loudspeaker's level.
#pragma once

#include "engine/aec/AecTypes.h"
#include "engine/aec/CoefSet.h"
#include "engine/aec/ResidualModel.h"

class TalkDetector {
 public:
  // iAggressiveLevel 0..20: the higher, the less has to be left over for it to count as talk.
  void clean(int iAggressiveLevel, int iTalkHoldSamples, int iHold2Samples);

  // Sets score, flags and holds of the time-domain side.
  void checkNearEndTalk(sAecCycle& now, const ResidualModel& residual, const sAecCoefSet& active,
                        bool bFarSilent);
  // The same for the frequency-domain filter's residual: iFdScore, bFdNearEndTalk and its hold.
  void checkFrequencyDomainTalk(sAecCycle& now, const ResidualModel& residual, bool bFarSilent) const;

  // Largest ratio of microphone to loudspeaker level seen with echo alone, 1/1024; 0 before any.
  [[nodiscard]] int coupling() const { return iCoupling; }
  // Residual against what is expected of it, in percent: below 100 all of it is echo.
  [[nodiscard]] static int echoPercent(const ResidualModel& residual);
  // Forgets which talk holds are running.
  void resetTimers(sAecCycle& now);
  // What was taken for talk was echo.
  static void endFrequencyDomainHold(sAecCycle& now);

 private:
  [[nodiscard]] int scoreOf(const sAecCycle& now, const ResidualModel& residual, bool bFarSilent) const;
  [[nodiscard]] int scoreOfResidual(float fEvidence, const ResidualModel& residual,
                                    const sAecCycle& now) const;
  [[nodiscard]] float expectedEcho(const sAecCycle& now) const;
  [[nodiscard]] int scoreOfCoupling(const sAecCycle& now) const;
  [[nodiscard]] float threshold(const sAecCycle& now) const;
  void updateCoupling(const sAecCycle& now, bool bFilterGood, const ResidualModel& residual);
  void updateStrongHold(sAecCycle& now, bool bFilterGood);
  void updateTalkHold(sAecCycle& now);
  void shortenHolds(sAecCycle& now) const;

  float fThreshold = 1;  // 1500 - 50 x level per mille
  int iTalkHold = 2000;
  int iStrongHold = 2000;
  int iCoupling = 0;
  int iStrongCycles = 0;
  int iStrongAmp = 0;
  int iLastScores[3] = {};
  int iTalkAmp = 0;
};
