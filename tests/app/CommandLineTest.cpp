// What the command line and the environment make of the instance, the installation and the configuration.
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "app/config/ProcessState.h"
#include "app/Startup.h"
#include "engine/Glob.h"
#include "tests/support/TestInstallation.h"

namespace {

class CommandLineTest : public ::testing::Test {
 protected:
  CommandLineTest() { (void)pcKestrovaInstanceSuffix.format("-early-%d", getpid()); }
  ~CommandLineTest() override { std::filesystem::remove(earlyLogPath); }

  // The arguments as main gets them.
  std::span<char* const> arguments(std::vector<std::string> words) {
    storage = std::move(words);
    storage.insert(storage.begin(), "quorvel");
    pointers.clear();
    for (std::string& word : storage) pointers.push_back(word.data());
    return pointers;
  }
  // The messages of the early log since the last call, without their dates.
  std::string earlyLog() {
    std::string text = TestInstallation::read(earlyLogPath);
    std::filesystem::remove(earlyLogPath);
    std::string messages;
    const std::string head = "\n in quorvel_main, ";
    for (std::size_t at = text.find(head); at != std::string::npos; at = text.find(head, at + 1))
      messages += text.substr(at + head.size(), text.find("\n\n", at) - at - head.size()) + "|";
    return messages;
  }

  TestInstallation installation;
  std::string earlyLogPath = "/tmp/KestrovaTmpLog-early-" + std::to_string(getpid());
  std::vector<std::string> storage;
  std::vector<char*> pointers;
};

TEST_F(CommandLineTest, InstallationEndsWithASlashOrBackslash) {
  const std::string slashMissing =
      "KESTROVA_BIN should end with slash (for Linux) or back-slash (for Windows)|";
  const std::string longest = std::string(254, 'd') + "/";
  struct Case {
    std::string value;
    bool valid;
    std::string directory;
    std::string complaint;
  };
  const std::vector<Case> cases = {
      {"/opt/q/", true, "/opt/q/", ""},
      {"C:\\q\\", true, "C:\\q\\", ""},
      {"KESTROVA_BIN=/opt/q/", true, "/opt/q/", ""},
      {"/opt/q", false, "", slashMissing},
      {"", false, "", slashMissing},
      {"KESTROVA_BIN=", false, "", slashMissing},
      {longest, true, longest, ""},
      {"d" + longest, false, "", "ERROR: The value of KESTROVA_BIN is longer than 255 characters|"},
      {"KESTROVA_BIN=" + longest, true, longest, ""},
  };
  for (const Case& each : cases) {
    Glob::pcKestrovaBin.clear();
    EXPECT_EQ(findInstallation(each.value.c_str()), each.valid) << each.value;
    EXPECT_EQ(Glob::pcKestrovaBin, each.directory);
    EXPECT_EQ(earlyLog(), "INFO: Got the value for environment variable KESTROVA_BIN \"" + each.value +
                              "\"|" + each.complaint);
  }
  EXPECT_FALSE(findInstallation(nullptr));
  EXPECT_EQ(earlyLog(), "ERROR: Did not get value for environment variable KESTROVA_BIN|");
}

TEST_F(CommandLineTest, ConfigurationIsTheFirstOfOneOrTwoArguments) {
  (void)Glob::pcKestrovaBin.assign("/opt/q/");
  ConfigurationPath path;
  for (const auto& words : {std::vector<std::string>{"q.conf"}, {"q.conf", "b"}}) {
    EXPECT_TRUE(chooseConfiguration(arguments(words), path));
    EXPECT_EQ(path, "q.conf");
    EXPECT_EQ(earlyLog(), "");
  }
  for (const auto& words : {std::vector<std::string>{}, {"q.conf", "b", "c"}}) {
    EXPECT_TRUE(chooseConfiguration(arguments(words), path));
    EXPECT_EQ(path, "/opt/q/quorvel.conf");
    EXPECT_EQ(earlyLog(), "ERROR: Usage: quorvel conf-file. Continue with default configuration name.|");
  }
}

TEST_F(CommandLineTest, ConfigurationPathIsNeverCut) {
  ConfigurationPath path;
  EXPECT_TRUE(chooseConfiguration(arguments({std::string(255, 'c')}), path));
  EXPECT_EQ(path.size(), 255U);
  EXPECT_FALSE(chooseConfiguration(arguments({std::string(256, 'c')}), path));
  EXPECT_EQ(
      installation.logCount(" ERROR in quorvel_main, The path of the configuration file is longer than 255 "
                            "characters\n"),
      1);
  // The log of such an installation is not there to be looked at.
  Glob::pcKestrovaBin.assignCut(std::string(244, 'd'));
  EXPECT_FALSE(chooseConfiguration(arguments({}), path));
}

TEST_F(CommandLineTest, InstanceNameIsTheSecondOfTwoArguments) {
  const FixedText<256> before = pcKestrovaInstanceSuffix;
  EXPECT_TRUE(takeInstanceName(arguments({"q.conf"})));
  EXPECT_TRUE(takeInstanceName(arguments({"q.conf", "b", "c"})));
  EXPECT_EQ(pcKestrovaInstanceSuffix, before);
  EXPECT_FALSE(takeInstanceName(arguments({"q.conf", std::string(256, 'i')})));
  EXPECT_EQ(earlyLog(), "ERROR: The instance name is longer than 255 characters|");
  EXPECT_EQ(pcKestrovaInstanceSuffix, before);
  EXPECT_TRUE(takeInstanceName(arguments({"q.conf", std::string(255, 'i')})));
  EXPECT_EQ(pcKestrovaInstanceSuffix.view(), std::string(255, 'i'));
}

}  // namespace
