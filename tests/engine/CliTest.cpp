// The parameter console.
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "engine/Cli.h"
#include "engine/MyChannel.h"
#include "tests/engine/EngineFixture.h"

namespace {

class CliTest : public EngineTest {
 protected:
  CliTest() {
    const sKestrovaInit init = defaultInit();
    EXPECT_EQ(KestrovaInit(0, &init), 0);
  }
  ~CliTest() override { KestrovapMyChannels[0].iMinAmplitudeForPotentialSegment = 500; }
  static std::string printedParam(const char* pcText) {
    return printed([=](std::FILE* pFile) { KestrovaCli.printParam(pFile, pcText); });
  }
};

TEST_F(CliTest, ValuesAreClampedAndPrintedInTheirUnits) {
  const std::tuple<const char*, const char*, const char*> pCases[] = {
      {"FrameBufferSize", "3", "4 "},
      {"FrameBufferSize", "40", "32 "},
      {"FrameBufferSize", "8", "8 "},
      {"LookAheadBufferSize", "20", "12 "},
      {"LookAheadBufferSize", "-1", "0 "},
      {"LookAheadBufferSize", "11", "11 "},
      {"MaxDelayBufferSize", "10", "8 "},
      {"MaxDelayBufferSize", "999999999999999", "200 "},
      {"Frequency", "4000", "8000 "},
      {"Frequency", "96000", "64000 "},
      {"Frequency", "16000", "16000 "},
      {"BitsPerSample", "16", "16 "},
      {"BitsPerSample", "24", "8 "},
      {"MinAmplitudeForPotentialSegment", "321", "321 "},
      {"AudioDirectory", "/a b/", "/a b/ "},
      {"StatusRegistration", "true", "false "},
      {"LastRegistrationFile", "x", "None "},
      {"NewLine", "", "\n"},
      {"Sync", "", "Sync "},
      {"unknown word", "5", "unknown word"},
      {"", "", ""},
  };
  for (const auto& [pcName, pcValue, pcPrinted] : pCases) {
    KestrovaCli.setParam(pcName, pcValue);
    EXPECT_EQ(printedParam(pcName), pcPrinted) << pcName << " " << pcValue;
  }
}

TEST_F(CliTest, FormatsReachTheChannel) {
  KestrovaCli.setParam("FrameBufferSize", "40");
  KestrovaCli.setParam("Frequency", "48000");
  EXPECT_EQ(KestrovapMyChannels[0].iSamplesPerFrameAtRate, 256 * 6);
  EXPECT_EQ(KestrovapMyChannels[0].pInputData->rateFactor(), 6);
  KestrovaCli.setSpkRealFormat(100, false);
  EXPECT_EQ(KestrovapMyChannels[1].iRealFrequency, 8000);
  EXPECT_FALSE(KestrovapMyChannels[1].b16Bit);
}

TEST_F(CliTest, ARunningChannelOutlivesAChangeOfDelayAndRate) {
  sKestrovaInit init = defaultInit();
  init.iSampleRate = 64000;
  init.sMaxNumCyclesInDelayBuffer = 50;
  ASSERT_EQ(KestrovaInit(0, &init), 0);
  process(0, silence(256 * 100), 256);
  KestrovaCli.setParam("MaxDelayBufferSize", "8");  // 48 cycles are released at once
  EXPECT_EQ(process(0, silence(256 * 10), 256).size(), 256U * 10);
  KestrovaCli.setParam("Frequency", "8000");
  EXPECT_EQ(process(0, silence(32 * 50)).size(), 32U * (50 - 2)) << "the stream starts over";
}

// Both have the factor 1, but only one is a multiple of the analysis rate.
TEST_F(CliTest, ASpectrumIsTakenApartAtMultiplesOfTheAnalysisRateOnly) {
  const auto heard = [](const char* pcRate) {
    KestrovaCli.setParam("Frequency", pcRate);
    const Samples out = process(0, gaussianNoise(32000, 130, 1));
    return rms(out, out.size() - 8000, out.size()) / 130;
  };
  const double dGated = heard("12000");
  EXPECT_LT(decibels(heard("8000") / dGated), -5);
}

TEST_F(CliTest, OnlyTheFirstWordNamesTheParameter) {
  KestrovaCli.setParam("Frequency", "8000");
  EXPECT_EQ(printedParam("  Frequency and more"), "8000 ");
  EXPECT_EQ(printed([](std::FILE* pFile) { KestrovaCli.printObject(pFile, "myClean"); }), "");
}

TEST_F(CliTest, ReadsLinesFromAPipeThatEveryoneMayWrite) {
  char pcDirectory[] = "/tmp/engine-cli-XXXXXX";
  ASSERT_NE(mkdtemp(pcDirectory), nullptr);
  const std::string in = std::string(pcDirectory) + "/in";
  const std::string out = std::string(pcDirectory) + "/out";
  mode_t uMode = 0;
  std::thread writer([&] {
    int iPipe = -1;  // until the console reads, the name may not exist yet
    for (int i = 0; i < 5000 && (iPipe = ::open(in.c_str(), O_WRONLY | O_NONBLOCK)) < 0; ++i) ::usleep(1000);
    struct stat status {};
    if (::stat(out.c_str(), &status) == 0) uMode = status.st_mode;
    ::unlink(in.c_str());  // so that opening it again ends the console
    const std::string lines = "Frequency 8000\n" + std::string(600, 'x') + "\n";
    EXPECT_EQ(::write(iPipe, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    ::close(iPipe);
  });
  testing::internal::CaptureStdout();
  EXPECT_EQ(KestrovaCli.run(in.c_str(), out.c_str()), ENOENT);
  const std::string prompts = testing::internal::GetCapturedStdout();
  writer.join();
  // One prompt to begin with, one after each of 15 + 601 characters in pieces of 255.
  EXPECT_EQ(prompts, "aaa->aaa->aaa->aaa->aaa->");
  EXPECT_TRUE(S_ISFIFO(uMode));
  EXPECT_EQ(uMode & 0777U, 0777U);
  ::unlink(out.c_str());
  ::rmdir(pcDirectory);
}

TEST_F(CliTest, ReportsAPipeThatCannotBeCreated) {
  EXPECT_EQ(KestrovaCli.run("/nonexistent/in", "/nonexistent/out"), ENOENT);
}

}  // namespace
