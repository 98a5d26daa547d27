// Who is called and as whom: commands, rules, routes, preserved headers, slots.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/sip/SipFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

class SetUpTest : public SipFixture {};

void addRule(bool onCaller, const char* filter, const char* destination, int type) {
  int& count = onCaller ? iNumCmdBasedOnCallerID : iNumCmdBasedOnDestination;
  const auto i = static_cast<std::size_t>(count++);
  ASSERT_TRUE((onCaller ? ppcCmdBasedOnCallerIDFilter : ppcCmdBasedOnDestinationFilter)[i].assign(filter));
  ASSERT_TRUE((onCaller ? ppcCmdBasedOnCallerIDDestination : ppcCmdBasedOnDestinationDestination)[i].assign(
      destination));
  (onCaller ? piCmdBasedOnCallerIDFilteringType : piCmdBasedOnDestinationFilteringType)[i] = type;
}

TEST_F(SetUpTest, CommandChoosesDestinationAndProcessing) {
  addRule(true, "10?@127.0.0.1", "caller-rule@h", 1);
  addRule(false, "20?@127.0.0.1", "destination-rule@h", 2);
  ASSERT_TRUE(pcDefaultDestination.assign("*"));
  iDefaultFilteringType = 3;
  struct Case {
    const char* from;
    const char* to;
    const char* expectedUri;
    int type;
    const char* expectedName;
  };
  const std::vector<Case> cases{
      {"\"7@x##2##Ann\" <sip:100@127.0.0.1>;tag=t", "<sip:200@127.0.0.1>", "7@x", 2, "\"Ann\""},
      {"7@x##0##Ann Lee <sip:100@127.0.0.1>;tag=t", "<sip:200@127.0.0.1>", "7@x", 0, "\"Ann Lee\""},
      {"<sip:101@127.0.0.1>;tag=t", "<sip:200@127.0.0.1>", "caller-rule@h", 1, "\"101@127.0.0.1\""},
      {"<sip:301@127.0.0.1>;tag=t", "<sip:200@127.0.0.1>", "destination-rule@h", 2, "\"301@127.0.0.1\""},
      {"\"\" <sip:301@127.0.0.1>;tag=t;x=1", "<sip:300@127.0.0.1:5070;user=phone>", "300@127.0.0.1", 3,
       "\"301@127.0.0.1\""},
      {"\"A \\\"B\\\" C\" <sip:301@127.0.0.1>; tag=t", "<sip:300@127.0.0.1>", "300@127.0.0.1", 3,
       "\"A \\\"B\\\" C\""},
      {"sip:3##1##@127.0.0.1;tag=t", "<sip:300@127.0.0.1>", "300@127.0.0.1", 3, "\"3##1##@127.0.0.1\""},
      {"sip:301@127.0.0.1;tag=t", "Bob <sip:300@127.0.0.1>", "300@127.0.0.1", 3, "\"301@127.0.0.1\""},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.from);
    start();
    invite.from = each.from;
    invite.to = each.to;
    fromCaller(inviteText());
    const std::string out = atPbx();
    EXPECT_EQ(firstLine(out), "INVITE sip:" + std::string(each.expectedUri) + " SIP/2.0");
    EXPECT_TRUE(header(out, "From")
                    .starts_with(std::string(each.expectedName) + " <sip:KestrovaPair0@pbx.example>;tag="))
        << header(out, "From");
    EXPECT_EQ(sip->phone(0).iCleaningType, each.type);
    EXPECT_EQ(sip->phone(2).iCleaningType, each.type);
    EXPECT_EQ(sip->phone(0).pcRemoteTag, ";tag=t");
  }
}

TEST_F(SetUpTest, UnusableInviteIsLoggedDroppedAndLeavesTheSlotFree) {
  const std::string name100(100, 'n');
  const std::string destination166(166, 'd');
  const std::string longName = "From: \"" + name100 + "\" <sip";
  const std::string longDestination = "From: \"" + destination166 + "##1##A\" <sip:a@b>;tag=t\r\nX: <sip";
  const std::string longTag = ";tag=" + std::string(95, 't');
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"From: \"Alice\" <sip:", "From: \"Alice\" <tel:",
       "unable to find sip: in \"Alice\" <tel:100@127.0.0.1>;tag=alice1"},
      {";tag=alice1", "", "unable to find tag in \"Alice\" <sip:100@127.0.0.1>"},
      {";tag=alice1", longTag.c_str(), "tag is too long\n"},
      {"\"Alice\"", "\"Alice", "unable to find display name in \"Alice <sip"},
      {"From: \"Alice\" <sip", longName.c_str(), "display name too long 100\n"},
      {"\"Alice\"", "\"7@x##4##Al\"", "invalid cleaning type (4) read from \"7@x##4##Al\""},
      {"\"Alice\"", "\"7@x##-1##Al\"", "invalid cleaning type (-1) read from"},
      {"\"Alice\"", "\"7@x##z##Al\"", "unable to read cleaning type from"},
      {"\"Alice\"", "\"7@x##1\"", "unable to find cleaning type in"},
      {"From: \"Alice\" <sip", longDestination.c_str(), "destination too long 166\n"},
      {"To: <sip:", "To: <tel:", "unable to find sip: in To string: <tel:200"},
      // What a name or URI would bring into our INVITE as header lines of its own.
      {"\"Alice\"", "\"7@x\r\nX: y;From:##1##A\"", "unable to find sip: in \"7@x\n"},
      {"\"Alice\"", "\"7@x\r\nFrom: y##1##A\"", "unable to find display name in \"7@x"},
      {"To: <sip:", "To: <sip:7\r\nTo: <sip:", "error analyzing the URI String sip:7"},
      {"m=audio", "m=audio x", "unable to analyze audio in SDP for phone 0 - terminating the call\n"},
      {"Contact: <sip:", "Contact: <tel:", "unable to find sip: in the string: <tel:100"},
  };
  start();
  for (const auto& [what, with, log] : cases) {
    SCOPED_TRACE(with);
    installation.clearLog();
    fromCaller(withLength(replaced(inviteText(), what, with)));
    EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    expectSilence();
    EXPECT_FALSE(sip->phone(0).bInUse);
    EXPECT_EQ(sip->numActiveCalls(), 0);
  }
  pcDefaultCmd.clear();
  fromCaller(inviteText());
  EXPECT_EQ(installation.logCount("ERROR in MySip::findMatchingCommand, there is no default commnad\n"), 1);
}

TEST_F(SetUpTest, PairLegPresentsTheCallerOrKeepsTheOriginalRequestUri) {
  invite.uri = "sip:dialled@10.9.8.7;user=phone";
  for (const bool keepsUri : {false, true}) {
    iPairPhoneShouldImpersonateTheOriginator = keepsUri ? 0 : 1;
    iUseOriginalRURI = keepsUri ? 1 : 0;
    start();
    fromCaller(inviteText());
    const std::string out = atPbx();
    EXPECT_EQ(firstLine(out),
              keepsUri ? "INVITE " + invite.uri + " SIP/2.0" : "INVITE sip:200@127.0.0.1 SIP/2.0");
    const char* const from = keepsUri ? " <sip:KestrovaPair0@pbx.example>" : " <sip:100@127.0.0.1>";
    EXPECT_TRUE(header(out, "From").starts_with("\"Alice\"" + std::string(from) + ";tag=")) << out;
    EXPECT_TRUE(header(out, "Contact").starts_with("<sip:KestrovaPair0@127.0.0.1:")) << out;
    EXPECT_EQ(header(out, "To"), "<sip:200@127.0.0.1>");
  }
}

TEST_F(SetUpTest, RoutingFileRowReplacesThePbx) {
  LoopbackPeer gateway;
  iNumSipRoutingRecords = 1;
  ASSERT_TRUE(psSipRoutingRows[0].pcIP.assign("127.0.0.1") &&
              psSipRoutingRows[0].pcExpressions[0].assign("2??@127.0.0.1"));
  psSipRoutingRows[0].iPort = gateway.port();
  psSipRoutingRows[0].iNumExpressions = 1;
  start();
  fromCaller(inviteText());
  EXPECT_TRUE(firstLine(gateway.receive().value_or("")).starts_with("INVITE sip:200@"));
  expectSilence();
}

TEST_F(SetUpTest, PreservedHeadersAreCarriedWhileTheyFit) {
  const auto preserve = [&](std::vector<const char*> names) {
    iNumberOfPSHExpressions = 0;
    for (const char* name : names) {
      ASSERT_TRUE(pcPSHExpressions[static_cast<std::size_t>(iNumberOfPSHExpressions++)].assign(name));
    }
  };
  // 499 characters fit: "X-A: " (5) + value + CR LF (2).
  for (const int valueLength : {491, 492, 493, 600}) {
    SCOPED_TRACE(valueLength);
    preserve({"x-a:", "X-B:"});
    start();
    installation.clearLog();
    const std::string value(static_cast<std::size_t>(valueLength), 'v');
    invite.extraHeaders = "X-A: " + value + "\r\nX-B: b\r\n";
    fromCaller(inviteText());
    const std::string out = atPbx();
    EXPECT_EQ(out.find("x-a: " + value + "\r\n") != std::string::npos, valueLength <= 492);
    EXPECT_EQ(out.find("X-B: b"), std::string::npos);
    EXPECT_EQ(installation.logCount("Not enough space to accomodate the headers that shoule be preserved\n"),
              1);
  }
  preserve({"X-B:", "X-Absent:"});
  start();
  invite.extraHeaders = "X-B: b\r\nX-Other: c;X-B: d\r\n";
  fromCaller(inviteText());
  EXPECT_NE(atPbx().find("\r\nX-B: b\r\nContent-Length: "), std::string::npos);
}

TEST_F(SetUpTest, RouteSetIsStoredReversedAndReturned) {
  start();
  LoopbackPeer edge;
  invite.extraHeaders = "Record-Route: <sip:127.0.0.1:" + std::to_string(edge.port()) +
                        ";lr>\r\nX-Between: 1\r\nRecord-Route: <sip:10.0.0.2;lr>\r\n";
  fromCaller(inviteText());
  pairInvite = atPbx();
  const std::string own = "<sip:127.0.0.1:" + std::to_string(iSipPort) + ">";
  EXPECT_EQ(header(pairInvite, "Record-Route"), own);
  ASSERT_EQ(sip->phone(0).iNumRoutes, 3);
  EXPECT_EQ(sip->phone(0).ppcRoutes[0], own);
  EXPECT_EQ(sip->phone(0).ppcRoutes[2], "<sip:10.0.0.2;lr>");

  const std::string proxy = "<sip:127.0.0.1:" + std::to_string(edge.port()) + ";lr>";
  fromPbx(respond(pairInvite, "200 OK", "bob1",
                  "Contact: <sip:200@127.0.0.1>\r\nRecord-Route: " + proxy + " , " + own + "\r\n",
                  sdp(LoopbackPeer::freePortPair(), "0")));
  const std::string ok = atCaller();
  EXPECT_NE(ok.find("\r\nRecord-Route: " + own + "\r\nRecord-Route: <sip:127.0.0.1:" +
                    std::to_string(edge.port()) + ";lr>\r\nRecord-Route: <sip:10.0.0.2;lr>\r\nVia: "),
            std::string::npos)
      << ok;
  // The caller's ACK has a Route, so ours goes to the first hop after ourselves.
  invite.extraHeaders = "Route: " + own + "\r\n";
  fromCaller(callerRequest("ACK", 1));
  const std::string ack = edge.receive().value_or("");
  EXPECT_EQ(firstLine(ack), "ACK sip:200@127.0.0.1 SIP/2.0");
  EXPECT_EQ(header(ack, "Route"), proxy);
  expectSilence();

  std::string ten = "Record-Route: <sip:a>\r\n";
  for (int i = 0; i < 9; ++i) ten += "Record-Route: <sip:a>\r\n";
  start();
  invite.extraHeaders = ten;
  fromCaller(inviteText());
  EXPECT_EQ(sip->phone(0).iNumRoutes, 0);
  EXPECT_EQ(installation.logCount("Too many routing records"), 1);
}

TEST_F(SetUpTest, InviteWithReplacesEndsTheOldCallAndNamesItOnTheOtherLeg) {
  start();
  answer();
  const std::string oldPairCallId(sip->phone(2).pcCallID.view());
  const std::string localTag(sip->phone(2).pcLocalTag.view().substr(5));
  const std::string replaces = "Replaces: " + invite.callId + ";to-tag=x;from-tag=y\r\n";
  invite.callId = "new@127.0.0.1";
  invite.extraHeaders = replaces;
  fromCaller(inviteText());
  const std::string out = atPbx();
  EXPECT_EQ(header(out, "Replaces"), oldPairCallId + ";to-tag=bob1;from-tag=" + localTag);
  EXPECT_TRUE(sip->phone(0).bTerminating && sip->phone(2).bTerminating);
  EXPECT_EQ(sip->phone(1).pcHeadersToCopy, replaces);
  EXPECT_EQ(sip->numActiveCalls(), 1);
}

TEST_F(SetUpTest, CodecListOfTheCallerIsOfferedInHisOrder) {
  for (const int copy : {0, 1}) {
    iCopyCodecListFromInitialInvite = copy;
    start();
    invite.sdp = sdp(7000, "8 0 101", "a=rtpmap:101 telephone-event/8000\r\n");
    fromCaller(inviteText());
    const std::string out = atPbx();
    EXPECT_NE(out.find(copy == 1 ? " RTP/AVP 8 0 101\r\n" : " RTP/AVP 9 0 8 101\r\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("a=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-15\r\n"), std::string::npos);
  }
}

TEST_F(SetUpTest, SlotOfTheNamedPairPhoneIsUsed) {
  iInviteShouldMatchPairPhoneName = 1;
  ASSERT_TRUE(pcPairPhonesName.assign("200;201;"));
  start();
  fromCaller(inviteText());
  const std::string refusal = atCaller();
  EXPECT_EQ(firstLine(refusal), "SIP/2.0 486 Busy Here");
  EXPECT_EQ(installation.logCount("Phone 200 is not binded\n"), 1);
  EXPECT_EQ(installation.logCount("no match for INVITE 200\n"), 1);

  // A bound phone calls: its From user chooses the pair phone.
  sip_text::Request registration;
  registration.method = "REGISTER";
  registration.from = registration.to = "<sip:201@127.0.0.1>";
  registration.from += ";tag=r";
  registration.contact = invite.contact;
  registration.callId = "register@127.0.0.1";
  fromCaller(build(registration));
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 200 Ok");
  invite.from = "<sip:201@127.0.0.1>;tag=q";
  fromCaller(inviteText());
  const std::string out = atPbx();
  EXPECT_TRUE(header(out, "From").starts_with("\"201@127.0.0.1\" <sip:201@pbx.example>;tag=")) << out;
  EXPECT_TRUE(header(out, "Contact").starts_with("<sip:201@")) << out;
  EXPECT_NE(out.find("m=audio " + std::to_string(sip->phone(3).iRtpPort) + " "), std::string::npos) << out;
  EXPECT_TRUE(sip->phone(1).bInUse && !sip->phone(0).bInUse);
  invite.callId = "again@127.0.0.1";
  fromCaller(inviteText());
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 486 Busy Here");
  EXPECT_EQ(installation.logCount("Phone 201,3 is during a call going to continue the search\n"), 1);
  EXPECT_EQ(installation.logCount("no match for INVITE in FROM 201\n"), 1);
}

TEST_F(SetUpTest, SlotsArePairedNamedAndNumbered) {
  iNumPhonesToAllocate = 6;
  ASSERT_TRUE(pcOrigPhonesName.assign("a;b;c;") && pcOrigPhonesSecret.assign("x;y;z;"));
  ASSERT_TRUE(pcPairPhonesNamePrefix.assign("ext"));
  start();
  EXPECT_EQ(sip->phone(1).iPairIndex, 4);
  EXPECT_EQ(sip->phone(4).iPairIndex, 1);
  EXPECT_EQ(sip->phone(5).iRtpPort, iRtpUAPortInitVal + 10);
  EXPECT_EQ(sip->phone(1).pcSipName, "b@pbx.example");
  EXPECT_EQ(sip->phone(2).pcSecret, "z");
  EXPECT_EQ(sip->phone(5).pcUserName, "ext2");
  for (int slot = 0; slot < 6; ++slot) {
    const std::string callId(sip->phone(slot).pcRegistrationCallID.view());
    EXPECT_EQ(callId.size(), 59U);
    EXPECT_TRUE(callId.ends_with(std::string(sip->phone(slot).pcUserName.view()) + "@127.0.0.1"));
  }
  for (const auto& [names, secrets, log] :
       {std::tuple<const char*, const char*, const char*>{"a;b;c", "",
                                                          "not enough names in pcOrigPhonesName\n"},
        {"a;b;c;", "x;y;", "not enough secrets in pcOrigPhonesSecret\n"},
        {"a;b;c;", "x;y;12345678901234567890;", "secret of phone 2 is longer than 19 characters\n"}}) {
    ASSERT_TRUE(pcOrigPhonesName.assign(names) && pcOrigPhonesSecret.assign(secrets));
    EXPECT_EQ(MySip().init(), 2);
    EXPECT_EQ(installation.logCount(log), 1);
  }
  // 127.0.0.1 and "@" leave 49 of the 59 characters of a Call-ID.
  ASSERT_TRUE(pcOrigPhonesName.assign("") && pcOrigPhonesSecret.assign(""));
  for (const std::size_t length : {48U, 49U}) {
    ASSERT_TRUE(pcPairPhonesNamePrefix.assign(std::string(length, 'p')));
    EXPECT_EQ(MySip().init(), length == 48 ? 0 : 2);
  }
  EXPECT_EQ(installation.logCount(": with SipUAIP 127.0.0.1 and \"@\" it must not exceed 59 characters\n"),
            1);
}

TEST_F(SetUpTest, OldestCopyOfAnEndedCallIsOverwritten) {
  start();
  for (int i = 0; i < sip->numSlots() + 1; ++i) {
    sip->setCallID(0, "old" + std::to_string(i) + "@h");
    sip->moveCallToOldCalls(0);
  }
  EXPECT_FALSE(sip->checkOldCalls("old0@h", "SIP/2.0 200 OK", 1, "1 INVITE"));
  EXPECT_TRUE(sip->checkOldCalls("old1@h", "SIP/2.0 200 OK", 1, "1 INVITE"));
}

}  // namespace
