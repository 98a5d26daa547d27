// Cycles, their ring, trackers and turning points.
#include <memory>

#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

class CycleTest : public EngineTest {
 protected:
  CycleTest() {
    const sKestrovaInit init = defaultInit();
    EXPECT_EQ(KestrovaInit(0, &init), 0);
  }
  void feedCycle(const Samples& samples) {
    channel.pInputData->addData(samples.data(), static_cast<int>(samples.size() * 2), true);
    ASSERT_TRUE(cycles().calculateCyclesInformation());
  }
  void feedSpread(int iLow, int iHigh) {
    Samples samples(32, static_cast<std::int16_t>(iLow));
    samples[7] = static_cast<std::int16_t>(iHigh);
    feedCycle(samples);
  }
  [[nodiscard]] CycleInformation& cycles() const { return *channel.pCycleInformation; }
  MyChannel& channel = KestrovapMyChannels[0];
};

TEST_F(CycleTest, NoCycleHasAnAmplitudeOfZero) {
  feedCycle(Samples(32, 100));
  EXPECT_EQ(cycles().at(0).Amp, 1);
  EXPECT_EQ(channel.pInputData->at(0), 101);
  feedCycle(Samples(32, 32512));
  EXPECT_EQ(channel.pInputData->at(32), 32511);
  EXPECT_EQ(cycles().at(1).min, 32511);
}

TEST_F(CycleTest, StepsCountTheAmplitudeIn49) {
  for (const auto& [iAmp, iStep] : {std::pair{47, 1}, {48, 1}, {49, 1}, {97, 1}, {98, 2}, {65000, 1326}}) {
    feedSpread(-iAmp / 2, iAmp - iAmp / 2);
    EXPECT_EQ(cycles().at(cycles().newest()).step, iStep) << iAmp;
  }
}

TEST_F(CycleTest, TheRingForgetsTheOldestAndNeverReadsTheGuardZone) {
  for (int i = 0; i < kRingCycles; ++i) feedSpread(0, 10 + i);
  EXPECT_EQ(cycles().newest(), 725);
  EXPECT_FALSE(cycles().isValid(0));
  EXPECT_FALSE(cycles().isValid(7));
  EXPECT_TRUE(cycles().isValid(8));
  EXPECT_FALSE(cycles().isValid(726));
  EXPECT_FALSE(cycles().isValid(-1));
  // Four cycles back from the oldest but one meet the guard zone after two.
  EXPECT_EQ(cycles().calcMinMax(9, 4).iHigh, 19);
  EXPECT_EQ(cycles().calcAmp(725, 4), 10 + 725);
  EXPECT_EQ(cycles().calcMeanCrossing(9, 4), cycles().at(9).NMeanCross + cycles().at(8).NMeanCross);
  EXPECT_EQ(cycles().getLastValidCycleInFrameThatContainsCycle(724), 724) << "a frame is a cycle";
  channel.iFrameSize = 4 * kCycleSamples;
  EXPECT_EQ(cycles().getLastValidCycleInFrameThatContainsCycle(721), 723);
  EXPECT_EQ(cycles().getLastValidCycleInFrameThatContainsCycle(724), 725) << "the frame is not complete";
  EXPECT_EQ(cycles().cycleOf(31), -1);
  EXPECT_EQ(cycles().cycleOf(725 * 32 + 5), 725);
  const std::string text = printed([&](std::FILE* pFile) { cycles().print(pFile); });
  EXPECT_EQ(text.substr(0, 25), "There are 726 cycles\nStar");
}

// Against a plain recomputation over the history, through ageing and the wrap of the history rings.
TEST(LevelTrackersTest, RowsAgreeWithThePlainComputation) {
  const auto& pRows = CycleInformation::psImmediateParam;
  LevelTrackers trackers;
  std::mt19937 random(3);
  std::vector<std::pair<int, int>> history(300, {0, 0});
  for (int i = 0; i < 700; ++i) {
    const int iMin = -static_cast<int>(random() % 20000);
    const int iMax = static_cast<int>(random() % 20000) + 1;
    trackers.push(iMin, iMax, 100);
    history.insert(history.begin(), {iMin, iMax});
    for (int iRow = 0; iRow < 8; ++iRow) {
      const sImmediateParam& row = pRows[static_cast<std::size_t>(iRow)];
      long lLow = 0, lHigh = 0;
      for (int k = row.iFrom; k <= row.iTo; ++k) {
        const auto [l, h] = history[static_cast<std::size_t>(k)];
        lLow = row.bAverage ? lLow + l : std::min<long>(lLow, l);
        lHigh = row.bAverage ? lHigh + h : std::max<long>(lHigh, h);
      }
      const int n = row.bAverage ? row.iTo + 1 - row.iFrom : 1;
      ASSERT_EQ(trackers.immediate(iRow).iLow, lLow / n) << i << " row " << iRow;
      ASSERT_EQ(trackers.immediate(iRow).iHigh, std::max(lHigh / n, lLow / n + 1)) << i << " row " << iRow;
    }
  }
  EXPECT_EQ(trackers.dcEstimate(), 100);
}

TEST(LevelTrackersTest, ALoudMomentLeavesTheBlockRangesAfterItsBlocks) {
  LevelTrackers trackers;
  trackers.push(-9000, 9000, 0);
  std::array<int, 6> piLeft{};
  for (int i = 1; i < 125 * 9; ++i) {
    trackers.push(-10, 10, 0);
    for (int k = 0; k < 6; ++k) {
      if (trackers.blockRange(k).spread() == 18000) piLeft[static_cast<std::size_t>(k)] = i;
    }
  }
  for (std::size_t k = 1; k < 6; ++k) EXPECT_EQ(piLeft[k] - piLeft[k - 1], 125);
}

TEST(MyMathTest, TurningPointsAreThePeaksBeyondTheThreshold) {
  const Samples samples{0, 30, 100, 95, 99, -50, -45, -100, 0, 80, 60, 90, 90, 10};
  const auto math = std::make_unique<MyMath>();
  const auto& found = math->calculateFluctuationsInformation1(samples, 60, 20);
  ASSERT_EQ(found.nsegments, 4);
  EXPECT_TRUE(found.startingup);
  const int piIndex[] = {0, 2, 7, 11};
  const int piValue[] = {0, 100, -100, 90};
  for (std::size_t k = 0; k < 4; ++k) {
    EXPECT_EQ(found.points[k].toidx, piIndex[k]);
    EXPECT_EQ(found.points[k].lval, piValue[k]);
  }
  EXPECT_EQ(found.points[1].fthresh, 2) << "the rise from 0 reached 60 at index 2";
  EXPECT_EQ(found.points[2].fthresh, 5);
  EXPECT_EQ(found.points[1].eti, 4) << "99 is the last value within 20 of 100";
  EXPECT_EQ(found.points[3].efi, 9);
  EXPECT_EQ(found.ExtremeIdx[1], 13);
  const auto& opening = math->calculateFluctuationsInformation1(Samples{5, 7, 1, 20}, 10, 2);
  EXPECT_EQ(opening.ExtremeVals[0], 7) << "the confirming 20 is no part of the opening";
  EXPECT_EQ(opening.ExtremeIdx[0], 1);
  EXPECT_EQ(math->calculateFluctuationsInformation1(samples, 201, 20).nsegments, 0);
  EXPECT_EQ(math->calculateFluctuationsInformation1({}, 1, 1).nsegments, 0);
}

TEST(MyMathTest, HigherLevelsAreCoarser) {
  const Samples samples = whiteNoise(32, 10000, 11);
  std::array<sFluctuationInformation, 4> levels{};
  for (int i = 0; i < 4; ++i) levels[static_cast<std::size_t>(i)].threshold = 20000 * (60 + 10 * i) / 100;
  MyMath().calculateFluctuationsInformation(samples, 3200, 4000, levels);
  for (std::size_t i = 1; i < 4; ++i) EXPECT_LE(levels[i].nsegments, levels[i - 1].nsegments);
  ASSERT_GT(levels[0].nsegments, 2);
  int iSum = 0;
  for (int k = 0; k < levels[0].nsegments; ++k) {
    const auto& point = levels[0].points[static_cast<std::size_t>(k)];
    EXPECT_EQ(point.lval, samples[static_cast<std::size_t>(point.toidx - 3200)]);
    iSum += point.lval;
  }
  EXPECT_NEAR(MyMath::calculateMeanVal(levels[0]), iSum / levels[0].nsegments, 3)
      << "a group is divided alone";
  EXPECT_EQ(MyMath::calculateNumValCrossing(MyMath::calculateMeanVal(levels[0]), levels[0]),
            levels[0].nsegments - 1);
}

// A line with a constant on it: taken off once it has been seen, and kept off.
TEST_F(CycleTest, AConstantOnTheLineIsTakenOff) {
  Samples in = voice(24000, 8000, 120, 6000);
  for (auto& sample : in) sample = static_cast<std::int16_t>(sample + 3000);
  process(0, in);
  EXPECT_NEAR(channel.pInputData->dcOffset(), 3000, 150);
  process(0, silence(16000));
  EXPECT_NEAR(channel.pInputData->dcOffset(), 0, 10) << "the offset follows the line";
}

}  // namespace
