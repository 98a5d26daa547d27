// The live pages as a browser shows them while calls are up.
#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

namespace {

// Loads the page in a frame and writes, each time it has loaded, what is seen of it: title, seconds since it
// was loaded before, headline, table heads, and the rows, red cells marked. Time runs as fast as the browser
// can.
constexpr const char* kLook =
    R"look(<html><body><pre id="seen"></pre><iframe id="page" src="@PAGE@"></iframe><script>
const page = document.getElementById("page");
let before = 0;
page.onload = () => {
  const shown = page.contentDocument;
  const text = (element) => element.textContent.trim();
  const all = (parent, name) => [...parent.querySelectorAll(name)];
  const cell = (td) => text(td) + (getComputedStyle(td).backgroundColor == "rgb(255, 0, 0)" ? "!" : "");
  const rows = all(shown, "tr").filter((tr) => tr.querySelectorAll("td").length == 17);
  const seconds = Math.round((performance.now() - before) / 1000);
  before = performance.now();
  const line = [shown.title, seconds, all(shown, "center").map(text)[1], all(shown, "th").map(text).join(","),
                ...rows.map((tr) => all(tr, "td").map(cell).join(","))];
  document.getElementById("seen").textContent += "loaded" + ": " + line.join(" | ") + "\n";
};
</script></body></html>
)look";

class PagesTest : public TalkFixture {
 protected:
  void SetUp() override { needs({"chromium"}); }
  // The different lines that were seen of a copy of the page, the first loading left out. The page itself is
  // rewritten in place, so that a busy machine may show half of it.
  std::vector<std::string> seen(const std::string& page) const {
    std::string copy;
    const auto isWhole = [&] {
      copy = readFile(scratch.path() / page);
      return copy.find("</html>") != std::string::npos;
    };
    EXPECT_TRUE(eventually(isWhole, Seconds(5)));
    writeFile(scratch.path() / ("copy-" + page), copy);
    std::string look = kLook;
    look.replace(look.find("@PAGE@"), 6, "copy-" + page);
    writeFile(scratch.path() / "look.html", look);
    const std::filesystem::path output = scratch.path() / (page + ".dom");
    EXPECT_TRUE(
        Process::run("chromium",
                     {"--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-sync",
                      "--disable-background-networking", "--disable-component-update",
                      "--allow-file-access-from-files", "--virtual-time-budget=45000", "--dump-dom",
                      "--user-data-dir=" + (scratch.path() / "browser").string(),
                      "file://" + (scratch.path() / "look.html").string()},
                     output, Seconds(40)));
    std::istringstream lines(readFile(output));
    std::vector<std::string> result;
    int loads = 0;
    for (std::string line; std::getline(lines, line);) {
      const std::size_t at = line.find("loaded: ");
      if (at == std::string::npos || ++loads == 1) continue;
      if (const std::string text = line.substr(at + 8); result.empty() || result.back() != text)
        result.push_back(text);
    }
    EXPECT_GT(loads, 10);
    return result;
  }
  // 50 packets of the caller's audio, the 21st missing.
  static void sendAudio(int relayPort) {
    const LoopbackPeer from;
    for (int sequence = 1; sequence <= 51; ++sequence) {
      if (sequence == 21) continue;
      const auto stamp = static_cast<std::uint32_t>(sequence * 160);  // sent all at once, none comes late
      from.sendTo(relayPort,
                  RtpPeer::packet(static_cast<std::uint16_t>(sequence), stamp, 0, std::string(160, '\xFF')));
    }
  }
};

TEST_F(PagesTest, BrowserShowsEveryCallItsFiguresAndWhatIsWrongInRed) {
  start({{"RealTimeAverageStatisticsFile", "../average.html"},
         {"RealTimeExtremeStatisticsFile", "../extreme.html"},
         {"RefreshRateOfRealTimeStatistics", "2"},
         {"ThresholdToHighlightAGCCoef", "101"},
         {"ThresholdToHighlightMOS", "4.3"}});
  const Call first = setUp(1);
  const Call second = setUp(2);
  sendAudio(ports.relay());
  const auto page = [&](const char* name) { return readFile(scratch.path() / name); };
  ASSERT_TRUE(eventually(
      [&] {
        return occurrences(page("average.html"), "100@127.0.0.1") == 2 &&
               page("average.html").find(">2.00<") != std::string::npos &&
               page("extreme.html").find(">2.00<") != std::string::npos;
      },
      Seconds(8)))
      << page("average.html");

  const auto heads = [&](const std::string& quality, const std::string& agc) {
    const std::string side =
        "Noise Level," + agc + ",Echo Level,Jitter (ms),Packet Loss (%),Min Delay (ms),MOS Score";
    return "General," + quality +
           ",Origin,Destination,Duration,Origin -&gt; Destination,Destination -&gt; Origin," + side + "," +
           side;
  };
  const std::string rows =
      " | 100@127.0.0.1,200@127.0.0.1,1,0,100,0,0,2.00!,0,4.21!,0,0,0,0,0.00,0,4.41"
      " | 100@127.0.0.1,200@127.0.0.1,0,0,0,0,0,0.00,0,4.41,0,0,0,0,0.00,0,4.41";
  const std::string common = " | 3 | Total Number Of Active Channels: 2 | ";
  EXPECT_EQ(seen("average.html"), std::vector{"Real Time Average Statistics On Active Channels" + common +
                                              heads("Quality (Average)", "AGC Coef") + rows});
  EXPECT_EQ(seen("extreme.html"), std::vector{"Real Time Extreme Statistics On Active Channels" + common +
                                              heads("Quality (Extreme)", "Max AGC Coef") + rows});
  hangUp(first);
  hangUp(second);
}

}  // namespace
