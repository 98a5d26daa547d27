#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "app/config/Settings.h"
#include "reports/StatisticsGeneration.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"
#include "tests/support/TestInstallation.h"

namespace {

class StatisticsPagesTest : public ::testing::Test {
 protected:
  StatisticsPagesTest() {
    iNumCallsToFilter = 3;
    iCPUPower = 5;
    EXPECT_EQ(myRtp.init(), 0) << installation.log();
    mySip.piActiveRtpIndexes = std::make_unique<int[]>(3);
    mySip.iNumActiveRtpIndexes = 0;
    iRefreshRateOfRealTimeStatistics = 10;
    iThresholdToHighlightNoiseLevel = 3000;
    iThresholdToHighlightEchoLevel = 1000;
    iThresholdToHighlightJitter = 10;
    iThresholdToHighlightDelay = 100;
    iThresholdToHighlightAGCCoef = 300;
    fThresholdToHighlightPacketLoss = 0.1F;
    fThresholdToHighlightMOS = 3.6F;
    EXPECT_TRUE(pcRealTimeAverageStatisticsFile.assign(average()) &&
                pcRealTimeExtremeStatisticsFile.assign(extreme()));
  }
  ~StatisticsPagesTest() override {
    pcRealTimeAverageStatisticsFile.clear();
    pcRealTimeExtremeStatisticsFile.clear();
    mySip.iNumActiveRtpIndexes = 0;
  }

  std::string average() const { return (installation.root() / "average.html").string(); }
  std::string extreme() const { return (installation.root() / "extreme.html").string(); }

  sRtpSessionPair& addCall(int pair, const char* from, const char* to) {
    sRtpSessionPair& call = myRtp.psPairs[static_cast<std::size_t>(pair)];
    call.pcPartyName[0].assignCut(from);
    call.pcPartyName[1].assignCut(to);
    call.iSampleRate = 8000;
    for (int side = 0; side < 2; ++side) {
      call.psCodecs[side][0].eCodec = eCodecPCMU;
      call.iProcessedSamples[side] = 8000 * 65;
    }
    mySip.piActiveRtpIndexes[static_cast<std::size_t>(mySip.iNumActiveRtpIndexes++)] = pair;
    return call;
  }
  // The cells of the page's rows, red ones with an exclamation mark.
  static std::vector<std::string> cells(const std::string& page) {
    std::vector<std::string> found;
    for (std::size_t at = page.find("\n<td"); at != std::string::npos; at = page.find("\n<td", at + 1)) {
      const std::string line = page.substr(at + 4, page.find("</td>", at) - at - 4);
      const std::size_t start = line.find('>');
      if (line.find("</") != std::string::npos || line.find("<div") != std::string::npos) continue;
      found.push_back(line.substr(start + 1) + (start > 0 ? "!" : ""));
    }
    return found;
  }

  TestInstallation installation;
};

TEST_F(StatisticsPagesTest, EmptyPageIsWrittenAsItStands) {
  statisticsGeneration.generateRealTimeStatistics();
  const std::string page = TestInstallation::read(extreme());
  const std::string title = "Real Time Extreme Statistics On Active Channels";
  EXPECT_TRUE(
      page.starts_with("<html> <head>  <title>" + title +
                       "</title>\n<META HTTP-EQUIV=\"REFRESH\" CONTENT=\"11\"><LINK REL=\"SHORTCUT ICON\" "
                       "HREF=\"Win2000_16.ico\">\n<style type=\"text/css\">\n<!--\n.style2 {font-family: "));
  const std::string columns =
      "<th>\tNoise Level </th>\n<th>\tMax AGC Coef </th>\n<th>\tEcho Level</th>\n<th>\tJitter (ms)\t</th>\n"
      "<th>\tPacket Loss (%)\t</th>\n<th>\tMin Delay (ms)\t</th>\n<th>\tMOS Score\t</th>\n";
  EXPECT_NE(
      page.find(
          "<span class=\"style15\">" + title +
          "</span></div></td>\n<tr> <td> <div align=\"left\"><p class=\"style2\"><span class=\"style4\"><B>\n"
          "<center>Total Number Of Active Channels: 0</center>\n</div> </td> </tr> </table>  <br>\n"
          "<table width=\"800\" border=1 cellspacing=1 cellpadding=1>\n"
          "<tr> <p class=\"style2\"> <th colspan=3>\tGeneral \t</th>\n"
          "<th colspan=14>\tQuality (Extreme)\t</th></tr>\n"
          "<tr><p class=\"style2\"><span class=\"style4\"><th colspan=1 rowspan=2>\tOrigin \t</th>\n"
          "<th colspan=1 rowspan=2>\tDestination\t</th>\n<th colspan=1 rowspan=2>\tDuration\t</th>\n"
          "<th Colspan=7>\tOrigin -> Destination\t</th>\n<th Colspan=7>\tDestination -> Origin\t</th> </tr>\n"
          " <tr> <p class=\"style2\">\n" +
          columns + columns + "</tr></tr>\n</table> <br><br><br><br><br> \n"),
      std::string::npos)
      << page;
  EXPECT_TRUE(page.ends_with("</table></center> </font> </body> </html>\n"));
  EXPECT_NE(TestInstallation::read(average()).find("<th>\tAGC Coef </th>\n"), std::string::npos);
}

TEST_F(StatisticsPagesTest, FiguresAreAveragedOrExtremeAndRedFromTheirThresholdOn) {
  sRtpSessionPair& call = addCall(1, "100@h", "<script>&200@h");
  const int frames = 8000 * 65 / 32;
  call.iPacketsReceived[0] = 1000;
  call.iPacketsLost[0] = 1;  // 0.10 %: exactly the threshold
  call.dNoiseSum[0] = 2999.0 * frames;
  call.iMaxNoise[0] = 3000;
  call.dAgcSum[0] = 100.0 * frames;
  call.iMaxAgc[0] = 299;
  call.dEchoSum[0] = 10.0 * frames;
  call.iMaxEcho[0] = 1000;
  call.iJitterSum[0] = 9 * 8 * 1000;
  call.iMaxJitter[0] = 10 * 8;
  call.iDelaySum[0] = 99 * 1000;
  call.iMaxDelay[0] = 100;
  statisticsGeneration.generateRealTimeStatistics();
  const std::vector<std::string> other{"0", "0", "0", "0", "0.00", "0", "4.41"};
  std::vector<std::string> expected{
      "100@h", "&lt;script&gt;&amp;200@h", "65", "2999", "100", "10", "9", "0.10!", "99", "4.40"};
  expected.insert(expected.end(), other.begin(), other.end());
  EXPECT_EQ(cells(TestInstallation::read(average())), expected);
  expected = {"100@h", "&lt;script&gt;&amp;200@h", "65", "3000!", "299", "1000!", "10!", "0.10!", "100!",
              "4.40"};
  expected.insert(expected.end(), other.begin(), other.end());
  EXPECT_EQ(cells(TestInstallation::read(extreme())), expected);

  fThresholdToHighlightMOS = 5.0F - 0.59F;  // exactly the score of a side without impairment
  statisticsGeneration.generateRealTimeStatistics();
  EXPECT_EQ(cells(TestInstallation::read(extreme())).back(), "4.41!");
}

TEST_F(StatisticsPagesTest, PageThatCannotBeOpenedIsTriedAgain) {
  ASSERT_TRUE(pcRealTimeAverageStatisticsFile.assign("/nowhere/average.html"));
  statisticsGeneration.generateRealTimeStatistics();
  EXPECT_EQ(installation.logCount(
                "WARNING in StatisticsGeneration::generateRealTimeStatistics, Unable to open file. "
                "Retry later. /nowhere/average.html\n"),
            1);
  EXPECT_EQ(TestInstallation::read(extreme()), "");
  pcRealTimeAverageStatisticsFile.clear();
  ASSERT_TRUE(pcRealTimeExtremeStatisticsFile.assign("/nowhere/extreme.html"));
  statisticsGeneration.generateRealTimeStatistics();
  EXPECT_EQ(
      installation.logCount("ERROR in StatisticsGeneration::generateRealTimeStatistics, Unable to open file "
                            "/nowhere/extreme.html\n"),
      1);
  ASSERT_TRUE(pcRealTimeExtremeStatisticsFile.assign("/dev/full"));
  statisticsGeneration.generateRealTimeStatistics();
  EXPECT_EQ(installation.logCount("Unable to write to file /dev/full\n"), 1);
}

}  // namespace
