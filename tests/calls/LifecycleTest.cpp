// Signals, the instance lock and the end of the process.
#include <csignal>
#include <unistd.h>

#include "tests/calls/support/TalkFixture.h"

namespace {

class LifecycleTest : public TalkFixture {};

// Interrupts within the first five seconds are not questioned, so the test lets them pass (whole seconds are
// counted).
constexpr std::chrono::milliseconds kFirstSeconds{6500};

TEST_F(LifecycleTest, InterruptWithCallsUpAsksForASecondOneAndThenHangsUp) {
  start();
  std::this_thread::sleep_for(kFirstSeconds);
  setUp(1);
  setUp(2);
  EXPECT_EQ(quorvel->activeCalls(), 2);
  quorvel->process().signal(SIGINT);
  EXPECT_TRUE(quorvel->logged(
      "There are 2 active calls - to force shutdown press control-c again within 5 seconds\n"));
  EXPECT_TRUE(caller.quiet(std::chrono::milliseconds(300)));
  quorvel->process().signal(SIGINT);
  for (int call = 0; call < 2; ++call) {
    toQuorvel(caller, sip_text::respond(expect(caller, "BYE "), "200 OK"));
    toQuorvel(callee, sip_text::respond(expect(callee, "BYE "), "200 OK"));
  }
  EXPECT_EQ(quorvel->process().wait(Seconds(4)), 0);
}

TEST_F(LifecycleTest, ASecondInstanceOfTheNameTakesOver) {
  start();
  PortBlock otherPorts;
  QuorvelProcess second(scratch.path() / "second", otherPorts, {}, quorvel->instanceName());
  ASSERT_TRUE(second.ready());
  EXPECT_EQ(quorvel->process().wait(Seconds(9)), 0);
  EXPECT_EQ(quorvel->logCount("Can't run more than one Quorvel (with same instance) on a single computer\n"),
            5);
  EXPECT_EQ(quorvel->logCount("ERROR in MySip::mainLoop, error reading tmp file\n"), 1);
  EXPECT_EQ(second.activeCalls(), 0);
  EXPECT_EQ(second.stop(), 0);
}

// What a start that must fail leaves behind: exit status, and a text in the early or the regular log.
struct BadStart {
  const char* name;
  const char* installation;  // value of KESTROVA_BIN; @BIN@ stands for the directory with its final slash
  Settings settings;
  int status;
  const char* logged;
  const char* checked;  // what quorvelctl finds before the start
};

void PrintTo(const BadStart& bad, std::ostream* out) {
  *out << bad.name;
}

class BadStartTest : public ::testing::TestWithParam<BadStart> {};

TEST_P(BadStartTest, EndsWithItsStatusAndSaysWhy) {
  const BadStart& bad = GetParam();
  PortBlock ports;
  ScratchDirectory scratch;
  const std::filesystem::path bin = scratch.path() / "bin";
  std::filesystem::create_directories(scratch.path() / "log");
  Settings settings = QuorvelProcess::workingConfiguration(ports);
  for (const auto& [key, value] : bad.settings) settings[key] = value;
  std::string text;
  for (const auto& [key, value] : settings) text += key + "=" + value + "\n";
  writeFile(bin / "quorvel.conf", text);
  std::string installation = bad.installation;
  if (const std::size_t at = installation.find("@BIN@"); at != std::string::npos)
    installation.replace(at, 5, bin.string() + "/");

  const std::string suffix = "-bad-" + std::to_string(getpid());
  Process program(QuorvelProcess::program(), {(bin / "quorvel.conf").string(), suffix},
                  scratch.path() / "output", {{"KESTROVA_BIN", installation}});
  EXPECT_EQ(program.wait(Seconds(10)), bad.status);
  const std::string logs =
      readFile("/tmp/KestrovaTmpLog" + suffix) + readFile(scratch.path() / "log" / ("errLog" + suffix));
  EXPECT_NE(logs.find(bad.logged), std::string::npos) << logs;
  Process check(QUORVELCTL, {"-c", (bin / "quorvel.conf").string(), "-i", suffix, "check"},
                scratch.path() / "check", {{"KESTROVA_BIN", installation}});
  EXPECT_EQ(check.wait(Seconds(10)), 1);
  EXPECT_NE(check.output().find(bad.checked), std::string::npos) << check.output();
  for (const char* file : {"/tmp/KestrovaTmpLog", "/tmp/KestrovaQuorvel"}) unlink((file + suffix).c_str());
}

const BadStart kBadStarts[] = {
    {"NoSlash",
     "/tmp",
     {},
     1,
     "KESTROVA_BIN should end with slash (for Linux) or back-slash (for Windows)\n",
     "KESTROVA_BIN must name the installation directory"},
    {"OddSlots",
     "@BIN@",
     {{"NumPhonesToAllocate", "7"}},
     1,
     "value of NumPhonesToAllocate is not even\n",
     "error: NumPhonesToAllocate: value of NumPhonesToAllocate is not even"},
    {"ForeignAddress",
     "@BIN@",
     {{"SipUAIPForBinding", "203.0.113.9"}},
     1,
     "Could not prepare sip connection\n",
     "error: SipUAIPForBinding: 203.0.113.9 is no address that this host can use"},
    {"TooManyCalls",
     "KESTROVA_BIN=@BIN@",
     {{"NumCallsToFilter", "128"}},
     100,
     "Not enough file descriptors to support so many calls 1024 < 1032",
     "error: NumCallsToFilter: is more than the media relay can carry"},
    {"ShortNameList",
     "@BIN@",
     {{"OrigPhonesName", "a;b;"}},
     1,
     "not enough names in pcOrigPhonesName\n",
     "error: OrigPhonesName: not enough names in pcOrigPhonesName"},
};

INSTANTIATE_TEST_SUITE_P(Starts, BadStartTest, ::testing::ValuesIn(kBadStarts),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
