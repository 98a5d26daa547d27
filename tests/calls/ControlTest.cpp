// quorvelctl beside a running process: what it says of it and what it makes it do.
#include <cstdlib>
#include <regex>

#include "tests/calls/support/TalkFixture.h"

namespace {

class ControlTest : public TalkFixture {
 protected:
  struct Answer {
    int status = -1;
    std::string text;
  };

  Answer control(std::vector<std::string> words) {
    words.insert(words.begin(), {"-i", quorvel->instanceName(), "-c", quorvel->configuration().string()});
    std::filesystem::remove(scratch.path() / "quorvelctl.out");  // output is appended
    Process process(QUORVELCTL, words, scratch.path() / "quorvelctl.out",
                    {{"KESTROVA_BIN", quorvel->bin().string() + "/"}});
    const auto status = process.wait(Seconds(20));
    return {status.value_or(-1), process.output()};
  }

  double metric(const std::string& line) {
    std::smatch value;
    const std::string text = control({"metrics"}).text;
    const std::regex pattern("(^|\n)quorvel_" + line + "\\{[^}]*\\} ([-0-9.e+]+)\n");
    return std::regex_search(text, value, pattern) ? std::stod(value[2]) : -1;
  }
};

TEST_F(ControlTest, CallsAreSeenTracedDrainedAndStopped) {
  start({{"SipDebug", "1"},
         {"StatisticsFile", "statistics"},
         {"RealTimeAverageStatisticsFile", "average.html"},
         {"RefreshRateOfRealTimeStatistics", "2"}});
  EXPECT_NE(control({"status"}).text.find(", 0 calls up\n"), std::string::npos);
  hangUp(setUp(1));
  ASSERT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(3)));
  const Call call = setUp(2);

  EXPECT_NE(control({"--json", "status"}).text.find("\"calls\": 1, \"draining\": false}"), std::string::npos);
  EXPECT_TRUE(
      eventually([&] { return control({"calls"}).text.find(" -> ") != std::string::npos; }, Seconds(5)))
      << control({"calls"}).text;
  EXPECT_EQ(metric("up"), 1);
  EXPECT_EQ(metric("active_calls"), 1);
  EXPECT_EQ(metric("threads"), 2);
  EXPECT_EQ(metric("calls_opened_total"), 2);
  EXPECT_EQ(metric("calls_closed_total"), 1);
  EXPECT_GT(metric("running_calls_worst_mos"), 4);
  EXPECT_GT(metric("resident_memory_bytes"), 1e6);
  const std::regex mos("quorvel_call_mos_sum\\{[^}]*direction=\"backward\"\\} 4\\.");
  EXPECT_TRUE(std::regex_search(control({"metrics"}).text, mos));

  // Both legs, in the order of the log, and no other call.
  const std::string trace = control({"trace", sip_text::header(call.ok, "Call-ID")}).text;
  const std::string other = sip_text::header(call.invite, "Call-ID");
  EXPECT_LT(trace.find("INVITE sip:"), trace.find(other));
  EXPECT_NE(trace.find("<- 127.0.0.1:" + std::to_string(ports.pbx()) + "\nSIP/2.0 200 OK"),
            std::string::npos);
  EXPECT_EQ(trace.find("BYE sip:"), std::string::npos);
  EXPECT_EQ(control({"trace", "no-such-call"}).status, 1);

  EXPECT_EQ(control({"drain", "1"}).status, 1) << "a call is still up";
  EXPECT_NE(control({"status"}).text.find("draining"), std::string::npos);
  toQuorvel(caller, invite(3));
  EXPECT_TRUE(expect(caller, "SIP/2.0 503").starts_with("SIP/2.0 503"));
  hangUp(call);
  EXPECT_EQ(control({"stop", "5"}).status, 0);
  EXPECT_EQ(quorvel->process().wait(Seconds(1)), 0);
  EXPECT_EQ(control({"status"}).status, 1);
  EXPECT_EQ(metric("up"), 0);
}

TEST_F(ControlTest, ConfigurationsAreCheckedExplainedAndReloaded) {
  start({{"CmdBasedOnDestination", "2??@127.0.0.1=301@127.0.0.1##1"},
         {"DOSExpressions", "66?@127.0.0.1"},
         {"SipRoutingFile", ""}});
  EXPECT_EQ(control({"check"}).status, 0) << control({"check"}).text;
  const std::string explained = control({"explain", "100", "200"}).text;
  EXPECT_NE(explained.find("CmdBasedOnDestination, rule 1 (2??@127.0.0.1)"), std::string::npos) << explained;
  EXPECT_NE(explained.find("301@127.0.0.1\n"), std::string::npos);
  EXPECT_NE(explained.find("(type 1)"), std::string::npos);
  EXPECT_NE(explained.find("127.0.0.1:" + std::to_string(ports.pbx())), std::string::npos);
  EXPECT_NE(control({"explain", "100", "200", "7@127.0.0.1##2##Al"}).text.find("display name"),
            std::string::npos);
  EXPECT_NE(control({"explain", "661", "200"}).text.find("503"), std::string::npos);

  EXPECT_EQ(control({"reload"}).status, 0);
  EXPECT_TRUE(quorvel->logged("Going to reload configuration file"));
  quorvel->writeConfiguration(
      {{"SipDebug", "2"}, {"CPUPower", "11"}, {"DTMFActivatePrefix", "123"}, {"NoSuchKey", "1"}});
  const Answer bad = control({"check"});
  EXPECT_EQ(bad.status, 1);
  for (const char* expected : {"SipDebug: value of SipDebug is not 0 or 1",
                               "value of CPUPower is not between 0 to 10", "warning: NoSuchKey"})
    EXPECT_NE(bad.text.find(expected), std::string::npos) << bad.text;
  EXPECT_EQ(control({"reload"}).status, 1);
  EXPECT_EQ(quorvel->logCount("Going to reload configuration file"), 1);

  quorvel->writeConfiguration({{"DTMFActivatePrefix", "12"},
                               {"DTMFDisable", "3124"},
                               {"NumCallsToFilter", "4"},
                               {"SipUAPort", std::to_string(ports.media(0))},
                               {"RtpUAPortInitVal", std::to_string(ports.media(0))}});
  const std::string warned = control({"check", quorvel->configuration().string()}).text;
  for (const char* expected :
       {"DTMFActivatePrefix: is part of DTMFDisable", "SipUAPort: lies among the RTP ports",
        "SipUAPort: is shared with", "NumCallsToFilter: the voice engine has room for 3 calls"})
    EXPECT_NE(warned.find(expected), std::string::npos) << warned;
}

}  // namespace
