// Phones that register through Quorvel: with Quorvel alone as their registrar, and with a PBX behind it that
// wants credentials of every phone.
#include <fstream>

#include "tests/calls/support/Kamailio.h"
#include "tests/calls/support/PhonePair.h"
#include "tests/calls/support/Sipp.h"

namespace {

class BoundPhoneCallTest : public PhonesFixture {
 protected:
  void SetUp() override {
    PhonesFixture::SetUp();
    needs({"sipp"});
  }
  void TearDown() override {
    if (HasFailure() && pbx != nullptr) std::cerr << pbx->report();
    CallFixture::TearDown();
  }

  void startQuorvel(const char* architecture, const char* domain = "127.0.0.1") {
    start({{"SipProxyArchitecture", architecture},
           {"SipProxyDomain", domain},
           {"CopyCodecListFromInitialInvite", "1"},
           {"PairPhoneShouldImpersonateTheOriginator", "1"}});
  }
  // As it stands in the file that is written every second.
  bool bindingsOnDisk(int expected, Seconds limit) const {
    return eventually(
        [&] {
          std::ifstream file(quorvel->bin() / ("binding" + quorvel->instanceName()), std::ios::binary);
          std::int32_t count = -1;
          file.read(reinterpret_cast<char*>(&count), sizeof count);
          return count == expected;
        },
        limit);
  }

  std::unique_ptr<Kamailio> pbx;
};

TEST_F(BoundPhoneCallTest, PhoneOfQuorvelsOwnRegistrarIsCalledUnderItsThreeNamesAndExpires) {
  ASSERT_NO_FATAL_FAILURE(startQuorvel("0", "pbx.example"));
  PhonePair phones(scratch.path(), ports,
                   {.calleePort = ports.phone(1),
                    .registrar = ports.sip(),
                    .calleeRegistrar = 0,
                    .callerDomain = "phone.example",
                    .registerSeconds = 5});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  ASSERT_TRUE(phones.first->registered()) << phones.first->report();
  EXPECT_TRUE(bindingsOnDisk(1, Seconds(5)));

  const std::string uri = "sip:100@127.0.0.1:" + std::to_string(ports.sip());
  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.second, *phones.first, uri, Seconds(3.5)));
  phones.expectBothHeard(0.99);
  for (const std::string name : {"100@phone.example", "100@PBX.example"}) {
    Sipp caller(scratch.path(),
                {.scenario = "caller",
                 .places = {{"user", "300"}, {"uri", "sip:" + name}, {"to", "<sip:" + name + ">"}},
                 .port = ports.phone(2),
                 .mediaPort = ports.media(2),
                 .target = ports.sip()});
    EXPECT_TRUE(caller.succeeded()) << name << caller.report();
  }
  // By now it has registered again more than once; when it falls silent, it is forgotten.
  EXPECT_TRUE(bindingsOnDisk(1, Seconds(0)));
  phones.first.reset();
  EXPECT_TRUE(bindingsOnDisk(0, Seconds(12)));
}

class BoundPhonesOfPbxTest : public BoundPhoneCallTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    BoundPhoneCallTest::SetUp();
    needs({"kamailio"});
  }
  void startBoth(bool pbxNotifiesUnasked) {
    pbx = std::make_unique<Kamailio>(scratch.path(), PbxSetup{.port = ports.pbx(),
                                                              .password = "secret",
                                                              .qop = GetParam(),
                                                              .trunk = "none",
                                                              .trunkPhonePrefix = "[12]",
                                                              .notifies = pbxNotifiesUnasked});
    ASSERT_TRUE(pbx->ready()) << pbx->report();
    ASSERT_NO_FATAL_FAILURE(startQuorvel("1"));
  }
};

TEST_P(BoundPhonesOfPbxTest, PhonesRegisterCallEachOtherThroughThePbxAndLeave) {
  ASSERT_NO_FATAL_FAILURE(startBoth(true));
  PhonePair phones(
      scratch.path(), ports,
      {.calleePort = ports.phone(1), .registrar = ports.sip(), .password = "secret", .registerSeconds = 6});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  for (Baresip* phone : {phones.first.get(), phones.second.get()})
    ASSERT_TRUE(phone->registered()) << phone->report();
  for (const char* user : {"100", "200"}) EXPECT_GE(pbx->challenges("REGISTER", user), 1) << user;
  EXPECT_TRUE(bindingsOnDisk(2, Seconds(5)));
  EXPECT_TRUE(eventually([&] { return pbx->notifyAnswers(481) >= 2; }, Seconds(5)))
      << "what these phones say to a NOTIFY that they have not asked for";

  // The PBX passes messages on as they are: every call goes through Quorvel twice, under one Call-ID.
  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.first, *phones.second, "sip:200@127.0.0.1", Seconds(3.5)));
  phones.expectBothHeard(0.99);
  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.second, *phones.first, "sip:100@127.0.0.1", Seconds(3.5)));
  phones.expectBothHeard(0.99);
  EXPECT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(3)));
  EXPECT_GE(pbx->challenges("INVITE", "100"), 1) << "the phone itself has answered the challenge";
  for (const char* user : {"100", "200"})
    EXPECT_TRUE(eventually([&] { return pbx->registrations(user) >= 2; }, Seconds(8))) << user;

  for (Baresip* phone : {phones.first.get(), phones.second.get()}) phone->command("quit");
  for (const char* user : {"100", "200"})
    EXPECT_TRUE(eventually([&] { return pbx->withdrawals(user) == 1; }, Seconds(5))) << user;
  EXPECT_TRUE(bindingsOnDisk(0, Seconds(5)));
}

TEST_P(BoundPhonesOfPbxTest, SubscriptionsAndTheirNotifiesPassBothWays) {
  ASSERT_NO_FATAL_FAILURE(startBoth(false));
  const auto play = [&](const std::string& scenario, const Places& places = {}) {
    Sipp phone(scratch.path(),
               {.scenario = scenario, .places = places, .port = ports.phone(0), .target = ports.sip()});
    EXPECT_TRUE(phone.succeeded()) << scenario << phone.report();
  };
  const auto told = [&](int status, int times) {
    return eventually([&] { return pbx->notifyAnswers(status) == times; }, Seconds(5));
  };
  play("phone_registers");
  play("phone_subscribes");
  EXPECT_TRUE(told(200, 1));
  play("phone_subscribes", {{"answer", "489 Bad Event"}});
  EXPECT_TRUE(told(489, 1));
  EXPECT_EQ(quorvel->logCount(" ERROR in "), 0);
}

INSTANTIATE_TEST_SUITE_P(Challenges, BoundPhonesOfPbxTest, ::testing::Bool(),
                         [](const auto& row) { return row.param ? "WithQop" : "WithoutQop"; });

}  // namespace
