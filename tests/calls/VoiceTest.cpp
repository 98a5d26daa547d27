// A caller has his voice learned from his phone and uses it on a later call; samples that tell too little are
// refused.
#include <cmath>

#include "tests/calls/support/PhonePair.h"
#include "tests/calls/support/QuorvelProcess.h"
#include "tests/calls/support/Tones.h"

namespace {

constexpr const char* kText =
    "Good morning, this is the office. The train to the airport leaves every twenty minutes from platform "
    "nine, and "
    "my brother rides his yellow bicycle along the river whenever the evenings are warm enough.";
// What a registration leaves out: the keys' own sound.
constexpr double kSkippedSamples = 16000;

std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

Sound louder(Sound sound, double factor) {
  for (auto& sample : sound.samples) sample = static_cast<std::int16_t>(std::lround(factor * sample));
  return sound;
}

void append(Sound& sound, const Sound& more, double from = 0, double to = 1e6) {
  const auto at = [&](double seconds) {
    return more.samples.begin() + static_cast<std::ptrdiff_t>(std::min<double>(
                                      seconds * more.rate, static_cast<double>(more.samples.size())));
  };
  sound.samples.insert(sound.samples.end(), at(from), at(to));
}

class VoiceCallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string missing = phonesMissing(); !missing.empty()) GTEST_SKIP() << missing;
  }
  // 100 says something and calls 200, who is silent.
  void start(Sound says, const std::string& codec = "PCMU/8000/1") {
    Sound nothing{.rate = says.rate, .samples = std::vector<std::int16_t>(says.samples.size())};
    quorvel = std::make_unique<QuorvelProcess>(scratch.path(), ports, keyCommands(scratch.path()));
    caller =
        std::make_unique<Baresip>(scratch.path(), phone(0, "100", ports.phone(0), codec, std::move(says)));
    callee =
        std::make_unique<Baresip>(scratch.path(), phone(1, "200", ports.pbx(), codec, std::move(nothing)));
    ASSERT_TRUE(quorvel->ready() && caller->ready() && callee->ready()) << quorvel->log();
  }
  PhoneSetup phone(int number, const std::string& user, int sipPort, const std::string& codec,
                   Sound plays) const {
    return {.user = user,
            .sipPort = sipPort,
            .controlPort = ports.control(number),
            .mediaPort = ports.media(number),
            .codec = codec,
            .plays = std::move(plays)};
  }
  void call() {
    caller->dial("sip:200@127.0.0.1:" + std::to_string(ports.sip()));
    ASSERT_TRUE(caller->event("CALL_ESTABLISHED", Seconds(8))) << caller->report();
  }
  // Presses the keys and waits for the tones that have been heard in this call by then.
  void press(const char* keys, const std::string& tones) {
    caller->command("sndcode", keys);
    EXPECT_TRUE(eventually([&] { return tonesIn(caller->heard()) == tones; }, Seconds(8)))
        << keys << ": heard " << tonesIn(caller->heard()) << ", not " << tones;
  }
  // The raw file ends with what has been said by then.
  void waitUntilRecorded(const std::string& name, double seconds, int rate) {
    EXPECT_TRUE(eventually(
        [&] {
          std::error_code none;
          const auto bytes = std::filesystem::file_size(voices() / (name + ".raw"), none);
          return !none && static_cast<double>(bytes) >= 2 * rate * seconds;
        },
        Seconds(40)));
  }
  void hangUp() {
    caller->hangUp();
    ASSERT_TRUE(callee->event("CALL_CLOSED", Seconds(5))) << callee->report();
  }
  std::filesystem::path voices() const { return scratch.path() / "voices"; }
  // A voice's file as the log names it.
  std::string fileOf(const char* name) const { return (quorvel->bin() / "../voices" / name).string() + "\n"; }

  PortBlock ports;
  ScratchDirectory scratch;
  std::unique_ptr<QuorvelProcess> quorvel;
  std::unique_ptr<Baresip> caller;
  std::unique_ptr<Baresip> callee;
};

struct Line {
  const char* name;
  const char* codec;
  int rate;
};

class LearnedInACallTest : public VoiceCallTest, public ::testing::WithParamInterface<Line> {};

// The registration still runs when its call ends.
TEST_P(LearnedInACallTest, AVoiceIsLearnedInOneCallAndUsedInTheNext) {
  constexpr double kSeconds = 9;
  const Line& line = GetParam();
  Sound says = spoken(kText, "en-us", line.rate, scratch.path());
  append(says, Sound(says));
  ASSERT_NO_FATAL_FAILURE(start(says, line.codec));
  ASSERT_NO_FATAL_FAILURE(call());
  press("*1*7#", "O");
  waitUntilRecorded("7", kSeconds, line.rate);
  ASSERT_NO_FATAL_FAILURE(hangUp());
  ASSERT_NO_FATAL_FAILURE(call());
  press("*1*7#", "F");  // the name is taken
  press("*2*7#", "FO");
  std::this_thread::sleep_for(Seconds(4));
  ASSERT_NO_FATAL_FAILURE(hangUp());
  EXPECT_GT(medianCorrelation(matches(says, callee->heard())), 0.9) << "he is kept";

  EXPECT_FALSE(std::filesystem::exists(voices() / "7.raw"));
  const std::string profile = readFile(voices() / "7");
  ASSERT_GT(profile.size(), 4U + 654992U) << quorvel->log();
  EXPECT_EQ(numberAt(profile, 0), profile.size() - 4);
  EXPECT_EQ((numberAt(profile, 0) - 654992) % 4740, 0U);
  EXPECT_EQ(numberAt(profile, 4), 2U) << "version";
  const std::string wave = readFile(voices() / "7.wav");
  ASSERT_GT(wave.size(), 44U);
  EXPECT_EQ(numberAt(wave, 24), static_cast<std::uint32_t>(line.rate));
  EXPECT_EQ(numberAt(wave, 40), wave.size() - 44);
  const Sound recorded = readWav(voices() / "7.wav");
  EXPECT_GT(medianCorrelation(matches(says, recorded, kSkippedSamples / line.rate + 8)), 0.95);
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::"), 1) << quorvel->log();
  EXPECT_EQ(
      quorvel->logCount("WARNING in MyRtp::doRegistration, do not allow to override file " + fileOf("7")), 1);
  EXPECT_EQ(quorvel->stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Codecs, LearnedInACallTest,
                         ::testing::Values(Line{"Pcmu", "PCMU/8000/1", 8000},
                                           Line{"G722", "G722/16000/1", 16000}),
                         [](const auto& row) { return std::string(row.param.name); });

struct Sample {
  const char* name;
  const char* why;
  double seconds;
};

class RefusedSampleTest : public VoiceCallTest, public ::testing::WithParamInterface<Sample> {
 protected:
  Sound sample() {
    const Sound man = spoken(kText, "en-us", 8000, scratch.path());
    Sound says{.rate = 8000, .samples = {}};
    const std::string_view which = GetParam().name;
    if (which == "Weak") {
      append(says, louder(man, 0.02));
    } else if (which == "TooShort") {
      says.samples.resize(5 * 8000);
      append(says, man, 0, 1.5);
    } else {
      constexpr double kTurn = 2.5;
      const Sound woman = spoken(kText, "en+f2", 8000, scratch.path());
      for (double at = 0; at < 12; at += kTurn) {
        append(says, man, at, at + kTurn);
        append(says, woman, at, at + kTurn);
      }
    }
    says.samples.resize(std::max<std::size_t>(says.samples.size(), 25 * 8000));
    return says;
  }
};

TEST_P(RefusedSampleTest, TheLogSaysWhyAndTheNameAnswersWithTheFailTone) {
  const Sample& wanted = GetParam();
  ASSERT_NO_FATAL_FAILURE(start(sample()));
  ASSERT_NO_FATAL_FAILURE(call());
  press("*1*8#", "O");
  waitUntilRecorded("8", wanted.seconds, 8000);
  ASSERT_NO_FATAL_FAILURE(hangUp());
  const std::string line = std::string("no voice was learned, ") + wanted.why;
  ASSERT_TRUE(quorvel->logged(line)) << quorvel->log();
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doStopRegistration, unable to complete registration\n"), 1);
  EXPECT_EQ(readFile(voices() / "8"), "");

  ASSERT_NO_FATAL_FAILURE(call());
  press("*2*8#", "F");
  EXPECT_TRUE(quorvel->logged("WARNING in MyRtp::doActivation, unable to read from file " + fileOf("8")));
  press("*1*9#", "FO");
  EXPECT_EQ(quorvel->stop(), 0);
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doStopRegistration, unable to complete registration\n"), 2)
      << "the process ends the registration before itself";
}

INSTANTIATE_TEST_SUITE_P(Samples, RefusedSampleTest,
                         ::testing::Values(Sample{"Weak", "the voice is too weak or too near the background",
                                                  6},
                                           Sample{"TooShort", "too little speech was heard", 5},
                                           Sample{"Mixed", "more than one talker was heard", 16}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
