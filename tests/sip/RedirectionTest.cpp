// An INVITE that the destination sends elsewhere.
#include <gtest/gtest.h>
#include <string>

#include "tests/sip/MidCallFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

using RedirectionTest = MidCallFixture;

TEST_F(RedirectionTest, ContactsOfARedirectionAreTriedInOrder) {
  for (const auto& [secondAnswers, withCredentials] :
       {std::pair{true, false}, {false, false}, {true, true}, {false, true}}) {
    SCOPED_TRACE(secondAnswers);
    LoopbackPeer first;
    LoopbackPeer second;
    iSipProxyArchitecture = withCredentials ? 1 : 0;
    start();
    callerAnswer.clear();
    invite.cseq = 1;
    invite.extraHeaders.clear();
    ring();
    if (withCredentials) {
      invite.cseq = 2;
      invite.extraHeaders = "Proxy-Authorization: Digest username=\"100\"\r\n";
      fromCaller(inviteText());
      pairInvite = atPbx();
    }
    const std::string acknowledged = withCredentials ? "2 ACK" : "1 ACK";
    const auto contact = [](const char* user, const LoopbackPeer& at) {
      return "Contact: <sip:" + std::string(user) + "@127.0.0.1:" + std::to_string(at.port()) + ">\r\n";
    };
    const std::string moved = respond(pairInvite, "302 Moved Temporarily", "bob1",
                                      contact("first", first) + contact("second", second));
    sip->sendRegistration(sip->phone(kPair), 60);  // counts on while the INVITE waits
    atPbx();
    fromPbx(moved);
    EXPECT_EQ(header(atPbx(), "CSeq"), acknowledged);
    const std::string toFirst = first.receive().value_or("");
    EXPECT_EQ(firstLine(toFirst), "INVITE sip:first@127.0.0.1 SIP/2.0");
    EXPECT_EQ(header(toFirst, "CSeq"), "1 INVITE");
    EXPECT_NE(header(toFirst, "Call-ID"), header(pairInvite, "Call-ID"));
    EXPECT_EQ(tag(header(toFirst, "To")), "");
    fromPbx(moved);
    EXPECT_EQ(header(atPbx(), "CSeq"), acknowledged) << "the old dialog still acknowledges";

    first.sendTo(iSipPort, respond(toFirst, "486 Busy Here", "f"));
    process();
    const std::string toSecond = second.receive().value_or("");
    EXPECT_EQ(firstLine(toSecond), "INVITE sip:second@127.0.0.1 SIP/2.0");
    EXPECT_TRUE(caller.quiet()) << "the caller learns of no failure while there is a contact left";
    for (const char* when : {"at once", "repeated"}) {
      const std::string ack = first.receive().value_or("");
      EXPECT_EQ(header(ack, "CSeq") + header(ack, "Call-ID"), "1 ACK" + header(toFirst, "Call-ID")) << when;
      EXPECT_EQ(tag(header(ack, "To")), "f");
      first.sendTo(iSipPort, respond(toFirst, "486 Busy Here", "f"));
      process();
    }

    second.sendTo(iSipPort, secondAnswers ? respond(toSecond, "200 OK", "s", contact("second", second),
                                                    sdp(4000, "0", "a=ptime:20\r\n"))
                                          : respond(toSecond, "603 Decline", "s"));
    process();
    EXPECT_EQ(firstLine(atCaller()), secondAnswers ? "SIP/2.0 200 Ok" : "SIP/2.0 603 Decline");
    EXPECT_EQ(sip->numActiveCalls(), secondAnswers ? 1 : 0);
    EXPECT_EQ(hasMedia(), secondAnswers);
    fromCaller(callerRequest("ACK", invite.cseq));
    EXPECT_TRUE(firstLine(second.receive().value_or("")).starts_with("ACK sip:second@127.0.0.1"));
    expectSilence();
    if (secondAnswers) sip->closeRtpSessionPair(kOrig, kPair);
  }
}

TEST_F(RedirectionTest, ContactsThatLeadNowhereAreLeftOut) {
  const std::string ourselves = "<sip:nobody@127.0.0.1:" + std::to_string(iSipPort) + ">";
  LoopbackPeer there;
  const std::string good = "\"A, B\" <sip:there@127.0.0.1:" + std::to_string(there.port()) + ">";
  for (const auto& [contacts, log, count, isTried] :
       {std::tuple<std::string, const char*, int, bool>{
            "Contact: <tel:+123>\r\n", "ERROR in MySip::reviewMoveStorage, unable to find sip: in <tel:+123>",
            1, false},
        {"", "unable to find Contact: in", 1, false},
        {"Contact: " + ourselves + "\r\n", "contact nobody@127.0.0.1", 1, false},
        {"Contact: " + std::string(900, ',') + good + "\r\n", "unable to find sip: in \n", 10, false},
        {"Contact: <tel:1>, " + good + ";q=0.5\r\n", "unable to find sip: in <tel:1>", 1, true},
        {"Contact: <sip:a@b:x>\r\nContact: *\r\nContact: " + good + ", <sip:c@d>\r\n",
         "error analyzing the URI String sip:a@b:x>", 1, true}}) {
    SCOPED_TRACE(contacts);
    start();
    installation.clearLog();
    ring();
    fromPbx(respond(pairInvite, "302 Moved Temporarily", "bob1", contacts));
    EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK");
    EXPECT_EQ(installation.logCount(log), count) << installation.log();
    EXPECT_EQ(firstLine(there.receive(std::chrono::milliseconds(0)).value_or("")),
              isTried ? "INVITE sip:there@127.0.0.1 SIP/2.0" : "");
    if (!isTried) {
      EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 480 Temporarily Unavailable");
      fromCaller(callerRequest("ACK", 1));
      EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK");
      EXPECT_FALSE(sip->phone(kOrig).bInUse);
    }
    expectSilence();
  }
}

TEST_F(RedirectionTest, RedirectionsThatDoNotEndAreGivenUp) {
  start();
  ring();
  std::string last = pairInvite;
  int redirections = 0;
  while (redirections < 50 && firstLine(last).starts_with("INVITE ")) {
    fromPbx(respond(last, "302 Moved Temporarily", "b", contactOfPbx()));
    EXPECT_EQ(header(atPbx(), "CSeq"), "1 ACK");
    last = pbx.receive(std::chrono::milliseconds(0)).value_or("");
    ++redirections;
  }
  EXPECT_EQ(redirections, 11);
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 480 Temporarily Unavailable");
}

TEST_F(RedirectionTest, ContactsThatAreLeftWhenTheCallEndsOrIsAnsweredStayQuiet) {
  enum class End { eCancel, eGivenUp, eBye, eOurBye, eAnswer };
  for (const End end : {End::eCancel, End::eGivenUp, End::eBye, End::eOurBye, End::eAnswer}) {
    SCOPED_TRACE(static_cast<int>(end));
    start();
    callerAnswer.clear();
    ring();
    LoopbackPeer second;
    fromPbx(respond(pairInvite, "302 Moved Temporarily", "bob1",
                    contactOfPbx() +
                        replaced(contactOfPbx(), std::to_string(pbx.port()), std::to_string(second.port()))));
    atPbx();
    std::string waiting = atPbx();
    EXPECT_EQ(firstLine(waiting), "INVITE sip:200@127.0.0.1 SIP/2.0");
    if (end == End::eCancel) {
      fromCaller(callerRequest("CANCEL", 1));
      EXPECT_EQ(header(atPbx(), "CSeq"), "1 CANCEL");
    } else if (end == End::eGivenUp) {
      passSeconds(60);
    } else if (end == End::eAnswer) {
      fromPbx(respond(waiting, "200 OK", "f", contactOfPbx(), sdp(LoopbackPeer::freePortPair(), "0")));
      callerAnswer = atCaller();
      waiting = relayReInvite(invite.sdp);
      fromPbx(respond(waiting, "183 Session Progress", "", "", sdp(LoopbackPeer::freePortPair(), "0")));
      atCaller();
    } else {
      end == End::eBye ? fromCaller(build(callerWithin("BYE", 2))) : sip->initiateCallTermination(kOrig);
      EXPECT_TRUE(firstLine(atPbx()).starts_with("BYE "));
      if (end == End::eOurBye) atCaller();
    }
    fromPbx(respond(waiting, "487 Request Terminated", "f"));
    EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 487 Request Terminated");
    expectSilence();
    EXPECT_TRUE(second.quiet());
    EXPECT_EQ(sip->phone(kPair).pcCallID, header(waiting, "Call-ID"));
    sip->closeRtpSessionPair(kOrig, kPair);
  }
}

TEST_F(RedirectionTest, OnlyTheLastInviteOfACallThatIsNotAnsweredCanBeRedirected) {
  start();
  ring();
  const std::string elsewhere = "Contact: <sip:a@127.0.0.1>\r\n";
  fromCaller(respond(inviteText(), "302 Moved Temporarily", "", elsewhere));
  fromPbx(replaced(respond(pairInvite, "302 Moved Temporarily", "bob1", elsewhere), "1 INVITE", "9 INVITE"));
  fromPbx(replaced(respond(pairInvite, "302 Moved Temporarily", "bob1", elsewhere), "1 INVITE", "1 REFER"));
  expectSilence();
  start();
  answer();
  const std::string relayed = relayReInvite(sdp(4000, "0", "a=sendonly\r\n"));
  fromPbx(respond(relayed, "302 Moved Temporarily", "", elsewhere));
  EXPECT_EQ(header(atPbx(), "CSeq"), "2 ACK");
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 480 Temporarily Unavailable");
  EXPECT_EQ(sip->phone(kPair).pcCallID, header(pairInvite, "Call-ID"));
  EXPECT_FALSE(sip->phone(kOrig).bReInviteInProgress || sip->phone(kOrig).bOnHold);
  EXPECT_TRUE(hasMedia());
}

}  // namespace
