// What either party does to a call that stands: new media, refusals and their late messages, transfer.
#include <gtest/gtest.h>
#include <string>

#include "tests/sip/MidCallFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

std::string branchOf(const std::string& message) {
  const std::string via = header(message, "Via");
  const std::string rest = via.substr(via.find("branch=") + 7);
  return rest.substr(0, rest.find(';'));
}

bool has(const std::string& message, const std::string& text) {
  return message.find(text) != std::string::npos;
}

using MidCallTest = MidCallFixture;

// ---- Re-INVITE ----

TEST_F(MidCallTest, HoldAndResumePassFromEitherSide) {
  for (const bool fromTheCaller : {true, false}) {
    start();
    callerAnswer.clear();
    answer();
    LoopbackPeer& sender = fromTheCaller ? caller : pbx;
    LoopbackPeer& receiver = fromTheCaller ? pbx : caller;
    const sPhone& leg = sip->phone(fromTheCaller ? kOrig : kPair);
    int cseq = 7;
    int cseqOut = fromTheCaller ? 1 : sip->phone(kOrig).iCSeq;
    for (const auto& [line, ip, offered] :
         {std::tuple<const char*, const char*, const char*>{"a=sendonly\r\n", "127.0.0.1", "a=sendonly\r\n"},
          {"a=sendrecv\r\n", "127.0.0.1", "a=sendrecv\r\n"},
          {"a=inactive\r\n", "127.0.0.1", "a=inactive\r\n"},
          {"", "0.0.0.0", "c=IN IP4 0.0.0.0\r\n"},
          {"", "127.0.0.1", "c=IN IP4 127.0.0.1\r\n"}}) {
      SCOPED_TRACE(std::string(fromTheCaller ? "caller " : "destination ") + line + ip);
      const std::string offer = sdp(LoopbackPeer::freePortPair(), "0 8", line, ip);
      Request request =
          fromTheCaller ? callerWithin("INVITE", ++cseq, offer) : pbxWithin("INVITE", ++cseq, offer);
      sender.sendTo(iSipPort, build(request));
      process();
      const std::string relayed = receiver.receive().value_or("");
      EXPECT_EQ(firstLine(relayed),
                fromTheCaller ? "INVITE sip:200@127.0.0.1 SIP/2.0" : "INVITE sip:100@127.0.0.1 SIP/2.0");
      EXPECT_EQ(header(relayed, "CSeq"), std::to_string(++cseqOut) + " INVITE");
      EXPECT_EQ(header(relayed, "Call-ID"), fromTheCaller ? header(pairInvite, "Call-ID") : invite.callId);
      EXPECT_EQ(tag(header(relayed, "To")), fromTheCaller ? "bob1" : "alice1");
      EXPECT_EQ(tag(header(relayed, "From")),
                tag(fromTheCaller ? header(pairInvite, "From") : header(callerAnswer, "To")));
      EXPECT_TRUE(has(body(relayed), offered)) << relayed;
      EXPECT_EQ(leg.bOnHold,
                std::string(offered) != "a=sendrecv\r\n" && std::string(offered) != "c=IN IP4 127.0.0.1\r\n");
      EXPECT_TRUE(hasMedia());

      const std::string contact = "Contact: <sip:peer@127.0.0.1:" + std::to_string(receiver.port()) + ">\r\n";
      receiver.sendTo(iSipPort, respond(relayed, "200 OK", "", contact,
                                        sdp(LoopbackPeer::freePortPair(), "0", "a=recvonly\r\n")));
      process();
      const std::string ok = sender.receive().value_or("");
      EXPECT_EQ(firstLine(ok), "SIP/2.0 200 Ok");
      EXPECT_EQ(header(ok, "CSeq"), std::to_string(cseq) + " INVITE");
      EXPECT_TRUE(has(header(ok, "Via"), request.branch));
      EXPECT_TRUE(has(body(ok), "a=recvonly\r\n"));
      request.method = "ACK";
      request.sdp.clear();
      sender.sendTo(iSipPort, build(request));
      process();
      const std::string ack = receiver.receive().value_or("");
      EXPECT_EQ(firstLine(ack), "ACK sip:peer@127.0.0.1:" + std::to_string(receiver.port()) + " SIP/2.0");
      EXPECT_EQ(header(ack, "CSeq"), std::to_string(cseqOut) + " ACK");
      EXPECT_FALSE(sip->phone(kOrig).bReInviteInProgress || sip->phone(kPair).bReInviteInProgress);
      EXPECT_TRUE(hasMedia());
      expectSilence();
    }
  }
}

TEST_F(MidCallTest, NewCodecsAndPreservedHeadersAreOffered) {
  for (const int copyList : {0, 1}) {
    SCOPED_TRACE(copyList);
    iCopyCodecListFromInitialInvite = copyList;
    iNumberOfPSHExpressions = 1;
    pcPSHExpressions[0].assignCut("X-Account:");
    start();
    callerAnswer.clear();
    answer();
    Request request = callerWithin("INVITE", 2, sdp(4000, "0", "a=ptime:20\r\n"));
    request.extraHeaders = "X-Account: 7\r\n";
    fromCaller(build(request));
    const std::string relayed = atPbx();
    EXPECT_TRUE(has(body(relayed), copyList != 0 ? " RTP/AVP 0\r\n" : " RTP/AVP 9 0 8\r\n")) << relayed;
    EXPECT_EQ(header(relayed, "X-Account"), "7");
    EXPECT_EQ(sip->phone(kOrig).psCodecs[0].eCodec, eCodecPCMU);
  }
}

TEST_F(MidCallTest, RefusedReInviteRestoresTheCallAndItsLateMessagesAreAnswered) {
  start();
  answer();
  const int portBefore = sip->phone(kOrig).iRemoteRtpPort;
  const std::string relayed = relayReInvite(sdp(portBefore + 100, "0", "a=sendonly\r\n"));
  EXPECT_EQ(sip->phone(kOrig).iRemoteRtpPort, portBefore + 100);
  fromPbx(respond(relayed, "488 Not Acceptable Here"));
  const std::string refusal = atCaller();
  EXPECT_EQ(firstLine(refusal), "SIP/2.0 488 Not Acceptable Here");
  EXPECT_EQ(header(refusal, "CSeq"), "2 INVITE");
  EXPECT_EQ(branchOf(refusal), "z9hG4bKINVITE2");
  EXPECT_EQ(sip->phone(kOrig).iRemoteRtpPort, portBefore);
  EXPECT_EQ(sip->phone(kOrig).iInviteCSeq, 1);
  EXPECT_FALSE(sip->phone(kOrig).bOnHold || sip->phone(kOrig).bReInviteInProgress);
  EXPECT_TRUE(sip->phone(kPair).bAnswered && !sip->phone(kPair).bTerminating && hasMedia());
  expectSilence();

  // Either the caller's ACK or the destination's repetition makes us acknowledge, in the failed transaction.
  const auto expectAck = [&] {
    const std::string ack = atPbx();
    EXPECT_EQ(firstLine(ack), "ACK sip:200@127.0.0.1 SIP/2.0");
    EXPECT_EQ(header(ack, "CSeq"), "2 ACK");
    EXPECT_EQ(branchOf(ack), branchOf(relayed));
    EXPECT_EQ(tag(header(ack, "To")), "bob1");
  };
  fromCaller(build(callerWithin("ACK", 2)));
  expectAck();
  fromPbx(respond(relayed, "488 Not Acceptable Here"));
  expectAck();
  fromCaller(build(callerWithin("CANCEL", 2)));
  const std::string terminated = atCaller();
  EXPECT_EQ(firstLine(terminated), "SIP/2.0 487 Request Terminated");
  EXPECT_EQ(header(terminated, "CSeq"), "2 INVITE");
  EXPECT_EQ(branchOf(terminated), "z9hG4bKINVITE2");
  expectSilence();

  fromCaller(build(callerWithin("INVITE", 3, sdp(portBefore, "8"))));
  EXPECT_EQ(header(atPbx(), "CSeq"), "3 INVITE") << "the next one is relayed again";
}

TEST_F(MidCallTest, ByeEndsACallWhoseInviteIsPending) {
  for (const auto& [answered, weEndIt] :
       {std::pair{true, false}, {true, true}, {false, false}, {false, true}}) {
    SCOPED_TRACE((answered ? "re-INVITE" : "INVITE") + std::string(weEndIt ? ", our BYE" : ""));
    start();
    callerAnswer.clear();
    answered ? answer() : ring();
    const std::string relayed = answered ? relayReInvite(sdp(4000, "0", "a=sendonly\r\n")) : pairInvite;
    const std::string number = answered ? "2" : "1";
    const Request bye = callerWithin("BYE", 3);
    weEndIt ? sip->initiateCallTermination(kOrig) : fromCaller(build(bye));
    const std::string toPbx = atPbx();
    EXPECT_TRUE(firstLine(toPbx).starts_with("BYE ")) << toPbx;
    if (weEndIt) atCaller();
    fromPbx(respond(relayed, "487 Request Terminated", answered ? "" : "bob1"));
    const std::string refusal = atCaller();
    EXPECT_EQ(firstLine(refusal), "SIP/2.0 487 Request Terminated");
    EXPECT_EQ(branchOf(refusal), answered ? "z9hG4bKINVITE2" : branchOf(inviteText()));
    EXPECT_EQ(header(refusal, "CSeq"), number + " INVITE");
    fromCaller(build(callerWithin("ACK", answered ? 2 : 1)));
    const std::string ack = atPbx();
    EXPECT_EQ(header(ack, "CSeq") + branchOf(ack), number + " ACK" + branchOf(relayed));
    fromPbx(respond(relayed, "487 Request Terminated", answered ? "" : "bob1"));
    EXPECT_EQ(atPbx(), ack) << "repeated";
    if (weEndIt && answered) {
      passSeconds(1);
      EXPECT_EQ(atPbx(), toPbx) << "the same BYE, under its own branch";
      atCaller();
    }
    fromPbx(respond(toPbx, "200 OK"));
    if (weEndIt) continue;
    if (answered) {
      const std::string ok = atCaller();
      EXPECT_EQ(firstLine(ok) + branchOf(ok), "SIP/2.0 200 OKz9hG4bKBYE3");
    }
    fromCaller(build(bye));
    EXPECT_EQ(branchOf(atCaller()), "z9hG4bKBYE3");
  }
}

TEST_F(MidCallTest, OneReInviteAtATime) {
  start();
  answer();
  const std::string relayed = relayReInvite(sdp(4000, "0", "a=ptime:20\r\n"));
  fromCaller(build(callerWithin("INVITE", 2, sdp(4000, "0", "a=ptime:20\r\n"))));
  EXPECT_EQ(atPbx(), relayed) << "a repetition sends the stored INVITE again";
  const auto pending = [this](const Request& request, const std::string& user) {
    const std::string text = build(request);
    return "SIP/2.0 491 Request Pending\r\nVia: " + header(text, "Via") + "\r\nFrom: " + request.from +
           "\r\nTo: " + request.to + "\r\nContact: <sip:" + user + "@127.0.0.1:" + std::to_string(iSipPort) +
           ">\r\nCall-ID: " + request.callId + "\r\nCSeq: " + header(text, "CSeq") +
           "\r\nUser-Agent: Kestrova Quorvel\r\nContent-Length: 0\r\n\r\n";
  };
  fromCaller(build(callerWithin("INVITE", 3, sdp(4000, "0", "a=ptime:20\r\n"))));
  EXPECT_EQ(atCaller(), pending(callerWithin("INVITE", 3), "KestrovaOrig0"));
  fromPbx(build(pbxWithin("INVITE", 9, sdp(4000, "0", "a=ptime:20\r\n"))));
  EXPECT_EQ(atPbx(), pending(pbxWithin("INVITE", 9), "KestrovaPair0")) << "glare";
  EXPECT_EQ(installation.logCount(
                " INFO in MySip::handleReInviteMsg, ignoring re-invite for phone 0 since it is already in "
                "process of another re-invite. Going to reply with 491\n"),
            1);
  fromCaller(respond(build(callerWithin("INVITE", 2)), "488 No"));  // its own is not its to refuse
  expectSilence();
  EXPECT_TRUE(sip->phone(kOrig).bReInviteInProgress);
  Request refer = callerWithin("REFER", 4);
  refer.extraHeaders = "Refer-To: <sip:300@127.0.0.1>\r\n";
  fromCaller(build(refer));
  const std::string toTransfer = atPbx();
  EXPECT_NE(branchOf(toTransfer), branchOf(relayed));
  // A challenge of the REFER concerns nothing but the REFER.
  const std::string asked = "WWW-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n";
  iSipProxyArchitecture = 1;
  fromPbx(respond(toTransfer, "401 Unauthorized", "", asked));
  EXPECT_EQ(header(atCaller(), "CSeq").substr(2), "REFER");
  iSipProxyArchitecture = 0;
  fromPbx(respond(toTransfer, "401 Unauthorized", "", asked));
  EXPECT_TRUE(has(atPbx(), "\r\nAuthorization: Digest "));

  fromCaller(build(callerWithin("CANCEL", 2)));
  const std::string cancel = atPbx();
  EXPECT_EQ(header(cancel, "CSeq"), "2 CANCEL");
  EXPECT_EQ(branchOf(cancel), branchOf(relayed));
  fromPbx(respond(relayed, "487 Request Terminated"));
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 487 Request Terminated");
  EXPECT_EQ(sip->numActiveCalls(), 1);
  fromPbx(build(pbxWithin("INVITE", 9, sdp(4000, "0", "a=ptime:20\r\n"))));
  EXPECT_TRUE(firstLine(atCaller()).starts_with("INVITE ")) << "the way is free again";
}

TEST_F(MidCallTest, ReInvitesThatCannotBeRelayedAreLogged) {
  start();
  answer();
  const std::string unreadable = build(callerWithin("INVITE", 2, sdp(4000, "18", "a=ptime:20\r\n")));
  fromCaller(unreadable);
  fromCaller(unreadable);
  expectSilence();
  EXPECT_EQ(
      installation.logCount(" ERROR in MySip::handleReInviteMsg, error during SDP analyze for phone 0\n"), 1);
  EXPECT_TRUE(sip->phone(kOrig).bReInviteInProgress && sip->phone(kPair).bReInviteInProgress);
  fromCaller(callerRequest("BYE", 3));
  EXPECT_TRUE(firstLine(atPbx()).starts_with("BYE "));
  fromCaller(build(callerWithin("INVITE", 4, sdp(4000, "0", "a=ptime:20\r\n"))));
  EXPECT_EQ(installation.logCount("ignoring re-invite for phone 0 since it is during call cancel\n"), 1);
  expectSilence();
}

TEST_F(MidCallTest, UnansweredInviteIsRepeatedAsStoredAndOthersAreIgnored) {
  start();
  ring();
  fromCaller(inviteText());
  EXPECT_EQ(atPbx(), pairInvite);
  fromCaller(build(callerWithin("INVITE", 2, invite.sdp)));
  expectSilence();
}

TEST_F(MidCallTest, CallerAnswersTheChallengeOfThePbx) {
  for (const bool accepted : {true, false}) {
    SCOPED_TRACE(accepted);
    iSipProxyArchitecture = 1;
    start();
    fromCaller(inviteText());
    const std::string first = atPbx();
    fromPbx(respond(first, "407 Proxy Authentication Required", "chal",
                    "Proxy-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n"));
    const std::string challenge = atCaller();
    EXPECT_EQ(header(challenge, "Proxy-Authenticate"), "Digest realm=\"r\",nonce=\"n\"");
    EXPECT_EQ(header(challenge, "CSeq"), "1 INVITE");
    fromCaller(build(callerWithin("ACK", 1)));
    EXPECT_EQ(tag(header(atPbx(), "To")), "chal");

    Request request = callerWithin("INVITE", 2, invite.sdp);
    request.extraHeaders = "Proxy-Authorization: Digest username=\"100\",response=\"0\"\r\n";
    fromCaller(build(request));
    const std::string second = atPbx();
    EXPECT_EQ(header(second, "Proxy-Authorization"), "Digest username=\"100\",response=\"0\"");
    EXPECT_EQ(header(second, "CSeq"), "2 INVITE");
    EXPECT_EQ(header(second, "Call-ID"), header(first, "Call-ID"));
    EXPECT_NE(branchOf(second), branchOf(first));
    EXPECT_EQ(tag(header(second, "To")), "") << "a fresh dialog";
    fromCaller(build(request));
    EXPECT_EQ(atPbx(), second) << "repeated";

    fromPbx(respond(second, accepted ? "200 OK" : "403 Forbidden", "bob1", contactOfPbx(),
                    accepted ? sdp(4000, "0") : ""));
    const std::string result = atCaller();
    EXPECT_EQ(firstLine(result), accepted ? "SIP/2.0 200 Ok" : "SIP/2.0 403 Forbidden");
    EXPECT_EQ(header(result, "CSeq"), "2 INVITE");
    EXPECT_EQ(sip->numActiveCalls(), accepted ? 1 : 0);
    EXPECT_EQ(hasMedia(), accepted);
    if (accepted) sip->closeRtpSessionPair(kOrig, kPair);
  }
}

// The caller's end and the challenge pass each other on the way.
TEST_F(MidCallTest, ChallengedInviteOfACallerWhoHasGoneIsNotSentAgain) {
  enum class Gone { eCancel, eBye, eOurBye, eCancelOfReInvite };
  const auto challenged = [](const std::string& request) {
    return respond(request, "407 Proxy Authentication Required", "c",
                   "Proxy-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n");
  };
  for (const Gone gone : {Gone::eCancel, Gone::eBye, Gone::eOurBye, Gone::eCancelOfReInvite}) {
    for (const bool proxy : {false, true}) {
      SCOPED_TRACE(static_cast<int>(gone) * 10 + (proxy ? 1 : 0));
      iSipProxyArchitecture = proxy ? 1 : 0;
      start();
      callerAnswer.clear();
      const bool isReInvite = gone == Gone::eCancelOfReInvite;
      isReInvite ? answer() : fromCaller(inviteText());
      const std::string request = isReInvite ? relayReInvite(invite.sdp) : atPbx();
      const std::string cseq = isReInvite ? "2" : "1";
      if (gone == Gone::eOurBye) {
        sip->initiateCallTermination(kOrig);
        atCaller();
      } else {
        fromCaller(gone == Gone::eBye ? build(callerWithin("BYE", 2))
                                      : callerRequest("CANCEL", isReInvite ? 2 : 1));
      }
      atPbx();
      fromPbx(respond(request, "180 Ringing", "c"));
      const std::string ringing = atCaller();
      fromPbx(challenged(request));
      const std::string end = atCaller();
      EXPECT_EQ(firstLine(end),
                proxy ? "SIP/2.0 407 Proxy Authentication Required" : "SIP/2.0 487 Request Terminated");
      for (const std::string& answer : {ringing, end}) {
        EXPECT_EQ(header(answer, "CSeq"), cseq + " INVITE");
        EXPECT_EQ(branchOf(answer), isReInvite ? "z9hG4bKINVITE2" : invite.branch);
      }
      if (!proxy) {
        for (const char* when : {"at once", "repeated"}) {
          const std::string ack = atPbx();
          EXPECT_EQ(header(ack, "CSeq") + branchOf(ack), cseq + " ACK" + branchOf(request)) << when;
          fromPbx(challenged(request));
        }
        while (caller.receive(std::chrono::milliseconds(0))) continue;
        atPbx();
      }
      expectSilence();
      EXPECT_FALSE(sip->phone(kOrig).bReInviteInProgress || sip->phone(kPair).bReInviteInProgress);
      sip->closeRtpSessionPair(kOrig, kPair);
    }
  }
}

// ---- Transfer ----

TEST_F(MidCallTest, BlindTransferAndItsProgressPassAcross) {
  start();
  answer();
  Request refer = callerWithin("REFER", 5);
  refer.extraHeaders = "Refer-To: <sip:300@127.0.0.1>\r\n";
  fromCaller(build(refer));
  const std::string relayed = atPbx();
  EXPECT_EQ(firstLine(relayed), "REFER sip:200@127.0.0.1 SIP/2.0");
  EXPECT_EQ(header(relayed, "CSeq"), "2 REFER");
  EXPECT_TRUE(relayed.ends_with("Content-Length: 0\r\nRefer-To: <sip:300@127.0.0.1>\r\n\r\n")) << relayed;
  fromCaller(build(refer));
  EXPECT_EQ(atPbx(), relayed);
  fromPbx(respond(relayed, "202 Accepted"));
  const std::string accepted = atCaller();
  EXPECT_EQ(firstLine(accepted), "SIP/2.0 202 Accepted");
  EXPECT_EQ(header(accepted, "CSeq"), "5 REFER");
  EXPECT_EQ(branchOf(accepted), refer.branch);

  int cseq = 20;
  for (const auto& [headers, event, state, sent] :
       {std::tuple<const char*, const char*, const char*, const char*>{
            "Event: refer;id=7\r\nSubscription-State: active;expires=60\r\nContent-Type: message/sipfrag\r\n",
            "refer", "active;expires=60", "SIP/2.0 100 Trying\r\n"},
        {"Event: refer\r\nSubscription-State: terminated\r\n", "refer", "terminated", "SIP/2.0 200 OK"},
        {"Event: dialog;sla\r\n", "dialog;sla", "<none>", ""}}) {
    SCOPED_TRACE(headers);
    Request notify = pbxWithin("NOTIFY", ++cseq);
    notify.extraHeaders = headers;
    const std::string text = withLength(build(notify) + sent);
    fromPbx(text);
    const std::string told = atCaller();
    EXPECT_EQ(firstLine(told), "NOTIFY sip:100@127.0.0.1 SIP/2.0");
    EXPECT_EQ(header(told, "Event"), event);
    EXPECT_EQ(header(told, "Subscription-State"), state);
    EXPECT_EQ(body(told), sent);
    EXPECT_EQ(header(told, "Content-Length"), std::to_string(body(told).size()));
    fromPbx(text);
    EXPECT_EQ(atCaller(), told);
    fromCaller(respond(told, "200 OK"));
    const std::string ok = atPbx();
    EXPECT_EQ(firstLine(ok), "SIP/2.0 200 OK");
    EXPECT_EQ(header(ok, "CSeq"), std::to_string(cseq) + " NOTIFY");
    EXPECT_EQ(branchOf(ok), notify.branch);
  }
  expectSilence();
  EXPECT_EQ(sip->numActiveCalls(), 1);
}

TEST_F(MidCallTest, NotifyWithoutAnEmptyLineIsRelayedWithoutBody) {
  start();
  answer();
  std::string text = build(pbxWithin("NOTIFY", 20));
  text.resize(text.size() - 2);
  fromPbx(text);
  const std::string told = atCaller();
  EXPECT_EQ(header(told, "Content-Length"), "0");
  EXPECT_EQ(body(told), "");
}

TEST_F(MidCallTest, AttendedTransferNamesTheDialogThatItsReceiverKnows) {
  start();
  answer();
  const std::string firstAnswer = callerAnswer;
  const std::string firstPair = pairInvite;
  const Request firstCall = callerWithin("REFER", 5);
  invite.callId = "second@127.0.0.1";
  invite.from = "\"Alice\" <sip:100@127.0.0.1>;tag=alice2";
  callerAnswer.clear();
  ring();
  sip->phone(3).pcRemoteTag.clear();

  const auto refer = [&](Request request, const std::string& referTo) {
    static int cseq = 100;
    request.cseq = ++cseq;
    request.extraHeaders = "Refer-To: " + referTo + "\r\n";
    return build(request);
  };
  const std::string tags = "%3Bto-tag%3D" + tag(header(firstAnswer, "To")) + "%3Bfrom-tag%3Dalice2";
  fromCaller(refer(firstCall, "<sip:300@127.0.0.1?Replaces=second%40127.0.0.1" + tags + ">"));
  EXPECT_EQ(installation.logCount("can't find tags to use ;tag="), 1)
      << "nobody has answered the second call yet";
  expectSilence();
  sip->phone(3).pcRemoteTag.assignCut(";tag=carl1");

  const std::string ourCallId = header(pairInvite, "Call-ID");
  const std::string escaped = replaced(ourCallId, "@", "%40");
  const std::string ourTag = tag(header(pairInvite, "From"));
  fromCaller(refer(firstCall, "<sip:300@127.0.0.1?Replaces=second%40127.0.0.1" + tags + ">"));
  EXPECT_EQ(header(atPbx(), "Refer-To"),
            "<sip:300@127.0.0.1?Replaces=" + escaped + "%3Bto-tag%3Dcarl1%3Bfrom-tag%3D" + ourTag + ">");
  fromCaller(refer(firstCall, "sip:300@127.0.0.1?replaces=second%40127.0.0.1" + tags));
  EXPECT_EQ(header(atPbx(), "Refer-To"),
            "sip:300@127.0.0.1?Replaces=" + escaped + "%3Bto-tag%3Dcarl1%3Bfrom-tag%3D" + ourTag);

  // The other way: the destination of the first call is told to take over the second one, of which it knows
  // our leg.
  pairInvite = firstPair;
  fromPbx(refer(pbxWithin("REFER", 5),
                "<sip:100@127.0.0.1?Replaces=" + escaped + "%3Bto-tag%3Dx%3Bfrom-tag%3Dy>"));
  EXPECT_EQ(header(atCaller(), "Refer-To"), "<sip:100@127.0.0.1?Replaces=second%40127.0.0.1%3Bto-tag%3D" +
                                                std::string(sip->phone(1).pcLocalTag.view().substr(5)) +
                                                "%3Bfrom-tag%3Dalice2>");

  for (const auto& [referTo, log] :
       {std::pair<std::string, const char*>{"<sip:3@x?Replaces=unknown%40x%3Bto-tag%3D1>",
                                            "unable to find a phone with call-id unknown@x\n"},
        {"<sip:3@x?Replaces=second%40127.0.0.1>", "can't find call-id in "},
        {"<sip:3@x?Replaces=" + std::string(120, 'c') + "%3B>", "Call ID too long ccc"},
        {"<sip:" + std::string(290, 'n') + "@x?Replaces=second%40127.0.0.1%3Bto-tag%3D1>",
         "The size of the new Refer string is TOO Big <sip:nnn"},
        {"<sip:" + std::string(366, 'n') + ">", "Refer-To: is too long"}}) {
    installation.clearLog();
    fromCaller(refer(firstCall, referTo));
    EXPECT_EQ(installation.logCount(log), 1) << installation.log();
  }
  expectSilence();
}

TEST_F(MidCallTest, MessagesOfNoCallAreNotRelayed) {
  start();
  answer();
  for (const int slot : {kOrig, kPair}) sip->freeSlot(slot);
  fromPbx(build(pbxWithin("REFER", 5)));
  fromPbx(build(pbxWithin("NOTIFY", 6)));
  fromPbx(respond(build(pbxWithin("REFER", 7)), "202 Accepted"));
  fromPbx(respond(build(pbxWithin("NOTIFY", 7)), "200 OK"));
  expectSilence();
  EXPECT_EQ(installation.logCount(
                "ERROR in MySip::handleAcceptedForREFERMsg, error, the phone 2 is not during a call \n"),
            1);
  EXPECT_EQ(installation.logCount(
                "ERROR in MySip::handleOKForNOTIFYMsg, error, the phone 2 is not during a call \n"),
            1);
  sip->closeRtpSessionPair(kOrig, kPair);
}

}  // namespace
