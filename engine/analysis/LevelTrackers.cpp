#include "engine/analysis/LevelTrackers.h"

#include <algorithm>

#include "engine/analysis/CycleInformation.h"

namespace {

constexpr const auto& psImmediateParam = CycleInformation::psImmediateParam;

sRange joined(const sRange& a, const sRange& b) {
  return {std::min(a.iLow, b.iLow), std::max(a.iHigh, b.iHigh)};
}

}  // namespace

const LevelTrackers::sHistory& LevelTrackers::back(int iCycles) const {
  return asHistory[static_cast<std::size_t>((iNewest - iCycles + kHistoryCycles) % kHistoryCycles)];
}

void LevelTrackers::push(int iMin, int iMax, int iDc) {
  iNewest = (iNewest + 1) % kHistoryCycles;
  asHistory[static_cast<std::size_t>(iNewest)] = {static_cast<std::int16_t>(iMin),
                                                  static_cast<std::int16_t>(iMax), iDc};
  lDcSum += back(kDcFrom).iDc - back(kDcTo + 1).iDc;
  for (int iRow = 0; iRow < kRows; ++iRow) {
    if (psImmediateParam[static_cast<std::size_t>(iRow)].bAverage) {
      updateAverage(iRow);
    } else {
      updateRange(iRow);
    }
  }
  updateBlocks();
}

// The span is scanned only when the cycle that leaves it held one of the extremes.
void LevelTrackers::updateRange(int iRow) {
  const int iTo = psImmediateParam[static_cast<std::size_t>(iRow)].iTo;
  sRange& range = asRow[static_cast<std::size_t>(iRow)];
  const sHistory& leaving = back(iTo + 1);
  const sHistory& newest = back(0);
  if (leaving.sMin > range.iLow && leaving.sMax < range.iHigh) {
    range = joined(range, {newest.sMin, newest.sMax});
    return;
  }
  range = {newest.sMin, newest.sMax};
  for (int i = 1; i <= iTo; ++i) range = joined(range, {back(i).sMin, back(i).sMax});
}

// Sums are kept exactly, so that the averages do not drift with rounding over a long call.
void LevelTrackers::updateAverage(int iRow) {
  const sImmediateParam& row = psImmediateParam[static_cast<std::size_t>(iRow)];
  sSums& sums = asSums[static_cast<std::size_t>(iRow)];
  sums.lMin += back(row.iFrom).sMin - back(row.iTo + 1).sMin;
  sums.lMax += back(row.iFrom).sMax - back(row.iTo + 1).sMax;
  const int iCycles = row.iTo + 1 - row.iFrom;
  sRange& range = asRow[static_cast<std::size_t>(iRow)];
  range.iLow = static_cast<int>(sums.lMin / iCycles);
  range.iHigh = std::max(static_cast<int>(sums.lMax / iCycles), range.iLow + 1);
}

void LevelTrackers::updateBlocks() {
  const sRange newest{back(0).sMin, back(0).sMax};
  if (++iBlockCycle < kBlockCycles) {
    for (sRange& range : asBlockRange) range = joined(range, newest);
    return;
  }
  iBlockCycle = 0;
  std::shift_right(asBlock.begin(), asBlock.end(), 1);
  asBlock[0] = asBlockRange[0] = immediate(0);
  for (std::size_t k = 1; k < kBlocks; ++k) asBlockRange[k] = joined(asBlockRange[k - 1], asBlock[k]);
}
