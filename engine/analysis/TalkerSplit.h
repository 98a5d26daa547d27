// Are the patterns of one registration of one talker?
#pragma once

#include <span>

#include "engine/analysis/LearnedVoice.h"

// What was heard, split into the two groups that differ most.
struct sTalkerSplit {
  // How well each group knows the other: the mean score of one's sounds against clusters made of the other's,
  // the worse of the two. Large when too little was heard to split it.
  float fLikeness = 100;
  // The periods, split into two groups likewise: logarithm of the ratio of their means, and that in standard
  // deviations within the groups.
  float fPitchGap = 0;
  float fPitchContrast = 0;
  std::size_t uPatterns = 0;  // that were split
};
[[nodiscard]] sTalkerSplit splitTalkers(std::span<const sVoicePattern> patterns);
// Whether they are of two talkers. Says so only when it is plain.
[[nodiscard]] bool areTwoTalkers(const sTalkerSplit& split);
