// The echo estimate on its way to the output stage: a ring of samples at the channel's rate, aligned with the
// microphone, and how strongly they are to be taken off.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "engine/aec/AecTypes.h"

class EchoRing {
 public:
  static constexpr int kSamples = 14848;

  void clean(int iRateFactor);

  // Writes the estimate of the cycle at hand, limited by the microphone's samples: no sample gets the other
  // sign nor becomes louder than the microphone's. Estimates at 8 kHz are interpolated to the channel's rate.
  void writeEstimate(std::span<const float> fEcho, std::span<const float> fMic);
  void writeAtFullRate(std::span<const float> fEcho, std::span<const float> fMic);
  void writeZeros();

  // The weight of the echo, Q7: how much of the estimate is taken off. Raised while the echo matters.
  [[nodiscard]] int weight() const { return iWeight; }
  void judge(bool bLow);
  [[nodiscard]] bool isLow() const { return bEchoLow; }

  // Gathers the cycle into blocks of 128 samples; true when one is full, with the spreads of microphone and
  // echo.
  struct sBlock {
    int iMicSpread = 0;
    int iEchoSpread = 0;
  };
  bool gather(std::span<const float> fMic, std::span<const float> fEcho, sBlock& block);
  void resetBlocks();

  // Echo sample with an index at the channel's rate; 0 when the ring does not hold it.
  [[nodiscard]] std::int16_t at(std::int64_t lIndex) const;
  // Index, at the channel's rate, of the next sample that will be written.
  [[nodiscard]] std::int64_t time() const { return iEchoRingTime; }
  [[nodiscard]] std::span<const std::int16_t> samples() const { return psEchoRing; }
  // Position in the ring of the sample with an index that the ring still holds.
  [[nodiscard]] std::size_t positionOf(std::int64_t lIndex) const {
    return static_cast<std::size_t>(((iEchoRingPos - (iEchoRingTime - lIndex)) % kSamples + kSamples) %
                                    kSamples);
  }
  // Moves on to the cycle that starts at this sample time; what was left out counts as no echo.
  void startCycle(int iFirst);

 private:
  void write(float fEcho, int iMic);

  std::array<std::int16_t, kSamples> psEchoRing{};
  int iEchoRingPos = 0;
  std::int64_t iEchoRingTime = 0;
  int iFactor = 1;
  int iWeight = kUnityQ7;
  bool bEchoLow = false;
  int iGathered = 0;
  float fMicLow = 0, fMicHigh = 0, fEchoLow = 0, fEchoHigh = 0;
  float fPreviousEcho = 0;  // for the interpolation
};
