#include "tools/quorvelctl/MetricsTotals.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tools/quorvelctl/LogFile.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTroubles = " WARNING in MySip::reportTroubles, ";
constexpr std::string_view kAllThere = " INFO in MySip::reportTroubles, all registrations with ";
// Enough of what stands before a place in a file to tell the file from every other: some records with their
// times. A name or an inode would not do, since both may be used again for the next file.
constexpr std::uint64_t kTailBytes = 256;
constexpr double kMaxOffset = 1e15;  // exact in a double

// What figures of a line can be at most; a caller's name could look like one.
constexpr double kMostSeconds = 1e7;
constexpr double kMostMos = 5;
constexpr double kMostPercent = 100;
constexpr double kMostPairs = 1000;

// FNV-1a.
std::uint32_t hashOf(std::string_view text) {
  std::uint32_t hash = 2166136261U;
  for (const char character : text) hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
  return hash;
}

double tailBefore(const std::string& path, std::uint64_t offset) {
  const std::uint64_t length = std::min(offset, kTailBytes);
  return hashOf(readFileFrom(path, offset - length, length));
}

// The number behind a mark such as "Avg MOS (".
double numberBehind(std::string_view line, std::string_view mark, double most) {
  const std::size_t at = line.find(mark);
  if (at == std::string_view::npos) return 0;
  const double number = std::strtod(std::string(line.substr(at + mark.size(), 20)).c_str(), nullptr);
  return std::isfinite(number) ? std::clamp(number, 0.0, most) : 0;
}

// "A B", from what stands behind `before`: both names, and the figures or the end of the line.
std::string partiesIn(std::string_view line, std::string_view before, std::string_view between) {
  line.remove_prefix(std::min(line.find(before), line.size()));
  line.remove_prefix(std::min(before.size(), line.size()));
  line = line.substr(0, line.find(":  Confident Voice ("));
  const std::size_t middle = line.find(between);
  if (middle == std::string_view::npos) return "";
  return std::string(line.substr(0, middle)) + ' ' + std::string(line.substr(middle + between.size()));
}

}  // namespace

MetricsTotals::MetricsTotals(const std::string& path) : stateFile(path) {
  if (path.empty()) return;
  const std::string text = readFile(path).value_or("");
  for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = text.substr(at, end - at);
    const std::size_t blank = line.rfind(' ');
    if (blank == std::string::npos) continue;
    const double number = std::strtod(line.c_str() + blank, nullptr);
    if (std::isfinite(number) && number >= 0) numbers[line.substr(0, blank)] = number;
  }
}

double MetricsTotals::of(const std::string& name) const {
  const auto found = numbers.find(name);
  return found == numbers.end() ? 0 : found->second;
}

std::string MetricsTotals::asText() const {
  std::string text;
  for (const auto& [name, number] : numbers) {
    char value[40];
    std::snprintf(value, sizeof value, " %.17g\n", number);
    text += name + value;
  }
  return text;
}

// ---- Where to go on ----

// Of files that follow one another, newest last: where the last run stopped. When that file is gone, the
// beginning of the first that was written to since; of the newest in any case.
MetricsTotals::sPlace MetricsTotals::placeToGoOn(const std::string& kind,
                                                 const std::vector<std::string>& paths) const {
  if (!numbers.contains(kind + "_offset")) return {};
  const auto offset = static_cast<std::uint64_t>(std::min(of(kind + "_offset"), kMaxOffset));
  for (std::size_t i = paths.size(); i-- > 0;)
    if (sizeOfFile(paths[i]) >= offset && tailBefore(paths[i], offset) == of(kind + "_tail"))
      return {i, offset};
  std::error_code error;
  const auto before = fs::last_write_time(stateFile, error);
  std::size_t first = paths.size() - 1;
  while (first > 0 && fs::last_write_time(paths[first - 1], error) >= before) --first;
  return {first, 0};
}

void MetricsTotals::readNew(const std::string& kind, const std::vector<std::string>& paths,
                            void (MetricsTotals::*addLine)(std::string_view line)) {
  const sPlace place = placeToGoOn(kind, paths);
  std::uint64_t end = 0;
  for (std::size_t i = place.iFile; i < paths.size(); ++i)
    end = forEachLine(paths[i], i == place.iFile ? place.iOffset : 0,
                      [&](std::string_view line) { (this->*addLine)(line); });
  if (std::error_code error; !fs::exists(paths.back(), error)) return;  // rotated, and nothing written since
  numbers[kind + "_offset"] = static_cast<double>(end);
  numbers[kind + "_tail"] = tailBefore(paths.back(), end);
}

// ---- The log ----

void MetricsTotals::readLog(const sContext& context) {
  readNew("log", logPaths(context), &MetricsTotals::addLogLine);
}

// Heads of records stand in no message (Log.h), so nobody else can write one.
void MetricsTotals::addLogLine(std::string_view line) {
  if (line.starts_with(" WARNING in ")) ++numbers["log_warning"];
  if (line.starts_with(" ERROR in ")) ++numbers["log_error"];
  if (line == kDrainRecord) numbers["draining"] = 1;
  if (line.starts_with(kStartRecord)) numbers["draining"] = 0;
  if (line.starts_with(kStartRecord) || line.starts_with(kAllThere)) numbers["missing"] = 0;
  if (line.starts_with(kTroubles)) addTrouble(std::string(line.substr(kTroubles.size())));
}

void MetricsTotals::addTrouble(const std::string& trouble) {
  int first = 0, second = 0;
  if (std::sscanf(trouble.c_str(), "new calls refused: %9d with 486, %9d with 503", &first, &second) == 2) {
    numbers["refused_486"] += std::max(first, 0);
    numbers["refused_503"] += std::max(second, 0);
  } else if (std::sscanf(trouble.c_str(),
                         "calls given up after 60 seconds without any answer to the INVITE: %9d",
                         &first) == 1) {
    numbers["unanswered"] += std::max(first, 0);
  } else if (std::sscanf(trouble.c_str(), "%9d of %9d registrations", &first, &second) == 2) {
    numbers["missing"] = std::max(first, 0);
  }
}

// ---- The statistics file ----

// Its predecessor is compressed when it is rotated away: what was written to it since the last run is lost.
void MetricsTotals::readStatistics(const std::string& path) {
  readNew("statistics", {path}, &MetricsTotals::addStatisticsLine);
  countSilence("");
}

void MetricsTotals::addStatisticsLine(std::string_view line) {
  if (!line.starts_with(' ')) time = line;
  const auto pair = static_cast<int>(numberBehind(line, " session (", kMostPairs));
  const std::string open = "open_" + std::to_string(pair);
  if (line.starts_with(" Open session (")) {
    ++numbers["opened"];
    numbers[open] = 1;
    countSilence(time + partiesIn(line, "): ", "<->"));
  }
  // Media that cannot be opened is closed, and tried again, every second.
  if (!line.starts_with(" Closed session (") || numbers.erase(open) == 0) return;
  countSilence("");
  silence.timeAndParties = time + partiesIn(line, "seconds). ", "->");
  ++numbers["closed"];
  numbers["seconds"] += numberBehind(line, ") (", kMostSeconds);
  const std::size_t second = std::min(line.find(" CallID ("), line.size());
  addDirection("_forward", line.substr(0, second));
  addDirection("_backward", line.substr(second));
}

// The gain is that of the audio that came, so without any it is 0; all other figures look like the best then.
void MetricsTotals::addDirection(const std::string& direction, std::string_view figures) {
  if (numberBehind(figures, "Max AGC (", kMostPercent) == 0) {
    silence.directions.push_back(direction);
    return;
  }
  ++numbers["with_audio" + direction];
  numbers["mos" + direction] += numberBehind(figures, "Avg MOS (", kMostMos);
  numbers["loss" + direction] += numberBehind(figures, "Packet Loss (", kMostPercent) / 100;
}

// When media changes during a call, at its answer for instance, one session is closed and the next is opened
// at once: its silence is none of the call's.
void MetricsTotals::countSilence(const std::string& opened) {
  if (opened.empty() || opened != silence.timeAndParties)
    for (const std::string& direction : silence.directions) ++numbers["without_audio" + direction];
  silence = {};
}
