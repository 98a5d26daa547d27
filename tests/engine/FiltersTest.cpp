// The transform and the spectral shapes made with it.
#include <complex>

#include "engine/MyFilters.h"
#include "tests/engine/EngineFixture.h"

namespace {

TEST(TransformTest, AgreesWithThePlainSumAtEveryLength) {
  for (const int n : {4, 8, 64, 128, 1024, 4096}) {
    const Samples in = whiteNoise(static_cast<std::size_t>(n), 10000, 4);
    std::vector<double> data(in.begin(), in.end());
    ASSERT_EQ(MyFilters::executeFFT(n, data.data()), n);
    for (int k = 0; k <= n / 2; k += std::max(1, n / 16)) {
      std::complex<double> sum;
      for (int j = 0; j < n; ++j) {
        const double dAngle = 2 * std::numbers::pi * j * k / n;
        sum += static_cast<double>(in[static_cast<std::size_t>(j)]) * std::polar(1.0, dAngle);
      }
      const auto u = static_cast<std::size_t>(2 * k);
      const double dRe = k == 0 ? data[0] : k == n / 2 ? data[1] : data[u];
      const double dIm = k == 0 || k == n / 2 ? 0 : data[u + 1];
      EXPECT_NEAR(dRe, sum.real(), 1e-5) << n << " " << k;
      EXPECT_NEAR(dIm, sum.imag(), 1e-5) << n << " " << k;
    }
  }
}

TEST(TransformTest, PadsToAPowerOfTwoAndScalesAConstantByItsLength) {
  std::vector<double> data(128, 3.0);
  EXPECT_EQ(MyFilters::executeFFT(96, data.data()), 128);
  EXPECT_NEAR(data[0], 96 * 3.0, 1e-9);
}

TEST(TransformTest, TheInverseGivesTheSignalBackHalfItsLengthLouder) {
  // No energy near half the rate, whose bin the inverse replaces.
  Samples in(256);
  for (std::size_t i = 0; i < in.size(); ++i) {
    in[i] = static_cast<std::int16_t>(9000 * std::sin(0.3 * static_cast<double>(i)) *
                                      std::sin(std::numbers::pi * (static_cast<double>(i) + 0.5) / 256));
  }
  std::vector<double> data(in.begin(), in.end());
  MyFilters::executeFFT(256, data.data());
  MyFilters::executeIFFT(256, data.data());
  for (std::size_t i = 0; i < in.size(); ++i) EXPECT_NEAR(data[i] / 128, in[i], 2.0);
}

TEST(HistogramTest, MatchWithinTheirTolerances) {
  const MyFilters::Histogram a{0, 100, 50, 10, 0, 0, 0};
  MyFilters::Histogram b = a;
  EXPECT_TRUE(MyFilters::matchFFTHistograms(true, a, b));
  b[2] = 55;
  EXPECT_TRUE(MyFilters::matchFFTHistograms(true, a, b));
  b[2] = 56;
  EXPECT_FALSE(MyFilters::matchFFTHistograms(true, a, b));
  EXPECT_TRUE(MyFilters::matchFFTHistograms(false, a, b));
  b[2] = 71;
  EXPECT_FALSE(MyFilters::matchFFTHistograms(false, a, b));
}

}  // namespace
