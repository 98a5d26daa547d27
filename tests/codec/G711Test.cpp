#include <algorithm>
#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <spandsp.h>
#include <vector>

#include "rtp/G711.h"

namespace {

// Decision values of one polarity as mu-law's table of G.711 lists them, on its 14-bit scale: 0, half a step,
// and segments of 16 equal steps, each step twice as wide as in the segment before.
std::vector<int> decisionValues() {
  std::vector<int> values{0, 1};
  for (int segment = 0; segment < 8; ++segment)
    for (int i = segment == 0 ? 1 : 0; i < 16; ++i) values.push_back(values.back() + (2 << segment));
  return values;
}

TEST(G711Test, DecodesEveryCodeAsTheIndependentCodec) {
  for (int code = 0; code < 256; ++code) {
    const auto byte = static_cast<unsigned char>(code);
    EXPECT_EQ(alaw2linear(byte), alaw_to_linear(byte)) << code;
    EXPECT_EQ(ulaw2linear(byte), ulaw_to_linear(byte)) << code;
  }
}

TEST(G711Test, EncodesEverySampleToALawAsTheIndependentCodec) {
  for (int sample = -32768; sample <= 32767; ++sample)
    ASSERT_EQ(linear2alaw(static_cast<short>(sample)), linear_to_alaw(sample)) << sample;
}

TEST(G711Test, EncodesEverySampleIntoItsMuLawInterval) {
  const std::vector<int> values = decisionValues();  // 0 1 3 .. 31 35 .. 8159
  ASSERT_EQ(values.back(), 8159);
  for (int sample = -32768; sample <= 32767; ++sample) {
    const int cut = sample >> 2;
    // The interval includes its upper end: values below the cut for positive samples, up to its magnitude
    // else.
    const auto end =
        cut >= 0 ? std::ranges::lower_bound(values, cut) : std::ranges::upper_bound(values, -cut);
    const auto n = static_cast<std::size_t>(std::max<long>(end - values.begin() - 1, 0));
    // The middle of the interval is sent for it, 0 for the first.
    const std::size_t last = std::min(n, std::size_t{127});
    const int magnitude = n == 0 ? 0 : 4 * (values[last] + values[last + 1]) / 2;
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
