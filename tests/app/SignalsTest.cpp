// The handlers, each in a process of its own, and the question whether an interrupt may stop the process.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/config/InstanceFile.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/Signals.h"
#include "common/Clock.h"
#include "sip/MySip.h"
#include "tests/support/TestInstallation.h"

namespace {

constexpr std::time_t kNow = 1'700'000'000;

class SignalsTest : public ::testing::Test {
 protected:
  SignalsTest() {
    (void)pcKestrovaInstanceSuffix.format("-signals-%d", getpid());
    iNumPhonesToAllocate = 8;
    iNumCallsToFilter = 4;
    (void)pcSipUAIP.assign("127.0.0.1");
    (void)pcSipProxyDomain.assign("127.0.0.1");
    (void)pcOrigPhonesNamePrefix.assign("orig");
    (void)pcPairPhonesNamePrefix.assign("pair");
    Clock::freezeAt(kNow);
    lastSignal = kNow - 3600;
    EXPECT_EQ(mySip.init(), 0);
    installation.clearLog();
  }
  ~SignalsTest() override {
    Clock::followSystem();
    std::filesystem::remove(instancePath(kActiveCallsFile).c_str());
    bDuringShutdown = bNeedToInitiateShutdown = bGotShutdownRequest = false;
  }

  static void setUpCalls(int count) {
    for (int orig = 0; orig < count; ++orig) mySip.occupySlot(orig);
  }

  // Runs the body with the handlers installed. The exit status: 0 or 100 for what the body returns, or what a
  // handler ends the process with; below 0 for the signal that killed it.
  static int exitStatus(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) {
      const rlimit none{0, 0};
      setrlimit(RLIMIT_CORE, &none);
      installSignalHandlers();
      _exit(body() ? 0 : 100);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

  TestInstallation installation;
};

TEST_F(SignalsTest, IgnoredSignalsAreLoggedEachTimeAndLeaveErrno) {
  for (const int number :
       {SIGHUP, SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGFPE, SIGPIPE, SIGALRM, SIGTERM, SIGSYS}) {
    installation.clearLog();
    EXPECT_EQ(exitStatus([number] {
                errno = ENOTTY;
                raise(number);
                raise(number);
                return errno == ENOTTY;
              }),
              0)
        << strsignal(number);
    EXPECT_EQ(
        installation.logCount(" ERROR in sigIgnoreHandle, got signal " + std::to_string(number) + "\n\n"), 2);
  }
}

// A process that went on would meet the same fault again, for ever.
TEST_F(SignalsTest, FaultsOfOurOwnEndTheProcess) {
  for (const int number : {SIGILL, SIGTRAP, SIGFPE}) {
    installation.clearLog();
    EXPECT_EQ(exitStatus([number] {
                siginfo_t fault{};
                fault.si_code = FPE_INTDIV;  // any code above 0 is the kernel's
                return syscall(SYS_rt_sigqueueinfo, getpid(), number, &fault) == 0;
              }),
              1)
        << strsignal(number);
    EXPECT_EQ(installation.logCount(" ERROR in sigIgnoreHandle, got signal " + std::to_string(number) + "\n"),
              1);
  }
  EXPECT_EQ(exitStatus([]() -> bool { __builtin_trap(); }), 1);
}

int recurse(int depth) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : recurse(depth + 1) + frame[0];
}

TEST_F(SignalsTest, SegmentationFaultIsLoggedEvenWhenTheStackIsFull) {
  EXPECT_EQ(exitStatus([] { return raise(SIGSEGV) == 0; }), 1);
  EXPECT_EQ(exitStatus([] { return recurse(0) == 0; }), 1);
  EXPECT_EQ(installation.logCount(" ERROR in SigSegvHandle, got signal 11\n"), 2);
}

TEST_F(SignalsTest, ActiveCallsAreWrittenToTheirFile) {
  setUpCalls(3);
  EXPECT_EQ(exitStatus([] { return raise(SIGUSR1) == 0 && raise(SIGUSR1) == 0; }), 0);
  const std::int32_t calls = 3;
  const std::string path = instancePath(kActiveCallsFile).c_str();
  EXPECT_EQ(TestInstallation::read(path), std::string(reinterpret_cast<const char*>(&calls), sizeof calls));
  EXPECT_EQ(installation.log(), "");

  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_EQ(exitStatus([] { return raise(SIGUSR1) == 0; }), 0);
  EXPECT_EQ(installation.logCount(" ERROR in sigUsr1Handle, Unable to open " + path + " for writing\n\n"), 1);
}

TEST_F(SignalsTest, DrainModeIsSetAndLogged) {
  EXPECT_EQ(exitStatus([] { return !bGotShutdownRequest && raise(SIGUSR2) == 0 && bGotShutdownRequest; }), 0);
  EXPECT_EQ(installation.logCount(" INFO in sigUsr2Handle, Got shutdown request\n\n"), 1);
}

TEST_F(SignalsTest, InterruptStartsTheShutdownOnce) {
  EXPECT_EQ(exitStatus([] {
              raise(SIGINT);
              const bool started = bDuringShutdown && bNeedToInitiateShutdown && sTimeStartShutDown == kNow;
              bNeedToInitiateShutdown = false;
              Clock::advanceSeconds(1);
              raise(SIGINT);
              return started && !bNeedToInitiateShutdown && sTimeStartShutDown == kNow;
            }),
            0);
  EXPECT_EQ(installation.logCount(" INFO in sigIntHandle, got signal 2\n\n"), 2);
}

TEST_F(SignalsTest, InterruptIsRefusedWhileCallsAreUpUnlessRepeatedWithinFiveSeconds) {
  const std::string head = " WARNING in MyConfiguration::allowShutdown, There ";
  const std::string tail = " - to force shutdown press control-c again within 5 seconds\n\n";
  setUpCalls(1);
  EXPECT_FALSE(myConfiguration.allowShutdown());
  EXPECT_EQ(installation.logCount(head + "is 1 active call" + tail), 1);
  EXPECT_EQ(lastSignal, kNow);

  // The five seconds are time that passes, whatever the date is set to.
  Clock::setDateBy(-3600);
  Clock::advanceSeconds(6);
  setUpCalls(2);
  EXPECT_FALSE(myConfiguration.allowShutdown()) << "too late to count as the second one";
  EXPECT_EQ(installation.logCount(head + "are 2 active calls" + tail), 1);
  Clock::setDateBy(3600);
  Clock::advanceSeconds(5);
  EXPECT_TRUE(myConfiguration.allowShutdown());
  EXPECT_EQ(installation.logCount(head), 2);

  Clock::advanceSeconds(3600);
  for (const int orig : {0, 1}) mySip.markTerminating(orig);
  EXPECT_TRUE(myConfiguration.allowShutdown()) << "calls that are ending do not count";
}

}  // namespace
