// Anything may arrive on the sockets: it is logged or dropped, and calls go on.
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
      ASSERT_TRUE(quorvel->ready());
    }
  }

  void drain(LoopbackPeer& peer) {
    while (peer.receive(std::chrono::milliseconds(50)).has_value()) continue;
  }

  int thrown = 0;
};

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
        ASSERT_TRUE(quorvel->ready());
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
