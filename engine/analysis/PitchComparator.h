// Compares a stretch of the signal with itself a period earlier, point by point, on a copy limited to the
// band of the voice's fundamental and first formant (about 75 to 1,000 Hz, kept at 4 kHz). In that band
// voiced speech repeats even when noise covers its finer shape.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "engine/EngineUnits.h"

class PitchComparator {
 public:
  // Distances compared, in samples at 8 kHz: voices from 500 Hz down to 56 Hz.
  static constexpr int kMinPeriod = 16;
  static constexpr int kMaxPeriod = 144;

  // How well the signal repeats at each distance, by distance / 2; 1 is a perfect repetition.
  struct sScores {
    static constexpr int kLags = kMaxPeriod / 2 + 2;
    std::array<float, kLags> fShort{};  // over the four cycles of the element
    std::array<float, kLags> fLong{};   // over the eight cycles that end with them
  };

  void clean() { *this = PitchComparator{}; }
  // Takes one cycle; cycles come in order.
  void push(std::span<const std::int16_t> samples);
  // Scores of the element of four cycles that starts at sample time iStart, counted from the first push,
  // which must be held still. Comparing cycle after cycle costs an eighth of a comparison alone.
  void compare(int iStart, sScores& scores) const;
  // Whether that element has been pushed, and less than 221 ms ago.
  [[nodiscard]] bool holds(int iStart) const;

 private:
  static constexpr int kDecimation = 2;
  static constexpr int kCycleValues = kCycleSamples / kDecimation;
  static constexpr int kRingValues = 1024;  // a power of two, 256 ms: an element and what lies before it
  static constexpr int kTaps = 17;
  static constexpr int kHistory = kTaps - 1;

  // Products of one cycle with what lies before it, the farthest distance first. They never change.
  using Products = std::array<float, sScores::kLags>;
  struct sKeptProducts {
    int iFirst = -1;  // index of the cycle's first value
    Products fProducts{};
  };
  static constexpr int kKeptCycles = 16;  // a power of two; an element and its neighbours need 8

  [[nodiscard]] const Products& productsOf(int iFirst, const float* pfCycle) const;

  [[nodiscard]] float at(int iIndex) const {
    return pfRing[static_cast<std::size_t>(iIndex & (kRingValues - 1))];
  }

  std::array<float, kRingValues> pfRing{};
  std::array<float, kHistory + kCycleSamples> pfInput{};
  float fLastLow = 0;
  float fLastHigh = 0;
  int iWrite = 0;
  mutable std::array<sKeptProducts, kKeptCycles> asKept{};
};
