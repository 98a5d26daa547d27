// quorvelctl beside a running process: what it says of it and what it makes it do.
#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <regex>
#include <set>

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
    const auto status = process.wait(Seconds(30));
    return {status.value_or(-1), process.output()};
  }

  double metric(const std::string& line) {
    std::smatch value;
    const std::string text = control({"metrics"}).text;
    const std::regex pattern("(^|\n)quorvel_" + line + "\\{[^}]*\\} ([-0-9.e+]+)\n");
    return std::regex_search(text, value, pattern) ? std::stod(value[2]) : -1;
  }
};

// A packet of the caller: 20 ms of mu-law noise, so that a direction that is processed has a noise level.
std::string rtpPacket(int sequence, int stamp) {
  std::string packet(12 + 160, '\0');
  const unsigned number = static_cast<unsigned>(sequence), time = static_cast<unsigned>(stamp);
  for (const auto& [at, value] : {std::pair(0, 0x80U), std::pair(2, number >> 8U), std::pair(3, number),
                                  std::pair(5, time >> 16U), std::pair(6, time >> 8U), std::pair(7, time)})
    packet[static_cast<std::size_t>(at)] = static_cast<char>(value);
  static std::minstd_rand random(7);
  for (std::size_t i = 12; i < packet.size(); ++i)
    packet[i] = static_cast<char>(0x50U | (random() >> 8U & 0x8FU));
  return packet;
}

int mediaPortIn(const std::string& sdp) {
  return std::stoi(sdp.substr(sdp.find("m=audio ") + 8));
}

// Name and labels of a sample, and every value it was seen with.
using Seen = std::map<std::string, std::set<std::string>>;

void readInto(Seen& seen, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (const std::size_t end = line.rfind("} "); !line.starts_with('#') && end != std::string::npos)
      seen[line.substr(0, end + 1)].insert(line.substr(end + 2));
}

// Names of metrics in a text; sums and counts are written under their own names.
std::set<std::string> namesIn(const std::string& text) {
  std::set<std::string> names;
  static const std::regex pattern("quorvel_[a-z_]+");
  for (auto it = std::sregex_iterator(text.begin(), text.end(), pattern); it != std::sregex_iterator(); ++it)
    names.insert(it->str());
  return names;
}

TEST_F(ControlTest, EveryMetricMovesAndDashboardAndAlertsKnowNoOther) {
  const Settings settings{{"StatisticsFile", "statistics"},
                          {"RealTimeAverageStatisticsFile", "average.html"},
                          {"RefreshRateOfRealTimeStatistics", "2"},
                          {"DefaultCmd", "*##1"}};
  start(settings);
  Seen seen;
  readInto(seen, control({"metrics"}).text);
  const std::array<LoopbackPeer, 2> media{LoopbackPeer(ports.media(0)), LoopbackPeer(ports.media(1))};
  const Call call = setUp(1);
  const std::array<int, 2> relay{mediaPortIn(call.ok), mediaPortIn(call.invite)};
  int number = 0, stamp = 80000;
  // Half a second of packets each way; spoilt ones have a gap, ten pairs in the wrong order, and time stamps
  // before which time passes.
  const auto talkAndRead = [&](bool isSpoilt) {
    if (isSpoilt) stamp -= 4000, number += 2;
    for (int i = 0; i < 25; ++i, stamp += 160) {
      const int swapped = isSpoilt && i < 20 ? 1 - 2 * (i % 2) : 0;
      for (std::size_t side = 0; side < 2; ++side)
        media[side].sendTo(relay[side], rtpPacket(number + i + swapped, stamp + 160 * swapped));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    number += 25;
    readInto(seen, control({"metrics"}).text);
  };
  const auto running = [&](std::size_t values) {
    const auto found = [&](const auto& entry) {
      return entry.first.starts_with("quorvel_running") && entry.second.size() >= values;
    };
    return std::count_if(seen.begin(), seen.end(), found);
  };
  EXPECT_TRUE(eventually([&] { return talkAndRead(false), running(1) == 5; }, Seconds(10)));
  EXPECT_TRUE(eventually([&] { return talkAndRead(true), running(2) == 5; }, Seconds(15)));
  hangUp(call);
  toQuorvel(caller, inDialog("CANCEL", 1, call.ok, 99));  // of no call: logged as a warning
  quorvel->process().signal(SIGHUP);                      // logged as an error
  ASSERT_TRUE(quorvel->logged(" ERROR in sigIgnoreHandle"));
  ASSERT_TRUE(quorvel->logged(" WARNING in "));
  Settings broken = settings;
  broken["CPUPower"] = "11";
  broken["NumPhonesToAllocate"] = "4";
  quorvel->writeConfiguration(broken);
  readInto(seen, control({"metrics"}).text);
  broken.erase("CPUPower");
  quorvel->writeConfiguration(broken);
  ASSERT_EQ(control({"drain", "5"}).status, 0);
  readInto(seen, control({"metrics"}).text);
  ASSERT_EQ(quorvel->stop(), 0);
  readInto(seen, control({"metrics"}).text);

  std::string written;
  for (const auto& [sample, values] : seen) {
    EXPECT_GT(values.size(), 1U) << sample << " is always " << *values.begin();
    written += sample + " ";
  }
  const std::set<std::string> known = namesIn(written);
  for (const char* file : {"quorvel-dashboard.json", "quorvel.rules.yml"}) {
    const std::set<std::string> used = namesIn(readFile(std::filesystem::path(QUORVEL_MONITORING) / file));
    EXPECT_FALSE(used.empty());
    for (const std::string& name : used) EXPECT_TRUE(known.contains(name)) << file << " asks for " << name;
  }
}

TEST_F(ControlTest, CallsAreSeenTracedDrainedAndStopped) {
  start({{"SipDebug", "1"},
         {"StatisticsFile", "statistics"},
         {"RealTimeAverageStatisticsFile", "average.html"},
         {"RefreshRateOfRealTimeStatistics", "2"}});
  EXPECT_NE(control({"status"}).text.find(", 0 calls up\n"), std::string::npos);
  const double idleThreads = metric("threads");
  hangUp(setUp(1));
  ASSERT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(3)));
  const Call call = setUp(2);

  EXPECT_NE(control({"--json", "status"}).text.find("\"calls\": 1, \"draining\": false}"), std::string::npos);
  EXPECT_TRUE(
      eventually([&] { return control({"calls"}).text.find(" -> ") != std::string::npos; }, Seconds(5)))
      << control({"calls"}).text;
  EXPECT_EQ(metric("up"), 1);
  EXPECT_EQ(metric("active_calls"), 1);
  EXPECT_EQ(metric("threads"), idleThreads + 1);
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

TEST_F(ControlTest, AProcessThatDoesNotAnswerIsGivenUp) {
  start();
  quorvel->process().signal(SIGSTOP);
  const Answer status = control({"status"});
  const Answer stop = control({"stop", "60"});  // far less than a minute, since it does not say what is up
  quorvel->process().signal(SIGCONT);
  EXPECT_EQ(status.status, 1);
  EXPECT_NE(status.text.find("does not answer SIGUSR1"), std::string::npos) << status.text;
  EXPECT_EQ(stop.status, 1);
  EXPECT_NE(stop.text.find("was told to end, but is still there after 10 seconds"), std::string::npos)
      << stop.text;
  EXPECT_EQ(quorvel->process().wait(Seconds(10)), 0) << "the interrupts have waited for it";
}

TEST_F(ControlTest, ExplainKnowsSlotsOfNamesAndLeavesBindingsAlone) {
  start({{"InviteShouldMatchPairPhoneName", "1"},
         {"PairPhonesName", "300;301;302;303;"},
         {"SipProxyArchitecture", "1"}});
  // A phone that has a slot registers through Quorvel.
  const std::string name = "<sip:301@127.0.0.1>";
  toQuorvel(caller, sip_text::build({.method = "REGISTER",
                                     .uri = "sip:127.0.0.1",
                                     .callId = "binding-301",
                                     .viaPort = caller.port(),
                                     .from = name + ";tag=phone",
                                     .to = name,
                                     .contact = "<sip:301@127.0.0.1:" + std::to_string(caller.port()) + ">",
                                     .extraHeaders = "Expires: 60\r\n"}));
  const std::string relayed = expect(callee, "REGISTER ");
  toQuorvel(callee,
            sip_text::respond(relayed, "200 OK", "pbx",
                              "Contact: " + sip_text::header(relayed, "Contact") + ";expires=60\r\n"));
  expect(caller, "SIP/2.0 200 ");
  std::map<std::filesystem::path, std::string> before;
  const std::filesystem::path saved = quorvel->bin() / ("binding" + quorvel->instanceName());
  ASSERT_TRUE(
      eventually([&] { return readFile(saved).find("301@127.0.0.1") != std::string::npos; }, Seconds(5)));
  quorvel->process().signal(SIGSTOP);  // it saves its bindings itself
  for (const auto& entry : std::filesystem::directory_iterator(quorvel->bin()))
    before[entry] = readFile(entry);

  const Answer bound = control({"explain", "100", "301"});
  EXPECT_EQ(bound.status, 0) << bound.text;
  EXPECT_NE(
      bound.text.find("127.0.0.1:" + std::to_string(caller.port()) + ": a phone of that name is registered"),
      std::string::npos)
      << bound.text;
  EXPECT_EQ(control({"explain", "301", "100"}).status, 0);
  const Answer stranger = control({"explain", "100", "302"});
  EXPECT_EQ(stranger.status, 1);
  EXPECT_NE(stranger.text.find("refused with 486 Busy Here"), std::string::npos) << stranger.text;

  std::map<std::filesystem::path, std::string> after;
  for (const auto& entry : std::filesystem::directory_iterator(quorvel->bin()))
    after[entry] = readFile(entry);
  quorvel->process().signal(SIGCONT);
  EXPECT_EQ(before, after);
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
