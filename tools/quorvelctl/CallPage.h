// The page of average figures, read back: the only place where a running process shows each call.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/quorvelctl/Context.h"

struct sDirectionFigures {
  int iNoise = 0, iGain = 0, iEcho = 0, iJitter = 0;
  double dLoss = 0;
  int iDelay = 0;
  double dMos = 0;

  // The gain is that of the audio that came, so without any it is 0; all other figures look like the best
  // then.
  bool hasAudio() const { return iGain > 0; }
};

struct sShownCall {
  std::string origin, destination;
  int iSeconds = 0;
  sDirectionFigures figures[2];  // origin to destination, destination to origin
};

// The calls of the page that RealTimeAverageStatisticsFile names (the configuration must be loaded). Nothing
// when the page is not configured, not there, or older than three of its refreshes.
std::optional<std::vector<sShownCall>> readCallPage();
