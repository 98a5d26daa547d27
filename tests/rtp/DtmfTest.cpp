// Key sequences: how digits are collected, which command they run, and the tone that answers.
#include <utility>

#include "app/config/Settings.h"
#include "tests/rtp/RtpFixture.h"

namespace {

std::string event(int code, bool end, int duration = 400) {
  std::string block;
  block += static_cast<char>(code);
  block += static_cast<char>(end ? 0x8A : 0x0A);
  block += static_cast<char>(duration >> 8);
  block += static_cast<char>(duration);
  return block;
}

class DtmfTest : public RtpTest {
 protected:
  DtmfTest() {
    initWithKeys();
    call.request.iCleaningType = 3;
    EXPECT_EQ(call.open(), 0);
  }

  void press(const std::string& digits, int side = 0) {
    const std::string all = "0123456789*#ABCD";
    for (const char digit : digits) send(event(static_cast<int>(all.find(digit)), true), side);
  }
  void send(const std::string& events, int side = 0) {
    Packet packet;
    packet.payloadType = kTelephoneEventPT;
    packet.payload = events;
    ASSERT_EQ(call.pass(side, packet), 0);
    EXPECT_EQ(call.heardBy(1 - side), packet.bytes());
  }
  // Audio packets; returns what the other side hears of them.
  std::string talk(int packets, int side = 0) {
    std::string heard;
    for (int i = 0; i < packets; ++i) {
      Packet packet;
      packet.sequence = ++sequence[side];
      packet.payload = std::string(160, '\xFF');
      EXPECT_EQ(call.pass(side, packet), 0);
      heard += payloadOf(call.heardBy(1 - side));
    }
    return heard;
  }
  std::string digits(int side = 0) const { return std::string(call.record().pcDtmfDigits[side].view()); }
  // 'O' and 'F' for the tones that were started for the party on that side, nothing for none.
  std::string toneFor(int side) {
    int& remaining = call.record().iToneRemaining[1 - side];
    if (std::exchange(remaining, 0) == 0) return "";
    const unsigned char* next = call.record().pucToneData[1 - side];
    const auto& ok = myRtp.psOKTones[eCodecPCMU].pcData;
    return next >= ok.data() && next < ok.data() + ok.size() ? "O" : "F";
  }

  Call call{{eCodecPCMU}, {eCodecPCMU}};
  int sequence[2] = {0, 0};
};

TEST_F(DtmfTest, DigitsComeFromTheEndsOfEvents) {
  const std::pair<std::string, const char*> cases[] = {
      {event(1, false), ""},
      {event(1, true), "1"},
      {event(1, true), "1"},
      {event(10, true) + event(11, true), "1*#"},
      {event(12, true) + event(16, true) + event(255, true) + event(15, true), "1*#AD"},
  };
  for (const auto& [payload, expected] : cases) {
    send(payload);
    EXPECT_EQ(digits(), expected);
  }
}

TEST_F(DtmfTest, OnlyWholeBlocksOfAPacketCount) {
  std::string blocks;
  for (int i = 0; i < 6; ++i) blocks += event(i, true);
  for (std::size_t length = 0; length <= blocks.size(); ++length) {
    SCOPED_TRACE(length);
    call.record().pcDtmfDigits[0].clear();
    send(blocks.substr(0, length));
    EXPECT_EQ(digits(), std::string("012345").substr(0, length / 4));
  }
  std::string longest = blocks;
  longest.resize(kMaxDatagramBytes - 12, '\xFF');
  send(longest);
  EXPECT_EQ(digits(), "012345012345");
}

// Two contributing sources, and an extension of one word: each looks like the end of a key.
TEST_F(DtmfTest, EventsStandBehindTheWholeHeader) {
  const std::string fixed = Packet{.payloadType = kTelephoneEventPT, .payload = {}}.bytes().substr(1);
  const std::string sources = event(7, true) + event(8, true);
  const std::string extension = std::string("\xBE\xDE\x00\x01", 4) + event(9, true);
  for (const std::string& datagram :
       {"\x82" + fixed + sources + event(1, true), "\x90" + fixed + extension + event(2, true),
        "\x92" + fixed + sources + extension + event(3, true), "\x9F" + fixed + sources + extension,
        "\x90" + fixed + extension.substr(0, 3),
        "\x90" + fixed + std::string("\xBE\xDE\xFF\xFF", 4) + sources}) {
    EXPECT_EQ(call.pass(0, datagram), 0);
    EXPECT_EQ(call.heardBy(1), datagram);
  }
  EXPECT_EQ(digits(), "123");
}

TEST_F(DtmfTest, LongestCommandHas99Digits) {
  std::string name;
  for (int i = 0; i < 97; ++i) name += i % 2 == 0 ? '5' : '6';
  const std::string shorter = name.substr(1);
  press("*2" + shorter + "#");
  EXPECT_EQ(digits().size(), 99U);
  talk(1);
  EXPECT_EQ(toneFor(0), "F");
  EXPECT_EQ(installation.logCount("unable to open file " + (installation.bin() / "voice-").string() +
                                  shorter + "\n"),
            1);
  press("*1" + shorter + "#");
  talk(1);
  EXPECT_EQ(toneFor(0), "F");
  EXPECT_EQ(installation.logCount("registration name is too long, "), 1);

  press("*2" + name + "#");  // the last key finds no room
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::handleTelephoneEvent, No room to insert DTMF"), 1);
  send(event(7, true) + event(8, true) + event(9, true));
  EXPECT_EQ(installation.logCount("No room to insert DTMF"), 2) << "one record for a packet";
  talk(1);
  EXPECT_EQ(toneFor(0), "");
  EXPECT_EQ(digits().size(), 99U);
}

TEST_F(DtmfTest, DigitsAreForgotten16000SamplesAfterTheLastEvent) {
  press("12");
  talk(100);
  EXPECT_EQ(digits(), "12");
  send(event(2, false));  // an event that goes on keeps them
  talk(100);
  EXPECT_EQ(digits(), "12");
  talk(1);
  EXPECT_EQ(digits(), "");
  press("2");
  EXPECT_EQ(digits(), "2");
}

// 32 bits of samples are full after 74 hours at 8 kHz.
TEST_F(DtmfTest, CallOfManyDaysStillForgetsDigitsAndCountsOn) {
  constexpr std::int64_t kDays = std::int64_t{8000} * 86'400 * 5;
  call.record().iProcessedSamples[0] = kDays;
  press("12");
  talk(102);
  EXPECT_EQ(digits(), "");
  EXPECT_EQ(call.record().iProcessedSamples[0], kDays + 102 * 160);
  EXPECT_EQ(myRtp.callSeconds(0), 5 * 86'400 + 2);
}

TEST_F(DtmfTest, CommandsRunOnceAndAnswerWithATone) {
  struct Case {
    const char* keys;
    const char* tone0;  // for the party that dialled
    const char* tone1;
    bool consumed;
    int bypassed0;
    int bypassed1;
  };
  const Case cases[] = {
      {"*9", "O", "O", true, 1, 1},                                  // disable works on both sides
      {"*2#", "O", "O", true, 0, 0},                                 // so does activation without a name
      {"3*9", "O", "O", true, 1, 1}, {"*27#", "F", "", true, 1, 1},  // no such profile
      {"*1#", "", "", false, 1, 1},                                  // no name
      {"#*2", "", "", false, 1, 1},                                  // wrong order
      {"*", "", "", false, 1, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.keys);
    press(c.keys);
    talk(1);
    EXPECT_EQ(digits().empty(), c.consumed);
    EXPECT_EQ(toneFor(0), c.tone0);
    EXPECT_EQ(toneFor(1), c.tone1);
    EXPECT_EQ(FakeEngine::get().noise[0].sInit.bStartBypassed, c.bypassed0);
    EXPECT_EQ(FakeEngine::get().noise[1].sInit.bStartBypassed, c.bypassed1);
    talk(101);  // forget the digits
    EXPECT_EQ(toneFor(0), "");
  }
}

TEST_F(DtmfTest, DigitsOfTheEngineRunTheSameCommandsButOnlyWhenTheyChange) {
  FakeEngine::get().digits = "55*9";
  talk(3);
  EXPECT_EQ(toneFor(0), "O");
  EXPECT_EQ(FakeEngine::get().noise[0].sInit.bStartBypassed, 1);
  talk(3);
  EXPECT_EQ(toneFor(0), "");
  FakeEngine::get().digits = std::string(100, '1');
  talk(1);
  EXPECT_EQ(installation.logCount(" ERROR in MyRtp::processData, could not get DTMF buffer"), 5);
}

TEST_F(DtmfTest, UnconfiguredSequencesNeverMatch) {
  pcDTMFDisable.clear();
  pcDTMFRegisterPrefix.clear();
  pcDTMFActivatePrefix.clear();
  press("*1*2*9#");
  talk(1);
  EXPECT_EQ(toneFor(0) + toneFor(1), "");
  EXPECT_EQ(digits(), "*1*2*9#");
}

TEST_F(DtmfTest, ChannelThatDoesNotRestartIsAnsweredWithTheFailTone) {
  for (const char* keys : {"*9", "*2#"}) {
    SCOPED_TRACE(keys);
    FakeEngine::get().failingInits = 1;
    press(keys);
    talk(1);
    EXPECT_EQ(toneFor(0), "F");
    EXPECT_EQ(toneFor(1), "O");
    EXPECT_FALSE(FakeEngine::get().noise[0].bRunning);
    EXPECT_EQ(talk(1), std::string(160, '\xFF'));
    talk(101);
  }
  EXPECT_EQ(installation.logCount(" WARNING in MyRtp::doDisable, unable to initialize kestrova channel 0\n"),
            1);
  EXPECT_EQ(
      installation.logCount(" WARNING in MyRtp::doActivation, unable to initialize kestrova channel 0\n"), 1);
}

TEST_F(DtmfTest, EchoCancellationIsRestartedToo) {
  call.close();
  iNeedToDoAEC = 1;
  iNeedToDoNoiseCancellation = 0;
  call.request.iCleaningType = 1;
  ASSERT_EQ(call.open(), 0);
  press("*9");
  talk(1);
  EXPECT_EQ(FakeEngine::get().echo[0].sInit.bStartBypassed, 1);
  EXPECT_FALSE(FakeEngine::get().noise[0].bRunning);
  EXPECT_FALSE(FakeEngine::get().echo[1].bRunning);
  EXPECT_EQ(toneFor(0) + toneFor(1), "OO");
}

TEST_F(DtmfTest, ToneReplacesThePayloadOfWhatTheListenerGets) {
  myRtp.playOKTone(0, 0);
  myRtp.playFailTone(0, 0);  // not while another tone plays
  const std::string heard = talk(2);
  const auto& tone = myRtp.psOKTones[eCodecPCMU];
  const std::string expected(tone.pcData.begin(), tone.pcData.begin() + tone.iLength);
  EXPECT_EQ(heard, expected + std::string(320 - 200, '\xFF'));
  EXPECT_EQ(call.record().iToneRemaining[0], 0);
  // A tone also covers packets that pass unchanged.
  myRtp.playFailTone(0, 0);
  Packet packet;
  packet.payloadType = 13;
  packet.payload = "123";
  call.pass(0, packet);
  EXPECT_EQ(payloadOf(call.heardBy(1)),
            std::string(3, static_cast<char>(myRtp.psFailTones[eCodecPCMU].pcData[0])));
  EXPECT_EQ(call.record().iToneRemaining[0], 397);
}

}  // namespace
