// The binding table: lookups against a plain scan, limits, expiry, memory.
#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "tests/sip/BindingTable.h"
#include "tests/support/TestInstallation.h"

namespace {

constexpr std::time_t kNow = 1'700'000'000;

class BindingsTest : public ::testing::Test {
 protected:
  BindingsTest() { Clock::freezeAt(kNow); }
  ~BindingsTest() override {
    iSipProxyArchitecture = 0;
    Clock::followSystem();
  }
  TestInstallation installation;
};

TEST_F(BindingsTest, PhoneIsFoundUnderItsThreeNamesInAnyLetterCase) {
  BindingTable table;
  table.bind("Ann");
  table.bind("bob");
  for (const char* name : {"ann@phone.example", "ANN@PHONE.EXAMPLE", "Ann@10.0.0.5", "aNN@pbx.Example"})
    EXPECT_EQ(table.getBindingIndex(name), 0) << name;
  for (const char* name : {"ann", "", "ann@phone.exampl", "ann@phone.example ", "carl@pbx.example"})
    EXPECT_EQ(table.getBindingIndex(name), -1) << name;
  table.bind("ann");
  EXPECT_EQ(table.iNumBindings, 3) << "another name, though only by its letter case";
  EXPECT_EQ(table.getBindingIndex("ANN@pbx.example"), 0) << "the first in table order";
}

TEST_F(BindingsTest, FiveHundredPhonesAndNoMore) {
  BindingTable table;
  for (int user = 0; user < kMaxBindings; ++user) ASSERT_EQ(table.bind(std::to_string(user)), user);
  EXPECT_EQ(table.bind("late"), -1);
  EXPECT_EQ(installation.logCount(
                "ERROR in MySip::processNewBindingInformation, Unable to bind new request - table is full\n"),
            1);
  EXPECT_EQ(table.bind("499", 3600, 5099), 499) << "a known phone is not new";
  EXPECT_TRUE(table.doesAddressAppearInBindingTable(LoopbackPeer::address(5099, "10.0.0.9")));
  EXPECT_FALSE(table.doesAddressAppearInBindingTable(LoopbackPeer::address(5099, "10.0.0.8")));
  EXPECT_FALSE(table.doesAddressAppearInBindingTable(LoopbackPeer::address(5098, "10.0.0.9")));

  for (int entry = 0; entry < kMaxSubscriptions; ++entry)
    ASSERT_EQ(table.subscribe(7, "c" + std::to_string(entry)), entry);
  EXPECT_EQ(table.subscribe(7, "c50"), -1);
  EXPECT_EQ(table.subscribe(7, "c49"), 49);
  EXPECT_EQ(installation.logCount("Unable to process new SUBSCRIBE request  - table is full\n"), 1);

  table.bind("0", 0);
  table.cleanupExpiredBindingsAndSubscriptions();
  EXPECT_EQ(table.bind("late"), 499);
  EXPECT_EQ(table.bindingAt(6).iNumSubscriptions, 50);
  EXPECT_EQ(table.bindingAt(499).iNumSubscriptions, 0);
}

TEST_F(BindingsTest, BindingLastsUntilBothItsTimesHavePassed) {
  struct sCase {
    int iArchitecture, iExpires;
    std::int64_t tConfirmedAfter;  // -1: as it was made
    int iLastSecond;               // the last second in which it is there; -1: gone at the next tick
  };
  for (const sCase& testCase : {sCase{0, 60, -1, 60}, sCase{0, 0, -1, -1}, sCase{1, 60, -1, 60},
                                sCase{1, 60, 100, 100}, sCase{1, 0, 100, 100}, sCase{1, 0, 0, -1}}) {
    SCOPED_TRACE(testCase.iExpires);
    Clock::freezeAt(kNow);
    iSipProxyArchitecture = testCase.iArchitecture;
    BindingTable table;
    table.cleanupExpiredBindingsAndSubscriptions();
    const int before = table.iNumBindings;
    const int binding = table.bind("x" + std::to_string(before), testCase.iExpires);
    if (testCase.tConfirmedAfter >= 0) {
      table.bindingAt(binding).tConfirmedExpiry =
          testCase.tConfirmedAfter == 0 ? 0 : kNow + testCase.tConfirmedAfter;
      table.bindingChanged(binding);
    }
    if (testCase.iLastSecond >= 0) {
      Clock::freezeAt(kNow + testCase.iLastSecond);
      table.cleanupExpiredBindingsAndSubscriptions();
      EXPECT_EQ(table.iNumBindings, before + 1);
      Clock::advanceSeconds(1);
    }
    table.cleanupExpiredBindingsAndSubscriptions();
    EXPECT_EQ(table.iNumBindings, before);
  }
}

// Every lookup agrees with a walk over the records, whatever has been added, changed, expired and moved
// before.
TEST_F(BindingsTest, LookupsAgreeWithAPlainScanThroughoutALongLife) {
  iSipProxyArchitecture = 1;
  std::mt19937 random(3);
  const auto upTo = [&random](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  BindingTable table;
  for (int step = 0; step < 3000; ++step) {
    const std::string user = "u" + std::to_string(upTo(40));
    const std::string callId = "c" + std::to_string(upTo(200));
    if (upTo(2) == 0) {
      const int binding = table.bind(user, upTo(20), 5000 + upTo(10));
      sBinding& record = table.bindingAt(binding);
      record.pcRelayCallID.assignCut("r" + std::to_string(upTo(50)));
      record.iRelayCSeq = upTo(3);
      table.bindingChanged(binding);
    } else if (table.iNumBindings > 0) {
      table.subscribe(upTo(table.iNumBindings), callId, upTo(15));
    }
    if (upTo(4) == 0) Clock::advanceSeconds(1);
    table.cleanupExpiredBindingsAndSubscriptions();

    const std::string name = "U" + user.substr(1) + "@10.0.0.5";
    const sockaddr_in address = LoopbackPeer::address(5000 + upTo(10), "10.0.0.9");
    const std::string relay = "r" + std::to_string(upTo(50));
    const int cseq = upTo(3);
    int byName = -1;
    int byRelay = -1;
    bool byAddress = false;
    MySip::sSubscriptionPlace byPhone;
    for (int binding = table.iNumBindings - 1; binding >= 0; --binding) {
      const sBinding& record = table.bindingAt(binding);
      if (record.pcBindingUser == user) byName = binding;
      if (record.pcRelayCallID == relay && record.iRelayCSeq == cseq) byRelay = binding;
      byAddress |= record.sBindingAddress.sin_port == address.sin_port;
      for (int entry = record.iNumSubscriptions - 1; entry >= 0; --entry) {
        ASSERT_GE(record.subscription(entry).tRequestedExpiry, Clock::now());
        if (record.subscription(entry).pcPhoneCallID == callId) byPhone = {binding, entry};
      }
    }
    ASSERT_EQ(table.getBindingIndex(name), byName);
    ASSERT_EQ(table.findBindingByRelayedRegistration(relay, cseq), byRelay);
    ASSERT_EQ(table.doesAddressAppearInBindingTable(address), byAddress);
    const auto found = table.findSubscriptionByPhoneCallID(callId, 0);
    ASSERT_TRUE(found.iBinding == byPhone.iBinding && found.iEntry == byPhone.iEntry);
    if (byPhone) {
      const std::string relayed(table.bindingAt(byPhone.iBinding).subscription(byPhone.iEntry).relayCallID());
      const auto again = table.findSubscriptionByRelayCallID(relayed, nullptr);
      ASSERT_TRUE(again.iBinding == byPhone.iBinding && again.iEntry == byPhone.iEntry);
      const auto contained = table.findSubscriptionByRelayCallID("x" + relayed + "y", &cseq, true);
      ASSERT_EQ(static_cast<bool>(contained), cseq == 0);
      ASSERT_FALSE(table.findSubscriptionByRelayCallID("x" + relayed, nullptr));
    }
  }
  EXPECT_GT(table.iNumBindings, 3);
}

TEST_F(BindingsTest, ManyPhonesTouchOnlyTheMemoryTheyUse) {
  BindingTable table;
  for (int user = 0; user < kMaxBindings; ++user) table.bind(std::to_string(user), 1);
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto start = reinterpret_cast<std::uintptr_t>(table.psBindings.get()) / page * page;
  std::vector<unsigned char> resident(kMaxBindings * sizeof(sBinding) / page);
  const auto residentBytes = [&] {
    EXPECT_EQ(mincore(reinterpret_cast<void*>(start), resident.size() * page, resident.data()), 0);
    return static_cast<std::size_t>(std::count_if(resident.begin(), resident.end(),
                                                  [](unsigned char state) { return (state & 1) != 0; })) *
           page;
  };
  constexpr std::size_t kPerPhone = 40'000;  // front and tail, rounded up to pages
  EXPECT_LT(residentBytes(), kMaxBindings * kPerPhone);
  Clock::advanceSeconds(2);
  table.bind("stays", 60);
  table.cleanupExpiredBindingsAndSubscriptions();
  EXPECT_EQ(table.iNumBindings, 0) << "the table was full";
  EXPECT_LT(residentBytes(), kMaxBindings * kPerPhone);
}

}  // namespace
