// Tells the learned talker's voice from other sound: learns patterns of it during a registration, keeps them,
// and while cleaning weighs every spectrum by what it holds of that voice.
//
//     newest cycle -> frame of 8 cycles, every 4 -> envelope, period -> score against the learned voice
//                                                                          |
//     verdict on a self verb <- evidence of the latest voiced frames <-----+
//     coefficients per bin of the frame that is cleaned <------------------+
//
// The analysis runs ahead of the cleaning by the channel's delay, so that a verb is judged before it is
// written. A frame is judged by itself and by what was before it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "engine/analysis/Cycle.h"
#include "engine/analysis/LearnedVoice.h"
#include "engine/analysis/Segment.h"
#include "engine/analysis/TalkerEvidence.h"
#include "engine/analysis/VoiceFrame.h"
#include "engine/analysis/VoiceGains.h"
#include "engine/analysis/VoiceScorer.h"
#include "engine/Kestrova.h"
#include "engine/ZeroedArray.h"

class MyChannel;

class SourceSeparation {
 public:
  enum class Verdict { kUnknown, kLearnedVoice, kOtherSound };

  // 64 seconds of voiced sound, of a registration of two to three minutes; of a longer one every second
  // frame, and so on.
  static constexpr int kMaxPatterns = KESTROVA_MAX_PATTERNS;

  // ---- Test tables
  // Shares of voiced frames, 1/1024: of them are the bounds between which both talkers are presumed.
  static constexpr std::array<int, 9> piThresholds{51, 102, 204, 307, 409, 512, 614, 716, 819};
  // What a frame must reach to be judged.
  enum FirstScanPoint { kRepetition, kLevel, kLevelOfTalker, kFirstScanPoints };
  struct sFirstScanTestDefinition {
    FirstScanPoint point;
    float fLeast;
  };
  static constexpr std::array<sFirstScanTestDefinition, kFirstScanPoints> psFirstScanStaticTestDefinition{
      {{kRepetition, 0.6F},        // it repeats this well
       {kLevel, 1},                // of the level from which on the detector looks for speech
       {kLevelOfTalker, 0.05F}}};  // of the good verbs

  SourceSeparation();  // throws std::bad_alloc
  void init(MyChannel* pChannel);
  // Forgets everything and gives the records' memory back, or only what was heard since the stream began.
  void clean();
  void cleanHistory();

  // ---- Learning
  // Takes the memory for the pattern records: before the first one is learned or loaded. Throws
  // std::bad_alloc.
  void initDynamicInfo();
  // Forgets the voice and gives that memory back.
  void terminateDynamicInfo();
  // Adds a pattern for every frame of a voiced stretch that begins at `from` or, where its level allows,
  // earlier.
  void learnAndPopulateDynamicInfoDuringRegistration(cHandle from, cHandle to);
  // Makes clusters of the patterns. False when they are too few to know a voice by.
  [[nodiscard]] bool stopRegistration();
  [[nodiscard]] std::span<const sVoicePattern> patterns() const {
    return {psPatterns.data(), static_cast<std::size_t>(voice[0].iPatterns)};
  }

  // ---- Cleaning
  // Whether there is anything to do for a frame: a voice has been learned, and none is being learned now.
  [[nodiscard]] bool isActive() const;
  // Called for each cycle of a frame, in order, between transform and inverse transform. MyFilters' work
  // array holds the frame's spectrum and is left alone.
  void analyzeDuringCleaning(cHandle cycle);
  // Then once per frame: applies the learned gains to the packed spectrum of a transform of that length (see
  // MyFilters.h), at the channel's rate. iFirst and iLast are the frame's sample times.
  void separate(std::span<double> dSpectrum, int iLength, int iFirst, int iLast);

  // Whether the detector has found the cycle with that sample time to be part of a self verb.
  [[nodiscard]] bool isSelfVerbSegment(int iTime) const;
  // Whether a self verb is the learned talker's, as far as its spectra tell.
  [[nodiscard]] Verdict verdictOn(const sSegment& segment) const;
  // What the verdict rests on: above 0 rather the learned talker. For measurements.
  [[nodiscard]] float scoreOf(const sSegment& segment) const;
  // Whether what was heard last speaks for the learned talker.
  [[nodiscard]] bool isForOwn() const { return heard.value() >= kOwn; }

  // ---- The separation's part of a voice profile: kSeparationBytes and then kPatternBytes per record
  [[nodiscard]] int patternRecords() const { return voice[0].iPatterns; }
  void copySpeakerDataFromDynamicInfo(std::uint8_t* puProfile) const;
  // 0, or 2 when memory is short or its figures cannot be. Reads as many records as the block tells of.
  [[nodiscard]] int copySpeakerDataToDynamicInfo(const std::uint8_t* puProfile);

 private:
  static constexpr int kHistory = 312;  // frames, 5 s
  static constexpr int kNever = -1000000;
  static constexpr float kOwn = 0.3F;  // evidence from which on the learned talker is taken to talk

  struct sEntry {
    int iEndTime = kNever;
    bool bVoiced = false;
    bool bMatched = false;
    float fScore = 0;
    float fWeight = 0;
    std::array<float, kEnvelopeBins> fCoefficient{};
  };

  void addPattern(const sVoiceFrame& frame, bool bBreak);
  void keepEverySecondPattern();
  [[nodiscard]] int referenceAmp() const;
  void analyseUpTo(int iTime);
  void analyseFrame(cHandle last);
  [[nodiscard]] bool canBeJudged(const sVoiceFrame& frame) const;
  [[nodiscard]] float weightOf(const sVoiceFrame& frame) const;
  [[nodiscard]] float powerRatio(const sVoiceFrame& frame) const;
  [[nodiscard]] float scoreAround(const sEntry& entry) const;
  void calcCoefficients(const sVoiceFrame& frame, sEntry& entry);
  [[nodiscard]] const sEntry* entryOf(int iTime) const;
  void followReference(const sEntry& entry);

  MyChannel* pMyChannel = nullptr;
  ZeroedArray<sLearnedVoice> voice;
  ZeroedArray<sVoicePattern> psPatterns;  // empty until a voice is learned or loaded
  VoiceScorer scorer;
  VoiceGains gains{scorer};
  int iLastLearned = -1;  // sample time
  int iLastPeriod = 0;
  unsigned uLearnedFrames = 0;  // voiced ones of the registration
  unsigned uTakeEvery = 1;      // of them
  bool bBreakOpen = false;      // no record has been taken since the last break

  TalkerEvidence heard;
  std::vector<sEntry> entries;  // ring of kHistory
  int iNewest = 0;
  std::array<float, kEnvelopeBins> fDefault{};  // coefficients of a frame that was not analysed
  float fOwnPart = 1;                           // of the latest voiced frames that are his
  float fOpen = 1;                              // how much of the sound is the learned talker's
  float fGain = 1;                              // makes up for what his own bins lose
};
