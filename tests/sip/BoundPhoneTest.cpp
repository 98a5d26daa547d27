// Phones that register and subscribe through Quorvel. The fixture's caller plays the phone.
#include <gtest/gtest.h>
#include <string>
#include <tuple>

#include "common/Clock.h"
#include "tests/sip/SipFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

class BoundPhoneTest : public SipFixture {
 protected:
  Request phoneRequest(const std::string& method, int cseq,
                       const std::string& extra = "Expires: 60\r\n") const {
    Request request;
    request.method = method;
    request.uri = "sip:pbx.example";
    request.callId = method + "@phone";
    request.cseq = cseq;
    request.viaPort = caller.port();
    request.branch = "z9hG4bK" + method + std::to_string(cseq);
    request.from = "\"Ann\" <sip:201@phone.example>;tag=ann1";
    request.to = "<sip:201@phone.example>";
    request.contact = "<sip:201@127.0.0.1:" + std::to_string(caller.port()) + ">";
    request.extraHeaders = extra;
    return request;
  }
  std::string viaOf(const Request& request) const {
    return "SIP/2.0/UDP 127.0.0.1:" + std::to_string(caller.port()) + ";branch=" + request.branch +
           ";received=127.0.0.1;rport=" + std::to_string(caller.port());
  }
  std::string ourContact() const { return "\"201\" <sip:201@127.0.0.1:" + std::to_string(iSipPort) + ">"; }
  // The 200 that a phone gets for its request.
  std::string answerTo(const Request& request, const std::string& toTag, const std::string& expires) const {
    return "SIP/2.0 200 Ok\r\nVia: " + viaOf(request) + "\r\nFrom: " + request.from +
           "\r\nTo: " + request.to + toTag + "\r\nContact: " + request.contact +
           "\r\nCall-ID: " + request.callId + "\r\nCSeq: " + std::to_string(request.cseq) + " " +
           request.method + "\r\nExpires: " + expires +
           "\r\nUser-Agent: Kestrova Quorvel\r\nContent-Length: 0\r\n\r\n";
  }
  const sBinding& phone() const { return sip->bindingAt(0); }

  void startAsProxy() {
    iSipProxyArchitecture = 1;
    start();
  }
  // A phone that the PBX has accepted.
  void registerPhone() {
    fromCaller(build(phoneRequest("REGISTER", 1, "Expires: 3600\r\n")));
    fromPbx(respond(atPbx(), "200 OK", "pbx"));
    ASSERT_EQ(firstLine(atCaller()), "SIP/2.0 200 Ok");
  }
  // A subscription that the PBX has accepted; returns the SUBSCRIBE as the PBX received it.
  std::string subscribePhone() {
    fromCaller(build(phoneRequest("SUBSCRIBE", 1, "Event: message-summary\r\nExpires: 600\r\n")));
    const std::string relayed = atPbx();
    fromPbx(respond(relayed, "200 OK", "pbx"));
    EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 200 Ok");
    return relayed;
  }
  Request notify(const std::string& callId, int cseq) const {
    Request request;
    request.method = "NOTIFY";
    request.uri = "sip:201@127.0.0.1";
    request.callId = callId;
    request.cseq = cseq;
    request.viaPort = pbx.port();
    request.branch = "z9hG4bKnotify" + std::to_string(cseq);
    request.from = "<sip:201@pbx.example>;tag=pbx";
    request.to = "<sip:201@pbx.example>;tag=us";
    request.contact = "<sip:pbx@127.0.0.1>";
    request.extraHeaders = "Event: message-summary\r\nSubscription-State: active\r\n";
    return request;
  }
};

// ---- REGISTER ----

TEST_F(BoundPhoneTest, RegistrarAnswersAtOnceAndBindsThePhone) {
  start();
  const Request request = phoneRequest("REGISTER", 5);
  fromCaller(build(request));
  EXPECT_EQ(atCaller(), answerTo(request, std::string(phone().pcRelayTag.view()), "60"));
  EXPECT_EQ(tag(phone().pcRelayTag).size(), 11U);
  EXPECT_EQ(phone().pcBindingName, "201@phone.example");
  EXPECT_EQ(phone().pcBindingNameAtUA, "201@127.0.0.1");
  EXPECT_EQ(phone().pcBindingNameAtDomain, "201@pbx.example");
  EXPECT_EQ(phone().tConfirmedExpiry, kStart + 60);
  expectSilence();

  fromCaller(build(phoneRequest("REGISTER", 6, "Expires: 0\r\n")));
  EXPECT_EQ(header(atCaller(), "Expires"), "0");
  EXPECT_EQ(sip->iNumBindings, 1);
  passSeconds(1);
  EXPECT_EQ(sip->iNumBindings, 0);
}

TEST_F(BoundPhoneTest, ExpiryIsReadFromTheHeaderOrTheContact) {
  for (const auto& [line, parameter, expires, log] :
       {std::tuple<const char*, const char*, int, const char*>{"Expires: 60\r\n", ";expires=90", 60, ""},
        {"", ";expires=90;q=1", 90, ""},
        {"", ";EXPIRES=0", 0, ""},
        {"", "", 3600,
         "WARNING in MySip::handleRequestToRegisterWithUs, Unable to extract expiration from Contact. "
         "Using 3600 instead.\n"},
        {"", ";expires=soon", 3600, ";expires=soon. Using 3600 instead.\n"},
        {"Expires: \r\n", "", -1,
         "ERROR in MySip::handleRequestToRegisterWithUs, Unable to extract expiration from msg\n"},
        {"Expires: -1\r\n", "", -1, "Unable to read valid expiration from: -1\n"},
        {"Expires: 4294967295\r\n", "", -1, "Unable to read valid expiration from: 4294967295\n"},
        {"", ";expires=-5", -1, "Unable to read valid expiration from: -5"}}) {
    SCOPED_TRACE(std::string(line) + parameter);
    start();
    installation.clearLog();
    std::filesystem::remove(installation.bin() / "binding");
    Request request = phoneRequest("REGISTER", 1, line);
    request.contact += parameter;
    fromCaller(build(request));
    if (*log != '\0') {
      EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    }
    if (expires >= 0) {
      EXPECT_EQ(header(atCaller(), "Expires"), std::to_string(expires));
      EXPECT_EQ(phone().tRequestedExpiry, expires == 0 ? 0 : kStart + expires);
    }
    expectSilence();
    fromCaller(build(phoneRequest("REGISTER", 2, "Expires: 0\r\n")));
    (void)caller.receive();
    passSeconds(1);
    Clock::freezeAt(kStart);
  }
}

TEST_F(BoundPhoneTest, MalformedRegistersAreLoggedAndNotAnswered) {
  const std::string good = build(phoneRequest("REGISTER", 1));
  const std::string contact = "Contact: <sip:201@127.0.0.1:" + std::to_string(caller.port()) + ">";
  const std::string to = "To: <sip:201@phone.example>";
  start();
  for (const auto& [what, with, log] : std::vector<std::tuple<std::string, std::string, const char*>>{
           {contact, "X: y", "Unable to extract data\n"},
           {"Via: ", "Vie: ", "Unable to extract data\n"},
           {to, "To: " + std::string(200, 'a'), "Unable to extract data\n"},
           {to, "To: <tel:201>", "unable to find sip: in the string: <tel:201>\n"},
           {to, "To: <sip:201@phone.example:x>", "error analyzing the URI String"},
           {to, "To: <sip:" + std::string(120, 'u') + "@h>", "user name is too long: uuu"},
           {contact, "Contact: *", "unable to find sip: in To string: *\n"},
           {contact, "Contact: <sip:127.0.0.1>", "unable to find @ in To string: <sip:127.0.0.1>\n"},
           {contact, "Contact: <sip:201@seventeen.letters>",
            "IP address to long in string: <sip:201@seventeen.letters>\n"}}) {
    SCOPED_TRACE(with);
    installation.clearLog();
    fromCaller(replaced(good, what, with));
    EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    EXPECT_EQ(sip->iNumBindings, 0);
    expectSilence();
  }
}

TEST_F(BoundPhoneTest, AddressIsTheSourceOrAsConfiguredTheContact) {
  for (const int useContact : {0, 1}) {
    iUseContactHeaderForFarEndAddressDuringRegistation = useContact;
    start();
    LoopbackPeer elsewhere;
    Request request = phoneRequest("REGISTER", 1);
    request.contact = "sip:201@127.0.0.1:" + std::to_string(elsewhere.port()) +
                      "\r\nContact: sip:201@127.0.0.1:9";  // the first of several counts
    fromCaller(build(request));
    EXPECT_EQ(firstLine((useContact != 0 ? elsewhere : caller).receive().value_or("")), "SIP/2.0 200 Ok");
    EXPECT_EQ(phone().pcContactIP, "127.0.0.1");
    EXPECT_EQ(phone().iContactPort, elsewhere.port());
    expectSilence();
  }
  // A host without address must not be bound to the PBX's, which would then count as a phone of ours.
  Request request = phoneRequest("REGISTER", 1);
  request.callId = request.to = "<sip:202@phone.example>";
  const std::string atPort = "<sip:202@127.0.0.1:";
  for (const auto& [contact, log] :
       {std::pair<std::string, const char*>{"<sip:202@nobody.invalid>",
                                            "error analyzing the URI String <sip:202"},
        {atPort + std::to_string(pbx.port()) + ">", "no phone is reached at <sip:202"},
        {atPort + std::to_string(iSipPort) + ">", "no phone is reached at <sip:202"}}) {
    request.contact = contact;
    installation.clearLog();
    fromCaller(build(request));
    EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    EXPECT_EQ(sip->iNumBindings, 1);
    expectSilence();
  }
}

TEST_F(BoundPhoneTest, ProxyRegistersThePhoneWithThePbxAndRelaysTheChallenge) {
  startAsProxy();
  const Request first = phoneRequest("REGISTER", 1);
  fromCaller(build(first));
  const std::string relayed = atPbx();
  const std::string relayTag(phone().pcRelayTag.view());
  const auto expected = [&](int cseq, const std::string& expires, const std::string& credentials) {
    return "REGISTER sip:pbx.example SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(iSipPort) +
           ";rport;branch=" + std::string(phone().pcRelayBranch.view()) +
           "\r\nFrom: 201 <sip:201@pbx.example>" + relayTag +
           "\r\nTo: 201 <sip:201@pbx.example>\r\nContact: " + ourContact() +
           "\r\nCall-ID: " + std::string(phone().pcRelayCallID.view()) + "\r\nCSeq: " + std::to_string(cseq) +
           " REGISTER\r\nExpires: " + expires + "\r\nMax-Forwards: 70\r\nUser-Agent: Kestrova Quorvel\r\n" +
           credentials + "Content-Length: 0\r\n\r\n";
  };
  EXPECT_EQ(relayed, expected(2, "60", ""));
  EXPECT_EQ(header(relayed, "Call-ID").size(), 59U);
  expectSilence();

  fromPbx(respond(relayed, "401 Unauthorized", "x", "WWW-Authenticate: Digest realm=\"r\",nonce=\"n\"\r\n"));
  const std::string challenge = atCaller();
  EXPECT_EQ(firstLine(challenge), "SIP/2.0 401 Unauthorized");
  EXPECT_EQ(header(challenge, "WWW-Authenticate"), "Digest realm=\"r\",nonce=\"n\"");
  EXPECT_EQ(header(challenge, "Via"), viaOf(first));
  EXPECT_EQ(header(challenge, "Call-ID") + header(challenge, "CSeq"), first.callId + "1 REGISTER");

  const std::string credentials = "Authorization: Digest username=\"201\",response=\"0\"\r\n";
  const Request second = phoneRequest("REGISTER", 2, "Expires: 60\r\n" + credentials);
  fromCaller(build(second));
  const std::string authorised = atPbx();
  EXPECT_EQ(authorised, expected(3, "60", credentials));
  fromCaller(build(second));
  EXPECT_EQ(atPbx(), authorised) << "a repetition goes out with the branch and CSeq as before";
  fromCaller(build(phoneRequest("REGISTER", 1)));
  EXPECT_EQ(header(atPbx(), "CSeq"), "3 REGISTER");
  EXPECT_EQ(installation.logCount(
                "WARNING in MySip::handleRequestToRegisterWithUs, Received smaller sequence number for "
                "registration of \"Ann\" <sip:201@phone.example>;tag=ann1 1 2\n"),
            1);
  fromCaller(build(second));
  (void)atPbx();
  EXPECT_EQ(phone().tConfirmedExpiry, 0);
  fromPbx(respond(relayed, "200 OK", "x"));
  expectSilence();  // an answer to the first REGISTER confirms nothing any more
  fromPbx(respond(authorised, "200 OK", "x"));
  EXPECT_EQ(atCaller(), answerTo(second, relayTag, "60"));
  EXPECT_EQ(phone().tConfirmedExpiry, kStart + 60);

  Request another = phoneRequest("REGISTER", 2);
  another.callId = "restarted@phone";
  fromCaller(build(another));
  const std::string fresh = atPbx();
  EXPECT_NE(header(fresh, "Call-ID"), header(relayed, "Call-ID"));
  EXPECT_NE(tag(header(fresh, "From")), tag(relayTag));
  fromPbx(respond(fresh, "200 OK", "x"));
  (void)atCaller();

  another.extraHeaders = "Expires: 0\r\n";
  another.cseq = 3;
  fromCaller(build(another));
  const std::string withdrawal = atPbx();
  EXPECT_EQ(header(withdrawal, "Expires"), "0");
  passSeconds(2);
  EXPECT_EQ(sip->iNumBindings, 1) << "the PBX has not confirmed yet";
  fromPbx(respond(withdrawal, "200 OK", "x"));
  EXPECT_EQ(header(atCaller(), "Expires"), "0");
  passSeconds(1);
  EXPECT_EQ(sip->iNumBindings, 0);
}

TEST_F(BoundPhoneTest, SequenceNumbersRunOverTheirEnd) {
  startAsProxy();
  for (const auto& [cseq, relayed] :
       {std::pair{2147483646, 2}, {2147483647, 3}, {-2147483647 - 1, 4}, {2147483647, 4}, {-2147483640, 5}}) {
    fromCaller(build(phoneRequest("REGISTER", cseq)));
    EXPECT_EQ(header(atPbx(), "CSeq"), std::to_string(relayed) + " REGISTER") << cseq;
  }
}

// ---- SUBSCRIBE and NOTIFY ----

TEST_F(BoundPhoneTest, SubscriptionIsRelayedAndItsNotifiesComeBack) {
  startAsProxy();
  registerPhone();
  Request subscribe = phoneRequest("SUBSCRIBE", 1,
                                   "Event: dialog\r\nSupported: eventlist\r\nAccept: application/x\r\n"
                                   "X: y;Accept: z\r\nExpires: 600\r\nProxy-Authorization: Digest x\r\n");
  subscribe.uri = "sip:202@pbx.example";
  subscribe.to = "<sip:202@pbx.example>";
  fromCaller(build(subscribe));
  const std::string relayed = atPbx();
  const sSubscription& entry = phone().subscription(0);
  EXPECT_EQ(
      relayed,
      "SUBSCRIBE sip:202@pbx.example SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(iSipPort) +
          ";rport;branch=" + std::string(entry.pcRelayBranch.view()) + "\r\nFrom: 201 <sip:201@pbx.example>" +
          std::string(entry.pcRelayTag.view()) + "\r\nTo: <sip:202@pbx.example>\r\nContact: " + ourContact() +
          "\r\nCall-ID: " + std::string(entry.pcRelayCallID.view()) +
          "\r\nCSeq: 3 SUBSCRIBE\r\nEvent: dialog\r\nSupported: eventlist\r\nAccept: "
          "application/x\r\nExpires: 600\r\n"
          "Max-Forwards: 70\r\nUser-Agent: Kestrova Quorvel\r\nProxy-Authorization: Digest "
          "x\r\nContent-Length: 0\r\n\r\n");
  fromCaller(build(subscribe));
  EXPECT_EQ(atPbx(), relayed);
  // Of a line in the body, which ends as it likes, nothing becomes a header of its own.
  fromPbx(respond(relayed, "407 Proxy Authentication Required", "x", "",
                  "Proxy-Authenticate: Digest realm=\"r\"\nContact: <sip:stranger>\r\n"));
  const std::string challenge = atCaller();
  EXPECT_EQ(header(challenge, "CSeq") + header(challenge, "Proxy-Authenticate"),
            "1 SUBSCRIBEDigest realm=\"r\"");
  EXPECT_EQ(challenge.find("stranger"), std::string::npos);
  fromPbx(respond(relayed, "200 OK", "x"));
  EXPECT_EQ(atCaller(), answerTo(subscribe, "", "600"));
  EXPECT_EQ(entry.tConfirmedExpiry, kStart + 600);

  int cseqOut = 3;
  for (const std::string status : {"200 OK", "481 Subscription does not exist"}) {
    const Request told = notify(std::string(entry.pcRelayCallID.view()), 10 + cseqOut);
    const std::string text = withLength(build(told) + "Messages-Waiting: yes\r\n");
    fromPbx(text);
    const std::string out = atCaller();
    EXPECT_EQ(out, "NOTIFY sip:201@phone.example SIP/2.0\r\nVia: " + header(text, "Via") + "\r\nFrom: " +
                       told.from + "\r\nTo: " + subscribe.from + "\r\nContact: " + told.contact +
                       "\r\nCall-ID: " + subscribe.callId + "\r\nCSeq: " + std::to_string(++cseqOut) +
                       " NOTIFY\r\nUser-Agent: Kestrova Quorvel\r\nEvent: "
                       "message-summary\r\nSubscription-State: active\r\n"
                       "Content-Length: 23\r\n\r\nMessages-Waiting: yes\r\n");
    fromPbx(text);
    EXPECT_EQ(atCaller(), out) << "repeated, not relayed anew";
    fromCaller(respond(out, status));
    EXPECT_EQ(atPbx(), "SIP/2.0 " + std::string(status == "200 OK" ? "200 Ok" : status) + "\r\nVia: " +
                           header(text, "Via") + "\r\nFrom: " + told.from + "\r\nTo: " + told.to +
                           "\r\nCall-ID: " + told.callId + "\r\nCSeq: " + std::to_string(told.cseq) +
                           " NOTIFY\r\nUser-Agent: Kestrova Quorvel\r\nContent-Length: 0\r\n\r\n");
    fromCaller(replaced(respond(out, status), "CSeq: " + std::to_string(cseqOut), "CSeq: 99"));
    expectSilence();
  }
  const std::string more = build(notify(std::string(entry.pcRelayCallID.view()), 50));
  for (const char* name : {"Via: ", "From: ", "To: ", "Contact: "}) {
    installation.clearLog();
    fromPbx(replaced(more, "\r\n" + std::string(name), "\r\nX-"));
    EXPECT_EQ(installation.logCount("Unable to extract data\n"), 1) << name;
  }
  fromPbx(build(notify(subscribe.callId, 51)));  // the phone's Call-ID, of which the PBX knows nothing
  expectSilence();
  fromPbx(more);
  EXPECT_EQ(header(atCaller(), "Call-ID"), subscribe.callId) << "what came before has changed nothing";
  passSeconds(601);
  EXPECT_EQ(phone().iNumSubscriptions, 0);
  EXPECT_EQ(sip->iNumBindings, 1);
}

TEST_F(BoundPhoneTest, SubscribesThatCannotBeRelayedAreLoggedAndNotAnswered) {
  startAsProxy();
  registerPhone();
  const std::string good = build(phoneRequest("SUBSCRIBE", 1));
  const std::string expires = "Expires: 60\r\n";
  const std::string from = "<sip:201@phone.example>;tag=ann1";
  for (const auto& [what, with, log] : std::vector<std::tuple<std::string, std::string, const char*>>{
           {"Call-ID: ", "Call-ID: " + std::string(98, 'c'), "Call-ID: is too long"},
           {"Contact: ", "Kontact: ", "Unable to extract data\n"},
           {from, "<tel:201>;tag=ann1", "unable to find sip: in the string: "},
           {from, "<sip:299@phone.example>;tag=ann1", ""},
           {expires, "",
            "ERROR in MySip::handleRequestToSubscribeWithUs, Unable to extract expiration from Contant\n"},
           {expires, "Expires: \r\n", "Unable to extract expiration from msg\n"},
           {expires, "Expires: -2\r\n", "Unable to read valid expiration from: -2\n"}}) {
    SCOPED_TRACE(with);
    installation.clearLog();
    fromCaller(replaced(good, what, with));
    if (*log == '\0') {
      EXPECT_EQ(installation.log(), "");
    } else {
      EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    }
    expectSilence();
  }
  for (int i = 0; i < kMaxSubscriptions; ++i)
    (void)sip->processNewSubscriptionInformation(0, "x" + std::to_string(i), 60);
  for (int i = 0; i < kMaxSubscriptions; ++i)
    sip->bindingAt(0).subscription(i).pcPhoneCallID.assignCut("x" + std::to_string(i));
  while (phone().iNumSubscriptions < kMaxSubscriptions)
    (void)sip->processNewSubscriptionInformation(0, "y", 60);
  fromCaller(good);
  EXPECT_EQ(installation.logCount("No room for aditional subscriptions for phone 201@phone.example\n"), 1);
  fromPbx(build(notify("unknown@pbx", 1)));
  EXPECT_EQ(installation.logCount(
                "WARNING in MySip::handleNOTIFYMsgWithUnknownCallID, No room for aditional subscriptions"),
            1);
  expectSilence();

  iSipProxyArchitecture = 0;
  fromCaller(good);
  fromPbx(build(notify("unknown@pbx", 1)));
  expectSilence();
}

TEST_F(BoundPhoneTest, UnsolicitedNotifyReachesTheBoundPhone) {
  startAsProxy();
  registerPhone();
  // The longest Call-ID that there can be does not fit where ours stand, and is answered all the same.
  for (const std::string& callId : {std::string("mwi@pbx"), std::string(99, 'c')}) {
    SCOPED_TRACE(callId);
    const Request told = notify(callId, 7);
    fromPbx(build(told));
    const std::string out = atCaller();
    EXPECT_EQ(firstLine(out), "NOTIFY sip:201@phone.example SIP/2.0");
    EXPECT_EQ(header(out, "Call-ID"), callId);
    EXPECT_EQ(header(out, "To"), told.to);
    fromPbx(build(told));
    EXPECT_EQ(atCaller(), out);
    fromCaller(respond(out, "200 OK"));
    const std::string ok = atPbx();
    EXPECT_EQ(header(ok, "Call-ID") + header(ok, "CSeq"), callId + "7 NOTIFY");
  }
  Request other = notify("stranger@pbx", 7);
  other.to = "<sip:299@pbx.example>";
  fromPbx(build(other));
  other = notify("eventless@pbx", 7);
  other.extraHeaders.clear();
  fromPbx(build(other));
  EXPECT_EQ(
      installation.logCount("ERROR in MySip::handleNOTIFYMsgWithUnknownCallID, Unable to extract data\n"), 1);
  expectSilence();
  passSeconds(30);
  EXPECT_EQ(phone().iNumSubscriptions, 2);
  passSeconds(1);
  EXPECT_EQ(phone().iNumSubscriptions, 0);
}

TEST_F(BoundPhoneTest, BindingsAndTheirSubscriptionsSurviveARestart) {
  startAsProxy();
  registerPhone();
  const std::string relayed = subscribePhone();
  fromPbx(build(notify(header(relayed, "Call-ID"), 1)));
  const std::string told = atCaller();
  passSeconds(1);
  start();
  ASSERT_EQ(sip->iNumBindings, 1);
  fromPbx(build(notify(header(relayed, "Call-ID"), 1)));
  EXPECT_EQ(atCaller(), told) << "even the repetition is still known";
  fromCaller(respond(told, "200 OK"));
  EXPECT_EQ(header(atPbx(), "CSeq"), "1 NOTIFY");
  fromCaller(build(phoneRequest("SUBSCRIBE", 2, "Event: message-summary\r\nExpires: 0\r\n")));
  EXPECT_EQ(header(atPbx(), "Call-ID"), header(relayed, "Call-ID"));
}

// Stamps go with the date, and what is due falls due when it would have.
TEST_F(BoundPhoneTest, SettingTheDateEndsNoBindingSubscriptionOrCall) {
  startAsProxy();
  passSeconds(1);
  registerPhone();
  subscribePhone();
  ring();
  for (const int days : {1, -2, 1}) {
    Clock::setDateBy(days * 86'400);
    passSeconds(10);
    EXPECT_EQ(sip->iNumBindings, 1);
    EXPECT_EQ(phone().iNumSubscriptions, 1);
    EXPECT_EQ(sip->numActiveCalls(), 1);
  }
  Clock::setDateBy(-20);
  passSeconds(1);
  EXPECT_EQ(sip->sTimeLastTick, Clock::now()) << "no pause of twenty seconds";
  EXPECT_EQ(sip->phone(0).sTimeLastRegistration, kStart - 20);
  passSeconds(28);
  EXPECT_EQ(sip->numActiveCalls(), 1);
  passSeconds(1);
  EXPECT_EQ(sip->numActiveCalls(), 0) << "nobody answered for 60 s";
  passSeconds(540);
  EXPECT_EQ(phone().iNumSubscriptions, 1);
  passSeconds(1);
  EXPECT_EQ(phone().iNumSubscriptions, 0) << "601 s of 600";
}

}  // namespace
