// The level of the steady background, as a spread (largest - smallest sample) over four cycles: the smallest
// smoothed spread of the last three to three and a half seconds. Speech always leaves gaps in such a span.
#pragma once

#include <algorithm>
#include <array>
#include <limits>

class NoiseFloor {
 public:
  // The spread of the four newest cycles, once per cycle.
  void push(int iSpread) {
    iSmooth = iCycles < kSmoothing ? iSmooth + (iSpread - iSmooth) / (iCycles + 1)
                                   : iSmooth + (iSpread - iSmooth) / kSmoothing;
    if (++iCycles < kSmoothing) return;
    piBlock[0] = std::min(piBlock[0], iSmooth);
    iFloor = *std::min_element(piBlock.begin(), piBlock.end());
    if (iCycles % kBlockCycles != 0) return;
    std::shift_right(piBlock.begin(), piBlock.end(), 1);
    piBlock[0] = iSmooth;
  }

  // 0 until it is known. Never below kLowest afterwards: quieter than that is silence on any line.
  [[nodiscard]] int floor() const { return iCycles < kSmoothing ? 0 : std::max(iFloor, kLowest); }

  static constexpr int kLowest = 40;

 private:
  static constexpr int kSmoothing = 8;      // cycles, 32 ms
  static constexpr int kBlockCycles = 125;  // 0.5 s
  static constexpr int kNever = std::numeric_limits<int>::max();

  std::array<int, 7> piBlock{kNever, kNever, kNever, kNever, kNever, kNever, kNever};
  int iSmooth = 0;
  int iCycles = 0;
  int iFloor = 0;
};
