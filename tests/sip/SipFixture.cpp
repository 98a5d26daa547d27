#include "tests/sip/SipFixture.h"

#include <unistd.h>

#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"

namespace {

std::string next(LoopbackPeer& peer, const char* who) {
  std::optional<std::string> message = peer.receive(std::chrono::milliseconds(300));
  if (message) return *message;
  ADD_FAILURE() << "nothing arrived at the " << who;
  return {};
}

// Below those that the system hands out, so that nobody gets one by chance, and others for each test process.
int firstMediaPort() {
  return 10'000 + 16 * (getpid() % 500);
}

}  // namespace

SipFixture::SipFixture() : iSipPort(LoopbackPeer::freePortPair()) {
  pcKestrovaInstanceSuffix.assignCut("-siptest" + std::to_string(getpid()));
  const std::string configuration =
      "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipUAIP=127.0.0.1\nSipProxyDomain=pbx.example\n"
      "Separator=##\nNumPhonesToAllocate=4\nNumCallsToFilter=2\nRegisterOrigPhones=0\nRegisterPairPhones=0\n"
      "NeedToCheckDTMF=0\nCPUPower=5\nDetectAggressiveLevel=2\nCleanAggressiveLevel=10\nAECAlgorithm=basic\n"
      "DefaultCmd=*##0\nSipProxyPort=" +
      std::to_string(pbx.port()) + "\nSipUAPort=" + std::to_string(iSipPort) +
      "\nRtpUAPortInitVal=" + std::to_string(firstMediaPort()) + "\n";
  EXPECT_EQ(myConfiguration.readParams(installation.write("quorvel.conf", configuration).c_str(), false), 0)
      << installation.log();
  EXPECT_EQ(myConfiguration.writeTmpFile(), 0);
  EXPECT_EQ(myRtp.init(), 0) << installation.log();
  Clock::freezeAt(kStart);
  bDuringShutdown = bNeedToInitiateShutdown = bGotShutdownRequest = false;
  invite.viaPort = caller.port();
  invite.contact = "<sip:100@127.0.0.1:" + std::to_string(caller.port()) + ">";
  invite.sdp = sip_text::sdp(LoopbackPeer::freePortPair(), "0 8");
}

// No media thread outlives the engine that has started it: the next one begins with the same pairs.
void SipFixture::endMedia() {
  for (int slot = 0; sip && slot < sip->numOrigSlots(); ++slot) {
    if (sip->phone(slot).bMediaEstablished) sip->closeRtpSessionPair(slot, sip->phone(slot).iPairIndex);
  }
}

SipFixture::~SipFixture() {
  endMedia();
  bDuringShutdown = bNeedToInitiateShutdown = bGotShutdownRequest = false;
  unlink(("/tmp/KestrovaQuorvel" + std::string(pcKestrovaInstanceSuffix.view())).c_str());
  Clock::followSystem();
}

void SipFixture::start() {
  endMedia();
  sip = std::make_unique<MySip>();
  ASSERT_EQ(sip->init(), 0) << installation.log();
  ASSERT_EQ(sip->prepareConnection(), 0) << installation.log();
  sip->initRegistration();
  sip->bAllPhonesActive = true;
  sip->sTimeLastTick = kStart;
}

void SipFixture::process() {
  for (int pass = 0; pass < 5; ++pass) ASSERT_TRUE(sip->mainLoopPass(0));
}

void SipFixture::fromCaller(std::string_view message) {
  caller.sendTo(iSipPort, message);
  process();
}

void SipFixture::fromPbx(std::string_view message) {
  pbx.sendTo(iSipPort, message);
  process();
}

void SipFixture::passSeconds(int seconds) {
  for (int i = 0; i < seconds; ++i) {
    Clock::advanceSeconds(1);
    ASSERT_TRUE(sip->mainLoopPass(0));
  }
}

std::string SipFixture::atCaller() {
  return next(caller, "caller");
}
std::string SipFixture::atPbx() {
  return next(pbx, "PBX");
}

void SipFixture::expectSilence() {
  EXPECT_EQ(caller.receive(std::chrono::milliseconds(0)).value_or("nothing"), "nothing");
  EXPECT_EQ(pbx.receive(std::chrono::milliseconds(0)).value_or("nothing"), "nothing");
}

void SipFixture::ring() {
  fromCaller(inviteText());
  pairInvite = atPbx();
  fromPbx(sip_text::respond(pairInvite, "100 Trying"));
  EXPECT_EQ(sip_text::firstLine(atCaller()), "SIP/2.0 100 Trying");
  fromPbx(sip_text::respond(pairInvite, "180 Ringing", "bob1"));
  EXPECT_EQ(sip_text::firstLine(atCaller()), "SIP/2.0 180 Ringing");
}

void SipFixture::answer() {
  ring();
  const std::string contact = "Contact: <sip:200@127.0.0.1:" + std::to_string(pbx.port()) + ">\r\n";
  fromPbx(sip_text::respond(pairInvite, "200 Answering", "bob1", contact,
                            sip_text::sdp(LoopbackPeer::freePortPair(), "8")));
  callerAnswer = atCaller();
  EXPECT_EQ(sip_text::firstLine(callerAnswer), "SIP/2.0 200 Ok");
  fromCaller(callerRequest("ACK", invite.cseq));
  EXPECT_TRUE(sip_text::firstLine(atPbx()).starts_with("ACK sip:200@127.0.0.1:"));
}

std::string SipFixture::callerRequest(std::string_view method, int cseq) const {
  sip_text::Request request = invite;
  request.method = method;
  request.cseq = cseq;
  request.sdp.clear();
  if (!callerAnswer.empty()) request.to = sip_text::header(callerAnswer, "To");
  return sip_text::build(request);
}
