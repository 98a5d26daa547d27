// Memory that is taken for a packet or a message while calls come and go: none.
#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include "app/config/Settings.h"
#include "rtp/MyRtp.h"
#include "tests/sip/SipFixture.h"
#include "tests/support/AllocationCount.h"

namespace {

// How often this thread takes some meanwhile.
template <typename Work>
long allocationsOf(Work work) {
  const AllocationCount count;
  work();
  return count.taken();
}

struct Lane {
  const char* name;
  SUPPORTED_CODECS_IN_QUORVEL from, to;
  int processing;
  const char* command = "";  // of the caller's keys, at the start
};

void PrintTo(const Lane& lane, std::ostream* out) {
  *out << lane.name;
}

class PacketAllocationTest : public ::testing::TestWithParam<Lane> {
 protected:
  static constexpr int kWarmUp = 300, kCounted = 500;  // packets of 20 ms

  PacketAllocationTest() {
    iNumCallsToFilter = 1;
    iNeedToDoNoiseCancellation = iNeedToDoAEC = 1;
    iNeedToCheckDTMF = 1;
    pcSipUAIPForBinding.assignCut("127.0.0.1");
    EXPECT_TRUE(pcAECAlgorithm.assign("advanced") && pcDTMFRegisterPrefix.assign("*1") &&
                pcDTMFSuffix.assign("#") &&
                pcRegistrationLibrary.assign((installation.bin() / "voice-").string()));
    EXPECT_EQ(myRtp.init(), 0);
  }

  static CodecList listOf(SUPPORTED_CODECS_IN_QUORVEL codec) {
    CodecList list;
    list[0].eCodec = codec;
    list[0].iPayloadType = kCodecRows[codec].iPayloadType;
    return list;
  }

  // The far ends have the null address: what is sent goes nowhere.
  static int open(const Lane& lane) {
    const std::array<CodecList, 2> codecs{listOf(lane.from), listOf(lane.to)};
    const int port = LoopbackPeer::freePortPair(), other = LoopbackPeer::freePortPair();
    sSessionPairRequest request;
    request.iCleaningType = lane.processing;
    request.pcTelephoneEventPT = "101";
    for (std::size_t side = 0; side < 2; ++side) {
      sSessionPairLeg& leg = request.sLeg[static_cast<int>(side)];
      leg.pcCallID = side == 0 ? "caller" : "callee";
      leg.iLocalRtpPort = side == 0 ? port : other;
      leg.iRemoteRtpPort = 9;
      leg.pcRemoteIP = "0.0.0.0";
      leg.iNumCodecs = 1;
      leg.psCodecs = &codecs[side];
    }
    return myRtp.openSessionPair(request);
  }

  void pass(int pair, int side, int payloadType, std::string_view payload) {
    const auto count = static_cast<unsigned>(number);
    const std::array words{0x80U << 24U | static_cast<unsigned>(payloadType) << 16U | (count & 0xFFFFU),
                           160U * count, 0x01020304U};
    std::array<char, kMessageBufferBytes> buffer{};
    for (std::size_t i = 0; i < 12; ++i) buffer[i] = static_cast<char>(words[i / 4] >> (24 - 8 * (i % 4)));
    std::copy(payload.begin(), payload.end(), buffer.begin() + 12);
    myRtp.analyzeRtpMsg(side, pair, buffer.data(), 12 + static_cast<int>(payload.size()));
  }
  void talk(int pair, int side, SUPPORTED_CODECS_IN_QUORVEL codec) {
    std::array<char, 160> noise;
    for (char& byte : noise) byte = static_cast<char>(std::rand());
    pass(pair, side, kCodecRows[codec].iPayloadType, {noise.data(), noise.size()});
  }
  void press(int pair, std::string_view keys) {
    constexpr std::string_view kEvents = "0123456789*#";
    for (const char key : keys)
      pass(pair, 0, 101, std::string{static_cast<char>(kEvents.find(key)), '\x8A', '\x01', '\x90'});
  }
  static void report(int pair, int side) {
    const std::array<char, 28> receiverReport{'\x81', '\xC9', 0, 6};
    myRtp.analyzeRtcpMsg(side, pair, receiverReport.data(), static_cast<int>(receiverReport.size()));
  }

  TestInstallation installation;
  int number = 1;
};

TEST_P(PacketAllocationTest, NoPacketTakesMemory) {
  const Lane& lane = GetParam();
  const int pair = open(lane);
  ASSERT_GE(pair, 0) << installation.log();
  const auto converse = [&](int packets) {
    for (; packets > 0; --packets, ++number) {
      talk(pair, 0, lane.from);
      talk(pair, 1, lane.to);
      if (number % 50 != 0) continue;
      report(pair, 0);
      press(pair, "5*");  // no command: one restarts channels, which takes memory as a call's start does
    }
  };
  press(pair, lane.command);
  converse(kWarmUp);
  EXPECT_EQ(allocationsOf([&] { converse(kCounted); }), 0);
  EXPECT_GT(myRtp.psPairs[pair].iPacketsReceived[0], kCounted);
  EXPECT_EQ(myRtp.psPairs[pair].bRegistering[0], *lane.command != '\0') << installation.log();
  EXPECT_EQ(myRtp.closeSessionPair("caller", ""), pair);
}

INSTANTIATE_TEST_SUITE_P(Lanes, PacketAllocationTest,
                         ::testing::Values(Lane{"Passed", eCodecPCMU, eCodecPCMU, 0},
                                           Lane{"Recoded", eCodecPCMU, eCodecPCMA, 0},
                                           Lane{"Wideband", eCodecG722, eCodecPCMA, 0},
                                           Lane{"Processed", eCodecPCMU, eCodecPCMA, 3},
                                           Lane{"ProcessedWideband", eCodecG722, eCodecG722, 3},
                                           Lane{"Learning", eCodecPCMU, eCodecPCMU, 1, "*15#"}),
                         [](const auto& row) { return std::string(row.param.name); });

class MessageAllocationTest : public SipFixture {
 protected:
  // What the engine takes to handle what waits.
  long handled(const LoopbackPeer& from, const std::string& message) {
    from.sendTo(iSipPort, message);
    return allocationsOf([&] { process(); });
  }
  // A phone registers and subscribes through us, and the PBX challenges it.
  void phoneRequests(int number, std::map<std::string, long>& taken) {
    for (const std::string method : {"REGISTER", "SUBSCRIBE"})
      for (const std::string status : {"401 Unauthorized", "200 OK"}) {
        sip_text::Request request = invite;
        request.method = method;
        request.callId = method + "@phone";
        request.to = request.from;
        request.contact = "<sip:100@127.0.0.1:" + std::to_string(caller.port()) + ">";
        request.cseq = 2 * number + (status == "200 OK" ? 1 : 0);
        request.extraHeaders = "Event: dialog\r\nExpires: 60\r\nAuthorization: Digest x\r\n";
        request.sdp.clear();
        taken[method] += handled(caller, sip_text::build(request));
        taken[status + " for " + method] =
            handled(pbx, sip_text::respond(atPbx(), status, "pbx",
                                           "WWW-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n"));
        EXPECT_TRUE(sip_text::firstLine(atCaller()).starts_with("SIP/2.0 " + status.substr(0, 3)));
      }
  }
};

TEST_F(MessageAllocationTest, CallsTakeNoMemoryOnceThereHasBeenOne) {
  ASSERT_GT(allocationsOf([] { std::fclose(std::fopen("/dev/null", "r")); }), 0) << "nothing is counted";
  iSipProxyArchitecture = 1;
  start();
  const std::string contact = "Contact: <sip:200@127.0.0.1:" + std::to_string(pbx.port()) + ">\r\n";
  const std::string sdp = sip_text::sdp(LoopbackPeer::freePortPair(), "0");
  for (int number = 0; number < 5; ++number) {
    int cseq = 1;
    invite.callId = "call-" + std::to_string(number);
    invite.branch = "z9hG4bKinvite" + std::to_string(number);
    std::map<std::string, long> taken;
    taken["INVITE"] = handled(caller, inviteText());
    const std::string relayed = atPbx();
    taken["180"] = handled(pbx, sip_text::respond(relayed, "180 Ringing", "bob"));
    atCaller();
    taken["200"] = handled(pbx, sip_text::respond(relayed, "200 OK", "bob", contact, sdp));
    callerAnswer = atCaller();
    taken["ACK"] = handled(caller, callerRequest("ACK", 1));
    atPbx();
    for (const auto& [method, headers] :
         {std::pair{"INVITE", ""}, {"REFER", "Refer-To: <sip:3@b>\r\n"}, {"NOTIFY", "Event: refer\r\n"}}) {
      sip_text::Request request = invite;
      request.method = method;
      request.to = sip_text::header(callerAnswer, "To");
      request.cseq = ++cseq;
      request.extraHeaders = headers;
      if (*headers != '\0') request.sdp.clear();
      taken[std::string(method) + " within"] = handled(caller, sip_text::build(request));
      const std::string status = request.method == "REFER" ? "202 Accepted" : "200 OK";
      const std::string answer = sip_text::respond(atPbx(), status, "", contact, request.sdp);
      taken["answer to " + request.method] = handled(pbx, answer);
      atCaller();
    }
    taken["OPTIONS"] = handled(caller, sip_text::build({.method = "OPTIONS", .viaPort = caller.port()}));
    atCaller();
    taken["BYE"] = handled(caller, callerRequest("BYE", ++cseq));
    taken["200 for BYE"] = handled(pbx, sip_text::respond(atPbx(), "200 OK"));
    atCaller();
    phoneRequests(number, taken);
    // The first call's thread gets its stack's books from the C library.
    if (number == 0) continue;
    for (const auto& [message, count] : taken) EXPECT_EQ(count, 0) << message << " of call " << number;
  }
}

// The PBX challenges, sends the call elsewhere, and the caller gives up.
TEST_F(MessageAllocationTest, RefusedCallsTakeNoMemoryOnceThereHasBeenOne) {
  start();
  const std::string elsewhere = "Contact: <sip:300@127.0.0.1:" + std::to_string(pbx.port()) + ">\r\n";
  for (int number = 0; number < 5; ++number) {
    invite.callId = "refused-" + std::to_string(number);
    invite.branch = "z9hG4bKrefused" + std::to_string(number);
    std::map<std::string, long> taken;
    taken["INVITE"] = handled(caller, inviteText());
    using Refusal = std::pair<std::string, std::string>;
    const std::string challenge = "Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n";
    const Refusal challenged = number % 2 == 0
                                   ? Refusal{"401 Unauthorized", "WWW-" + challenge}
                                   : Refusal{"407 Proxy Authentication Required", "Proxy-" + challenge};
    for (const auto& [status, headers] : {challenged, Refusal{"302 Moved Temporarily", elsewhere}}) {
      taken[status] = handled(pbx, sip_text::respond(atPbx(), status, "pbx", headers));
      EXPECT_TRUE(sip_text::firstLine(atPbx()).starts_with("ACK "));
    }
    const std::string moved = atPbx();
    taken["180"] = handled(pbx, sip_text::respond(moved, "180 Ringing", "bob"));
    atCaller();
    taken["CANCEL"] = handled(caller, callerRequest("CANCEL", 1));
    taken["200 for CANCEL"] = handled(pbx, sip_text::respond(atPbx(), "200 OK", "bob"));
    atCaller();
    taken["487"] = handled(pbx, sip_text::respond(moved, "487 Request Terminated", "bob"));
    atCaller();
    taken["ACK"] = handled(caller, callerRequest("ACK", 1));
    atPbx();
    for (const auto& [message, count] : taken)
      EXPECT_TRUE(number == 0 || count == 0) << count << " for " << message << " of call " << number;
  }
  EXPECT_EQ(sip->numActiveCalls(), 0) << installation.log();
}

}  // namespace
