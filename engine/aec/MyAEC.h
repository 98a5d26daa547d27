// The echo canceller of a microphone channel: takes the echo of what the paired loudspeaker channel plays out
// of the microphone signal. It runs once per cycle, after the microphone's cycle has been analysed; the
// loudspeaker frame of a period must have been fed before the microphone frame of the same period.
//
//   loudspeaker ──┬─> DelaySearch ──> where the echo lies
//                 ├─> TimeDomainFilter ──┐
//                 └─> FrequencyFilter ───┴─> AlgorithmChoice ──> EchoRing ──> output stage subtracts
//   microphone ──> levels, howling, talk ──> SupressionHistory ──> output stage's gain
//
// Contents
//   MyAEC.cpp        life, the cycle's steps, status
//   MyAECOutput.cpp  what the output stage takes: echo estimate and gain
//
// Everything lies inside the object; a cycle allocates nothing.
#pragma once

#include "engine/aec/AecTypes.h"
#include "engine/aec/AlgorithmChoice.h"
#include "engine/aec/BreathingDetector.h"
#include "engine/aec/DelaySearch.h"
#include "engine/aec/EchoRing.h"
#include "engine/aec/FrequencyFilter.h"
#include "engine/aec/HowlingDetector.h"
#include "engine/aec/MicLevels.h"
#include "engine/aec/ResidualModel.h"
#include "engine/aec/SpeakerHistory.h"
#include "engine/aec/SupressionHistory.h"
#include "engine/aec/TalkDetector.h"
#include "engine/aec/TimeDomainFilter.h"
#include "engine/Kestrova.h"

class MyChannel;

class MyAEC {
 public:
  MyAEC() = default;

  // Attaches the canceller to its microphone channel; clean must follow.
  void init(MyChannel* pMicChannel) { pMic = pMicChannel; }
  // Takes the channel's settings and its loudspeaker channel and starts over.
  void clean();

  // One closed cycle of the microphone channel.
  void performAec(cHandle cycle);

  // ---- What the output stage asks
  // Whether the cycle's echo estimate is used directly.
  [[nodiscard]] bool isAecDataNeeded(cHandle cycle) const;
  // Suppression gain of a cycle, Q7; the cycle is at most 57 before the newest.
  [[nodiscard]] int getSupressionCoef(cHandle cycle);
  [[nodiscard]] bool isEchoOutputActive() const { return bEchoOutputActive; }
  // True: the estimate is taken off the spectrum; false: sample by sample.
  [[nodiscard]] bool isEchoBySpectrum() const { return bEchoBySpectrum; }
  [[nodiscard]] const EchoRing& echoRing() const { return psEchoRing; }
  // Spread of the echo in the microphone, by the estimate of the filter in use, whether it is taken off or
  // only lowered; 0 while none is found.
  [[nodiscard]] int echoLevel() const { return iEchoLevel; }

  // ---- What can be seen from outside
  [[nodiscard]] sAecMode mode() const { return iAecMode; }
  [[nodiscard]] sEchoSpan span() const { return echoSpan; }
  [[nodiscard]] const sAecCycle& cycle() const { return now; }
  [[nodiscard]] const TimeDomainFilter& timeDomain() const { return timeFilter; }
  [[nodiscard]] const DelaySearch& delays() const { return delaySearch; }
  [[nodiscard]] const FrequencyFilter& frequencyDomain() const { return frequencyFilter; }
  [[nodiscard]] const SupressionHistory& supression() const { return history; }
  [[nodiscard]] int preferredAlgorithm() const { return choice.preferred(); }
  // The canceller is doing something about echo.
  [[nodiscard]] bool isWorking() const;
  void fillStatus(sKestrovaAECStatus& status);

 private:
  // Steps of a cycle
  void beginCycle(cHandle cycle);
  void measureSpeaker();
  void searchDelay();
  void noteStrongEcho();
  void checkHowling();
  void performTimeDomainAnalysis();
  void performFrequencyDomainAnalysis();
  void considerRecentring();
  void updateBurst();
  void updateResidualMode();
  void updateSupression();
  void prepareSpectralNoise();
  void writeTimeDomainEcho();
  void measureEchoLevel();
  void writeFrequencyDomainEcho();
  void activateEchoOutput();
  [[nodiscard]] bool needsTimeDomain() const;
  [[nodiscard]] bool isFarSilent(int iFromDelay, int iToDelay) const;
  [[nodiscard]] bool isOnStablePath() const;
  [[nodiscard]] int ageOf(cHandle cycle) const;

  MyChannel* pMic = nullptr;
  sAecMode iAecMode;
  sEchoSpan echoSpan;
  sAecCycle now;

  SpeakerHistory speaker;
  MicLevels levels;
  DelaySearch delaySearch;
  TimeDomainFilter timeFilter;
  FrequencyFilter frequencyFilter;
  AlgorithmChoice choice;
  ResidualModel timeResidual;
  ResidualModel frequencyResidual;
  TalkDetector talk;
  HowlingDetector howling;
  BreathingDetector breathing;
  SupressionHistory history;
  EchoRing psEchoRing;

  bool bEchoOutputActive = false;
  int iEchoOutputStart = 0;
  bool bEchoBySpectrum = true;
  int iEchoLevel = 0;
  int iEchoReference = 0;  // the same on average
  int iLastStrongEcho = kNever;
  int iResidualMode = 0;  // counts towards the stable-path rules
  int iResidualModeLimit = 100;
  int iPathChanges = 0;
  int iLosses = 0;
  int iLastRecentring = kNever;
};
