#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "app/config/MyConfiguration.h"
#include "app/config/TextFile.h"
#include "tests/support/TestInstallation.h"

namespace {

using namespace std::string_literals;

class SingleKeyTest : public ::testing::Test {
 protected:
  std::optional<std::string> value(const std::string& text, const char* key) {
    std::array<char, kMaxLineLength + 1> out{"before"};
    const std::string path = installation.write("single.conf", text);
    const char* found = myConfiguration.ReadConfVal(path.c_str(), key, out.data());
    if (found == nullptr) return std::nullopt;
    EXPECT_EQ(found, out.data());
    return found;
  }
  // The file after the key was saved.
  std::string saved(const std::string& text, const char* key, const char* value) {
    const std::string path = installation.write("single.conf", text);
    EXPECT_EQ(myConfiguration.saveParamValue(path.c_str(), key, value), 0);
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    return TestInstallation::read(path);
  }
  TestInstallation installation;
};

TEST_F(SingleKeyTest, ReaderGivesTheFirstValueOfTheKey) {
  EXPECT_EQ(value("A=1\n  B  =  2 rest\r\nB=3\n", "B"), "2");
  EXPECT_EQ(value("B=\nB= \r\nB=4", "B"), "4") << "empty values are passed over";
  EXPECT_EQ(value("B C=5\n", "B"), "5") << "the key is the first word before the sign";
  EXPECT_EQ(value("B=a=b\n", "B"), "a=b");
  EXPECT_EQ(value("B=" + std::string(49'990, 'x') + "\n", "B"), std::string(49'990, 'x'));
  for (const char* text : {"", ";B=1\n", " ;B=1\n", "b=1\n", "BB=1\n", "B 1\n", "A=B=1\n", "=1\n", "B=\t\n"})
    EXPECT_EQ(value(text, "B"), std::nullopt) << text;
}

TEST_F(SingleKeyTest, ReaderEndsTheProgramWithoutAFile) {
  std::array<char, 10> out{};
  EXPECT_EXIT(
      (void)myConfiguration.ReadConfVal("/nowhere/quorvel.conf", "B", out.data()),
      ::testing::ExitedWithCode(1),
      "Can not read conf file /nowhere/quorvel.conf. Please verify KESTROVA_BIN is pointing to the right "
      "directory.\n");
}

TEST_F(SingleKeyTest, WriterChangesOneLineAndCopiesTheRest) {
  struct Case {
    const char* what;
    std::string before;
    const char* value;  // null: comment the key out
    std::string after;
  };
  const std::vector<Case> cases = {
      {"replaced", "A=1\n B = 2 x\nC=3\n", "9", "A=1\nB=9\r\nC=3\n"},
      {"only the first of several", "B=1\nB=2\n", "9", "B=9\r\nB=2\n"},
      {"commented-out lines are passed over while the key has a value", ";B=1\nB=2\n", "9", ";B=1\nB=9\r\n"},
      {"commented-out line comes to life", "A=1\n ; ;B=0\r\n;B=2\n", "9", "A=1\nB=9\r\n;B=2\n"},
      {"line without value is filled", "B=\nA=1\n", "9", "B=9\r\nA=1\n"},
      {"appended", "A=1\n", "9", "A=1\nB=9\r\n"},
      {"appended behind an unfinished line", "A=1", "9", "A=1\r\nB=9\r\n"},
      {"written to an empty file", "", "9", "B=9\r\n"},
      {"commented out", "A=1\r\n B=2\r\nB=3", nullptr, "A=1\r\n; B=2\r\nB=3"},
      {"same value", " B  =  9 with a comment\n", "9", " B  =  9 with a comment\n"},
      {"absent as wished", ";B=1\nA=2\n", nullptr, ";B=1\nA=2\n"},
      {"bytes of other lines", "\0A\xff\nB=1\n"s, "9", "\0A\xff\nB=9\r\n"s},
      {"longer than a line", std::string(60'000, 'x') + "\nB=1\n", "9",
       std::string(60'000, 'x') + "\nB=9\r\n"},
  };
  for (const Case& each : cases) EXPECT_EQ(saved(each.before, "B", each.value), each.after) << each.what;
}

TEST_F(SingleKeyTest, WriterKeepsThePermissionsOfTheFile) {
  const std::string path = installation.write("secret.conf", "Secret=old\n");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  installation.write("secret.conf.tmp", "left behind, readable by all");
  EXPECT_EQ(myConfiguration.saveParamValue(path.c_str(), "Secret", "new"), 0);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  EXPECT_EQ(status.st_uid, getuid());
  EXPECT_EQ(TestInstallation::read(path), "Secret=new\r\n");
  // Given to somebody else, it stays theirs.
  if (getuid() != 0) return;
  ASSERT_EQ(chown(path.c_str(), 65534, 65533), 0);
  EXPECT_EQ(myConfiguration.saveParamValue(path.c_str(), "Secret", "third"), 0);
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 65534U);
  EXPECT_EQ(status.st_gid, 65533U);
}

TEST_F(SingleKeyTest, WriterThatCannotWriteLeavesTheFileAndSaysSo) {
  const std::string path = installation.write("single.conf", "B=1\n");
  std::filesystem::create_directory(path + ".tmp");
  EXPECT_EQ(myConfiguration.saveParamValue(path.c_str(), "B", "2"), 2);
  EXPECT_EQ(TestInstallation::read(path), "B=1\n");
}

}  // namespace
