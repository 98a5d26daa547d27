// What an echo filter leaves, band by band, and whether more is left than the echo explains: the evidence of
// near-end talk.
//
// In every band of 500 Hz the residual E is compared with what the echo estimate Y and the background N let
// expect: leak x Y + N. The leak is learnt: it is the level below which most residuals lie while the
// loudspeaker talks. It learns fast while a filter is new and slowly later, so that a talker at the near end
// does not become the measure.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "engine/aec/LaneTransform.h"

class ResidualModel {
 public:
  // uSamples: samples per cycle at the rate of the signals, a power of two.
  void clean(std::size_t uSamples);

  // One cycle of microphone and echo estimate. bSpkActive: the loudspeaker is heard in the filter's span.
  void update(std::span<const float> fMic, std::span<const float> fEcho, bool bSpkActive);
  // The path has changed: the leak is learnt anew.
  void relearn();

  // Mean over the bands of how far the residual exceeds what is expected, in dB, smoothed over three cycles.
  [[nodiscard]] float evidence() const { return fEvidence; }
  // Residual over microphone as powers, over some 60 ms; 1 when nothing is cancelled.
  [[nodiscard]] float remaining() const { return fRemaining; }
  // Whether the filter has proved that the microphone holds echo.
  [[nodiscard]] bool hasSeenEcho() const { return iEchoCycles >= kEchoProved; }
  [[nodiscard]] bool isLearning() const { return iLearnt < kLearningCycles; }

 private:
  static constexpr std::size_t kMaxBands = 64;
  static constexpr std::size_t kBinsPerBand = 4;
  static constexpr int kEchoProved = 25;       // cycles, 100 ms
  static constexpr int kLearningCycles = 200;  // 0.8 s of loudspeaker sound
  using Bands = std::array<float, kMaxBands>;

  void countEcho();
  void transform();
  void measure(bool bSpkActive);
  void learn(std::size_t b, float fExcessDb);

  std::size_t uHop = 32;
  std::size_t uBands = 8;
  lanes::Signal<1> history;  // lane 0 residual, lane 1 echo, lane 2 microphone; two cycles
  lanes::Signal<1> windowed;
  lanes::Spectrum<1> spectrum;
  std::array<float, lanes::kMaxLength> fWindow{};
  Bands fLeakDb{};
  Bands fNoise{};
  Bands fEchoTail{};
  float fEvidence = 0;
  float fResidualPower = 1;
  float fMicPower = 1;
  float fRemaining = 1;
  int iEchoCycles = 0;
  int iDoubt = 0;
  int iLearnt = 0;
};
