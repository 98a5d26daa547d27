// What the canceller reads of the loudspeaker channel: samples by sample time, levels and powers of its
// cycles. Nothing older than the input ring is available, and nothing newer than what has arrived; both read
// as 0.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "engine/EngineUnits.h"

class MyChannel;

class SpeakerHistory {
 public:
  void clean(const MyChannel* pSpkChannel);

  // Sample time of the newest sample, -1 before any.
  [[nodiscard]] int newest() const;
  // Copies samples from iFrom on at 8 kHz. False when some of them are not in the ring.
  bool copy(int iFrom, std::span<float> fOut) const;
  // The same at the channel's rate: n samples at 8 kHz give n x rate factor values. 0, or 1 with zeros when
  // some of them are not in the ring.
  int fd_copyChannelRealData(int iFrom, std::span<float> fOut) const;

  // Spread over the cycles that cover [iTime - iSpan, iTime], at least 1.
  [[nodiscard]] int calcSpkrAmp(int iTime, int iSpan) const;
  // Spread of the cycle that holds the sample time; 0 when it is not in the ring.
  [[nodiscard]] int cycleAmp(int iTime) const;
  // Sum of x^2 / 16384 over the cycles that cover [iFrom, iTo].
  [[nodiscard]] std::int64_t power(int iFrom, int iTo);

 private:
  static constexpr int kCachedCycles = 725;
  struct sCached {
    int iCycle = -1;  // sample time / 32
    std::int64_t lPower = 0;
  };
  [[nodiscard]] std::int64_t cyclePower(int iCycle);

  const MyChannel* pChannel = nullptr;
  std::array<sCached, kCachedCycles> asPower{};
};
