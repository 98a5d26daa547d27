// The engine's units and sizes, in one place.
//
// Three things count samples and must not be mixed up: a sample time is the absolute index of a sample since
// the stream began, at the analysis rate of 8 kHz; a ring position is an index into one of the sample rings;
// a cycle index names a slot of the 726-cycle ring.
#pragma once

#include <algorithm>
#include <cstdint>

// ---- Rates

inline constexpr int kAnalysisRate = 8000;  // Hz; whatever the channel's rate, the analysis runs at this one
inline constexpr int kMaxChannelRate = 64000;  // Hz
inline constexpr int kMaxRateFactor = kMaxChannelRate / kAnalysisRate;

// ---- Cycles and frames

inline constexpr int kCycleSamples = 32;  // 4 ms at 8 kHz
inline constexpr int kRingCycles = 726;   // cycles kept per channel, 2.9 s
inline constexpr int kGuardCycles = 8;    // slots from the write index on that are never read
inline constexpr int kMaxFrameUnits = 8;  // a frame is 1 to 8 cycles long
inline constexpr int kMaxFrameSamples = kMaxFrameUnits * kCycleSamples;
inline constexpr int kMaxInitialDelaySamples = 96;
inline constexpr int kMinDelayCycles = 2;  // cycles between the newest analysed cycle and the written one
inline constexpr int kMaxDelayCycles = 50;

// ---- Sample rings

inline constexpr int kAnalysisRingSamples = 24000;  // 3 s at 8 kHz
inline constexpr int kFullRateRingSamples = kAnalysisRingSamples * kMaxRateFactor;
inline constexpr int kCycleLapSamples = kRingCycles * kCycleSamples;  // 23232

static_assert(kCycleLapSamples + kMaxFrameSamples <= kAnalysisRingSamples,
              "the samples of every cycle in the cycle ring are still in the sample ring");
static_assert(kAnalysisRingSamples % kCycleSamples == 0, "no cycle straddles the wrap of the sample ring");

// ---- Scratch

// The longest frame there is: 8 cycles of 16-bit samples at the highest rate.
inline constexpr int kMaxFrameBytes = kMaxFrameSamples * kMaxRateFactor * 2;
static_assert(kMaxFrameBytes == 4096);

// ---- Levels

inline constexpr int kUnityQ7 = 128;        // a gain of 1
inline constexpr int kSampleLimit = 32512;  // samples are kept within +-32512 everywhere inside the engine
inline constexpr int kLargestSpread = 2 * kSampleLimit;  // between the largest and the smallest sample

constexpr int percentToQ7(int iPercent) {
  return iPercent * kUnityQ7 / 100;
}

constexpr std::int16_t clampSample(int iValue) {
  return static_cast<std::int16_t>(std::clamp(iValue, -kSampleLimit, kSampleLimit));
}
