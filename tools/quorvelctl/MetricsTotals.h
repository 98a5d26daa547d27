// What the log and the statistics file tell, added up. With a state file each run reads only what has been
// written since the one before, and what was added up outlives the files, which are rotated away.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/quorvelctl/Context.h"

class MetricsTotals {
 public:
  // Goes on from what the state file holds. Without a name, without the file, or where it is none of ours,
  // all is read from its beginning.
  explicit MetricsTotals(const std::string& stateFile);

  void readLog(const sContext& context);
  void readStatistics(const std::string& path);

  // A total by its name, 0 when there was nothing to count: log_warning, log_error, refused_486, refused_503,
  // unanswered, draining (0 or 1), missing (registrations as last told); opened, closed, seconds; of each
  // direction, with_audio_forward and so on: with_audio, without_audio, mos, loss (a ratio).
  double of(const std::string& name) const;
  // The text of a state file.
  std::string asText() const;

 private:
  struct sPlace {
    std::size_t iFile = 0;
    std::uint64_t iOffset = 0;
  };
  sPlace placeToGoOn(const std::string& kind, const std::vector<std::string>& paths) const;
  void readNew(const std::string& kind, const std::vector<std::string>& paths,
               void (MetricsTotals::*addLine)(std::string_view line));
  void addLogLine(std::string_view line);
  void addTrouble(const std::string& trouble);
  void addStatisticsLine(std::string_view line);
  void addDirection(const std::string& direction, std::string_view figures);
  void countSilence(const std::string& opened);

  std::string stateFile;
  std::map<std::string, double> numbers;
  std::string time;  // of the statistics line that follows
  // Of the session that was closed last: when, between whom, and which directions had no audio.
  struct {
    std::string timeAndParties{};
    std::vector<std::string> directions{};
  } silence;
};
