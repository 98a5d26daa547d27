// Whole streams through a noise channel: what the listener hears.
#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

class PipelineTest : public EngineTest {
 protected:
  static constexpr std::size_t kSecond = 8000;
  // Two seconds of background, then words of half a second every second.
  static Samples talk(int iWords, double dPeak) {
    Samples in = silence(2 * kSecond);
    for (int i = 0; i < iWords; ++i) {
      in += voice(kSecond / 2, 8000, 110 + 9 * (i % 5), dPeak);
      in += silence(kSecond / 2);
    }
    return in;
  }
  static void open(const sKestrovaInit& init, std::uint16_t c = 0) { ASSERT_EQ(KestrovaInit(c, &init), 0); }
};

TEST_F(PipelineTest, SteadyNoiseVanishesFromPausesAndSpeechStays) {
  open(defaultInit());
  const Samples clean = talk(8, 12000);
  const Samples in = mixed(clean, gaussianNoise(clean.size(), 130, 1));
  const Samples out = process(0, in);
  for (std::size_t w = 3; w < 8; ++w) {
    const std::size_t uWord = (2 + w) * kSecond;
    EXPECT_NEAR(decibels(rms(out, uWord, uWord + 4000) / rms(clean, uWord, uWord + 4000)), 0, 1.5) << w;
    const std::size_t uPause = uWord + 4000 + 2400;
    EXPECT_LT(decibels(rms(out, uPause, uPause + 1400) / 130), -20) << w;
  }
}

// A muted line sends zeros. They say nothing about the background that comes back afterwards.
TEST_F(PipelineTest, DigitalSilenceLeavesTheNoiseEstimateAlone) {
  open(defaultInit());
  const Samples noise = gaussianNoise(8 * kSecond, 130, 1);
  Samples in(noise.begin(), noise.begin() + 5 * kSecond);
  in += silence(kSecond / 10);
  const std::size_t uBack = in.size() + 400;
  in.insert(in.end(), noise.begin() + 5 * kSecond, noise.end());
  const Samples out = process(0, in);
  const double dBefore = decibels(rms(out, 4 * kSecond, 5 * kSecond) / 130);
  const double dAfter = decibels(rms(out, uBack, uBack + kSecond / 2) / 130);
  EXPECT_LT(dBefore, -20);
  EXPECT_NEAR(dAfter, dBefore, 3);
}

TEST_F(PipelineTest, TheStrongestLevelsDoNotSpareSpeech) {
  const Samples clean = talk(4, 6000);
  const Samples in = mixed(clean, gaussianNoise(clean.size(), 400, 1));
  double dWord[2] = {};
  for (const int iLevel : {10, 11}) {
    sKestrovaInit init = defaultInit();
    init.sCleanAggressiveLevel = static_cast<std::uint16_t>(iLevel);
    open(init);
    dWord[iLevel - 10] = rms(process(0, in), 5 * kSecond, 5 * kSecond + 4000);
  }
  EXPECT_LT(decibels(dWord[1] / dWord[0]), -1.5);
}

TEST_F(PipelineTest, CleanSpeechPassesUnchanged) {
  open(defaultInit());
  const Samples in = talk(5, 12000);
  const Samples out = process(0, in);
  for (std::size_t w = 0; w < 5; ++w) {
    const std::size_t uWord = (2 + w) * kSecond;
    EXPECT_TRUE(std::equal(in.begin() + static_cast<long>(uWord),
                           in.begin() + static_cast<long>(uWord + 4000),
                           out.begin() + static_cast<long>(uWord)))
        << w;
  }
  const MyChannel& channel = KestrovapMyChannels[0];
  EXPECT_NEAR(static_cast<double>(channel.pOutputData->confidentSamples()), 4 * 8000, 4000);
  EXPECT_LT(channel.pOutputData->speechSamples(), 2000) << "until the first verb";
  const std::string report = printed([&](std::FILE* pFile) { channel.pMyClean->afterCleaning(pFile); });
  EXPECT_EQ(report.find("Segment "), 0U);
  EXPECT_NE(report.find("Burst: state=2 "), report.npos) << report;
}

// The console may change the delay, and with it the frame length, in the middle of a stream.
TEST_F(PipelineTest, AChangedDelayMeasuresTheBackgroundAnewAndReleasesNothingTwice) {
  open(defaultInit());
  MyChannel& channel = KestrovapMyChannels[0];
  const Samples noise = gaussianNoise(3 * kSecond, 130, 1);
  process(0, noise);
  for (const int iCycles : {2, 6}) {
    ASSERT_TRUE(channel.pOutputData->noise().hasEstimate());
    channel.setMaxNumCyclesInDelayBuffer(iCycles);
    EXPECT_FALSE(channel.pOutputData->noise().hasEstimate());
    int iReleased = 0;
    const Samples out = process(0, noise, 32, [&](const sKestrovaFrameResult&) {
      const int iTime = channel.pCycleInformation->at(channel.pFirstScan->released()).StartIndex;
      EXPECT_GE(iTime, iReleased);
      iReleased = iTime;
    });
    EXPECT_LT(decibels(rms(out, out.size() - kSecond, out.size()) / 130), -20) << iCycles;
  }
}

TEST_F(PipelineTest, OutputDependsNeitherOnFramesNorOnOtherChannels) {
  const Samples in = mixed(talk(4, 10000), gaussianNoise(6 * kSecond, 100, 2));
  sKestrovaInit init = defaultInit();
  init.bDoAGC = 1;
  open(init);
  const Samples out = process(0, in);
  for (const int iUnits : {2, 5, 8}) {
    init.sFrameUnits = static_cast<std::uint16_t>(iUnits);
    open(init, 1);
    open(init, 2);
    Samples again;
    std::size_t uNoise = 0;
    const Samples other = gaussianNoise(in.size(), 3000, 3);
    const auto uFrame = static_cast<std::size_t>(32 * iUnits);
    again = process(1, in, uFrame, [&](const sKestrovaFrameResult&) {
      const Samples frame(other.begin() + static_cast<long>(uNoise),
                          other.begin() + static_cast<long>(uNoise + uFrame));
      process(2, frame, uFrame);
      uNoise += uFrame;
    });
    ASSERT_GT(again.size(), in.size() - 1000);
    EXPECT_TRUE(std::equal(again.begin(), again.end(), out.begin())) << iUnits;
  }
}

TEST_F(PipelineTest, ComfortNoiseStepsDownToNothing) {
  sKestrovaInit init = defaultInit();
  init.sCNGInitialValue = 100;
  init.sCNGEndValue = 0;
  init.bRemoveNonSelfFrequencies = 0;
  open(init);
  const Samples in = whiteNoise(20 * kSecond, 48, 4);  // too quiet to be presumed speech
  const Samples out = process(0, in);
  EXPECT_NEAR(rms(out, 1000, 4000) / rms(in, 1000, 4000), 1, 0.01);
  // 6/128 less each time more than 4003 samples have passed, that is every 4,032 samples.
  EXPECT_NEAR(rms(out, 4100, 8000) / rms(in, 4100, 8000), 122.0 / 128, 0.04);
  EXPECT_NEAR(rms(out, 10 * 4032 + 100, 11 * 4032) / rms(in, 10 * 4032 + 100, 11 * 4032), 68.0 / 128, 0.04);
  EXPECT_EQ(rms(out, 22 * 4032 + 200, 23 * 4032), 0);
}

TEST_F(PipelineTest, AStreamShorterThanTheDelayGivesNothing) {
  open(defaultInit());
  EXPECT_TRUE(process(0, silence(6 * 32)).empty());
  EXPECT_EQ(process(0, silence(32)).size(), 32U);
}

// Bits that do not fill frames or cycles: never more out than in, and all of it but the delay's.
TEST_F(PipelineTest, OddFrameLengthsKeepTheStreamWhole) {
  open(defaultInit());
  const OutputData& output = *KestrovapMyChannels[0].pOutputData;
  std::mt19937 random(5);
  std::size_t uIn = 0;
  std::size_t uOut = 0;
  for (int i = 0; i < 3000; ++i) {
    Samples frame(1 + random() % 200);
    sKestrovaFrameResult result{};
    ASSERT_EQ(
        KestrovaProcessFrame(0, frame.data(), static_cast<int>(frame.size() * 2), frame.data(), &result), 0);
    ASSERT_LE(result.iOutBytes, static_cast<int>(frame.size() * 2));
    uIn += frame.size();
    uOut += static_cast<std::size_t>(result.iOutBytes / 2);
    ASSERT_EQ(output.closeOutput(), 0);
  }
  EXPECT_LE(uIn - uOut, 6U * 32 + 256);
}

TEST_F(PipelineTest, WithTheVadBypassedNothingIsGated) {
  sKestrovaInit init = defaultInit();
  init.bBypassVAD = 1;
  init.bRemoveNonSelfFrequencies = 0;
  open(init);
  Samples in = gaussianNoise(3 * kSecond, 300, 6);
  in += voice(kSecond, 8000, 130, 8000);
  in += gaussianNoise(4 * kSecond, 3000, 7);  // loud for long, without repetition
  const Samples out = process(0, in);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), in.begin()));
}

TEST_F(PipelineTest, WithTheVadBypassedTheBackgroundStaysDownAfterAWord) {
  sKestrovaInit init = defaultInit();
  init.bBypassVAD = 1;
  open(init);
  Samples in = gaussianNoise(10 * kSecond, 300, 6);
  const Samples word = voice(kSecond, 8000, 130, 8000);
  for (std::size_t i = 0; i < word.size(); ++i)
    in[4 * kSecond + i] = clampSample(in[4 * kSecond + i] + word[i]);
  const Samples out = process(0, in);
  EXPECT_LT(rms(out, 7 * kSecond, 9 * kSecond), 1.1 * rms(out, 2 * kSecond, 4 * kSecond));
}

TEST_F(PipelineTest, AShockIsBroughtDownToTheSpeakersLevel) {
  double dPassed[2] = {};
  for (const int iCancel : {0, 1}) {
    sKestrovaInit init = defaultInit();
    init.bCancelAcousticShock = static_cast<std::uint8_t>(iCancel);
    open(init);
    Samples in = talk(6, 4000);
    in.resize(in.size() - kSecond / 2);
    in += gaussianNoise(kSecond, 6000, 8);  // a crash in the line, right after the last word
    const Samples out = process(0, in);
    dPassed[iCancel] = rms(out, 15 * kSecond / 2 + 1600, 15 * kSecond / 2 + 3200);
  }
  EXPECT_LT(decibels(dPassed[1] / dPassed[0]), -8);
}

}  // namespace
