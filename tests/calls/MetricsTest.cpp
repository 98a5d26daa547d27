// What Prometheus is told of an instance, and that dashboard and alerts go by it.
#include <array>
#include <csignal>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "tests/calls/support/ControlFixture.h"
#include "tests/calls/support/RtpPeer.h"

namespace {

namespace fs = std::filesystem;

class MetricsTest : public ControlFixture {
 protected:
  fs::path logFile() const { return quorvel->bin() / "../log" / ("errLog" + quorvel->instanceName()); }
  void logRecord(const std::string& record) const {
    static int second = 0;
    std::ofstream(logFile(), std::ios::app)
        << "Mon Nov 23 12:00:" << 10 + ++second << " 2026\n " << record << "\n\n";
  }
  void logTrouble(const std::string& trouble) const {
    logRecord("WARNING in MySip::reportTroubles, " + trouble);
  }
  void rotateLog() const {
    const fs::path old = logFile().parent_path() / "old";
    fs::create_directories(old);
    fs::rename(logFile(), old / (logFile().filename().string() + ".1"));
  }
};

// 20 ms of mu-law noise, so that a direction that is processed has a noise level.
std::string rtpPacket(int sequence, int stamp) {
  static std::minstd_rand random(7);
  std::string noise(160, '\0');
  for (char& code : noise) code = static_cast<char>(0x50U | (random() >> 8U & 0x8FU));
  return RtpPeer::packet(static_cast<std::uint16_t>(sequence), static_cast<std::uint32_t>(stamp), 0, noise);
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

TEST_F(MetricsTest, EveryMetricMovesAndDashboardAndAlertsKnowNoOther) {
  const Settings settings{{"StatisticsFile", "statistics"},
                          {"RealTimeAverageStatisticsFile", "average.html"},
                          {"RefreshRateOfRealTimeStatistics", "2"},
                          {"DefaultCmd", "*##1"}};
  start(settings);
  Seen seen;
  readInto(seen, control({"metrics"}).text);
  const std::array<LoopbackPeer, 2> media{LoopbackPeer(ports.media(0)), LoopbackPeer(ports.media(1))};
  const Call call = setUp(1);
  const std::array<int, 2> relay{RtpPeer::portIn(call.ok), RtpPeer::portIn(call.invite)};
  int number = 0, stamp = 80000;
  std::string latest;
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
    readInto(seen, latest = control({"metrics"}).text);
  };
  const auto running = [&](std::size_t values) {
    const auto found = [&](const auto& entry) {
      return entry.first.starts_with("quorvel_running_calls_worst") && entry.second.size() >= values;
    };
    return std::count_if(seen.begin(), seen.end(), found);
  };
  EXPECT_TRUE(eventually([&] { return talkAndRead(false), running(1) == 5; }, Seconds(10)));
  EXPECT_TRUE(eventually([&] { return talkAndRead(true), running(2) == 5; }, Seconds(15)));
  writeFile(scratch.path() / "latest.prom", latest);
  const Call silent = setUp(2);
  EXPECT_TRUE(eventually(
      [&] {
        readInto(seen, latest = control({"metrics"}).text);
        return metricIn(latest, "running_calls_without_audio") == 1;
      },
      Seconds(10)));
  EXPECT_GT(metricIn(latest, "running_calls_worst_jitter_seconds"), 0) << "of the other call";
  hangUp(silent);
  hangUp(call);
  logTrouble("new calls refused: 3 with 486, 1 with 503");
  logTrouble("calls given up after 60 seconds without any answer to the INVITE: 2, the last from a to b");
  logTrouble("2 of 5 registrations with 127.0.0.1:5060 are missing, the first is 200@127.0.0.1");
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
  const fs::path link = scratch.path() / "full", textfile = scratch.path() / "quorvel.prom";
  fs::create_symlink("/dev/full", link);
  EXPECT_EQ(control({"metrics", link}).status, 1);
  EXPECT_TRUE(fs::is_character_file(link)) << "a device is written, not replaced";
  EXPECT_EQ(control({"metrics", textfile}).status, 0);
  const std::string figures = readFile(textfile);
  EXPECT_EQ(figures, control({"metrics"}).text);
  for (const char* each : {"calls_with_audio_total", "calls_without_audio_total"})
    EXPECT_EQ(metricIn(figures, each), 1) << each;
  const double mos = metricIn(figures, "call_mos_total");
  EXPECT_TRUE(mos > 1 && mos < 4.5) << mos << ": a call without audio counts as a good one";

  std::string written;
  for (const auto& [sample, values] : seen) {
    EXPECT_GT(values.size(), 1U) << sample << " is always " << *values.begin();
    written += sample + " ";
  }
  const std::set<std::string> known = namesIn(written);
  for (const char* file : {"quorvel-dashboard.json", "quorvel.rules.yml"}) {
    const std::set<std::string> used = namesIn(readFile(fs::path(QUORVEL_MONITORING) / file));
    EXPECT_FALSE(used.empty());
    for (const std::string& name : used) EXPECT_TRUE(known.contains(name)) << file << " asks for " << name;
  }
  if (Process::find("promtool").empty()) return;
  EXPECT_EQ(namesIn(readFile(scratch.path() / "latest.prom")), known) << "not all are looked at";
  EXPECT_TRUE(Process::run("sh",
                           {"-c", "promtool check metrics < " + (scratch.path() / "latest.prom").string()},
                           scratch.path() / "lint"))
      << readFile(scratch.path() / "lint");
}

TEST_F(MetricsTest, EveryAlertIsTried) {
  const std::string tests = readFile(QUORVEL_ALERT_TESTS);
  const std::string rules = readFile(fs::path(QUORVEL_MONITORING) / "quorvel.rules.yml");
  static const std::regex pattern("alert: (\\w+)");
  for (auto it = std::sregex_iterator(rules.begin(), rules.end(), pattern); it != std::sregex_iterator();
       ++it)
    EXPECT_NE(tests.find("\"" + (*it)[1].str() + "\""), std::string::npos) << (*it)[1];
}

// With a file of figures, beside which the state is kept.
TEST_F(MetricsTest, TotalsOutliveTheFilesTheyWereReadFrom) {
  start({{"StatisticsFile", "statistics"}});
  const fs::path textfile = scratch.path() / "quorvel.prom", statistics = quorvel->bin() / "statistics";
  std::string figures;
  const auto read = [&] {
    EXPECT_EQ(control({"metrics", textfile}).status, 0);
    figures = readFile(textfile);
  };
  const auto refused = [&] { return read(), metricIn(figures, "calls_refused_total"); };
  const auto refuse = [&](const std::string& calls) {
    logTrouble("new calls refused: " + calls + " with 486, 0 with 503");
  };
  // Then its pair is in use by a call whose media cannot be opened.
  const auto closeCall = [&](int session) {
    std::ofstream(statistics, std::ios::app) << " Open session (" << session << "): a<->b\n";
    read();
    for (int second = 7; second >= 0; second -= 7)
      std::ofstream(statistics, std::ios::app)
          << " Closed session (" << session << ") (" << second << " seconds).\n";
  };
  refuse("3");
  logRecord("INFO in sigUsr2Handle, Got shutdown request");
  logTrouble("2 of 5 registrations with 127.0.0.1:5060 are missing, the first is 200@127.0.0.1");
  logRecord("INFO in x, " + std::string(400, 'x'));
  closeCall(1);
  EXPECT_EQ(refused(), 3);
  EXPECT_EQ(metricIn(figures, "registrations_missing"), 2);
  EXPECT_EQ(metricIn(figures, "calls_closed_total"), 1);
  writeFile(logFile(), sip_text::replaced(readFile(logFile()), "refused: 3", "refused: 9"));
  EXPECT_EQ(refused(), 3) << "what was read is read again";

  refuse("2");
  rotateLog();
  refuse("1");
  fs::remove(statistics);
  closeCall(2);
  EXPECT_EQ(refused(), 6) << "rotated";
  EXPECT_EQ(metricIn(figures, "calls_closed_total"), 2);
  EXPECT_EQ(metricIn(figures, "calls_without_audio_total"), 2);
  // Early media, in which the caller says nothing, and the call that goes on from it; another's; dialled
  // again.
  const std::string early =
      "12:00:00\n Open session (3): a<->b\n"
      "12:00:01\n Closed session (3) (0 seconds). a->b:  Confident Voice (0%) Max AGC (0) CallID (x). b->a: ";
  for (const auto& [opened, silent] : {std::pair("12:00:01\n Open session (2): a<->b\n", 2),
                                       {"12:00:01\n Open session (3): a<->c\n", 3},
                                       {"12:00:02\n Open session (3): a<->b\n", 4}}) {
    std::ofstream(statistics, std::ios::app) << early << "Max AGC (100) CallID (y)\n" << opened;
    read();
    EXPECT_EQ(metricIn(figures, "calls_without_audio_total"), silent) << opened;
  }
  for (int rotation = 0; rotation < 3; ++rotation) {
    rotateLog();
    EXPECT_EQ(refused(), 6) << "nothing written since";
    refuse("0");
    EXPECT_EQ(refused(), 6);
  }
  EXPECT_EQ(metricIn(figures, "draining"), 1);
  EXPECT_EQ(metricIn(figures, "registrations_missing"), 2);
  for (int rotation = 0; rotation < 2; ++rotation) {
    refuse("1");
    rotateLog();
  }
  refuse("1");
  EXPECT_EQ(refused(), 8) << "the first of two rotations is out of reach";
  fs::resize_file(logFile(), 0);
  refuse("1");
  EXPECT_EQ(refused(), 9) << "truncated";
  fs::remove(logFile());
  refuse("1");
  EXPECT_EQ(refused(), 10) << "deleted";
  fs::rename(logFile().parent_path(), scratch.path() / "hidden");
  EXPECT_EQ(refused(), 10);
  for (const char* each : {"draining", "registrations_missing"})
    EXPECT_EQ(metricIn(figures, each), -1) << each << " is told without a log";
  fs::rename(scratch.path() / "hidden", logFile().parent_path());
  std::ofstream(logFile(), std::ios::app) << " WARNING in MySip::reportTroubles, new calls ref";
  EXPECT_EQ(refused(), 10);
  std::ofstream(logFile(), std::ios::app) << "used: 1 with 486, 0 with 503\n";
  EXPECT_EQ(refused(), 11) << "a line in two pieces";

  logRecord("INFO in MySip::reportTroubles, all registrations with 127.0.0.1:5060 are there again");
  read();
  EXPECT_EQ(metricIn(figures, "registrations_missing"), 0);
  logTrouble("1 of 5 registrations with 127.0.0.1:5060 are missing, the first is 201@127.0.0.1");
  read();
  EXPECT_EQ(metricIn(figures, "registrations_missing"), 1);
  logRecord("INFO in quorvel_main, Loading Quorvel version 1.6.56");
  EXPECT_EQ(refused(), 11) << "the process was started again";
  EXPECT_EQ(metricIn(figures, "draining"), 0);
  EXPECT_EQ(metricIn(figures, "registrations_missing"), 0);
  writeFile(textfile.string() + ".state", "statistics_offset 1e300\nlog_offset nan\nlog_tail -7\n\n17\n");
  EXPECT_EQ(refused(), metric("calls_refused_total")) << "a state that is none";
}

}  // namespace
