// One channel of the engine: its settings and the stages it owns. Channels live in two fixed tables,
//
//   KestrovapMyChannels     0 .. 5           noise channels
//   KestrovapMyAECChannels  n, n + 6         echo channel n: microphone entry, loudspeaker entry
//
// and are driven by one thread at a time. All memory is taken by init; a frame allocates nothing.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "common/FixedText.h"
#include "engine/aec/MyAEC.h"
#include "engine/analysis/CycleInformation.h"
#include "engine/analysis/FftSchema.h"
#include "engine/analysis/FirstScan.h"
#include "engine/analysis/MyMath.h"
#include "engine/analysis/MySbt.h"
#include "engine/analysis/MySubState.h"
#include "engine/analysis/Registration.h"
#include "engine/analysis/SourceSeparation.h"
#include "engine/analysis/SpeakerData.h"
#include "engine/EngineUnits.h"
#include "engine/InputData.h"
#include "engine/Kestrova.h"
#include "engine/MyClean.h"
#include "engine/MyDtmf.h"
#include "engine/MyFilters.h"
#include "engine/OutputData.h"

// Indexes into MyChannel::psNoiseShaping: how silence and the end of a talk spurt are shaped. Levels are Q7.
enum NoiseShaping {
  kCngStart,            // comfort noise when silence begins
  kCngStep,             // decrease of the comfort noise
  kCngEnd,              // floor of the comfort noise
  kBurstEndDecrease,    // decrease of the speech gain per period since the last confident speech
  kBurstEndMode,        // periods per second, so a period is 8000 / value samples
  kBurstEndLowerValue,  // floor of the speech gain
  kBurstEndStep,        // bonus on the speech gain's target
  kNoiseShapingValues
};

class MyChannel {
 public:
  MyChannel() = default;
  MyChannel(const MyChannel&) = delete;
  MyChannel& operator=(const MyChannel&) = delete;

  // Releases whatever the channel still owns and creates its stages afresh. 0, or 1 when memory is short; the
  // channel may then be partly created, and the next init or terminate releases it. Settings are kept.
  [[nodiscard]] int init();
  // Releases everything the channel owns. Harmless on a channel that owns nothing.
  void terminate();
  // Whether the last init has succeeded and nothing was terminated since.
  [[nodiscard]] bool isInitialized() const { return bInitialized; }

  // The first half of every channel initialisation: the stages and all settings that noise and echo channels
  // share. 0, or 2.
  [[nodiscard]] int doInternalKestrovaInit(const sKestrovaInit& init);
  // Takes the echo settings, clamped to their ranges.
  void storeAecSettings(const sKestrovaInit& init);
  // The pitch pair of a voice group: 1 deep, 2 middle, 3 high voices; any other value accepts every voice.
  void presetVoiceGroup(int iGroupType);

  // Follows a change of rate or frame size.
  void updateRealFrequency();
  // Cycles that pass between a sample's analysis and its output, clamped to 2..50.
  void setMaxNumCyclesInDelayBuffer(int iCycles);

  // Which noise channels re-test level jumps, and which tell voices apart.
  [[nodiscard]] bool needsMySbt() const;
  [[nodiscard]] bool needsSourceSeparation() const { return !bIsAecChannel; }
  // A voice is being learned, or has been.
  [[nodiscard]] bool usesLearnedVoice() const {
    return bRegistrationRunning || (psSpeakerData && psSpeakerData->bTemplatesPresent != 0);
  }

  // Whether a voice has been learned, and another was heard last.
  [[nodiscard]] bool hearsAnotherTalker() const;

  // Whether this is the entry of an echo channel whose output is cleaned.
  [[nodiscard]] bool isEchoMicrophone() const { return bIsAecChannel && pSpkChannel != nullptr; }
  [[nodiscard]] int rateFactor() const { return iRealFrequency / kAnalysisRate; }
  [[nodiscard]] int bytesPerSample() const { return b16Bit ? 2 : 1; }

  // ---- What the channel owns
  std::unique_ptr<sSpeakerData> psSpeakerData;
  std::array<std::unique_ptr<MySbt>, 2> psSbt;  // null unless needsMySbt
  std::unique_ptr<MyDtmf> pMyDtmf;
  std::unique_ptr<MyAEC> pMyAEC;  // microphone entries of echo channels
  std::unique_ptr<MyMath> pMyMath;
  std::unique_ptr<FirstScan> pFirstScan;
  std::unique_ptr<MyClean> pMyClean;
  std::unique_ptr<MySubState> pMySubState;
  std::unique_ptr<InputData> pInputData;
  std::unique_ptr<OutputData> pOutputData;
  std::unique_ptr<CycleInformation> pCycleInformation;
  std::unique_ptr<Registration> pRegistration;  // while a voice is being learned
  std::unique_ptr<MyFilters> pMyFilters;
  std::unique_ptr<SourceSeparation> pSourceSeparation;  // null unless needsSourceSeparation
  std::unique_ptr<FftSchema> pFftSchema;

  // ---- Format
  std::uint8_t bCheckDTMF = 0;
  std::uint8_t bRemoveNonSelfFrequencies = 0;
  int iRealFrequency = kAnalysisRate;  // Hz, 8000..64000
  bool b16Bit = true;
  std::array<int, kNoiseShapingValues> psNoiseShaping{19, 6, 0, 26, 1, 26, 0};
  int iFrameSize = kCycleSamples;              // samples at 8 kHz, 32..256
  int iInitialDelay = 0;                       // samples of leading silence
  int iSamplesPerFrameAtRate = kCycleSamples;  // iFrameSize x (rate / 8000)
  int iMaxNumCyclesInDelayBuffer = 6;

  // ---- Detection and learning
  int sDetectAggressiveLevel = 0;  // 0..4
  int sCleanAggressiveLevel = 5;   // 5..12
  bool bRegistrationCompleted = false;
  FixedText<256> pcSpeakerName = defaultSpeakerName();  // for support: the console shows it
  // Spread of four cycles (largest maximum - smallest minimum) from which on they may hold speech.
  int iMinAmplitudeForPotentialSegment = 500;
  bool bRegistrationRunning = false;
  Registration::Outcome registrationOutcome = Registration::Outcome::kTooShort;  // of the last one
  // How verbs are checked for being the learned talker's. No setting of the interface reaches these three:
  // a program that owns the channel may set them after init.
  bool bSeparationOff = false;     // learned spectra are not consulted
  bool bSeparationLoose = false;   // verbs are checked less strictly: the separation decides
  bool bSeparationStrict = false;  // verbs are checked more strictly
  std::uint8_t bCancelAcousticShock = 0;
  std::uint8_t bStartBypassed = 0;
  std::uint8_t bBypassVAD = 0;
  std::uint8_t bDoAGC = 0;
  int iAGCLevel = 0;          // largest - smallest sample
  int iAGCMin = kUnityQ7;     // Q7
  int iAGCMax = kUnityQ7;     // Q7
  float fVerbDriftLimit = 6;  // largest average drift of a spectral template that still matches

  // ---- Echo
  bool bIsAecChannel = false;
  MyChannel* pSpkChannel = nullptr;  // microphone entries: their loudspeaker entry
  int iAecAlgorithm = 0;             // 0 basic .. 7
  int iAecMaxCoef = 0;               // 1/1024
  int iAecMinCoef = 0;               // 1/1024
  int iAecSupressionHold = 0;
  int iAecAggressiveLevel = 0;
  int iAecHowlingLevel = 0;
  int iAecTailType = 0;
  int iAecTailStart = 0;
  int iAecTalkHoldSamples = 0;
  int iAecHold2Samples = 0;
  int iAecMinOutput = 0;    // Q7
  int iAecDelayCycles = 0;  // cycles between the newest analysed cycle and the written one
  // Samples by which this entry's stream may lag the other one of the echo channel.
  int iLagLimit = 0;
  // Q7: output gain of the echo stage. The stage writes it on its microphone entry; in the combined mode the
  // noise channel behind it gets a copy.
  int iEchoGain = kUnityQ7;
  // Position of the last cycle analysed while iEchoGain was below unity; noise is measured only after it.
  int iLastEchoPosition = kNoEchoPosition;
  MyChannel* pPartner = this;  // whose output stage is shared: a channel shares its own

  static constexpr int kNoEchoPosition = -999999;

 private:
  static FixedText<256> defaultSpeakerName();

  bool bInitialized = false;

  void createComponents();
  void storeFormat(const sKestrovaInit& init);
  void storeNoiseShaping(const sKestrovaInit& init);
  void openStages();
  void storeDetection(const sKestrovaInit& init);
  void storeLevelControl(const sKestrovaInit& init);
};

inline constexpr int kNoiseChannels = 6;
inline constexpr int kAecEntries = 2 * kNoiseChannels;

extern std::array<MyChannel, kNoiseChannels> KestrovapMyChannels;
extern std::array<MyChannel, kAecEntries> KestrovapMyAECChannels;
