// The shape of a voiced spectrum, whatever its level: what tells one talker's throat from another's.
//
//   256 samples -> power of 128 bins, background taken off -> 20 bands, evenly spaced in mel from 100 to
//   3,800 Hz -> logarithm -> cosine transform, coefficients 1 to 14 (the mean, 0, is the level)
//
// (mel cepstrum: Davis and Mermelstein, IEEE Trans. ASSP 28(4), 1980). Coefficients are in units of how much
// they vary within one sound, so that the plain squared distance of two envelopes weighs them alike.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

inline constexpr int kEnvelopeSamples = 256;  // 32 ms at 8 kHz
inline constexpr int kEnvelopeBins = kEnvelopeSamples / 2;
inline constexpr int kEnvelopeBands = 20;
inline constexpr int kEnvelopeCoefficients = 14;

using sEnvelope = std::array<float, kEnvelopeCoefficients>;
using BandPower = std::array<float, kEnvelopeBands>;

// An envelope in a byte per coefficient, eighths of a unit; what lies beyond +-15.9 units is cut.
using sPackedEnvelope = std::array<std::int8_t, kEnvelopeCoefficients>;
[[nodiscard]] sPackedEnvelope packed(const sEnvelope& envelope);
[[nodiscard]] sEnvelope unpacked(const sPackedEnvelope& packed);

// Squared distance.
[[nodiscard]] inline float distance(const sEnvelope& a, const sEnvelope& b) {
  float fSum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) fSum += (a[i] - b[i]) * (a[i] - b[i]);
  return fSum;
}
// Squared distance to the nearest of some envelopes, and which it is; -1 when there are none.
struct sNearest {
  float fDistance = 1e9F;
  int iIndex = -1;
};

// Envelopes that others are compared with, padded so that vector instructions find whole rows of four.
class EnvelopeSet {
 public:
  EnvelopeSet() = default;
  explicit EnvelopeSet(std::span<const sEnvelope> all) { assign(all); }
  void reserve(std::size_t uEnvelopes) { rows.reserve(uEnvelopes); }
  // Takes memory beyond what was reserved. Throws std::bad_alloc.
  void assign(std::span<const sEnvelope> all);
  [[nodiscard]] sNearest nearest(const sEnvelope& envelope) const;

 private:
  using Row = std::array<float, (kEnvelopeCoefficients + 3) / 4 * 4>;
  static Row padded(const sEnvelope& envelope);

  std::vector<Row> rows;
};

// Mean power per band of 128 powers.
void bandPower(std::span<const float> fPower, BandPower& bands);
// The envelope of a frame with the background's power taken off its bands.
[[nodiscard]] sEnvelope envelopeOf(const BandPower& frame, const BandPower& background);
// What an envelope says of the bands: their logarithms, up to a constant.
void bandShape(const sEnvelope& envelope, BandPower& fLogarithm);
// Position of a bin among the bands, 0..kEnvelopeBands - 1, for interpolation.
[[nodiscard]] float bandOfBin(int iBin);
