#include "reports/StatisticsGeneration.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "common/Handle.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "StatisticsGeneration::generateRealTimeStatistics";
// What stands around the table, and as many rows as there can be calls: two names, of 165 characters that may
// each become five, and 15 figures of at most 40 characters with their cells.
constexpr std::size_t kMaxPageBytes = 8'192 + kMostCalls * (2 * 5 * 165 + 15 * 40 + 200);
constexpr const char* kAverageTitle = "Real Time Average Statistics On Active Channels";
constexpr const char* kExtremeTitle = "Real Time Extreme Statistics On Active Channels";

constexpr char kStyle[] =
    "<LINK REL=\"SHORTCUT ICON\" HREF=\"Win2000_16.ico\">\n<style type=\"text/css\">\n<!--\n"
    ".style2 {font-family: Verdana, Arial, Helvetica, sans-serif; font-size: 12px; line-height: 17px; color: "
    "#21496B; }\n"
    ".style4 {color: #830101}\n"
    ".style12 { font-size: 9px; font-family: Verdana, Arial, Helvetica, sans-serif; color: #FFFFFF;}\n"
    ".style13 {font-family: Verdana, Arial, Helvetica, sans-serif;font-size: 9px;color: #214D6B;}\n"
    ".style15 {font-size: 11px;font-family: Verdana, Arial, Helvetica, sans-serif;color: #FFFFFF;}\n"
    "-->\n</style>\n"
    "<body  link=blue vlink=blue alink=blue leftmargin=\"0\" topmargin=\"0\" marginwidth=\"0\" "
    "marginheight=\"0\">\n"
    "<FONT SIZE = 2 FACE=Georgia ></FONT> <center>\n<table width=\"900\" border=0 > \n";

constexpr char kTableHead[] =
    "<tr><p class=\"style2\"><span class=\"style4\"><th colspan=1 rowspan=2>\tOrigin \t</th>\n"
    "<th colspan=1 rowspan=2>\tDestination\t</th>\n<th colspan=1 rowspan=2>\tDuration\t</th>\n"
    "<th Colspan=7>\tOrigin -> Destination\t</th>\n<th Colspan=7>\tDestination -> Origin\t</th> </tr>\n"
    " <tr> <p class=\"style2\">\n";

constexpr char kTail[] =
    "</table> <br><br><br><br><br> \n"
    "<table width=\"900\" border=0 >\n"
    "<tr><td><div align=\"center\"><span class=\"style13\">Figures are measured by Quorvel on the media it "
    "relays; a "
    "figure on red has crossed its configured threshold.</span></div></td></tr>\n"
    "<tr><td bgcolor=\"#214D6B\"><div align=\"center\"><span class=\"style12\">Kestrova "
    "Quorvel</span></div></td></tr>\n"
    "</table></center> </font> </body> </html>\n";

// What the two pages differ in.
struct sPage {
  const char* pcQuality;
  const char* pcAgcTitle;
  const char* pcRowStart;
  bool bExtreme;
};
constexpr sPage kAverage{"<th colspan=14>\tQuality (Average)\t</th></tr>\n", "<th>\tAGC Coef </th>\n",
                         "<tr><p class=\"style2\"><span class=\"style4\">\n", false};
constexpr sPage kExtreme{"<th colspan=14>\tQuality (Extreme)\t</th></tr>\n", "<th>\tMax AGC Coef </th>\n",
                         "<tr>\n", true};

void writeColumnTitles(std::FILE* file, const sPage& page) {
  std::fputs("<th>\tNoise Level </th>\n", file);
  std::fputs(page.pcAgcTitle, file);
  std::fputs(
      "<th>\tEcho Level</th>\n<th>\tJitter (ms)\t</th>\n<th>\tPacket Loss (%)\t</th>\n"
      "<th>\tMin Delay (ms)\t</th>\n<th>\tMOS Score\t</th>\n",
      file);
}

void writeCell(std::FILE* file, int value, int threshold) {
  std::fprintf(file, value >= threshold ? "<td bgcolor = red>%d</td>\n" : "<td>%d</td>\n", value);
}

void writeCell(std::FILE* file, float value, bool highlighted) {
  std::fprintf(file, highlighted ? "<td bgcolor = red>%.2f</td>\n" : "<td>%.2f</td>\n",
               static_cast<double>(value));
}

// Names come from the network: what a browser would take as markup is written as text.
void writeName(std::FILE* file, std::string_view name) {
  std::fputs("<td>", file);
  for (const char character : name) {
    switch (character) {
      case '<':
        std::fputs("&lt;", file);
        break;
      case '>':
        std::fputs("&gt;", file);
        break;
      case '&':
        std::fputs("&amp;", file);
        break;
      default:
        std::fputc(character, file);
    }
  }
  std::fputs("</td>\n", file);
}

void writeFigures(std::FILE* file, const sCallFigures& figures, bool extreme) {
  writeCell(file, extreme ? figures.iMaxNoise : figures.iAvgNoise, iThresholdToHighlightNoiseLevel);
  writeCell(file, extreme ? figures.iMaxAgc : figures.iAvgAgc, iThresholdToHighlightAGCCoef);
  writeCell(file, extreme ? figures.iMaxEcho : figures.iAvgEcho, iThresholdToHighlightEchoLevel);
  writeCell(file, extreme ? figures.iMaxJitterMs : figures.iAvgJitterMs, iThresholdToHighlightJitter);
  writeCell(file, figures.fPacketLossPercent, figures.fPacketLossPercent >= fThresholdToHighlightPacketLoss);
  writeCell(file, extreme ? figures.iMaxDelayMs : figures.iAvgDelayMs, iThresholdToHighlightDelay);
  const float mos = extreme ? figures.fMinMos : figures.fAvgMos;
  writeCell(file, mos, mos <= fThresholdToHighlightMOS);
}

void writeRow(std::FILE* file, int pair, const sPage& page) {
  std::fputs(page.pcRowStart, file);
  myRtp.calcMOS(pair);
  const sRtpSessionPair& record = myRtp.psPairs[static_cast<std::size_t>(pair)];
  writeName(file, record.pcPartyName[0]);
  writeName(file, record.pcPartyName[1]);
  std::fprintf(file, "<td>%d</td>\n", myRtp.callSeconds(pair));
  for (int side = 0; side < 2; ++side) writeFigures(file, myRtp.figuresOf(side, pair), page.bExtreme);
  std::fputs("</tr>\n", file);
}

void writeBody(std::FILE* file, const sPage& page) {
  std::fprintf(file,
               "<tr> <td> <div align=\"left\"><p class=\"style2\"><span class=\"style4\"><B>\n"
               "<center>Total Number Of Active Channels: %d</center>\n</div> </td> </tr> </table>  <br>\n"
               "<table width=\"800\" border=1 cellspacing=1 cellpadding=1>\n"
               "<tr> <p class=\"style2\"> <th colspan=3>\tGeneral \t</th>\n",
               mySip.iNumActiveRtpIndexes);
  std::fputs(page.pcQuality, file);
  std::fputs(kTableHead, file);
  for (int direction = 0; direction < 2; ++direction) writeColumnTitles(file, page);
  std::fputs("</tr></tr>\n", file);
  for (int row = 0; row < mySip.iNumActiveRtpIndexes; ++row) {
    writeRow(file, mySip.piActiveRtpIndexes[static_cast<std::size_t>(row)], page);
  }
  std::fputs(kTail, file);
}

}  // namespace

void StatisticsGeneration::generateRealTimeStatistics() {
  const char* const average = pcRealTimeAverageStatisticsFile.c_str();
  const char* const extreme = pcRealTimeExtremeStatisticsFile.c_str();
  if (*average != '\0' &&
      !writePage(average, kAverageTitle, &StatisticsGeneration::writeRealTimeAverageBody)) {
    Log::warning(kFunction, "Unable to open file. Retry later. %s\n", average);
    return;
  }
  if (*extreme != '\0' &&
      !writePage(extreme, kExtremeTitle, &StatisticsGeneration::writeRealTimeExtremeBody)) {
    Log::error(kFunction, "Unable to open file %s\n", extreme);
  }
}

// The page is made in memory and goes to the file in one piece, so that a browser hardly ever loads half of
// it or none.
bool StatisticsGeneration::writePage(const char* path, const char* title,
                                     void (StatisticsGeneration::*writeBody)(std::FILE*)) {
  static std::array<char, kMaxPageBytes> page;  // main thread only
  std::size_t length = 0;
  try {
    const File memory(fmemopen(page.data(), page.size(), "w"));
    if (!memory) return false;
    writeHTMLHeader(memory.get(), iRefreshRateOfRealTimeStatistics, title);
    (this->*writeBody)(memory.get());
    length = std::min(static_cast<std::size_t>(std::max(std::ftell(memory.get()), 0L)), page.size());
  } catch (...) {
    Log::error(kFunction, "exception caught");
    return true;
  }
  const File file = openFile(path, "w");
  if (!file) return false;
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  if (std::fwrite(page.data(), 1, length, file.get()) != length)
    Log::warning(kFunction, "Unable to write to file %s\n", path);
  return true;
}

void StatisticsGeneration::writeHTMLHeader(std::FILE* file, int refreshSeconds, const char* title) {
  std::fprintf(file, "<html> <head>  <title>%s</title>\n", title);
  if (refreshSeconds > 0)
    std::fprintf(file, "<META HTTP-EQUIV=\"REFRESH\" CONTENT=\"%d\">", refreshSeconds + 1);
  std::fputs(kStyle, file);
  std::fprintf(
      file,
      "<td height=\"30\" colspan=\"5\" bgcolor=\"#214D6B\"><div align=\"center\"><span class=\"style15\">%s"
      "</span></div></td>\n",
      title);
}

void StatisticsGeneration::writeRealTimeAverageBody(std::FILE* file) {
  writeBody(file, kAverage);
}

void StatisticsGeneration::writeRealTimeExtremeBody(std::FILE* file) {
  writeBody(file, kExtreme);
}
