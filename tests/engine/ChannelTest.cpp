// Channels from outside and inside: numbers, formats, settings, the alignment of an echo channel's streams.
#include <numeric>
#include <set>
#include <utility>

#include "engine/Glob.h"
#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

using ChannelTest = EngineTest;

int received(const MyChannel& channel) {
  return channel.pInputData->getNumValues();
}

TEST_F(ChannelTest, EveryFunctionRefusesAChannelNumberAboveFive) {
  const sKestrovaInit init = defaultInit();
  sKestrovaFrameResult result{};
  Samples frame(32);
  std::uint32_t uSize = 0;
  std::uint8_t uStatus = 0;
  char pcText[100];
  sKestrovaAECStatus parameters{};
  for (const int iBad : {6, 7, 12, 65535, -1}) {
    const auto c = static_cast<std::uint16_t>(iBad);
    for (const auto initFunction : {KestrovaInit, KestrovaGroupInit, KestrovaIpsavoxInit, KestrovaAECInit}) {
      EXPECT_EQ(initFunction(c, &init), 1);
    }
    for (const auto process : {KestrovaProcessFrame, KestrovaAECProcessMicFrame,
                               KestrovaComboAECNRProcessFrame, KestrovaComboNRAECProcessFrame}) {
      EXPECT_EQ(process(c, frame.data(), 64, frame.data(), &result), 1);
    }
    EXPECT_EQ(KestrovaAECProcessSpkFrame(c, frame.data(), 64), 1);
    EXPECT_EQ(KestrovaGetLastDTMFBuffer(c, pcText, sizeof pcText), 1);
    EXPECT_EQ(KestrovaCompleteRegistration(c, &uSize), 1);
    EXPECT_EQ(KestrovaTerminate(c), 1);
    EXPECT_EQ(KestrovaAECTerminate(c), 1);
    EXPECT_EQ(KestrovaGetAECInternalStatus(c, &uStatus), 1);
    EXPECT_EQ(KestrovaGetAECInternalStatusParameters(c, &parameters), 1);
  }
}

TEST_F(ChannelTest, RandomNumbersReachBothTheirBoundsAndNothingBeyond) {
  Glob::initRandomPackage();
  for (const auto& [lo, hi] : {std::pair{5, 5}, {0, 1}, {-3, 3}}) {
    std::set<int> drawn;
    for (int i = 0; i < 1000; ++i) drawn.insert(Glob::getRandomInt(lo, hi));
    EXPECT_EQ(*drawn.begin(), lo);
    EXPECT_EQ(*drawn.rbegin(), hi);
    EXPECT_EQ(drawn.size(), static_cast<std::size_t>(hi - lo + 1));
  }
}

TEST_F(ChannelTest, PackageNeedsItsVersionAndACpuPowerInRange) {
  const std::tuple<sKestrovaPackage, int, const char*> pCases[] = {
      {{1, "/opt/q", 5}, 2, nullptr},    {{3, "/opt/q", 5}, 2, nullptr},    {{2, "/opt/q", 11}, 2, nullptr},
      {{2, "/opt/q", -1}, 2, nullptr},   {{2, "/opt/q", 10}, 0, "/opt/q/"}, {{2, "/opt/q/", 0}, 0, "/opt/q/"},
      {{2, "C:\\q\\", 5}, 0, "C:\\q\\"}, {{2, nullptr, 5}, 0, ""},
  };
  for (const auto& [package, iResult, pcBin] : pCases) {
    EXPECT_EQ(KestrovaPackageInit(&package), iResult);
    if (iResult == 0) {
      EXPECT_EQ(Glob::pcKestrovaBin.view(), pcBin);
    }
  }
  const std::string longName(256, 'x');
  const sKestrovaPackage tooLong{2, longName.c_str(), 5};
  EXPECT_EQ(KestrovaPackageInit(&tooLong), 2);
  EXPECT_EQ(KestrovaPackageInit(nullptr), 2);
}

TEST_F(ChannelTest, FrameUnitsOutsideOneToEightFailTheInit) {
  for (const auto& [uUnits, iResult] : {std::pair{0, 2}, {1, 0}, {8, 0}, {9, 2}, {65535, 2}}) {
    sKestrovaInit init = defaultInit();
    init.sFrameUnits = static_cast<std::uint16_t>(uUnits);
    EXPECT_EQ(KestrovaInit(0, &init), iResult) << uUnits;
    EXPECT_EQ(KestrovaAECInit(0, &init), iResult) << uUnits;
    if (iResult == 0) {
      EXPECT_EQ(KestrovapMyChannels[0].iFrameSize, 32 * uUnits);
    }
  }
}

TEST_F(ChannelTest, SettingsAreClampedAndScaled) {
  sKestrovaInit init = defaultInit();
  init.iSampleRate = 96000;
  init.sFrameUnits = 8;
  init.sInitialDelayUnits = 13;  // 104 samples
  init.sCNGInitialValue = 10;
  init.sCNGEndValue = 40;
  init.sBurstEndLowerValue = 20;
  init.sMaxNumCyclesInDelayBuffer = 51;
  init.sDetectAggressiveLevel = 9;
  init.sCleanAggressiveLevel = 4;
  init.iAGCMinPercent = -3;
  init.iAGCMaxPercent = -7;
  ASSERT_EQ(KestrovaInit(3, &init), 0);
  const MyChannel& channel = KestrovapMyChannels[3];
  EXPECT_EQ(channel.iRealFrequency, 64000);
  EXPECT_EQ(channel.iSamplesPerFrameAtRate, 2048);
  EXPECT_EQ(channel.iInitialDelay, 96);
  EXPECT_EQ(received(channel), 96 / 8) << "the leading silence is counted at the channel's rate";
  // The comfort noise starts no lower than it ends, and the speech gain never falls below that start.
  const std::array<int, 7> expected{51, 6, 51, 51, 1, 51, 6};
  EXPECT_EQ(channel.psNoiseShaping, expected);
  EXPECT_EQ(channel.iMaxNumCyclesInDelayBuffer, 50);
  EXPECT_EQ(channel.sDetectAggressiveLevel, 4);
  EXPECT_EQ(channel.fVerbDriftLimit, 4.0F);
  EXPECT_EQ(channel.sCleanAggressiveLevel, 5);
  EXPECT_EQ(channel.iAGCMin, 0);
  EXPECT_EQ(channel.iAGCMax, 0);
  init.iAGCMinPercent = 150;
  init.iAGCMaxPercent = 120;
  init.iSampleRate = 100;
  ASSERT_EQ(KestrovaInit(3, &init), 0);
  EXPECT_EQ(channel.iAGCMin, 192);
  EXPECT_EQ(channel.iAGCMax, 192);
  EXPECT_EQ(channel.iRealFrequency, 8000);
}

TEST_F(ChannelTest, EchoSettingsAreClampedAndScaled) {
  sKestrovaInit init = defaultInit();
  init.sAecAlgorithm = 9;
  init.sMaxNumCyclesInDelayBuffer = 2;
  init.sAecMaxCoef = 5;
  init.sAecMinCoef = 151;
  init.sAecSupressionHold = 11;
  init.sAecAggressiveLevel = 21;
  init.sAecHowlingLevel = 20;
  init.sAecTailType = -59;
  init.sAecTailStart = 1;
  init.sMinOutputPercentDuringEcho = 101;
  init.sMicLagFrames = 51;
  init.sSpkLagFrames = 0;
  init.sFrameUnits = 2;
  ASSERT_EQ(KestrovaAECInit(1, &init), 0);
  const MyChannel& mic = KestrovapMyAECChannels[1];
  const MyChannel& spk = KestrovapMyAECChannels[7];
  EXPECT_EQ(mic.pSpkChannel, &spk);
  EXPECT_EQ(spk.pSpkChannel, nullptr);
  EXPECT_EQ(spk.iAecAlgorithm, 7);
  EXPECT_EQ(mic.iAecMaxCoef, 102);
  EXPECT_EQ(mic.iAecMinCoef, 1536);
  EXPECT_EQ(mic.iAecSupressionHold, 10);
  EXPECT_EQ(mic.iAecAggressiveLevel, 20);
  EXPECT_EQ(mic.iAecTailType, -58);
  EXPECT_EQ(mic.iAecTailStart, 0);
  EXPECT_EQ(mic.iAecMinOutput, 128);
  EXPECT_EQ(mic.iLagLimit, (50 * 32 - 32) * 2);
  EXPECT_EQ(spk.iLagLimit, -32 * 2);
  EXPECT_EQ(mic.iAecDelayCycles, 2);
  init.sAecAlgorithm = 0;
  init.sMaxNumCyclesInDelayBuffer = 0;
  ASSERT_EQ(KestrovaAECInit(1, &init), 0);
  EXPECT_EQ(mic.iAecDelayCycles, 0);
}

TEST_F(ChannelTest, VoiceGroupsPresetThePitch) {
  for (const auto& [iGroup, iCentre, iSpread] :
       {std::tuple{0, 53, 53}, {1, 61, 14}, {2, 28, 5}, {3, 17, 5}, {4, 53, 53}, {-1, 53, 53}}) {
    sKestrovaInit init = defaultInit();
    init.iGroupType = iGroup;
    ASSERT_EQ(KestrovaGroupInit(0, &init), 0);
    EXPECT_EQ(KestrovapMyChannels[0].psSpeakerData->iPitchCentre, iCentre);
    EXPECT_EQ(KestrovapMyChannels[0].psSpeakerData->iPitchSpread, iSpread);
  }
}

TEST_F(ChannelTest, VoiceInitRaisesTheDelayAndRefusesWhatIsNoVoiceProfile) {
  sKestrovaInit init = defaultInit();
  ASSERT_EQ(KestrovaIpsavoxInit(2, &init), 0);
  EXPECT_EQ(KestrovapMyChannels[2].iMaxNumCyclesInDelayBuffer, 10);
  const std::int32_t piWrongVersion[8] = {3};
  init.psSpeakerInformation = reinterpret_cast<const sAPISpeaker*>(piWrongVersion);
  EXPECT_EQ(KestrovaIpsavoxInit(2, &init), 2);
  Samples frame(32);
  sKestrovaFrameResult result{};
  EXPECT_EQ(KestrovaProcessFrame(2, frame.data(), 64, frame.data(), &result), 1) << "the init has failed";
}

TEST_F(ChannelTest, FramesAreRefusedBeforeInitAndWhenTheyAreNoFrames) {
  sKestrovaFrameResult result{};
  Samples frame(4096);
  EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), 64, frame.data(), &result), 1);
  EXPECT_EQ(KestrovaAECProcessMicFrame(0, frame.data(), 64, frame.data(), &result), 1);
  EXPECT_EQ(KestrovaAECProcessSpkFrame(0, frame.data(), 64), 1);
  const sKestrovaInit init = defaultInit();
  ASSERT_EQ(KestrovaInit(0, &init), 0);
  for (const int iBytes : {-2, 0, 63, 4098}) {
    EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), iBytes, frame.data(), &result), 1) << iBytes;
  }
  EXPECT_EQ(KestrovaProcessFrame(0, nullptr, 64, frame.data(), &result), 1);
  EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), 64, nullptr, &result), 1);
  EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), 64, frame.data(), nullptr), 1);
  EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), 64, frame.data(), &result), 0);
  EXPECT_EQ(KestrovaTerminate(0), 0);
  EXPECT_EQ(KestrovaProcessFrame(0, frame.data(), 64, frame.data(), &result), 1);
}

// Formats, rates and the delay: a bypassed channel gives back what it got, six cycles later.
TEST_F(ChannelTest, ABypassedChannelDelaysAndKeepsTheSamplesAtEveryFormatAndRate) {
  for (const int iRate : {8000, 16000, 48000, 64000}) {
    for (const int iBits : {16, 8}) {
      sKestrovaInit init = defaultInit();
      init.iSampleRate = iRate;
      init.sBitsPerSample = static_cast<std::uint16_t>(iBits);
      init.bStartBypassed = 1;
      ASSERT_EQ(KestrovaInit(0, &init), 0);
      ASSERT_EQ(KestrovaAECInit(0, &init), 0);
      const int iBytes = 32 * (iRate / 8000) * (iBits / 8);
      std::vector<std::uint8_t> in(static_cast<std::size_t>(40 * iBytes));
      std::mt19937 random(7);
      for (std::size_t i = 0; i < in.size(); i += static_cast<std::size_t>(iBits / 8)) {
        if (iBits == 8) {
          in[i] = static_cast<std::uint8_t>(1 + random() % 255);  // 0 lies beyond the sample limit
        } else {
          const auto sSample = static_cast<std::int16_t>(static_cast<int>(random() % 64001) - 32000);
          std::memcpy(&in[i], &sSample, sizeof sSample);
        }
      }
      std::vector<std::uint8_t> noise, echo, frame(static_cast<std::size_t>(iBytes));
      for (int i = 0; i < 40; ++i) {
        sKestrovaFrameResult result{};
        ASSERT_EQ(KestrovaProcessFrame(0, in.data() + i * iBytes, iBytes, frame.data(), &result), 0);
        EXPECT_EQ(result.iOutBytes, i < 6 ? 0 : iBytes);
        noise.insert(noise.end(), frame.begin(), frame.begin() + result.iOutBytes);
        ASSERT_EQ(KestrovaAECProcessMicFrame(0, in.data() + i * iBytes, iBytes, frame.data(), &result), 0);
        echo.insert(echo.end(), frame.begin(), frame.begin() + result.iOutBytes);
      }
      EXPECT_TRUE(std::equal(noise.begin(), noise.end(), in.begin())) << iRate << " " << iBits;
      EXPECT_EQ(echo, noise);
      EXPECT_EQ(received(KestrovapMyChannels[0]), 40 * 32);
    }
  }
}

TEST_F(ChannelTest, InitialisingAgainStartsAFreshStream) {
  const sKestrovaInit init = defaultInit();
  Samples frame(32);
  sKestrovaFrameResult result{};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(KestrovaInit(0, &init), 0);
    ASSERT_EQ(KestrovaProcessFrame(0, frame.data(), 64, frame.data(), &result), 0);
    EXPECT_EQ(received(KestrovapMyChannels[0]), 32);
  }
}

// ---- Alignment of an echo channel's streams

class AlignmentTest : public EngineTest {
 protected:
  void open(int iMicLag, int iSpkLag, int iBits = 16) {
    sKestrovaInit init = defaultInit();
    init.sMicLagFrames = static_cast<std::uint16_t>(iMicLag);
    init.sSpkLagFrames = static_cast<std::uint16_t>(iSpkLag);
    init.sBitsPerSample = static_cast<std::uint16_t>(iBits);
    iFrameBytes = 32 * iBits / 8;
    ASSERT_EQ(KestrovaAECInit(4, &init), 0);
  }
  void feedMic(int iFrames) {
    for (int i = 0; i < iFrames; ++i) {
      ASSERT_EQ(KestrovaAECProcessMicFrame(4, frame.data(), iFrameBytes, frame.data(), &result), 0);
    }
  }
  void feedSpk(int iFrames) {
    for (int i = 0; i < iFrames; ++i) ASSERT_EQ(KestrovaAECProcessSpkFrame(4, frame.data(), iFrameBytes), 0);
  }
  Samples frame = Samples(32, 1000);
  sKestrovaFrameResult result{};
  int iFrameBytes = 64;
  const MyChannel& mic = KestrovapMyAECChannels[4];
  const MyChannel& spk = KestrovapMyAECChannels[10];
};

TEST_F(AlignmentTest, ZerosFollowAStreamThatRunsBeyondTheOthersLagLimit) {
  open(10, 15);  // 288 samples for the microphone, 448 for the loudspeaker
  feedMic(15);
  EXPECT_EQ(received(spk), 0) << "480 samples ahead only after the frame";
  feedMic(1);
  EXPECT_EQ(received(spk), 32) << "480 ahead exceeds 448";
  EXPECT_EQ(spk.pInputData->at(31), 0);
  feedMic(5);
  EXPECT_EQ(received(mic) - received(spk), 480) << "from then on one frame of zeros per frame";

  open(10, 15);
  feedSpk(10);
  EXPECT_EQ(received(mic), 0);
  feedSpk(1);
  EXPECT_EQ(received(mic), 32) << "320 ahead exceeds 288";
  feedMic(10);
  EXPECT_EQ(received(mic), received(spk));
  EXPECT_EQ(mic.pInputData->at(1), 0);
  EXPECT_GT(mic.pInputData->at(33), 100) << "what was fed, less the constant in it";
}

TEST_F(AlignmentTest, StreamsInStepGetNoZeros) {
  open(15, 15);
  for (int i = 0; i < 1000; ++i) {
    feedMic(1);
    feedSpk(1);
  }
  EXPECT_EQ(received(mic), 32000);
  EXPECT_EQ(received(spk), 32000);
}

TEST_F(AlignmentTest, ZerosAreSilenceOnAnEightBitChannelToo) {
  open(1, 1, 8);
  feedMic(2);
  EXPECT_EQ(received(spk), 32);
  EXPECT_EQ(spk.pInputData->at(1), 0);
}

}  // namespace
