// Quorvel beside a PBX that wants digest credentials: registrations, and calls that pass the PBX twice.
#include "tests/calls/support/Kamailio.h"
#include "tests/calls/support/PhonePair.h"

namespace {

struct Challenge {
  const char* name;
  bool qop;
  bool inviteBy401;
};

void PrintTo(const Challenge& challenge, std::ostream* out) {
  *out << challenge.name;
}

class PbxTest : public PhonesFixture, public ::testing::WithParamInterface<Challenge> {
 protected:
  void SetUp() override {
    needs({"kamailio"});
    if (IsSkipped()) return;
    pbx = std::make_unique<Kamailio>(scratch.path(), PbxSetup{.port = ports.pbx(),
                                                              .password = "secret",
                                                              .qop = GetParam().qop,
                                                              .inviteBy401 = GetParam().inviteBy401,
                                                              .trunk = "trunk",
                                                              .trunkPhonePrefix = "inner"});
    ASSERT_TRUE(pbx->ready()) << pbx->report();
    start({{"NumPhonesToAllocate", "4"},
           {"TrunkName", "trunk"},
           {"RegisterTrunk", "1"},
           {"RegisterOrigPhones", "1"},
           {"RegisterPairPhones", "1"},
           {"OrigPhonesNamePrefix", "outer"},
           {"PairPhonesNamePrefix", "inner"},
           {"RegisterExpiration", "4"},
           {"Secret", "secret"}});
  }
  void TearDown() override {
    if (HasFailure() && pbx != nullptr) std::cerr << pbx->report();
    CallFixture::TearDown();
  }

  std::unique_ptr<Kamailio> pbx;
};

const std::vector<std::string> kIdentities = {"trunk", "outer0", "outer1", "inner0", "inner1"};

TEST_P(PbxTest, EveryIdentityRegistersRefreshesAndWithdraws) {
  EXPECT_EQ(quorvel->logCount("All phones are active\n"), 1);
  for (const std::string& identity : kIdentities) {
    EXPECT_TRUE(eventually([&] { return pbx->registrations(identity) >= 3; }, Seconds(8))) << identity;
    EXPECT_EQ(pbx->withdrawals(identity), 0) << identity;
  }
  // A refresh every two seconds (half the expiry) and no storm of repetitions: at most five in these eight
  // seconds.
  EXPECT_LE(pbx->registrations("trunk"), 5);
  EXPECT_EQ(quorvel->stop(), 0);
  for (const std::string& identity : kIdentities)
    EXPECT_TRUE(eventually([&] { return pbx->withdrawals(identity) == 1; }, Seconds(1))) << identity;
}

TEST_P(PbxTest, CallsPassInBothDirections) {
  PhonesFixture::SetUp();
  if (IsSkipped()) return;
  PhonePair phones(scratch.path(), ports,
                   {.calleePort = ports.phone(1), .registrar = ports.pbx(), .password = "secret"});
  ASSERT_NO_FATAL_FAILURE(phones.expectReady());
  ASSERT_TRUE(phones.first->registered()) << phones.first->report();
  ASSERT_TRUE(phones.second->registered()) << phones.second->report();

  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.first, *phones.second, "sip:200@127.0.0.1", Seconds(3.5)));
  phones.expectBothHeard(0.99);
  ASSERT_NO_FATAL_FAILURE(phones.talk(*phones.second, *phones.first, "sip:100@127.0.0.1", Seconds(3.5)));
  phones.expectBothHeard(0.99);
  EXPECT_GE(pbx->challenges("INVITE", "inner0"), 2);
}

INSTANTIATE_TEST_SUITE_P(Challenges, PbxTest,
                         ::testing::Values(Challenge{"WithoutQop", false, false},
                                           Challenge{"WithQop", true, true}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
