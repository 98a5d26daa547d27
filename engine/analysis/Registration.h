// Where a voice registration hears of the channel's voiced segments. A channel owns one while its talker is
// being learned (MyChannel::bRegistrationRunning).
//
//   segment ends  -> handleProcessingForSegment   it waits until the level after it has stopped rising
//   no input left -> handleProcessingForCycle     work on the waiting one
//   queue is full -> insertNewSegment             the segment leaves the detector's queue for good
#pragma once

#include "engine/analysis/Segment.h"

class Registration {
 public:
  virtual ~Registration() = default;

  // A self verb has ended and stands in FirstScan's queue of closed segments (FirstScan::closedSegment),
  // where it can be found by its iIdentity until insertNewSegment is called with it.
  virtual void handleProcessingForSegment(const sSegment& segment) = 0;
  // The cycle analysis waits for input; called once per frame, after everything else.
  virtual void handleProcessingForCycle() = 0;
  // FirstScan gives the oldest closed segment away.
  virtual void insertNewSegment(const sSegment& segment) = 0;
};
