// What telling the learned voice from other sound adds to a noise channel, as its stages see it.
#pragma once

#include <cstdint>
#include <span>

#include "engine/analysis/Cycle.h"
#include "engine/analysis/Segment.h"

class SourceSeparation {
 public:
  enum class Verdict { kUnknown, kLearnedVoice, kOtherSound };

  virtual ~SourceSeparation() = default;

  // A new stream begins: forgets what was heard, keeps what was learned.
  virtual void cleanHistory() = 0;

  // Whether there is anything to do for a frame: the talker is being learned, or has been.
  [[nodiscard]] virtual bool isActive() const = 0;
  // Called for each cycle of a frame, in order, between transform and inverse transform. MyFilters' work
  // array holds the frame's spectrum and must be left alone.
  virtual void analyzeDuringCleaning(cHandle cycle) = 0;
  // Then once per frame: applies the learned gains to the packed spectrum of a transform of that length (see
  // MyFilters.h), at the channel's rate. iFirst and iLast are the frame's sample times.
  virtual void separate(std::span<double> dSpectrum, int iLength, int iFirst, int iLast) = 0;

  // Whether a self verb is the learned talker's, as far as its spectra tell.
  [[nodiscard]] virtual Verdict verdictOn(const sSegment& segment) const = 0;

  // The separation's part of a voice profile: kSeparationBytes and then kPatternBytes per record. Loading
  // returns 0, or 2 when memory is short or the record count is out of range.
  [[nodiscard]] virtual int patternRecords() const = 0;
  virtual void copySpeakerDataFromDynamicInfo(std::uint8_t* puProfile) const = 0;
  [[nodiscard]] virtual int copySpeakerDataToDynamicInfo(const std::uint8_t* puProfile) = 0;
};
