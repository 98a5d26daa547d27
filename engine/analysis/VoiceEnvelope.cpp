#include "engine/analysis/VoiceEnvelope.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "engine/analysis/WorldVoices.h"

namespace {

constexpr float kLowest = 100;    // Hz
constexpr float kHighest = 3800;  // the telephone band ends below 4 kHz
constexpr float kBinWidth = 8000.0F / kEnvelopeSamples;
// Bands this far below the strongest one are taken for empty: noise would shape them.
constexpr float kEmptyBand = 1e-3F;
// What remains of a band that holds nothing but background.
constexpr float kOfBackground = 0.1F;
constexpr float kUnitsPerStep = 1.0F / 8;

float mel(float fFrequency) {
  return 2595 * std::log10(1 + fFrequency / 700);
}

struct sTables {
  // Triangles between neighbouring band edges, of sum 1.
  std::array<std::array<float, kEnvelopeBins>, kEnvelopeBands> fWeight{};
  std::array<int, kEnvelopeBands> iFirst{};
  std::array<int, kEnvelopeBands> iLast{};
  std::array<std::array<float, kEnvelopeBands>, kEnvelopeCoefficients> fCosine{};  // over the deviation
  std::array<float, kEnvelopeBins> fBand{};

  static float edge(int i) {
    const float fStep = (mel(kHighest) - mel(kLowest)) / (kEnvelopeBands + 1);
    return 700 * (std::pow(10.0F, (mel(kLowest) + fStep * static_cast<float>(i)) / 2595) - 1);
  }

  sTables() {
    for (int b = 0; b < kEnvelopeBands; ++b) fillBand(b);
    for (std::size_t i = 0; i < kEnvelopeCoefficients; ++i) {
      for (std::size_t b = 0; b < kEnvelopeBands; ++b) {
        const float fAngle = std::numbers::pi_v<float> * static_cast<float>(i + 1) *
                             (static_cast<float>(b) + 0.5F) / kEnvelopeBands;
        fCosine[i][b] = std::cos(fAngle) * std::sqrt(2.0F / kEnvelopeBands) / kEnvelopeDeviation[i];
      }
    }
    const float fStep = (mel(kHighest) - mel(kLowest)) / (kEnvelopeBands + 1);
    for (std::size_t k = 0; k < kEnvelopeBins; ++k) {
      const float fPosition = (mel(static_cast<float>(k) * kBinWidth) - mel(kLowest)) / fStep - 1;
      fBand[k] = std::clamp(fPosition, 0.0F, static_cast<float>(kEnvelopeBands - 1));
    }
  }

  void fillBand(int b) {
    const auto u = static_cast<std::size_t>(b);
    float fSum = 0;
    iFirst[u] = kEnvelopeBins;
    for (int k = 0; k < kEnvelopeBins; ++k) {
      const float f = static_cast<float>(k) * kBinWidth;
      const float fValue = std::max(0.0F, std::min((f - edge(b)) / (edge(b + 1) - edge(b)),
                                                   (edge(b + 2) - f) / (edge(b + 2) - edge(b + 1))));
      fWeight[u][static_cast<std::size_t>(k)] = fValue;
      fSum += fValue;
      if (fValue <= 0) continue;
      iFirst[u] = std::min(iFirst[u], k);
      iLast[u] = k;
    }
    for (float& fValue : fWeight[u]) fValue /= fSum;
  }
};

const sTables& tables() {
  static const sTables instance;
  return instance;
}

}  // namespace

sPackedEnvelope packed(const sEnvelope& envelope) {
  sPackedEnvelope result{};
  for (std::size_t i = 0; i < envelope.size(); ++i) {
    result[i] =
        static_cast<std::int8_t>(std::clamp(std::round(envelope[i] / kUnitsPerStep), -127.0F, 127.0F));
  }
  return result;
}

sEnvelope unpacked(const sPackedEnvelope& packed) {
  sEnvelope envelope;
  for (std::size_t i = 0; i < envelope.size(); ++i)
    envelope[i] = kUnitsPerStep * static_cast<float>(packed[i]);
  return envelope;
}

EnvelopeSet::Row EnvelopeSet::padded(const sEnvelope& envelope) {
  Row row{};
  std::copy(envelope.begin(), envelope.end(), row.begin());
  return row;
}

void EnvelopeSet::assign(std::span<const sEnvelope> all) {
  rows.clear();
  for (const sEnvelope& each : all) rows.push_back(padded(each));
}

sNearest EnvelopeSet::nearest(const sEnvelope& envelope) const {
  const Row own = padded(envelope);
  sNearest best;
  for (std::size_t u = 0; u < rows.size(); ++u) {
    const Row& row = rows[u];
    std::array<float, 4> fSum{};
    for (std::size_t i = 0; i < own.size(); i += 4) {
      for (std::size_t k = 0; k < 4; ++k) fSum[k] += (own[i + k] - row[i + k]) * (own[i + k] - row[i + k]);
    }
    const float fDistance = (fSum[0] + fSum[1]) + (fSum[2] + fSum[3]);
    if (fDistance < best.fDistance) best = {fDistance, static_cast<int>(u)};
  }
  return best;
}

void bandPower(std::span<const float> fPower, BandPower& bands) {
  const sTables& table = tables();
  for (std::size_t b = 0; b < kEnvelopeBands; ++b) {
    bands[b] = 0;
    for (auto k = static_cast<std::size_t>(table.iFirst[b]); k <= static_cast<std::size_t>(table.iLast[b]);
         ++k)
      bands[b] += fPower[k] * table.fWeight[b][k];
  }
}

sEnvelope envelopeOf(const BandPower& frame, const BandPower& background) {
  BandPower fLogarithm;
  for (std::size_t b = 0; b < kEnvelopeBands; ++b)
    fLogarithm[b] = std::max(frame[b] - background[b], kOfBackground * background[b]);
  const float fEmpty = kEmptyBand * *std::max_element(fLogarithm.begin(), fLogarithm.end());
  for (float& fBand : fLogarithm) fBand = std::log(std::max(fBand, fEmpty) + 1);
  sEnvelope envelope;
  for (std::size_t i = 0; i < kEnvelopeCoefficients; ++i) {
    envelope[i] = 0;
    for (std::size_t b = 0; b < kEnvelopeBands; ++b) envelope[i] += fLogarithm[b] * tables().fCosine[i][b];
  }
  return envelope;
}

// The cosine transform is orthonormal: its transpose leads back.
void bandShape(const sEnvelope& envelope, BandPower& fLogarithm) {
  for (std::size_t b = 0; b < kEnvelopeBands; ++b) {
    fLogarithm[b] = 0;
    for (std::size_t i = 0; i < kEnvelopeCoefficients; ++i) {
      const float fDeviation = kEnvelopeDeviation[i];
      fLogarithm[b] += envelope[i] * tables().fCosine[i][b] * fDeviation * fDeviation;
    }
  }
}

float bandOfBin(int iBin) {
  return tables().fBand[static_cast<std::size_t>(iBin)];
}
