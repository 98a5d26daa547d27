// Real phones that transfer a call, and are redirected to.
#include <iostream>

#include "tests/calls/support/PhonePair.h"
#include "tests/calls/support/QuorvelProcess.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/SipText.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

constexpr Seconds kListen(2.5);

class MidCallPhonesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string missing = phonesMissing(); !missing.empty()) GTEST_SKIP() << missing;
  }
  void TearDown() override {
    if (HasFailure() && quorvel != nullptr) std::cerr << quorvel->log();
  }
  void start(int calleePort, const std::string& routes = "") {
    writeFile(scratch.path() / "bin" / "routes", routes);
    quorvel = std::make_unique<QuorvelProcess>(
        scratch.path(), ports, routes.empty() ? Settings{} : Settings{{"SipRoutingFile", "routes"}});
    ASSERT_TRUE(quorvel->ready()) << quorvel->log();
    phones =
        std::make_unique<PhonePair>(scratch.path(), ports, PairSetup{.calleePort = calleePort, .times = 4});
    ASSERT_NO_FATAL_FAILURE(phones->expectReady());
  }
  void call() {
    phones->first->dial("sip:200@127.0.0.1:" + std::to_string(ports.sip()));
    for (Baresip* phone : {phones->first.get(), phones->second.get()})
      ASSERT_TRUE(phone->event("CALL_ESTABLISHED", Seconds(10))) << phone->report();
  }

  PortBlock ports;
  ScratchDirectory scratch;
  std::unique_ptr<QuorvelProcess> quorvel;
  std::unique_ptr<PhonePair> phones;
};

TEST_F(MidCallPhonesTest, BlindTransferMakesTheOtherTwoTalk) {
  ASSERT_NO_FATAL_FAILURE(
      start(ports.pbx(), "127.0.0.1::" + std::to_string(ports.phone(2)) + "::300@127.0.0.1;\n"));
  ASSERT_NO_FATAL_FAILURE(call());
  phones->expectBothHear(kListen, 0.99);

  // The third phone takes the first one's part in the pair, and says the same.
  auto third = std::make_unique<Baresip>(scratch.path(), PhoneSetup{.user = "300",
                                                                    .sipPort = ports.phone(2),
                                                                    .controlPort = ports.control(2),
                                                                    .mediaPort = ports.media(2),
                                                                    .plays = phones->firstSaid()});
  ASSERT_TRUE(third->ready()) << third->report();
  Baresip& transferor = *phones->first;
  transferor.command("transfer", "sip:300@127.0.0.1:" + std::to_string(ports.sip()));
  EXPECT_TRUE(third->event("CALL_ESTABLISHED", Seconds(10))) << third->report() << phones->second->report();
  EXPECT_TRUE(transferor.event("CALL_CLOSED", Seconds(10))) << "told by NOTIFY that it has worked";
  std::swap(phones->first, third);
  phones->expectBothHear(kListen, 0.99);
  phones->first->hangUp();
  EXPECT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(5)));
}

TEST_F(MidCallPhonesTest, SecondContactOfARedirectionIsTalkedTo) {
  LoopbackPeer pbx(ports.pbx());
  LoopbackPeer busy(ports.phone(2));
  ASSERT_NO_FATAL_FAILURE(start(ports.phone(1)));
  phones->first->dial("sip:200@127.0.0.1:" + std::to_string(ports.sip()));
  const auto at = [](LoopbackPeer& peer, const char* what) {
    const std::string message = peer.receive(std::chrono::seconds(5)).value_or("");
    EXPECT_TRUE(message.starts_with(what)) << what << ": " << message;
    return message;
  };
  const std::string contacts = "Contact: <sip:200@127.0.0.1:" + std::to_string(ports.phone(2)) +
                               ">\r\nContact: <sip:200@127.0.0.1:" + std::to_string(ports.phone(1)) + ">\r\n";
  pbx.sendTo(ports.sip(), respond(at(pbx, "INVITE "), "302 Moved Temporarily", "moved", contacts));
  at(pbx, "ACK ");
  busy.sendTo(ports.sip(), respond(at(busy, "INVITE "), "486 Busy Here", "busy"));
  at(busy, "ACK ");
  for (Baresip* phone : {phones->first.get(), phones->second.get()})
    ASSERT_TRUE(phone->event("CALL_ESTABLISHED", Seconds(10))) << phone->report();
  phones->expectBothHear(kListen, 0.99);
  phones->second->hangUp();
  EXPECT_TRUE(phones->first->event("CALL_CLOSED", Seconds(5)));
  EXPECT_EQ(quorvel->stop(), 0);
}

}  // namespace
