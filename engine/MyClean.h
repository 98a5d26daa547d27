// The frame driver of a channel: takes one frame through input, analysis and output, and gives back what the
// output stage has released.
#pragma once

#include <cstdio>

#include "engine/analysis/Cycle.h"

class MyChannel;

class MyClean {
 public:
  void init(MyChannel* pChannel) { pMyChannel = pChannel; }

  // Makes the channel's analysis ready for a new stream.
  void beforeCleaning();

  // One frame of iInBytes bytes (at most kMaxFrameBytes) in the given format; pOut may be pIn. *piOutBytes is
  // what was written to pOut, in the channel's format: nothing until the first cycle has passed the delay,
  // then as much as came in. 0, or 1 when a stage failed.
  [[nodiscard]] int cleanOneFrame(const void* pIn, int iInBytes, bool bIs16Bit, void* pOut, int* piOutBytes);

  // Reports the segments that are kept and the burst they belong to, for people who look for a fault.
  void afterCleaning(std::FILE* pFile) const;

  // Sample times are 32-bit. A stream of 37 hours starts over, long before they run out; the two streams of
  // an echo channel together, which their caller sees to.
  [[nodiscard]] bool isStreamWorn() const;
  void restartStream();

  // Writes every cycle that the analysis has released. 0, or the largest result of the output stage: a cycle
  // that fails keeps back none of the others.
  [[nodiscard]] int outputResults();

 private:
  [[nodiscard]] int writeCycle(cHandle cycle);

  static constexpr int kNoTone = -99999;

  MyChannel* pMyChannel = nullptr;
  int iLastTonePosition = kNoTone;  // end of the last cycle that held a DTMF tone
  int iLastOutput = -1;             // sample time of the last sample written
};
