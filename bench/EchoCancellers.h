// The cancellers that are compared, behind one face: frames of 32 samples (4 ms) per 8 kHz of rate go in, the
// microphone without its echo comes out, late by a constant delay that is taken off.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/EchoSignals.h"

class EchoCanceller {
 public:
  virtual ~EchoCanceller() = default;
  // One frame of each stream; appends what comes out.
  virtual void process(const std::int16_t* psFar, const std::int16_t* psMic, std::size_t uCount,
                       std::vector<std::int16_t>& out) = 0;
  // Samples by which the output is late.
  [[nodiscard]] virtual std::size_t delay() const { return 0; }
  // Figures of the inside after the last frame, for a trace; empty where there are none.
  [[nodiscard]] virtual std::string inside() const { return ""; }
};

// "ours-N" with algorithm N, "speex", "webrtc". iMicLead: samples by which our loudspeaker's stream is fed
// behind the microphone's, as in a call whose microphone packets come first; the echo must be later than
// that.
std::unique_ptr<EchoCanceller> makeCanceller(const std::string& sName, int iRate, double dDelayMs,
                                             int iMicLead = 0);

// A whole stream; the output is aligned with the microphone and as long. pcTrace, if not null, gets a line
// per frame; dSeconds, if not null, the processing time.
Audio cancel(EchoCanceller& canceller, const Audio& far, const Audio& mic, int iRate,
             double* pdSeconds = nullptr, const char* pcTrace = nullptr);
