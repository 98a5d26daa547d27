// Calls whose far phone returns what it hears: the talker must not hear himself. Both phones send their next
// packet when the last one has arrived, so nothing depends on how fast the machine is.
#include <cmath>
#include <filesystem>
#include <random>

#include "rtp/G711.h"
#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

namespace {

using Samples = std::vector<short>;

Samples decoded(std::string_view payload) {
  Samples samples;
  for (const char code : payload) samples.push_back(ulaw2linear(static_cast<unsigned char>(code)));
  return samples;
}

std::string encoded(const Samples& samples, std::size_t from) {
  std::string payload;
  for (std::size_t i = from; i < from + RtpPeer::kSamples; ++i)
    payload.push_back(static_cast<char>(linear2ulaw(samples[i])));
  return payload;
}

// A talker: noise in syllables of 250 ms with pauses of 100 ms.
Samples talk(std::size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> normal(0, 2500);
  Samples samples(count);
  for (std::size_t i = 0; i < count; ++i)
    samples[i] =
        i % 2800 < 2000 ? static_cast<short>(std::clamp(normal(random), -20000.0, 20000.0)) : short{0};
  return samples;
}

double decibels(const Samples& samples, std::size_t from) {
  double sum = 1;
  for (std::size_t i = from; i < samples.size(); ++i) sum += static_cast<double>(samples[i]) * samples[i];
  return 10 * std::log10(sum);
}

// A phone whose loudspeaker reaches its microphone by three paths, 100 ms and more after the sound arrived.
class EchoingPhone {
 public:
  void hear(const Samples& samples) { heard.insert(heard.end(), samples.begin(), samples.end()); }
  Samples nextEcho() {
    Samples echo;
    for (std::size_t i = 0; i < RtpPeer::kSamples; ++i, ++sent) {
      const auto from = [&](std::size_t delay) {
        return sent >= delay && sent - delay < heard.size() ? static_cast<double>(heard[sent - delay]) : 0.0;
      };
      echo.push_back(static_cast<short>(0.35 * from(800) - 0.2 * from(813) + 0.1 * from(900)));
    }
    return echo;
  }

 private:
  Samples heard;
  std::size_t sent = 0;
};

struct EchoCase {
  const char* algorithm;  // of the settings; empty: no canceller
  double leastReduction;  // dB in the last two seconds
};

class EchoCallTest : public TalkFixture, public ::testing::WithParamInterface<EchoCase> {
 protected:
  // Talks for so many packets; what the far phone sent and what came back of it is kept.
  void exchange(const Samples& far, const Samples& near) {
    using namespace std::chrono_literals;
    for (std::size_t i = 0; i + RtpPeer::kSamples <= far.size(); i += RtpPeer::kSamples) {
      callerSound.send(callerSide, 0, encoded(far, i));
      phone.hear(decoded(calleeSound.receivePayload(500ms)));
      Samples mic = phone.nextEcho();
      for (std::size_t k = 0; k < mic.size(); ++k) mic[k] = static_cast<short>(mic[k] + near[i + k]);
      returned.insert(returned.end(), mic.begin(), mic.end());
      calleeSound.send(calleeSide, 0, encoded(mic, 0));
      const Samples back = decoded(callerSound.receivePayload(500ms));
      recorded.insert(recorded.end(), back.begin(), back.end());
    }
  }

  RtpPeer callerSound{ports.media(0)};
  RtpPeer calleeSound{ports.media(1)};
  EchoingPhone phone;
  Samples returned, recorded;
  int callerSide = 0, calleeSide = 0;
};

TEST_P(EchoCallTest, TheTalkerDoesNotHearHimselfAndHearsTheOther) {
  constexpr std::size_t kTalk = 6 * 8000;
  constexpr std::size_t kJudged = 2 * 8000;
  const bool cancels = *GetParam().algorithm != 0;
  start({{"DefaultCmd", "*##2"},
         {"NeedToDoNoiseCancellation", "0"},
         {"NeedToDoAEC", cancels ? "1" : "0"},
         {"AECAlgorithm", cancels ? GetParam().algorithm : "basic"},
         {"StatisticsFile", "statistics"}});
  const Call call = setUp();
  callerSide = RtpPeer::portIn(call.ok);
  calleeSide = RtpPeer::portIn(call.invite);

  exchange(talk(kTalk, 1), Samples(kTalk));
  ASSERT_GT(recorded.size(), kTalk - 1600) << "packets were lost";
  const double reduction =
      decibels(returned, returned.size() - kJudged) - decibels(recorded, recorded.size() - kJudged);
  EXPECT_GE(reduction, GetParam().leastReduction);
  if (!cancels) {
    EXPECT_LT(reduction, 1);
  }

  returned.clear();
  recorded.clear();
  exchange(Samples(kJudged), talk(kJudged, 2));
  EXPECT_NEAR(decibels(recorded, kJudged / 2), decibels(returned, kJudged / 2), 1.5);

  hangUp(call);
  EXPECT_TRUE(eventually(
      [&] { return occurrences(readFile(quorvel->bin() / "statistics"), "Max Echo (") == 2; }, Seconds(5)));
  const std::string line = readFile(quorvel->bin() / "statistics");
  const std::size_t figure = line.rfind("Max Echo (");
  ASSERT_NE(figure, std::string::npos) << line;
  const int echo = std::stoi(line.substr(figure + 10));
  EXPECT_EQ(echo > 0, cancels) << line;
}

INSTANTIATE_TEST_SUITE_P(Algorithms, EchoCallTest,
                         ::testing::Values(EchoCase{"", -1}, EchoCase{"basic", 15},
                                           EchoCase{"advanced-4", 20}, EchoCase{"advanced", 30},
                                           EchoCase{"advanced-7", 30}),
                         [](const auto& chosen) { return "Case" + std::to_string(chosen.index); });

}  // namespace
