// A caller has his voice learned from his phone and uses it on a later call.
#include <csignal>

#include "tests/calls/support/PhonePair.h"
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

struct Line {
  const char* name;
  const char* codec;
  int rate;
};

class LearnedInACallTest : public PhonesFixture, public ::testing::WithParamInterface<Line> {
 protected:
  // 100 says something and calls 200, who is silent.
  void startPhones(const Sound& says, const std::string& codec) {
    const Sound nothing{.rate = says.rate, .samples = std::vector<std::int16_t>(says.samples.size())};
    ASSERT_NO_FATAL_FAILURE(start(keyCommands(scratch.path())));
    caller = std::make_unique<Baresip>(scratch.path(), phone(0, "100", ports.phone(0), codec, says));
    callee = std::make_unique<Baresip>(scratch.path(), phone(1, "200", ports.pbx(), codec, nothing));
    ASSERT_TRUE(caller->ready() && callee->ready());
  }
  void call() {
    caller->dial(calleeUri());
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

  std::unique_ptr<Baresip> caller;
  std::unique_ptr<Baresip> callee;
};

// The registration still runs when its call ends.
TEST_P(LearnedInACallTest, AVoiceIsLearnedInOneCallAndUsedInTheNext) {
  constexpr double kSeconds = 9;
  const Line& line = GetParam();
  Sound says = spoken(kText, "en-us", line.rate, scratch.path());
  says.samples.insert(says.samples.end(), says.samples.begin(), says.samples.end());
  ASSERT_NO_FATAL_FAILURE(startPhones(says, line.codec));
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
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doRegistration, do not allow to override file " +
                              (quorvel->bin() / "../voices/7").string() + "\n"),
            1);

  ASSERT_NO_FATAL_FAILURE(call());
  press("*1*8#", "O");
  quorvel->process().signal(SIGINT);  // refused, as a call is up
  EXPECT_EQ(quorvel->stop(), 0);
  EXPECT_EQ(quorvel->logCount("no voice was learned, "), 1)
      << "the process ends a registration before itself";
  EXPECT_EQ(readFile(voices() / "8"), "");
}

INSTANTIATE_TEST_SUITE_P(Codecs, LearnedInACallTest,
                         ::testing::Values(Line{"Pcmu", "PCMU/8000/1", 8000},
                                           Line{"G722", "G722/16000/1", 16000}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
