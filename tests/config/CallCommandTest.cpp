// Commands, and the rule tables that are built from the command keys.
#include <vector>

#include "app/config/MyConfiguration.h"
#include "tests/config/ConfigurationFixture.h"

namespace {

class CallCommandTest : public ConfigurationTest {
 protected:
  // "destination|type" or "failure".
  std::string analyze(std::string_view command, const char* separator = "##") {
    installation.clearLog();
    (void)pcSeparator.assign(separator);
    RuleText destination;
    int type = -1;
    if (myConfiguration.analyzeCommand(command, destination, type) != 0) return "failure";
    return destination.c_str() + std::string("|") + std::to_string(type);
  }
  void expectFailure(const std::string& command, const std::string& message) {
    EXPECT_EQ(analyze(command), "failure") << command;
    expectOnlyError(message, "MyConfiguration::analyzeCommand");
  }
};

std::string repeated(const std::string& rule, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += rule;
  return all;
}

TEST_F(CallCommandTest, ValidCommandsGiveDestinationAndType) {
  EXPECT_EQ(analyze("5551234@10.0.0.9##3"), "5551234@10.0.0.9|3");
  EXPECT_EQ(analyze("*##0"), "*|0");
  EXPECT_EQ(analyze("*##2 and more##1"), "*|2");
  EXPECT_EQ(analyze("##1"), "|1");
  EXPECT_EQ(analyze("a#b##+1"), "a#b|1");
  EXPECT_EQ(analyze("a##b;1", "##b;"), "a|1");
  EXPECT_EQ(analyze(std::string(165, 'd') + "##1"), std::string(165, 'd') + "|1");
}

TEST_F(CallCommandTest, InvalidCommandsAreRefusedWithTheirReason) {
  expectFailure("*#3", "unable to find destination in *#3\n");
  expectFailure("", "unable to find destination in \n");
  expectFailure(std::string(166, 'd') + "##1", "destination too long 166\n");
  expectFailure(std::string(5000, 'd') + "##1", "destination too long 5000\n");
  for (const char* command : {"a##", "a##x", "a##-", "a## 1"})
    expectFailure(command, "unable to read cleaning type from " + std::string(command) + "\n");
  expectFailure("a##4", "invalid cleaning type (4) read from a##4\n");
  expectFailure("a##-1", "invalid cleaning type (-1) read from a##-1\n");
  expectFailure("a##4294967297", "invalid cleaning type (2147483647) read from a##4294967297\n");
}

TEST_F(CallCommandTest, DefaultCommandIsTakenOrCleared) {
  ASSERT_EQ(load({{"DefaultCmd", "9@10.0.0.1##2"}}), 0);
  EXPECT_EQ(pcDefaultDestination, "9@10.0.0.1");
  EXPECT_EQ(iDefaultFilteringType, 2);
  ASSERT_EQ(load(), 0);
  EXPECT_EQ(pcDefaultDestination, "");
  EXPECT_EQ(iDefaultFilteringType, 0);

  EXPECT_EQ(load({{"DefaultCmd", "*##9"}}), 2);
  EXPECT_EQ(installation.logCount(
                " ERROR in MyConfiguration::readParams, unable to analyze default command *##9\n"),
            1);
}

// Both keys, their tables and the words they use in messages.
struct sRuleKey {
  const char* name;
  int& count;
  std::array<RuleText, kMaxCommandRules>& filters;
  std::array<RuleText, kMaxCommandRules>& destinations;
  std::array<int, kMaxCommandRules>& types;
};
const sRuleKey kRuleKeys[] = {
    {"CmdBasedOnCallerID", iNumCmdBasedOnCallerID, ppcCmdBasedOnCallerIDFilter,
     ppcCmdBasedOnCallerIDDestination, piCmdBasedOnCallerIDFilteringType},
    {"CmdBasedOnDestination", iNumCmdBasedOnDestination, ppcCmdBasedOnDestinationFilter,
     ppcCmdBasedOnDestinationDestination, piCmdBasedOnDestinationFilteringType},
};

TEST_F(CallCommandTest, RulesKeepTheirOrderUpToTen) {
  for (const sRuleKey& key : kRuleKeys) {
    ASSERT_EQ(load({{key.name, "1??@10.0.0.1=*##1;2@h=3@k##2"}}), 0) << installation.log();
    ASSERT_EQ(key.count, 2);
    EXPECT_EQ(key.filters[0], "1??@10.0.0.1");
    EXPECT_EQ(key.destinations[0], "*");
    EXPECT_EQ(key.types[0], 1);
    EXPECT_EQ(key.filters[1], "2@h");
    EXPECT_EQ(key.destinations[1], "3@k");
    EXPECT_EQ(key.types[1], 2);

    ASSERT_EQ(load({{key.name, repeated("a=b##1;", 10)}}), 0);
    EXPECT_EQ(key.count, 10);
    ASSERT_EQ(load({}, true), 0);
    EXPECT_EQ(key.count, 10) << "a reload analyses the same text again";
    ASSERT_EQ(load(), 0);
    EXPECT_EQ(key.count, 0);
  }
}

TEST_F(CallCommandTest, InvalidRulesStopLoading) {
  for (const sRuleKey& key : kRuleKeys) {
    const std::string name = key.name;
    const std::string longest(165, 'p');
    EXPECT_EQ(load({{name, longest + "=*##1"}}), 0);
    EXPECT_EQ(key.filters[0], longest);

    EXPECT_EQ(load({{name, longest + "p=*##1"}}), 2);
    expectOnlyError("In " + name + " the pattern " + longest + "p is longer than 165 characters\n");
    EXPECT_EQ(load({{name, "a=b##1;;"}}), 2);
    expectOnlyError("pc" + name + " containes a command () with no = sign\n");
    EXPECT_EQ(load({{name, "1??@10.0.0.1"}}), 2);
    expectOnlyError("pc" + name + " containes a command (1??@10.0.0.1) with no = sign\n");
    EXPECT_EQ(load({{name, repeated("a=b##1;", 11)}}), 2);
    expectOnlyError("pc" + name + " containes more than 10 commands\n");
    EXPECT_EQ(load({{name, "a=b##1;c=d#1;"}}), 2);
    EXPECT_EQ(installation.logCount("In " + name + " unable to analyze command d#1\n"), 1);
    EXPECT_EQ(key.count, 1) << "the rule before it stays";
  }
}

}  // namespace
