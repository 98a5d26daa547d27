// The local time as ctime gives it, 24 characters and a line feed. Any thread; the conversion is serialised
// with the log's.
#pragma once

#include <array>
#include <ctime>
#include <mutex>

#include "engine/Glob.h"

using TimeText = std::array<char, 26>;  // as many as ctime_r asks for

inline TimeText timeText(std::time_t time) {
  TimeText text{};
  const std::lock_guard<std::mutex> lock(Glob::timeMutex);
  if (ctime_r(&time, text.data()) == nullptr) text = {"time unknown\n"};
  return text;
}
