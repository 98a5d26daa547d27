// One set of filter taps with its placement, its figures and what a cycle of echo estimation does to it.
//
//   estimate  y(n) = sum over k of w(k) x(n - start - k) / 16384
//   error     e(n) = m(n) - y(n)
//   update    w(k) += mu profile(k) / P  x  sum over 16 samples of x(n - start - k) e(n)     (block NLMS)
//
// with P the loudspeaker's power over the filter's span. Figures r0 to r3 are in per mille: 1000 means that
// nothing is cancelled.
#pragma once

#include <array>
#include <span>

#include "engine/aec/AecTypes.h"

inline constexpr float kCouplingOne = 16384.0F;  // value of a tap that passes the loudspeaker unchanged
inline constexpr int kUnknownPeak = 0xFFFFFF;
inline constexpr int kSpeakerAudible = 200;  // a set is neither run nor adapted while its span is fainter
inline constexpr int kTapsPerWeight = 32;    // of the step profile

using StepProfile = std::array<float, kMaxTaps / kTapsPerWeight>;  // 1/1024

struct sAecCoefSet {
  static constexpr int kTapStore = 1000;
  static constexpr int kPeaks = 10;

  alignas(16) std::array<float, kTapStore> fTaps{};
  float fSpread = 16.0F;  // short filters: sum of magnitudes over the peak; long ones: peak x 32
  int iProcessedTime = 0;
  int iSpeakerLevel = 0;
  int iAdaptations = 0;
  int iTapsAboveHalf = 0;
  int iHalfCrossings = 0;
  int iOscillations = 0;
  int iGoodUpdates = 0;
  int iResidualSpread = 1;
  std::array<int, 2> iResidual{1, 1};  // mean magnitude of the last cycle; its largest magnitude
  std::array<int, 4> r{1000, 1000, 1000, 1000};
  int iStart = 0;
  int iLength = kMaxTaps;
  int iPeak = 0;
  std::array<int, kPeaks> iPeakHistory = noPeaks();
  int iPeakIndex = 0;
  int iPeakDrift = kUnknownPeak;
  int iLargestRawStep = 0;

  [[nodiscard]] int end() const { return iStart + iLength - 1; }
  [[nodiscard]] int blocks() const { return iLength / kTapsPerWeight; }
  [[nodiscard]] int newestPeak() const { return iPeakHistory[static_cast<std::size_t>(iPeakIndex)]; }
  [[nodiscard]] bool isGood() const {
    return iAdaptations >= 101 && r[0] <= 799 && r[1] <= 899 && r[2] <= 699 && r[3] <= 799;
  }

  // The same by the lasting figures alone, which stand still while the loudspeaker is silent.
  [[nodiscard]] bool isLastinglyGood() const { return iAdaptations >= 101 && r[1] <= 899 && r[3] <= 799; }

  // Good enough to measure the coupling by.
  [[nodiscard]] bool isGoodForCoupling() const {
    return isGood() && r[0] <= 719 && r[1] <= 719 && r[2] <= 599 && r[3] < 600;
  }

  // Moves the set to another placement: taps of delays that stay inside are kept when the peak is among them,
  // else everything is forgotten. Nothing happens when start and length are the same. True when moved.
  bool updateCoefsToLatestEchoDelay(int iNewStart, int iNewLength);
  // Forgets taps and figures.
  void forget();

  // Echo estimates of the 16 samples whose loudspeaker samples begin at fSpeaker: fSpeaker[15 + length - 1]
  // is x(n - start) of the last of them.
  void estimate(const float* fSpeaker, std::span<float, 16> fEcho) const;
  // One block update; no tap moves by more than kLargestStep.
  void blockUpdateAecCoefs(const float* fSpeaker, std::span<const float, 16> fError, float fMu, float fPower,
                           const StepProfile& profile);
  // Peak and shape of the taps.
  void updateTapStatistics();
  // The step profile by the shape of the taps: weights follow the magnitudes, none below 1/iDivisor.
  void profileByTaps(int iDivisor, StepProfile& profile) const;

  static constexpr float kLargestStep = 500.0F;

 private:
  static constexpr std::array<int, kPeaks> noPeaks() {
    std::array<int, kPeaks> iNone{};
    iNone.fill(kUnknownPeak);
    return iNone;
  }
  void recordPeak(int iDelay);
  void countShape(float fPeak);
};
