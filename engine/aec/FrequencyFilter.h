// The frequency-domain echo filter: a constrained partitioned-block adaptive filter (overlap-save, blocks of
// 32 samples, up to 16 partitions = 64 ms) with two weight sets, run once per cycle at the channel's own
// rate.
//
//   delay   bulk        +32        +64                              +32 P
//           |partition 0|partition 1| ...            |partition P-1 |
//
// One set adapts all the time, the other gives the estimate that is used. The adapting set is copied over the
// used one when it has proved better and rolled back to it when it has gone astray, so that talk at the near
// end may disturb the former but never the latter (a two-path filter; Ochiai et al., 1977).
//
// How fast a bin adapts follows from how far its weights may still be off: with M the expected power of their
// error and N the power of everything in the microphone that is not echo, the best step is M |X|^2 / (M |X|^2
// + 2 N), the gain of a Kalman filter (Enzner and Vary, 2006). So a cold filter adapts at full speed, a
// converged one hardly moves, and near-end talk stops it by itself.
//
// Contents
//   FrequencyFilter.cpp  a block: estimates, errors, the two sets, adaptation
//   FrequencyRange.cpp   where the range lies, and how its partitions share the step
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "engine/aec/AecTypes.h"
#include "engine/aec/LaneTransform.h"
#include "engine/aec/SpeakerHistory.h"

class MyChannel;

class FrequencyFilter {
 public:
  static constexpr int kBlock = 32;  // samples at 8 kHz
  static constexpr int kMinPartitions = 3;
  static constexpr int kMaxPartitions = 16;
  // Ratios of residual to microphone, as amplitudes: the present one and the lasting one, of the used set and
  // of the adapting set. 1.0 means that nothing is cancelled.
  enum Ratio { kUsedNow, kUsedLasting, kAdaptedNow, kAdaptedLasting, kRatios };
  enum Set { kUsed, kAdapted, kSets };

  void clean(const MyChannel* pMicChannel, SpeakerHistory* pSpeaker, sEchoSpan span);
  // Whether the channel's rate has a transform; at other rates the filter never becomes ready.
  [[nodiscard]] bool supportsRate() const;

  // One block: the cycle at hand. False when the loudspeaker's samples for it are missing: its estimate is 0
  // then, and what has been learnt waits for the next block.
  // fTimeDomain: what the time-domain filter leaves of the microphone lately, 1 while it does not run.
  bool run(const sAecCycle& now, float fTimeDomain);

  // Moves the range so that the delay (samples) lies two blocks behind its start.
  void recentre(int iDelay);
  // Whether partitions have been cut off at the range's end, and what takes them back.
  [[nodiscard]] bool isTrimmed() const { return endDelay() < fullEnd(iBulk); }
  void widen();
  // Whether the result may be used.
  [[nodiscard]] bool isReady() const { return bReady; }
  [[nodiscard]] float ratio(Ratio which) const { return fRatio[which]; }
  // Of the latest block alone; the ratios above stand still while the loudspeaker is faint.
  [[nodiscard]] float presentRatio(Set set) const;
  [[nodiscard]] int bulkDelay() const { return iBulk; }
  [[nodiscard]] int partitions() const { return iPartitions; }
  [[nodiscard]] int endDelay() const { return iBulk + iPartitions * kBlock; }
  [[nodiscard]] bool covers(int iDelay) const { return iDelay >= iBulk && iDelay < endDelay(); }
  [[nodiscard]] int peakDelay() const { return iPeakDelay; }
  [[nodiscard]] float speakerPower() const { return fSpkPower; }
  [[nodiscard]] float residualPower() const { return fResidualPower; }
  [[nodiscard]] float echoPower() const { return fEchoPower; }
  // The loudspeaker is faint, or it is not loud and next to nothing is left of its echo.
  [[nodiscard]] bool isHardlyHeard() const {
    return fSpkPower <= 1000 || (fSpkPower <= 3000 && fResidualPower * 9 <= fEchoPower);
  }
  [[nodiscard]] float micPower() const { return fMicPower; }
  [[nodiscard]] int pathChanges() const { return iPathChanges; }
  // Whether the used set's estimate is still found in the microphone, whoever else talks: talk adds to what
  // the estimate explains, a changed path takes it away.
  [[nodiscard]] bool matches() const { return bHadEcho && fMatch > 0.5F * fEstimate; }
  // The path has changed and is not learnt again yet: the microphone holds no more than the echo usually
  // does, and the estimate explains none of it. Said for a second of loudspeaker sound at most.
  [[nodiscard]] bool isPathLost() const;
  // Somebody talks much louder than the echo ever was, and the estimate is still found in the microphone:
  // what seems to speak for another path is that talk.
  [[nodiscard]] bool isTalkOverKnownPath() const;
  // Times the used set has lost the path.
  [[nodiscard]] int losses() const { return iLosses; }
  // Of the cycle, at the channel's rate: 32 x rate factor samples.
  [[nodiscard]] const float* estimate() const { return fUsed.data(); }
  [[nodiscard]] const float* microphone() const { return fMic.data(); }

 private:
  static constexpr std::size_t kVectors = kMaxPartitions / lanes::kPerVector;
  static constexpr std::size_t kMaxSamples = kBlock * kMaxRateFactor;
  static constexpr float kBetaSum = 0.9F;  // share of the step that the partitions have together
  using Spectra = lanes::Spectrum<kVectors>;
  using Bins = std::array<float, lanes::kMaxBins>;

  // Steps of a block
  void makeRoomForLag(int iLag);
  void noteLag(int iLag);
  [[nodiscard]] int leastBulk() const;
  [[nodiscard]] int latestBulk() const;
  [[nodiscard]] int fullEnd(int iFrom) const { return std::min(iFrom + kMaxTaps, span.endSamples()); }
  bool fd_setSpkrFftData(int iCycleEnd, int k);
  void calcFFTShortToFloat(std::span<const float> samples);
  void calcIFFTFloatToFloat();
  void agePartitions();
  void takeSpeaker(int iCycleEnd);
  void takeMicrophone(int iFirst);
  void fd_calcFreqEcho(const Spectra& weights, std::size_t uLane);
  void estimateEchoes();
  void measureErrors();
  void watchPath();
  void losePath();
  [[nodiscard]] bool isLouderThanEcho() const;
  void updateWeights();
  [[nodiscard]] bool updatePower();
  void updateStep(std::size_t k);
  void calcGradient(std::size_t k);
  void constrainGradient();
  void fd_checkRollbackAndResetForFreqDomainAnalysis(float fTimeDomain);
  // Copies between the sets and what their figures say of them.
  void adopt();
  void rollBack();
  void raiseUncertainty(float fLeast);

  // Partitions
  void fd_updateBetaValuesFreqDomain(bool bTrack);
  void trackPeak(int iStrongest);
  void findWeakPartitions(const std::array<float, kMaxPartitions>& fEnergy, int iStrongest);
  void fd_considerBlockRemoval();
  void fd_resetFreqDomainAnalysisParams(int iFrom, int iTo);
  void fd_invalidate_fda(bool bKeep);

  void shiftPartitions(Spectra& spectra, int iBlocks) const;
  void moveWeights(int iOldBulk, bool bKeep);
  [[nodiscard]] float weightPower(std::size_t k) const;
  void resetBetas();

  const MyChannel* pMic = nullptr;
  SpeakerHistory* pHistory = nullptr;
  sEchoSpan span;
  std::size_t uLength = 64;  // of the transform
  std::size_t uBins = 33;
  std::size_t uSamples = 32;  // per block, at the channel's rate

  int iBulk = 0;
  // Largest lag of the loudspeaker's stream, in whole blocks, of the window at hand and of the one before:
  // the least bulk delay at which its samples have always arrived lately.
  std::array<int, 2> iLags{};
  int iLagBlocks = 0;  // in the window at hand
  int iMissed = 0;     // weighted count of blocks whose samples were late
  int iPartitions = kMaxPartitions;
  bool bReady = false;
  bool bHadEcho = false;  // the used set has cancelled something since its range was placed

  Spectra X;  // newest block in lane 0
  std::array<Spectra, kSets> W;
  Spectra gradient;
  lanes::Signal<kVectors> gradientTime;
  std::array<float, kMaxPartitions> fBeta{};
  Bins fPower{};        // S, smoothed loudspeaker power
  Bins fStep{};         // c, 0.2 at start
  Bins fUncertainty{};  // M
  Bins fOther{};        // N, smoothed power of the adapting set's error

  lanes::Signal<1> blockTime;
  lanes::Spectrum<1> block;  // lane 0: used echo, lane 1: adapted echo; then lane 2: adapted error
  std::array<float, kMaxSamples> fMic{};
  std::array<float, kMaxSamples> fUsed{};
  std::array<float, kMaxSamples> fAdapted{};

  std::array<float, kRatios> fRatio{};
  // Energies, smoothed over 5 and over 50 blocks: microphone, residuals of the two sets.
  struct sEnergies {
    float fMic = 1;
    float fSpk = 1;  // mean square at the bulk delay
    std::array<float, kSets> fResidual{1, 1};
  };
  sEnergies present, brief, lasting;
  float fMatch = 0;      // smoothed product of microphone and used estimate, over 160 ms
  float fEstimate = 1;   // smoothed power of the estimate
  float fLongMatch = 0;  // the same over 0.8 s
  float fLongEstimate = 1;
  float fSpkPower = 0;
  float fResidualPower = 0;
  float fEchoPower = 0;
  float fMicPower = 0;
  int iActiveBlocks = 0;              // blocks with loudspeaker sound since the range was placed
  int iBlockEnd = -1;                 // sample time of the last sample of the latest block
  float fEffective = kMaxPartitions;  // number of equal partitions that would spread the steps like the betas
  int iPoorBlocks = 0;      // of them, consecutive ones in which the used set cancels next to nothing
  int iSinceRaise = 0;      // blocks since the uncertainty was last raised
  float fEchoGain = 0;      // echo over loudspeaker as powers, while the path was known; 0 before that
  int iPathLost = 0;        // blocks for which the path still counts as lost
  bool bMayBeLost = false;  // the path has been known since it was last lost
  int iLosses = 0;
  int iSinceLoss = 0;    // blocks
  int iPathChanges = 0;  // times the adapting set took over from a used set that had lost the path

  int iPeakDelay = 0;
  // The two peaks before, the later one first, and for how long the peak has stayed within a block of either.
  std::array<int, 2> iEarlierPeaks{};
  std::array<int, 2> iSteadySamples{};
  int iHeadToDrop = -1;
  int iTailToDrop = -1;
};
