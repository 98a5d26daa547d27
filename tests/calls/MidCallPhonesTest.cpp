// Real phones that transfer a call.
#include "tests/calls/support/PhonePair.h"

namespace {

using MidCallPhonesTest = PhonesFixture;

TEST_F(MidCallPhonesTest, BlindTransferMakesTheOtherTwoTalk) {
  constexpr Seconds kListen(2.5);
  writeFile(scratch.path() / "bin" / "routes",
            "127.0.0.1::" + std::to_string(ports.phone(2)) + "::300@127.0.0.1;\n");
  ASSERT_NO_FATAL_FAILURE(start({{"SipRoutingFile", "routes"}}));
  PhonePair phones(scratch.path(), ports, {.calleePort = ports.pbx(), .times = 4});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  phones.first->dial(calleeUri());
  for (Baresip* phone : {phones.first.get(), phones.second.get()})
    ASSERT_TRUE(phone->event("CALL_ESTABLISHED", Seconds(10))) << phone->report();
  phones.expectBothHear(kListen, 0.99);

  // The third phone takes the first one's part in the pair, and says the same.
  auto third = std::make_unique<Baresip>(scratch.path(),
                                         phone(2, "300", ports.phone(2), "PCMU/8000/1", phones.firstSaid()));
  ASSERT_TRUE(third->ready()) << third->report();
  Baresip& transferor = *phones.first;
  transferor.command("transfer", "sip:300@127.0.0.1:" + std::to_string(ports.sip()));
  EXPECT_TRUE(third->event("CALL_ESTABLISHED", Seconds(10))) << third->report() << phones.second->report();
  EXPECT_TRUE(transferor.event("CALL_CLOSED", Seconds(10))) << "told by NOTIFY that it has worked";
  std::swap(phones.first, third);
  phones.expectBothHear(kListen, 0.99);
  phones.first->hangUp();
  EXPECT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(5)));
}

}  // namespace
