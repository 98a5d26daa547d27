// Voice profiles that are being written while another call may ask for them: the caller's next one. By engine
// channel, since only one that learns a voice writes any.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "common/FixedText.h"
#include "common/Relaxed.h"
#include "engine/Kestrova.h"

class ProfileWrites {
 public:
  // Any thread.
  void begin(std::uint16_t channel, std::string_view path) noexcept;
  // Also when nothing had begun.
  void end(std::uint16_t channel) noexcept;
  // Waits while the path is being written, until bGiveUp is set at the latest.
  void wait(std::string_view path, const Relaxed<bool>& bGiveUp);

 private:
  std::mutex mutex;
  std::condition_variable written;
  std::array<FixedText<300>, KESTROVA_MAX_CHANNEL + 1> pcPath;  // empty: none
};
