// Keys pressed in a call without telephone events: tones in the audio, which the engine has to find.
#include <cmath>
#include <numbers>
#include <random>
#include <thread>

#include "rtp/G711.h"
#include "tests/calls/support/TalkFixture.h"
#include "tests/calls/support/Tones.h"

namespace {

class InBandKeysTest : public TalkFixture {
 protected:
  static constexpr int kPacketSamples = 160;  // 20 ms
  static constexpr int kKeyPackets = 5;       // 100 ms
  static constexpr int kPausePackets = 3;

  // The port that a description offers for audio.
  static int audioPort(const std::string& message) {
    const std::size_t at = message.find("m=audio ");
    return at == std::string::npos ? 0 : std::stoi(message.substr(at + 8));
  }
  static std::string packet(int iNumber, const std::string& payload) {
    const auto byte = [](int iValue) { return static_cast<char>(iValue & 0xFF); };
    const int iTime = iNumber * kPacketSamples;
    return std::string{byte(0x80),
                       0,
                       byte(iNumber >> 8),
                       byte(iNumber),
                       byte(iTime >> 24),
                       byte(iTime >> 16),
                       byte(iTime >> 8),
                       byte(iTime),
                       'k',
                       'e',
                       'y',
                       's'} +
           payload;
  }
  // One packet of a key, which has been down for so many packets already.
  static std::string keyDown(char cDigit, int iBefore) {
    constexpr int kRows[] = {697, 770, 852, 941};
    constexpr int kColumns[] = {1209, 1336, 1477, 1633};
    const auto uKey = std::string_view("123A456B789C*0#D").find(cDigit);
    std::string payload;
    for (int i = 0; i < kPacketSamples; ++i) {
      const double t = 2 * std::numbers::pi * (iBefore * kPacketSamples + i) / 8000;
      payload += static_cast<char>(linear2ulaw(static_cast<short>(4000 * std::sin(kRows[uKey / 4] * t) +
                                                                  4000 * std::sin(kColumns[uKey % 4] * t))));
    }
    return payload;
  }
  // Both parties send a packet; true when the caller hears anything but the callee's silence.
  bool exchange(const std::string& fromCaller) {
    const std::string silence(kPacketSamples, '\xFF');
    callerMedia.sendTo(toCallee, packet(iSent, fromCaller.empty() ? silence : fromCaller));
    calleeMedia.sendTo(toCaller, packet(iSent++, silence));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    bool bTone = false;
    while (const auto heard = callerMedia.receive(std::chrono::milliseconds(0)))
      bTone = bTone || heard->substr(12) != silence;
    while (calleeMedia.receive(std::chrono::milliseconds(0))) ++iReceivedByCallee;
    return bTone;
  }
  bool press(char cDigit) {
    bool bTone = false;
    for (int i = 0; i < kKeyPackets; ++i) bTone = exchange(keyDown(cDigit, i)) || bTone;
    for (int i = 0; i < kPausePackets; ++i) bTone = exchange("") || bTone;
    return bTone;
  }

  LoopbackPeer callerMedia{ports.media(0)};
  LoopbackPeer calleeMedia{ports.media(1)};
  int toCallee = 0;
  int toCaller = 0;
  int iSent = 1;
  int iReceivedByCallee = 0;
};

// The command is all sixteen digits, in an order that its two halves leave no doubt about.
TEST_F(InBandKeysTest, ACommandOfAllSixteenDigitsIsConfirmedByATone) {
  std::ofstream(scratch.path() / "ok.raw", std::ios::binary) << std::string(8000, '\x11');
  start({{"DefaultCmd", "*##1"},
         {"NeedToCheckDTMF", "1"},
         {"DTMFActivatePrefix", "123A456B"},
         {"DTMFSuffix", "789C*0#D"},
         {"DTMFOKToneFile", "../ok.raw"}});
  const Call call = setUp();
  toCallee = audioPort(call.ok);
  toCaller = audioPort(call.invite);
  for (int i = 0; i < 25; ++i) exchange("");
  for (const char cDigit : std::string("123A456B789C*0#")) EXPECT_FALSE(press(cDigit)) << cDigit;
  bool bConfirmed = press('D');
  for (int i = 0; i < 50 && !bConfirmed; ++i) bConfirmed = exchange("");
  EXPECT_TRUE(bConfirmed);
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
  hangUp(call);
}

std::string littleEndian(std::uint32_t uValue) {
  std::string text;
  for (int i = 0; i < 4; ++i) text += static_cast<char>(uValue >> (8 * i));
  return text;
}

// What could lie in the library under a voice's name: each is answered by the fail tone.
TEST_F(InBandKeysTest, FilesThatAreNoVoicesAreRefusedAndTheCallGoesOn) {
  constexpr std::uint32_t kFixed = 654992;
  constexpr std::uint32_t kRecord = 4740;
  std::string noise(kFixed + kRecord, ' ');
  std::mt19937 random(1);
  for (char& c : noise) c = static_cast<char>(random());
  const std::string zeros(kFixed - 4, '\0');
  const struct {
    const char* what;
    std::string content;
  } files[] = {
      {"truncated", littleEndian(kFixed + kRecord) + littleEndian(2) + zeros},
      {"another version", littleEndian(kFixed) + littleEndian(3) + zeros},
      {"a wild count of records", littleEndian(kFixed + kRecord * 800'000) + littleEndian(2) + zeros},
      {"random bytes", noise},
      {"random bytes of the right length", littleEndian(kFixed + kRecord) + noise},
  };
  Settings settings = keyCommands(scratch.path());
  settings["NeedToCheckDTMF"] = "1";
  start(settings);
  const Call call = setUp();
  toCallee = audioPort(call.ok);
  toCaller = audioPort(call.invite);
  for (int i = 0; i < 25; ++i) exchange("");
  int iRefused = 0;
  for (const auto& wrong : files) {
    SCOPED_TRACE(wrong.what);
    const std::string name = std::to_string(++iRefused);
    writeFile(scratch.path() / "voices" / name, wrong.content);
    for (const char cDigit : "*2*" + name + "#") press(cDigit);
    bool bTone = false;
    for (int i = 0; i < 100; ++i) bTone = exchange("") || bTone;  // two seconds: the next digits begin anew
    EXPECT_TRUE(bTone);
    const std::string file = (quorvel->bin() / "../voices" / name).string();
    EXPECT_EQ(quorvel->logCount("WARNING in MyRtp::doActivation, unable to read from file " + file + "\n"),
              1);
  }
  EXPECT_GT(iReceivedByCallee, iSent * 9 / 10) << "of the packets sent";
  hangUp(call);
}

}  // namespace
