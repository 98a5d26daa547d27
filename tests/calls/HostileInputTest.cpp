// Anything may arrive on the sockets: it is logged or dropped, and calls go on.
#include <random>

#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

namespace {

// Kilobytes that a process may grow by. The sanitizers keep freed memory for a while and count every access.
long allowedGrowth() {
  return QuorvelProcess::isSanitized() ? 64 * 1024 : 512;
}

class HostileInputTest : public TalkFixture {
 protected:
  // Sends, and lets the process drain its receive buffer from time to time.
  void throwAt(int port, const std::string& datagram) {
    caller.sendTo(port, datagram);
    if (++thrown % 50 == 0) {
      ASSERT_TRUE(alive());
    }
  }

  // Answers OPTIONS, with the answers to whatever was sent before skipped.
  bool alive() {
    LoopbackPeer asker;
    asker.sendTo(ports.sip(), sip_text::build({.method = "OPTIONS", .viaPort = asker.port()}));
    return asker.receive(std::chrono::seconds(5)).has_value();
  }

  void drain(LoopbackPeer& peer) {
    while (peer.receive(std::chrono::milliseconds(50)).has_value()) continue;
  }

  std::mt19937 random{20240229};
  int thrown = 0;
};

TEST_F(HostileInputTest, CutAndBrokenSipMessages) {
  start({{"SipDebug", "0"}, {"NumPhonesToAllocate", "4"}});
  const std::string whole = invite(77, "0 8 101");
  for (std::size_t length = 1; length < whole.size(); length += 3)
    throwAt(ports.sip(), whole.substr(0, length));
  for (std::size_t at = 0; at < whole.size(); at += 7) {
    std::string broken = whole;
    broken[at] = '\0';
    throwAt(ports.sip(), broken);
  }
  const std::string long999(999, 'x');
  for (const char* name : {"Via: ", "To: <sip:", "From: ", "Call-ID: ", "CSeq: ", "Contact: <sip:"}) {
    for (const std::size_t size : {49U, 50U, 99U, 100U, 199U, 200U, 999U, 1000U})
      throwAt(ports.sip(), sip_text::replaced(whole, "\r\n" + std::string(name),
                                              "\r\n" + std::string(name) + std::string(size, 'x')));
  }
  for (const std::size_t size : {2998U, 2999U, 3000U, 3001U, 9000U, 60000U})
    throwAt(ports.sip(), whole + std::string(size - std::min(size, whole.size()), 'y'));
  std::uniform_int_distribution<int> byte(0, 255);
  for (int count = 0; count < 300; ++count) {
    std::string noise(static_cast<std::size_t>(1 + count * 10), '\0');
    for (char& character : noise) character = static_cast<char>(byte(random));
    throwAt(ports.sip(), noise);
  }
  ASSERT_TRUE(alive());
  drain(caller);
  drain(callee);
}

TEST_F(HostileInputTest, MemoryStaysFlatAndANormalCallWorksAfterwards) {
  start({{"SipDebug", "0"}, {"NumCallsToFilter", "100"}});
  const std::string whole = invite(78);
  const auto round = [&] {
    for (std::size_t length = 1; length < whole.size(); length += 2)
      throwAt(ports.sip(), whole.substr(0, length));
    drain(callee);
    drain(caller);
    for (int number = 1000; number < 1020; ++number) {  // refused calls from the beginning to the end
      toQuorvel(caller, invite(number));
      const std::string received = expect(callee, "INVITE ");
      toQuorvel(callee, sip_text::respond(received, "603 Decline", "bob"));
      toQuorvel(caller, inDialog("ACK", 1, expect(caller, "SIP/2.0 603 "), number));
      expect(callee, "ACK ");
    }
  };
  round();
  const long before = quorvel->process().residentKilobytes();
  for (int again = 0; again < 5; ++again) round();
  EXPECT_LT(quorvel->process().residentKilobytes() - before, allowedGrowth());
  hangUp(setUp());
}

TEST_F(HostileInputTest, BrokenRtpDisturbsNothing) {
  start();
  LoopbackPeer callerMedia(ports.media(0));
  LoopbackPeer calleeMedia(ports.media(1));
  const Call call = setUp();
  const int towardsCaller = ports.relay();
  for (std::size_t length = 0; length <= 60; ++length) {
    for (const char first : {'\x80', '\x00', '\x40', '\xA0', '\x90', '\x8F', '\xFF'}) {
      for (const char payloadType : {'\x00', '\x08', '\x09', '\x65', '\xFF'}) {
        std::string packet(length, '\x55');
        if (length > 0) packet[0] = first;
        if (length > 1) packet[1] = payloadType;
        callerMedia.sendTo(towardsCaller, packet);
      }
    }
    callerMedia.sendTo(towardsCaller + 1, std::string(length, '\x81'));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  callerMedia.sendTo(towardsCaller, std::string(3000, '\x80'));
  drain(calleeMedia);

  // A packet with the marker bit starts the stream afresh; what odd lengths had left over comes out before
  // it, and the next one arrives as it was sent.
  std::string packet =
      std::string{'\x80', '\x80', '\x12', '\x34', 0, 0, 0, 0, 'Q', 'u', 'o', 'r'} + std::string(160, '\x23');
  callerMedia.sendTo(towardsCaller, packet);
  EXPECT_TRUE(calleeMedia.receive().has_value());
  packet[1] = '\0';
  packet[3] = '\x35';
  callerMedia.sendTo(towardsCaller, packet);
  EXPECT_EQ(calleeMedia.receive(), packet);
  EXPECT_TRUE(quorvel->logged("WARNING in MyRtp::parseAndSendRtpMsg, version not 2"));
  hangUp(call);
}

// More than can be served, from sources without number; half of what a flood may take in memory is there
// after its first part. The running call is listened to all the while: each packet of it is a sound of its
// own. It is waited for it now and then, so that it is not a buffer of the system's that overflows.
TEST_F(HostileInputTest, FloodsHarmNoRunningCall) {
  start({{"SipDebug", "0"}, {"SipProxyArchitecture", "1"}});
  RtpPeer first(ports.media(0)), second(ports.media(1));
  const Call call = setUp(1, "0 101");
  const int relay = RtpPeer::portIn(call.ok);
  constexpr int kSounds = 100;
  int spoken = 0, heard = 0, missed = 0, late = 0;
  const auto speak = [&] {
    first.send(relay, 0, std::string(RtpPeer::kSamples, char(1 + spoken++ % kSounds)));
  };
  const auto listen = [&](std::chrono::milliseconds limit) {
    const std::string sound = second.receivePayload(limit);
    const int number = sound.empty() ? 0 : sound[0];
    if (number < 1 || number > kSounds || sound != std::string(RtpPeer::kSamples, sound[0]))
      return !sound.empty();
    const int ahead = (number - 1 - (heard + missed) % kSounds + kSounds) % kSounds;
    if (ahead > kSounds / 2) {
      ++late;
    } else {
      missed += ahead;
      ++heard;
    }
    return true;
  };
  const auto listenToAll = [&] {
    const auto isHeard = [&] { return heard + missed + late == spoken; };
    EXPECT_TRUE(eventually(
        [&] {
          while (!isHeard() && listen(std::chrono::milliseconds(20))) continue;
          return isHeard();
        },
        Seconds(5)));
  };

  const std::string foreign = std::string(8, '\0') + "alien" + std::string(159, '\x7E');
  const auto packet = [&](int number, int start, int payloadType, std::size_t length) {
    std::string bytes = foreign.substr(0, length);
    for (const auto& [at, value] : {std::pair{0U, start}, {1U, payloadType}, {2U, number >> 8}, {3U, number}})
      if (at < length) bytes[at] = static_cast<char>(value);
    return bytes;
  };
  const auto flood = [&](int from, int to) {
    for (int number = from; number < to; ++number) {
      const LoopbackPeer source;
      const std::string user = "sip:" + std::to_string(number) + "@flood.example";
      for (const char* method : {"REGISTER", "INVITE", "OPTIONS", "SUBSCRIBE", "BYE"}) {
        const bool isInvite = method[0] == 'I';
        source.sendTo(ports.sip(), sip_text::build({.method = method,
                                                    .uri = user,
                                                    .callId = user + method,
                                                    .viaPort = source.port(),
                                                    .from = "<" + user + ">;tag=f",
                                                    .to = "<" + user + ">",
                                                    .sdp = isInvite ? sip_text::sdp(9, "0") : ""}));
      }
      source.sendTo(relay, packet(number, 0x80, 0, 172));          // audio
      source.sendTo(relay, packet(number, 0x80, 101, 16));         // a telephone event
      source.sendTo(relay, packet(number, number % 256, 0, 172));  // no version, padding, sources without end
      source.sendTo(relay, packet(number, 0x80, 0, static_cast<std::size_t>(number % 12)));
      source.sendTo(relay + 1, packet(number, 0x80, 200 + number % 5, 28));  // RTCP
      speak();
      while (listen(std::chrono::milliseconds(0))) continue;
      if (number % 10 == 0) {
        listenToAll();
        ASSERT_TRUE(alive());
      }
    }
    drain(callee);
  };
  flood(0, 600);  // there is room for 500 bindings
  const long before = quorvel->process().residentKilobytes();
  flood(600, 1200);
  listenToAll();
  EXPECT_LT(quorvel->process().residentKilobytes() - before, allowedGrowth());
  EXPECT_EQ(late, 0);
  EXPECT_LE(missed, spoken / 100) << "of " << spoken;
  EXPECT_TRUE(second.isHeardBy(first, call.invite, kSteadyPcmu, kSteadyPcmu));
  drain(caller);
  hangUp(call);
}

}  // namespace
