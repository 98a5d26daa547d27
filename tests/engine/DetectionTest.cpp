// What is recognised as voiced speech, how soon, and what is not.
#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

class DetectionTest : public EngineTest {
 protected:
  static void open(int iRate = 8000) {
    sKestrovaInit init = defaultInit();
    init.iSampleRate = iRate;
    ASSERT_EQ(KestrovaInit(0, &init), 0);
  }
  struct sSeen {
    int iFirstSelf = -1;  // first and number of cycles marked as self verb
    int iSelf = 0;
    int iFirstSpeech = -1;  // first frame written as speech
    int iSpeech = 0;
    int iConfident = 0;
  };
  // Runs the stream and reads the marks of each cycle as it is written.
  static sSeen see(const Samples& in, int iRate = 8000) {
    sSeen seen;
    int iFrame = 0;
    const MyChannel& channel = KestrovapMyChannels[0];
    process(0, in, static_cast<std::size_t>(32 * iRate / 8000), [&](const sKestrovaFrameResult& result) {
      const int iWritten = iFrame++ - 6;
      if (iWritten < 0) return;
      const cHandle c = channel.pFirstScan->released();
      if (channel.pCycleInformation->at(c).bInSelfVerb && ++seen.iSelf == 1) seen.iFirstSelf = iWritten;
      if (result.iSpeech != 0 && ++seen.iSpeech == 1) seen.iFirstSpeech = iWritten;
      seen.iConfident += result.iConfidentVoice;
    });
    return seen;
  }
  static Samples noiseThenVoice(int iRate, double dPitch, double dNoise) {
    const auto uSecond = static_cast<std::size_t>(iRate);
    Samples in = silence(2 * uSecond);
    in += voice(uSecond, iRate, dPitch, 8000);
    return mixed(in, gaussianNoise(in.size(), dNoise, 21));
  }
};

// Rms of the voice is about 1,300: the noise lies 38 and 10 dB below it.
TEST_F(DetectionTest, AnyPitchIsRecognisedWithinAFewCyclesInNoiseAtBothRates) {
  for (const int iRate : {8000, 16000}) {
    for (const double dPitch : {75.0, 110.0, 160.0, 240.0, 340.0}) {
      for (const double dNoise : {16.0, 400.0}) {
        open(iRate);
        const sSeen seen = see(noiseThenVoice(iRate, dPitch, dNoise), iRate);
        EXPECT_GE(seen.iFirstSelf, 500 - 3) << dPitch << " " << dNoise << " at " << iRate;
        EXPECT_LE(seen.iFirstSelf, 500 + 16) << dPitch << " " << dNoise << " at " << iRate;
        EXPECT_GE(seen.iSelf, 250 / 2) << dPitch << " " << dNoise << " at " << iRate;
        EXPECT_LE(seen.iFirstSpeech, 500 + 2) << "the beginning is written, not gated";
      }
    }
  }
}

TEST_F(DetectionTest, LoudSoundWithoutRepetitionIsNoSelfVerb) {
  for (const unsigned uSeed : {1U, 2U, 3U, 4U}) {
    open();
    Samples in = gaussianNoise(16000, 50, uSeed);
    in += gaussianNoise(16000, 3000, uSeed + 10);
    in += gaussianNoise(16000, 50, uSeed + 20);
    const sSeen seen = see(in);
    EXPECT_LE(seen.iSelf, 8) << "of 500 loud cycles";
    EXPECT_EQ(seen.iConfident, 0);
    EXPECT_LE(seen.iSpeech, 30 + 20) << "the benefit of the doubt ends after 120 ms";
  }
}

TEST_F(DetectionTest, SteadyNoiseStaysSilence) {
  for (const double dRms : {20.0, 200.0, 2000.0}) {
    open();
    const sSeen seen = see(gaussianNoise(80000, dRms, 33));
    EXPECT_LE(seen.iSpeech, 2500 / 50) << dRms;
  }
}

// A verb needs a spread of 500 over four cycles.
TEST_F(DetectionTest, QuietVoicesBelowTheLeastSpreadStartNoSegment) {
  for (const auto& [iPeak, bVerb] : {std::pair{200, false}, {400, true}}) {
    open();
    Samples in = silence(8000);
    in += voice(8000, 8000, 120, iPeak);
    EXPECT_EQ(see(in).iSelf > 0, bVerb) << iPeak;
  }
}

// After a pause, however long, the first consonant of the next word is loud before anything repeats.
TEST_F(DetectionTest, AConsonantAfterAPauseIsKept) {
  open();
  Samples in = silence(16000);
  in += voice(6000, 8000, 130, 8000);
  for (int iWord = 0; iWord < 3; ++iWord) {
    in += silence(static_cast<std::size_t>(16000 + 9000 * iWord));
    const std::size_t uConsonant = in.size();
    in += gaussianNoise(640, 900, 3);  // 80 ms
    in += voice(4000, 8000, 120, 8000);
    const Samples out = process(0, in);
    EXPECT_NEAR(decibels(rms(out, uConsonant, uConsonant + 640) / rms(in, uConsonant, uConsonant + 640)), 0,
                1)
        << iWord;
    open();
  }
}

// After a transfer, or when a key switches the processing on: what comes first is a voice, not the
// background.
TEST_F(DetectionTest, AStreamMayBeginInTheMiddleOfAWord) {
  for (const double dPitch : {90.0, 130.0, 220.0}) {
    for (const double dNoise : {0.0, 200.0}) {
      open();
      Samples in;
      for (int i = 0; i < 5; ++i) {
        in += voice(1600, 8000, dPitch, 8000, {650, 1200, 2600});
        in += voice(1600, 8000, dPitch, 8000, {320, 2100, 2900});
      }
      const sSeen seen = see(mixed(in, gaussianNoise(in.size(), dNoise + 1, 5)));
      EXPECT_LE(seen.iFirstSpeech, 8) << dPitch << " " << dNoise;
      EXPECT_GE(seen.iSpeech, 500 - 60) << dPitch << " " << dNoise;
    }
  }
}

// A phrase of a voice that the channel is not to keep begins with the benefit of the doubt, which ends when
// the voice is known.
TEST_F(DetectionTest, AVoiceOfAnotherGroupIsLoweredAsSoonAsItIsKnown) {
  for (const auto& [iGroup, dLowest, dHighest] : {std::tuple{1, -0.5, 0.1}, {3, -15.0, -12.0}}) {
    sKestrovaInit init = defaultInit();
    init.iGroupType = iGroup;
    ASSERT_EQ(KestrovaGroupInit(0, &init), 0);
    Samples in = silence(16000);
    for (int i = 0; i < 3; ++i) {
      in += voice(4000, 8000, 110, 8000);
      in += silence(8000);
    }
    const Samples out = process(0, in);
    for (std::size_t u = 16000; u < in.size(); u += 12000) {
      const double dLeft = decibels(rms(out, u + 2000, u + 4000) / rms(in, u + 2000, u + 4000));
      EXPECT_GE(dLeft, dLowest) << iGroup;
      EXPECT_LE(dLeft, dHighest) << iGroup;
    }
  }
}

// Word gaps and a final consonant stay with the word.
TEST_F(DetectionTest, TheTailOfAWordIsKept) {
  open();
  Samples in = silence(16000);
  in += voice(4000, 8000, 130, 8000);
  in += gaussianNoise(1200, 300, 3);  // 150 ms of a consonant 14 dB down
  in += silence(8000);
  const Samples out = process(0, mixed(in, gaussianNoise(in.size(), 15, 4)));
  EXPECT_NEAR(decibels(rms(out, 20100, 21100) / rms(in, 20100, 21100)), 0, 1);
  EXPECT_LT(decibels(rms(out, 24000, 28000) / 15), -15);
}

// A pulse through a resonance every 64 samples: its turning points come back at that distance and no other.
TEST_F(DetectionTest, ThePointsOfAVoiceRepeatAtItsPeriod) {
  open();
  Samples in(4096);
  for (std::size_t i = 0; i < in.size(); ++i) {
    const double t = static_cast<double>(i % 64);
    in[i] = static_cast<std::int16_t>(10000 * std::exp(-t / 10) * std::cos(0.6 * t));
  }
  process(0, in);
  const MyChannel& channel = KestrovapMyChannels[0];
  const int iTime = 4096 - kElementSamples;
  auto first = std::make_unique<sComparisonElement>();
  auto active = std::make_unique<sComparisonElement>();
  first->prepare(*channel.pCycleInformation, true, iTime - kElementSamples, 6, 12);
  active->prepare(*channel.pCycleInformation, false, iTime, 6, 12);
  EXPECT_FALSE(active->bTooManyPoints);
  for (int iLevel = 7; iLevel < 10; ++iLevel) {
    EXPECT_LE(active->level(iLevel).iCount, active->level(iLevel - 1).iCount) << "coarser";
    EXPECT_GE(active->level(iLevel).iCount, 3) << "peak and valley of two periods";
  }
  for (const auto& [iDistance, bRepeats] :
       {std::pair{64, true}, {62, true}, {128, true}, {32, false}, {45, false}, {96, false}}) {
    EXPECT_EQ(pointsRepeat(*first, *active, *channel.pInputData, iDistance, 0), bRepeats) << iDistance;
  }
  EXPECT_EQ(
      printed([&](std::FILE* pFile) { first->print(pFile), active->print(pFile); }),
      "Prepared the following comparison element:\nCycleIndex=120 First=true MinFluctuationCalculated=6\n"
      "Prepared the following comparison element:\nCycleIndex=124 First=false MinFluctuationCalculated=6\n");
}

TEST(OnsetGuardTest, PresumesForThirtyCyclesAndThenAsksForQuiet) {
  OnsetGuard guard;
  const OnsetGuard::sCycle risen{.iSpread = 2000, .fRise = 3};
  const OnsetGuard::sCycle quiet{.iSpread = 90, .fRise = 0.05F};
  const auto count = [&](int n, const OnsetGuard::sCycle& cycle) {
    int iKept = 0;
    for (int i = 0; i < n; ++i) iKept += guard.judge(cycle) != OnsetGuard::Verdict::kSilence;
    return iKept;
  };
  EXPECT_EQ(count(100, risen), 30);
  EXPECT_EQ(count(4, quiet), 0);
  EXPECT_EQ(count(10, risen), 0) << "four quiet cycles are no pause";
  EXPECT_EQ(count(5, quiet), 0);
  EXPECT_EQ(count(10, risen), 10);
  const OnsetGuard::sCycle verb{.bInSegment = true, .iSpread = 2000, .fRise = 3};
  EXPECT_EQ(count(50, verb), 50);
  EXPECT_EQ(count(100, quiet), 60) << "held after a verb";
  EXPECT_EQ(count(50, verb), 50);
  EXPECT_EQ(count(500, risen), 60 + 30 + 30) << "held, tail, presumed";
}

// ---- Bursts

class BurstTest : public EngineTest {
 protected:
  BurstTest() {
    const sKestrovaInit init = defaultInit();
    EXPECT_EQ(KestrovaInit(0, &init), 0);
  }
  // A self verb that is not good, since its pitch is no voice's.
  void badVerb(int iTime) {
    segment.iStartTime = iTime;
    segment.iEndTime = iTime + 500;
    segment.bGood = segment.bExaminedForNoise = false;
    segment.iNumMatches = 0;
    burst().updateNewSelfVerbLength(&segment.type, &segment, 0);
  }
  POTENTIAL_SEGMENT_TYPE otherVerb(int iTime) {
    segment.iStartTime = segment.iEndTime = iTime;
    burst().updateNewOtherVerbLength(&segment.type, &segment);
    return segment.type;
  }
  static MySubState& burst() { return *KestrovapMyChannels[0].pMySubState; }
  sSegment segment;
};

TEST_F(BurstTest, AConfidentBurstSurvivesTenBadVerbsButNotEleven) {
  for (const auto& [iBad, type] : {std::pair{9, kOtherVerbInBurst}, {10, kOtherVerb}}) {
    burst().clean();
    burst().startNewBurst();
    burst().updateGood(0, 1000, 5000, 10, 60);
    for (int i = 0; i < iBad; ++i) badVerb(2000 + i);
    EXPECT_EQ(otherVerb(3000), type) << iBad;
  }
  burst().clean();
  burst().startNewBurst();
  burst().updateGood(0, 1000, 5000, 10, 60);
  for (int i = 0; i < 10; ++i) badVerb(2000 + i);
  EXPECT_TRUE(burst().isHavingConfidence());
  badVerb(2100);
  EXPECT_FALSE(burst().isHavingConfidence());
}

TEST_F(BurstTest, OtherVerbsOutsideABurstAreOtherTalkers) {
  EXPECT_EQ(otherVerb(100), kOtherVerb);
  burst().startNewBurst();
  burst().updateGood(0, 1000, 5000, 10, 60);
  EXPECT_EQ(otherVerb(900000), kOtherVerbInBurst) << "a pause ends no burst";
}

TEST_F(BurstTest, TheSpeechGainFallsBySteps) {
  burst().startNewBurst();
  burst().updateGood(0, 10000, 5000, 10, 60);
  for (const auto& [iTime, iGain] : {std::pair{10000, 128},
                                     {17999, 128},
                                     {18000, 77},
                                     {25999, 77},
                                     {26000, 26},
                                     {34000, 19},
                                     {900000, 19},
                                     {9000, 128},
                                     {1000, 19}}) {
    EXPECT_EQ(burst().calculatePostGoodVerbCoef128(iTime), iGain) << iTime;
  }
}

TEST_F(BurstTest, AveragesNeedFourGoodVerbs) {
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(burst().calcAvgGoodLength(), 0);
    burst().updateGood(i * 1000, i * 1000 + 500, 5000, 10 * i, 60);
  }
  EXPECT_EQ(burst().calcAvgGoodLength(), 25);
}

}  // namespace
