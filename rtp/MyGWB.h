// G.722 wideband codec: sub-band ADPCM as ITU-T Recommendation G.722 defines it, 16-bit linear samples at
// 16 kHz on one side, one code word per pair of samples on the other.
//
// A transmit QMF splits the input into a lower (0 to 4 kHz) and an upper (4 to 8 kHz) sub-band of 8 kHz each;
// the lower one is coded with 6 bits, the upper one with 2. A code word of 64 kbit/s is upper bits << 6 |
// lower bits; 56 and 48 kbit/s drop its last one or two bits, and what remains stands in the low bits of the
// byte.
//
// The object has no data: all state is in the caller's record, one per direction and stream. Different
// records may be used by different threads at the same time; one record belongs to one thread. Nothing
// allocates, throws or logs.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

inline constexpr int kG722BitRate = 64000;  // of payload type 9 (RFC 3551, section 4.5.2)
inline constexpr int kGWBQmfTaps = 24;      // of the transmit and the receive QMF (G.722 clause 3.1)

// Adaptive predictor and quantiser scale of one sub-band (G.722 clauses 3.5 and 3.6). The names of the
// Recommendation stand behind each field, without the L or H that tells the sub-bands apart there.
struct sGWBSubBand {
  // Six zeros: coefficient i weighs the quantised difference signal of i + 1 samples ago. Lanes 6 and 7 fill
  // the vector up; their coefficients stay 0.
  alignas(16) std::array<std::int16_t, 8> psZeroCoeff;        // b1..b6, 1 = 2^14
  alignas(16) std::array<std::int16_t, 8> psTwiceDifference;  // 2 * dt of 1..6 samples ago

  std::int32_t iPoleCoeff1;      // a1, 1 = 2^14
  std::int32_t iPoleCoeff2;      // a2, 1 = 2^14
  std::int32_t iReconstructed1;  // rt of the last sample
  std::int32_t iPartial1;        // pt of the last sample
  std::int32_t iPartial2;        // pt of the sample before it
  std::int32_t iZeroPrediction;  // sz
  std::int32_t iPredicted;       // s
  std::int32_t iLogScale;        // nb, logarithm of the scale factor, one octave = 2^11
  std::int32_t iScale;           // det, quantiser scale factor
};

struct sGWBEncode_t {
  std::array<std::int16_t, kGWBQmfTaps> psDelayLine;  // last input samples, oldest first
  sGWBSubBand sLower;
  sGWBSubBand sUpper;
  std::int32_t iBitsPerCodeWord;  // 8, 7 or 6
};

struct sGWBDecode_t {
  std::array<std::int16_t, kGWBQmfTaps> psDelayLine;  // last sub-band samples: rl, rh, oldest pair first
  sGWBSubBand sLower;
  sGWBSubBand sUpper;
  std::int32_t iBitsPerCodeWord;  // 8, 7 or 6
};

static_assert(std::is_trivially_copyable_v<sGWBEncode_t> && std::is_trivially_copyable_v<sGWBDecode_t>);

class MyGWB {
 public:
  // Make a state ready for a new stream. bitRate is in bit/s: 48000 gives code words of 6 bits, 56000 of 7,
  // anything else of 8. A state must have been made ready once before it is used.
  void encodeInit(sGWBEncode_t* state, int bitRate) const;
  void decodeInit(sGWBDecode_t* state, int bitRate) const;

  // Encodes samples of 16 kHz, two at a time, and returns the number of bytes written to out: numSamples / 2.
  // A last sample without a partner is not used. A state that was never made ready gives 0. out and in may
  // not overlap.
  int encode(sGWBEncode_t* state, char* out, const short* in, int numSamples) const;

  // Decodes code words and returns the number of 16 kHz samples written to out: 2 * numBytes. Every byte
  // value is a valid code word; bits above the code word's width are ignored. out and in may not overlap.
  int decode(sGWBDecode_t* state, short* out, const char* in, int numBytes) const;
};

inline constexpr MyGWB myGWB{};
