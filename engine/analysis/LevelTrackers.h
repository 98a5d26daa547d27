// Running figures over the extremes of the latest cycles: eight immediate trackers over spans of up to half a
// second, and a block range tracker over up to three and a half seconds.
//
// A tracker covers the cycles `from` to `to` back, 0 being the newest:
//
//   row   cycles     kind           read by
//   0     0..125     range          gain control (S), the DC test
//   1     0..25      range          acoustic shock limit (S')
//   2     12..18     average        level jumps
//   3     0..6       average        noise test, level jumps
//   4     12..125    average        noise test
//   5     0..6       range          level jumps
//   6     0..62      average        echo canceller
//   7     62..125    average        echo canceller
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "engine/EngineUnits.h"

struct sRange {
  int iLow = 0;
  int iHigh = 0;
  [[nodiscard]] int spread() const { return iHigh - iLow; }
};

// The cycles that an immediate tracker covers, counted back from the newest.
struct sImmediateParam {
  int iFrom;
  int iTo;
  bool bAverage;  // of the extremes; otherwise the range
};

class LevelTrackers {
 public:
  static constexpr int kRows = 8;
  static constexpr int kHistoryCycles = 250;
  static constexpr int kBlockCycles = 125;  // 4,000 samples
  static constexpr int kBlocks = 6;

  // iDc is the mean of the cycle's samples before any offset was taken off.
  void push(int iMin, int iMax, int iDc);

  // Range rows: lowest and highest sample; average rows: average minimum and maximum.
  [[nodiscard]] const sRange& immediate(int iRow) const { return asRow[static_cast<std::size_t>(iRow)]; }
  // Range of the last k + 1 completed blocks and the cycles since, k = 0..5.
  [[nodiscard]] const sRange& blockRange(int k) const { return asBlockRange[static_cast<std::size_t>(k)]; }
  // Mean level of the input over the span of row 4.
  [[nodiscard]] int dcEstimate() const { return static_cast<int>(lDcSum / kDcCycles); }

 private:
  struct sHistory {
    std::int16_t sMin = 0;
    std::int16_t sMax = 0;
    std::int32_t iDc = 0;
  };
  struct sSums {
    std::int64_t lMin = 0;
    std::int64_t lMax = 0;
  };
  static constexpr int kDcFrom = 12;
  static constexpr int kDcTo = 125;
  static constexpr int kDcCycles = kDcTo + 1 - kDcFrom;

  [[nodiscard]] const sHistory& back(int iCycles) const;
  void updateRange(int iRow);
  void updateAverage(int iRow);
  void updateBlocks();

  std::array<sHistory, kHistoryCycles> asHistory{};
  int iNewest = 0;
  std::array<sRange, kRows> asRow{};
  std::array<sSums, kRows> asSums{};
  std::int64_t lDcSum = 0;
  int iBlockCycle = 0;
  std::array<sRange, kBlocks> asBlock{};
  std::array<sRange, kBlocks> asBlockRange{};
};
