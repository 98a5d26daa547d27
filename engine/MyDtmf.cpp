#include "engine/MyDtmf.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "engine/EngineUnits.h"

namespace {

constexpr int kBlockSamples = 92;
constexpr int kRows = 4;

// Power of the weakest tone heard: amplitude 14 of 32768, (14 x 92 / 2)^2.
constexpr double kMinPower = 400'000;
// The weaker tone of a pair must reach this part of the stronger one's power.
constexpr double kMinRowOfColumn = 0.398;  // -4 dB
constexpr double kMinColumnOfRow = 0.158;  // -8 dB
// A third frequency with more than this part of the stronger power means speech or music. A very loud pair
// brings its own distortion, hence the wider bound.
constexpr double kLoudPower = 1e9;
constexpr double kMaxOtherWhenLoud = 0.158;
constexpr double kMaxOther = 0.01;
// The two tones' part of all that was heard during a run, at the least. Digits in noise 6 dB below a tone
// have 0.89. Vowels whose formants lie on a pair, which may pass the purity for 80 ms because their other
// harmonics lie between the eight frequencies, have 0.15 to 0.4 in recorded speech and up to 0.77 when
// sustained by a machine. Tones that are off by 2.5 % and more leave too much outside the eight, as they
// should (ITU-T Q.24: up to 1.5 % must be heard, from 3.5 % on must not). Larger: digits over speech are
// lost.
constexpr double kMinTonesOfTotal = 0.8;
// Repetitions of the first block: seven blocks in all, 644 samples, 80 ms.
constexpr int kRunToConfirm = 6;

}  // namespace

MyDtmf::MyDtmf() {
  for (std::size_t i = 0; i < asState.size(); ++i) {
    asState[i].dCoefficient = 2 * std::cos(2 * std::numbers::pi * freqs[i] / kAnalysisRate);
  }
}

void MyDtmf::clean() {
  for (sGoertzel& state : asState) state.s1 = state.s2 = state.dPower = 0;
  bDetected = false;
  cCandidate = '?';
  iRunLength = 0;
  iBlockSamples = 0;
  dBlockEnergy = dRunTones = dRunTotal = 0;
  lastBlock = kTooWeak;
}

MyDtmf::Result MyDtmf::go(std::int16_t sSample) {
  for (sGoertzel& state : asState) {
    const double s = state.dCoefficient * state.s1 - state.s2 + sSample;
    state.s2 = state.s1;
    state.s1 = s;
  }
  dBlockEnergy += static_cast<double>(sSample) * sSample;
  if (++iBlockSamples < kBlockSamples) return kIncomplete;
  for (sGoertzel& state : asState) {
    state.dPower = state.s1 * state.s1 + state.s2 * state.s2 - state.dCoefficient * state.s1 * state.s2;
    state.s1 = state.s2 = 0;
  }
  lastBlock = testing();
  iBlockSamples = 0;
  dBlockEnergy = 0;
  return lastBlock;
}

bool MyDtmf::insertSampleForCycle(std::span<const std::int16_t> samples) {
  for (const std::int16_t sSample : samples) go(sSample);
  return bDetected && lastBlock == kDigit && tonesPrevail();
}

bool MyDtmf::tonesPrevail() const {
  return dRunTones >= kMinTonesOfTotal * dRunTotal;
}

int MyDtmf::strongest(int iFirst) const {
  const auto begin = asState.begin() + iFirst;
  return static_cast<int>(
      std::max_element(begin, begin + kRows,
                       [](const sGoertzel& a, const sGoertzel& b) { return a.dPower < b.dPower; }) -
      begin);
}

MyDtmf::Result MyDtmf::judge(int& iRow, int& iColumn) const {
  iRow = strongest(0);
  iColumn = strongest(kRows);
  const double dRow = asState[static_cast<std::size_t>(iRow)].dPower;
  const double dColumn = asState[static_cast<std::size_t>(kRows + iColumn)].dPower;
  if (dRow < kMinPower || dColumn < kMinPower) return kTooWeak;
  const bool bTwisted = dColumn > dRow ? dRow < kMinRowOfColumn * dColumn : dColumn < kMinColumnOfRow * dRow;
  if (bTwisted) return kTwisted;
  const double dStronger = std::max(dRow, dColumn);
  const double dBound = dStronger * (dStronger > kLoudPower ? kMaxOtherWhenLoud : kMaxOther);
  const auto iAbove = std::count_if(asState.begin(), asState.end(),
                                    [&](const sGoertzel& state) { return state.dPower > dBound; });
  return iAbove > 2 ? kImpure : kDigit;
}

// A block that is too weak decides nothing: the run waits for the tone to come back.
MyDtmf::Result MyDtmf::testing() {
  int iRow = 0;
  int iColumn = 0;
  const Result result = judge(iRow, iColumn);
  if (result == kDigit) {
    countDigit(row_col_ascii_codes[iRow][iColumn]);
    dRunTones += asState[static_cast<std::size_t>(iRow)].dPower +
                 asState[static_cast<std::size_t>(kRows + iColumn)].dPower;
    dRunTotal += dBlockEnergy * kBlockSamples / 2;  // a sine alone has as much as its power
  } else if (result != kTooWeak) {
    bDetected = false;
    cCandidate = '?';
    iRunLength = 0;
  }
  return result;
}

void MyDtmf::countDigit(char cDigit) {
  if (cDigit != cCandidate) {
    cCandidate = cDigit;
    iRunLength = 0;
    bDetected = false;
    dRunTones = dRunTotal = 0;
    return;
  }
  if (++iRunLength >= kRunToConfirm) bDetected = true;
}
