// Cuts a channel's input into cycles of 32 samples and keeps a ring of the latest 726 with their levels,
// turning points and marks.
//
//   0 ........ W-1 | W ...... W+7 | W+8 ......... 725
//   this lap       | guard zone   | previous lap (once the ring has gone round)
//
// Slots in the guard zone are about to be overwritten and are never read.
#pragma once

#include <cstdio>
#include <memory>

#include "engine/analysis/Cycle.h"
#include "engine/analysis/DigitText.h"
#include "engine/analysis/LevelTrackers.h"
#include "engine/EngineUnits.h"
#include "engine/ZeroedArray.h"

class MyChannel;

class CycleInformation {
 public:
  // Threshold of each level, percent of the cycle's amplitude.
  static constexpr std::array<int, kFluctuationLevels> piThresholdPercent{5,  10, 20, 30, 40,
                                                                          50, 60, 70, 80, 90};

  // The immediate trackers, see LevelTrackers.h.
  static constexpr std::array<sImmediateParam, LevelTrackers::kRows> psImmediateParam{{{0, 125, false},
                                                                                       {0, 25, false},
                                                                                       {12, 18, true},
                                                                                       {0, 6, true},
                                                                                       {12, 125, true},
                                                                                       {0, 6, false},
                                                                                       {0, 62, true},
                                                                                       {62, 125, true}}};

  CycleInformation();  // throws std::bad_alloc
  // A copy of the whole state. Assignment allocates nothing.
  CycleInformation(const CycleInformation& other);
  CycleInformation& operator=(const CycleInformation& other);
  ~CycleInformation() = default;

  void init(MyChannel* pChannel);
  // Forgets everything, for a new stream.
  void clean();

  // Analyses the next cycle when its 32 samples have arrived. True when one was closed.
  bool calculateCyclesInformation();

  // Whether the slot holds a cycle that may be read.
  [[nodiscard]] bool isValid(cHandle c) const;
  [[nodiscard]] const sCycleInformation& at(cHandle c) const { return psRing[static_cast<std::size_t>(c)]; }
  [[nodiscard]] sCycleInformation& at(cHandle c) { return psRing[static_cast<std::size_t>(c)]; }
  // The newest analysed cycle, or -1.
  [[nodiscard]] cHandle newest() const;
  // The cycle n before c; n may be negative. Not necessarily valid.
  [[nodiscard]] static cHandle before(cHandle c, int n) {
    return (((c - n) % kRingCycles) + kRingCycles) % kRingCycles;
  }
  // The cycle that contains the sample time, or -1 when it is not in the ring.
  [[nodiscard]] cHandle cycleOf(int iSampleTime) const;
  // Sample time of the last analysed sample, -1 before any.
  [[nodiscard]] int lastSampleTime() const { return iLastSampleTime; }

  // Smallest minimum and largest maximum of the n cycles ending at c, as far as they are valid.
  [[nodiscard]] sRange calcMinMax(cHandle c, int n) const;
  // Largest maximum - smallest minimum of those cycles; kNoAmp when c is not valid.
  static constexpr int kNoAmp = 1;  // flat, or no measurement: nobody divides by 0
  [[nodiscard]] int calcAmp(cHandle c, int n) const;
  // Sum of the mean crossings of those cycles.
  [[nodiscard]] int calcMeanCrossing(cHandle c, int n) const;
  // Whether the cycle k before c, and so every later one, starts after the last DTMF tone.
  [[nodiscard]] bool containsNoiseOnly(cHandle c, int k) const;
  // The last valid cycle that ends within the channel's frame that contains c.
  [[nodiscard]] cHandle getLastValidCycleInFrameThatContainsCycle(cHandle c) const;

  [[nodiscard]] const LevelTrackers& trackers() const { return levels; }
  [[nodiscard]] const FixedText<100>& digits() const { return digitText.text(); }
  // End of the last cycle that held a DTMF digit, -1 before any.
  [[nodiscard]] int toneUntil() const { return digitText.toneUntil(); }
  [[nodiscard]] int largestAmp() const { return iLargestAmp; }

  // Debug output of everything, and of one cycle.
  void print(std::FILE* pFile) const;
  static void printCycle(std::FILE* pFile, const sCycleInformation& cycle);

 private:
  static constexpr int kBlocks = 32;  // cycles whose turning points are kept
  static constexpr int kLevels = kFluctuationLevels - kFirstAnalysedLevel;
  using Block = std::array<sFluctuationInformation, kLevels>;

  std::int16_t* samplesOf(int iStartTime);
  void storeLevels(sCycleInformation& cycle, std::int16_t* psSamples);
  void analyseFluctuations(sCycleInformation& cycle, const std::int16_t* psSamples);
  void detectTone(sCycleInformation& cycle, const std::int16_t* psSamples);
  void advance();
  void copyBlocksOf(const CycleInformation& other);
  void adoptBlocksOf(const CycleInformation& other);

  MyChannel* pMyChannel = nullptr;
  ZeroedArray<sCycleInformation> psRing;
  ZeroedArray<Block> psBlocks;
  LevelTrackers levels;
  DigitText digitText;
  int iWrite = 0;
  bool bWrapped = false;
  int iLap = 1;
  int iLastSampleTime = -1;
  int iBlock = -1;
  int iLargestAmp = 0;
  int iLastToneFeed = -1;  // end of the last cycle handed to the tone detector
};
