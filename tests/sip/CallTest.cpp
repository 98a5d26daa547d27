// Calls as transcripts: what goes in on one leg, what comes out on the other.
#include <gtest/gtest.h>
#include <string>

#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "tests/sip/MidCallFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

class CallTest : public MidCallFixture {
 protected:
  // The message as a stateful proxy on that port passes it on.
  static std::string withVia(const std::string& message, int port) {
    return replaced(message, "Via: SIP/2.0/UDP 127.0.0.1:" + header(message, "Via").substr(22, 5),
                    "Via: SIP/2.0/UDP 127.0.0.1:" + std::to_string(port));
  }
};

TEST_F(CallTest, InviteIsOriginatedAgainWithIdentityDialogAndSdpOfOurOwn) {
  start();
  fromCaller(inviteText());
  const std::string out = atPbx();
  const std::string port = std::to_string(iSipPort);
  const std::string branch = header(out, "Via").substr(header(out, "Via").find("branch=") + 7);
  const std::string sdpText = body(out);
  EXPECT_EQ(branch.size(), 40U);
  EXPECT_EQ(header(out, "Call-ID").size(), 59U);
  EXPECT_EQ(tag(header(out, "From")).size(), 11U);
  EXPECT_EQ(out, "INVITE sip:200@127.0.0.1 SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + port +
                     ";rport;branch=" + branch +
                     "\r\nFrom: \"Alice\" <sip:KestrovaPair0@pbx.example>;tag=" + tag(header(out, "From")) +
                     "\r\nTo:  <sip:200@127.0.0.1>\r\nContact: <sip:KestrovaPair0@127.0.0.1:" + port +
                     ">\r\nCall-ID: " + header(out, "Call-ID") +
                     "\r\nCSeq: 1 INVITE\r\nMax-Forwards: 70\r\nContent-Type: application/sdp\r\n"
                     "User-Agent: Kestrova Quorvel\r\nAllow: INVITE,ACK,CANCEL,INFO,BYE\r\nContent-Length: " +
                     std::to_string(sdpText.size()) + "\r\n\r\n" + sdpText);
  EXPECT_NE(sdpText.find(" 2 IN IP4 127.0.0.1\r\n"), std::string::npos)
      << "SDP version rises with the INVITE";
  expectSilence();
  EXPECT_EQ(sip->numActiveCalls(), 1);
}

TEST_F(CallTest, AnsweredCallEndsFromEitherSide) {
  for (const bool callerHangsUp : {true, false}) {
    SCOPED_TRACE(callerHangsUp);
    start();
    callerAnswer.clear();
    answer();
    EXPECT_EQ(header(callerAnswer, "Call-ID"), invite.callId);
    EXPECT_EQ(header(callerAnswer, "CSeq"), "1 INVITE");
    EXPECT_EQ(header(callerAnswer, "From"), invite.from);
    EXPECT_TRUE(
        header(callerAnswer, "Via")
            .ends_with(";branch=z9hG4bKcaller1;received=127.0.0.1;rport=" + std::to_string(caller.port())));
    EXPECT_NE(myRtp.findRtpIndex(invite.callId.c_str(), ""), -1);
    fromPbx(respond(pairInvite, "200 OK", "bob1", "Contact: <sip:200@127.0.0.1>\r\n", sdp(5000, "0")));
    const std::string again = atCaller();
    EXPECT_EQ(header(again, "To") + header(again, "CSeq"), header(callerAnswer, "To") + "1 INVITE");
    fromCaller(callerRequest("ACK", 1));
    EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK") << "the first one was lost";

    LoopbackPeer& first = callerHangsUp ? caller : pbx;
    LoopbackPeer& second = callerHangsUp ? pbx : caller;
    first.sendTo(iSipPort, callerHangsUp ? callerRequest("BYE", 2) : build(pbxWithin("BYE", 7)));
    process();
    const std::string bye = second.receive().value_or("");
    EXPECT_TRUE(firstLine(bye).starts_with("BYE sip:")) << bye;
    EXPECT_TRUE(first.quiet()) << "the BYE is answered when the other side has answered";
    EXPECT_EQ(sip->numActiveCalls(), 0);

    first.sendTo(iSipPort, callerHangsUp ? callerRequest("BYE", 2) : build(pbxWithin("BYE", 7)));
    process();
    EXPECT_EQ(second.receive().value_or(""), bye) << "a repeated BYE sends the stored one again";

    second.sendTo(iSipPort, respond(bye, "200 OK"));
    process();
    const std::string ok = first.receive().value_or("");
    EXPECT_EQ(firstLine(ok), "SIP/2.0 200 OK");
    EXPECT_EQ(header(ok, "CSeq"), callerHangsUp ? "2 BYE" : "7 BYE");
    EXPECT_FALSE(sip->phone(0).bInUse || sip->phone(2).bInUse);

    first.sendTo(iSipPort, callerHangsUp ? callerRequest("BYE", 2) : build(pbxWithin("BYE", 7)));
    second.sendTo(iSipPort, respond(bye, "200 OK"));
    process();
    EXPECT_EQ(firstLine(first.receive().value_or("")), "SIP/2.0 200 OK") << "the ended call still answers";
    expectSilence();
  }
}

TEST_F(CallTest, EveryViaComesBackAndOnlyTheTopmostIsMarked) {
  start();
  const std::string proxy =
      "Via: SIP/2.0/UDP 127.0.0.1:" + std::to_string(caller.port()) + ";branch=z9hG4bKproxy\r\n";
  const std::string phone = header(inviteText(), "Via");
  const std::string apart = proxy + "X-Between: the\r\n two\r\nVia: ";
  fromCaller(replaced(inviteText(), "Via: ", apart));
  fromPbx(respond(atPbx(), "180 Ringing", "b"));
  EXPECT_NE(atCaller().find("\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(caller.port()) +
                            ";branch=z9hG4bKproxy;received=127.0.0.1;rport=" + std::to_string(caller.port()) +
                            "\r\nVia: " + phone + "\r\nFrom: "),
            std::string::npos);
}

// phone ==A== Quorvel ==B==> PBX ==B==> Quorvel ==C== phone
TEST_F(CallTest, OwnInviteThatThePbxSendsBackUnchangedIsACallOfItsOwn) {
  iNumPhonesToAllocate = 6;  // one slot in front is free
  iNumCallsToFilter = 3;
  LoopbackPeer phone;
  iNumSipRoutingRecords = 1;
  ASSERT_TRUE(psSipRoutingRows[0].pcIP.assign("127.0.0.1") &&
              psSipRoutingRows[0].pcExpressions[0].assign("300@127.0.0.1"));
  psSipRoutingRows[0].iPort = phone.port();
  psSipRoutingRows[0].iNumExpressions = 1;
  start();
  fromCaller(inviteText());
  pairInvite = atPbx();
  const std::string back =
      withVia(replaced(pairInvite, "sip:200@127.0.0.1", "sip:300@127.0.0.1"), pbx.port());
  fromPbx(back);
  const std::string toPhone = phone.receive().value_or("");
  ASSERT_TRUE(firstLine(toPhone).starts_with("INVITE sip:300@")) << toPhone;
  EXPECT_EQ(sip->numActiveCalls(), 2);
  fromPbx(back);
  EXPECT_EQ(phone.receive().value_or(""), toPhone) << "repeated";

  // What the phone says goes back through the PBX, under the Via that we gave it.
  const auto fromPhone = [&](const std::string& message) {
    phone.sendTo(iSipPort, message);
    process();
  };
  const auto throughPbx = [&](std::string answer) {
    answer = replaced(answer, header(answer, "Via"), header(pairInvite, "Via"));
    fromPbx(answer);
  };
  fromPhone(respond(toPhone, "200 OK", "bob", "Contact: <sip:300@127.0.0.1>\r\n",
                    sdp(LoopbackPeer::freePortPair(), "0")));
  const std::string ok = atPbx();
  throughPbx(ok);
  callerAnswer = atCaller();
  EXPECT_EQ(firstLine(callerAnswer), "SIP/2.0 200 Ok");
  fromCaller(callerRequest("ACK", 1));
  fromPbx(withVia(atPbx(), pbx.port()));
  EXPECT_TRUE(firstLine(phone.receive().value_or("")).starts_with("ACK sip:300@"));
  EXPECT_EQ(sip->iNumActiveRtpIndexes, 2);
  EXPECT_NE(myRtp.findRtpIndex(invite.callId.c_str(), ""), -1);
  EXPECT_NE(myRtp.findRtpIndex(header(toPhone, "Call-ID").c_str(), ""), -1);

  fromCaller(callerRequest("BYE", 2));
  const std::string bye = withVia(atPbx(), pbx.port());
  fromPbx(bye);
  fromPhone(respond(phone.receive().value_or(""), "200 OK"));
  throughPbx(atPbx());
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 200 OK");
  EXPECT_EQ(sip->numActiveCalls() + sip->iNumActiveRtpIndexes, 0);
  for (int slot = 0; slot < sip->numSlots(); ++slot) EXPECT_FALSE(sip->phone(slot).bInUse) << slot;
  fromPbx(bye);
  EXPECT_EQ(firstLine(atPbx()), "SIP/2.0 200 OK") << "the ended call still answers";
}

TEST_F(CallTest, AckOfARefusedCallReachesNobody) {
  ASSERT_TRUE(pcDOSExpressions[0].assign("1??@127.0.0.1"));
  iNumberOfDOSExpressions = 1;
  start();
  fromCaller(inviteText());
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 503 Service Unavailable");
  fromCaller(callerRequest("ACK", 1));
  fromPbx(replaced(respond(inviteText(), "486 Busy Here", "x"), "CSeq: 1 INVITE", "CSeq: 0 INVITE"));
  expectSilence();
}

TEST_F(CallTest, EarlyMediaIsAnsweredWithOurSdpAndStartsTheRelay) {
  start();
  ring();
  fromPbx(respond(pairInvite, "183 Session Progress", "bob1", "", sdp(LoopbackPeer::freePortPair(), "0")));
  const std::string progress = atCaller();
  EXPECT_EQ(firstLine(progress), "SIP/2.0 183 Session Progress");
  EXPECT_NE(body(progress).find("m=audio " + std::to_string(sip->phone(0).iRtpPort)), std::string::npos);
  EXPECT_TRUE(sip->phone(0).bMediaEstablished && !sip->phone(0).bAnswered);
  EXPECT_NE(myRtp.findRtpIndex(invite.callId.c_str(), ""), -1);

  fromPbx(respond(pairInvite, "183 Session Progress", "bob1"));
  const std::string bare = atCaller();
  EXPECT_EQ(firstLine(bare), "SIP/2.0 183 Session Progress");
  EXPECT_EQ(body(bare), "") << "without SDP there is only the news";

  fromPbx(respond(pairInvite, "200 OK", "bob1", contactOfPbx(), sdp(LoopbackPeer::freePortPair(), "0")));
  callerAnswer = atCaller();
  EXPECT_NE(body(callerAnswer).find("m=audio " + std::to_string(sip->phone(0).iRtpPort)), std::string::npos);
  fromCaller(callerRequest("ACK", 1));
  EXPECT_TRUE(firstLine(atPbx()).starts_with("ACK sip:200@127.0.0.1:"));
  EXPECT_TRUE(sip->phone(0).bAnswered && hasMedia());
}

TEST_F(CallTest, CancelIsRelayedAndItsAnswersComeBack) {
  start();
  ring();
  fromCaller(callerRequest("CANCEL", 1));
  const std::string cancel = atPbx();
  EXPECT_EQ(firstLine(cancel), "CANCEL sip:200@127.0.0.1 SIP/2.0");
  EXPECT_EQ(header(cancel, "CSeq"), "1 CANCEL");
  EXPECT_EQ(header(cancel, "Via"), header(pairInvite, "Via"));
  fromPbx(respond(pairInvite, "183 Session Progress", "bob1", "", sdp(5000, "0")));
  fromPbx(respond(pairInvite, "200 OK", "bob1", "Contact: <sip:200@127.0.0.1>\r\n", sdp(5000, "0")));
  expectSilence();
  EXPECT_EQ(
      installation.logCount("is during cancel therefore it will not accept the Session Progress message"), 1);
  EXPECT_EQ(installation.logCount("INFO in MySip::handleOKForInviteMsg, original phone 0 is during cancel"),
            1);

  fromPbx(respond(cancel, "200 OK"));
  const std::string ok = atCaller();
  EXPECT_EQ(firstLine(ok) + header(ok, "CSeq"), "SIP/2.0 200 OK1 CANCEL");
  fromPbx(respond(pairInvite, "487 Request Terminated", "bob1"));
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 487 Request Terminated");
  fromCaller(callerRequest("ACK", 1));
  EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK");
  EXPECT_FALSE(sip->phone(0).bInUse);
  // The 487 repeats because the ACK was lost: the ended call acknowledges it.
  fromPbx(respond(pairInvite, "487 Request Terminated", "bob1"));
  EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK");
  expectSilence();
}

TEST_F(CallTest, RefusalReachesTheCallerWithItsOwnStatusLineAndIsAcknowledgedByHim) {
  start();
  ring();
  fromPbx(respond(pairInvite, "486 Sorry, Busy", "bob1"));
  const std::string refusal = atCaller();
  EXPECT_EQ(firstLine(refusal), "SIP/2.0 486 Sorry, Busy");
  EXPECT_TRUE(sip->phone(0).bTerminating && sip->phone(2).bTerminating);
  expectSilence();
  fromCaller(callerRequest("ACK", 1));
  const std::string ack = atPbx();
  EXPECT_EQ(header(ack, "CSeq"), "1 ACK");
  EXPECT_EQ(tag(header(ack, "To")), "bob1");
  EXPECT_FALSE(sip->phone(0).bInUse || sip->phone(2).bInUse);
}

TEST_F(CallTest, NewCallsAreRefusedWhenFullDrainingOrBarred) {
  iNumCallsToFilter = 1;
  ASSERT_TRUE(pcDOSExpressions[0].assign("1??@127.0.0.1") && pcAOSExpressions[0].assign("101@127.0.0.1"));
  iNumberOfDOSExpressions = iNumberOfAOSExpressions = 1;
  start();
  const auto expectRefusal = [&](const std::string& status) {
    fromCaller(inviteText());
    const std::string via = header(inviteText(), "Via");
    EXPECT_EQ(atCaller(),
              "SIP/2.0 " + status + "\r\nVia: " + via + "\r\nFrom: " + invite.from +
                  "\r\nTo: <sip:200@127.0.0.1>\r\nContact: <sip:KestrovaOrig0@127.0.0.1:" +
                  std::to_string(iSipPort) + ">\r\nCall-ID: " + invite.callId +
                  "\r\nCSeq: 1 INVITE\r\nUser-Agent: Kestrova Quorvel\r\nContent-Length: 0\r\n\r\n");
    expectSilence();
  };
  expectRefusal("503 Service Unavailable");
  EXPECT_FALSE(sip->phone(0).bInUse);
  invite.from = "<sip:101@127.0.0.1>;tag=a";
  fromCaller(inviteText());
  EXPECT_TRUE(firstLine(atPbx()).starts_with("INVITE ")) << "an exception to the barred names";
  invite.callId = "second@127.0.0.1";
  expectRefusal("486 Busy Here");
  bGotShutdownRequest = true;
  expectRefusal("503 Service Unavailable");
  passSeconds(2);
  EXPECT_EQ(
      installation.logCount(" WARNING in MySip::reportTroubles, new calls refused: 1 with 486, 2 with 503\n"),
      1);
}

TEST_F(CallTest, TerminatingSlotIsTakenByANewCallWhenNoneIsFree) {
  iNumPhonesToAllocate = 2;
  iNumCallsToFilter = 1;
  start();
  answer();
  fromCaller(callerRequest("BYE", 2));
  const std::string bye = atPbx();
  invite.callId = "next@127.0.0.1";
  fromCaller(inviteText());
  EXPECT_TRUE(firstLine(atPbx()).starts_with("INVITE "));
  fromPbx(respond(bye, "200 OK"));
  expectSilence();
  EXPECT_EQ(sip->phone(0).pcCallID, "next@127.0.0.1");
  EXPECT_EQ(sip->numActiveCalls(), 1);
}

TEST_F(CallTest, LateAnswersAreAcknowledgedOrLogged) {
  start();
  answer();
  fromPbx(replaced(respond(pairInvite, "200 OK", "bob1"), "CSeq: 1 INVITE", "CSeq: 9 INVITE"));
  EXPECT_EQ(header(atPbx(), "CSeq"), "9 ACK") << "a 200 of another INVITE is only acknowledged";
  fromPbx(replaced(respond(pairInvite, "486 Busy", "bob1"), "CSeq: 1 INVITE", "CSeq: 9 INVITE"));
  EXPECT_EQ(installation.logCount("Got Error for Invite and CSeq does not match 9,1,-1 \n"), 1);
  fromCaller(callerRequest("CANCEL", 5));
  EXPECT_EQ(installation.logCount(
                "INFO in MySip::analyzeSipMessage, Got Cancel and CSeq does not match 5,1,-1. Ignore. \n"),
            1);
  fromCaller(callerRequest("CANCEL", 1));
  EXPECT_EQ(installation.logCount("Phone 0 got cancel but although RTP started it is not in a middle"), 1);
  fromPbx(replaced(respond(pairInvite, "180 Ringing"), header(pairInvite, "Call-ID"), "unknown@x"));
  EXPECT_EQ(installation.logCount("WARNING in MySip::analyzeSipMessage, no match for Ringing Msg\n"), 1);
  fromPbx(respond(pairInvite, "181 Call Is Being Forwarded"));
  fromPbx(respond(pairInvite, "180 Ringing", "carl1"));
  fromPbx(respond(pairInvite, "183 Session Progress", "carl1", "", sdp(5000, "0")));
  EXPECT_EQ(installation.logCount("a late answer of another destination is ignored\n"), 2);
  EXPECT_EQ(sip->phone(kPair).pcRemoteTag, ";tag=bob1");
  expectSilence();
  EXPECT_EQ(sip->numActiveCalls(), 1);
}

TEST_F(CallTest, SilentMediaEndsTheCallAndByesRepeatUntilTheSlotsAreReleased) {
  iRTPTimeoutInSeconds = 30;
  start();
  answer();
  const auto waitForMediaThread = [] {
    usleep(60'000);
  };  // it publishes its counters every 20 ms of real time
  passSeconds(28);
  waitForMediaThread();
  passSeconds(1);
  expectSilence();
  passSeconds(1);
  waitForMediaThread();
  passSeconds(1);
  const std::string atFirst = atCaller();
  EXPECT_TRUE(firstLine(atFirst).starts_with("BYE ")) << installation.log();
  EXPECT_EQ(installation.logCount("going to cancel call (OnHold=false) due to RTP/RTCP inactivity (3"), 1);
  EXPECT_EQ(installation.logCount(") between 100@127.0.0.1 and 200@127.0.0.1\n"), 1);
  EXPECT_EQ(atCaller(), atFirst) << "the tick that ends the call also repeats its BYEs";
  const std::string bye = atPbx();
  EXPECT_EQ(atPbx(), bye);
  fromPbx(respond(bye, "200 OK"));
  // One side has answered; the other gets the same BYE again each second.
  passSeconds(3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(atCaller(), atFirst);
  expectSilence();
  passSeconds(55);
  EXPECT_TRUE(sip->phone(0).bInUse);
  passSeconds(3);
  EXPECT_FALSE(sip->phone(0).bInUse || sip->phone(2).bInUse);
}

// Whether the parties are still there cannot be heard then.
TEST_F(CallTest, MediaThatCannotBeOpenedIsTriedAgainAndEndsTheCallInTheEnd) {
  iRTPTimeoutInSeconds = 3;
  for (const int seconds : {2, 4}) {
    SCOPED_TRACE(seconds);
    start();
    {
      const LoopbackPeer other(static_cast<in_port_t>(sip->phone(kPair).iRtpPort));
      answer();
      passSeconds(seconds);
    }
    if (seconds == 2) {
      passSeconds(2);
      expectSilence();
      EXPECT_EQ(installation.logCount("going to cancel call"), 0);
      sip->closeRtpSessionPair(kOrig, kPair);
    } else {
      EXPECT_TRUE(firstLine(atCaller()).starts_with("BYE ")) << installation.log();
      EXPECT_TRUE(firstLine(atPbx()).starts_with("BYE "));
      EXPECT_EQ(installation.logCount("due to RTP/RTCP inactivity (3)"), 1);
    }
  }
}

TEST_F(CallTest, SetUpWithoutAnswerIsGivenUpAfterAMinuteAndReleasedAfterAnother) {
  start();
  const std::string silence =
      " WARNING in MySip::reportTroubles, calls given up after 60 seconds without any answer to the INVITE: "
      "1, "
      "the last from 100@127.0.0.1 to ";
  for (const bool rings : {true, false}) {
    invite.callId = rings ? "rings" : "silent";
    if (rings)
      ring();
    else
      fromCaller(inviteText());
    passSeconds(59);
    EXPECT_EQ(sip->numActiveCalls(), 1);
    passSeconds(1);
    EXPECT_EQ(sip->numActiveCalls(), 0);
    EXPECT_EQ(installation.logCount(silence), rings ? 0 : 1) << installation.log();
    passSeconds(59);
    EXPECT_TRUE(sip->phone(0).bInUse);
    passSeconds(1);
    EXPECT_FALSE(sip->phone(0).bInUse);
  }
}

TEST_F(CallTest, ShutdownEndsCallsWithdrawsRegistrationsAndReturnsAfterTwoSeconds) {
  ASSERT_TRUE(pcTrunkName.assign("trunk"));
  iRegisterTrunk = 1;
  start();
  sip->sTrunk.sTimeLastRegistration = kStart;
  answer();
  sTimeStartShutDown = Clock::steadyTime().tv_sec;
  bNeedToInitiateShutdown = bDuringShutdown = true;
  process();
  EXPECT_TRUE(firstLine(atCaller()).starts_with("BYE "));
  const std::string bye = atPbx();
  EXPECT_TRUE(firstLine(bye).starts_with("BYE "));
  const std::string withdrawal = atPbx();
  EXPECT_EQ(firstLine(withdrawal) + header(withdrawal, "Expires"), "REGISTER sip:pbx.example SIP/2.00");
  fromCaller(inviteText());
  fromPbx(respond(bye, "200 OK"));
  expectSilence();
  Clock::setDateBy(3600);
  Clock::advanceSeconds(1);
  EXPECT_TRUE(sip->mainLoopPass(0)) << "the answers are still waited for";
  EXPECT_TRUE(firstLine(atCaller()).starts_with("BYE ")) << "unanswered BYEs repeat";
  EXPECT_TRUE(pbx.quiet());
  Clock::setDateBy(-7200);
  Clock::advanceSeconds(1);
  EXPECT_FALSE(sip->mainLoopPass(0));
}

}  // namespace
