#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "tests/support/TestInstallation.h"

namespace {

class LogTest : public ::testing::Test {
 protected:
  void TearDown() override { Clock::followSystem(); }
  TestInstallation installation;
};

TEST_F(LogTest, RecordIsDateLineThenLevelWriterAndMessage) {
  Clock::freezeAt(0);
  const std::time_t epoch = 0;
  const std::string date = ctime(&epoch);
  Log::error("MyConfiguration::readParams", "value of %s is not positive\n", "RegisterExpiration");
  Log::warning("MySip::init", "no line feed");
  EXPECT_EQ(installation.log(),
            date + " ERROR in MyConfiguration::readParams, value of RegisterExpiration is not positive\n\n" +
                date + " WARNING in MySip::init, no line feed\n");
}

TEST_F(LogTest, MessageIsCutTo1999Characters) {
  const std::string shorter(1999, 'a');
  const std::string longer(3000, 'b');
  Log::info("f", "%s", shorter.c_str());
  Log::info("f", "%s", longer.c_str());
  EXPECT_EQ(installation.logCount(", " + shorter + "\n"), 1);
  EXPECT_EQ(installation.logCount(", " + std::string(1999, 'b') + "\n"), 1);
}

TEST_F(LogTest, NoLineOfAMessageLooksLikeTheHeadOfARecord) {
  Log::info("f", "a\n INFO in g, b\n WARNING in g\n ERROR in \n INFO  in g\n  INFO in g\n INFORM in g\n ");
  EXPECT_EQ(installation.logCount(" INFO in f, a\n>INFO in g, b\n>WARNING in g\n>ERROR in \n INFO  in g\n  "
                                  "INFO in g\n INFORM in g\n \n"),
            1);
}

TEST_F(LogTest, LogThatCannotBeOpenedLosesTheRecordAndNothingElse) {
  const std::filesystem::path log = installation.root() / "log";
  std::filesystem::remove_all(log);
  Log::error("f", "lost\n");
  std::filesystem::create_directory(log);
  ASSERT_EQ(mkfifo((log / "errLog").c_str(), 0600), 0);
  Log::error("f", "lost, not waited for a reader\n");
  Log::fromSignalHandler(Log::Level::eError, "f", "lost\n");
  std::filesystem::remove(log / "errLog");
  Log::error("f", "kept\n");
  EXPECT_EQ(installation.logCount("lost"), 0);
  EXPECT_EQ(installation.logCount("kept"), 1);
}

TEST_F(LogTest, ThreadsNeverInterleaveTheirRecords) {
  constexpr int kRecords = 200;
  const auto writeAll = [](char letter) {
    const std::string message(500, letter);
    for (int i = 0; i < kRecords; ++i) Log::info("f", "%s\n", message.c_str());
  };
  std::thread first(writeAll, 'x');
  std::thread second(writeAll, 'y');
  first.join();
  second.join();
  EXPECT_EQ(installation.logCount(" INFO in f, " + std::string(500, 'x') + "\n\n"), kRecords);
  EXPECT_EQ(installation.logCount(" INFO in f, " + std::string(500, 'y') + "\n\n"), kRecords);
}

// The handler's date arithmetic against the C library's, over leap days, year ends and both halves of the
// year.
TEST_F(LogTest, SignalHandlerWritesTheSameRecordAsEveryoneElse) {
  for (const std::time_t moment : {0L, 951782399L, 951782400L, 1078012800L, 1709251199L, 1735689599L,
                                   1735689600L, 1751328000L, 1795382400L, 4102444799L}) {
    Clock::freezeAt(moment);
    Log::rememberTimeZone();
    installation.clearLog();
    Log::error("SigSegvHandle", "got signal %d\n", 11);
    const std::string expected = installation.log();
    installation.clearLog();
    Log::fromSignalHandler(Log::Level::eError, "SigSegvHandle", "got signal ", 11, "\n");
    EXPECT_EQ(installation.log(), expected);
  }
}

}  // namespace
