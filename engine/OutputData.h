// The output stage of a noise channel: writes each released cycle as speech (background taken off, speech
// gain applied), as silence (comfort noise) or as a DTMF tone (gain control only).
//
// Samples wait in a short queue, so that a call gives back at most as many as it took. Once the first cycles
// have been written the delay is constant.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <span>

#include "engine/analysis/Cycle.h"
#include "engine/EngineUnits.h"
#include "engine/MyFilters.h"
#include "engine/ZeroedArray.h"

class MyAEC;
class MyChannel;

// A run of frames that are cleaned one after another and overlapped by half: sums of what has been
// transformed from iSumTime on.
struct sOverlap {
  sOverlap() : pdSum(std::size_t{kMaxTransform} * 2) {}  // throws std::bad_alloc
  // The next cycle begins a new run.
  void restart() { iSumTime = -1; }

  ZeroedArray<double> pdSum;
  int iSumTime = -1;                                 // sample time of pdSum[0]; -1 before a run
  int iNextFrame = -1;                               // sample time at which the next frame starts
  int iLastFrame = std::numeric_limits<int>::max();  // none starts later
};

class OutputData {
 public:
  enum State { kStart, kSilence, kSpeech, kConfidentSpeech, kDtmf };

  OutputData();  // throws std::bad_alloc

  void init(MyChannel* pChannel);
  // Starts over: gains at unity, no noise estimate, nothing written.
  void clean();
  void openSynchronized() { clean(); }
  // Whether what was written matches what came in, within the delay. 0, or 1.
  [[nodiscard]] int closeOutput() const;

  // Frame length of the transform in cycles (2, 3, 4 or 8), from the channel's delay.
  void setBlocks(int iCycles);
  // Follows the channel's rate: a spectrum is taken apart at multiples of the analysis rate only.
  void updateRealFrequency();
  // Largest part of the noise that is taken off, Q7.
  void setCleanStrength(int iStrength) { iCleanStrength = iStrength; }

  // Each writes one cycle, unless it has been written already. 0, or 1 when the queue is full.
  [[nodiscard]] int writeData(cHandle cycle);
  [[nodiscard]] int writeSilence(cHandle cycle);
  [[nodiscard]] int writeDTMF(cHandle cycle);
  // On the microphone entry of an echo channel: the cycle without its echo.
  [[nodiscard]] int writeAEC(cHandle cycle);

  // Moves up to iSamples queued samples out, as 16-bit or 8-bit samples; returns the bytes.
  int take(void* pOut, int iSamples, bool bIs16Bit);

  // Brings pdSum of a run to start at a cycle's first sample time and to hold every frame that reaches into
  // the cycle, cleaned with that noise estimate.
  void calcFrames(sOverlap& run, int iFrom, const sProtection& spared, sSpectralNoiseType& estimate);
  [[nodiscard]] int blocks() const { return iBlocks; }

  // Moves the automatic gain one cycle on towards the target level; returns it.
  int updateAGCCoef();

  [[nodiscard]] State state() const { return iState; }
  [[nodiscard]] int agcCoef() const { return iAgcCoef; }
  // Gain of the last cycle that writeAEC wrote, Q7.
  [[nodiscard]] int echoGain() const { return echo.iGain; }
  // What algorithm 0 takes for echo in the microphone, as a spread.
  [[nodiscard]] int basicEchoLevel() const { return echo.iBasicLevel; }
  // The speaker's level, as a spread: the overall one when speech is not told from pauses; 0 before any.
  [[nodiscard]] int speechLevel() const;
  // Samples at 8 kHz that were written as speech since the stream began, without and with confidence.
  [[nodiscard]] long speechSamples() const { return lSpeechSamples; }
  [[nodiscard]] long confidentSamples() const { return lConfidentSamples; }
  // What is left of the microphone on echo channels, as a spread.
  [[nodiscard]] int residualLevel() const { return echo.iResidualLevel; }
  [[nodiscard]] const sSpectralNoiseType& noise() const { return *psNoise.data(); }

 private:
  static constexpr int kMaxCycleSamples = kCycleSamples * kMaxRateFactor;
  // A frame of 8-bit samples, and what is released at once when the delay is cut from its longest.
  static constexpr int kQueueSamples = kMaxFrameBytes + (kMaxDelayCycles + 1) * kMaxCycleSamples;
  using Cycle = std::span<std::int16_t>;

  [[nodiscard]] bool calcMiscIndexes(cHandle cycle);
  [[nodiscard]] int finish(std::span<const std::int16_t> samples, State newState);
  void copyInput();
  void applyGain(int iGain);

  // Noise
  void prepareNoise();
  void calcNoiseData();
  void updateSubtractFactor(int iLevel);
  void estimateNoise(int iLevel);
  [[nodiscard]] bool isNoise(cHandle last, int iCycles, int iLevel, int iAmp, bool bRecent) const;
  void takeNoiseSpectrum(int iFirst, int iAmp);
  [[nodiscard]] double leastGain(double dDecibels) const;
  [[nodiscard]] sProtection protectionOfPauses() const;
  [[nodiscard]] sProtection protectionOfSpeech();
  void removeNoise();
  void takeOverlap();
  void calcFrame(sOverlap& run, int iFrom, const sProtection& spared, sSpectralNoiseType& estimate);

  // Echo
  void removeEcho(const MyAEC& aec);
  void takeEchoSpectrum(int iFrom, int iFrameSamples);
  int basicGain(cHandle cycle);
  [[nodiscard]] bool isOurPartyTalkingAEC(cHandle cycle);
  [[nodiscard]] int speakerSpread() const;
  void followBasicCoupling(int iRatio, int iSpkAmp);

  // Gains
  [[nodiscard]] int agcLevel() const;
  [[nodiscard]] int voiceCoef() const;
  [[nodiscard]] int writeRegularDataDuringWriteData();
  [[nodiscard]] int postGoodVerbCoef();
  void calcCoefDuringWriteData();
  void stepComfortNoise();
  [[nodiscard]] int agcWhenOn() { return agcEnabled() ? updateAGCCoef() : iAgcCoef; }
  [[nodiscard]] bool agcEnabled() const;

  MyChannel* pMyChannel = nullptr;
  State iState = kStart;
  int iLastWritten = -1;  // sample time of the last sample written
  long lSpeechSamples = 0;
  long lConfidentSamples = 0;
  bool bFirstSilence = true;
  bool bFirstSpeech = true;
  int iCngLevel = 0;     // Q7
  int iCngLastStep = 0;  // sample time
  int iSpeechCoef = kUnityQ7;
  int iAgcCoef = kUnityQ7;
  std::int16_t sSilenceValue = 0;
  bool bSpectralAllowed = false;
  int iCleanStrength = kUnityQ7;
  int iBlocks = 4;

  // The cycle at hand
  cHandle current = 0;
  int iTime = 0;     // sample time of its first sample
  int iSamples = 0;  // at the channel's rate
  std::array<std::int16_t, kMaxCycleSamples> psCycle{};

  struct sEcho {
    int iGain = kUnityQ7;
    int iResidualLevel = 1;
    int iBasicLevel = 0;
    // The basic suppressor
    int iBasicGain = kUnityQ7;
    bool bPartyTalking = true;
    int iTalkHold = 0;  // samples left
    int iLastTalkHold = -1000000;
    int iCoupling = 0;            // 1/1024
    std::array<int, 8> iPeaks{};  // of the latest seconds with loudspeaker sound
    int iCouplingPeak = 0;
    int iCouplingCycles = 0;
  };
  sEcho echo;

  sOverlap overlap;
  sProtection protection;   // of the frames that are computed now
  bool bCertain = false;    // that there is speech in them
  int iCertainTime = 0;     // when it was last
  int iSpeechCycles = 0;    // written since silence
  int iPresumedUntil = -1;  // sample time up to which the speech gain waits for a verb
  ZeroedArray<sSpectralNoiseType> psNoise;

  std::array<std::int16_t, kQueueSamples> psQueue{};
  int iQueueRead = 0;
  int iQueued = 0;
};
