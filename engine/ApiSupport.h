// What the files behind Kestrova.h share: the scratch blocks, the channel lookup and the guard that keeps
// exceptions inside the engine.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/MyChannel.h"

namespace api {

inline constexpr int kSuccess = 0;
inline constexpr int kBadChannelOrProcessing = 1;
inline constexpr int kInitFailure = 2;

// One frame of zeros, kMaxFrameBytes long; null before KestrovaPackageInit.
const std::uint8_t* pbApiZeroes();
// A block of kMaxFrameBytes for output that nobody wants. Each channel has its own, since channels run on
// different threads.
std::uint8_t* pbApiTmpOutput(std::uint16_t uChannel);

constexpr bool isChannel(std::uint16_t uChannel) {
  return uChannel <= KESTROVA_MAX_CHANNEL;
}

inline MyChannel& noiseChannel(std::uint16_t uChannel) {
  return KestrovapMyChannels[uChannel];
}
inline MyChannel& micEntry(std::uint16_t uChannel) {
  return KestrovapMyAECChannels[uChannel];
}
inline MyChannel& spkEntry(std::uint16_t uChannel) {
  return KestrovapMyAECChannels[static_cast<std::size_t>(uChannel) + kNoiseChannels];
}

// Runs one call of the interface; whatever it throws becomes iFailure.
template <typename Body>
int guarded(int iFailure, Body body) noexcept {
  try {
    return body();
  } catch (...) {
    return iFailure;
  }
}

}  // namespace api
