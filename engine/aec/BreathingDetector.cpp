#include "engine/aec/BreathingDetector.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int kLongestRange = 4000;
constexpr int kHoldSamples = 256;
constexpr int kCheckSamples = 128;    // half the hold: often enough, at a quarter of the cost
constexpr std::size_t kLowBins = 18;  // 560 Hz
constexpr float kRest = 1.0F / 16;

}  // namespace

void BreathingDetector::clean() {
  iHoldEnd = kNever;
  iNextCheck = 0;
}

// Whether everything beyond the low bins stays within a sixteenth of the largest of them.
bool BreathingDetector::isLow(std::size_t uLane) const {
  float fLow = 1;
  float fHigh = 0;
  for (std::size_t k = 0; k <= kChunk / 2; ++k) {
    const float re = spectrum.re[k][0][uLane];
    const float im = spectrum.im[k][0][uLane];
    float& fLargest = k < kLowBins ? fLow : fHigh;
    fLargest = std::max({fLargest, std::abs(re), std::abs(im)});
  }
  return fHigh <= kRest * fLow;
}

void BreathingDetector::checkBreathingVoiceInSpeaker(sAecCycle& now, const SpeakerHistory& speaker, int iFrom,
                                                     int iTo) {
  now.bBreathing = now.iFirst < iHoldEnd;
  if (now.iFirst < iNextCheck || iTo < iFrom || iTo - iFrom + 1 > kLongestRange) return;
  iNextCheck = now.iFirst + kCheckSamples;
  std::array<float, kChunk> fSamples;
  bool bLow = true;
  for (int iPosition = iFrom; iPosition <= iTo && bLow;) {
    // Up to four chunks side by side.
    std::size_t uLanes = 0;
    for (; uLanes < lanes::kPerVector && iPosition <= iTo; ++uLanes, iPosition += kChunk) {
      fSamples.fill(0);
      const auto uCount = static_cast<std::size_t>(std::min(kChunk, iTo - iPosition + 1));
      if (!speaker.copy(iPosition, std::span(fSamples).first(uCount))) return;
      for (std::size_t i = 0; i < kChunk; ++i) signal.x[i][0][uLanes] = fSamples[i];
    }
    lanes::Transform<1>::forward(kChunk, signal, spectrum);
    for (std::size_t l = 0; l < uLanes; ++l) bLow = bLow && isLow(l);
  }
  if (bLow) iHoldEnd = now.iFirst + kHoldSamples;
}
