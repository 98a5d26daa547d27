// The instance lock, and the host's own addresses, on which start-up depends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "app/config/InstanceFile.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Handle.h"
#include "tests/support/TestInstallation.h"

namespace {

class InstanceLockTest : public ::testing::Test {
 protected:
  InstanceLockTest() {
    (void)pcKestrovaInstanceSuffix.format("-test-%d", getpid());
    path = instancePath(kLockFile).c_str();
  }
  ~InstanceLockTest() override {
    // The count of failures outlives a test.
    std::filesystem::remove(path);
    EXPECT_EQ(myConfiguration.writeTmpFile(), 0);
    EXPECT_EQ(myConfiguration.readTmpFile(), 0);
    std::filesystem::remove(path);
  }
  void writeLock(std::string_view bytes) const {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }
  TestInstallation installation;
  std::string path;
};

constexpr std::string_view kForeignProcess("\x01\0\0\0", 4);

TEST_F(InstanceLockTest, LockHoldsTheProcessIdAndNothingElse) {
  writeLock("something longer");
  ASSERT_EQ(myConfiguration.writeTmpFile(), 0);
  const std::int32_t pid = getpid();
  EXPECT_EQ(TestInstallation::read(path), std::string(reinterpret_cast<const char*>(&pid), sizeof pid));
  EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  EXPECT_EQ(installation.log(), "");
}

TEST_F(InstanceLockTest, FifthFailureInARowIsFatal) {
  const std::string function = " ERROR in MyConfiguration::readTmpFile, ";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  EXPECT_EQ(installation.logCount(function + "Unable to open " + path + " for reading\n"), 2);
  writeLock("abc");
  EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  EXPECT_EQ(installation.logCount(function + "Unable to read from " + path + "\n"), 1);
  writeLock(kForeignProcess);
  EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  EXPECT_EQ(installation.logCount("going to return fatal"), 0);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 2);
  EXPECT_EQ(installation.logCount(
                function + "Can't run more than one Quorvel (with same instance) on a single computer\n"),
            3);
  EXPECT_EQ(installation.logCount(function + "going to return fatal\n"), 2);
}

TEST_F(InstanceLockTest, SuccessInBetweenForgivesFailures) {
  writeLock(kForeignProcess);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  ASSERT_EQ(myConfiguration.writeTmpFile(), 0);
  EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  writeLock(kForeignProcess);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 0);
}

TEST_F(InstanceLockTest, NoFreeDescriptorIsNoSignOfALostLock) {
  writeLock(kForeignProcess);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{0, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  EXPECT_EQ(myConfiguration.readTmpFile(), 2);
}

TEST_F(InstanceLockTest, LockIsTakenOnlyInAnOrdinaryFile) {
  const std::string victim = installation.write("victim", "precious");
  std::filesystem::create_symlink(victim, path);
  EXPECT_EQ(myConfiguration.writeTmpFile(), 2);
  EXPECT_EQ(TestInstallation::read(victim), "precious");
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_EQ(myConfiguration.writeTmpFile(), 2);
  std::filesystem::remove(path);
  // A FIFO that somebody listens to would open, and take the process id for good.
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const FileDescriptor listener(open(path.c_str(), O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(myConfiguration.writeTmpFile(), 2);
  EXPECT_EQ(myConfiguration.readTmpFile(), 0);
  EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::writeTmpFile, Unable to open " + path +
                                  " for writing\n"),
            3);
  EXPECT_EQ(installation.logCount("readTmpFile, Unable to open " + path + " for reading\n"), 1);
}

// It exceeds what file systems take for a name, and must then be refused whole, not cut.
TEST_F(InstanceLockTest, LongestInstanceNameStaysWhole) {
  const FixedText<256> usual = pcKestrovaInstanceSuffix;
  pcKestrovaInstanceSuffix.assignCut(std::string(255, 's'));
  EXPECT_EQ(instancePath(kActiveCallsFile).view(), kActiveCallsFile + std::string(255, 's'));
  EXPECT_EQ(myConfiguration.writeTmpFile(), 2);
  pcKestrovaInstanceSuffix = usual;
}

class OwnAddressTest : public ::testing::Test {
 protected:
  OwnAddressTest() { pcMyIPAsDetectedInternally.clear(); }
  TestInstallation installation;
};

TEST_F(OwnAddressTest, AddressTowardsAPeerIsTheOneTheKernelChooses) {
  FixedText<16> own;
  EXPECT_FALSE(myConfiguration.findMyIP(own, "127.0.0.9", 5060));
  EXPECT_EQ(own, "127.0.0.1");
}

TEST_F(OwnAddressTest, FirstAddressFoundIsNeverReplaced) {
  if (myConfiguration.readNetworkInformation()) GTEST_SKIP() << "this host has the loopback device only";
  const FixedText<16> found = pcMyIPAsDetectedInternally;
  EXPECT_NE(inet_addr(found.c_str()), INADDR_NONE);
  EXPECT_FALSE(found.view().starts_with("127.")) << found.c_str();
  (void)pcMyIPAsDetectedInternally.assign("192.0.2.1");
  EXPECT_FALSE(myConfiguration.readNetworkInformation());
  EXPECT_EQ(pcMyIPAsDetectedInternally, "192.0.2.1");
}

// In a network of its own a process sees the loopback device only.
TEST_F(OwnAddressTest, HostWithTheLoopbackDeviceOnlyFails) {
  constexpr int kNotPermitted = 77;
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0) _exit(kNotPermitted);
    _exit(myConfiguration.readNetworkInformation() && pcMyIPAsDetectedInternally.empty() ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WEXITSTATUS(status) == kNotPermitted) GTEST_SKIP() << "not permitted to create a network";
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::readNetworkInformation, "), 1);
}

}  // namespace
