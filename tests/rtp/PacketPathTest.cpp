// One packet at a time through the packet path, in exactly the order of the case.
#include <algorithm>
#include <cmath>
#include <numbers>

#include "app/config/Settings.h"
#include "rtp/G711.h"
#include "rtp/RateConversion.h"
#include "tests/rtp/RtpFixture.h"

namespace {

class PacketPathTest : public RtpTest {};

std::string everyCode(int from) {
  std::string payload;
  for (int i = 0; i < 128; ++i) payload += static_cast<char>(from + i);
  return payload;
}

Packet packetOf(SUPPORTED_CODECS_IN_QUORVEL codec, int sequence, std::string payload) {
  Packet packet;
  packet.payloadType = kCodecRows[codec].iPayloadType;
  packet.sequence = sequence;
  packet.timestamp = static_cast<std::uint32_t>(sequence) * 160;
  packet.payload = std::move(payload);
  return packet;
}

// ---- G.711 ----

TEST_F(PacketPathTest, WholeFramesOfOneCodecComeOutUnchanged) {
  for (const auto codec : {eCodecPCMA, eCodecPCMU}) {
    Call call({codec}, {codec}, std::to_string(codec));
    ASSERT_GE(call.open(), 0);
    for (const int from : {0, 128}) {
      Packet packet = packetOf(codec, 10 + from / 128, everyCode(from));
      packet.marker = from == 0;
      EXPECT_EQ(call.pass(0, packet), 0);
      // Mu-law has two codes for zero; it leaves as the positive one.
      std::replace(packet.payload.begin(), packet.payload.end(), codec == eCodecPCMU ? '\x7F' : '\x00',
                   codec == eCodecPCMU ? '\xFF' : '\x00');
      EXPECT_EQ(call.heardBy(1), packet.bytes());
    }
    EXPECT_EQ(call.record().iProcessedSamples[0], 256);
  }
}

TEST_F(PacketPathTest, BetweenTheLawsEverySampleIsCodedAsTheLawsSay) {
  Call call({eCodecPCMU, eCodecPCMA}, {eCodecPCMA}, "laws");
  ASSERT_GE(call.open(), 0);
  for (const int from : {0, 128}) {
    ASSERT_EQ(call.pass(0, packetOf(eCodecPCMU, 1 + from / 128, everyCode(from))), 0);
    const std::string out = call.heardBy(1);
    std::string expected;
    for (int code = from; code < from + 128; ++code)
      expected += static_cast<char>(linear2alaw(ulaw2linear(static_cast<unsigned char>(code))));
    EXPECT_EQ(payloadOf(out), expected);
    EXPECT_EQ(out[1], 8);
  }
}

TEST_F(PacketPathTest, ShortPacketsLagByTheUnfinishedFrameAndLoseNothing) {
  Call call({eCodecPCMA}, {eCodecPCMA});
  ASSERT_GE(call.open(), 0);
  std::string sent;
  std::string heard;
  for (int i = 0; i < 10; ++i) {
    std::string payload;
    for (int k = 0; k < 80; ++k) payload += static_cast<char>((i * 80 + k) % 251);
    sent += payload;
    ASSERT_EQ(call.pass(0, packetOf(eCodecPCMA, 1 + i, payload)), 0);
    heard += payloadOf(call.heardBy(1));
  }
  constexpr std::size_t kLag = 16;
  EXPECT_EQ(heard, std::string(kLag, '\xD5') + sent.substr(0, sent.size() - kLag));
}

TEST_F(PacketPathTest, PayloadOfAnyLengthIsCutToMultiplesOfEightAndOverrunsNothing) {
  for (const Codecs& codecs : {Codecs{eCodecPCMA}, Codecs{eCodecG722}}) {
    Call call(codecs, codecs, "lengths" + std::to_string(codecs.size() + *codecs.begin()));
    ASSERT_GE(call.open(), 0);
    const auto codec = *codecs.begin();
    int sequence = 1;
    for (const int length : {0, 1, 7, 8, 9, 31, 161, 399, 400, 407, 799, 808, 1987, 160, 1987, 160}) {
      SCOPED_TRACE(length);
      ASSERT_EQ(
          call.pass(0, packetOf(codec, sequence++, std::string(static_cast<std::size_t>(length), '\x33'))),
          0);
      EXPECT_EQ(payloadOf(call.heardBy(1)).size(), static_cast<std::size_t>(length / 8 * 8));
      EXPECT_LE(call.record().iOutRingAvailable[0], kOutRingSamples);
    }
  }
  EXPECT_GE(installation.logCount("MyRtp::processData, Too many samples in out buff "), 4);
}

// Seven samples of each packet stay behind: the ring is full after 114 packets, and logged no more often.
TEST_F(PacketPathTest, BacklogThatOverflowsIsDroppedAtOnce) {
  Call call({eCodecPCMA}, {eCodecPCMA});
  ASSERT_GE(call.open(), 0);
  for (int i = 0; i < 400; ++i) {
    ASSERT_EQ(call.pass(0, packetOf(eCodecPCMA, 1 + i, std::string(167, '\x33'))), 0);
    ASSERT_EQ(payloadOf(call.heardBy(1)).size(), 160U);
  }
  EXPECT_EQ(installation.logCount("Too many samples in out buff "), 4);
}

TEST_F(PacketPathTest, EngineThatHoldsSamplesBackLeavesSilenceInFront) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  ASSERT_GE(call.open(), 0);
  FakeEngine::get().outputSamplesMissing = 8;
  ASSERT_EQ(call.pass(0, packetOf(eCodecPCMU, 1, std::string(160, '\x80'))), 0);
  const std::string payload = payloadOf(call.heardBy(1));
  EXPECT_EQ(payload.substr(0, 40), std::string(40, '\xFF'));
  EXPECT_EQ(payload.find('\xFF', 40), std::string::npos);
}

// ---- G.722 and rates ----

std::vector<std::int16_t> tone(int samples, int rate, double frequency) {
  std::vector<std::int16_t> result;
  for (int i = 0; i < samples; ++i)
    result.push_back(static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * frequency * i / rate)));
  return result;
}

// Amplitude of the frequency in the samples (one bin of a Fourier transform).
double level(const std::vector<std::int16_t>& samples, int rate, double frequency) {
  double re = 0;
  double im = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const double phase = 2 * std::numbers::pi * frequency * static_cast<double>(i) / rate;
    re += samples[i] * std::cos(phase);
    im += samples[i] * std::sin(phase);
  }
  return 2 * std::hypot(re, im) / static_cast<double>(samples.size());
}

std::string encodeTone(SUPPORTED_CODECS_IN_QUORVEL codec, int packets, double frequency) {
  if (codec == eCodecG722) {
    sGWBEncode_t encoder;
    myGWB.encodeInit(&encoder, 64000);
    const auto samples = tone(packets * 320, 16000, frequency);
    std::string out(samples.size() / 2, '\0');
    myGWB.encode(&encoder, out.data(), samples.data(), static_cast<int>(samples.size()));
    return out;
  }
  std::string out;
  for (const std::int16_t sample : tone(packets * 160, 8000, frequency))
    out += static_cast<char>(codec == eCodecPCMA ? linear2alaw(sample) : linear2ulaw(sample));
  return out;
}

std::vector<std::int16_t> decodeAll(SUPPORTED_CODECS_IN_QUORVEL codec, const std::string& bytes) {
  std::vector<std::int16_t> out(codec == eCodecG722 ? bytes.size() * 2 : bytes.size());
  if (codec == eCodecG722) {
    sGWBDecode_t decoder;
    myGWB.decodeInit(&decoder, 64000);
    myGWB.decode(&decoder, out.data(), bytes.data(), static_cast<int>(bytes.size()));
  } else {
    std::transform(bytes.begin(), bytes.end(), out.begin(), [codec](char code) {
      const auto byte = static_cast<unsigned char>(code);
      return codec == eCodecPCMA ? alaw2linear(byte) : ulaw2linear(byte);
    });
  }
  return out;
}

TEST_F(PacketPathTest, ToneKeepsItsLevelThroughEveryPairOfCodecs) {
  constexpr int kPackets = 30;
  // The second list decides the codec that is sent; the pair runs at 16 kHz only when both hold G.722.
  const struct {
    Codecs fromCodecs, toCodecs;
    int sampleRate;
    double frequency;
  } cases[] = {{{eCodecG722}, {eCodecPCMA}, 8000, 1000},
               {{eCodecPCMU}, {eCodecG722}, 8000, 1000},
               {{eCodecG722}, {eCodecG722}, 16000, 5500},
               {{eCodecPCMA, eCodecG722}, {eCodecG722}, 16000, 1000},
               {{eCodecG722}, {eCodecPCMU, eCodecG722}, 16000, 1000}};
  for (const auto& [fromCodecs, toCodecs, sampleRate, frequency] : cases) {
    const auto from = *fromCodecs.begin();
    const auto to = *toCodecs.begin();
    SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to) + " at " + std::to_string(sampleRate));
    Call call(fromCodecs, toCodecs, "tone");
    ASSERT_GE(call.open(), 0);
    EXPECT_EQ(call.record().iSampleRate, sampleRate);
    const std::string in = encodeTone(from, kPackets, frequency);
    std::string out;
    for (int i = 0; i < kPackets; ++i) {
      ASSERT_EQ(call.pass(0, packetOf(from, 1 + i, in.substr(static_cast<std::size_t>(i) * 160, 160))), 0);
      const std::string packet = call.heardBy(1);
      EXPECT_EQ(packet[1], kCodecRows[to].iPayloadType);
      out += payloadOf(packet);
    }
    ASSERT_EQ(out.size(), in.size());
    // Averaging neighbours costs up to 0.4 dB at 1 kHz.
    auto heard = decodeAll(to, out);
    heard.erase(heard.begin(), heard.begin() + 640);
    EXPECT_NEAR(level(heard, to == eCodecG722 ? 16000 : 8000, frequency), 8000, 500);
    call.close();
  }
}

TEST(RateConversionTest, DoublingPutsMeansBetweenAndHalvingTakesMeans) {
  std::int16_t samples[8] = {100, -101, 32767, -32768, 0, 0, 0, 0};
  duplicateNumberOfSamples(samples, 4);
  const std::int16_t doubled[8] = {100, 100, -1, -101, 16333, 32767, -1, -32768};
  EXPECT_TRUE(std::equal(std::begin(samples), std::end(samples), std::begin(doubled)));
  divideNumberOfSamples(samples, 8);
  const std::int16_t halved[4] = {100, -51, 24550, -16385};
  EXPECT_TRUE(std::equal(std::begin(halved), std::end(halved), std::begin(samples)));
}

// ---- Checks ----

TEST_F(PacketPathTest, MalformedPacketsAreDroppedWithAWarningEach) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_GE(call.open(), 0);
  const std::string good = Packet{}.bytes();
  const auto withFirstByte = [&](int byte) {
    std::string packet = good;
    packet[0] = static_cast<char>(byte);
    return packet;
  };
  const std::pair<std::string, const char*> cases[] = {{"", "packet is too short (0)"},
                                                       {"\x80", "packet is too short (1)"},
                                                       {good.substr(0, 11), "packet is too short (11)"},
                                                       {withFirstByte(0x00), "version not 2"},
                                                       {withFirstByte(0x40), "version not 2"},
                                                       {withFirstByte(0xC0), "version not 2"},
                                                       {withFirstByte(0xA0), "there is padding"},
                                                       {withFirstByte(0x90), "there is extension"},
                                                       {withFirstByte(0x8F), "there is contribution source"}};
  for (const auto& [datagram, warning] : cases) {
    installation.clearLog();
    EXPECT_EQ(call.pass(0, datagram), 1);
    EXPECT_EQ(installation.logCount(" WARNING in MyRtp::parseAndSendRtpMsg, " + std::string(warning)), 1)
        << warning;
  }
  EXPECT_TRUE(call.silent(1));
  EXPECT_EQ(call.record().iPacketsReceived[0], 0);
  EXPECT_EQ(call.pass(0, good.substr(0, 12)), 0);
  EXPECT_EQ(call.heardBy(1).size(), 12U);
}

TEST_F(PacketPathTest, PayloadTypesThatWereNotNegotiatedPassUntouched) {
  Call call({eCodecPCMU}, {eCodecPCMA});
  ASSERT_GE(call.open(), 0);
  Packet comfortNoise;
  comfortNoise.payloadType = 13;
  comfortNoise.payload = "\x40";
  std::string withExtension = comfortNoise.bytes();
  withExtension[0] = '\x9F';
  for (const std::string& datagram : {comfortNoise.bytes(), withExtension}) {
    EXPECT_EQ(call.pass(0, datagram), 0);
    EXPECT_EQ(call.heardBy(1), datagram);
  }
  EXPECT_EQ(call.record().iPacketsReceived[0], 0);
}

// A key press of a phone that goes on sending audio meanwhile must not look like a broken line.
TEST_F(PacketPathTest, EventsTakeTheirPlaceInTheOrderOfTheAudio) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_GE(call.open(), 0);
  const std::tuple<int, bool, std::vector<int>> all[] = {
      {1, false, {1}}, {2, true, {2}}, {3, false, {3}},   {4, true, {4}},   {5, true, {5}},
      {6, false, {6}}, {8, false, {}}, {7, true, {7, 8}}, {10, true, {10}}, {9, false, {9}}};
  for (const auto& [sequence, isEvent, heard] : all) {
    SCOPED_TRACE(sequence);
    Packet packet;
    packet.sequence = sequence;
    if (isEvent) packet.payloadType = kTelephoneEventPT;
    ASSERT_EQ(call.pass(0, packet), 0);
    for (const int next : heard) EXPECT_EQ(sequenceOf(call.heardBy(1)), next);
  }
  // Of another source, an event is no part of the stream.
  Packet stray;
  stray.payloadType = kTelephoneEventPT;
  stray.sequence = 10;
  stray.ssrc = 9;
  ASSERT_EQ(call.pass(0, stray), 0);
  EXPECT_EQ(call.record().iLastSeq[0], 9);
  EXPECT_EQ(call.record().iPacketsLost[0], 0);
  EXPECT_EQ(call.record().iJitterSum[0], 0);
}

// ---- Order ----

struct OrderCase {
  const char* name;
  std::vector<Packet> in;
  std::vector<int> out;
  int lost;
};

Packet at(int sequence, bool marker = false, std::uint32_t ssrc = 0x11223344) {
  Packet packet;
  packet.sequence = sequence;
  packet.timestamp = static_cast<std::uint32_t>(sequence) * 160;
  packet.marker = marker;
  packet.ssrc = ssrc;
  return packet;
}

std::vector<Packet> packets(std::initializer_list<int> sequences) {
  std::vector<Packet> result;
  for (const int sequence : sequences) result.push_back(at(sequence));
  return result;
}

TEST_F(PacketPathTest, OrderIsRestoredOverAtMostFourWaitingPackets) {
  const OrderCase cases[] = {
      {"in order", packets({5, 6, 7}), {5, 6, 7}, 0},
      {"swapped", packets({5, 7, 6, 8}), {5, 6, 7, 8}, 0},
      {"reversed behind a gap", packets({1, 5, 4, 3, 2, 6}), {1, 2, 3, 4, 5, 6}, 0},
      {"four wait for one", packets({99, 101, 102, 103, 104}), {99}, 0},
      {"the fifth ends the wait",
       packets({99, 100, 102, 103, 104, 105, 106, 101}),
       {99, 100, 102, 103, 104, 105, 106, 101},
       1},
      {"a wide gap is one loss",
       packets({1, 100, 101, 102, 103, 104, 105}),
       {1, 100, 101, 102, 103, 104, 105},
       1},
      {"two gaps in the buffer", packets({1, 10, 20, 21, 22, 23}), {1, 10}, 1},
      {"duplicate of a waiting packet", packets({1, 3, 3, 2, 4}), {1, 2, 3, 4}, 0},
      {"duplicate of the last sent one", packets({1, 2, 2, 3}), {1, 2, 2, 3}, 0},
      {"wrap of the numbers", packets({65534, 65535, 0, 1}), {65534, 65535, 0, 1}, 0},
      {"wrap flushes what waits", packets({65533, 65535, 0, 1}), {65533, 65535, 0, 1}, 1},
      {"marker flushes what waits", {at(1), at(3), at(4), at(10, true), at(11)}, {1, 3, 4, 10, 11}, 1},
      {"new source flushes what waits",
       {at(1), at(3), at(500, false, 9), at(501, false, 9)},
       {1, 3, 500, 501},
       1},
      {"late packet starts anew", {at(50), at(51), at(40), at(41)}, {50, 51, 40, 41}, 0},
  };
  for (const OrderCase& c : cases) {
    SCOPED_TRACE(c.name);
    Call call({eCodecPCMU}, {eCodecPCMU}, c.name);
    ASSERT_GE(call.open(), 0);
    for (const Packet& packet : c.in) ASSERT_EQ(call.pass(0, packet), 0);
    std::vector<int> heard;
    for (std::size_t i = 0; i < c.out.size(); ++i) heard.push_back(sequenceOf(call.heardBy(1)));
    EXPECT_EQ(heard, c.out);
    EXPECT_TRUE(call.silent(1));
    EXPECT_EQ(call.record().iPacketsLost[0], c.lost);
    EXPECT_EQ(call.record().iPacketsReceived[0], static_cast<int>(c.in.size()));
    call.close();
  }
}

TEST_F(PacketPathTest, PacketThatFailsIsLostAndThoseBehindItAreNot) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  ASSERT_GE(call.open(), 0);
  int failing = 0;
  FakeEngine::get().onFrame = [&] {
    if (failing-- > 0) throw 1;
  };
  const auto pass = [&](const Packet& packet, bool fails) {
    failing = fails ? 1 : 0;
    std::string datagram = packet.bytes();
    datagram.resize(kMessageBufferBytes);
    EXPECT_EQ(myRtp.analyzeRtpMsg(0, call.pair, datagram.data(), static_cast<int>(packet.bytes().size())), 0);
  };
  pass(at(1), false);
  pass(at(2), true);
  for (const int sequence : {4, 5, 6}) pass(at(sequence), false);
  pass(at(7, true), true);  // flushes 4, which fails, 5 and 6
  pass(at(8), false);
  std::vector<int> heard;
  for (int i = 0; i < 5; ++i) heard.push_back(sequenceOf(call.heardBy(1)));
  EXPECT_EQ(heard, (std::vector<int>{1, 5, 6, 7, 8}));
  EXPECT_EQ(installation.logCount("analyzeRtpMsg, exception caught"), 1);
  EXPECT_EQ(installation.logCount("processJitterBuffer, exception caught"), 1);
  EXPECT_EQ(call.record().iJitterCount[0], 0);
}

// ---- The engine's place in the path ----

struct EngineCase {
  const char* name;
  int cleaningType;
  int noise;
  int echo;
  int factor0;  // what becomes of a sample from side 0 and from side 1, in halves
  int factor1;
};

TEST_F(PacketPathTest, FramesPassTheChannelsThatTheCallAsksFor) {
  const EngineCase cases[] = {{"none", 0, 1, 1, 2, 2},          {"noise 0", 1, 1, 0, 1, 2},
                              {"noise 1", 2, 1, 0, 2, 1},       {"echo 0", 1, 0, 1, -2, 2},
                              {"both kinds 1", 2, 1, 1, 2, -1}, {"everything", 3, 1, 1, -1, -1}};
  for (const EngineCase& c : cases) {
    SCOPED_TRACE(c.name);
    iNeedToDoNoiseCancellation = c.noise;
    iNeedToDoAEC = c.echo;
    Call call({eCodecPCMU}, {eCodecPCMU}, c.name);
    call.request.iCleaningType = c.cleaningType;
    ASSERT_GE(call.open(), 0);
    for (int side = 0; side < 2; ++side) {
      constexpr int kLevel = 1052;  // with its half, exact in mu-law
      const std::string payload(160, static_cast<char>(linear2ulaw(kLevel)));
      ASSERT_EQ(call.pass(side, packetOf(eCodecPCMU, 1, payload)), 0);
      const std::string heard = payloadOf(call.heardBy(1 - side));
      const int factor = side == 0 ? c.factor0 : c.factor1;
      EXPECT_EQ(ulaw2linear(static_cast<unsigned char>(heard[80])) / 16, kLevel * factor / 2 / 16) << side;
      // Five frames went into the other side's echo canceller where it runs.
      EXPECT_EQ(FakeEngine::get().spkFrames[static_cast<std::size_t>(2 * call.pair + 1 - side)],
                call.record().bAecMic[1 - side] ? 5 : 0);
    }
    call.close();
    FakeEngine::reset();
  }
}

TEST_F(PacketPathTest, ChannelsAreInitialisedFromTheSettings) {
  iNeedToDoAEC = 1;
  iAECTailType = -58;
  iCNGEndValue = 22;
  iAECMinOutputPercentageDuringEcho = 33;
  struct Case {
    const char* algorithm;
    int number;
    int delayCycles;
    int talkHold;
    int minOutput;
  };
  for (const Case& c : {Case{"basic", 0, 0, 4000, 0}, Case{"advanced-4", 4, 2, 2000, 33},
                        Case{"advanced", 7, 2, 2000, 33}, Case{"advanced-7", 7, 2, 2000, 33}}) {
    SCOPED_TRACE(c.algorithm);
    ASSERT_TRUE(pcAECAlgorithm.assign(c.algorithm));
    iStartWithFilterActivated = c.number == 4 ? 0 : 1;
    Call call({eCodecG722}, {eCodecG722}, c.algorithm);
    call.request.iCleaningType = 2;
    ASSERT_GE(call.open(), 0);
    EXPECT_FALSE(FakeEngine::get().noise[0].bRunning);
    const sKestrovaInit& noise = FakeEngine::get().noise[1].sInit;
    EXPECT_EQ(noise.iSampleRate, 16000);
    EXPECT_EQ(noise.sFrameUnits, 1);
    EXPECT_EQ(noise.sCNGEndValue, 22);
    EXPECT_EQ(noise.bStartBypassed, c.number == 4 ? 1 : 0);
    const sKestrovaInit& echo = FakeEngine::get().echo[1].sInit;
    EXPECT_EQ(echo.sAecAlgorithm, c.number);
    EXPECT_EQ(echo.sMaxNumCyclesInDelayBuffer, c.delayCycles);
    EXPECT_EQ(echo.iAecTalkHoldSamples, c.talkHold);
    EXPECT_EQ(echo.sMinOutputPercentDuringEcho, c.minOutput);
    EXPECT_EQ(echo.sAecTailType, -58);
    EXPECT_EQ(echo.bRemoveNonSelfFrequencies, 1);
    EXPECT_EQ(echo.bStartBypassed, c.number == 4 ? 1 : 0);
    call.close();
  }
}

}  // namespace
