#include "rtp/MyGWB.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "rtp/G722Tables.h"
#include "rtp/Lanes.h"

namespace {

// ------------------------------------------------------------------------------------------------ arithmetic

// Signals that leave 16 bits end at the limit that holds for every sample of the voice engine. Coefficients
// keep the limits of the Recommendation, or our predictors would drift away from those of the far end on
// plain speech.
constexpr int kSignalLimit = 32512;

int saturate(int signal) {
  if (signal == static_cast<std::int16_t>(signal)) [[likely]]
    return signal;
  return signal > 0 ? kSignalLimit : -kSignalLimit;
}

// As std::clamp, by value: the values are at hand in registers.
int within(int value, int lowest, int highest) {
  return std::max(lowest, std::min(value, highest));
}

// Product of two Q15 values.
int multiply(int a, int b) {
  return (a * b) >> 15;
}

// --------------------------------------------------------------------------------- transmit and receive QMF

constexpr std::size_t kMaxPairs = 160;                // code words per pass: 20 ms
constexpr std::size_t kHistory = kGWBQmfTaps - 2;     // samples that the first pair of a pass still needs
constexpr std::size_t kOutputsAtOnce = kLanes / 2;    // filter outputs computed side by side
constexpr std::size_t kLineEnd = 2 * kOutputsAtOnce;  // read, and not used, beyond the last pair

// Delay line and new samples of one pass in a row, so that no sample moves while the filters walk over it.
using Line = std::array<std::int16_t, kHistory + 2 * kMaxPairs + kLineEnd>;
using Band = std::array<std::int32_t, kMaxPairs + kOutputsAtOnce>;

// Filter taps by pair of the delay line, each pair repeated for the outputs that are computed at once.
using PairTaps = std::array<std::array<std::int16_t, kLanes>, kGWBQmfTaps / 2>;

// Column and sign of the coefficient table that weigh the older and the newer value of each pair.
constexpr PairTaps pairTaps(std::size_t olderColumn, int olderSign, std::size_t newerColumn, int newerSign) {
  PairTaps taps{};
  for (std::size_t pair = 0; pair < taps.size(); ++pair) {
    for (std::size_t lane = 0; lane < kLanes; lane += 2) {
      taps[pair][lane] = static_cast<std::int16_t>(olderSign * piEncodeQmfCoeffs[pair][olderColumn]);
      taps[pair][lane + 1] = static_cast<std::int16_t>(newerSign * piEncodeQmfCoeffs[pair][newerColumn]);
    }
  }
  return taps;
}

// Transmit: xl = sum h(2i) x(older) + h(2i+1) x(newer), xh the same with the first part negative.
constexpr PairTaps kTransmitLower = pairTaps(0, 1, 1, 1);
constexpr PairTaps kTransmitUpper = pairTaps(0, -1, 1, 1);
constexpr int kTransmitShift = 14;
// Receive, over pairs (rl, rh): first output = sum h(2i+1) (rl - rh), second = sum h(2i) (rl + rh).
constexpr PairTaps kReceiveFirst = pairTaps(1, 1, 1, -1);
constexpr PairTaps kReceiveSecond = pairTaps(0, 1, 0, 1);
constexpr int kReceiveShift = 11;

// out(n) = (sum over pairs p of taps(p) . line(n + p)) >> shift, for n below count rounded up to whole lanes.
// The taps' magnitudes add up to less than 2^14, so 32 bits hold every sum.
[[gnu::noinline]] void filterPairs(const Line& line, const PairTaps& taps, int shift, std::size_t count,
                                   Band& out) {
  for (std::size_t n = 0; n < count; n += kOutputsAtOnce) {
    WideLanes sum{};
    for (std::size_t pair = 0; pair < taps.size(); ++pair)
      sum += pairProduct(loadLanes(&line[2 * (n + pair)]), loadLanes(taps[pair].data()));
    sum >>= shift;
    std::memcpy(&out[n], &sum, sizeof sum);
  }
}

void beginLine(Line& line, const std::array<std::int16_t, kGWBQmfTaps>& delayLine, std::size_t pairs) {
  std::copy(delayLine.end() - kHistory, delayLine.end(), line.begin());
  std::fill_n(line.begin() + kHistory + 2 * pairs, kLineEnd, std::int16_t{0});
}

void endLine(const Line& line, std::array<std::int16_t, kGWBQmfTaps>& delayLine, std::size_t pairs) {
  // The oldest two samples of the delay line are never read again: a pass of one pair leaves 24 samples in
  // the row.
  const auto end = line.begin() + kHistory + 2 * pairs;
  std::copy(end - kGWBQmfTaps, end, delayLine.begin());
}

// ------------------------------------------------------------------- block 3: adaptation of the quantiser
// scale

// det for every value of nb >> 6 (SCALEL, SCALEH): 4 * 2^(nb / 2^11 - octaves), from the mantissas of
// table 15.
template <std::size_t MaxLog, int Octaves>
constexpr auto scalesByLog() {
  std::array<std::int16_t, (MaxLog >> 6) + 1> scales{};
  for (std::size_t i = 0; i < scales.size(); ++i) {
    const int octavesDown = Octaves - static_cast<int>(i >> 5);  // -1 for the very last
    scales[i] = static_cast<std::int16_t>(((piEncodeLb[i & 31] << 1) >> (octavesDown + 1)) << 2);
  }
  return scales;
}
constexpr int kLowerMaxLog = 18432;
constexpr int kUpperMaxLog = 22528;
constexpr auto kLowerScales = scalesByLog<kLowerMaxLog, 8>();
constexpr auto kUpperScales = scalesByLog<kUpperMaxLog, 10>();
static_assert(kLowerScales[0] == 32 && kUpperScales[0] == 8);

// LOGSCL, LOGSCH: nb = 127/128 * nb + w.
template <int MaxLog>
void adaptScale(sGWBSubBand& band, int w, const std::array<std::int16_t, (MaxLog >> 6) + 1>& scales) {
  band.iLogScale = within(((band.iLogScale * 127) >> 7) + w, 0, MaxLog);
  band.iScale = scales[static_cast<std::size_t>(band.iLogScale >> 6)];
}

// ------------------------------------------------------------------------------- block 4: adaptive predictor

constexpr int kPole2Limit = 12288;    // |a2| <= 0.75
constexpr int kPoleSumLimit = 15360;  // |a1| <= 1 - 2^-4 - a2: both poles stay inside the unit circle

// UPPOL2: a2 = 127/128 * a2 -/+ a1 / 32 +/- 2^-7, by whether pt has the sign of the one before and the one
// before that. The middle term is limited to 16 bits before its last shift: 4 * a1 to -32768..32767, negated
// to 32767.
[[gnu::always_inline]] inline int nextPole2(const sGWBSubBand& band, bool like1, bool like2) {
  const int fourPole1 = within(4 * band.iPoleCoeff1, -32768, 32767);
  const int byPole1 = (like1 ? std::min(-fourPole1, 32767) : fourPole1) >> 7;
  const int next = byPole1 + (like2 ? 128 : -128) + multiply(band.iPoleCoeff2, 32512);
  return within(next, -kPole2Limit, kPole2Limit);
}

// UPPOL1: a1 = 255/256 * a1 +/- 3 * 2^-8, within what the new a2 leaves.
[[gnu::always_inline]] inline int nextPole1(const sGWBSubBand& band, bool like1, int pole2) {
  const int next = (like1 ? 192 : -192) + multiply(band.iPoleCoeff1, 32640);
  const int limit = kPoleSumLimit - pole2;
  return within(next, -limit, limit);
}

// UPZERO, DELAYA, FILTEZ:
//   b_i = 255/256 * b_i +/- 2^-7 by whether dt has the sign of dt_i, without a step where dt is 0
//   sz  = sum of b_i * dt_i, i = 1..6, after dt has become dt_1
// No product can overflow: |b| <= 32768, and |2 dt| < 24820 because det <= 16384 and quantiser outputs <=
// 24808.
[[gnu::always_inline]] inline int adaptAndFilterZeros(sGWBSubBand& band, int dt) {
  constexpr Lanes kSixZeros{-1, -1, -1, -1, -1, -1, 0, 0};
  constexpr Lanes kMinus256{-256, -256, -256, -256, -256, -256, -256, -256};
  auto b = std::bit_cast<Lanes>(band.psZeroCoeff);
  auto d = std::bit_cast<Lanes>(band.psTwiceDifference);
  const Lanes unlike = (d ^ static_cast<std::int16_t>(dt)) >> 15;  // -1 where the signs differ
  const std::int16_t stepSize = dt == 0 ? 0 : 128;
  const Lanes step = kSixZeros & stepSize;
  b += highProduct(b, kMinus256) + ((step ^ unlike) - unlike);  // 255/256 * b, rounded down
  d = shiftIn(d, static_cast<std::int16_t>(2 * dt));
  band.psZeroCoeff = std::bit_cast<std::array<std::int16_t, kLanes>>(b);
  band.psTwiceDifference = std::bit_cast<std::array<std::int16_t, kLanes>>(d);
  return saturate(sumOfQ15Products(b, d));
}

// Takes the quantised difference signal dt into the predictor and leaves the next prediction in it.
[[gnu::always_inline]] inline void predict(sGWBSubBand& band, int dt) {
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

// ------------------------------------------------------------------------------------- block 1: quantisers

// QUANTL without a search through the levels: wd reaches level q when wd >= (q * det) >> 12, which is when q
// is not above (2^12 * (wd + 1) - 1) / det. The code word is looked up by that quotient, for either sign.
constexpr std::size_t kMaxQuotient = piEncodeQ6.back();
using CodeByQuotient = std::array<std::uint8_t, kMaxQuotient + 1>;

constexpr CodeByQuotient codesByQuotient(const std::array<std::uint8_t, 31>& codeOfInterval) {
  CodeByQuotient codes{};
  std::size_t interval = 1;
  for (std::size_t quotient = 0; quotient < codes.size(); ++quotient) {
    while (interval < piEncodeQ6.size() && static_cast<std::size_t>(piEncodeQ6[interval]) <= quotient)
      ++interval;
    codes[quotient] = codeOfInterval[interval];
  }
  return codes;
}
constexpr std::array<CodeByQuotient, 2> kLowerCodes{codesByQuotient(piEncodeQuantizationPositive),
                                                    codesByQuotient(piEncodeQuantizationNegative)};

constexpr std::array<std::array<std::uint8_t, 3>, 2> kUpperCodes{piEncodeIhPositive, piEncodeIhNegative};

unsigned quantizeLower(const sGWBSubBand& band, int xl) {
  const int el = saturate(xl - band.iPredicted);  // SUBTRA
  const int sign = el >> 31;
  const auto magnitude = static_cast<std::uint32_t>(el ^ sign);
  const std::size_t quotient = (((magnitude + 1) << 12) - 1) / static_cast<std::uint32_t>(band.iScale);
  return kLowerCodes[static_cast<std::size_t>(-sign)][std::min(quotient, kMaxQuotient)];
}

// QUANTH: code words 3 and 2 for small and large differences above 0, 1 and 0 for those below.
unsigned quantizeUpper(const sGWBSubBand& band, int xh) {
  constexpr int kLevel = 564;
  const int eh = saturate(xh - band.iPredicted);
  const int sign = eh >> 31;
  const bool large = (eh ^ sign) >= (kLevel * band.iScale) >> 12;
  return kUpperCodes[static_cast<std::size_t>(-sign)][1U + large];
}

// ----------------------------------------------------------------------------- block 2: inverse quantisers

// Output by code word: the interval's magnitude with the code word's sign.
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
constexpr auto kOutputs4 = signedOutputs(piEncodeQQ4, piEncodeIL4FromTable17, piEncodeSILFromTable17);
constexpr auto kOutputs2 = signedOutputs(piEncodeQQ2, piEncodeIH2FromTable21, piEncodeSIHFromTable21);

// Step of the scale's logarithm by code word.
template <std::size_t Codes, std::size_t Intervals>
constexpr std::array<std::int16_t, Codes> logSteps(const std::array<std::int16_t, Intervals>& steps,
                                                   const std::array<std::uint8_t, Codes>& intervals) {
  std::array<std::int16_t, Codes> byCode{};
  for (std::size_t code = 0; code < Codes; ++code) byCode[code] = steps[intervals[code]];
  return byCode;
}
constexpr auto kLowerLogSteps = logSteps(piEncodeWl, piEncodeIL4FromTable17);
constexpr auto kUpperLogSteps = logSteps(piEncodeWh, piEncodeIH2FromTable21);

// What both ends do with a code word, of which the lower band's predictor sees the upper four bits only: this
// is why a far end may drop the lowest one or two on the way.
[[gnu::always_inline]] inline void followLower(sGWBSubBand& band, unsigned code4) {
  const int dt = multiply(band.iScale, kOutputs4[code4]);
  adaptScale<kLowerMaxLog>(band, kLowerLogSteps[code4], kLowerScales);
  predict(band, dt);
}

[[gnu::always_inline]] inline void followUpper(sGWBSubBand& band, unsigned code2) {
  const int dt = multiply(band.iScale, kOutputs2[code2]);
  adaptScale<kUpperMaxLog>(band, kUpperLogSteps[code2], kUpperScales);
  predict(band, dt);
}

// ------------------------------------------------------------------------------------------ a pass of pairs

// The sub-bands are copied for the length of a pass, so that they may live in registers.
void encodePairs(sGWBEncode_t& state, const Band& lowerIn, const Band& upperIn, std::size_t pairs,
                 char* out) {
  sGWBSubBand lower = state.sLower;
  sGWBSubBand upper = state.sUpper;
  const int dropped = 8 - state.iBitsPerCodeWord;
  for (std::size_t n = 0; n < pairs; ++n) {
    const unsigned low = quantizeLower(lower, lowerIn[n]);
    const unsigned high = quantizeUpper(upper, upperIn[n]);
    out[n] = static_cast<char>(((high << 6) | low) >> dropped);
    followLower(lower, low >> 2);
    followUpper(upper, high);
  }
  state.sLower = lower;
  state.sUpper = upper;
}

// LIMIT: sub-band samples have 15 bits.
int limit(int sample) {
  return within(sample, -16384, 16383);
}

// Code words whose lower band has LowerBits bits and the inverse quantiser given.
template <int LowerBits, std::size_t Codes>
void decodePairs(sGWBDecode_t& state, const std::array<std::int16_t, Codes>& outputs, const char* in,
                 std::size_t pairs, std::int16_t* subBandSamples) {
  static_assert(Codes == 1U << LowerBits);
  sGWBSubBand lower = state.sLower;
  sGWBSubBand upper = state.sUpper;
  for (std::size_t n = 0; n < pairs; ++n) {
    const unsigned codeWord = static_cast<unsigned char>(in[n]);
    const unsigned low = codeWord & (Codes - 1);
    const unsigned high = (codeWord >> LowerBits) & 3;
    const int rl = limit(lower.iPredicted + multiply(lower.iScale, outputs[low]));
    const int rh = limit(upper.iPredicted + multiply(upper.iScale, kOutputs2[high]));
    subBandSamples[2 * n] = static_cast<std::int16_t>(rl);
    subBandSamples[2 * n + 1] = static_cast<std::int16_t>(rh);
    followLower(lower, low >> (LowerBits - 4));
    followUpper(upper, high);
  }
  state.sLower = lower;
  state.sUpper = upper;
}

void decodePairs(sGWBDecode_t& state, const char* in, std::size_t pairs, std::int16_t* subBandSamples) {
  switch (state.iBitsPerCodeWord) {
    case 6:
      return decodePairs<4>(state, kOutputs4, in, pairs, subBandSamples);
    case 7:
      return decodePairs<5>(state, kOutputs5, in, pairs, subBandSamples);
    default:
      return decodePairs<6>(state, kOutputs6, in, pairs, subBandSamples);
  }
}

template <class State>
void initState(State& state, int bitRate) {
  state = {};
  state.sLower.iScale = kLowerScales[0];
  state.sUpper.iScale = kUpperScales[0];
  state.iBitsPerCodeWord = bitRate == 48000 ? 6 : bitRate == 56000 ? 7 : 8;
}

}  // namespace

void MyGWB::encodeInit(sGWBEncode_t* state, int bitRate) const {
  initState(*state, bitRate);
}
void MyGWB::decodeInit(sGWBDecode_t* state, int bitRate) const {
  initState(*state, bitRate);
}

int MyGWB::encode(sGWBEncode_t* state, char* out, const short* in, int numSamples) const {
  if (numSamples < 2 || state->sLower.iScale <= 0) return 0;
  const auto total = static_cast<std::size_t>(numSamples) / 2;
  Line line;
  Band lower;
  Band upper;
  for (std::size_t done = 0; done < total;) {
    const std::size_t pairs = std::min(total - done, kMaxPairs);
    beginLine(line, state->psDelayLine, pairs);
    std::copy_n(in + 2 * done, 2 * pairs, line.begin() + kHistory);
    filterPairs(line, kTransmitLower, kTransmitShift, pairs, lower);
    filterPairs(line, kTransmitUpper, kTransmitShift, pairs, upper);
    encodePairs(*state, lower, upper, pairs, out + done);
    endLine(line, state->psDelayLine, pairs);
    done += pairs;
  }
  return static_cast<int>(total);
}

int MyGWB::decode(sGWBDecode_t* state, short* out, const char* in, int numBytes) const {
  if (numBytes < 1) return 0;
  const auto total = static_cast<std::size_t>(numBytes);
  Line line;
  Band first;
  Band second;
  for (std::size_t done = 0; done < total;) {
    const std::size_t pairs = std::min(total - done, kMaxPairs);
    beginLine(line, state->psDelayLine, pairs);
    decodePairs(*state, in + done, pairs, line.data() + kHistory);
    filterPairs(line, kReceiveFirst, kReceiveShift, pairs, first);
    filterPairs(line, kReceiveSecond, kReceiveShift, pairs, second);
    for (std::size_t n = 0; n < pairs; ++n) {
      out[2 * (done + n)] = static_cast<short>(saturate(first[n]));
      out[2 * (done + n) + 1] = static_cast<short>(saturate(second[n]));
    }
    endLine(line, state->psDelayLine, pairs);
    done += pairs;
  }
  return 2 * numBytes;
}
