// The frame driver of a channel: takes one frame through the stages and gives back what they have released.
#pragma once

class MyChannel;

class MyClean {
 public:
  void init(MyChannel* pChannel) { pMyChannel = pChannel; }

  // One frame of iInBytes bytes (at most kMaxFrameBytes) in the given format; pOut may be pIn. *piOutBytes is
  // what was written to pOut. 0, or 1 when a stage failed.
  [[nodiscard]] int cleanOneFrame(const void* pIn, int iInBytes, bool bIs16Bit, void* pOut, int* piOutBytes);

 private:
  MyChannel* pMyChannel = nullptr;
};
