// Re-testing of level jumps from a stored state, as a noise channel's stages see it.
//
// The states to keep are plain assignments: CycleInformation, FirstScan, MySubState, InputData and
// sSpectralNoiseType copy into objects that were made beforehand without allocating. CleanFrames cleans a
// stretch again with any noise estimate.
#pragma once

class MySbt {
 public:
  virtual ~MySbt() = default;

  // A new stream begins.
  virtual void clean() = 0;
  // A frame has been written.
  virtual void afterFrameProcessed() = 0;
  // The analysis runs over a test candidate, not over the stream.
  [[nodiscard]] virtual bool isTesting() const = 0;
  // Cycles that the stored state may lie back; the noise estimate keeps that far behind.
  [[nodiscard]] virtual int depthCycles() const = 0;
};
