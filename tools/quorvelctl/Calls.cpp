#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>

#include "app/config/Settings.h"
#include "tools/quorvelctl/CallPage.h"

namespace {

constexpr int kCellsPerCall = 17;  // origin, destination, duration, and seven figures for each direction
constexpr int kRefreshesUntilStale = 3;
constexpr double kMaxFigure = 1e6;  // far beyond any loss or MOS

std::vector<std::string> cellsOf(const std::string& page) {
  std::vector<std::string> cells;
  // The rows follow the head of the second table.
  std::size_t at = page.find("</tr></tr>");
  while (at != std::string::npos) {
    at = page.find("<td", at);
    const std::size_t open = at == std::string::npos ? at : page.find('>', at);
    const std::size_t close = open == std::string::npos ? open : page.find("</td>", open);
    if (close == std::string::npos) break;
    cells.push_back(page.substr(open + 1, close - open - 1));
    at = close;
  }
  return cells;
}

sDirectionFigures figuresOf(const std::string* cells) {
  const auto whole = [&](int i) { return std::atoi(cells[i].c_str()); };
  const auto real = [&](int i) {
    const double figure = std::atof(cells[i].c_str());
    return std::isfinite(figure) ? std::clamp(figure, 0.0, kMaxFigure) : 0;
  };
  return {whole(0), whole(1), whole(2), whole(3), real(4), whole(5), real(6)};
}

bool isFresh(const char* path) {
  struct stat information {};
  if (stat(path, &information) != 0) return false;
  return std::time(nullptr) - information.st_mtime <= kRefreshesUntilStale * iRefreshRateOfRealTimeStatistics;
}

// The page is rewritten in place: what has no end yet is read again.
std::optional<std::string> readWholePage(const char* path) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    auto page = readFile(path);
    if (page && page->find("</html>") != std::string::npos) return page;
    constexpr timespec kPause{0, 50'000'000};
    nanosleep(&kPause, nullptr);
  }
  return std::nullopt;
}

std::string plain(std::string text) {
  for (const auto& [entity, character] :
       {std::pair("&lt;", "<"), std::pair("&gt;", ">"), std::pair("&amp;", "&")})
    for (std::size_t at = 0; (at = text.find(entity, at)) != std::string::npos; ++at)
      text.replace(at, std::string_view(entity).size(), character);
  return text;
}

void printDirection(const sDirectionFigures& f) {
  if (!f.hasAudio()) return void(std::puts("    no audio so far"));
  std::printf("    noise %d, gain %d %%, echo %d, jitter %d ms, loss %.2f %%, delay %d ms, MOS %.2f\n",
              f.iNoise, f.iGain, f.iEcho, f.iJitter, f.dLoss, f.iDelay, f.dMos);
}

std::string jsonOf(const sDirectionFigures& f) {
  char text[220];
  std::snprintf(
      text, sizeof text,
      "{\"audio\": %s, \"noise\": %d, \"gain\": %d, \"echo\": %d, \"jitter_ms\": %d, \"loss_percent\": %.2f, "
      "\"delay_ms\": %d, \"mos\": %.2f}",
      f.hasAudio() ? "true" : "false", f.iNoise, f.iGain, f.iEcho, f.iJitter, f.dLoss, f.iDelay, f.dMos);
  return text;
}

void printJson(const std::vector<sShownCall>& calls) {
  std::printf("[");
  for (std::size_t i = 0; i < calls.size(); ++i)
    std::printf(
        "%s\n  {\"origin\": %s, \"destination\": %s, \"seconds\": %d, \"forward\": %s, \"backward\": %s}",
        i == 0 ? "" : ",", jsonText(calls[i].origin).c_str(), jsonText(calls[i].destination).c_str(),
        calls[i].iSeconds, jsonOf(calls[i].figures[0]).c_str(), jsonOf(calls[i].figures[1]).c_str());
  std::puts("]");
}

}  // namespace

std::optional<std::vector<sShownCall>> readCallPage() {
  if (pcRealTimeAverageStatisticsFile.empty() || !isFresh(pcRealTimeAverageStatisticsFile.c_str()))
    return std::nullopt;
  const auto page = readWholePage(pcRealTimeAverageStatisticsFile.c_str());
  if (!page) return std::nullopt;
  // The footer's cells are fewer than a row's, so they make no call.
  const std::vector<std::string> cells = cellsOf(page->substr(0, page->rfind("<br><br><br>")));
  std::vector<sShownCall> calls;
  for (std::size_t i = 0; i + kCellsPerCall <= cells.size(); i += kCellsPerCall)
    calls.push_back({plain(cells[i]),
                     plain(cells[i + 1]),
                     std::atoi(cells[i + 2].c_str()),
                     {figuresOf(&cells[i + 3]), figuresOf(&cells[i + 10])}});
  return calls;
}

int showCalls(const sContext& context) {
  if (!findProcess(context)) return noProcess(context);
  if (!loadConfiguration(context)) return fail("%s", loadFailure(context).c_str());
  takeRecords();
  const auto calls = readCallPage();
  if (!calls)
    return fail(
        "the calls are read from the page of RealTimeAverageStatisticsFile, which %s",
        pcRealTimeAverageStatisticsFile.empty() ? "is not configured" : "is missing or not up to date");
  if (context.bJson) return printJson(*calls), kYes;
  for (const sShownCall& call : *calls) {
    std::printf("%s -> %s, %d s\n", shownText(call.origin).c_str(), shownText(call.destination).c_str(),
                call.iSeconds);
    for (const sDirectionFigures& figures : call.figures) printDirection(figures);
  }
  if (calls->empty()) std::puts("no calls");
  return kYes;
}
