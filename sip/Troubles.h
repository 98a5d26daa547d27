// What goes wrong without a message of ours that would show it, gathered for the log: one record a second at
// most, however many calls it concerns. Main thread only.
#pragma once

#include <cstdint>
#include <optional>

#include "common/FixedText.h"

struct sTroubles {
  int iBusy = 0, iUnavailable = 0;  // new calls refused with 486 and with 503 since the last record
  int iUnanswered = 0;              // calls given up whose INVITE nobody answered, the last of them
  FixedText<166> pcCaller, pcDestination;
  // When missing registrations were told last, in seconds of the steady clock.
  std::optional<std::int64_t> iMissingTold{};
};
