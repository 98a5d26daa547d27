#include "rtp/ProfileWrites.h"

#include <algorithm>
#include <chrono>

void ProfileWrites::begin(std::uint16_t channel, std::string_view path) noexcept {
  const std::lock_guard lock(mutex);
  pcPath[channel].assignCut(path);
}

void ProfileWrites::end(std::uint16_t channel) noexcept {
  if (channel >= pcPath.size()) return;
  const std::lock_guard lock(mutex);
  pcPath[channel].clear();
  written.notify_all();
}

void ProfileWrites::wait(std::string_view path, const Relaxed<bool>& bGiveUp) {
  constexpr std::chrono::milliseconds kLook{20};  // at bGiveUp, which wakes nobody
  std::unique_lock lock(mutex);
  const auto isWritten = [&] {
    return std::any_of(pcPath.begin(), pcPath.end(), [&](const auto& each) { return each == path; });
  };
  while (isWritten() && !bGiveUp) written.wait_for(lock, kLook);
}
