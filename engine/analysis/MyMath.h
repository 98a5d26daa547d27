// Turning points of a waveform. Each channel owns one, with its working space; nothing is allocated later.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "engine/analysis/Cycle.h"

class MyMath {
 public:
  static constexpr int kWorkPoints = 256;
  using WorkPoints = sTurningPoints<kWorkPoints>;

  // Turning points of a cycle at levels 6 to 9, each level computed over the turning values of the one below.
  // `levels` holds one entry per level, with its threshold set; iStart is the sample time of the first
  // sample; iPlateau is the distance from a turning value that still belongs to it.
  void calculateFluctuationsInformation(std::span<const std::int16_t> samples, int iStart, int iPlateau,
                                        std::span<sFluctuationInformation> levels);
  // The same detector on a plain array with one threshold; indexes count from 0. Points beyond 256 are not
  // recorded. The result is valid until the next call.
  const WorkPoints& calculateFluctuationsInformation1(std::span<const std::int16_t> samples, int iThreshold,
                                                      int iPlateau);

  // Mean of the turning values, 0 without any.
  static std::int16_t calculateMeanVal(const sFluctuationInformation& level);
  // Steps between consecutive turning values that reach or pass v, in either direction.
  static std::int16_t calculateNumValCrossing(int v, const sFluctuationInformation& level);

  // How the turning points of one cycle and the next join. Up to three points span the boundary: a's last,
  // b's first, b's second. A valley that follows a valley is the same one when they differ by less than
  // iMinSwing.
  struct sConnection {
    enum Kind { kNone = -1, kFromFirst = 0, kFromSecond = 1, kJoined = 2 };
    struct sPoint {
      int iIndex = -1;   // in the points of the cycle it comes from; -1 when there is no such point
      bool bUp = false;  // the waveform rises after it
      Kind kind = kNone;
      bool bOfSecond = false;  // iIndex counts the second cycle's points
    };
    std::array<sPoint, 3> asPoint{};
  };
  // iMinSwing 0 takes the smaller threshold of the two.
  [[nodiscard]] static sConnection analyzeConnectionBetweenTwoCycles(const sFluctuationInformation& a,
                                                                     const sFluctuationInformation& b,
                                                                     int iMinSwing = 0);

  // Only the indexes: of a's last point, and of b's first and second; -1 for those that do not stay.
  [[nodiscard]] static std::array<int, 3> analyzeConnectionBetweenTwoCycles1(
      const sFluctuationInformation& a, const sFluctuationInformation& b);

 private:
  WorkPoints work;
};
