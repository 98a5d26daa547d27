// What is committed of the key registry's output: the sample configuration and the manual's list of keys.
#include <algorithm>
#include <cstdio>
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

class SampleTest : public ConfigurationTest {};

TEST_F(SampleTest, CommittedFilesAreThoseOfTheRegistry) {
  EXPECT_EQ(outputOf(QUORVEL_KEYS " --sample"),
            TestInstallation::read(kSource / "packaging/quorvel.conf.sample"))
      << "build the target key-files";
  EXPECT_EQ(outputOf(QUORVEL_KEYS " --manual"),
            TestInstallation::read(kSource / "docs/configuration-keys.md"));
}

TEST_F(SampleTest, SampleLoadsAsItStands) {
  ASSERT_EQ(loadText(TestInstallation::read(kSource / "packaging/quorvel.conf.sample")), 0)
      << installation.log();
  EXPECT_EQ(pcDefaultDestination, "*");
  EXPECT_EQ(iDefaultFilteringType, 3);
}

// Every commented-out line is a value that its key takes: uncommenting any of them must not stop the program.
TEST_F(SampleTest, EveryExampleIsAValueItsKeyTakes) {
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

}  // namespace
