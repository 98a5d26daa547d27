// What Quorvel sends when messages are lost, repeated, late or shortened, and what it does to calls that are
// up when something else happens: every byte of both legs is looked at.
#include <array>
#include <csignal>
#include <random>

#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

using sip_text::header;
using sip_text::respond;

namespace {

class RepeatedMessagesTest : public TalkFixture {};

TEST_F(RepeatedMessagesTest, StoredRequestsAreSentAgainAsTheyWere) {
  start();
  toQuorvel(caller, invite());
  const std::string first = expect(callee, "INVITE ");
  toQuorvel(caller, invite());
  EXPECT_EQ(expect(callee, "INVITE "), first);

  toQuorvel(callee, answer(first));
  const std::string ok = expect(caller, "SIP/2.0 200 Ok\r\n");
  toQuorvel(caller, inDialog("ACK", 1, ok));
  expect(callee, "ACK ");
  toQuorvel(caller, inDialog("BYE", 2, ok));
  const std::string bye = expect(callee, "BYE ");
  toQuorvel(caller, inDialog("BYE", 2, ok));
  EXPECT_EQ(expect(callee, "BYE "), bye);
  toQuorvel(callee, respond(bye, "200 OK"));
  expect(caller, "SIP/2.0 200 OK\r\n");
}

TEST_F(RepeatedMessagesTest, LostAcknowledgementMakesTheAnswerAndItsAckPassAgain) {
  start();
  const Call call = setUp();
  toQuorvel(callee, answer(call.invite));
  const std::string again = expect(caller, "SIP/2.0 200 Ok\r\n");
  EXPECT_EQ(header(again, "To"), header(call.ok, "To"));
  EXPECT_EQ(header(again, "CSeq"), "1 INVITE");
  toQuorvel(caller, inDialog("ACK", 1, again));
  expect(callee, "ACK ");
  hangUp(call);
}

TEST_F(RepeatedMessagesTest, EndedCallsStillAnswerForThemselves) {
  start();
  const Call call = setUp();
  hangUp(call);
  toQuorvel(caller, inDialog("BYE", 2, call.ok));
  EXPECT_EQ(header(expect(caller, "SIP/2.0 200 OK\r\n"), "CSeq"), "2 BYE");
  toQuorvel(callee, answer(call.invite));
  EXPECT_TRUE(caller.quiet(std::chrono::milliseconds(200)));

  toQuorvel(caller, invite(2));
  const std::string second = expect(callee, "INVITE ");
  toQuorvel(callee, respond(second, "480 Temporarily Unavailable", "bob2"));
  const std::string refusal = expect(caller, "SIP/2.0 480 Temporarily Unavailable\r\n");
  toQuorvel(caller, inDialog("ACK", 1, refusal, 2));
  const std::string ack = expect(callee, "ACK ");
  EXPECT_EQ(header(ack, "Via"), header(second, "Via"));
  EXPECT_NE(header(ack, "To").find(";tag=bob2"), std::string::npos);
  toQuorvel(callee, respond(second, "480 Temporarily Unavailable", "bob2"));
  EXPECT_EQ(header(expect(callee, "ACK "), "Via"), header(second, "Via"));
}

// The seconds without media are counted in real time, so this test waits for three of them.
TEST_F(RepeatedMessagesTest, SilentMediaEndsTheCallWithByesUntilBothAreAnswered) {
  start({{"RTPTimeoutInSeconds", "3"}});
  setUp();
  const std::string toCaller = expect(caller, "BYE sip:100@127.0.0.1:", std::chrono::seconds(8));
  const std::string toCallee = expect(callee, "BYE sip:200@127.0.0.1:");
  toQuorvel(callee, respond(toCallee, "200 OK"));
  EXPECT_EQ(expect(caller, "BYE "), toCaller);
  EXPECT_EQ(expect(caller, "BYE "), toCaller);
  toQuorvel(caller, respond(toCaller, "200 OK"));
  EXPECT_TRUE(caller.quiet(std::chrono::milliseconds(1500)));
  while (const std::optional<std::string> more = callee.receive(std::chrono::milliseconds(0)))
    EXPECT_EQ(*more, toCallee);
  EXPECT_TRUE(quorvel->logged("going to cancel call (OnHold=false) due to RTP/RTCP inactivity ("));
  EXPECT_TRUE(quorvel->logged(") between 100@127.0.0.1 and 200@127.0.0.1\n"));
  EXPECT_EQ(quorvel->activeCalls(), 0);
}

class CompactHeadersTest : public TalkFixture {
 protected:
  static std::string compact(std::string message) {
    const std::pair<const char*, const char*> forms[] = {
        {"From:", "f:"},    {"To:", "t:"},           {"Via:", "v:"},           {"Call-ID:", "i:"},
        {"Contact:", "m:"}, {"Content-Type:", "c:"}, {"Content-Length:", "l:"}};
    for (const auto& [whole, letter] : forms) {
      const std::size_t at = message.find("\r\n" + std::string(whole));
      if (at != std::string::npos) message.replace(at + 2, std::string(whole).size(), letter);
    }
    return message;
  }
};

TEST_F(CompactHeadersTest, AWholeCallInCompactForm) {
  start();
  toQuorvel(caller, compact(invite()));
  const std::string received = expect(callee, "INVITE sip:200@127.0.0.1 SIP/2.0\r\n");
  EXPECT_NE(header(received, "Call-ID"), "<none>");
  EXPECT_NE(received.find("m=audio "), std::string::npos);
  toQuorvel(callee, compact(answer(received)));
  const std::string ok = expect(caller, "SIP/2.0 200 Ok\r\n");
  toQuorvel(caller, compact(inDialog("ACK", 1, ok)));
  expect(callee, "ACK sip:200@127.0.0.1:");
  toQuorvel(caller, compact(inDialog("BYE", 2, ok)));
  toQuorvel(callee, compact(respond(expect(callee, "BYE "), "200 OK")));
  expect(caller, "SIP/2.0 200 OK\r\n");
  EXPECT_EQ(quorvel->logCount("*** Got (prior translation) from"), 5);
  EXPECT_EQ(quorvel->activeCalls(), 0);
}

class CallsUpTest : public TalkFixture {};

TEST_F(CallsUpTest, OneCallTooManyIsBusyAndTheNextAfterwardsIsNot) {
  start({{"NumCallsToFilter", "1"}});
  const Call call = setUp(1);
  toQuorvel(caller, invite(2));
  const std::string refusal = expect(caller, "SIP/2.0 486 Busy Here\r\n");
  EXPECT_EQ(header(refusal, "Call-ID"), "talk-2@127.0.0.1");
  EXPECT_TRUE(callee.quiet(std::chrono::milliseconds(100)));
  hangUp(call);
  hangUp(setUp(3));
}

TEST_F(CallsUpTest, DrainingRefusesNewCallsAndLeavesTheOthersAlone) {
  start();
  const Call call = setUp(1);
  quorvel->process().signal(SIGUSR2);
  ASSERT_TRUE(quorvel->logged("INFO in sigUsr2Handle, Got shutdown request\n"));
  toQuorvel(caller, invite(2));
  expect(caller, "SIP/2.0 503 Service Unavailable\r\n");
  hangUp(call);
}

TEST_F(CallsUpTest, ReloadRestartsTheMediaOfCallsAndABadFileChangesNothing) {
  start({{"StatisticsFile", "statistics"}});
  const Call call = setUp();
  const auto statistics = [&] { return readFile(quorvel->bin() / "statistics"); };
  const auto sessions = [&](const char* what) { return occurrences(statistics(), what); };
  ASSERT_TRUE(eventually([&] { return sessions("Open session (0): 100@127.0.0.1<->200@127.0.0.1\n") == 1; },
                         Seconds(3)));

  quorvel->sendDatagram("800-QUORVEL-RELOAD " + quorvel->configuration().string());
  EXPECT_TRUE(quorvel->logged(
      "ERROR in MySip::analyzeSipMessage, 800-QUORVEL-RELOAD msg does not end with \\r\\n\n"));
  quorvel->sendReload(quorvel->bin() / "missing.conf");
  EXPECT_TRUE(
      quorvel->logged("problem reading parameters from " + (quorvel->bin() / "missing.conf").string()));
  EXPECT_EQ(sessions("Open session"), 1);

  quorvel->writeConfiguration(
      {{"StatisticsFile", "statistics"}, {"DefaultCmd", "*##3"}, {"NeedToDoAGC", "1"}});
  quorvel->sendReload(quorvel->configuration());
  EXPECT_TRUE(eventually([&] { return sessions("Open session (0)") == 2; }, Seconds(3))) << statistics();
  EXPECT_EQ(sessions("Closed session (0)"), 1);
  hangUp(call);
  EXPECT_TRUE(eventually([&] { return sessions("Closed session (0)") == 2; }, Seconds(3))) << statistics();
}

// Everything that touches a call that talks, at once: what the threads share shows itself here.
TEST_F(CallsUpTest, ProcessedCallsTalkThroughKeysReloadPagesAndAHangUp) {
  std::filesystem::create_directory(scratch.path() / "voices");
  Settings settings{{"DefaultCmd", "*##3"},
                    {"DTMFRegistraterPrefix", "*1*"},
                    {"DTMFSuffix", "#"},
                    {"RegistrationLibrary", "../voices/"},
                    {"OrigRecordingLibrary", "../recorded-"},
                    {"RealTimeAverageStatisticsFile", "../average.html"},
                    {"RefreshRateOfRealTimeStatistics", "2"}};
  start(settings);
  RtpPeer callerHears(ports.media(0)), calleeHears(ports.media(1));
  const Call first = setUp(1, "0 101"), second = setUp(2, "0 101");
  std::array<RtpPeer, 4> talkers{RtpPeer(0), RtpPeer(0), RtpPeer(0), RtpPeer(0)};
  const std::array<int, 4> relay{RtpPeer::portIn(first.ok), RtpPeer::portIn(first.invite),
                                 RtpPeer::portIn(second.ok), RtpPeer::portIn(second.invite)};
  std::mt19937 random(1);
  const auto talk = [&](int packets, std::size_t from = 0) {
    int heard = 0;
    for (int packet = 0; packet < packets; ++packet) {
      std::string noise(RtpPeer::kSamples, '\0');
      for (char& code : noise) code = static_cast<char>(random());
      for (std::size_t side = from; side < talkers.size(); ++side) talkers[side].send(relay[side], 0, noise);
      for (RtpPeer* peer : {&callerHears, &calleeHears})
        while (!peer->receivePayload(std::chrono::milliseconds(1)).empty()) ++heard;
    }
    return heard;
  };
  const auto press = [&](std::string_view keys) {
    for (const char key : keys)
      talkers[0].send(relay[0], 101,
                      std::string{char(std::string_view("0123456789*#").find(key)), '\x8A', 0, 0});
  };
  // More than once, since a side starts at most one registration a second.
  const auto isBegun = [&](const std::string& name) {
    return eventually(
        [&] {
          press("*1*" + name + "#");
          talk(5);
          return std::filesystem::exists(scratch.path() / "voices" / name);
        },
        Seconds(5));
  };
  EXPECT_TRUE(isBegun("7"));
  talk(110);  // the voice itself is taken from the 101st packet on
  settings["NeedToDoAGC"] = "1";
  quorvel->writeConfiguration(settings);
  quorvel->sendReload(quorvel->configuration());
  talk(10);
  EXPECT_TRUE(isBegun("8"));
  EXPECT_TRUE(eventually(
      [&] {
        talk(1);
        return occurrences(readFile(scratch.path() / "average.html"), "100@127.0.0.1") == 2;
      },
      Seconds(5)));
  talk(20);
  hangUp(first);
  EXPECT_GT(talk(20, 2), 10);
  hangUp(second);
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
}

class BoundPhoneTest : public TalkFixture {};

TEST_F(BoundPhoneTest, CallsOfABoundPhoneUseTheSlotsOfItsName) {
  start({{"InviteShouldMatchPairPhoneName", "1"}, {"PairPhonesName", "900;901;100;903;"}});
  toQuorvel(caller, sip_text::build({.method = "REGISTER",
                                     .uri = "sip:127.0.0.1",
                                     .callId = "register-1@127.0.0.1",
                                     .viaPort = caller.port(),
                                     .branch = "z9hG4bKregister1",
                                     .from = "<sip:100@127.0.0.1>;tag=alice9",
                                     .to = "<sip:100@127.0.0.1>",
                                     .contact = "<sip:100@127.0.0.1:" + std::to_string(caller.port()) + ">",
                                     .extraHeaders = "Expires: 600\r\n"}));
  EXPECT_EQ(header(expect(caller, "SIP/2.0 200 Ok\r\n"), "Call-ID"), "register-1@127.0.0.1");

  const Call call = setUp();
  EXPECT_NE(header(call.invite, "From").find("<sip:100@127.0.0.1>"), std::string::npos) << call.invite;
  EXPECT_NE(header(call.invite, "Contact").find("<sip:100@"), std::string::npos) << call.invite;
  EXPECT_NE(call.invite.find("m=audio " + std::to_string(ports.relay() + 2 * 6) + " "), std::string::npos);
  hangUp(call);
}

}  // namespace
