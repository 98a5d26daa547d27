// Finds the echo's delay within the echo span from two kinds of evidence.
//
// Level changes: whenever the microphone's level rises or falls, every lag at which the loudspeaker's level
// did the same gains votes, and every lag at which it was loud without changing loses some. Slow, but blind
// to what the path does to the sound.
//
// Coupling: a normalised LMS filter over the whole span at a quarter of the rate. It models the path badly
// and finds its strongest reflection soon; when it has named the same lag for a while, that is the estimate.
// This is what makes a cold start and a change of path fast.
#pragma once

#include <array>
#include <cstdint>

#include "engine/aec/AecTypes.h"
#include "engine/aec/SpeakerHistory.h"

class CoarseFilter {
 public:
  void clean(sEchoSpan span);
  // One cycle of both signals at 8 kHz, the loudspeaker's at the least delay of the span.
  // bBelieve: what it finds may become the estimate. bCalm: the echo is being cancelled, so that a quarter of
  // the cycles is enough to notice a reflection that moves; each time below is four times as long then.
  void push(const std::array<float, kCycleSamples>& fSpk, const std::array<float, kCycleSamples>& fMic,
            bool bBelieve, bool bCalm);
  // The path seems lost: learns it anew, and keeps the old estimate until there is a better one.
  void relearn();
  // Delay of the strongest reflection in samples, -1 while there is none that stands out.
  [[nodiscard]] int delay() const { return iDelay; }

 private:
  static constexpr int kDecimation = 4;
  static constexpr int kPerCycle = kCycleSamples / kDecimation;
  static constexpr int kMaxTaps = sEchoSpan::kMaxCycles * kPerCycle;
  // Taps of the shortest span: as much sound as fills it at a level excites a longer one as well.
  static constexpr int kShortestSpan = sEchoSpan::kMinCycles * kPerCycle;
  static constexpr int kRecent = 30;  // cycles whose peaks must agree

  void decimate(const std::array<float, kCycleSamples>& fIn, float& fMemory, float& fLast,
                std::array<float, kPerCycle>& fOut) const;
  void adapt(float fMic);
  void findPeak(bool bBelieve);

  sEchoSpan span;
  int iTaps = 0;
  // x(n) .. x(n - taps + 1), newest first; refilled from the end when it has moved to the front.
  std::array<float, 2 * kMaxTaps + kPerCycle> fHistory{};
  int iNewest = 0;
  std::array<float, kMaxTaps> fTaps{};
  double dPower = 0;
  float fSpkMemory = 0, fSpkLast = 0, fMicMemory = 0, fMicLast = 0;
  float fMicEnergy = 1, fErrorEnergy = 1;  // of the latest 150 ms
  std::array<int, kRecent> iPeaks{};
  int iPeak = 0;
  int iDelay = -1;
  int iUnconfirmed = 0;  // cycles with loudspeaker sound since the estimate was last found again
  int iCycle = 0;
};

class DelaySearch {
 public:
  void clean(const MyChannel* pMicChannel, SpeakerHistory* pSpeaker, sEchoSpan echoSpan);

  // One cycle. bMayCount: the filters say that the microphone holds echo rather than talk. While the
  // loudspeaker stream lags behind the microphone's, the comparison lags with it: a cycle is looked at once
  // everything that it may be compared with has arrived.
  void updateEchoDelayParams(const sAecCycle& now, bool bMayCount);
  // Forgets the votes.
  void initDelaynLengthCoeffCounters();

  // The filters seem to have lost the path.
  void searchAnew() { coarse.relearn(); }

  // The best estimate there is, -1 without any: that from the coupling, else that from the votes.
  [[nodiscard]] int delay() const { return coupledDelay() >= 0 ? coupledDelay() : votedDelay(); }
  // Estimate from the votes in samples, -1 while there is none.
  [[nodiscard]] int votedDelay() const { return iVoted; }
  [[nodiscard]] int bestVotes() const { return iBestVotes; }
  [[nodiscard]] int events() const { return iEvents; }
  // Estimate from the coupling, -1 while nothing stands out.
  [[nodiscard]] int coupledDelay() const { return coarse.delay(); }
  [[nodiscard]] std::int64_t speakerPower() const { return lSpkPower; }
  // What is loud in the loudspeaker for the present microphone level, by the coupling so far (1/1024).
  void setCoupling(int iCouplingEstimate) { iCoupling = iCouplingEstimate; }
  // The echo is known and being cancelled: the search may take its time.
  void setCalm(bool bCancelled) { bCalm = bCancelled; }
  void setStrongEcho(bool bStrong) { bStrongEcho = bStrong; }
  [[nodiscard]] bool hasStrongEcho() const { return bStrongEcho; }

 private:
  static constexpr int kLags = sEchoSpan::kMaxCycles;

  void compareCycle(const sAecCycle& now, bool bMayCount);
  void takeLevels();
  void countEvent(const sAecCycle& now, int iRise);
  void punishSilentLags();
  void findBest();
  [[nodiscard]] int vote(const sAecCycle& now, int iLag, int iThreshold, int iRise) const;

  const MyChannel* pMic = nullptr;
  SpeakerHistory* pHistory = nullptr;
  sEchoSpan span;
  int iCompared = 0;  // sample time of the microphone cycle to be compared next
  int iMicAmp = 1;    // its level, and that of the cycle before
  int iPrevMicAmp = 1;
  // Loudspeaker level by lag, and before the last lag; lag d is d - 1 cycles beyond the span's start.
  std::array<int, kLags + 2> iAmp{};
  std::array<int, kLags + 1> iVotes{};
  int iEvents = 0;
  int iBestVotes = 0;
  int iVoted = -1;
  int iReference = 1;  // microphone level before rises
  int iCoupling = 0;
  bool bStrongEcho = false;
  bool bCalm = false;
  std::int64_t lSpkPower = 0;
  CoarseFilter coarse;

  static constexpr int kUnknownAmp = 0xFFFFFF;
};
