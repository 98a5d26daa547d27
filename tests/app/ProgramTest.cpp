// The program itself, as far as a start that fails, or needs no SIP, can show it. What it does with calls is
// tested with real phones elsewhere.
#include <csignal>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/calls/support/Process.h"
#include "tests/calls/support/ScratchDirectory.h"
#include "tests/support/LoopbackPeer.h"

namespace {

class ProgramTest : public ::testing::Test {
 protected:
  ProgramTest() {
    std::filesystem::create_directories(bin());
    std::filesystem::create_directories(scratch.path() / "log");
  }
  ~ProgramTest() override {
    for (const char* name : {"/tmp/KestrovaQuorvel", "/tmp/KestrovaTmpLog"})
      std::filesystem::remove(name + suffix);
  }

  std::filesystem::path bin() const { return scratch.path() / "bin"; }
  std::string errorLog(const std::string& instance) const {
    return readFile(scratch.path() / "log" / ("errLog" + instance));
  }
  std::string earlyLog() const { return readFile("/tmp/KestrovaTmpLog" + suffix); }
  std::unique_ptr<Process> start(const std::vector<std::string>& arguments) const {
    return std::make_unique<Process>(QUORVEL_PROGRAM, arguments, scratch.path() / "output",
                                     Process::Environment{{"KESTROVA_BIN", bin().string() + "/"}});
  }
  void expectFailedStart(const std::string& configuration, const std::string& message) {
    EXPECT_EQ(start({configuration, suffix})->wait(Seconds(10)), 1);
    EXPECT_EQ(occurrences(errorLog(suffix), " ERROR in quorvel_main, " + message), 1) << errorLog(suffix);
  }
  std::string writeConfiguration(const std::string& name, int sipPort = LoopbackPeer::freePortPair()) const {
    const std::string sip = std::to_string(sipPort);
    const std::string path = (bin() / name).string();
    writeFile(path,
              "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipProxyPort=20999\nSipUAIP=127.0.0.1\n"
              "SipUAPort=" +
                  sip +
                  "\nRtpUAPortInitVal=20800\nSeparator=##\nNumPhonesToAllocate=2\n"
                  "RegisterOrigPhones=0\nRegisterPairPhones=0\nNeedToCheckDTMF=1\nCPUPower=5\n"
                  "DetectAggressiveLevel=2\nCleanAggressiveLevel=8\nAECAlgorithm=basic\n");
    return path;
  }

  ScratchDirectory scratch{"quorvel-program"};
  std::string suffix = "-program-" + std::to_string(getpid());
};

TEST_F(ProgramTest, FailedStartsEndWithOneAndSayWhy) {
  expectFailedStart((bin() / "missing.conf").string(), "problem reading parameters\n");

  const std::string lock = "/tmp/KestrovaQuorvel" + suffix;
  std::filesystem::create_directory(lock);
  expectFailedStart(writeConfiguration("quorvel.conf"), "problem writing to tmp file\n");
  const std::string log = errorLog(suffix);
  EXPECT_LT(log.find(" INFO in quorvel_main, Loading Quorvel version 1.6.56\n"),
            log.find(" INFO in quorvel_main, The number of channels was set to 3\n"));

  std::filesystem::remove(lock);
  const LoopbackPeer thief;
  expectFailedStart(writeConfiguration("taken.conf", thief.port()), "Could not prepare sip connection\n");
}

TEST_F(ProgramTest, StartOnAFullDiskEndsWithOne) {
  const std::string configuration = writeConfiguration("quorvel.conf");
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
  const rlimit none{0, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);  // inherited
  const auto program = start({configuration, suffix});
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
  EXPECT_EQ(program->wait(Seconds(10)), 1) << "without its lock it must not run";
}

// In a network of its own a process sees the loopback device only.
TEST_F(ProgramTest, HostWithTheLoopbackDeviceOnlyCannotStart) {
  const std::string unshare = Process::find("unshare");
  if (unshare.empty() || !Process::run(unshare, {"-n", "true"}, scratch.path() / "output"))
    GTEST_SKIP() << "not permitted to create a network";
  const std::string configuration = writeConfiguration("quorvel.conf");
  Process program(unshare, {"-n", QUORVEL_PROGRAM, configuration, suffix}, scratch.path() / "output",
                  {{"KESTROVA_BIN", bin().string() + "/"}});
  EXPECT_EQ(program.wait(Seconds(10)), 1);
  EXPECT_EQ(occurrences(errorLog(suffix), " ERROR in MyConfiguration::readNetworkInformation, "), 1);
  EXPECT_EQ(
      occurrences(errorLog(suffix), " ERROR in quorvel_main, problem reading the network information\n"), 1);
}

TEST_F(ProgramTest, MissingInstallationDirectoryEndsItWithOne) {
  Process program("/usr/bin/env", {"-u", "KESTROVA_BIN", QUORVEL_PROGRAM, "quorvel.conf", suffix},
                  scratch.path() / "output");
  EXPECT_EQ(program.wait(Seconds(10)), 1);
  EXPECT_EQ(occurrences(earlyLog(),
                        " in quorvel_main, ERROR: Did not get value for environment variable "
                        "KESTROVA_BIN\n"),
            1);
}

// An interrupt within five seconds of the start stops it without questions, after the two seconds that peers
// have to answer.
TEST_F(ProgramTest, RunsUntilInterrupted) {
  const auto program = start({writeConfiguration("quorvel.conf"), suffix});
  EXPECT_TRUE(
      eventually([&] { return occurrences(errorLog(suffix), "All phones are active\n") == 1; }, Seconds(10)));
  program->signal(SIGTERM);
  EXPECT_TRUE(eventually([&] { return occurrences(errorLog(suffix), "got signal 15\n") == 1; }, Seconds(3)));
  EXPECT_EQ(occurrences(readFile("/tmp/KestrovaQuorvel" + suffix),
                        std::string_view(reinterpret_cast<const char*>(std::array{program->pid()}.data()),
                                         sizeof(pid_t))),
            1);
  program->signal(SIGINT);
  EXPECT_EQ(program->wait(Seconds(5)), 0);
  EXPECT_TRUE(std::filesystem::exists("/tmp/KestrovaQuorvel" + suffix)) << "the lock file is never deleted";
}

}  // namespace
