#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <span>

#include "rtp/G722Tables.h"
#include "rtp/MyGWB.h"
#include "tests/codec/ReferenceCodecs.h"
#include "tests/codec/Speech.h"

namespace {

// Codes a whole signal in blocks of the lengths given, one after the other and over again.
Codes encodeInBlocks(const Samples& in, int bitRate, const std::vector<std::size_t>& lengths = {320}) {
  sGWBEncode_t state;
  myGWB.encodeInit(&state, bitRate);
  Codes out(in.size() / 2);
  std::size_t done = 0;
  for (std::size_t block = 0; done + 1 < in.size(); ++block) {
    const std::size_t length = std::min(lengths[block % lengths.size()], in.size() - done);
    const int written =
        myGWB.encode(&state, reinterpret_cast<char*>(&out[done / 2]), &in[done], static_cast<int>(length));
    EXPECT_EQ(written, static_cast<int>(length / 2));
    done += length;
  }
  return out;
}

Samples decodeInBlocks(const Codes& in, int bitRate, const std::vector<std::size_t>& lengths = {160}) {
  sGWBDecode_t state;
  myGWB.decodeInit(&state, bitRate);
  Samples out(in.size() * 2);
  std::size_t done = 0;
  for (std::size_t block = 0; done < in.size(); ++block) {
    const std::size_t length = std::min(lengths[block % lengths.size()], in.size() - done);
    const int written = myGWB.decode(&state, &out[2 * done], reinterpret_cast<const char*>(&in[done]),
                                     static_cast<int>(length));
    EXPECT_EQ(written, static_cast<int>(2 * length));
    done += length;
  }
  return out;
}

template <class Encoder, class... Arguments>
Codes encodeBy(const Samples& in, Arguments... arguments) {
  Encoder encoder(arguments...);
  Codes out;
  encoder.encode(in, out);
  return out;
}

template <class Decoder, class... Arguments>
Samples decodeBy(const Codes& in, Arguments... arguments) {
  Decoder decoder(arguments...);
  Samples out;
  decoder.decode(in, out);
  return out;
}

Samples speechTimes(int factor, std::size_t length) {
  Samples samples = recordedSpeech(length);
  for (std::int16_t& sample : samples)
    sample = static_cast<std::int16_t>(std::clamp(sample * factor, -32768, 32767));
  return samples;
}

Samples fullScaleNoise(std::size_t length) {
  std::mt19937 random(722);
  Samples noise(length);
  for (std::int16_t& sample : noise) sample = static_cast<std::int16_t>(random());
  return noise;
}

Samples fullScaleSquare(std::size_t length, std::size_t halfPeriod) {
  Samples square(length);
  for (std::size_t i = 0; i < length; ++i) square[i] = (i / halfPeriod) % 2 == 0 ? 32767 : -32768;
  return square;
}

// Level of the signal over that of the difference, in dB. Encoder and decoder together are 22 samples late.
double signalToNoise(const Samples& sent, const Samples& heard) {
  constexpr std::size_t kDelay = 22;
  double signal = 0;
  double noise = 1;
  for (std::size_t i = 0; i + kDelay < heard.size(); ++i) {
    signal += std::pow(sent[i], 2);
    noise += std::pow(sent[i] - heard[i + kDelay], 2);
  }
  return 10 * std::log10(signal / noise);
}

class G722BitRateTest : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(AllModes, G722BitRateTest, testing::Values(64000, 56000, 48000));

TEST_P(G722BitRateTest, EveryByteAndSampleOfSpeechEqualsTheIndependentCodecs) {
  const Samples speech = recordedSpeech(16000 * 30);
  ASSERT_EQ(speech.size(), 16000U * 30) << "needs asterisk-core-sounds-en-g722";
  const Codes codes = encodeInBlocks(speech, GetParam());
  const Samples heard = decodeInBlocks(codes, GetParam());
  EXPECT_TRUE(codes == encodeBy<SpandspEncoder>(speech, GetParam()));
  EXPECT_TRUE(heard == decodeBy<SpandspDecoder>(codes, GetParam()));
  if (GetParam() != 64000) return;
  EXPECT_TRUE(codes == encodeBy<AvcodecEncoder>(speech));
  EXPECT_TRUE(heard == decodeBy<AvcodecDecoder>(codes));
}

TEST_P(G722BitRateTest, OutputDoesNotDependOnHowTheInputWasCut) {
  const Samples noise = fullScaleNoise(9000);
  const Codes codes = encodeInBlocks(noise, GetParam(), {9000});
  EXPECT_EQ(codes, encodeInBlocks(noise, GetParam(), {2, 62, 320, 322, 4, 640}));
  EXPECT_EQ(decodeInBlocks(codes, GetParam(), {4500}),
            decodeInBlocks(codes, GetParam(), {1, 31, 160, 161, 3, 320}));
}

TEST_P(G722BitRateTest, UsesTheLowBitsOfTheByteOnly) {
  const int width = GetParam() / 8000;
  Codes codes = encodeInBlocks(fullScaleNoise(4000), GetParam());
  EXPECT_TRUE(std::ranges::all_of(codes, [&](std::uint8_t code) { return code >> width == 0; }));
  EXPECT_TRUE(std::ranges::any_of(codes, [&](std::uint8_t code) { return code >> (width - 1) == 1; }));
  const Samples heard = decodeInBlocks(codes, GetParam());
  for (std::uint8_t& code : codes) code = static_cast<std::uint8_t>(code | 0xFF << width);
  EXPECT_EQ(decodeInBlocks(codes, GetParam()), heard);
}

TEST(G722Test, OtherBitRatesMeanEightBits) {
  const Samples noise = fullScaleNoise(640);
  for (const int bitRate : {0, -1, 48001, 64001})
    EXPECT_EQ(encodeInBlocks(noise, bitRate), encodeInBlocks(noise, 64000));
}

TEST(G722Test, NeedsAWholePairAndAReadyState) {
  const Samples samples{100, 200, 300};
  Codes codes(2, 0xEE);
  sGWBEncode_t state;
  myGWB.encodeInit(&state, 64000);
  const auto encode = [&](int numSamples) {
    return myGWB.encode(&state, reinterpret_cast<char*>(codes.data()), samples.data(), numSamples);
  };
  for (const int tooFew : {-2, 0, 1}) EXPECT_EQ(encode(tooFew), 0);
  EXPECT_EQ(encode(3), 1);
  EXPECT_EQ(codes[1], 0xEE);
  state = {};
  EXPECT_EQ(encode(2), 0);
  sGWBDecode_t decoder{};
  EXPECT_EQ(myGWB.decode(&decoder, nullptr, nullptr, 0), 0);
}

// Noise at the clip overflows at the receive filters only. There our samples stop at the engine's limit.
TEST(G722Test, OutputsBeyondSixteenBitsStopAtTheSignalLimit) {
  const Samples noise = fullScaleNoise(160000);
  const Codes codes = encodeInBlocks(noise, 64000);
  EXPECT_TRUE(codes == encodeBy<AvcodecEncoder>(noise));
  const Samples ours = decodeInBlocks(codes, 64000);
  const Samples theirs = decodeBy<AvcodecDecoder>(codes);
  ASSERT_EQ(ours.size(), theirs.size());
  int limited = 0;
  for (std::size_t i = 0; i < ours.size(); ++i) {
    if (ours[i] == theirs[i]) continue;
    ++limited;
    ASSERT_EQ(ours[i], theirs[i] > 0 ? 32512 : -32512) << i;
    ASSERT_TRUE(theirs[i] == 32767 || theirs[i] == -32768) << i;
  }
  EXPECT_GT(limited, 0);
}

// Inside the predictors the limit moves codes away from the Recommendation's, but never out of step with it.
TEST(G722Test, OverloadedTalkerIsHeardByTheFarEndAsWellAsFromItsOwnEncoder) {
  const std::array signals{speechTimes(4, 16000 * 5), fullScaleSquare(80000, 40),
                           fullScaleSquare(80000, 160)};
  for (const Samples& sent : signals) {
    const Codes codes = encodeInBlocks(sent, 64000);
    const Codes theirCodes = encodeBy<AvcodecEncoder>(sent);
    ASSERT_FALSE(codes == theirCodes) << "not overloaded";
    const double best = signalToNoise(sent, decodeBy<AvcodecDecoder>(theirCodes));
    EXPECT_GT(best, 10);
    EXPECT_NEAR(signalToNoise(sent, decodeBy<AvcodecDecoder>(codes)), best, 1);
    EXPECT_NEAR(signalToNoise(sent, decodeInBlocks(theirCodes, 64000)), best, 1);
  }
}

// Sanitizers watch: no signal and no code word leads the arithmetic out of its ranges.
TEST_P(G722BitRateTest, ExtremeSignalsStayInRange) {
  for (const std::size_t halfPeriod : {1U, 2U, 3U, 17U, 1000U}) {
    const Samples heard =
        decodeInBlocks(encodeInBlocks(fullScaleSquare(32000, halfPeriod), GetParam()), GetParam());
    EXPECT_GT(std::ranges::max(heard), 12000) << halfPeriod;
    EXPECT_LT(std::ranges::min(heard), -12000) << halfPeriod;
  }
  std::mt19937 random(64);
  Codes anything(32000);
  for (std::uint8_t& code : anything) code = static_cast<std::uint8_t>(random());
  EXPECT_GT(std::ranges::max(decodeInBlocks(anything, GetParam())), 0);
}

TEST(G722TablesTest, HoldWhatTheirFormulasGive) {
  for (std::size_t i = 0; i < piEncodeLb.size(); ++i)
    EXPECT_EQ(piEncodeLb[i], std::lround(2048 * std::exp2(static_cast<double>(i) / 32))) << i;
  // Decoding finds the interval that encoding chose, with its sign, at every width.
  for (std::size_t m = 1; m < piEncodeQuantizationNegative.size(); ++m) {
    const std::size_t negative = piEncodeQuantizationNegative[m];
    const std::size_t positive = piEncodeQuantizationPositive[m];
    EXPECT_EQ(piDecodeIL6FromTable18[negative], m);
    EXPECT_EQ(piDecodeIL6FromTable18[positive], m);
    EXPECT_EQ(piDecodeSILFromTable18[negative], -1);
    EXPECT_EQ(piDecodeSILFromTable18[positive], 1);
    EXPECT_EQ(piDecodeIL5FromTable19[negative >> 1], (m + 1) / 2);
    EXPECT_EQ(piDecodeIL4FromTable17[negative >> 2], (m + 1) / 4);
  }
}

}  // namespace
