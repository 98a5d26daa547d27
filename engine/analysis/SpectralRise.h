// How far the signal has risen above the steady background, seen band by band: a consonant that is lost in
// the overall level still stands out in the bands where the background is weak.
//
// Per cycle the power of the newest four cycles in 15 bands of 250 Hz is compared with the background's. The
// score is the mean over the bands of r - 1 - ln r, r the ratio where it exceeds 1: the log likelihood by
// which speech explains the band better than the background does (Sohn, Kim and Sung, 1999). Steady noise
// scores 0.05 to 0.2.
#pragma once

#include <array>
#include <span>

class SpectralRise {
 public:
  static constexpr int kSpanSamples = 128;
  // The background with speech on top of it, hardly.
  static constexpr float kQuiet = 0.30F;

  void clean() { *this = SpectralRise{}; }
  // Takes the newest 128 samples, once per cycle, and returns the score of the span; 0 until the background
  // is known.
  float push(std::span<const double> dSamples);

 private:
  static constexpr int kBands = 15;
  static constexpr int kBandBins = 4;
  static constexpr int kFirstBin = 2;  // below lie hum and the transform's window
  static constexpr int kBlocks = 7;

  void power(std::span<const double> dSamples);
  [[nodiscard]] float score() const;
  void followBackground(float fScore);

  std::array<float, kBands> fPower{};
  std::array<float, kBands> fSmooth{};
  std::array<float, kBands> fBackground{};
  std::array<std::array<float, kBands>, kBlocks> fLowest{};  // per half second, newest first
  int iCycles = 0;
};
