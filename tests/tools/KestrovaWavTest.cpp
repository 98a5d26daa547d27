// kestrova-wav, run as people run it: what it writes, and what it says of files and options that are no good.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/TestInstallation.h"

namespace {

struct Ended {
  int iStatus = -1;
  std::string said;  // standard output and standard error
};

class KestrovaWavTest : public ::testing::Test {
 protected:
  [[nodiscard]] Ended run(const std::string& arguments) const {
    const std::string said = (installation.bin() / "said").string();
    const std::string command = "cd " + installation.bin().string() +
                                " && LSAN_OPTIONS=print_suppressions=0:suppressions=" LEAKS_OF_OTHERS
                                " " KESTROVA_WAV " " +
                                arguments;
    const int iStatus = std::system((command + " >" + said + " 2>&1").c_str());
    return {WEXITSTATUS(iStatus), TestInstallation::read(said)};
  }
  // A header as RIFF has it, then so many samples of a tone; `uClaimed` bytes are announced.
  void wav(const std::string& name, std::size_t uSamples, std::size_t uClaimed, std::uint32_t uRate = 8000,
           std::uint16_t uChannels = 1, std::uint16_t uBits = 16) const {
    std::string file = "RIFF" + number(36 + uClaimed, 4) + "WAVEfmt " + number(16, 4) + number(1, 2) +
                       number(uChannels, 2) + number(uRate, 4) + number(uRate * uChannels * uBits / 8, 4) +
                       number(uChannels * uBits / 8U, 2) + number(uBits, 2) + "data" + number(uClaimed, 4);
    for (std::size_t i = 0; i < uSamples; ++i) {
      const auto iSample = static_cast<int>(9000 * std::sin(0.37 * static_cast<double>(i)));
      file += number(static_cast<std::uint16_t>(iSample), 2);
    }
    (void)installation.write(name, file);
  }
  void wav(const std::string& name, std::size_t uSamples) const { wav(name, uSamples, 2 * uSamples); }
  [[nodiscard]] std::string file(const std::string& name) const {
    return TestInstallation::read(installation.bin() / name);
  }
  static std::string number(std::size_t uValue, int iBytes) {
    std::string bytes;
    for (int i = 0; i < iBytes; ++i) bytes += static_cast<char>(uValue >> (8 * i));
    return bytes;
  }

  TestInstallation installation;
};

TEST_F(KestrovaWavTest, WritesSoundARowPerFrameAndAPicture) {
  wav("in.wav", 8000);
  EXPECT_EQ(run("in.wav out.wav --csv rows.csv --picture out.png --frame-units 5").iStatus, 0);
  EXPECT_EQ(file("out.wav").size(), 44U + 2 * (8000 - 6 * 32)) << "the delay stays inside";
  EXPECT_EQ(std::ranges::count(file("rows.csv"), '\n'), 1 + 8000 / 160);
  EXPECT_TRUE(file("out.png").starts_with("\x89PNG\r\n"));
  const std::string first = file("out.wav");
  EXPECT_EQ(run("in.wav out.wav").iStatus, 0);
  EXPECT_EQ(file("out.wav"), first) << "frames of another length, and no chance";
  wav("wide.wav", 8000, 16000, 16000);
  EXPECT_EQ(run("wide.wav out.wav --align 1 --agc 1").iStatus, 0);
  EXPECT_EQ(file("out.wav").size(), 44U + 16000);
  EXPECT_EQ(run("--spk wide.wav wide.wav out.wav --combo 1").iStatus, 0);
}

TEST_F(KestrovaWavTest, SaysWhyAVoiceIsNotLearnedOrTaken) {
  wav("tone.wav", 16000);
  const Ended refused = run("learn tone.wav me.voice");
  EXPECT_EQ(refused.iStatus, 1);
  EXPECT_NE(refused.said.find("no voice was learned, too little speech was heard"), std::string::npos)
      << refused.said;
  EXPECT_EQ(file("me.voice"), "");
  const Ended noVoice = run("clean --voice tone.wav tone.wav out.wav");
  EXPECT_EQ(noVoice.iStatus, 1);
  EXPECT_NE(noVoice.said.find("tone.wav is no learned voice"), std::string::npos) << noVoice.said;
  EXPECT_EQ(run("learn --voice me.voice tone.wav other.voice").iStatus, 2);
}

TEST_F(KestrovaWavTest, SaysWhatIsWrong) {
  wav("good.wav", 800);
  wav("wide.wav", 800, 1600, 16000);
  wav("cut.wav", 400, 1600);
  wav("none.wav", 0);
  wav("stereo.wav", 800, 1600, 8000, 2);
  wav("cd.wav", 800, 1600, 44100);
  wav("byte.wav", 800, 1600, 8000, 1, 8);
  (void)installation.write("empty.wav", "");
  (void)installation.write("text.wav", "no sound at all");
  const std::tuple<const char*, int, const char*> rows[] = {
      {"missing.wav o.wav", 1, "missing.wav: No such file or directory"},
      {". o.wav", 1, ".: is a directory"},
      {"empty.wav o.wav", 1, "empty.wav: is empty"},
      {"none.wav o.wav", 1, "none.wav: holds no samples"},
      {"cut.wav o.wav", 1, "cut.wav: is truncated"},
      {"stereo.wav o.wav", 1, "stereo.wav: has 2 channels, not one"},
      {"cd.wav o.wav", 1, "cd.wav: its rate is 44100 Hz, not 8000 or 16000"},
      {"byte.wav o.wav", 1, "byte.wav: its samples are not 16-bit linear"},
      {"text.wav o.wav", 1, "text.wav: "},
      {"--spk wide.wav good.wav o.wav", 1, "wide.wav: its rate differs from the microphone's"},
      {"good.wav none/o.wav", 1, "none/o.wav: "},
      {"good.wav o.wav --csv none/rows.csv", 1, "none/rows.csv: No such file or directory"},
      {"good.wav o.wav --csv /dev/full", 1, "/dev/full: No space left on device"},
      {"good.wav /dev/full", 1, "/dev/full: "},
      {"good.wav", 2, "give one input and one output file"},
      {"good.wav o.wav --agc", 2, "--agc needs a value"},
      {"good.wav o.wav --frame-units 9", 2, "--frame-units takes a number from 1 to 8, not 9"},
      {"good.wav o.wav --clean 8x", 2, "--clean takes a number from 5 to 12, not 8x"},
      {"good.wav o.wav --colour 1", 2, "unknown option --colour"},
      {"--help", 0, "[15 CNGEndValue]"},
  };
  for (const auto& [pcArguments, iStatus, pcSaid] : rows) {
    const Ended ended = run(pcArguments);
    EXPECT_EQ(ended.iStatus, iStatus) << pcArguments;
    EXPECT_NE(ended.said.find(pcSaid), std::string::npos) << pcArguments << ": " << ended.said;
  }
}

}  // namespace
