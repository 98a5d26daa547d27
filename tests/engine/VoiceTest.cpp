// What a learned voice rests on: templates, profiles, and analysis states that can be put back.
#include <cstring>

#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

class VoiceTest : public EngineTest {
 protected:
  static MyChannel& open(int iRate = 8000) {
    sKestrovaInit init = defaultInit();
    init.iSampleRate = iRate;
    EXPECT_EQ(KestrovaIpsavoxInit(0, &init), 0);
    return KestrovapMyChannels[0];
  }
  // The template of the last cycles of a second of a voice in noise.
  static sFftSchemaType heard(int iRate, double dPitch, double dNoise, float fNoiseLevel = 0) {
    MyChannel& channel = open(iRate);
    const auto uSecond = static_cast<std::size_t>(iRate);
    Samples in = silence(uSecond);
    in += voice(uSecond, iRate, dPitch, 9000);
    process(0, mixed(in, gaussianNoise(in.size(), dNoise, 5)), uSecond / 250);
    sFftSchemaType schema;
    channel.pFftSchema->calcSchema(&schema, channel.pCycleInformation->newest(), fNoiseLevel,
                                   channel.pOutputData->noise());
    return schema;
  }
};

TEST_F(VoiceTest, TemplatesOfOneVoiceMatchAtAnyRateAndOthersDoNot) {
  const sFftSchemaType schema = heard(8000, 120, 10);
  const sFftSchemaType other = heard(8000, 240, 10);
  const FftSchema& schemas = *KestrovapMyChannels[0].pFftSchema;
  EXPECT_EQ(schema.iBins, 96);
  EXPECT_EQ(*std::max_element(schema.uValue.begin(), schema.uValue.end()), 99);
  EXPECT_EQ(schemas.validateSchemaHelper(false, schema, schema, 0), 0);
  EXPECT_EQ(schemas.validateSchemaHelper(false, schema, other, 1), FftSchema::kNoMatch);
  sFftSchemaType shorter = schema;
  shorter.iBins = 64;
  EXPECT_EQ(schemas.validateSchemaHelper(false, schema, shorter, 1), FftSchema::kNoMatch);
}

TEST_F(VoiceTest, TheBackgroundIsBroughtToTheTemplatesBins) {
  for (const int iFactor : {1, 2, 3, 8}) {
    MyChannel& channel = open(8000 * iFactor);
    // A line at 1,000 Hz of the channel's transform, and a floor.
    const int iLength = static_cast<int>(std::bit_ceil(256U * static_cast<unsigned>(iFactor)));
    std::vector<double> dFrom(static_cast<std::size_t>(iLength / 2), 10.0 * iFactor);
    dFrom[static_cast<std::size_t>(1000L * iLength / (8000L * iFactor))] = 1000.0 * iFactor;
    FftSchema::Spectrum fTo;
    channel.pFftSchema->copyAndAdjustToInternalFrequency(&fTo, dFrom);
    EXPECT_NEAR(fTo[20], 10, 0.01) << iFactor;
    EXPECT_GT(fTo[32], 300) << iFactor << ": 1,000 Hz is bin 32 of 256 at 8 kHz";
    EXPECT_EQ(fTo[128], 0) << iFactor;
  }
}

TEST_F(VoiceTest, TheWinnerIsTheClosestLearnedTemplateWhateverTheBackground) {
  const sFftSchemaType mine = heard(8000, 120, 10);
  const sFftSchemaType other = heard(8000, 200, 10);
  heard(8000, 120, 40);
  MyChannel& channel = KestrovapMyChannels[0];
  sSpeakerData& speaker = *channel.psSpeakerData;
  speaker.templates[0] = other;
  speaker.templates[1] = mine;
  speaker.iTemplates = 2;
  int iWinner;
  float fDrift;
  const cHandle last = channel.pCycleInformation->newest();
  EXPECT_TRUE(channel.pFftSchema->findWinnerSchema(last, &iWinner, &fDrift, channel.pOutputData->noise()));
  EXPECT_EQ(iWinner, 1);
  EXPECT_LT(fDrift, 4);
  speaker.iTemplates = 1;
  EXPECT_FALSE(channel.pFftSchema->findWinnerSchema(last, &iWinner, &fDrift, channel.pOutputData->noise()));
}

TEST_F(VoiceTest, AProfileComesBackAsItWasStored) {
  sSpeakerData speaker;
  speaker.iPitchCentre = 61;
  speaker.iPitchSpread = 6;
  speaker.bHistogramsPresent = speaker.iHistograms = 1;
  speaker.histograms[0] = {0, 100, 50, 40, 30, 20, 10};
  speaker.bTemplatesPresent = speaker.iTemplates = 1;
  speaker.templates[0].iBins = 96;
  std::vector<std::uint8_t> profile(sSpeakerData::kTableBytes);
  speaker.store(profile.data());
  sSpeakerData loaded;
  ASSERT_TRUE(sSpeakerData::canLoad(profile.data()));
  loaded.load(profile.data());
  EXPECT_EQ(loaded.iPitchCentre, 61);
  EXPECT_EQ(loaded.shortestPeriod(), 61 - 24);
  EXPECT_TRUE(loaded.mayHavePeriod(49, 73));
  EXPECT_FALSE(loaded.mayHavePeriod(48, 73));
  open();
  *KestrovapMyChannels[0].psSpeakerData = loaded;
  EXPECT_TRUE(KestrovapMyChannels[0].pMyFilters->validateFFTHistogram(true, {0, 96, 50, 40, 30, 20, 10}));
  EXPECT_FALSE(KestrovapMyChannels[0].pMyFilters->validateFFTHistogram(true, {0, 90, 50, 40, 30, 20, 10}));
}

// A stored state, put back, gives the same result for the same input.
TEST_F(VoiceTest, AnAnalysisStateCanBePutBack) {
  MyChannel& channel = open();
  Samples in = silence(16000);
  in += voice(4000, 8000, 130, 8000);
  in = mixed(in, gaussianNoise(in.size(), 100, 9));
  process(0, in);
  const CycleInformation cycles = *channel.pCycleInformation;
  const FirstScan scan = *channel.pFirstScan;
  const MySubState burst = *channel.pMySubState;
  const InputData input = *channel.pInputData;
  const Samples next = mixed(voice(4000, 8000, 130, 8000), gaussianNoise(4000, 100, 10));
  const auto analyse = [&] {
    channel.pInputData->addData(next.data(), 8000, true);
    std::vector<int> piMarks;
    bool bMore = true;
    for (channel.pFirstScan->handleNextFrame(&bMore); bMore; channel.pFirstScan->handleNextFrame(&bMore)) {
      const auto& cycle = channel.pCycleInformation->at(channel.pFirstScan->released());
      piMarks.push_back(cycle.bInVerb + 2 * cycle.bInSelfVerb + 4 * cycle.bInGoodVerb);
    }
    return piMarks;
  };
  const std::vector<int> first = analyse();
  EXPECT_GT(std::count_if(first.begin(), first.end(), [](int iMarks) { return (iMarks & 2) != 0; }), 60);
  *channel.pCycleInformation = cycles;
  *channel.pFirstScan = scan;
  *channel.pMySubState = burst;
  *channel.pInputData = input;
  EXPECT_EQ(analyse(), first);
}

// Noise that jumps tempts the tests; as long as no run finds voice in it, they leave no trace.
TEST_F(VoiceTest, TestsOfLevelJumpsThatFindNothingChangeNothing) {
  Samples in = gaussianNoise(16000, 150, 1);
  for (int i = 0; i < 4; ++i) {
    in += gaussianNoise(2400, 1500, static_cast<unsigned>(20 + i));
    in += gaussianNoise(4000, 150, static_cast<unsigned>(30 + i));
  }
  const auto cleaned = [&](int iPower) {
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, iPower};
    EXPECT_EQ(KestrovaPackageInit(&package), 0);
    open();
    return process(0, in);
  };
  const Samples untested = cleaned(0);
  EXPECT_EQ(KestrovapMyChannels[0].psSbt[0], nullptr);
  for (const int iPower : {1, 10}) {
    const Samples tested = cleaned(iPower);
    const MySbt& sbt = *KestrovapMyChannels[0].psSbt[0];
    EXPECT_GT(sbt.tested(), 3) << iPower;
    EXPECT_EQ(sbt.kept(), 0) << iPower << ": noise is no voice";
    EXPECT_EQ(tested, untested) << iPower;
  }
}

// A voice that sets in under noise is written at least as much with tests as without.
TEST_F(VoiceTest, TestsOfLevelJumpsLoseNoVoice) {
  Samples voiced = silence(16000);
  for (int i = 0; i < 5; ++i) {
    voiced += voice(1600, 8000, 110 + 20 * i, 4000);
    voiced += silence(4000);
  }
  const Samples in = mixed(voiced, gaussianNoise(voiced.size(), 250, 3));
  double dBefore = 0;
  for (const int iPower : {0, 1, 10}) {
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, iPower};
    EXPECT_EQ(KestrovaPackageInit(&package), 0);
    open();
    const Samples out = process(0, in);
    double dVoice = 0;
    for (std::size_t i = 0; i < out.size(); ++i) dVoice += static_cast<double>(out[i]) * voiced[i];
    EXPECT_GE(dVoice, 0.99 * dBefore) << iPower;
    if (iPower == 0) dBefore = dVoice;
  }
}

TEST(ConnectionTest, OneValleySplitBetweenTwoCyclesIsJoined) {
  const auto cycle = [](bool bUp, std::initializer_list<int> values) {
    sFluctuationInformation level;
    level.threshold = 100;
    level.startingup = bUp;
    for (const int iValue : values) {
      level.points[static_cast<std::size_t>(level.nsegments++)].lval = static_cast<std::int16_t>(iValue);
    }
    return level;
  };
  struct {
    const char* pcWhat;
    sFluctuationInformation a, b;
    int iMinSwing;
    std::array<int, 3> piIndex, piKind;
  } const pCases[] = {
      {"alternating", cycle(true, {0, 500}), cycle(true, {100, 400}), 0, {1, 0, 1}, {0, 1, 1}},
      {"not beyond", cycle(true, {0, 500}), cycle(true, {600, 900}), 0, {1, 1, -1}, {0, 1, -1}},
      {"the first is deeper", cycle(true, {-50}), cycle(true, {0, 400}), 0, {0, 1, -1}, {2, 1, -1}},
      {"the second is deeper", cycle(true, {50}), cycle(true, {0, 400}), 0, {0, 1, -1}, {2, 1, -1}},
      {"two valleys", cycle(true, {-150}), cycle(true, {0, 400}), 0, {0, 0, 1}, {0, 1, 1}},
      {"joined by order", cycle(true, {-150}), cycle(true, {0, 400}), 151, {0, 1, -1}, {2, 1, -1}},
      {"nothing before", cycle(true, {}), cycle(false, {10}), 0, {0, -1, -1}, {1, -1, -1}},
  };
  for (const auto& row : pCases) {
    const auto connection = MyMath::analyzeConnectionBetweenTwoCycles(row.a, row.b, row.iMinSwing);
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(connection.asPoint[i].iIndex, row.piIndex[i]) << row.pcWhat << " " << i;
      EXPECT_EQ(connection.asPoint[i].kind, row.piKind[i]) << row.pcWhat << " " << i;
    }
  }
}

}  // namespace
