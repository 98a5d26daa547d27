#include "engine/analysis/VoiceFrame.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "engine/MyChannel.h"

namespace {

// A frame is voiced when it repeats this well over eight cycles.
constexpr float kVoicedScore = 0.6F;
// Of the distances at which it repeats nearly as well as at the best one, the shortest is the period.
constexpr float kOfBest = 0.92F;
// The mean magnitude of noise whose real and imaginary parts are normal, squared, is pi / 4 of its power.
constexpr float kPowerOfMeanMagnitude = 4 / std::numbers::pi_v<float>;

void findPeriod(const PitchComparator::sScores& scores, sVoiceFrame& frame) {
  constexpr int kFirst = PitchComparator::kMinPeriod / 2;
  constexpr int kLast = PitchComparator::kMaxPeriod / 2;
  const auto& fScore = scores.fLong;
  frame.fAlpha = *std::max_element(fScore.begin() + kFirst, fScore.begin() + kLast + 1);
  for (int i = kFirst; i <= kLast; ++i) {
    const auto u = static_cast<std::size_t>(i);
    const bool bPeak = fScore[u] >= fScore[u - 1] && fScore[u] >= fScore[u + 1];
    if (!bPeak || fScore[u] < kOfBest * frame.fAlpha) continue;
    frame.iPeriod = 2 * i;
    break;
  }
  frame.bVoiced = frame.iPeriod > 0 && frame.fAlpha >= kVoicedScore;
}

void transform(const InputData& input, sVoiceFrame& frame) {
  static const std::array<double, kEnvelopeSamples> dWindow = [] {
    std::array<double, kEnvelopeSamples> window;
    for (std::size_t n = 0; n < window.size(); ++n)
      window[n] =
          0.5 * (1 - std::cos(2 * std::numbers::pi * static_cast<double>(n) / (kEnvelopeSamples - 1)));
    return window;
  }();
  std::array<double, kEnvelopeSamples> dWork;
  double dSum = 0;
  const int iFirst = frame.iEndTime + 1 - kEnvelopeSamples;
  for (std::size_t n = 0; n < dWork.size(); ++n) {
    const double x = input.at(iFirst + static_cast<int>(n));
    dSum += x * x;
    dWork[n] = x * dWindow[n];
  }
  frame.fPower = static_cast<float>(dSum / kEnvelopeSamples);
  MyFilters::executeFFT(kEnvelopeSamples, dWork.data());
  frame.fBinPower[0] = static_cast<float>(dWork[0] * dWork[0]);
  for (std::size_t k = 1; k < kEnvelopeBins; ++k) {
    frame.fBinPower[k] =
        static_cast<float>(dWork[2 * k] * dWork[2 * k] + dWork[2 * k + 1] * dWork[2 * k + 1]);
  }
}

void takeBackground(const MyChannel& channel, sVoiceFrame& frame) {
  FftSchema::Spectrum fMagnitude;
  channel.pFftSchema->copyAndAdjustToInternalFrequency(&fMagnitude, channel.pOutputData->noise().dNoise);
  for (std::size_t k = 0; k < kEnvelopeBins; ++k)
    frame.fBackground[k] = kPowerOfMeanMagnitude * fMagnitude[k] * fMagnitude[k];
}

// The detector's comparator holds what is recent; a verb that is learned may be older.
void comparePitch(const MyChannel& channel, cHandle last, PitchComparator::sScores& scores) {
  constexpr int kElement = 4;  // cycles
  constexpr int kReach = 24;   // the element, what lies before it, and the filters' settling
  const CycleInformation& cycles = *channel.pCycleInformation;
  const PitchComparator& ofDetector = channel.pFirstScan->pitchComparator();
  const int iStart = cycles.at(last).EndIndex + 1 - kElement * kCycleSamples;
  if (ofDetector.holds(iStart)) return ofDetector.compare(iStart, scores);
  constexpr std::array<std::int16_t, kCycleSamples> kNothing{};
  PitchComparator again;
  for (int i = kReach - 1; i >= 0; --i) {
    const cHandle c = CycleInformation::before(last, i);
    const bool bThere = cycles.isValid(c) && cycles.at(c).StartIndex <= cycles.at(last).StartIndex;
    again.push(bThere ? std::span(channel.pInputData->cycleSamples(cycles.at(c).StartIndex), kCycleSamples)
                      : std::span<const std::int16_t>(kNothing));
  }
  again.compare((kReach - kElement) * kCycleSamples, scores);
}

}  // namespace

void analyseVoiceFrame(const MyChannel& channel, cHandle last, sVoiceFrame& frame) {
  const CycleInformation& cycles = *channel.pCycleInformation;
  frame.iEndTime = cycles.at(last).EndIndex;
  frame.iAmp = cycles.calcAmp(last, kVoiceFrameCycles);
  frame.iPeriod = 0;
  PitchComparator::sScores scores;
  comparePitch(channel, last, scores);
  findPeriod(scores, frame);
  transform(*channel.pInputData, frame);
  takeBackground(channel, frame);
  BandPower bands;
  BandPower background;
  bandPower(frame.fBinPower, bands);
  bandPower(frame.fBackground, background);
  frame.envelope = envelopeOf(bands, background);
}
