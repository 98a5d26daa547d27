// Finds the verbs of a channel: stretches whose cycles repeat one another at a stable period (self verbs:
// voiced speech), and loud stretches without that repetition (other verbs). Works on the cycle ring, three
// cycles behind the newest cycle, and decides of each cycle, just before it is written, whether it is speech.
//
//    ... | written | r | . . | c  c+1  c+2  c+3 |
//                    |         \---- element ---/  the newest four cycles, compared with what lies a period
//                    |                             earlier
//                    the cycle released next, iMaxNumCyclesInDelayBuffer behind the newest
//
// Contents
//   FirstScan.cpp           life, the frame step, release of cycles, levels of good verbs
//   FirstScanMatching.cpp   does a cycle repeat: candidates, windows, matches
//   FirstScanDecisions.cpp  start, end and type of segments
#pragma once

#include <array>
#include <cstdio>

#include "engine/analysis/ComparisonElement.h"
#include "engine/analysis/MySubState.h"
#include "engine/analysis/NoiseFloor.h"
#include "engine/analysis/OnsetGuard.h"
#include "engine/analysis/PitchComparator.h"
#include "engine/analysis/Segment.h"
#include "engine/analysis/SpectralRise.h"
#include "engine/ZeroedArray.h"

class MyChannel;

// How strictly segments are judged, by the channel's detection level.
struct sDetection {
  float fVerbDriftLimit;     // MyChannel::fVerbDriftLimit
  int iJumpTestPercent;      // level jumps below this part of the good verbs' level are not tested
  int iSegmentLimitPercent;  // share of a self verb's matches that may leave its period
  bool bStrict;              // no match is made up
};

class FirstScan {
 public:
  static const sDetection& detectionOfLevel(int iLevel);

  // ---- Matching. Two entries: while the level rises, and while it falls.
  static constexpr int iIndexOfA1Fluctuation = 7;  // levels by which a cycle's swings are counted
  static constexpr int iIndexOfA2Fluctuation = 6;
  static constexpr int iMinDrift = 3;                                           // samples
  static constexpr std::array<int, 2> piMaxDriftInNumSamplesInCycle{5, 4};      // percent of the period
  static constexpr std::array<int, 2> piMaxDiffLevelBetweenCycleEdges{25, 20};  // 49ths of the spread
  static constexpr std::array<int, 2> piNumFluctuationsToMatch{2, 2};           // pairs of levels below
  using LevelPairs = std::array<std::array<int, 2>, 2>;
  static constexpr LevelPairs ppiActiveCycleThresholdIndexForMatching{{{9, 8}, {9, 8}}};
  static constexpr LevelPairs ppiPassiveCycleThresholdIndexForMatching{{{7, 6}, {7, 6}}};
  static constexpr std::array<int, 2> ppiActivePassiveCycleMinThresholdIndexForMatching{6, 6};
  // By level: steps by which one matched point differs from the next, points that must meet, and whether a
  // swing that a cycle border splits is matched.
  static constexpr std::array<int, kFluctuationLevels> ppiMinLevelDiffPerActiveFluctuationForMatching{
      1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  static constexpr std::array<int, kFluctuationLevels> piMinNumFluctuationsToMatch{2, 2, 2, 2, 2,
                                                                                   1, 1, 1, 1, 0};
  static constexpr std::array<bool, kFluctuationLevels> pbNeedToMatchSplitSegment{
      false, false, false, false, false, false, false, false, true, true};

  // ---- Decisions
  // Repetitions that make a self verb: while it grows, and when it ends. Fewer, and noise would imitate them;
  // more, and short syllables would be lost. A burst changes neither.
  static constexpr int iMinNumMatchesInSelfVerbSegmentDuringBuilding = 5;
  static constexpr int iMinNumMatchesInSelfVerbSegmentWhenFinal = 4;
  static constexpr int iMinNumMatchesInSelfVerbSegmentDuringBurstDuringBuilding = 5;
  static constexpr int iMinNumMatchesInSelfVerbSegmentDuringBurstWhenFinal = 4;
  // Loud cycles that make an other verb.
  static constexpr int iMinNumMatchesInNonSelfVerbSegment = 5;
  static constexpr int iMinNumMatchesInNonSelfVerbSegmentDuringBurst = 5;
  // Share of a self verb's matches that may be withdrawn, percent.
  static constexpr int iMaxPercentOfRevokingDoublingInSelf = 25;
  static constexpr int iMaxPercentOfRevokingSizeInSelf = 25;
  // An artificial match fills a hole early in a segment, once.
  static constexpr int iMinIndexForArtificialMatch = 2;
  static constexpr int iMaxIndexForArtificialMatch = 4;
  static constexpr int iMaxArtificialMatchesAllowedToBeAdded = 1;

  // Of the largest spread of the last half second, percent: a level that has fallen below it is no jump.
  static constexpr int iMinAmplitudeFromImmediateAmp = 25;

  FirstScan();  // throws std::bad_alloc

  void init(MyChannel* pChannel);
  void clean();
  void setDetection(const sDetection& settings) { detection = settings; }
  [[nodiscard]] const sDetection& detectionSettings() const { return detection; }

  // Takes over what another scan has learned of the background, and the signal it compares with.
  void adoptBackgroundOf(const FirstScan& other);

  // Advances the analysis by one cycle. *pbMore is false when the next cycle has not arrived yet and nothing
  // was done.
  void handleNextFrame(bool* pbMore);

  // The newest cycle that may be written, -1 while there is none: the scan is not active yet.
  [[nodiscard]] cHandle released() const { return iReleased; }
  [[nodiscard]] bool isActive() const { return iReleased >= 0; }
  // The segment that contains a sample time, the newest first, or null.
  [[nodiscard]] const sSegment* findSegment(int iTime) const;
  // Removes the oldest closed segment; a registration that is running gets it.
  void shiftOneSegment();
  [[nodiscard]] int closedSegments() const { return iClosed; }
  // The closed segments, 0 the oldest.
  [[nodiscard]] sSegment& closedSegment(int i) { return psSegments[slot(i)]; }

  static void printSegment(std::FILE* pFile, const sSegment& segment);

  // ---- Levels of good verbs, as spreads
  // A good verb has this spread.
  void raiseGoodVerbAmplitude(int iAmp) { iBurstAmp = std::max(iBurstAmp, iAmp); }
  void startAmplitudeOfNewBurst() { iBurstAmp = 0; }
  // A good verb has ended: its amplitude counts in the level of the bursts so far, behind the loudest of this
  // one.
  void updateMaxAmplitudeOfGoodVerbsInPrevBursts(int iVerbAmp);
  [[nodiscard]] int burstAmplitude() const { return iBurstAmp; }               // c
  [[nodiscard]] int previousBurstsAmplitude() const { return iReferenceAmp; }  // p
  [[nodiscard]] int lastUpdateAmplitude() const { return iLastUpdateAmp; }     // q
  [[nodiscard]] bool isInSelfVerb() const { return bSelfVerb; }                // F
  // max(c, p) while confident speech is running, else p. 0 before any good verb.
  [[nodiscard]] int speakerLevel() const;
  // c when the burst is confident and louder than the bursts before, else p.
  [[nodiscard]] int voiceLevel() const;

  // Mean period of the segment's match at the cycle, of its last match beyond them; 0 without a match.
  [[nodiscard]] static int estimatePitch(const sSegment& segment, cHandle cycle);

  [[nodiscard]] const PitchComparator& pitchComparator() const { return comparator; }
  // The highest rise above the background in the latest cycles, see SpectralRise.
  [[nodiscard]] float highestRise(int iCycles) const;
  // Sample time of the cycle that is compared next.
  [[nodiscard]] int currentTime() const { return iNextTime; }
  // Sample time from which on the next self verb may begin: that of the segment that is examined, if any.
  [[nodiscard]] int earliestVerb() const { return bExamining ? examined().iStartTime : iNextTime; }
  [[nodiscard]] int noiseFloor() const { return floor.floor(); }
  [[nodiscard]] const MyChannel* channel() const { return pMyChannel; }

 private:
  static constexpr int kSegments = 8;
  static constexpr int kCachedCycles = 3;
  static constexpr int kCandidates = PitchComparator::kMaxPeriod + 3;
  // By distance in samples: whether the signal repeats there.
  using Candidates = std::array<bool, kCandidates>;

  struct sCachedWindows {
    int iTime = -1;
    bool bGoingDown = false;
    sWindows windows;
  };

  // Frame step
  void releaseCycles();
  void releaseCycle(int iTime);
  void closeFrame();
  void followLoudness();
  void handleEchoCycle();
  void followBackground(int iSpread);
  void scoreRise();
  [[nodiscard]] float riseFrom(int iTime) const;
  [[nodiscard]] bool canCompare() const;
  [[nodiscard]] int spreadFrom(int iTime, int iCycles) const;

  // Matching
  [[nodiscard]] int requiredMatches(int iTime) const;
  [[nodiscard]] bool cycleParametersMatchSegment(int iTime, int iSpread, int iRequired, sSegment* pSegment);
  [[nodiscard]] bool cycleFluctuationsMatchSegment(int iTime, int iRequired, sSegment* pSegment);
  [[nodiscard]] bool tooManyFluctuations(int iTime) const;
  [[nodiscard]] const sWindows& windowsOf(int iTime);
  void prepareComparisonElement(bool bFirst, int iTime, int iMinLevel);
  void removeWindowsWhosePointsDoNotRepeat(int iTime, sWindows* pWindows);
  void doCycleFluctuationsMatchGoingUp(const PitchComparator::sScores& scores, Candidates& candidates) const;
  void doCycleFluctuationsMatchGoingDown(const PitchComparator::sScores& scores,
                                         Candidates& candidates) const;
  [[nodiscard]] static sWindows findWindows(const Candidates& candidates);
  void removeWindowsThatDoNotMatchSegment(sWindows* pWindows) const;
  void updateNewMatchParameters(int iNear, int iFar, bool bArtificial, int iTime, sSegment* pSegment);
  [[nodiscard]] bool addArtificialMatch(int iTime);

  // Decisions
  void analyzeNextComparison();
  void startSegment(int iTime);
  // Settles what the examined segment is so far; final when nothing can be added to it. True when it is a
  // self verb.
  bool stopExaminedVerbSegment(bool bFinal);
  [[nodiscard]] int matchesNeeded(bool bFinal) const;
  void acceptSelfVerb();
  void endSegment();
  void learnFrom(sSegment& segment);
  [[nodiscard]] bool isStable(const sSegment& segment) const;
  void markVerb(const sSegment& segment, bool bSelf);
  void startOtherVerb(int iFrom, int iTime);
  void growOtherVerb(int iTime);
  void endOtherVerb();

  [[nodiscard]] sSegment& examined() { return psSegments[slot(iClosed)]; }
  [[nodiscard]] const sSegment& examined() const { return psSegments[slot(iClosed)]; }
  [[nodiscard]] std::size_t slot(int i) const { return static_cast<std::size_t>((iOldest + i) % kSegments); }
  void keepExamined();

  MyChannel* pMyChannel = nullptr;
  sDetection detection = detectionOfLevel(3);

  // Closed segments, oldest first, then the one that is examined.
  ZeroedArray<sSegment> psSegments;
  int iOldest = 0;
  int iClosed = 0;
  int iIdentities = 0;

  // The examined segment
  bool bExamining = false;
  bool bAccepted = false;
  bool bGoingDown = false;   // its level has begun to fall
  int iReferenceSpread = 0;  // largest spread while rising
  int iSpreadAtTurn = 0;     // from which on it has fallen
  int iArtificial = 0;
  sWindows segmentWindows;
  int iNextTime = 0;  // sample time of the next comparison cycle
  std::array<sCachedWindows, kCachedCycles> asCache;
  int iCacheWrite = 0;

  // The other verb that is running
  sSegment otherVerb;
  int iLoudCycles = 0;
  bool bOtherVerb = false;

  std::array<sComparisonElement, 2> asElement;  // what lies before the compared cycle, and the cycle
  PitchComparator comparator;
  NoiseFloor floor;
  SpectralRise rise;
  // Scores of the latest cycles; the one of cycle n covers the cycles n-3 to n.
  static constexpr int kScores = 66;  // divides the ring of 726
  std::array<float, kScores> fScores{};
  OnsetGuard guard;
  int iFlatCycles = 0;  // in a row, up to the newest
  cHandle iReleased = -1;
  int iReleasedTime = -kCycleSamples;  // its first sample

  bool bSelfVerb = false;
  int iBurstAmp = 0;
  int iReferenceAmp = 0;
  int iLastUpdateAmp = 0;
  static constexpr int kAmpBins = 100;
  std::array<int, kAmpBins> piAmpHistogram{};
  int iAmpEntries = 0;
};
