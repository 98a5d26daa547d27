// What the parts of the echo canceller share: units, the mode, the echo span, the talk scores and the state
// of the cycle at hand.
//
//   loudspeaker x ──> [ echo path: delay, room ] ──> echo ──> (+) ──> microphone m
//         │                                                    ^
//         └──> [ filters ] ──> estimate y                near-end talker
//
// Delays are in samples at 8 kHz: x(n - delay) is heard in m(n). Levels are spreads (largest - smallest
// sample) unless they are called powers.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>

#include "engine/analysis/Cycle.h"
#include "engine/EngineUnits.h"
inline constexpr int kMaxTaps = 512;      // of a filter: 64 ms
inline constexpr int kRecentHold = 99;    // samples for which a hold's reference amplitude outlives it
inline constexpr int kNever = -90000000;  // sample time of what has not happened yet

// How an algorithm number is carried out. The low nibble says how the estimate is used, 1 never directly and
// 4 always; the high nibble whether the frequency-domain filter runs (> 0), whether the time-domain filter
// keeps running beside it (> 1) and whether the latter may win back (3).
struct sAecMode {
  std::uint8_t uValue = 0x01;

  [[nodiscard]] constexpr int low() const { return uValue & 0x0F; }
  [[nodiscard]] constexpr int high() const { return uValue >> 4; }
  [[nodiscard]] constexpr bool hasFrequencyDomain() const { return high() > 0; }

  static constexpr sAecMode ofAlgorithm(int iAlgorithm) {
    constexpr std::array<std::uint8_t, 8> puModes{0x01, 0x01, 0x02, 0x03, 0x04, 0x11, 0x21, 0x34};
    return {iAlgorithm < 0 || iAlgorithm > 7 ? puModes[0] : puModes[static_cast<std::size_t>(iAlgorithm)]};
  }
};

// Where in time the echo may lie, in cycles of delay.
struct sEchoSpan {
  int iStart = 0;
  int iEnd = 225;

  static constexpr int kMinCycles = 25;
  static constexpr int kMaxCycles = kRingCycles - 1;

  [[nodiscard]] constexpr int cycles() const { return iEnd - iStart; }
  [[nodiscard]] constexpr int startSamples() const { return iStart * kCycleSamples; }
  [[nodiscard]] constexpr int endSamples() const { return iEnd * kCycleSamples; }

  // From the settings AECTailType and the tail start: steps of 0.5 s upwards, of 50 ms downwards.
  static constexpr sEchoSpan ofTail(int iTailType, int iTailStart) {
    const int iRawEnd = iTailType >= 0 ? 125 * iTailType + 100 : (-25 * iTailType + 1) / 2;
    const int iEnd = std::clamp(iRawEnd, kMinCycles, kMaxCycles);
    const int iRawStart = iTailStart >= 1 ? 125 * iTailStart : (-25 * iTailStart + 1) / 2;
    return {std::max(0, std::min(iRawStart, iEnd - kMinCycles)), iEnd};
  }
};

// What the talk detector says of a cycle. Positive: somebody talks at the microphone, the more certain the
// larger (below 70 the values in between are used too). Negative: echo or silence only.
namespace score {
inline constexpr int kFarSilentNearActive = 100;
inline constexpr int kTwiceTheEcho = 80;
inline constexpr int kWellAboveEcho = 77;
inline constexpr int kAboveEcho = 75;
inline constexpr int kFarSilent = 70;  // the cycle passes unchanged
inline constexpr int kDefault = -10;
inline constexpr int kEchoLikely = -15;
inline constexpr int kEcho = -20;
inline constexpr int kEchoByCoupling = -23;  // the same, and no louder than the coupling lets expect
inline constexpr int kHowling = -25;
inline constexpr int kBelowResidual = -30;
inline constexpr int kResidualBelowReference = -32;
inline constexpr int kEchoCertain = -35;
}  // namespace score

// The cycle at hand, filled step by step as the canceller goes through it; later steps read what earlier ones
// wrote, and some figures are those of the cycle before until they are renewed.
struct sAecCycle {
  cHandle cycle = 0;
  int iFirst = 0;  // sample time of its first sample
  int iLast = 0;
  int iSpkLast = -1;  // sample time of the newest loudspeaker sample

  // Microphone
  std::array<float, kCycleSamples> fMic{};
  int iMicSpread = 1;  // of these samples
  int iMicAmp1 = 1;    // spread over 1, 2 and 4 cycles
  int iMicAmp2 = 1;
  int iMicAmp = 1;
  int iPrevMicAmp1 = 1;
  int iPrevMicAmp = 1;
  int iTracker6 = 0;
  int iTracker7 = 0;
  int iMicStart = -1;  // sample time at which the microphone first carried anything
  bool bClipping = false;
  int iLastClipping = kNever;
  int iRiseRatio = 16;  // amplitude over its running average, 16 = 1.0
  bool bWeak = false;
  bool bMicQuiet = false;    // nothing above the background
  bool bQuietLevel = false;  // the same by the low-level test
  bool bMicActive = false;
  int iQuietCycles = 0;            // consecutive quiet-microphone cycles
  std::int64_t lLargestPower = 0;  // of the tracked powers of the microphone

  // Loudspeaker
  int iSpkAmp = 1;         // spread over 96 samples at the delay of the active set's peak
  int iSpkAverageAmp = 1;  // the same on average
  int iSpkReachAmp = 1;    // spread over everything that the filter in use reaches, and 96 samples more
  int iSpkSpanAmp = 1;     // spread over the active set's span
  bool bBreathing = false;

  // Echo path
  bool bStablePath = false;
  bool bDoublePath = false;
  bool bDoublePath2 = false;
  bool bDoublePath3 = false;
  bool bRestarted = true;  // nothing has been learnt since the filters began (anew)
  bool bConvergenceOk = false;
  int iEchoDelay = -1;         // samples; -1 while unknown
  bool bPathLost = false;      // what the filter knew of the path has just stopped explaining the echo
  bool bTalkOverPath = false;  // loud talk over a path that is known: no evidence of another path counts
  bool bFilterLost = true;     // the frequency-domain filter, where there is one, cancels next to nothing

  // Near-end talk
  int iTalkScore = score::kDefault;
  bool bNearEndTalk = true;
  bool bMicAboveEcho = false;
  bool bLoudBurst = false;
  int iStrongHoldEnd = kNever;
  int iStrongHoldAmp = 0;
  int iTalkHoldEnd = kNever;
  int iTalkHoldAmp = 0;
  int iFdScore = score::kDefault;
  bool bFdNearEndTalk = true;
  int iFdHoldEnd = kNever;
  int iFdHoldAmp = 0;
  // Howling
  bool bHowling = false;
  int iHowlingHoldEnd = -1;

  // Residual
  int iResidualRatio = 128;  // Q7: smallest residual of the time-domain sets over the microphone
  int iWorkingAmp = 1;

  [[nodiscard]] bool beforeHowlingHoldEnd() const { return iFirst < iHowlingHoldEnd; }
  [[nodiscard]] bool anyDoublePath() const { return bDoublePath || bDoublePath2 || bDoublePath3; }
};
