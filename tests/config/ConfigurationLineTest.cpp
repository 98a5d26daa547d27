// How lines of the configuration file are read, and how loading and reloading fail.
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <vector>

#include "app/config/MyConfiguration.h"
#include "tests/config/ConfigurationFixture.h"

namespace {

using namespace std::string_literals;

class ConfigurationLineTest : public ConfigurationTest {};

TEST_F(ConfigurationLineTest, AssignmentsAreFoundAmongBlanksCommentsAndOtherLines) {
  struct Case {
    const char* what;
    std::string lines;
    int port;  // 5070 stands in the lines before
  };
  const std::vector<Case> cases = {
      {"blanks everywhere", "   SipUAPort   =   6001\n", 6001},
      {"carriage return", "SipUAPort=6002\r\n", 6002},
      {"text behind the number", "SipUAPort=6003 and more\n", 6003},
      {"no line end", "SipUAPort=6004", 6004},
      {"tab before the value", "SipUAPort=\t6005\n", 6005},
      {"plus sign", "SipUAPort=+6006\n", 6006},
      {"another equals sign", "SipUAPort=6007=8\n", 6007},
      {"given twice", "SipUAPort=1\nSipUAPort=6008\n", 6008},
      {"line split at 49,999 characters",
       "SipUAPort=6009" + std::string(49'999 - 14, ' ') + "SipUAPort=6010\n", 6010},
      {"comment", ";SipUAPort=6011\n", 5070},
      {"comment behind blanks", "  ; SipUAPort=6012\n", 5070},
      {"no value", "SipUAPort=\nSipUAPort=   \nSipUAPort=  \r\nSipUAPort=", 5070},
      {"no equals sign", "SipUAPort 6013\n", 5070},
      {"other case", "sipuaport=6014\n", 5070},
      {"tab before the key", "\tSipUAPort=6015\n", 5070},
      {"tab behind the key", "SipUAPort\t=6016\n", 5070},
      {"unknown key", "SipUAPorts=6017\n=6018\n", 5070},
      {"NUL inside the line", "SipUAPort=60\00018\nX=\0\n"s, 60},
      {"NUL before the key", "\0SipUAPort=6019\n"s, 5070},
      {"not a number", "SipUAPort=many\n", 5070},
      {"sign alone", "SipUAPort=-\n", 5070},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(loadLines(each.lines), 0) << each.what << installation.log();
    EXPECT_EQ(iSipUAPort, each.port) << each.what;
  }
}

TEST_F(ConfigurationLineTest, NumberBeyondTheRangeOfIntCountsAsTheNearestIntThatIsEvenOrOddAsItIs) {
  ASSERT_EQ(loadLines("SipUAPort=2147483648\n"), 0);
  EXPECT_EQ(iSipUAPort, 2147483646);
  ASSERT_EQ(loadLines("SipUAPort=-99999999999999999999999999\n"), 0);
  EXPECT_EQ(iSipUAPort, -2147483647);
  // 2^32 + 1 must not pass for 1.
  EXPECT_EQ(loadLines("NeedToDoAEC=4294967297\n"), 2);
  expectOnlyError("value of NeedToDoAEC is not 0 or 1\n");
}

TEST_F(ConfigurationLineTest, ValueThatIsNoNumberKeepsTheSettingWhichIsCheckedAllTheSame) {
  ASSERT_EQ(loadLines("CleanAggressiveLevel=9\nCleanAggressiveLevel=x\n"), 0);
  EXPECT_EQ(iCleanAggressiveLevel, 9);
  ASSERT_EQ(loadLines("ThresholdToHighlightMOS=2.5\nThresholdToHighlightMOS=good\n"), 0);
  EXPECT_EQ(fThresholdToHighlightMOS, 2.5F);
  iRegisterExpiration = 0;
  EXPECT_EQ(loadLines("RegisterExpiration=soon\n"), 2);
  expectOnlyError("value of RegisterExpiration is not positive\n");
}

TEST_F(ConfigurationLineTest, WordEndsAtTheFirstBlank) {
  ASSERT_EQ(loadLines("TrunkName=front desk\nSecret=\tpass\tword\r\nPairPhonesName=a;b c\n"), 0);
  EXPECT_EQ(pcTrunkName, "front");
  EXPECT_EQ(pcSecret, "pass");
  EXPECT_EQ(pcPairPhonesName, "a;b;");
  ASSERT_EQ(loadLines("TrunkName=\t\v\n"), 0);
  EXPECT_EQ(pcTrunkName, "") << "a word of tabs is no value";
}

TEST_F(ConfigurationLineTest, LongestNamesFillTheirLine) {
  // 49,998 characters and the line feed, less the key and its sign, plus the appended semicolon.
  const std::string names(49'998 - std::string("OrigPhonesName=").size(), 'n');
  ASSERT_EQ(loadLines("OrigPhonesName=" + names + "\n"), 0);
  EXPECT_EQ(pcOrigPhonesName, names + ";");
}

TEST_F(ConfigurationLineTest, LaterLineOfExpressionsReplacesTheList) {
  ASSERT_EQ(loadLines("DOSExpressions=a;b;c\nDOSExpressions=d\n"), 0);
  EXPECT_EQ(settingText("DOSExpressions"), "d;");
}

TEST_F(ConfigurationLineTest, FirstInvalidValueStopsAndEarlierLinesStay) {
  EXPECT_EQ(loadLines("SipUAPort=6100\nSipDebug=5\nSipUAPort=6200\n"), 2);
  expectOnlyError("value of SipDebug is not 0 or 1\n");
  EXPECT_EQ(iSipUAPort, 6100);
}

TEST_F(ConfigurationLineTest, FileThatCannotBeReadFails) {
  const std::string fifo = (installation.bin() / "fifo.conf").string();
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string large = installation.write("large.conf", std::string(1'048'577, ' '));
  const std::string lines = installation.write("lines.conf", std::string(10'001, '\n'));
  const auto unopened = [](int error) {
    return "Unable to open conf-file (error=" + std::to_string(error) + ") ";
  };
  const std::string bound = " has more than 1048576 bytes or 10000 lines\n";
  for (const auto& [path, message] : std::vector<std::pair<std::string, std::string>>{
           {installation.bin() / "missing.conf", unopened(ENOENT) + "@\n"},
           {installation.bin(), unopened(EISDIR) + "@\n"},
           {fifo, unopened(EINVAL) + "@\n"},  // and does not wait for a writer
           {"/dev/zero", unopened(EINVAL) + "@\n"},
           {"/proc/self/pagemap", unopened(EINVAL) + "@\n"},  // 256 GB without a line feed
           {large, "conf-file @" + bound},
           {lines, "conf-file @" + bound}}) {
    installation.clearLog();
    EXPECT_EQ(myConfiguration.readParams(path.c_str(), true), 2);
    expectOnlyError(std::string(message).replace(message.find('@'), 1, path));
  }
  EXPECT_EQ(loadLines(std::string(9'000, '\n') + std::string(1'000'000, ' ') + "\n"), 0);
}

// A reload that fails half-way: what stands before the error holds, and nothing is forgotten for the next
// one.
TEST_F(ConfigurationLineTest, FailedReloadKeepsWhatItApplied) {
  ASSERT_EQ(load({{"TrunkName", "trunk"}, {"AGCLevel", "1000"}}), 0);
  EXPECT_EQ(loadLines("AGCLevel=2000\nNeedToDoAGC=7\nSipUAPort=1\n", true), 2);
  EXPECT_EQ(iAGCLevel, 2000);
  EXPECT_EQ(pcTrunkName, "trunk");
  ASSERT_EQ(load({{"AGCLevel", "3000"}}, true), 0);
  EXPECT_EQ(iAGCLevel, 3000);
  EXPECT_EQ(pcTrunkName, "trunk");
}

TEST_F(ConfigurationLineTest, ReloadDetectsAnAbsentOwnAddressAgain) {
  ASSERT_EQ(load(), 0);
  pcSipUAIP.clear();
  ASSERT_EQ(load({}, true), 0);
  EXPECT_EQ(pcSipUAIP, "192.0.2.77");
  EXPECT_EQ(installation.logCount("auto-detected"), 1);
}

}  // namespace
