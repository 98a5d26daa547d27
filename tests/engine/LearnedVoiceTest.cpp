// Learning a talker's voice, its profile, and what is kept of him and of others afterwards.
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>

#include "engine/MyChannel.h"
#include "engine/VoiceProfileImage.h"
#include "tests/engine/EngineFixture.h"
#include "tests/support/AllocationCount.h"

namespace {

// A talker in front of a faint background: vowels through his own throat at his own pitch, with short pauses.
Samples talk(double dSeconds, double dPitch, double dThroat, unsigned uSeed, double dPeak = 9000) {
  constexpr double pdVowels[][3] = {{730, 1090, 2440}, {270, 2290, 3010}, {300, 870, 2240},
                                    {530, 1840, 2480}, {570, 840, 2410},  {440, 1020, 2240}};
  std::mt19937 random(uSeed);
  const auto uWanted = static_cast<std::size_t>(8000 * dSeconds);
  Samples samples = silence(4000);
  while (samples.size() < uWanted) {
    const auto& pdVowel = pdVowels[random() % std::size(pdVowels)];
    const double dGlide = 0.94 + 0.12 * static_cast<double>(random() % 100) / 100;
    samples += voice(1600 + random() % 1600, 8000, dPitch * dGlide, dPeak,
                     {pdVowel[0] * dThroat, pdVowel[1] * dThroat, pdVowel[2] * dThroat});
    samples += silence(400 + random() % 1200);
  }
  return mixed(samples, gaussianNoise(samples.size(), 5, uSeed));
}

class LearnedVoiceTest : public EngineTest {
 protected:
  static constexpr double kDeep = 115, kDeepThroat = 1;
  static constexpr double kHigh = 205, kHighThroat = 1.17;

  static int initVoice(const sAPISpeaker* pSpeaker, bool bLearn = false, std::uint16_t c = 0) {
    sKestrovaInit init = defaultInit();
    init.bStartRegistration = bLearn;
    init.psSpeakerInformation = pSpeaker;
    return KestrovaIpsavoxInit(c, &init);
  }
  static const sAPISpeaker* speaker(const std::vector<std::uint8_t>& profile) {
    return reinterpret_cast<const sAPISpeaker*>(profile.data());
  }
  // The outcome of a registration of what is heard; on success `profile` holds what was learned.
  static int learn(const Samples& heard, std::vector<std::uint8_t>* pProfile = nullptr) {
    EXPECT_EQ(initVoice(nullptr, true), 0);
    process(0, heard, 256);
    std::uint32_t uBytes = 0;
    const int iResult = KestrovaCompleteRegistration(0, &uBytes);
    std::int32_t iOutcome = -1;
    EXPECT_EQ(KestrovaGetRegistrationOutcome(0, &iOutcome), 0);
    EXPECT_EQ(iResult, iOutcome == KESTROVA_REGISTRATION_LEARNED ? 0 : 1);
    if (iResult != 0 || pProfile == nullptr) return iOutcome;
    pProfile->assign(uBytes, 0);
    auto* pSpeaker = reinterpret_cast<sAPISpeaker*>(pProfile->data());
    EXPECT_EQ(KestrovaCopySpeakerInformationAfterRegistration(0, pSpeaker), 0);
    return iOutcome;
  }
  static const std::vector<std::uint8_t>& deepProfile() {
    static const std::vector<std::uint8_t> profile = [] {
      std::vector<std::uint8_t> made;
      EXPECT_EQ(learn(talk(20, kDeep, kDeepThroat, 1), &made), KESTROVA_REGISTRATION_LEARNED);
      return made;
    }();
    return profile;
  }
  // By how many dB a stream changes with the deep talker's profile.
  static double change(const Samples& in) {
    EXPECT_EQ(initVoice(speaker(deepProfile())), 0);
    const Samples out = process(0, in);
    return decibels(rms(out, 0, out.size()) / rms(in, 0, in.size()));
  }
};

TEST_F(LearnedVoiceTest, TheLearnedTalkerIsKeptAndOthersAreTakenAway) {
  EXPECT_NEAR(change(talk(8, kDeep, kDeepThroat, 2)), 0, 1.5);
  EXPECT_LT(change(talk(8, kHigh, kHighThroat, 3)), -12) << "other pitch, other throat";
  EXPECT_LT(change(talk(8, kDeep, kHighThroat, 4)), -12) << "other throat at the same pitch";
}

// Scale-invariant ratio of what is wanted of a sound to the rest of it.
double wantedOverRest(const Samples& wanted, const Samples& heard) {
  const auto product = [&](const Samples& a, const Samples& b) {
    return std::inner_product(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(heard.size()), b.begin(),
                              0.0);
  };
  const double dOwn = product(wanted, heard) * product(wanted, heard) / product(wanted, wanted);
  return 10 * std::log10(dOwn / (product(heard, heard) - dOwn));
}

TEST_F(LearnedVoiceTest, WhenBothTalkMoreOfTheLearnedTalkerIsLeft) {
  const Samples own = talk(8, kDeep, kDeepThroat, 2);
  const Samples both = mixed(own, talk(8, kHigh, kHighThroat, 3));
  EXPECT_EQ(initVoice(speaker(deepProfile())), 0);
  EXPECT_GT(wantedOverRest(own, process(0, both)), wantedOverRest(own, both) + 0.5);
}

TEST_F(LearnedVoiceTest, AProfileIsAWholeImageOfWhatWasLearned) {
  const std::vector<std::uint8_t>& profile = deepProfile();
  ASSERT_EQ(initVoice(speaker(profile), false, 3), 0);
  const MyChannel& channel = KestrovapMyChannels[3];
  const int iPatterns = channel.pSourceSeparation->patternRecords();
  EXPECT_EQ(profile.size(), 654992U + 4740U * static_cast<unsigned>(iPatterns));
  EXPECT_NEAR(channel.psSpeakerData->iPitchCentre, 8000 / (1.05 * kDeep), 3) << "it glides up by a tenth";
  EXPECT_GE(channel.psSpeakerData->iPitchSpread, 5);
  EXPECT_LE(channel.psSpeakerData->iPitchSpread, 7);
  EXPECT_GT(channel.psSpeakerData->iTemplates, 20);
  EXPECT_GT(channel.psSpeakerData->iPitchEntries, 10);
  EXPECT_EQ(KestrovaCheckSpeakerInformation(speaker(profile), static_cast<std::uint32_t>(profile.size())), 0);
  EXPECT_EQ(KestrovaCopySpeakerInformationAfterRegistration(3, nullptr), 1);
}

TEST_F(LearnedVoiceTest, ABrokenProfileIsRefusedAndTheChannelCanGoOnWithoutIt) {
  constexpr std::size_t kSeparation = 32 + 8400 + 636000;
  const std::vector<std::uint8_t>& good = deepProfile();
  std::vector<std::size_t> offsets{0, 4, 16, 24, 8432, 300000, 654992, good.size() - 8};
  for (const std::size_t uOffset : {0U, 12U, 13U, 20U, 5000U}) offsets.push_back(kSeparation + uOffset);
  for (const std::size_t uOffset : offsets) {
    std::vector<std::uint8_t> broken = good;
    broken[uOffset] ^= 0x40;
    EXPECT_EQ(initVoice(speaker(broken)), 2) << uOffset;
    EXPECT_EQ(initVoice(nullptr), 0);
  }
  for (unsigned uSeed = 0; uSeed < 20; ++uSeed) {
    std::mt19937 random(uSeed);
    std::vector<std::uint8_t> noise(654992);
    for (auto& uByte : noise) uByte = static_cast<std::uint8_t>(random());
    if (uSeed % 2 == 0) std::memcpy(noise.data(), good.data(), 32);
    EXPECT_EQ(initVoice(speaker(noise)), 2) << uSeed;
  }
  const auto uSize = static_cast<std::uint32_t>(good.size());
  for (const std::uint32_t uWrong :
       {0U, 4U, 654991U, 654992U, uSize - 4740, uSize - 1, uSize + 1, uSize + 4740}) {
    EXPECT_EQ(KestrovaCheckSpeakerInformation(speaker(good), uWrong), 2) << uWrong;
  }
}

TEST_F(LearnedVoiceTest, AProfileWithFiguresThatCannotBeIsRefusedThoughItsSumsAreRight) {
  using Change = void (*)(sSpeakerData&);
  const Change pChanges[] = {
      [](sSpeakerData& speaker) { speaker.iPitchCentre = 1 << 30; },
      [](sSpeakerData& speaker) { speaker.iPitchCentre = 11; },
      [](sSpeakerData& speaker) { speaker.iPitchSpread = -(1 << 30); },
      [](sSpeakerData& speaker) { speaker.iHistograms = kMaxHistograms + 1; },
      [](sSpeakerData& speaker) { speaker.iTemplates = -1; },
      [](sSpeakerData& speaker) { speaker.bTemplatesPresent = 0; },
      [](sSpeakerData& speaker) { speaker.templates[1].iBins = sFftSchemaType::kMaxBins + 1; },
  };
  for (const Change& change : pChanges) {
    std::vector<std::uint8_t> profile = deepProfile();
    ASSERT_EQ(initVoice(speaker(profile), false, 3), 0);
    change(*KestrovapMyChannels[3].psSpeakerData);
    storeProfile(KestrovapMyChannels[3], profile.data());
    EXPECT_EQ(initVoice(speaker(profile)), 2) << &change - pChanges;
    EXPECT_EQ(KestrovaCheckSpeakerInformation(speaker(profile), static_cast<std::uint32_t>(profile.size())),
              2);
  }
}

TEST_F(LearnedVoiceTest, AProfileDerivedByOtherRulesIsRefused) {
  constexpr std::size_t kSeparation = 32 + 8400 + 636000;
  std::vector<std::uint8_t> other = deepProfile();
  other[kSeparation + offsetof(sLearnedVoice, uRules)] = 0;
  setSumOfFixedPart(other.data());
  EXPECT_EQ(initVoice(speaker(other)), 2);
}

TEST_F(LearnedVoiceTest, ManyRecordsAreEnoughWithoutClustersAndSayNothingOfASound) {
  sLearnedVoice voice;
  std::vector<sVoicePattern> patterns(500);
  EXPECT_TRUE(buildLearnedVoice(patterns, voice));
  EXPECT_EQ(voice.iClusters, 0);
  EXPECT_FALSE(buildLearnedVoice(std::span(patterns).first(499), voice));
  VoiceScorer scorer;
  scorer.learn(voice, patterns);
  EXPECT_FALSE(scorer.knowsVoice());
  for (sVoicePattern& pattern : std::span(patterns).first(120)) pattern.uFlags = sVoicePattern::kValid;
  EXPECT_TRUE(buildLearnedVoice(std::span(patterns).first(120), voice));
}

TEST_F(LearnedVoiceTest, NoFrameTakesMemoryWhileAVoiceIsLearnedOrUsed) {
  const Samples heard = talk(6, kDeep, kDeepThroat, 17);
  for (const bool bLearn : {true, false}) {
    ASSERT_EQ(initVoice(bLearn ? nullptr : speaker(deepProfile()), bLearn), 0);
    Samples frame(32);
    sKestrovaFrameResult result{};
    const AllocationCount count;
    for (std::size_t i = 0; i + frame.size() <= heard.size(); i += frame.size()) {
      std::copy_n(heard.data() + i, frame.size(), frame.data());
      (void)KestrovaProcessFrame(0, frame.data(), 64, frame.data(), &result);
    }
    EXPECT_EQ(count.taken(), 0) << bLearn;
    if (!bLearn) continue;
    EXPECT_GT(KestrovapMyChannels[0].pSourceSeparation->patternRecords(), 50);
    EXPECT_EQ(KestrovaCompleteRegistration(0, nullptr), 0) << "it is not wanted, but would have done";
    EXPECT_FALSE(KestrovapMyChannels[0].usesLearnedVoice());
  }
}

TEST_F(LearnedVoiceTest, ALongRegistrationIsRepresentedFromItsBeginningToItsEnd) {
  ASSERT_EQ(initVoice(nullptr, true), 0);
  const Samples heard = talk(120, kDeep, kDeepThroat, 16);
  process(0, heard, 1024);
  const auto patterns = KestrovapMyChannels[0].pSourceSeparation->patterns();
  ASSERT_GE(patterns.size(), SourceSeparation::kMaxPatterns / 2U);
  EXPECT_LT(patterns.size(), SourceSeparation::kMaxPatterns * 3U / 4) << "every second made room";
  EXPECT_LT(patterns.front().iEndTime, 3 * 8000);
  EXPECT_GT(patterns.back().iEndTime, 117 * 8000);
}

TEST_F(LearnedVoiceTest, ASampleThatTellsTooLittleIsRefusedWithItsReason) {
  const std::tuple<const char*, Samples, const char*> pCases[] = {
      {"silence", silence(80000), "the voice is too weak or too near the background"},
      {"a whisper", talk(10, kDeep, kDeepThroat, 5, 300), "the voice is too weak or too near the background"},
      {"noise", gaussianNoise(80000, 1500, 6), "too little speech was heard"},
      {"a word", talk(1.5, kDeep, kDeepThroat, 7), "too little speech was heard"},
      {"buried", mixed(talk(20, kDeep, kDeepThroat, 8, 3000), gaussianNoise(160000, 700, 9)),
       "the voice is too weak or too near the background"},
  };
  for (const auto& [pcWhat, heard, pcReason] : pCases) {
    EXPECT_STREQ(KestrovaGetRegistrationOutcomeText(learn(heard)), pcReason) << pcWhat;
    EXPECT_FALSE(KestrovapMyChannels[0].usesLearnedVoice()) << pcWhat;
    EXPECT_EQ(KestrovaProcessFrame(0, nullptr, 64, nullptr, nullptr), 1);
  }
}

TEST_F(LearnedVoiceTest, TwoTalkersByTurnsAreRefusedAndOneIsNotHoweverShortHeSpeaks) {
  Samples both;
  for (unsigned uSeed = 10; uSeed < 14; ++uSeed) {
    both += talk(2.5, kDeep, kDeepThroat, uSeed);
    both += talk(2.5, kHigh, kHighThroat, uSeed);
  }
  EXPECT_STREQ(KestrovaGetRegistrationOutcomeText(learn(both)), "more than one talker was heard");
  EXPECT_EQ(learn(talk(6, kHigh, kHighThroat, 14)), KESTROVA_REGISTRATION_LEARNED);
  EXPECT_EQ(learn(talk(12, kHigh, kHighThroat, 15)), KESTROVA_REGISTRATION_LEARNED);
}

TEST_F(LearnedVoiceTest, TheLastVerbsCountLikeTheFirst) {
  Samples heard = silence(4000);
  for (int i = 0; i < 8; ++i) (heard += voice(2800, 8000, kDeep, 9000)) += silence(1600);
  EXPECT_EQ(learn(mixed(heard, gaussianNoise(heard.size(), 5, 16))), KESTROVA_REGISTRATION_LEARNED);
  EXPECT_EQ(KestrovapMyChannels[0].psSpeakerData->iPitchEntries, 8 * 4) << "each glides through four";
}

sSegment sureVerb(int iPeriod) {
  sSegment verb;
  verb.type = kSelfVerb;
  verb.bGood = true;
  verb.iAmp = 9000;
  verb.iNumMatches = 7;
  for (sMatch& match : verb.asMatch) match.iNear = match.iFar = iPeriod;
  return verb;
}

TEST_F(LearnedVoiceTest, ThreeSureVerbsOfOneTalkerMakeAPitch) {
  const std::pair<std::vector<int>, bool> pCases[] = {{{50, 50}, false},
                                                      {{50, 50, 50}, true},
                                                      {{40, 40, 80}, true},
                                                      {{40, 50, 60}, true},
                                                      {{40, 40, 80, 80}, false}};
  for (const auto& [periods, bLearned] : pCases) {
    ASSERT_EQ(initVoice(nullptr, true), 0);
    process(0, silence(4000));
    for (const int iPeriod : periods)
      KestrovapMyChannels[0].pRegistration->insertNewSegment(sureVerb(iPeriod));
    EXPECT_EQ(KestrovaCompleteRegistration(0, nullptr) == 0, bLearned) << ::testing::PrintToString(periods);
  }
}

TEST_F(LearnedVoiceTest, AThousandSegmentsAreKept) {
  ASSERT_EQ(initVoice(nullptr, true), 0);
  Registration& registration = *KestrovapMyChannels[0].pRegistration;
  const sSegment verb = sureVerb(50);
  registration.insertNewSegment(verb);
  EXPECT_EQ(registration.segments(), 0) << "nothing is known of the background yet";
  process(0, silence(4000));
  for (int i = 0; i < Registration::kMaxSegments; ++i) registration.insertNewSegment(verb);
  EXPECT_FALSE(registration.hasOverflowed());
  registration.insertNewSegment(verb);
  EXPECT_TRUE(registration.hasOverflowed());
  EXPECT_EQ(registration.segments(), Registration::kMaxSegments);
}

}  // namespace
