// The bursts (talk spurts) of a channel: which verbs belong to its own voice, how sure we are, and what that
// means for the speech gain.
#pragma once

#include <array>
#include <cstdio>

#include "engine/analysis/Segment.h"

class MyChannel;

class MySubState {
 public:
  void init(MyChannel* pChannel);
  void clean();

  void startNewBurst();
  void stopBurst();
  [[nodiscard]] bool isHavingConfidence() const { return burstState == kConfident; }

  // A self verb has been accepted (new), or has grown (existing). Settles its type and whether it is good.
  // iRevoked: matches that the caller has withdrawn.
  void updateNewSelfVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment, int iRevoked);
  void updateExistingSelfVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment, int iRevoked);
  // The same for an other verb.
  void updateNewOtherVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment);
  void updateExistingOtherVerbLength(POTENTIAL_SEGMENT_TYPE* pType, sSegment* pSegment);
  // Whether a self verb has been checked twice and found to be another voice than the channel is to keep. A
  // channel that keeps every voice rejects none.
  [[nodiscard]] bool isRejected(const sSegment& segment) const;

  // A good verb from iTime to iEnd with spread iAmp. iLength and iValue enter the good history when iLength
  // is above 0.
  void updateGood(int iTime, int iEnd, int iAmp, int iLength, int iValue);
  // Averages over the good history, 0 while it holds fewer than 4 entries.
  [[nodiscard]] int calcAvgGoodLength() const { return iAvgGoodLength; }

  // Speech gain (Q7) at a sample time: full during and shortly after confident speech, then falling in steps
  // to the floor.
  [[nodiscard]] int calculatePostGoodVerbCoef128(int iTime) const;
  // Whether a verb with this period stands out from the background by level and by its harmonics.
  [[nodiscard]] bool differentFromNoise(int iPeriod, const sSegment* pSegment) const;

  // For people who look for a fault.
  void print(std::FILE* pFile) const;

  [[nodiscard]] int badCount() const { return iBad; }
  [[nodiscard]] int lastGoodEnd() const { return iLastGoodEnd; }

 private:
  enum BurstState { kNoBurst, kRunning, kConfident };
  struct sGood {
    int iLength = 0;
    int iValue = 0;
  };
  static constexpr int kGoodHistory = 10;

  void settleSelfVerb(sSegment* pSegment, int iRevoked);
  [[nodiscard]] bool hasVoicePitch(const sSegment* pSegment, int iRevoked, int* piPeriod) const;
  [[nodiscard]] bool isLearnedVoice(sSegment* pSegment) const;
  [[nodiscard]] bool staysInBurst() const;

  MyChannel* pMyChannel = nullptr;
  BurstState burstState = kNoBurst;
  int iGood = 0;
  int iBad = 0;
  int iOther = 0;
  int iLastGoodEnd = 0;
  std::array<sGood, kGoodHistory> asGood{};
  int iGoodWrite = 0;
  int iGoodEntries = 0;
  int iAvgGoodLength = 0;
  int iAvgGoodValue = 0;
};
