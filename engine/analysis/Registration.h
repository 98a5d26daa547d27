// Learns a talker's voice from the voiced segments that the detector finds while he speaks. A channel owns
// one while its talker is being learned, that is, at least while MyChannel::bRegistrationRunning is set.
//
//   segment ends  -> handleProcessingForSegment   it waits until the level after it has stopped rising
//   no input left -> handleProcessingForCycle     work on the waiting one
//   queue is full -> insertNewSegment             the segment leaves the detector's queue for good
//   end           -> stop                         the talker's pitch, histograms, templates and patterns
#pragma once

#include <array>

#include "engine/analysis/Segment.h"
#include "engine/ZeroedArray.h"

class MyChannel;

class Registration {
 public:
  static constexpr int kMaxSegments = 1000;

  // Why nothing usable was learned.
  enum class Outcome { kLearned, kTooShort, kWeak, kMixed, kNoMemory };

  explicit Registration(MyChannel& owner);  // throws std::bad_alloc

  void start();
  // A self verb has ended and stands in FirstScan's queue of closed segments.
  void handleProcessingForSegment(const sSegment& segment);
  // The cycle analysis waits for input; called once per frame, after everything else.
  void handleProcessingForCycle();
  // FirstScan gives the oldest closed segment away.
  void insertNewSegment(const sSegment& segment);
  // Derives the talker's data; afresh, or added to what was learned before. What was learned is cleared when
  // it is not usable.
  Outcome stop(bool bFresh);
  // Ends it for good: what was learned is cleared. Says what its verbs alone tell; no voice is derived.
  Outcome discard();

  [[nodiscard]] int segments() const { return iSegments; }
  [[nodiscard]] bool hasOverflowed() const { return bOverflow; }

 private:
  using Periods = std::array<int, kPitchBins>;

  [[nodiscard]] bool validEntry() const;
  [[nodiscard]] sSegment* findSelfVerb(int iIdentity);
  void stopSegmentDuringRegistration(sSegment& segment);
  void learnPending();
  void end();
  [[nodiscard]] Outcome derive(bool bFresh);
  [[nodiscard]] Outcome learnPitch(bool bFresh);
  void learnHistograms();
  void learnTemplates();
  [[nodiscard]] bool isWeak() const;
  [[nodiscard]] bool isOwn(const sSegment& segment) const;

  MyChannel& channel;
  ZeroedArray<sSegment> psStore;
  int iSegments = 0;
  bool bOverflow = false;

  bool bPending = false;
  int iPendingIdentity = 0;
  int iPendingAmp = 0;
  int iPendingTime = 0;  // sample time of its end: the ring may have come round
};
