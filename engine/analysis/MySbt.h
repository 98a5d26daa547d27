// Re-tests level jumps. The detector commits itself as cycles come in, and a jump of the level may find it on
// the wrong foot: the repetitions of a voice that sets in are missed because noise under them, or the way the
// cycles fall on its periods, hides them. So the state before a jump is kept, and ten cycles later, when the
// jump has lasted and no voice was found, the stretch is analysed again from that state with other input: a
// little delayed, and with the background taken off. The run that finds voice best stays.
//
//        stored state               now
//             |<---- 10 cycles ---->|
//     --------|  received input     |      the run so far
//             |  delayed by 8 .. 24 |      candidates
//             |  cleaned, delayed   |
//
// A channel owns two: the first does the work and holds the stored state, the second the state of the run so
// far.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "engine/analysis/CycleInformation.h"
#include "engine/analysis/FirstScan.h"
#include "engine/analysis/MySubState.h"
#include "engine/MyClean.h"
#include "engine/MyDtmf.h"
#include "engine/MyFilters.h"
#include "engine/OutputData.h"

class MyChannel;

class MySbt {
 public:
  // Cycles that the stored state may lie back; the noise estimate keeps that far behind.
  static constexpr int kDepthCycles = 10;
  static constexpr int kStretchSamples = kDepthCycles * kCycleSamples;
  static constexpr int kMaxCandidates = 12;

  MySbt();  // throws std::bad_alloc
  // pOther is the slot that holds the state of the run so far; null for that slot itself.
  void init(MyChannel* pChannel, MySbt* pOther);
  // A new stream begins.
  void clean();
  // A cycle has been analysed and what it released has been written.
  void afterFrameProcessed();
  // The analysis runs over a test candidate, not over the stream.
  [[nodiscard]] bool isTesting() const { return bTesting; }

  [[nodiscard]] bool existsJump() const;
  // Figures for measurements: jumps that were tested, and runs that were kept.
  [[nodiscard]] int tested() const { return iTested; }
  [[nodiscard]] int kept() const { return iKept; }

 private:
  using Stretch = std::array<std::int16_t, kStretchSamples>;
  struct sCandidate {
    int iSource = 0;  // index of the input it delays
    int iDelay = 0;   // samples
  };
  // Samples of the stretch that one run of frames brings.
  struct sCleanedPart {
    int iFrom;
    int iTo;
    int iFrame;  // start of its last whole frame
    int iAlone;  // from here on no other frame overlaps it
  };

  void store();
  void restore() const;
  void putInput(const Stretch& input) const;
  void storeOriginalInputData();
  [[nodiscard]] bool shouldWeProceedWithTheJump() const;
  void prepareTestCandidates();
  void addDelays(const Stretch& input, int iMostDelay);
  void findWinner();
  void takeCleaned(const sCleanedPart& part, sSpectralNoiseType& estimate, Stretch& result);
  [[nodiscard]] Stretch cleaned(sSpectralNoiseType& estimate);
  void runTests();
  [[nodiscard]] int run(const sCandidate& candidate, int iToBeat);
  [[nodiscard]] bool mayFindVerb() const;
  void keepRun();
  [[nodiscard]] int getVerbDetectionScore(int iCycles) const;

  MyChannel* pMyChannel = nullptr;
  MySbt* pSoFar = nullptr;
  bool bStored = false;
  bool bTesting = false;
  int iRetries = 0;
  int iStoredTime = -1;  // sample time of the last sample analysed before the stretch
  int iTested = 0;
  int iKept = 0;

  // A state
  CycleInformation cycles;
  FirstScan scan;
  MySubState burst;
  MyDtmf dtmf;
  MyClean driver;
  ZeroedArray<sSpectralNoiseType> noise;  // the estimate then, and one to work with

  // The test
  Stretch received{};
  std::array<Stretch, 4> inputs{};
  int iInputs = 0;
  std::array<sCandidate, kMaxCandidates> asCandidate{};
  int iCandidates = 0;
  std::optional<float> winnerDrift;
  sOverlap overlap;
};
