#include "engine/analysis/MyMath.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace {

// One pass over a range. While rising it tracks the maximum; a fall of at least the threshold below it makes
// that maximum a turning point, and the tracking goes on downward.
template <int kCapacity>
class Detector {
 public:
  Detector(std::span<const std::int16_t> range, sTurningPoints<kCapacity>& result)
      : values(range), out(result) {}

  void run() {
    out.nsegments = 0;
    out.startingup = false;
    if (values.empty()) return;
    iLow = iHigh = 0;
    for (int i = 1; i < static_cast<int>(values.size()); ++i) {
      if (iDirection == 0) {
        open(i);
      } else {
        follow(i);
      }
    }
    close();
  }

 private:
  [[nodiscard]] int at(int i) const { return values[static_cast<std::size_t>(i)]; }
  [[nodiscard]] int& extreme() { return iDirection > 0 ? iHigh : iLow; }

  // Before the first turning point both extremes are followed. The value that confirms the point belongs to
  // the swing after it, not to the opening.
  void open(int i) {
    const int iLowBefore = iLow;
    const int iHighBefore = iHigh;
    if (at(i) > at(iHigh)) iHigh = i;
    if (at(i) < at(iLow)) iLow = i;
    if (at(i) - at(iLow) >= out.threshold) {
      begin(iLow, iHighBefore, +1, i);
    } else if (at(iHigh) - at(i) >= out.threshold) {
      begin(iHigh, iLowBefore, -1, i);
    }
  }

  void begin(int iPoint, int iOpposite, int iNewDirection, int i) {
    out.startingup = iNewDirection > 0;
    out.ExtremeVals[0] = values[static_cast<std::size_t>(iOpposite)];
    out.ExtremeIdx[0] = iOpposite;
    iReached = iPoint;
    turn(iPoint, i);
    iDirection = iNewDirection;
    extreme() = i;
  }

  void follow(int i) {
    const int iRise = iDirection * (at(i) - at(extreme()));
    if (iRise > 0) {
      extreme() = i;
    } else if (-iRise >= out.threshold) {
      turn(extreme(), i);
      iDirection = -iDirection;
      extreme() = i;
    }
  }

  // iPoint is confirmed as a turning point by the value at i.
  void turn(int iPoint, int i) {
    if (out.nsegments < kCapacity) {
      sTurningPoint& point = out.points[static_cast<std::size_t>(out.nsegments++)];
      point = sTurningPoint{.toidx = iPoint,
                            .lval = values[static_cast<std::size_t>(iPoint)],
                            .fthresh = iReached,
                            .lthresh = i - 1};
    }
    iReached = i;
  }

  void close() {
    const int iOpen = iDirection == 0 ? 0 : extreme();
    out.ExtremeVals[1] = values[static_cast<std::size_t>(iOpen)];
    out.ExtremeIdx[1] = iOpen;
  }

  std::span<const std::int16_t> values;
  sTurningPoints<kCapacity>& out;
  int iDirection = 0;
  int iLow = 0;
  int iHigh = 0;
  int iReached = 0;  // where the present swing first reached the threshold
};

// Where the waveform comes within iPlateau of each turning value, and where it leaves.
template <int kCapacity>
void findPlateaus(std::span<const std::int16_t> values, int iPlateau, sTurningPoints<kCapacity>& out) {
  const auto near = [&](int i, int iValue) {
    return std::abs(values[static_cast<std::size_t>(i)] - iValue) <= iPlateau;
  };
  for (int k = 0; k < out.nsegments; ++k) {
    sTurningPoint& point = out.points[static_cast<std::size_t>(k)];
    point.efi = point.eti = point.toidx;
    if (k >= 2) {
      int i = out.points[static_cast<std::size_t>(k - 1)].lthresh + 1;
      while (i < point.toidx && !near(i, point.lval)) ++i;
      point.efi = i;
    }
    for (int i = point.toidx; i <= point.lthresh; ++i) {
      if (near(i, point.lval)) point.eti = i;
    }
  }
}

template <int kCapacity>
void analyse(std::span<const std::int16_t> values, int iPlateau, sTurningPoints<kCapacity>& out) {
  Detector<kCapacity>(values, out).run();
  findPlateaus(values, iPlateau, out);
}

void shiftIndexes(sFluctuationInformation& level, int iStart) {
  for (int k = 0; k < level.nsegments; ++k) {
    sTurningPoint& point = level.points[static_cast<std::size_t>(k)];
    for (std::int32_t* piIndex : {&point.toidx, &point.fthresh, &point.lthresh, &point.efi, &point.eti}) {
      *piIndex += iStart;
    }
  }
  for (auto& iIndex : level.ExtremeIdx) iIndex += iStart;
}

}  // namespace

void MyMath::calculateFluctuationsInformation(std::span<const std::int16_t> samples, int iStart, int iPlateau,
                                              std::span<sFluctuationInformation> levels) {
  std::array<std::int16_t, kCycleTurningPoints> psBelow;
  std::span<const std::int16_t> values = samples;
  for (sFluctuationInformation& level : levels) {
    analyse(values, iPlateau, level);
    const auto uPoints = static_cast<std::size_t>(level.nsegments);
    for (std::size_t k = 0; k < uPoints; ++k) psBelow[k] = level.points[k].lval;
    values = std::span(psBelow).first(uPoints);
  }
  shiftIndexes(levels.front(), iStart);
}

const MyMath::WorkPoints& MyMath::calculateFluctuationsInformation1(std::span<const std::int16_t> samples,
                                                                    int iThreshold, int iPlateau) {
  work.threshold = iThreshold;
  analyse(samples, iPlateau, work);
  return work;
}

std::int16_t MyMath::calculateMeanVal(const sFluctuationInformation& level) {
  constexpr int kGroup = 10;  // points that are added up before the division
  int iMean = 0;
  for (int iFirst = 0; iFirst < level.nsegments; iFirst += kGroup) {
    int iSum = 0;
    for (int k = iFirst; k < std::min<int>(iFirst + kGroup, level.nsegments); ++k) {
      iSum += level.points[static_cast<std::size_t>(k)].lval;
    }
    iMean += iSum / level.nsegments;
  }
  return static_cast<std::int16_t>(iMean);
}

std::int16_t MyMath::calculateNumValCrossing(int v, const sFluctuationInformation& level) {
  int iCrossings = 0;
  for (int k = 1; k < level.nsegments; ++k) {
    const int iFrom = level.points[static_cast<std::size_t>(k - 1)].lval;
    const int iTo = level.points[static_cast<std::size_t>(k)].lval;
    if ((iFrom < v && iTo >= v) || (iFrom > v && iTo <= v)) ++iCrossings;
  }
  return static_cast<std::int16_t>(iCrossings);
}

MyMath::sConnection MyMath::analyzeConnectionBetweenTwoCycles(const sFluctuationInformation& a,
                                                              const sFluctuationInformation& b,
                                                              int iMinSwing) {
  sConnection connection;
  auto* pOut = connection.asPoint.data();
  const int iLast = a.nsegments - 1;
  const bool bLastUp = (iLast % 2 == 0) == a.startingup;
  const int iLastValue = iLast >= 0 ? a.points[static_cast<std::size_t>(iLast)].lval : 0;
  if (iLast >= 0) *pOut++ = {iLast, bLastUp, sConnection::kFromFirst};
  if (b.nsegments == 0) return connection;
  const int iFirstValue = b.points[0].lval;
  const int iFurther = b.startingup ? iLastValue - iFirstValue : iFirstValue - iLastValue;
  if (iLast >= 0 && bLastUp == b.startingup) {
    const int iLimit = iMinSwing > 0 ? iMinSwing : std::min(a.threshold, b.threshold);
    if (std::abs(iFirstValue - iLastValue) >= iLimit) {
      *pOut++ = {0, b.startingup, sConnection::kFromSecond, true};
    } else if (iFurther > 0) {
      pOut[-1] = {0, b.startingup, sConnection::kJoined, true};
    } else {
      pOut[-1].kind = sConnection::kJoined;
    }
  } else if (iLast < 0 || iFurther > 0) {
    *pOut++ = {0, b.startingup, sConnection::kFromSecond, true};
  }
  if (b.nsegments > 1) *pOut = {1, !b.startingup, sConnection::kFromSecond, true};
  return connection;
}

std::array<int, 3> MyMath::analyzeConnectionBetweenTwoCycles1(const sFluctuationInformation& a,
                                                              const sFluctuationInformation& b) {
  std::array<int, 3> piIndex{-1, -1, -1};
  for (const auto& point : analyzeConnectionBetweenTwoCycles(a, b).asPoint) {
    if (point.iIndex < 0) continue;
    piIndex[point.bOfSecond ? 1 + static_cast<std::size_t>(point.iIndex) : 0] = point.iIndex;
  }
  return piIndex;
}
