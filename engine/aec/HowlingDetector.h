// Finds acoustic feedback: a loop from loudspeaker to microphone and back through the other end that grows
// into a whistle. Three tests on the microphone's spectrum: a few strong peaks around 1.8 kHz (tonal), a high
// band far above the low one (broadband), and one line that holds nearly everything, anywhere, and stays
// (steady).
#pragma once

#include <array>

#include "engine/aec/AecTypes.h"
#include "engine/aec/LaneTransform.h"

class MyChannel;

class HowlingDetector {
 public:
  // iLevel 1..20, the more the easier; with 0 the check is not to be called.
  void clean(const MyChannel* pMicChannel, int iLevel);

  // Sets the howling flag and the hold. iSpkAmp10: spread of the loudspeaker over ten cycles. bFilterSure:
  // the time-domain filter works well on a stable path.
  void checkHowlingConditions(sAecCycle& now, int iSpkAmp10, bool bFilterSure);

 private:
  static constexpr int kSamples = 128;
  static constexpr int kBins = 64;

  struct sLimits {
    std::int64_t lPowerFloor = 0;  // amplitude squared
    int iTonalPeak = 0;
    int iHighBand = 0;
    int iRatio = 0;  // percent, high to low band
    int iStrongRatio = 0;
    int iAmp = 0;       // of the microphone
    int iAveraged = 1;  // cycles over which the bands' levels are averaged
    int iSplitBin = 25;
    int iPeak = 0;
    int iPeakCount = 0;
  };

  // What was heard until now is no part of a howl.
  void interrupt();
  void transform(const sAecCycle& now);
  void followBands();
  [[nodiscard]] bool isTonal(bool bAfterHold) const;
  [[nodiscard]] bool hasTonalPeaks(int iStrongest, int iHigh) const;
  [[nodiscard]] bool isBroadband(bool bAfterHold, int iMicAmp, int iSpkAmp10) const;
  [[nodiscard]] bool isSteadyLine(const sAecCycle& now, int iSpkAmp10);
  [[nodiscard]] int largest(int iFrom, int iTo) const;
  [[nodiscard]] int ratioPercent() const;
  [[nodiscard]] bool hasRatio(int iLeast, bool bAfterHold) const;

  const MyChannel* pChannel = nullptr;
  int iLevelSetting = 0;
  sLimits limits;
  std::array<int, kBins> iMagnitude{};
  std::array<float, kSamples> fWindow{};
  lanes::Signal<1> signal;
  lanes::Spectrum<1> spectrum;
  int iLowLevel = 0;  // of the bands, averaged
  int iHighLevel = 0;
  int iBroadbandStart = -1;  // sample time since which the broadband test has held
  int iSteadyBin = -1;
  int iSteadyCycles = 0;
  int iSteadyPeak = 0;
};
