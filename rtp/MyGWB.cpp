#include "rtp/MyGWB.h"

#include <algorithm>
#include <cstddef>

#include "rtp/G722Tables.h"

namespace {

constexpr int kMaxPairs = 160;             // code words per pass over the blocks: 20 ms
constexpr int kHistory = kGWBQmfTaps - 2;  // samples of the delay line that a new pair still needs
constexpr int kInitialLowerScale = 32;     // the smallest the logarithm 0 stands for: 2^11 >> 8, times 4
constexpr int kInitialUpperScale = 8;      // 2^11 >> 10, times 4

// ---------------------------------------------------------------------------------------------------------
// Arithmetic

// Signals that leave 16 bits end at the limit that holds for every sample of the voice engine.
constexpr int kSignalLimit = 32512;

int saturate(int signal) {
  if (signal == static_cast<std::int16_t>(signal)) [[likely]]
    return signal;
  return signal > 0 ? kSignalLimit : -kSignalLimit;
}

// Product of two Q15 values.
int multiply(int a, int b) {
  return (a * b) >> 15;
}

// ---------------------------------------------------------------------------------------------------------
// BLOCK 3: adaptation of the quantiser scale

struct sScaleRange {
  int iMaxLog;       // largest logarithm
  int iOctavesDown;  // octaves between the table's 2^11 and the scale of logarithm 0
};
constexpr sScaleRange kLowerRange{18432, 8};
constexpr sScaleRange kUpperRange{22528, 10};

// LOGSCL, LOGSCH: nb = nb * 127/128 + w.  SCALEL, SCALEH: det = 4 * 2^(nb / 2^11 - octaves).
void adaptScale(sGWBSubBand& band, int w, const sScaleRange& range) {
  const int nb = std::clamp(((band.iLogScale * 127) >> 7) + w, 0, range.iMaxLog);
  const int mantissa = piEncodeLb[static_cast<std::size_t>((nb >> 6) & 31)];
  // One bit more before the shift, because the largest logarithm lies one octave above the table.
  band.iScale = ((mantissa << 1) >> (range.iOctavesDown + 1 - (nb >> 11))) << 2;
  band.iLogScale = nb;
}

// ---------------------------------------------------------------------------------------------------------
// BLOCK 4: adaptive predictor

constexpr int kPole2Limit = 12288;    // |a2| <= 0.75 keeps the two poles stable
constexpr int kPoleSumLimit = 15360;  // |a1| + a2 <= 1 - 2^-4

// UPPOL2: a2 = 127/128 * a2 -/+ a1 / 32 +/- 2^-7, by the signs of the last three partial reconstructions.
int nextPole2(const sGWBSubBand& band, bool like1, bool like2) {
  const int four = std::clamp(4 * band.iPoleCoeff1, -32768, 32767);
  const int byPole1 = (like1 ? std::min(-four, 32767) : four) >> 7;
  const int next = byPole1 + (like2 ? 128 : -128) + multiply(band.iPoleCoeff2, 32512);
  return std::clamp(next, -kPole2Limit, kPole2Limit);
}

// UPPOL1: a1 = 255/256 * a1 +/- 3 * 2^-8, held within what the new a2 leaves.
int nextPole1(const sGWBSubBand& band, bool like1, int pole2) {
  const int next = (like1 ? 192 : -192) + multiply(band.iPoleCoeff1, 32640);
  const int limit = kPoleSumLimit - pole2;
  return std::clamp(next, -limit, limit);
}

// UPZERO: b_i = 255/256 * b_i +/- 2^-7 by the signs of dt and dt_i, no step where dt is 0; DELAYA; then
// FILTEZ: sz = sum of b_i * dt_i.
int adaptAndFilterZeros(sGWBSubBand& band, int dt) {
  int sum = 0;
  const int step = dt == 0 ? 0 : 128;
  for (std::size_t i = 6; i-- > 0;) {
    const bool like = (dt ^ band.psTwiceDifference[i]) >= 0;
    band.psZeroCoeff[i] =
        static_cast<std::int16_t>((like ? step : -step) + multiply(band.psZeroCoeff[i], 32640));
    band.psTwiceDifference[i] = i > 0 ? band.psTwiceDifference[i - 1] : static_cast<std::int16_t>(2 * dt);
    sum += multiply(band.psZeroCoeff[i], band.psTwiceDifference[i]);
  }
  return saturate(sum);
}

// Takes the quantised difference signal dt into the predictor and leaves the next prediction in it.
void predict(sGWBSubBand& band, int dt) {
  const int rt = saturate(band.iPredicted + dt);       // RECONS
  const int pt = saturate(band.iZeroPrediction + dt);  // PARREC
  const bool like1 = (pt ^ band.iPartial1) >= 0;
  const bool like2 = (pt ^ band.iPartial2) >= 0;
  band.iPoleCoeff2 = nextPole2(band, like1, like2);
  band.iPoleCoeff1 = nextPole1(band, like1, band.iPoleCoeff2);
  band.iZeroPrediction = adaptAndFilterZeros(band, dt);
  // FILTEP: sp = a1 * rt1 + a2 * rt2
  const int poles = saturate(multiply(band.iPoleCoeff1, saturate(2 * rt)) +
                             multiply(band.iPoleCoeff2, saturate(2 * band.iReconstructed1)));
  band.iPredicted = saturate(poles + band.iZeroPrediction);  // PREDIC
  band.iReconstructed1 = rt;                                 // DELAYA
  band.iPartial2 = band.iPartial1;
  band.iPartial1 = pt;
}

// ---------------------------------------------------------------------------------------------------------
// Quantisers

// Highest level whose scaled value (level * det) >> 12 is not above wd, as code word 0..63.
std::uint8_t quantizeLower(int el, int det) {
  const int wd = el >= 0 ? el : ~el;
  std::size_t interval = 1;
  while (interval < piEncodeQ6.size() && wd >= (piEncodeQ6[interval] * det) >> 12) ++interval;
  return el >= 0 ? piEncodeQuantizationPositive[interval] : piEncodeQuantizationNegative[interval];
}

std::uint8_t quantizeUpper(int eh, int det) {
  const int wd = eh >= 0 ? eh : ~eh;
  const std::size_t interval = wd >= (564 * det) >> 12 ? 2 : 1;
  return eh >= 0 ? piEncodeIhPositive[interval] : piEncodeIhNegative[interval];
}

// Inverse quantiser as one signed table: interval and sign of each code word applied to the magnitudes.
template <std::size_t Codes, std::size_t Intervals>
constexpr std::array<std::int16_t, Codes> signedOutputs(const std::array<std::int16_t, Intervals>& magnitudes,
                                                        const std::array<std::uint8_t, Codes>& intervals,
                                                        const std::array<std::int8_t, Codes>& signs) {
  std::array<std::int16_t, Codes> outputs{};
  for (std::size_t code = 0; code < Codes; ++code)
    outputs[code] = static_cast<std::int16_t>(magnitudes[intervals[code]] * signs[code]);
  return outputs;
}
constexpr auto kOutputs6 = signedOutputs(piDecodeQQ6, piDecodeIL6FromTable18, piDecodeSILFromTable18);
constexpr auto kOutputs5 = signedOutputs(piDecodeQQ5, piDecodeIL5FromTable19, piDecodeSILFromTable19);
constexpr auto kOutputs4 = signedOutputs(piDecodeQQ4, piDecodeIL4FromTable17, piDecodeSILFromTable17);
constexpr auto kOutputs2 = signedOutputs(piDecodeQQ2, piDecodeIH2FromTable21, piDecodeSIHFromTable21);

// BLOCK2L to BLOCK4L and their upper-band twins: what encoder and decoder both do with a code word.
void followLower(sGWBSubBand& band, std::size_t code4) {
  const int dt = multiply(band.iScale, kOutputs4[code4]);
  adaptScale(band, piEncodeWl[piEncodeIL4FromTable17[code4]], kLowerRange);
  predict(band, dt);
}

void followUpper(sGWBSubBand& band, std::size_t code2) {
  const int dt = multiply(band.iScale, kOutputs2[code2]);
  adaptScale(band, piEncodeWh[piEncodeIH2FromTable21[code2]], kUpperRange);
  predict(band, dt);
}

int bitsPerCodeWord(int bitRate) {
  return bitRate == 48000 ? 6 : bitRate == 56000 ? 7 : 8;
}

constexpr int kSubBandLimit = 16384;
int limit(int r) {
  return std::clamp(r, -kSubBandLimit, kSubBandLimit - 1);
}

template <class State>
void initState(State* state, int bitRate) {
  *state = {};
  state->sLower.iScale = kInitialLowerScale;
  state->sUpper.iScale = kInitialUpperScale;
  state->iBitsPerCodeWord = bitsPerCodeWord(bitRate);
}

}  // namespace

void MyGWB::encodeInit(sGWBEncode_t* state, int bitRate) const {
  initState(state, bitRate);
}
void MyGWB::decodeInit(sGWBDecode_t* state, int bitRate) const {
  initState(state, bitRate);
}

int MyGWB::encode(sGWBEncode_t* state, char* out, const short* in, int numSamples) const {
  const int n = numSamples / 2;
  for (int k = 0; k < n; ++k) {
    auto& x = state->psDelayLine;
    std::copy(x.begin() + 2, x.end(), x.begin());
    x[22] = in[2 * k];
    x[23] = in[2 * k + 1];
    int a = 0, b = 0;
    for (std::size_t i = 0; i < 12; ++i) {
      a += piEncodeQmfCoeffs[i][0] * x[2 * i];
      b += piEncodeQmfCoeffs[i][1] * x[2 * i + 1];
    }
    const int xl = (a + b) >> 14, xh = (b - a) >> 14;
    const int il = quantizeLower(saturate(xl - state->sLower.iPredicted), state->sLower.iScale);
    const int ih = quantizeUpper(saturate(xh - state->sUpper.iPredicted), state->sUpper.iScale);
    followLower(state->sLower, static_cast<std::size_t>(il >> 2));
    followUpper(state->sUpper, static_cast<std::size_t>(ih));
    out[k] = static_cast<char>(((ih << 6) | il) >> (8 - state->iBitsPerCodeWord));
  }
  return n;
}

int MyGWB::decode(sGWBDecode_t* state, short* out, const char* in, int numBytes) const {
  for (int k = 0; k < numBytes; ++k) {
    const unsigned c = static_cast<unsigned char>(in[k]);
    auto& lower = state->sLower;
    auto& upper = state->sUpper;
    unsigned low = 0;
    int q = 0;
    switch (state->iBitsPerCodeWord) {
      case 8:
        low = c & 63;
        q = kOutputs6[low];
        low >>= 2;
        break;
      case 7:
        low = c & 31;
        q = kOutputs5[low];
        low >>= 1;
        break;
      default:
        low = c & 15;
        q = kOutputs4[low];
        break;
    }
    const unsigned high = (c >> (state->iBitsPerCodeWord - 2)) & 3;
    const int rl = limit(lower.iPredicted + multiply(lower.iScale, q));
    followLower(lower, low);
    const int rh = limit(upper.iPredicted + multiply(upper.iScale, kOutputs2[high]));
    followUpper(upper, high);
    auto& x = state->psDelayLine;
    std::copy(x.begin() + 2, x.end(), x.begin());
    x[22] = static_cast<short>(rl + rh);
    x[23] = static_cast<short>(rl - rh);
    int a = 0, b = 0;
    for (std::size_t i = 0; i < 12; ++i) {
      a += piDecodeQmfCoeff[i][0] * x[2 * i];
      b += piDecodeQmfCoeff[i][1] * x[2 * i + 1];
    }
    out[2 * k] = static_cast<short>(saturate(b >> 11));
    out[2 * k + 1] = static_cast<short>(saturate(a >> 11));
  }
  return 2 * numBytes;
}
