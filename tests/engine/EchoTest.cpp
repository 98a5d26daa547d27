// Echo cancellation: properties of the parts on seeded signals, and of the whole through the engine's
// interface.
#include <cmath>

#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

sKestrovaInit echoInit(int iAlgorithm, int iRate = 8000) {
  sKestrovaInit init = defaultInit();
  init.iSampleRate = iRate;
  init.sMaxNumCyclesInDelayBuffer = iAlgorithm == 0 ? 0 : 2;
  init.sAecAlgorithm = static_cast<std::uint16_t>(iAlgorithm);
  init.sAecAggressiveLevel = init.sAecHowlingLevel = 10;
  init.sAecTailType = 1;
  init.iAecTalkHoldSamples = init.iAecHold2Samples = 2000;
  return init;
}

// Noise in syllables: a quarter of a second on, a tenth off.
Samples syllables(std::size_t uCount, double dRms, unsigned uSeed, int iRate = 8000) {
  Samples samples = gaussianNoise(uCount, dRms, uSeed);
  const auto uPeriod = static_cast<std::size_t>(iRate * 35 / 100);
  for (std::size_t i = 0; i < uCount; ++i) {
    if (i % uPeriod > uPeriod * 5 / 7) samples[i] = 0;
  }
  return samples;
}

// A room of five reflections within 40 ms behind the delay.
Samples echoOf(const Samples& far, int iDelay, double dGain, int iRate = 8000) {
  const int iUnit = iRate / 8000;
  Samples echo(far.size());
  for (std::size_t n = 0; n < far.size(); ++n) {
    double dSum = 0;
    const std::pair<int, double> psReflections[] = {{0, 1}, {7, -0.6}, {33, 0.4}, {120, 0.2}, {300, -0.05}};
    for (const auto& [iTap, dTap] : psReflections) {
      const long lFrom = static_cast<long>(n) - (iDelay + iTap) * iUnit;
      if (lFrom >= 0) dSum += dTap * far[static_cast<std::size_t>(lFrom)];
    }
    echo[n] = static_cast<std::int16_t>(std::lround(dGain * dSum));
  }
  return echo;
}

class EchoTest : public EngineTest {
 protected:
  // The microphone's packets may come before the loudspeaker's: its stream then leads by iMicLead samples.
  Samples cancel(const Samples& far, const Samples& micSamples, const sKestrovaInit& init, int iMicLead = 0) {
    start(init);
    return feed(far, micSamples, 0, far.size(), iMicLead);
  }
  void start(const sKestrovaInit& init) {
    EXPECT_EQ(KestrovaAECInit(0, &init), 0);
    uFrame = static_cast<std::size_t>(32 * init.iSampleRate / 8000);
    uSpkFed = 0;
  }
  // Microphone samples uFrom .. uTo, each frame behind what has been played of the loudspeaker by then.
  Samples feed(const Samples& far, const Samples& micSamples, std::size_t uFrom, std::size_t uTo,
               int iMicLead = 0) {
    Samples out;
    Samples frame(uFrame);
    for (std::size_t i = uFrom; i + uFrame <= uTo; i += uFrame) {
      for (; uSpkFed + static_cast<std::size_t>(iMicLead) < i + uFrame; uSpkFed += uFrame) {
        EXPECT_EQ(KestrovaAECProcessSpkFrame(0, far.data() + uSpkFed, static_cast<int>(2 * uFrame)), 0);
      }
      sKestrovaFrameResult result{};
      std::copy_n(micSamples.data() + i, uFrame, frame.data());
      EXPECT_EQ(
          KestrovaAECProcessMicFrame(0, frame.data(), static_cast<int>(2 * uFrame), frame.data(), &result),
          0);
      iLargestEcho = std::max(iLargestEcho, result.iEchoLevel);
      out.insert(out.end(), frame.begin(), frame.begin() + result.iOutBytes / 2);
    }
    return out;
  }
  static double erle(const Samples& micSamples, const Samples& out, std::size_t uFrom) {
    return decibels(rms(micSamples, uFrom, out.size()) / (rms(out, uFrom, out.size()) + 1e-3));
  }
  const MyAEC& aec() const { return *KestrovapMyAECChannels[0].pMyAEC; }

  std::size_t uFrame = 32;
  std::size_t uSpkFed = 0;
  int iLargestEcho = 0;
};

TEST_F(EchoTest, ModesAndSpansFollowTheSettings) {
  const int piModes[] = {0x01, 0x01, 0x02, 0x03, 0x04, 0x11, 0x21, 0x34};
  for (int a = 0; a < 8; ++a) EXPECT_EQ(sAecMode::ofAlgorithm(a).uValue, piModes[a]);
  EXPECT_EQ(sAecMode::ofAlgorithm(8).uValue, 0x01);
  for (const auto& [iTail, iEnd] : {std::pair{0, 100}, {1, 225}, {5, 725}, {-1, 25}, {-58, 725}}) {
    EXPECT_EQ(sEchoSpan::ofTail(iTail, 0).iEnd, iEnd) << iTail;
  }
  EXPECT_EQ(sEchoSpan::ofTail(0, -58).iStart, 75) << "25 cycles are left at least";
}

// ---- The whole

TEST_F(EchoTest, EchoIsCancelledAtEveryDelayOfTheSpanAndRate) {
  for (const auto& [iRate, iDelay] : {std::pair{8000, 100}, {8000, 6500}, {16000, 4100}}) {
    const auto uCount = static_cast<std::size_t>(7 * iRate / 2);
    const Samples far = syllables(uCount, 4000, 1, iRate);
    const Samples micSamples = mixed(echoOf(far, iDelay, 0.3, iRate), gaussianNoise(uCount, 5, 2));
    sKestrovaInit init = echoInit(7, iRate);
    init.sAecMaxCoef = 10;  // bounds the basic algorithm's coupling alone
    const Samples out = cancel(far, micSamples, init);
    EXPECT_GT(erle(micSamples, out, uCount * 5 / 7), 50) << iRate << " " << iDelay;
    EXPECT_NEAR(aec().cycle().iEchoDelay, iDelay, 40);
  }
}

TEST_F(EchoTest, EveryAlgorithmLowersEchoAlthoughTheMicrophonesPacketsComeFirst) {
  const Samples far = syllables(20000, 2500, 3);
  const Samples echo = mixed(echoOf(far, 800, 0.3), gaussianNoise(far.size(), 5, 4));
  for (int a = 1; a < 8; ++a) {
    for (const int iLead : {160, 448}) {
      if (iLead == 160 && a != 4 && a != 7) continue;  // the two that calls use most
      EXPECT_GT(erle(echo, cancel(far, echo, echoInit(a), iLead), 12000), a == 1 ? 6 : 12)
          << a << " " << iLead;
    }
  }
}

TEST_F(EchoTest, EveryAlgorithmPassesTalkAndReportsTheEchoLevel) {
  const Samples talk = voice(8000, 8000, 120, 6000);
  const Samples far = syllables(14000, 2500, 3);
  const Samples echo = echoOf(far, 300, 0.3);
  for (int a = 0; a < 8; ++a) {
    iLargestEcho = 0;
    const Samples out = cancel(Samples(talk.size()), talk, echoInit(a));
    EXPECT_NEAR(decibels(rms(out, 0, out.size()) / rms(talk, 0, out.size())), 0, 0.1) << a;
    EXPECT_EQ(iLargestEcho, 0) << a;
    if (a == 2 || a == 3) continue;  // they take nothing off before they have converged
    (void)cancel(far, echo, echoInit(a));
    const auto [pLow, pHigh] = std::minmax_element(echo.begin(), echo.end());
    EXPECT_GT(iLargestEcho, (*pHigh - *pLow) / 4) << a;
    EXPECT_LE(iLargestEcho, 2 * (*pHigh - *pLow)) << a;
  }
}

TEST_F(EchoTest, ATalkerWithoutAnyEchoPassesUntouchedWhileTheOtherEndTalks) {
  const Samples far = syllables(32000, 2500, 5);
  const Samples talk = mixed(voice(far.size(), 8000, 140, 8000), gaussianNoise(far.size(), 5, 6));
  const Samples out = cancel(far, talk, echoInit(7));
  for (std::size_t i = 0; i < out.size(); ++i) ASSERT_EQ(out[i], talk[i]) << i;
}

TEST_F(EchoTest, DoubleTalkNeitherLosesTheNearEndNorTheFilter) {
  const Samples far = syllables(60000, 2500, 7);
  Samples micSamples = mixed(echoOf(far, 1500, 0.3), gaussianNoise(far.size(), 5, 8));
  const Samples talk = voice(20000, 8000, 120, 9000);
  for (std::size_t i = 0; i < talk.size(); ++i)
    micSamples[24000 + i] = clampSample(micSamples[24000 + i] + talk[i]);
  const Samples out = cancel(far, micSamples, echoInit(7));
  const Samples passed(out.begin() + 26000, out.begin() + 44000);
  EXPECT_GT(decibels(rms(passed, 0, 18000) / rms(talk, 2000, 20000)), -2);
  EXPECT_GT(erle(micSamples, out, 52000), 25);
}

TEST_F(EchoTest, AChangedPathIsSilentAgainWithinASecond) {
  const Samples far = gaussianNoise(28000, 2500, 15);
  Samples echo = echoOf(far, 300, 0.3);
  const Samples changed = echoOf(far, 330, -0.3);
  std::copy(changed.begin() + 20000, changed.end(), echo.begin() + 20000);
  start(echoInit(7));
  (void)feed(far, echo, 0, 25600);
  const Samples out = feed(far, echo, 25600, 28000);
  const Samples heard(echo.begin() + 25600, echo.begin() + 28000);
  EXPECT_GT(erle(heard, out, 0), 20) << "0.7 s after the change, for 0.3 s";
}

TEST_F(EchoTest, ANearEndTalkerAloneIsNoSignOfDivergence) {
  Samples far = syllables(32000, 2500, 10);
  std::fill(far.begin() + 16000, far.end(), 0);
  const Samples micSamples = echoOf(far, 300, 0.3);
  Samples both = micSamples;
  const Samples talk = voice(15000, 8000, 120, 15000);
  std::copy(talk.begin(), talk.end(), both.begin() + 17000);
  start(echoInit(4));
  (void)feed(far, both, 0, 17000);
  const double dStep = aec().timeDomain().stepSize();
  const auto fTaps = aec().timeDomain().set(TimeDomainFilter::kTest).fTaps;
  ASSERT_GT(aec().timeDomain().set(TimeDomainFilter::kTest).iGoodUpdates, 50);
  (void)feed(far, both, 17000, 32000);
  EXPECT_FALSE(aec().timeDomain().isDiverging());
  EXPECT_GE(aec().timeDomain().stepSize(), dStep);
  EXPECT_EQ(aec().timeDomain().set(TimeDomainFilter::kTest).fTaps, fTaps);
}

TEST_F(EchoTest, ALateLoudspeakerNeitherEndsTheFrequencyDomainFilterNorKeepsItFromEarlyEcho) {
  struct sRow {
    std::size_t uLateFrom, uLateTo;  // the microphone's stream is ahead by iLead meanwhile
    int iLead;
    std::size_t uCancelledFrom;
  };
  const Samples far = syllables(44000, 2500, 11);
  const Samples echo = mixed(echoOf(far, 200, 0.3), gaussianNoise(far.size(), 5, 12));
  for (const auto& [uLateFrom, uLateTo, iLead, uCancelledFrom] :
       {sRow{20000, 20160, 160, 22016}, {20000, 20480, 448, 22016}, {0, 8000, 448, 34016}}) {
    start(echoInit(7));
    (void)feed(far, echo, 0, uLateFrom);
    const int iBefore = uLateFrom > 0 ? aec().preferredAlgorithm() : kTimeDomain;
    (void)feed(far, echo, uLateFrom, uLateTo, iLead);
    EXPECT_EQ(aec().preferredAlgorithm(), iBefore) << "missed blocks cost only themselves";
    (void)feed(far, echo, uLateTo, uCancelledFrom);
    EXPECT_EQ(aec().preferredAlgorithm(), kFrequencyDomain) << iLead;
    EXPECT_TRUE(aec().frequencyDomain().isReady());
    const Samples out = feed(far, echo, uCancelledFrom, far.size());
    const Samples heard(echo.begin() + static_cast<std::ptrdiff_t>(uCancelledFrom), echo.end());
    EXPECT_GT(erle(heard, out, 0), 30) << iLead;
  }
}

TEST_F(EchoTest, ALoopHowlsHoweverFarAheadTheMicrophoneIsAndAtAnyLevel) {
  const Samples whistle = tone(4000, 1300, 8000);
  const Samples twoLines = mixed(tone(4000, 2200, 17000), tone(4000, 3000, 17000));
  for (const auto& [far, iLead, iLevel] :
       {std::tuple{whistle, 0, 10}, {whistle, 480, 10}, {twoLines, 0, 10}, {twoLines, 0, 9}}) {
    sKestrovaInit init = echoInit(7);
    init.sAecHowlingLevel = static_cast<std::uint16_t>(iLevel);
    (void)cancel(far, far, init, iLead);
    EXPECT_TRUE(aec().cycle().bHowling) << iLead << " " << iLevel;
  }
}

TEST_F(EchoTest, PartitionsThatWereCutOffAreTakenBackForALongerRoom) {
  const Samples far = syllables(92000, 2500, 17);
  Samples echo = echoOf(far, 300, 0.3);
  start(echoInit(7));
  (void)feed(far, echo, 0, 56000);
  EXPECT_TRUE(aec().frequencyDomain().isTrimmed());
  const auto uLate = static_cast<std::size_t>(aec().frequencyDomain().endDelay() + 10);
  const Samples fainter = echoOf(far, 300, 0.15);
  for (std::size_t i = 56000; i < far.size(); ++i)
    echo[i] = static_cast<std::int16_t>(fainter[i] + far[i - uLate] / 3);
  (void)feed(far, echo, 56000, far.size());
  EXPECT_LT(aec().frequencyDomain().ratio(FrequencyFilter::kUsedLasting), 0.3);
}

TEST_F(EchoTest, AMutedPhoneDoesNotBuryTheVotesOfItsDelay) {
  const Samples far = syllables(144000, 2500, 16);
  Samples micSamples = echoOf(far, 300, 0.5);
  std::fill(micSamples.begin(), micSamples.begin() + 96000, 0);
  (void)cancel(far, micSamples, echoInit(1));
  EXPECT_NEAR(aec().delays().votedDelay(), 300, 64);
}

TEST_F(EchoTest, APathThatMovesIsNoLongerCalledStable) {
  const Samples far = syllables(112000, 2500, 13);
  Samples echo = echoOf(far, 300, 0.3);
  const Samples moved = echoOf(far, 900, -0.4);
  std::copy(moved.begin() + 96000, moved.end(), echo.begin() + 96000);
  start(echoInit(4));
  (void)feed(far, echo, 0, 96000);
  EXPECT_TRUE(aec().cycle().bStablePath);
  (void)feed(far, echo, 96000, far.size());
  EXPECT_FALSE(aec().cycle().bStablePath);
}

TEST_F(EchoTest, TheFloorHoldsAndABypassedChannelPasses) {
  const Samples far = syllables(24000, 2500, 9);
  const Samples echo = echoOf(far, 800, 0.3);
  sKestrovaInit init = echoInit(1);
  init.sMinOutputPercentDuringEcho = 50;
  init.iAecTalkHoldSamples = init.iAecHold2Samples = INT32_MAX;
  const Samples out = cancel(far, echo, init);
  for (int i = 0; i < SupressionHistory::kEntries; ++i) EXPECT_GE(aec().supression().entry(i).iGain, 64);
  init = echoInit(7);
  init.bStartBypassed = 1;
  const Samples bypassed = cancel(far, echo, init);
  EXPECT_TRUE(std::equal(bypassed.begin(), bypassed.end(), echo.begin()));
}

TEST_F(EchoTest, CyclesThatHaveLeftTheHistoryOrAreNotClosedAreAnswered) {
  for (const int a : {2, 3}) {
    const Samples far = syllables(3200, 2500, 14);
    (void)cancel(far, echoOf(far, 300, 0.3), echoInit(a));
    const cHandle now = aec().cycle().cycle;
    const cHandle oldest = CycleInformation::before(now, SupressionHistory::kEntries - 1);
    for (int iBack = SupressionHistory::kEntries; iBack < kRingCycles; ++iBack) {
      const cHandle cycle = CycleInformation::before(now, iBack);
      EXPECT_EQ(aec().isAecDataNeeded(cycle), aec().isAecDataNeeded(oldest)) << a << " " << iBack;
    }
  }
}

// ---- Suppression history

class HistoryTest : public ::testing::Test {
 protected:
  HistoryTest() { history.clean(0, 6); }
  void push(int iScore, bool bNear, int iCount = 1) {
    for (int i = 0; i < iCount; ++i) {
      cycle.iTalkScore = iScore;
      cycle.bNearEndTalk = bNear;
      cycle.bRestarted = false;
      cycle.bMicActive = bNear;
      history.td_updateSupressionCoef(cycle);
      cycle.iFirst += 32;
      cycle.iLast += 32;
    }
  }
  SupressionHistory history;
  sAecCycle cycle{.iFirst = 100000, .iLast = 100031};
};

TEST_F(HistoryTest, EchoLowersByStepsAndTalkReopens) {
  push(score::kDefault, false);
  EXPECT_EQ(history.newestIndex(), 0);
  EXPECT_EQ(history.entry(0).iGain, 122);
  push(score::kEchoCertain, false);
  EXPECT_EQ(history.entry(0).iGain, 92);
  push(score::kEchoCertain, false, 57);
  EXPECT_EQ(history.newestIndex(), 0) << "58 entries";
  EXPECT_EQ(history.entry(0).iGain, 0);
  push(score::kTwiceTheEcho, true, 4);
  EXPECT_EQ(history.entry(0).iGain, 120);
  push(score::kTwiceTheEcho, true);
  EXPECT_EQ(history.entry(0).iGain, 128);
  push(score::kHowling, false);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(history.entry(i).iGain, 0);
  push(score::kFarSilent, false);
  EXPECT_EQ(history.getSupressionCoef(0, false), 128) << "whatever the stored gain";
}

TEST_F(HistoryTest, TheResidualRatioScalesTheGainWhereNothingIsSubtracted) {
  cycle.iResidualRatio = 64;
  push(4, true, 57);
  EXPECT_EQ(history.getSupressionCoef(0, false), 64);
  EXPECT_EQ(history.getSupressionCoef(0, true), 128);
}

// ---- Coefficient sets

TEST(CoefSetTest, OfTwoEqualTestSetsNeitherWins) {
  TimeDomainFilter filter;
  for (const int i : {6, 7}) {
    sAecCoefSet& set = filter.set(i);
    set.iProcessedTime = 100000;
    set.r = {300, 300, 300, 300};
    set.iPeakDrift = 0;
  }
  EXPECT_FALSE(filter.td_isCoef2BetterThanCoef1OnTst(6, 7));
  EXPECT_FALSE(filter.td_isCoef2BetterThanCoef1OnTst(7, 6));
  filter.set(7).r = {200, 200, 200, 200};
  EXPECT_TRUE(filter.td_isCoef2BetterThanCoef1OnTst(6, 7));
  filter.set(7).iPeakDrift = 11;
  EXPECT_FALSE(filter.td_isCoef2BetterThanCoef1OnTst(6, 7)) << "its peak wanders";
}

TEST(CoefSetTest, StepsAreClippedWithTheirSign) {
  sAecCoefSet set;
  StepProfile profile;
  profile.fill(1024);
  std::vector<float> x(kMaxTaps + 31, 30000.0F);
  std::array<float, 16> e;
  e.fill(-30000);
  set.blockUpdateAecCoefs(x.data(), e, 1.2F, 1000, profile);
  for (int k = 0; k < kMaxTaps; ++k) ASSERT_EQ(set.fTaps[static_cast<std::size_t>(k)], -500);
}

TEST(CoefSetTest, ReplacementKeepsThePeakOrForgetsEverything) {
  sAecCoefSet set;
  set.iStart = 1000;
  set.fTaps[200] = 5000;
  set.fTaps[10] = 100;
  set.iAdaptations = 300;
  set.iGoodUpdates = 200;
  set.updateTapStatistics();
  EXPECT_EQ(set.newestPeak(), 1200);
  EXPECT_FALSE(set.updateCoefsToLatestEchoDelay(1000, kMaxTaps));
  EXPECT_TRUE(set.updateCoefsToLatestEchoDelay(1100, kMaxTaps));
  EXPECT_EQ(set.fTaps[100], 5000);
  EXPECT_EQ(std::count_if(set.fTaps.begin(), set.fTaps.end(), [](float w) { return w != 0; }), 1);
  EXPECT_EQ(set.iAdaptations, 300);
  EXPECT_TRUE(set.updateCoefsToLatestEchoDelay(1190, kMaxTaps));
  EXPECT_TRUE(set.updateCoefsToLatestEchoDelay(3000, kMaxTaps));
  EXPECT_EQ(std::count_if(set.fTaps.begin(), set.fTaps.end(), [](float w) { return w != 0; }), 0);
  EXPECT_EQ(set.iAdaptations, 90);
  EXPECT_EQ(set.iGoodUpdates, 0);
  EXPECT_EQ(set.iStart, 3000);
}

TEST(LaneTransformTest, AgreesWithTheDefinitionAndInverts) {
  lanes::Signal<1> signal;
  const Samples noise = gaussianNoise(128, 1000, 1);
  for (std::size_t n = 0; n < 128; ++n) signal.x[n][0] = lanes::Vector{static_cast<float>(noise[n]), 0, 0, 1};
  lanes::Spectrum<1> spectrum;
  lanes::Transform<1>::forward(128, signal, spectrum);
  for (const std::size_t k : {0U, 1U, 31U, 32U, 63U, 64U}) {
    double re = 0, im = 0;
    for (std::size_t n = 0; n < 128; ++n) {
      re += noise[n] * std::cos(2 * M_PI * static_cast<double>(k * n) / 128);
      im -= noise[n] * std::sin(2 * M_PI * static_cast<double>(k * n) / 128);
    }
    EXPECT_NEAR(spectrum.re[k][0][0], re, 0.1);
    EXPECT_NEAR(spectrum.im[k][0][0], im, 0.1);
  }
  lanes::Signal<1> back;
  lanes::Transform<1>::inverse(128, spectrum, back);
  for (std::size_t n = 0; n < 128; ++n) EXPECT_NEAR(back.x[n][0][0], noise[n], 0.01);
}

}  // namespace
