// The tool for configuration files, and what is committed of its output: the sample configuration and the
// manual's list of keys.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "app/config/MyConfiguration.h"
#include "tests/config/ConfigurationFixture.h"

namespace {

const std::filesystem::path kSource = QUORVEL_SOURCE_DIR;

std::string outputOf(const std::string& command) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string output;
  for (int character = std::fgetc(pipe.get()); character != EOF; character = std::fgetc(pipe.get()))
    output += static_cast<char>(character);
  return output;
}

class KeysToolTest : public ConfigurationTest {};

TEST_F(KeysToolTest, CommittedFilesAreThoseOfTheRegistry) {
  EXPECT_EQ(outputOf(QUORVEL_KEYS " --sample"),
            TestInstallation::read(kSource / "packaging/quorvel.conf.sample"))
      << "build the target key-files";
  EXPECT_EQ(outputOf(QUORVEL_KEYS " --manual"),
            TestInstallation::read(kSource / "docs/configuration-keys.md"));
}

TEST_F(KeysToolTest, SampleLoadsAsItStands) {
  ASSERT_EQ(loadText(TestInstallation::read(kSource / "packaging/quorvel.conf.sample")), 0)
      << installation.log();
  EXPECT_EQ(pcDefaultDestination, "*");
  EXPECT_EQ(iDefaultFilteringType, 3);
  // The tones it names are shipped beside it.
  for (const std::string_view tone : {pcDTMFOKToneFile.view(), pcDTMFFailToneFile.view()}) {
    const std::string_view relative = tone.substr(tone.find("../tones/") + 3);
    const auto bytes = std::filesystem::file_size(kSource / "packaging" / relative);
    EXPECT_TRUE(bytes > 0 && bytes % 2 == 0 && bytes < 2 * 16'000) << tone;
  }
}

TEST_F(KeysToolTest, CommittedTonesAreThoseOfTheScript) {
  if (std::system("command -v sox >/dev/null") != 0) GTEST_SKIP() << "sox is not installed";
  const std::string made = (installation.root() / "made").string();
  ASSERT_EQ(outputOf((kSource / "packaging/make-tones").string() + " " + made + " 2>&1"), "");
  for (const char* tone : {"ok.raw", "fail.raw"})
    EXPECT_EQ(TestInstallation::read(made + "/" + tone),
              TestInstallation::read(kSource / "packaging/tones" / tone))
        << tone;
}

// Every commented-out line is a value that its key takes: uncommenting any of them must not stop the program.
TEST_F(KeysToolTest, EveryExampleIsAValueItsKeyTakes) {
  installation.write("routing.conf", "192.0.2.30::5060::3??@192.0.2.20;\n");
  std::string text = TestInstallation::read(kSource / "packaging/quorvel.conf.sample");
  for (const sKey& key : keyRegistry()) {
    const std::string commented = "\n;" + std::string(key.pcName) + "=";
    const std::size_t at = text.find(commented);
    if (at != std::string::npos) text.erase(at + 1, 1);
    EXPECT_NE(text.find("\n" + std::string(key.pcName) + "="), std::string::npos) << key.pcName;
  }
  EXPECT_EQ(loadText(text), 0) << installation.log();
}

TEST_F(KeysToolTest, SingleKeysAreReadAndChanged) {
  const std::string tool = QUORVEL_KEYS;
  const std::string file = installation.write("tool.conf", "SipUAPort=5070\n");
  EXPECT_EQ(outputOf(tool + " --get " + file + " SipUAPort"), "5070\n");
  EXPECT_EQ(outputOf(tool + " --set " + file + " SipDebug 1"), "");
  EXPECT_EQ(outputOf(tool + " --set " + file + " SipUAPort"), "");
  EXPECT_EQ(outputOf(tool + " --set " + file + " NoSuchKey 1 2>&1"),
            "NoSuchKey is no key of the configuration\n");
  EXPECT_EQ(TestInstallation::read(file), ";SipUAPort=5070\nSipDebug=1\r\n");
  std::filesystem::create_directory(file + ".tmp");
  EXPECT_NE(outputOf(tool + " --set " + file + " SipDebug 0 2>&1; echo $?").find(" cannot be changed: "),
            std::string::npos);
}

}  // namespace
