// Each call to the system that can fail while the process starts or runs, made to fail: the process says so,
// and goes on where it can.
#include <cerrno>
#include <chrono>
#include <functional>
#include <optional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "app/config/MyConfiguration.h"
#include "app/config/Settings.h"
#include "common/Clock.h"
#include "reports/StatisticsGeneration.h"
#include "rtp/MyRtp.h"
#include "sip/HostNames.h"
#include "tests/sip/SipFixture.h"
#include "tests/support/SystemFault.h"

namespace {

using namespace sip_text;  // NOLINT(google-build-using-namespace): transcripts read better

class SystemCallTest : public SipFixture {
 protected:
  static bool isLocalAddressUnknown() {
    FixedText<16> own;
    return myConfiguration.findMyIP(own, "127.0.0.9", 5060);
  }
  static bool isNetworkUnknown() { return myConfiguration.readNetworkInformation(); }
  static bool isHostUnknown() {
    FixedText<16> ip;
    return !HostNames().find("host.example", ip);
  }
  bool isConnectionRefused() const { return sip->prepareConnection() == 2; }
  // What happens on media threads, which take their time.
  static bool comesTrue(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < end) {
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
};

TEST_F(SystemCallTest, FailuresAtTheStartAreNamed) {
  start();
  struct Row {
    const char* function;
    int error, spared;
    std::function<bool()> fails;
    std::string message;
  };
  const std::function<bool()> connection = [this] { return isConnectionRefused(); };
  const std::string prepare = " ERROR in MySip::prepareConnection, unable to ",
                    find = " ERROR in MyConfiguration::findMyIP, ",
                    read = " WARNING in MyConfiguration::readNetworkInformation, ";
  const std::string reason = " Operation not permitted\n";
  for (const Row& row : {
           Row{"socket", EMFILE, 0, connection, prepare + "open socket - 24 - Too many open files\n"},
           Row{"fcntl", EPERM, 0, connection, prepare + "set NONBLOCK - 1 -" + reason},
           Row{"setsockopt", EPERM, 0, connection, prepare + "reuse socket\n"},
           Row{"socket", EPERM, 0, isLocalAddressUnknown, find + "unable to open socket - 1 -" + reason},
           Row{"getsockname", ENOBUFS, 0, isLocalAddressUnknown,
               find + "unable to get sock name. (err=105)\n"},
           Row{"socket", EPERM, 0, isNetworkUnknown, read + "problem opening socket" + reason},
           Row{"ioctl", EPERM, 0, isNetworkUnknown, read + "problem calling SIOCGIFCONF" + reason},
           Row{"ioctl", EPERM, 1, isNetworkUnknown, " problem calling SIOCGIFHWADDR" + reason},
           Row{"setpriority", EACCES, 0, [] { return (myConfiguration.increaseProcessPriority(), true); },
               " WARNING in MyConfiguration::increaseProcessPriority, Unable to set priority class - "},
           Row{"pthread_create", EAGAIN, 0, isHostUnknown,
               " ERROR in HostNames::find, unable to look up host host.example - Resource temporarily "
               "unavailable\n"},
           Row{"throwing new", ENOMEM, 0, isHostUnknown,
               " ERROR in HostNames::find, unable to look up host host.example - std::bad_alloc\n"},
           Row{"new", ENOMEM, 0, [] { return myRtp.init() == 2; }, " ERROR in MyRtp::init, can not allocate"},
           Row{"new", ENOMEM, 1, [] { return myRtp.init() == 2; }, " ERROR in MyRtp::init, can not allocate"},
       }) {
    if (!SystemFault::isPossible(row.function)) continue;
    installation.clearLog();
    {
      const SystemFault fault(row.function, row.error, row.spared);
      EXPECT_TRUE(row.fails()) << row.function << row.message;
    }
    EXPECT_GE(installation.logCount(row.message), 1) << row.function << installation.log();
  }
}

TEST_F(SystemCallTest, TooFewDescriptorsAreNamedAtTheStart) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit few{20, 20};
    _exit(setrlimit(RLIMIT_NOFILE, &few) == 0 && myRtp.init() == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(
      installation.logCount(" WARNING in MyRtp::init, The process may have 20 file descriptors, 2 calls "
                            "may need 24: the last of them stay silent\n"),
      1);
}

// A message that the socket refuses is lost: its call ends as one without an answer does, others are
// unharmed.
TEST_F(SystemCallTest, SipSocketThatFailsForAWhileHarmsOnlyWhatWasUnderWay) {
  start();
  {
    const SystemFault fault("sendto", EPERM, 1);  // the caller's own is spared
    fromCaller(inviteText());
  }
  EXPECT_EQ(installation.logCount(" WARNING in MySip::sendSipMsg, unable to send to 127.0.0.1:" +
                                  std::to_string(pbx.port()) + " - 1 - Operation not permitted\n"),
            1)
      << installation.log();
  expectSilence();
  invite.callId = "other-call";
  answer();
  passSeconds(61);
  EXPECT_EQ(sip->numActiveCalls(), 1);

  for (const auto& [function, message] :
       {std::pair{"recvfrom", " WARNING in MySip::mainLoop, unable to read socket "},
        {"select", " ERROR in MySip::mainLoop, error in select "}}) {
    const SystemFault fault(function, ENOMEM);
    EXPECT_TRUE(sip->mainLoopPass(0));
    EXPECT_EQ(installation.logCount(std::string(message) + "Cannot allocate memory\n"), 1);
  }
  fromCaller(build({.method = "OPTIONS", .viaPort = caller.port()}));
  EXPECT_EQ(firstLine(atCaller()), "SIP/2.0 200 Ok");
}

// Packets that cannot be sent are lost without a word; when a call's sockets cannot be waited for any more,
// it ends.
TEST_F(SystemCallTest, MediaSocketsThatFailEndTheirCallAtMost) {
  LoopbackPeer phone, other;
  invite.sdp = sdp(phone.port(), "0");
  start();
  fromCaller(inviteText());
  pairInvite = atPbx();
  fromPbx(respond(pairInvite, "200 OK", "bob1",
                  "Contact: <sip:200@127.0.0.1:" + std::to_string(pbx.port()) + ">\r\n",
                  sdp(other.port(), "0")));
  fromCaller(callerRequest("ACK", invite.cseq));
  const std::string packet = "\x80" + std::string(171, '\0');
  const auto isHeard = [&] {
    return comesTrue([&] { return phone.sendTo(iRtpUAPortInitVal, packet), !other.quiet(); });
  };
  for (const auto& [function, error] : {std::pair{"sendto", EPERM}, {"recvfrom", ENOMEM}}) {
    const SystemFault fault(function, error, 0, SystemFault::Of::eOtherThreads);
    EXPECT_TRUE(
        comesTrue([&] { return phone.sendTo(iRtpUAPortInitVal, packet), SystemFault::failures() > 2; }));
    while (other.receive(std::chrono::milliseconds(0))) continue;
    EXPECT_TRUE(other.quiet()) << function;
  }
  for (const int seconds : {0, 7200, -14400}) {  // the date is set forwards and back
    Clock::setDateBy(seconds);
    passSeconds(1);
    EXPECT_TRUE(isHeard()) << seconds;
    EXPECT_EQ(sip->numActiveCalls(), 1);
  }
  {
    const SystemFault fault("select", EBADF, 0, SystemFault::Of::eOtherThreads);
    EXPECT_TRUE(comesTrue([] { return SystemFault::failures() > 101; }));
    EXPECT_TRUE(comesTrue([&] {
      passSeconds(1);
      return installation.logCount("going to cancel call due to many select errors 0 2\n") == 1;
    })) << installation.log();
  }
  EXPECT_EQ(
      installation.logCount(" ERROR in MyRtp::threadMainLoop, error in select (0) Bad file descriptor\n"), 1);
}

// Neither the page nor a record of it, until there is.
TEST_F(SystemCallTest, PageThatHasNoMemoryForItsStreamIsWrittenLater) {
  const std::string page = (installation.bin() / "page.html").string();
  pcRealTimeAverageStatisticsFile.assignCut(page);
  installation.clearLog();
  for (const bool isShort : {true, false}) {
    std::optional<SystemFault> fault;
    if (isShort) fault.emplace("fdopen", ENOMEM);
    statisticsGeneration.generateRealTimeStatistics();
    fault.reset();
    EXPECT_EQ(TestInstallation::read(page).empty(), isShort);
  }
  EXPECT_EQ(installation.log(), "");
  pcRealTimeAverageStatisticsFile.clear();
}

}  // namespace
