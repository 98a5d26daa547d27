#include <algorithm>
#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <spandsp.h>
#include <vector>

#include "rtp/G711.h"

namespace {

// Decision values of one polarity as the tables of G.711 list them, 0 first: segments of 16 equal steps, each
// step twice as wide as in the segment before; A-law's first segment is followed by one of the same width.
std::vector<int> decisionValues(int firstStep, bool aLaw) {
  std::vector<int> values{0};
  if (!aLaw) values.push_back(firstStep / 2);  // mu-law's first interval is half a step
  for (int segment = 0; segment < 8; ++segment) {
    const int step = firstStep << (aLaw ? std::max(segment - 1, 0) : segment);
    for (int i = segment == 0 && !aLaw ? 1 : 0; i < 16; ++i) values.push_back(values.back() + step);
  }
  return values;
}

// Output value of interval n: the middle between its decision values, 0 for mu-law's first.
int outputValue(const std::vector<int>& values, std::size_t n, bool aLaw) {
  return n == 0 && !aLaw ? 0 : (values[n] + values[n + 1]) / 2;
}

TEST(G711Test, DecodesEveryCodeAsTheIndependentCodec) {
  for (int code = 0; code < 256; ++code) {
    const auto byte = static_cast<unsigned char>(code);
    EXPECT_EQ(alaw2linear(byte), alaw_to_linear(byte)) << code;
    EXPECT_EQ(ulaw2linear(byte), ulaw_to_linear(byte)) << code;
  }
}

TEST(G711Test, EncodesEverySampleIntoItsALawInterval) {
  const std::vector<int> values = decisionValues(16, true);  // 16-bit scale
  for (int sample = -32768; sample <= 32767; ++sample) {
    // The interval includes its lower end: on the negative side that is the end far from zero.
    const int magnitude = sample >= 0 ? sample : -sample - 1;
    const auto n = static_cast<std::size_t>(std::ranges::upper_bound(values, magnitude) - values.begin()) - 1;
    const int expected = outputValue(values, n, true) * (sample >= 0 ? 1 : -1);
    const unsigned char code = linear2alaw(static_cast<short>(sample));
    ASSERT_EQ(alaw2linear(code), expected) << sample;
    ASSERT_EQ(code, linear_to_alaw(sample)) << sample;
  }
}

TEST(G711Test, EncodesEverySampleIntoItsMuLawInterval) {
  const std::vector<int> values = decisionValues(2, false);  // 14-bit scale, 0 1 3 .. 31 35 .. 8159
  ASSERT_EQ(values.back(), 8159);
  for (int sample = -32768; sample <= 32767; ++sample) {
    const int cut = sample >> 2;
    // The interval includes its upper end: values below the cut for positive samples, up to its magnitude
    // else.
    const auto end =
        cut >= 0 ? std::ranges::lower_bound(values, cut) : std::ranges::upper_bound(values, -cut);
    const auto n = static_cast<std::size_t>(std::max<long>(end - values.begin() - 1, 0));
    const int magnitude = 4 * outputValue(values, std::min(n, std::size_t{127}), false);
    const unsigned char code = linear2ulaw(static_cast<short>(sample));
    ASSERT_EQ(ulaw2linear(code), sample >= 0 ? magnitude : -magnitude) << sample;
    // Where the independent encoder decides otherwise, the sample was on a decision value.
    ASSERT_TRUE(code == linear_to_ulaw(sample) || std::ranges::binary_search(values, std::abs(cut)))
        << sample;
  }
}

// What the packet path's look-up tables, which keep one code for eight samples, rely on.
TEST(G711Test, EightNeighboursShareACodeAndTranscodingKeepsIt) {
  for (int sample = -32768; sample <= 32767; ++sample) {
    const auto first = static_cast<short>(sample & ~7);
    ASSERT_EQ(linear2alaw(static_cast<short>(sample)), linear2alaw(first)) << sample;
    ASSERT_EQ(linear2ulaw(static_cast<short>(sample)), linear2ulaw(first)) << sample;
  }
  for (int value = 0; value < 256; ++value) {
    const auto code = static_cast<unsigned char>(value);
    EXPECT_EQ(linear2alaw(alaw2linear(code)), code);
    EXPECT_EQ(linear2ulaw(ulaw2linear(code)), code == 0x7F ? 0xFF : code) << "mu-law has two zeros";
  }
}

}  // namespace
