// Host names are looked up beside the SIP thread, which never waits for long.
#include <atomic>
#include <gtest/gtest.h>
#include <netdb.h>
#include <string>
#include <thread>

#include "common/Clock.h"
#include "sip/HostNames.h"
#include "tests/support/TestInstallation.h"

namespace {

std::atomic<bool> serviceAnswers{true};
std::atomic<int> numAsked{0};

// Knows every name that begins with 'k'. May keep its answer back for as long as a test likes.
int askService(const char* name, FixedText<16>& ip) {
  ++numAsked;
  while (!serviceAnswers) std::this_thread::yield();
  return *name == 'k' && ip.assign("10.1.2.3") ? 0 : EAI_NONAME;
}

class HostNamesTest : public ::testing::Test {
 protected:
  HostNamesTest() {
    numAsked = 0;
    serviceAnswers = true;
  }
  ~HostNamesTest() override { serviceAnswers = true; }

  // Finds it in the end, as a repeated message would.
  bool findsInTheEnd(std::string_view name) {
    const std::int64_t end = Clock::monotonicNanoseconds() + 10'000'000'000;
    while (Clock::monotonicNanoseconds() < end) {
      if (names.find(name, ip)) return true;
    }
    return false;
  }

  TestInstallation installation;
  HostNames names{askService};
  FixedText<16> ip;
};

TEST_F(HostNamesTest, AnswersAreKeptWhetherThereIsAnAddressOrNot) {
  EXPECT_TRUE(findsInTheEnd("known.example"));
  EXPECT_EQ(ip, "10.1.2.3");
  EXPECT_TRUE(names.find("known.example", ip));
  EXPECT_EQ(numAsked, 1);
  ip.clear();
  const std::string unknown =
      "unable to locate host (nobody.example). Error: -2 - Name or service not known\n";
  while (installation.logCount(unknown) == 0) EXPECT_FALSE(names.find("nobody.example", ip));
  EXPECT_FALSE(names.find("nobody.example", ip));
  EXPECT_EQ(installation.logCount(unknown), 1);
  EXPECT_TRUE(ip.empty());
  EXPECT_EQ(numAsked, 2);
  EXPECT_FALSE(names.find(std::string(300, 'k'), ip));
}

TEST_F(HostNamesTest, SlowServiceHoldsNobodyUp) {
  serviceAnswers = false;
  const std::int64_t begin = Clock::monotonicNanoseconds();
  EXPECT_FALSE(names.find("known.example", ip));
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(names.find("known" + std::to_string(i), ip));
  EXPECT_LT(Clock::monotonicNanoseconds() - begin, 5'000'000'000) << "80 ms in all when nothing else runs";
  EXPECT_EQ(installation.logCount("address of host known.example is not known yet"), 1);
  serviceAnswers = true;
  EXPECT_TRUE(findsInTheEnd("known.example"));
  EXPECT_EQ(numAsked, 4) << "the others were not asked for while it was busy";
}

TEST_F(HostNamesTest, SystemKnowsItself) {
  HostNames system;
  while (!system.find("localhost", ip)) {
    ASSERT_EQ(installation.logCount("unable to locate host"), 0);
  }
  EXPECT_TRUE(ip.view().starts_with("127.")) << ip.c_str();
}

}  // namespace
