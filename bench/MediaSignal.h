// The sound of the media load: band-limited noise that repeats after some seconds, ready as 20 ms payloads of
// every codec, and the way back: by how much a received stream's sound is shifted against what was sent.
// The phones' own codecs are in that figure, as they are in a call: G.722 alone delays by 22 samples of
// 16 kHz, 1.4 ms.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

inline constexpr int kPayloadBytes = 160;  // 20 ms in all three codecs
inline constexpr int kPacketsOfSignal = 100;

enum class MediaCodec { ePcmu, ePcma, eG722 };

std::optional<MediaCodec> mediaCodecNamed(std::string_view name);  // "PCMU", "PCMA", "G722"
int payloadTypeOf(MediaCodec codec);

using Payload = std::array<char, kPayloadBytes>;

class MediaSignal {
 public:
  MediaSignal();

  // Payloads of the whole signal, to be repeated.
  std::vector<Payload> encoded(MediaCodec codec) const;

  // Milliseconds by which the sound in `received` (payloads in order, the first of them in the place of the
  // sent payload number `firstPacket`) comes later than in what was sent, found by correlation within
  // -20 to +60 ms. Nothing when no shift gives a correlation of at least 0.8.
  std::optional<double> shiftOf(const std::vector<Payload>& received, MediaCodec codec,
                                int firstPacket) const;

 private:
  // 16 kHz, kPacketsOfSignal times 320 samples
  std::vector<std::int16_t> samples;
};
