#include <gtest/gtest.h>

#include "app/config/MyConfiguration.h"
#include "tests/support/TestInstallation.h"

namespace {

class RoutingFileTest : public ::testing::Test {
 protected:
  int read(const std::string& text) {
    installation.clearLog();
    return myConfiguration.readSipRoutingFile(installation.write("routes", text).c_str());
  }
  void expectFailure(const std::string& text, const std::string& message) {
    EXPECT_EQ(read(text), 1) << text;
    EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::readSipRoutingFile, " + message), 1)
        << installation.log();
  }
  TestInstallation installation;
};

std::string rows(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += "10.0.0.5::5070::a;\n";
  return text;
}

TEST_F(RoutingFileTest, RowsGiveNextHopAndExpressions) {
  ASSERT_EQ(read("10.0.0.5::5070::2???@10.0.0.1;3???@10.0.0.1;\r\n"
                 "localhost:: 65535x::a b;;unfinished\n"
                 "10.0.0.7::1::"),
            0)
      << installation.log();
  ASSERT_EQ(iNumSipRoutingRecords, 3);
  EXPECT_EQ(psSipRoutingRows[0].pcIP, "10.0.0.5");
  EXPECT_EQ(psSipRoutingRows[0].iPort, 5070);
  ASSERT_EQ(psSipRoutingRows[0].iNumExpressions, 2);
  EXPECT_EQ(psSipRoutingRows[0].pcExpressions[1], "3???@10.0.0.1");
  EXPECT_EQ(psSipRoutingRows[1].pcIP, "127.0.0.1");
  EXPECT_EQ(psSipRoutingRows[1].iPort, 65535);
  ASSERT_EQ(psSipRoutingRows[1].iNumExpressions, 2);
  EXPECT_EQ(psSipRoutingRows[1].pcExpressions[0], "a b");
  EXPECT_EQ(psSipRoutingRows[1].pcExpressions[1], "");
  EXPECT_EQ(psSipRoutingRows[2].iNumExpressions, 0);
}

TEST_F(RoutingFileTest, ExpressionWithoutItsSemicolonIsIgnored) {
  ASSERT_EQ(read("10.0.0.5::5070::2???@10.0.0.1;3???@10.0.0.1"), 0);
  EXPECT_EQ(psSipRoutingRows[0].iNumExpressions, 1);
}

TEST_F(RoutingFileTest, EmptyFileHasNoRows) {
  EXPECT_EQ(read(""), 0);
  EXPECT_EQ(iNumSipRoutingRecords, 0);
}

TEST_F(RoutingFileTest, CountsEndAtTheirLimits) {
  EXPECT_EQ(read(rows(10)), 0);
  EXPECT_EQ(iNumSipRoutingRecords, 10);
  expectFailure(rows(11), "too many lines in sip routing file. Maximum is 10\n");
  expectFailure(rows(10) + "\n", "too many lines in sip routing file. Maximum is 10\n");

  const std::string head = "10.0.0.5::5070::";
  EXPECT_EQ(read(head + "0;1;2;3;4;5;6;7;8;9;\n"), 0);
  expectFailure(head + "0;1;2;3;4;5;6;7;8;9;10;\n", "too many expressions for line 1\n");
  EXPECT_EQ(read(head + std::string(49, 'e') + ";\n"), 0);
  expectFailure(head + std::string(50, 'e') + ";\n", "value of an expression is too large in line 1\n");
}

TEST_F(RoutingFileTest, BadLinesAreNamedAndTheRowsBeforeThemStay) {
  expectFailure(rows(1) + "\n", "unable to read IP for line 2\n");
  EXPECT_EQ(iNumSipRoutingRecords, 1);
  expectFailure("10.0.0.5:5070:a;\n", "unable to read IP for line 1\n");
  EXPECT_EQ(iNumSipRoutingRecords, 0);
  expectFailure(" 1.2.3.4.5::5070::a;\n", "unable to get valid IP for line 1\n");
  expectFailure("10.0.0.5::5070;\n", "unable to read port for line 1\n");
  expectFailure(rows(2) + "10.0.0.5::sip::a;\n", "unable to read valid port for line 3\n");
  expectFailure("10.0.0.5::::a;\n", "unable to read valid port for line 1\n");
  for (const char* port : {"-1", "0", "65536", "99999999999"})
    expectFailure("10.0.0.5::" + std::string(port) + "::a;\n", "unable to read valid port for line 1\n");
}

TEST_F(RoutingFileTest, FileThatCannotBeReadFails) {
  for (const std::filesystem::path& path :
       {installation.bin() / "missing", installation.bin(), std::filesystem::path("/proc/self/pagemap")}) {
    installation.clearLog();
    EXPECT_EQ(myConfiguration.readSipRoutingFile(path.c_str()), 1);
    EXPECT_EQ(installation.logCount(" ERROR in MyConfiguration::readSipRoutingFile, unable to open file\n"),
              1);
  }
}

}  // namespace
