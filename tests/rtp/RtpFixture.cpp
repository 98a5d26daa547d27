#include "tests/rtp/RtpFixture.h"

#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "app/config/Settings.h"

namespace {

void putNumber(std::string& out, std::uint32_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>(value >> (8 * i));
}

// A peer's RTP socket with its RTCP socket on the next port.
void bindPeer(Call& call, int side) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    try {
      const int port = LoopbackPeer::freePortPair();
      call.rtp[side] = std::make_unique<LoopbackPeer>(port);
      call.rtcp[side] = std::make_unique<LoopbackPeer>(port + 1);
      return;
    } catch (const std::runtime_error&) {
      call.rtp[side].reset();
    }
  }
  throw std::runtime_error("no ports for a peer");
}

}  // namespace

std::string Packet::bytes() const {
  std::string out;
  out += '\x80';
  out += static_cast<char>((marker ? 0x80 : 0) | payloadType);
  putNumber(out, static_cast<std::uint32_t>(sequence), 2);
  putNumber(out, timestamp, 4);
  putNumber(out, ssrc, 4);
  return out + payload;
}

int sequenceOf(const std::string& packet) {
  if (packet.size() < 4) return -1;
  return static_cast<unsigned char>(packet[2]) << 8 | static_cast<unsigned char>(packet[3]);
}

std::string payloadOf(const std::string& packet) {
  return packet.size() < 12 ? std::string("<no packet>") : packet.substr(12);
}

CodecList codecList(Codecs codecs) {
  CodecList list;
  std::size_t count = 0;
  for (const SUPPORTED_CODECS_IN_QUORVEL codec : codecs) {
    list[count].eCodec = codec;
    list[count++].iPayloadType = kCodecRows[codec].iPayloadType;
  }
  return list;
}

Call::Call(Codecs codecs0, Codecs codecs1, const std::string& label) {
  const Codecs lists[2] = {codecs0, codecs1};
  for (int side = 0; side < 2; ++side) {
    bindPeer(*this, side);
    callId[side] = label + "-leg" + std::to_string(side);
    name[side] = side == 0 ? "alice@127.0.0.1" : "bob@127.0.0.1";
    codecs[side] = codecList(lists[side]);
    sSessionPairLeg& leg = request.sLeg[side];
    leg.pcCallID = callId[side].c_str();
    leg.iLocalRtpPort = LoopbackPeer::freePortPair();
    leg.iRemoteRtpPort = rtp[side]->port();
    leg.pcRemoteIP = "127.0.0.1";
    leg.iNumCodecs = static_cast<int>(lists[side].size());
    leg.psCodecs = &codecs[side];
    leg.pcPartyName = name[side].c_str();
    leg.iNonAudioPort = -1;
  }
  request.pcTelephoneEventPT = " 101";
}

int Call::pass(int side, const std::string& datagram) const {
  std::array<char, kMessageBufferBytes> buffer;
  std::memcpy(buffer.data(), datagram.data(), datagram.size());
  return myRtp.parseAndSendRtpMsg(side, pair, buffer.data(), static_cast<int>(datagram.size()));
}

RtpTest::RtpTest() {
  FakeEngine::reset();
  iNumCallsToFilter = 8;
  iCPUPower = 5;
  iNeedToDoNoiseCancellation = 1;
  iNeedToDoAEC = 0;
  iStartWithFilterActivated = 1;
  EXPECT_TRUE(pcSipUAIPForBinding.assign("127.0.0.1"));
  EXPECT_TRUE(pcAECAlgorithm.assign("advanced"));
  for (SettingPath* path : {&pcStatisticsFile, &pcOrigRecordingLibrary, &pcCleanRecordingLibrary,
                            &pcDTMFOKToneFile, &pcDTMFFailToneFile}) {
    path->clear();
  }
  EXPECT_EQ(myRtp.init(), 0);
}

RtpTest::~RtpTest() {
  for (int pair = 0; pair <= myRtp.iMaxPairIndex; ++pair) {
    if (!myRtp.psPairs[pair].bInUse) continue;
    const std::string callId(myRtp.psPairs[pair].pcCallID[0].view());
    myRtp.closeSessionPair(callId.c_str(), callId.c_str());
  }
  myRtp.finishEndings();
  Clock::followSystem();
}

void RtpTest::initWithKeys() {
  EXPECT_TRUE(pcDTMFRegisterPrefix.assign("*1"));
  EXPECT_TRUE(pcDTMFActivatePrefix.assign("*2"));
  EXPECT_TRUE(pcDTMFSuffix.assign("#"));
  EXPECT_TRUE(pcDTMFDisable.assign("*9"));
  EXPECT_TRUE(pcRegistrationLibrary.assign((installation.bin() / "voice-").string()));
  EXPECT_TRUE(pcDTMFOKToneFile.assign(installation.write("ok", std::string(400, '\x10'))));
  EXPECT_TRUE(pcDTMFFailToneFile.assign(installation.write("fail", std::string(800, '\x20'))));
  EXPECT_EQ(myRtp.init(), 0);
}

bool RtpTest::eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 400; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}
