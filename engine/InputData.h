// The input stage of a channel: the last three seconds of what came in, at the channel's own rate and at the
// analysis rate of 8 kHz.
//
//   full-rate ring   f x 24,000 samples   | every sample              f = channel rate / 8000 (integer)
//   analysis ring        24,000 samples   | every f-th: the samples at ring positions f-1, 2f-1, 3f-1, ...
//
// Both rings wrap at the same moment, once per lap of 24,000 analysis samples.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/EngineUnits.h"
#include "engine/ZeroedArray.h"

class MyChannel;

class InputData {
 public:
  // Allocates both rings for the highest rate. Throws std::bad_alloc.
  InputData();

  // Attaches the stage to its channel and empties it.
  void init(MyChannel* pChannel);
  // Empties the stage for a new stream at the channel's present rate.
  void openSynchronized();

  // Takes the constant off that the cycle analysis has found, and appends iBytes bytes of samples in the
  // given format: 16-bit linear in the machine's byte order, or 8-bit with 128 as zero. Samples are kept
  // within +-32512.
  void addData(const void* pSamples, int iBytes, bool bIs16Bit);

  // Samples received since the stream began, at the analysis rate.
  [[nodiscard]] int getNumValues() const { return iLaps * kAnalysisRingSamples + iAnalysisIndex; }
  // Whether the sample with this time has been received and is still in the ring.
  [[nodiscard]] bool indexExists(int iSampleTime) const;
  // The oldest sample time that is still in the ring.
  [[nodiscard]] int oldestTime() const;
  // The samples from this time on, as far as the ring's end; at the channel's rate there are rateFactor() for
  // each time.
  [[nodiscard]] const std::int16_t* analysisSamples(int iSampleTime) const;
  [[nodiscard]] const std::int16_t* fullRateSamples(int iSampleTime) const;
  // The full-rate sample with this index, counted from the start of the stream at the channel's rate.
  [[nodiscard]] std::int16_t atFullRate(std::int64_t lIndex) const;
  // The analysis sample with this time, which must exist.
  [[nodiscard]] std::int16_t at(int iSampleTime) const;
  // All of the analysis ring: the sample with time t is at t % kAnalysisRingSamples.
  [[nodiscard]] const std::int16_t* analysisRing() const { return psAnalysisRing.data(); }
  // The 32 analysis samples of the cycle that starts at this time, a multiple of 32.
  [[nodiscard]] std::int16_t* cycleSamples(int iStartTime);

  // The constant that is taken off every sample, once a constant has been seen.
  [[nodiscard]] int dcOffset() const { return iDcOffset; }

  [[nodiscard]] int rateFactor() const { return iRateFactor; }

 private:
  void append(int iSample);
  void updateDcOffset();

  MyChannel* pMyChannel = nullptr;
  ZeroedArray<std::int16_t> psAnalysisRing;
  ZeroedArray<std::int16_t> psFullRateRing;
  int iRateFactor = 1;
  int iAnalysisIndex = 0;      // next position in the analysis ring
  int iFullRateIndex = 0;      // next position in the full-rate ring
  int iSamplesToAnalysis = 1;  // input samples until the next one that enters the analysis ring
  int iLaps = 0;
  bool bDcLocked = false;
  int iDcOffset = 0;
  int iDcLockPosition = -1;  // for support: samples received when the offset was locked, -1 until then
};
