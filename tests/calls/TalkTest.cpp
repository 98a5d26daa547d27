// Calls that talk while everything else happens to them.
#include <array>
#include <random>

#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

namespace {

using CallsUpTest = TalkFixture;

// Everything that touches a call that talks, at once: what the threads share shows itself here.
TEST_F(CallsUpTest, ProcessedCallsTalkThroughKeysReloadPagesAndAHangUp) {
  std::filesystem::create_directory(scratch.path() / "voices");
  Settings settings{{"DefaultCmd", "*##3"},
                    {"DTMFRegistraterPrefix", "*1*"},
                    {"DTMFSuffix", "#"},
                    {"RegistrationLibrary", "../voices/"},
                    {"OrigRecordingLibrary", "../recorded-"},
                    {"RealTimeAverageStatisticsFile", "../average.html"},
                    {"RefreshRateOfRealTimeStatistics", "2"}};
  start(settings);
  RtpPeer callerHears(ports.media(0)), calleeHears(ports.media(1));
  const Call first = setUp(1, "0 101"), second = setUp(2, "0 101");
  std::array<RtpPeer, 4> talkers{RtpPeer(0), RtpPeer(0), RtpPeer(0), RtpPeer(0)};
  const std::array<int, 4> relay{RtpPeer::portIn(first.ok), RtpPeer::portIn(first.invite),
                                 RtpPeer::portIn(second.ok), RtpPeer::portIn(second.invite)};
  std::mt19937 random(1);
  const auto talk = [&](int packets, std::size_t from = 0) {
    int heard = 0;
    for (int packet = 0; packet < packets; ++packet) {
      std::string noise(RtpPeer::kSamples, '\0');
      for (char& code : noise) code = static_cast<char>(random());
      for (std::size_t side = from; side < talkers.size(); ++side) talkers[side].send(relay[side], 0, noise);
      for (RtpPeer* peer : {&callerHears, &calleeHears})
        while (!peer->receivePayload(std::chrono::milliseconds(1)).empty()) ++heard;
    }
    return heard;
  };
  const auto press = [&](std::string_view keys) {
    for (const char key : keys)
      talkers[0].send(relay[0], 101,
                      std::string{char(std::string_view("0123456789*#").find(key)), '\x8A', 0, 0});
  };
  // More than once, since a side starts at most one registration a second.
  const auto isBegun = [&](const std::string& name) {
    return eventually(
        [&] {
          press("*1*" + name + "#");
          talk(5);
          return std::filesystem::exists(scratch.path() / "voices" / name);
        },
        Seconds(5));
  };
  EXPECT_TRUE(isBegun("7"));
  talk(110);  // the voice itself is taken from the 101st packet on
  settings["NeedToDoAGC"] = "1";
  quorvel->writeConfiguration(settings);
  quorvel->sendReload(quorvel->configuration());
  talk(10);
  EXPECT_TRUE(isBegun("8"));
  EXPECT_TRUE(eventually(
      [&] {
        talk(1);
        return occurrences(readFile(scratch.path() / "average.html"), "100@127.0.0.1") == 2;
      },
      Seconds(5)));
  talk(20);
  hangUp(first);
  EXPECT_GT(talk(20, 2), 10);
  hangUp(second);
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
}

}  // namespace
