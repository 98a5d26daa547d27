// The automatic gain in detail: how fast it moves, what it may never do, and what pauses and bursts get.
#include <algorithm>

#include "tests/engine/EngineFixture.h"

namespace {

class GainTest : public EngineTest {
 protected:
  static constexpr std::size_t kSecond = 8000;
  static constexpr int kLevel = 24000;  // peak to peak

  // Silence, then words of half a second every second.
  static Samples talk(std::size_t uWords, double dPeak) {
    Samples in = silence(kSecond);
    for (std::size_t i = 0; i < uWords; ++i) {
      in += voice(kSecond / 2, 8000, 115 + 7.0 * static_cast<double>(i % 4), dPeak);
      in += silence(kSecond / 2);
    }
    return mixed(in, gaussianNoise(in.size(), 20, 1));
  }
  Samples run(const Samples& in, int iLowest = 50, int iHighest = 500, int iTarget = kLevel) {
    sKestrovaInit init = defaultInit();
    init.bDoAGC = 1;
    init.iAGCLevel = iTarget;
    init.iAGCMinPercent = iLowest;
    init.iAGCMaxPercent = iHighest;
    EXPECT_EQ(KestrovaInit(0, &init), 0);
    piGain.clear();
    return process(0, in, 32,
                   [&](const sKestrovaFrameResult& result) { piGain.push_back(result.iGainPercent); });
  }
  static int span(const Samples& samples, std::size_t uFrom) {
    const auto [low, high] = std::minmax_element(samples.begin() + static_cast<long>(uFrom),
                                                 samples.begin() + static_cast<long>(uFrom) + 32);
    return *high - *low;
  }

  std::vector<int> piGain;  // percent, after each cycle
};

TEST_F(GainTest, RisesByFiftyOf128ACycleAndFallsByFiveHundred) {
  Samples in = talk(3, 1900);
  const Samples loud = talk(2, 30000);
  in.insert(in.end(), loud.begin() + kSecond, loud.end());
  run(in);
  int iRise = 0;
  int iFall = 0;
  for (std::size_t i = 1; i < piGain.size(); ++i) {
    iRise = std::max(iRise, piGain[i] - piGain[i - 1]);
    iFall = std::max(iFall, piGain[i - 1] - piGain[i]);
  }
  EXPECT_NEAR(iRise, 50 * 100 / 128, 1);
  EXPECT_GT(iFall, 200) << "a talker sixteen times as loud is cut within a cycle or two";
  EXPECT_LE(iFall, 500 * 100 / 128 + 1);
}

TEST_F(GainTest, StaysWithinItsLimits) {
  for (const auto& [iLowest, iHighest, dPeak] : {std::tuple{50, 500, 1000.0},
                                                 {50, 500, 32000.0},
                                                 {80, 120, 1000.0},
                                                 {80, 120, 32000.0},
                                                 {100, 100, 2000.0}}) {
    run(talk(4, dPeak), iLowest, iHighest);
    EXPECT_GE(*std::ranges::min_element(piGain), iLowest - 1) << dPeak;
    EXPECT_LE(*std::ranges::max_element(piGain), iHighest) << dPeak;
  }
}

TEST_F(GainTest, ATargetOfNothingEndsAtTheLeastGain) {
  run(talk(6, 6000), 50, 500, 0);
  EXPECT_EQ(piGain.back(), 50);
}

TEST_F(GainTest, TalkersComeToTheSameLevelWithinTheirFirstSecond) {
  constexpr std::size_t kCycles = kSecond / 32;
  for (const double dPeak : {3000.0, 6000.0, 12000.0, 24000.0}) {
    run(talk(6, dPeak));
    EXPECT_EQ(piGain[kCycles - 1], 100) << "nothing is lifted before anyone has spoken";
    for (std::size_t i = 2 * kCycles - 1; i < piGain.size(); i += kCycles) {
      const double dLevel = dPeak * piGain[i] / 100;
      EXPECT_NEAR(decibels(dLevel / 14000), 0, 3) << dPeak << " after cycle " << i << ": " << piGain[i];
    }
  }
}

TEST_F(GainTest, ABurstExceedsTheTargetForTwoCyclesAtMost) {
  Samples in = talk(6, 3000);
  for (const std::size_t uAt : {5 * kSecond + 6000, 6 * kSecond + 1000}) {  // in a pause, and in a word
    Samples burst = in;
    const Samples crash = whiteNoise(800, 15000, 4);
    std::copy(crash.begin(), crash.end(), burst.begin() + static_cast<long>(uAt));
    const Samples out = run(burst);
    int iAbove = 0;
    for (std::size_t i = uAt / 32 * 32; i < uAt + 1600; i += 32)
      iAbove += span(out, i) > kLevel * 11 / 10 ? 1 : 0;
    EXPECT_LE(iAbove, 2) << uAt;
  }
}

TEST_F(GainTest, PausesOfAWeakTalkerAreNotLifted) {
  const Samples in = talk(6, 2400);
  const Samples out = run(in);
  EXPECT_GT(piGain.back(), 400);
  for (std::size_t s = 3; s < 7; ++s) {
    const std::size_t uPause = s * kSecond + 6400;  // 300 ms after the word
    EXPECT_LT(rms(out, uPause, uPause + 1400), rms(in, uPause, uPause + 1400)) << s;
  }
}

// One shout and what was said after it, then the other party's turn: the gain comes back.
TEST_F(GainTest, OneLoudWordIsForgottenAfterTheOtherPartysTurn) {
  Samples in = talk(4, 2400);
  const int iBefore = (run(in), piGain.back());
  in += talk(1, 30000);
  in += talk(10, 2400);
  in += silence(6 * kSecond);
  in += talk(10, 2400);
  run(in);
  EXPECT_NEAR(piGain.back(), iBefore, iBefore / 5);
}

}  // namespace
