// What either party does to a call that stands, with the sound of both directions looked at before and after:
// every packet of it is known.
#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

using sip_text::header;
using sip_text::respond;

namespace {

class MidCallTalkTest : public TalkFixture {
 protected:
  // A call between 100 and 200 who hear each other.
  void begin(const Settings& settings = {}) {
    start(settings);
    call = setUp();
    toCaller = call.ok;
    toCallee = call.invite;
    expectSound("at the beginning");
  }
  void expectSound(const std::string& when) {
    EXPECT_TRUE(callerSound.isHeardBy(calleeSound, toCaller, callerCodec, calleeCodec)) << "100, " << when;
    EXPECT_TRUE(calleeSound.isHeardBy(callerSound, toCallee, calleeCodec, callerCodec)) << "200, " << when;
  }

  // A request of either party within the call.
  std::string fromCaller(const std::string& method, int cseq, const std::string& sdp = "",
                         const std::string& extra = "") const {
    return sip_text::build({.method = method,
                            .uri = "sip:200@127.0.0.1",
                            .callId = header(call.ok, "Call-ID"),
                            .cseq = cseq,
                            .viaPort = caller.port(),
                            .branch = "z9hG4bKcaller" + std::to_string(cseq),
                            .from = header(call.ok, "From"),
                            .to = header(call.ok, "To"),
                            .contact = contact("100", caller),
                            .extraHeaders = extra,
                            .sdp = sdp});
  }
  std::string fromCallee(const std::string& method, int cseq, const std::string& sdp = "",
                         const std::string& extra = "") const {
    return sip_text::build({.method = method,
                            .uri = "sip:KestrovaPair0@127.0.0.1",
                            .callId = header(call.invite, "Call-ID"),
                            .cseq = cseq,
                            .viaPort = callee.port(),
                            .branch = "z9hG4bKcallee" + std::to_string(cseq),
                            .from = header(call.invite, "To") + ";tag=bob1",
                            .to = header(call.invite, "From"),
                            .contact = contact("200", callee),
                            .extraHeaders = extra,
                            .sdp = sdp});
  }
  static std::string contact(const std::string& user, const LoopbackPeer& at) {
    return "<sip:" + user + "@127.0.0.1:" + std::to_string(at.port()) + ">";
  }
  std::string offerOfCaller(const std::string& formats, const std::string& line = "a=sendrecv\r\n",
                            const std::string& ip = "127.0.0.1") const {
    return sip_text::sdp(ports.media(0), formats, line, ip);
  }
  std::string sdpOfCallee(const std::string& line = "a=sendrecv\r\n") const {
    return sip_text::sdp(ports.media(1), "0", line);
  }

  // The other party accepts a re-INVITE that Quorvel has passed on to it, and all that belongs to it follows.
  void callerReInvites(int cseq, const std::string& offer, const std::string& extra = "",
                       const std::string& answerLine = "a=sendrecv\r\n") {
    toQuorvel(caller, fromCaller("INVITE", cseq, offer, extra));
    toCallee = expect(callee, "INVITE sip:200@127.0.0.1");
    toQuorvel(callee, respond(toCallee, "200 OK", "", "Contact: " + contact("200", callee) + "\r\n",
                              sdpOfCallee(answerLine)));
    toCaller = expect(caller, "SIP/2.0 200 Ok\r\n");
    toQuorvel(caller, fromCaller("ACK", cseq));
    expect(callee, "ACK ");
  }
  void calleeReInvites(int cseq, const std::string& offer) {
    toQuorvel(callee, fromCallee("INVITE", cseq, offer));
    toCaller = expect(caller, "INVITE sip:100@127.0.0.1");
    toQuorvel(caller, respond(toCaller, "200 OK", "", "Contact: " + contact("100", caller) + "\r\n",
                              offerOfCaller("0")));
    toCallee = expect(callee, "SIP/2.0 200 Ok\r\n");
    toQuorvel(callee, fromCallee("ACK", cseq));
    expect(caller, "ACK ");
  }

  RtpPeer callerSound{ports.media(0)};
  RtpPeer calleeSound{ports.media(1)};
  SteadySound callerCodec = kSteadyPcmu;
  SteadySound calleeCodec = kSteadyPcmu;
  Call call;
  // The newest message with Quorvel's SDP for either.
  std::string toCaller;
  std::string toCallee;
};

TEST_F(MidCallTalkTest, HoldAndResumeFromEitherSide) {
  begin();
  int cseq = 2;
  for (const std::string hold : {"a=sendonly\r\n", "a=inactive\r\n"}) {
    SCOPED_TRACE(hold);
    callerReInvites(cseq++, offerOfCaller("0 8", hold), "", "a=recvonly\r\n");
    EXPECT_TRUE(toCallee.ends_with(hold)) << toCallee;
    callerReInvites(cseq++, offerOfCaller("0 8"));
    expectSound("after the caller has resumed");
    calleeReInvites(cseq++, sdpOfCallee(hold));
    EXPECT_TRUE(toCaller.ends_with(hold)) << toCaller;
    calleeReInvites(cseq++, sdpOfCallee());
    expectSound("after the callee has resumed");
  }
  callerReInvites(cseq++, offerOfCaller("0 8", "", "0.0.0.0"));
  EXPECT_NE(toCallee.find("c=IN IP4 0.0.0.0\r\n"), std::string::npos) << "the old way to hold";
  callerReInvites(cseq++, offerOfCaller("0 8"));
  expectSound("in the end");
  hangUp(call);
}

TEST_F(MidCallTalkTest, CodecChangesAndRefusalsLeaveWhatWasAgreed) {
  begin();
  callerReInvites(2, offerOfCaller("8"));
  callerCodec = kSteadyPcma;
  expectSound("after the caller has changed its codec");

  toQuorvel(caller, fromCaller("INVITE", 3, sip_text::sdp(ports.media(2), "0")));
  const std::string refused = expect(callee, "INVITE ");
  toQuorvel(callee, respond(refused, "488 Not Acceptable Here"));
  expect(caller, "SIP/2.0 488 Not Acceptable Here\r\n");
  expectSound("after a refusal, not yet acknowledged");
  toQuorvel(caller, fromCaller("ACK", 3));
  EXPECT_EQ(header(expect(callee, "ACK "), "Via"), header(refused, "Via")) << "late, but of that transaction";
  callerReInvites(4, offerOfCaller("8"));
  expectSound("after one that was accepted again");
}

TEST_F(MidCallTalkTest, ReInviteIsRepeatedWithTheCredentialsThatThePbxWants) {
  begin({{"SipProxyArchitecture", "1"}});
  toQuorvel(caller, fromCaller("INVITE", 2, offerOfCaller("8")));
  toQuorvel(callee, respond(expect(callee, "INVITE "), "407 Proxy Authentication Required", "",
                            "Proxy-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n"));
  EXPECT_EQ(header(expect(caller, "SIP/2.0 407 Proxy Authentication Required\r\n"), "CSeq"), "2 INVITE");
  toQuorvel(caller, fromCaller("ACK", 2));
  expect(callee, "ACK ");
  expectSound("while the caller asks its user for a password");
  callerReInvites(3, offerOfCaller("8"), "Proxy-Authorization: Digest username=\"100\",response=\"0\"\r\n");
  EXPECT_EQ(header(toCallee, "Proxy-Authorization"), "Digest username=\"100\",response=\"0\"");
  callerCodec = kSteadyPcma;
  expectSound("with the new codec");
}

// 100 talks to 200 (call 1) and to 300 (call 2) and brings them together: 200 is told to take over call 2,
// which it must be able to name.
TEST_F(MidCallTalkTest, AttendedTransferJoinsTheOtherParties) {
  begin();
  const Call second = setUp(2);
  const std::string ourTag = sip_text::tag(header(second.ok, "To"));
  toQuorvel(caller, fromCaller("REFER", 2, "",
                               "Refer-To: <sip:300@127.0.0.1?Replaces=talk-2%40127.0.0.1%3Bto-tag%3D" +
                                   ourTag + "%3Bfrom-tag%3Dalice2>\r\n"));
  const std::string refer = expect(callee, "REFER sip:200@127.0.0.1 SIP/2.0\r\n");
  const std::string pairTag = sip_text::tag(header(second.invite, "From"));
  const std::string callId = header(second.invite, "Call-ID");
  EXPECT_EQ(header(refer, "Refer-To"),
            "<sip:300@127.0.0.1?Replaces=" + sip_text::replaced(callId, "@", "%40") +
                "%3Bto-tag%3Dbob1%3Bfrom-tag%3D" + pairTag + ">");
  toQuorvel(callee, respond(refer, "202 Accepted"));
  expect(caller, "SIP/2.0 202 Accepted\r\n");

  // 200 calls and names that dialog; 300 is asked to put the new call in the place of the one that it has.
  RtpPeer transferee(ports.media(2));
  RtpPeer target(ports.media(3));
  toQuorvel(callee, sip_text::build(
                        {.uri = "sip:300@127.0.0.1",
                         .callId = "taken-over",
                         .viaPort = callee.port(),
                         .branch = "z9hG4bKtaken",
                         .from = "<sip:200@127.0.0.1>;tag=taken",
                         .to = "<sip:300@127.0.0.1>",
                         .contact = contact("200", callee),
                         .extraHeaders = "Replaces: " + callId + ";to-tag=bob1;from-tag=" + pairTag + "\r\n",
                         .sdp = sip_text::sdp(ports.media(2), "0", "a=sendrecv\r\n")}));
  const std::string taken = expect(callee, "INVITE sip:300@127.0.0.1 SIP/2.0\r\n");
  EXPECT_EQ(header(taken, "Replaces"), "talk-2@127.0.0.1;to-tag=" + ourTag + ";from-tag=alice2");
  toQuorvel(callee, respond(taken, "200 OK", "carl", "Contact: " + contact("300", callee) + "\r\n",
                            sip_text::sdp(ports.media(3), "0", "a=sendrecv\r\n")));
  const std::string answered = expect(callee, "SIP/2.0 200 Ok\r\n");
  EXPECT_TRUE(transferee.isHeardBy(target, answered, kSteadyPcmu, kSteadyPcmu));
  EXPECT_TRUE(target.isHeardBy(transferee, taken, kSteadyPcmu, kSteadyPcmu));

  const std::string progress = fromCallee("NOTIFY", 9, "",
                                          "Event: refer;id=2\r\nSubscription-State: terminated\r\n"
                                          "Content-Type: message/sipfrag\r\n");
  toQuorvel(callee, sip_text::withLength(progress + "SIP/2.0 200 OK"));
  const std::string told = expect(caller, "NOTIFY sip:100@127.0.0.1 SIP/2.0\r\n");
  EXPECT_EQ(header(told, "Event") + sip_text::body(told), "referSIP/2.0 200 OK");
  toQuorvel(caller, respond(told, "200 OK"));
  EXPECT_EQ(header(expect(callee, "SIP/2.0 200 OK\r\n"), "CSeq"), "9 NOTIFY");
  expectSound("in the first call, which 100 has still to end");
}

}  // namespace
