#include "engine/aec/MicLevels.h"

#include <algorithm>
#include <cstdlib>

#include "engine/MyChannel.h"

namespace {

constexpr int kMicStartAmp = 11;
constexpr int kBothRails = 64999;  // spread that reaches both ends of the range
constexpr int kClippingAmp = 32766;
constexpr int kClippingSamples = 2000;  // 250 ms
constexpr int kWeakAmp = 499;
constexpr int kNeverQuietAmp = 2999;
constexpr int kActiveAmp = 4500;

// A power follows at 0.5 % per update: one second.
std::int64_t followed(std::int64_t lOld, std::int64_t lNew) {
  return (5 * lNew + 995 * lOld) / 1000;
}

}  // namespace

void MicLevels::clean(const MyChannel* pMicChannel) {
  *this = MicLevels{};
  pChannel = pMicChannel;
}

void MicLevels::measure(sAecCycle& now) const {
  const CycleInformation& cycles = *pChannel->pCycleInformation;
  now.iPrevMicAmp = now.iMicAmp;
  now.iPrevMicAmp1 = now.iMicAmp1;
  now.iMicAmp1 = cycles.calcAmp(now.cycle, 1);
  now.iMicAmp2 = cycles.calcAmp(now.cycle, 2);
  now.iMicAmp = cycles.calcAmp(now.cycle, 4);
  now.iTracker6 = cycles.trackers().immediate(6).spread();
  now.iTracker7 = cycles.trackers().immediate(7).spread();
  if (now.iMicStart < 0 && now.iMicAmp >= kMicStartAmp) now.iMicStart = now.iFirst;
  if (now.iMicAmp > kBothRails) now.iLastClipping = now.iLast;
  now.bClipping = now.iMicAmp > kClippingAmp && now.iFirst - now.iLastClipping < kClippingSamples;
}

void MicLevels::cacheMicValues(sAecCycle& now) {
  const std::int16_t* psSamples = pChannel->pInputData->cycleSamples(now.iFirst);
  std::copy_n(psSamples, kCycleSamples, now.fMic.begin());
  now.iMicSpread = now.iMicAmp1;

  const std::int64_t a2 = static_cast<std::int64_t>(now.iMicAmp) * now.iMicAmp;
  const std::int64_t b2 = static_cast<std::int64_t>(now.iMicAmp2) * now.iMicAmp2;
  const bool bFaint = now.iMicAmp <= kNeverQuietAmp;
  now.bWeak =
      now.iMicAmp <= kWeakAmp || (bFaint && (now.bWeak ? b2 * 8 < lTrackedEcho : a2 * 16 < lTrackedEcho));
  now.bMicQuiet = bFaint && a2 * (now.bMicQuiet ? 8 : 16) < lTrackedMic;
  now.bQuietLevel = bFaint && (now.bQuietLevel ? a2 * 2 < lTrackedMic : a2 * 16 < lTrackedMic);
  now.iQuietCycles = now.bMicQuiet ? now.iQuietCycles + 1 : 0;

  const int iSmaller = std::min(now.iTracker6, now.iTracker7);
  const bool bMoving = now.iTracker6 > 3000 && std::abs(now.iTracker6 - now.iTracker7) * 128 >= 20 * iSmaller;
  now.bMicActive = now.iMicAmp > kActiveAmp || a2 * 16 > lTrackedMic || (!now.bQuietLevel && bMoving);

  lTrackedMic = followed(lTrackedMic, a2);
  if (now.iTalkScore < 0 && now.iSpkReachAmp >= 1000) lTrackedEcho = followed(lTrackedEcho, a2);
  now.lLargestPower = std::max(lTrackedMic, lTrackedEcho);
}

void MicLevels::updateRise(sAecCycle& now) {
  now.iRiseRatio = static_cast<int>(static_cast<std::int64_t>(now.iMicAmp) * 16 / std::max(1, iAverageAmp));
  iAverageAmp = (iAverageAmp * 7 + now.iMicAmp) >> 3;
}
