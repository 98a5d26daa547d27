// Phones steer their calls with their keys, hear the answer, and leave recordings that can be played.
#include <regex>

#include "tests/calls/support/PhonePair.h"
#include "tests/calls/support/Tones.h"

namespace {

struct Legs {
  const char* name;
  const char* caller;
  const char* callee;
  const char* rate;  // of the engine and of the recordings
};

void PrintTo(const Legs& legs, std::ostream* out) {
  *out << legs.name;
}

class SteeringTest : public PhonesFixture, public ::testing::WithParamInterface<Legs> {
 protected:
  Settings settings() const {
    for (const char* folder : {"before", "after"}) std::filesystem::create_directory(scratch.path() / folder);
    Settings all = keyCommands(scratch.path());
    all["OrigRecordingLibrary"] = "../before/";
    all["CleanRecordingLibrary"] = "../after/";
    all["StatisticsFile"] = "../statistics";
    return all;
  }

  // The recording as the manual says to play it.
  Sound recording(const std::string& folder, const std::string& ending) const {
    for (const auto& entry : std::filesystem::directory_iterator(scratch.path() / folder)) {
      if (!std::regex_match(entry.path().filename().string(), std::regex(ending))) continue;
      const std::filesystem::path wav = scratch.path() / "played.wav";
      EXPECT_TRUE(Process::run("sox",
                               {"-t", "raw", "-r", GetParam().rate, "-e", "signed", "-b", "16", "-c", "1",
                                entry.path().string(), wav.string()},
                               scratch.path() / "sox.output"));
      return readWav(wav);
    }
    ADD_FAILURE() << "no file " << ending << " in " << folder;
    return {};
  }

  // Both lines of the one call, whose keys cost no packet of its audio.
  void expectStatistics() const {
    const std::string date =
        "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} 20[0-9]{2}\n ";
    const std::string figures =
        "Confident Voice \\(([5-9][0-9]|100)%\\) Avg Noise \\([0-9]+\\) Max Noise \\([0-9]+\\) Avg AGC "
        "\\(100\\) "
        "Max AGC \\(100\\) Avg Echo \\(0\\) Max Echo \\(0\\) Avg Jitter \\(0 ms\\) Max Jitter \\(0 ms\\) "
        "Packet Loss \\(0.00%\\) Avg Delay \\([0-9]+ ms\\) Max Delay \\([0-9]+ ms\\) Avg MOS \\(4.(41|70)\\) "
        "Min MOS \\([34].[0-9]{2}\\) CallID \\([^)]+\\)";
    const std::string there = "100@127.0.0.1->200@127.0.0.1: ";
    const std::string back = "200@127.0.0.1->100@127.0.0.1: ";
    const std::string text = readFile(scratch.path() / "statistics");
    EXPECT_TRUE(
        std::regex_match(text, std::regex(date + "Open session \\(0\\): 100@127.0.0.1<->200@127.0.0.1\n" +
                                          date + "Closed session \\(0\\) \\([0-9]+ seconds\\)\\. " + there +
                                          " " + figures + "\\. " + back + figures + "\n")))
        << text;
  }
};

// What each party has heard by now; both hear the answer to what concerns both.
void expectTones(PhonePair& phones, const std::string& caller, const std::string& callee) {
  EXPECT_TRUE(eventually([&] { return tonesIn(phones.first->heard()).size() >= caller.size(); }, Seconds(6)));
  EXPECT_TRUE(
      eventually([&] { return tonesIn(phones.second->heard()).size() >= callee.size(); }, Seconds(6)));
  EXPECT_EQ(tonesIn(phones.first->heard()), caller);
  EXPECT_EQ(tonesIn(phones.second->heard()), callee);
}

TEST_P(SteeringTest, KeysAreAnsweredWithTonesAndTheCallIsRecordedBeforeAndAfter) {
  const Legs& legs = GetParam();
  ASSERT_NO_FATAL_FAILURE(start(settings()));
  writeFile(scratch.path() / "voices" / "12", "taken");
  PhonePair phones(
      scratch.path(), ports,
      {.callerCodec = legs.caller, .calleeCodec = legs.callee, .calleePort = ports.pbx(), .times = 5});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  phones.first->dial(calleeUri());
  ASSERT_TRUE(phones.first->event("CALL_ESTABLISHED", Seconds(8))) << phones.first->report();

  struct Step {
    const char* what;
    Baresip& phone;
    const char* keys;
    const char* caller;
    const char* callee;
  };
  const Step steps[] = {
      {"disable, for both", *phones.first, "*3*", "O", "O"},
      {"activate, for both", *phones.first, "*2*#", "OO", "OO"},
      {"a voice that nobody registered", *phones.first, "*2*7#", "OOF", "OO"},
      {"a name that is taken", *phones.first, "*1*12#", "OOFF", "OO"},
      {"the other party disables", *phones.second, "*3*", "OOFFO", "OOO"},
      {"and again", *phones.second, "*3*", "OOFFOO", "OOOO"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.phone.command("sndcode", step.keys);
    ASSERT_NO_FATAL_FAILURE(expectTones(phones, step.caller, step.callee));
  }
  phones.first->hangUp();
  ASSERT_TRUE(phones.second->event("CALL_CLOSED", Seconds(5))) << phones.second->report();
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doActivation, unable to open file "), 1);
  EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doRegistration, do not allow to override file "), 1);
  EXPECT_EQ(readFile(scratch.path() / "voices" / "12"), "taken");
  EXPECT_EQ(quorvel->stop(), 0);
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);

  // Both parties, before and after the engine, which passes clean speech nearly as it is.
  const std::string begin = "[A-Z][a-z]{2}_[A-Z][a-z]{2}_[_1-3][0-9](_[0-9]{2}){3}_20[0-9]{2}__00-";
  const std::string first = "100_127\\.0\\.0\\.1";
  const std::string second = "200_127\\.0\\.0\\.1";
  const auto alike = [&](const Sound& said, const char* folder, const std::string& ending) {
    return medianCorrelation(matches(said, recording(folder, begin + ending)));
  };
  const double transcoded = std::string(GetParam().caller) == GetParam().callee ? 0.99 : 0.95;
  EXPECT_GT(alike(phones.firstSaid(), "before", first + "-" + second + "-orig"), transcoded);
  EXPECT_GT(alike(phones.firstSaid(), "after", first + "-" + second + "-clean"), 0.95);
  EXPECT_GT(alike(phones.secondSaid(), "before", second + "-" + first + "-orig"), 0.99);
  EXPECT_GT(alike(phones.secondSaid(), "after", second + "-" + first + "-clean"), 0.95);
  expectStatistics();
}

INSTANTIATE_TEST_SUITE_P(Codecs, SteeringTest,
                         ::testing::Values(Legs{"Pcmu", "PCMU/8000/1", "PCMU/8000/1", "8000"},
                                           Legs{"G722", "G722/16000/1", "G722/16000/1", "16000"},
                                           Legs{"G722ToPcma", "G722/16000/1", "PCMA/8000/1", "8000"}),
                         [](const auto& row) { return std::string(row.param.name); });

class TonesAsKeysTest : public PhonesFixture, public ::testing::WithParamInterface<int> {};

TEST_P(TonesAsKeysTest, TonesInTheAudioSteerTheCall) {
  const int rate = GetParam();
  const std::string codec = rate == 8000 ? "PCMU/8000/1" : "G722/16000/1";
  Settings settings = keyCommands(scratch.path());
  settings["NeedToCheckDTMF"] = "1";
  ASSERT_NO_FATAL_FAILURE(start(settings));
  Baresip caller(scratch.path(),
                 phone(0, "100", ports.phone(0), codec, keysPressed("*3*  *2*#  *2*7#  ", 14, rate)));
  Baresip callee(scratch.path(), phone(1, "200", ports.pbx(), codec, keysPressed("", 14, rate)));
  ASSERT_TRUE(caller.ready() && callee.ready());
  caller.dial(calleeUri());
  ASSERT_TRUE(caller.event("CALL_ESTABLISHED", Seconds(8))) << caller.report();
  EXPECT_TRUE(eventually([&] { return tonesIn(caller.heard()) == "OOF"; }, Seconds(15)));
  EXPECT_EQ(tonesIn(caller.heard()), "OOF");
  EXPECT_EQ(tonesIn(callee.heard()), "OO");
}

INSTANTIATE_TEST_SUITE_P(Rates, TonesAsKeysTest, ::testing::Values(8000, 16000));

}  // namespace
