// The two live HTML pages: averages since the start of each call, and extremes. Each has one row per call,
// with origin, destination, duration and seven figures per direction; a figure beyond its threshold stands on
// red. A page is rewritten in place and asks the browser to load it again. Main thread only; the figures
// belong to media threads and are read as they stand, so one row may combine slightly different moments.
#pragma once

#include <cstdio>

class StatisticsGeneration {
 public:
  // Writes the pages that the settings name. A page that cannot be opened is logged and tried again next
  // time; without the average page the extreme page is not written either.
  void generateRealTimeStatistics();

  // The three parts of a page. refreshSeconds: 0 for a page that does not reload.
  void writeHTMLHeader(std::FILE* file, int refreshSeconds, const char* title);
  void writeRealTimeAverageBody(std::FILE* file);
  void writeRealTimeExtremeBody(std::FILE* file);

 private:
  // False when the file cannot be opened.
  [[nodiscard]] bool writePage(const char* path, const char* title,
                               void (StatisticsGeneration::*writeBody)(std::FILE*));
};

inline StatisticsGeneration statisticsGeneration;
