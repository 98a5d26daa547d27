// Everything outside a call: dispatch and bad input, OPTIONS, registration with the PBX and digests,
// readiness, reload.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "sip/MD5.h"
#include "tests/sip/SipFixture.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

class SignallingTest : public SipFixture {
 protected:
  static std::string digest(const std::string& text) { return std::string(MD5::hash(text).view()); }
};

TEST_F(SignallingTest, OptionsIsAnsweredAtOnce) {
  start();
  Request options;
  options.method = "OPTIONS";
  options.uri = "sip:jack@elsewhere";  // "ack" inside a name is no ACK
  fromCaller(build(options));
  EXPECT_EQ(atCaller(), "SIP/2.0 200 Ok\r\nVia: " + header(build(options), "Via") +
                            "\r\nFrom: " + options.from + "\r\nTo: " + options.to +
                            "\r\nContact: <sip:KestrovaOrig0@127.0.0.1:" + std::to_string(iSipPort) +
                            ">\r\nCall-ID: " + options.callId +
                            "\r\nCSeq: 1 OPTIONS\r\nUser-Agent: Kestrova Quorvel\r\n"
                            "Allow: INVITE,ACK,CANCEL,INFO,BYE\r\nContent-Length: 0\r\n\r\n");
}

TEST_F(SignallingTest, UnreadableMessagesAreDroppedWithTheirLogLine) {
  start();
  const std::string options = replaced(inviteText(), "INVITE", "OPTIONS");
  const std::string lineOf199 = "OPTIONS sip:" + std::string(199 - 20, 'u') + " SIP/2.0";
  const std::tuple<std::string, const char*, bool> cases[] = {
      {"", nullptr, false},
      {"x", nullptr, false},
      {std::string(2999, 'z'), nullptr, false},
      {options + std::string(3500 - options.size(), 'z'),
       "WARNING in MySip::mainLoop, message of 3500 bytes cut to 2999\n", true},
      {replaced(options, "Call-ID: call-1", "No-ID: call-1"), nullptr, false},
      {"OPTIONS sip:x SIP/2.0\r\nCall-ID: " + std::string(100, 'c') + "\r\nCSeq: 1 OPTIONS\r\n\r\n",
       "Unable to locate callID... \n", false},
      {replaced(options, firstLine(options), lineOf199), nullptr, true},
      {replaced(options, firstLine(options), lineOf199 + "5"),
       "WARNING in MySip::analyzeSipMessage, status line too long\n", false},
      {replaced(options, "CSeq: 1", "CSeq: one"), "unable to read CSeq from one OPTIONS\n", false},
      {replaced(options, "Call-ID:", "i:"), nullptr, true},
      {replaced(options, "Call-ID: ", "i:"), nullptr, false},
      {replaced(options, "Max-Forwards", std::string("Max\0Forwards", 12)), nullptr, true},
      {options.substr(0, options.find("CSeq: 1") + 7), "unable to find end sequence CRLF\n", false},
      {replaced(options, "OPTIONS", "PUBLISH"), nullptr, false},
  };
  for (const auto& [message, log, isAnswered] : cases) {
    SCOPED_TRACE(message.substr(0, 300));
    installation.clearLog();
    fromCaller(message);
    if (log != nullptr) {
      EXPECT_EQ(installation.logCount(log), 1) << installation.log();
    }
    EXPECT_EQ(caller.receive(std::chrono::milliseconds(0)).has_value(), isAnswered);
    expectSilence();
  }
}

TEST_F(SignallingTest, TraceShowsEveryDatagramOnceAndCompactOnesTwice) {
  iSipDebug = 1;
  start();
  Request options;
  options.method = "OPTIONS";
  fromCaller(replaced(build(options), "Call-ID:", "i:"));
  const std::string from = " from 127.0.0.1:" + std::to_string(caller.port()) + ":\nOPTIONS sip:";
  EXPECT_EQ(installation.logCount("*** Got (prior translation)" + from), 1);
  EXPECT_EQ(installation.logCount("*** Got" + from), 1);
  EXPECT_EQ(installation.logCount("*** Sending to 127.0.0.1:" + std::to_string(caller.port()) +
                                  ":\nSIP/2.0 200 Ok"),
            1);
  EXPECT_EQ(installation.logCount(" INFO in "), 3);
}

TEST_F(SignallingTest, IdentitiesRegisterRefreshAndRepeatUntilConfirmed) {
  ASSERT_TRUE(pcTrunkName.assign("trunk"));
  iRegisterTrunk = iRegisterPairPhones = 1;
  iRegisterExpiration = 3601;
  iNumPhonesToAllocate = 2;
  start();
  sip->bAllPhonesActive = false;
  passSeconds(1);
  const std::string trunk = atPbx();
  const std::string pair = atPbx();
  const std::string port = std::to_string(iSipPort);
  EXPECT_EQ(
      trunk,
      "REGISTER sip:pbx.example SIP/2.0\r\nVia: " + header(trunk, "Via") +
          "\r\nFrom: trunk <sip:trunk@pbx.example>;tag=" + tag(header(trunk, "From")) +
          "\r\nTo: trunk <sip:trunk@pbx.example>\r\nContact: \"trunk\" <sip:trunk@127.0.0.1:" + port +
          ">\r\nCall-ID: " + header(trunk, "Call-ID") +
          "\r\nCSeq: 2 REGISTER\r\nExpires: 3601\r\nMax-Forwards: 70\r\nUser-Agent: Kestrova Quorvel\r\n"
          "Content-Length: 0\r\n\r\n");
  EXPECT_TRUE(header(trunk, "Via").starts_with("SIP/2.0/UDP 127.0.0.1:" + port + ";rport;branch=z9hG4bK"));
  EXPECT_TRUE(header(pair, "From").starts_with("KestrovaPair0 <sip:KestrovaPair0@pbx.example>;tag="));
  fromCaller(inviteText());
  expectSilence();  // nothing but registration until all are active

  passSeconds(4);
  expectSilence();
  passSeconds(1);
  const std::string again = atPbx();
  EXPECT_EQ(header(again, "CSeq") + header(again, "Call-ID"), "3 REGISTER" + header(trunk, "Call-ID"));
  EXPECT_NE(header(again, "Via"), header(trunk, "Via"));
  atPbx();
  fromPbx(respond(trunk, "200 OK"));
  passSeconds(1);
  fromPbx(respond(pair, "200 OK"));
  EXPECT_EQ(installation.logCount("All phones are active"), 0);
  passSeconds(1);
  EXPECT_EQ(installation.logCount("INFO in MySip::mainLoop, All phones are active\n"), 1);
  expectSilence();
  passSeconds(1797);
  expectSilence();
  passSeconds(1);  // 1,800 s after the trunk's confirmation
  EXPECT_EQ(header(atPbx(), "CSeq"), "4 REGISTER");
  passSeconds(1);
  EXPECT_EQ(header(atPbx(), "CSeq"), "5 REGISTER") << "the unanswered one repeats each second";
  const std::string address = "127.0.0.1:" + std::to_string(pbx.port()), told = "Troubles, ";
  for (int second = 0; second < 9; ++second) {
    EXPECT_EQ(installation.logCount(told), 0);
    while (pbx.receive(std::chrono::milliseconds(0))) continue;
    passSeconds(1);
  }
  EXPECT_EQ(installation.logCount(told + "1 of 2 registrations with " + address +
                                  " are missing, the first is trunk\n"),
            1)
      << installation.log();
  for (const std::string& request : {atPbx(), atPbx()}) fromPbx(respond(request, "200 OK"));
  passSeconds(60);
  EXPECT_EQ(installation.logCount(told), 2);
  EXPECT_EQ(installation.logCount(told + "all registrations with " + address + " are there again\n"), 1);
}

TEST_F(SignallingTest, ChallengeIsAnsweredOnceWithTheDigestOfTheChallengedRequest) {
  ASSERT_TRUE(pcTrunkName.assign("trunk") && pcSecret.assign("s3cret"));
  iRegisterTrunk = 1;
  start();
  for (const bool isProxy : {false, true}) {
    sip->sendRegistration(sip->sTrunk, 60);
    const std::string request = atPbx();
    const std::string challenge =
        respond(request, isProxy ? "407 Proxy Authentication Required" : "401 Unauthorized", "p",
                std::string(isProxy ? "Proxy" : "WWW") +
                    "-Authenticate: Digest realm=\"the realm\", nonce=\"n0nce\"\r\n");
    fromPbx(challenge);
    const std::string answer = atPbx();
    const std::string response =
        digest(digest("trunk:the realm:s3cret") + ":n0nce:" + digest("REGISTER:sip:pbx.example"));
    EXPECT_EQ(header(answer, isProxy ? "Proxy-Authorization" : "Authorization"),
              "Digest username=\"trunk\",realm=\"the realm\",nonce=\"n0nce\",response=\"" + response +
                  "\",uri=\"sip:pbx.example\"");
    EXPECT_EQ(header(answer, "CSeq"), std::to_string(sip->sTrunk.iCSeq) + " REGISTER");
    EXPECT_EQ(header(answer, "Call-ID"), header(request, "Call-ID"));
    EXPECT_NE(header(answer, "Via"), header(request, "Via"));
    fromPbx(
        respond(answer, "401 Unauthorized", "p", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"));
    expectSilence();
  }
  sip->sendRegistration(sip->sTrunk, 60);
  const std::string request = atPbx();
  const std::string realm256 =
      "WWW-Authenticate: Digest realm=\"" + std::string(256, 'r') + "\", nonce=\"n\"\r\n";
  for (const auto& [line, log] :
       {std::tuple<const char*, const char*>{"WWW-Authenticate: Digest nonce=\"n\"\r\n",
                                             "unable to find realm in unauthorized msg\n"},
        {"WWW-Authenticate: Digest realm=\"r\r\n", "unable to find end of realm in unauthorized msg\n"},
        {"WWW-Authenticate: Digest realm=\"r\"\r\n", "unable to find nonce in unauthorized msg\n"},
        {"WWW-Authenticate: Digest realm=\"r\", nonce=\"n\r\n", "unable to find end of nonce in"},
        {realm256.c_str(), "unable to find end of realm in unauthorized msg\n"}}) {
    installation.clearLog();
    fromPbx(respond(request, "401 Unauthorized", "p", line));
    EXPECT_EQ(installation.logCount(log), 1) << log;
    expectSilence();
  }
  fromPbx(respond(request, "401 Unauthorized", "p",
                  "WWW-Authenticate: Digest realm=\"" + std::string(255, 'r') + "\", nonce=\"" +
                      std::string(255, 'n') + "\"\r\n"));
  EXPECT_NE(atPbx().find("nonce=\"" + std::string(255, 'n') + "\""), std::string::npos);
}

TEST_F(SignallingTest, ChallengedInviteIsAcknowledgedAndSentAgainWithCredentials) {
  start();
  sip->sendRegistration(sip->phone(2), 60);
  EXPECT_EQ(header(atPbx(), "CSeq"), "2 REGISTER");
  fromCaller(inviteText());
  const std::string first = atPbx();
  fromPbx(respond(first, "407 Proxy Authentication Required", "c",
                  "Proxy-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"));
  const std::string ack = atPbx();
  EXPECT_EQ(firstLine(ack) + header(ack, "CSeq"), "ACK sip:200@127.0.0.1 SIP/2.01 ACK");
  EXPECT_EQ(header(ack, "Via"), header(first, "Via"));
  EXPECT_EQ(tag(header(ack, "To")), "c");
  pairInvite = atPbx();
  EXPECT_EQ(header(pairInvite, "CSeq"), "2 INVITE");
  EXPECT_EQ(body(pairInvite), body(first));
  EXPECT_EQ(header(pairInvite, "To"), header(first, "To"));
  EXPECT_NE(header(pairInvite, "Proxy-Authorization"), "<none>");
  expectSilence();
  // The challenge repeats because our ACK was lost: the ACK again, and no second call.
  fromPbx(respond(first, "407 Proxy Authentication Required", "c",
                  "Proxy-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n"));
  const std::string again = atPbx();
  EXPECT_EQ(header(again, "CSeq") + header(again, "Via"), "1 ACK" + header(first, "Via"));
  expectSilence();
  fromCaller(inviteText());
  EXPECT_EQ(installation.logCount("Unable to locate message with CSeq=2\n"), 1) << "nor the old REGISTER";
  expectSilence();
  fromPbx(respond(pairInvite, "180 Ringing", "bob1"));
  EXPECT_EQ(header(atCaller(), "CSeq"), "1 INVITE");
  fromCaller(callerRequest("CANCEL", 1));
  EXPECT_EQ(header(atPbx(), "CSeq"), "2 CANCEL");
}

TEST_F(SignallingTest, ChallengeIsHandedToTheCallerInTheProxyArrangement) {
  iSipProxyArchitecture = 1;
  start();
  invite.cseq = 33;
  fromCaller(inviteText());
  const std::string first = atPbx();
  sip->sendRegistration(sip->phone(2), 60);  // counts on while the INVITE waits
  atPbx();
  const std::string line = "Proxy-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"";
  fromPbx(respond(first, "407 Proxy Authentication Required", "c", line + "\r\n"));
  EXPECT_EQ(atCaller(),
            "SIP/2.0 407 Proxy Authentication Required\r\nVia: SIP/2.0/UDP 127.0.0.1:" +
                std::to_string(caller.port()) +
                ";branch=z9hG4bKcaller1;received=127.0.0.1;rport=" + std::to_string(caller.port()) +
                "\r\nFrom: <sip:100@127.0.0.1>;tag=alice1\r\nTo: " + "<sip:200@127.0.0.1>" +
                std::string(sip->phone(0).pcLocalTag.view()) + "\r\nCall-ID: " + invite.callId +
                "\r\nCSeq: 33 INVITE\r\nUser-Agent: Kestrova Quorvel\r\n"
                "Allow: INVITE,ACK,CANCEL,INFO,BYE\r\n" +
                line + "\r\nContent-Length: 0\r\n\r\n");
  expectSilence();
  fromPbx(respond(first, "407 Proxy Authentication Required", "c"));
  EXPECT_EQ(installation.logCount("unrecorgnized authentication line in: \n "), 1);
}

TEST_F(SignallingTest, RegistrationNumbersKeepRisingAcrossCalls) {
  start();
  sip_text::Request request;
  sPhone& identity = sip->phone(2);
  for (int i = 0; i < 5; ++i) {
    sip->sendRegistration(identity, 60);
    EXPECT_EQ(header(atPbx(), "CSeq"), std::to_string(2 + i) + " REGISTER");
  }
  fromCaller(inviteText());
  EXPECT_EQ(header(atPbx(), "CSeq"), "1 INVITE");
  sip->sendRegistration(identity, 60);
  EXPECT_EQ(header(atPbx(), "CSeq"), "7 REGISTER") << "a registrar ignores a number that falls";
}

TEST_F(SignallingTest, ReloadDatagramAppliesTheFileAndRestartsMedia) {
  start();
  answer();
  const auto reload = [&](std::string_view tail) { fromCaller("800-QUORVEL-RELOAD" + std::string(tail)); };
  const std::string configuration = TestInstallation::read(installation.bin() / "quorvel.conf");
  const std::string good =
      installation.write("other.conf", configuration + "AGCLevel=1234\nStatisticsFile=stats\n");
  const std::string bad = installation.write("bad.conf", configuration + "AGCLevel=64001\n");
  reload(" " + good);
  EXPECT_EQ(installation.logCount("800-QUORVEL-RELOAD msg does not end with \\r\\n\n"), 1);
  EXPECT_EQ(iAGCLevel, 32000);
  reload(" " + good + "\r\n");
  EXPECT_EQ(installation.logCount("Going to reload configuration file \"" + good + "\"\n"), 1);
  EXPECT_EQ(iAGCLevel, 1234);
  const std::string statistics = TestInstallation::read(installation.bin() / "stats");
  EXPECT_NE(statistics.find("Closed session"), std::string::npos) << "media was restarted";
  EXPECT_NE(statistics.find("Open session"), std::string::npos);
  reload(" " + bad + "\r\n");
  EXPECT_EQ(installation.logCount("problem reading parameters from " + bad + "\n"), 1);
  EXPECT_EQ(TestInstallation::read(installation.bin() / "stats"), statistics);
  expectSilence();
}

// What strangers send gets into these files, and the datagram may come from one, too.
TEST_F(SignallingTest, ReloadDatagramRefusesFilesThatTheProcessWrites) {
  start();
  const std::string lines = "AGCLevel=777\n" + TestInstallation::read(installation.bin() / "quorvel.conf");
  std::filesystem::create_directory(installation.bin() / "calls");
  ASSERT_TRUE(pcOrigRecordingLibrary.assign((installation.bin() / "calls/").string()) &&
              pcRegistrationLibrary.assign((installation.bin() / "voice-").string()) &&
              pcStatisticsFile.assign((installation.bin() / "stats").string()) &&
              pcRealTimeAverageStatisticsFile.assign((installation.bin() / "page").string()));
  const char* const written = "this process writes it";
  const std::string backup = sip->pcBindingBackupFile.c_str();
  for (const auto& [name, reason] : std::vector<std::pair<std::string, const char*>>{
           {"../log/errLog.1", "it lies in the directory of the log"},
           {"stats", written},
           {"page", written},
           {backup.substr(backup.rfind('/') + 1), written},
           {"calls/anybody", written},
           {"voice-1", written},
           {"calls/own.conf", nullptr},
           {"voices.conf", nullptr}}) {
    const std::string file = installation.write(name, lines), link = (installation.bin() / "link").string();
    std::filesystem::create_symlink(file, link);
    for (const std::string& path : {file, link}) {
      iAGCLevel = 1;
      fromCaller("800-QUORVEL-RELOAD " + path + "\r\n");
      EXPECT_EQ(iAGCLevel, reason == nullptr ? 777 : 1) << path;
      if (reason == nullptr) continue;
      EXPECT_EQ(installation.logCount(path + " is not taken for a configuration: " + reason + "\n"), 1);
      EXPECT_EQ(installation.logCount("problem reading parameters from " + path + "\n"), 1);
      installation.clearLog();
    }
    std::filesystem::remove(link);
  }
  for (SettingPath* path : {&pcOrigRecordingLibrary, &pcStatisticsFile, &pcRealTimeAverageStatisticsFile})
    path->clear();
  pcRegistrationLibrary.clear();
}

TEST_F(SignallingTest, ClockMovedFarBackResetsTheTimersOnce) {
  start();
  Clock::advanceSeconds(-20);
  EXPECT_TRUE(sip->mainLoopPass(0));
  EXPECT_EQ(sip->sTimeLastTick, kStart);
  Clock::advanceSeconds(-20);
  EXPECT_TRUE(sip->mainLoopPass(0));
  EXPECT_TRUE(sip->mainLoopPass(0));
  EXPECT_EQ(sip->sTimeLastTick, kStart - 40);
  EXPECT_EQ(installation.logCount(
                "The date of the server was moved backwards. Going to reset the maintenance timers.\n"),
            1);
}

}  // namespace
