#include "bench/MediaSignal.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <span>

#include "rtp/G711.h"
#include "rtp/MyGWB.h"

namespace {

constexpr int kSamplesPerPacket = 320;  // of 16 kHz
constexpr double kSampleRate = 16000;
constexpr int kEarliestShift = -kSamplesPerPacket;
constexpr int kLatestShift = 3 * kSamplesPerPacket;
constexpr double kSameSound = 0.8;  // a codec pair leaves above 0.95 of noise in its band

// Sines at 5 Hz steps from 300 to 3,300 Hz, amplitudes equal, phases random: noise for the ear and for the
// correlation, without power where a conversion to 8 kHz would fold it.
std::vector<std::int16_t> noise() {
  std::vector<double> sum(static_cast<std::size_t>(kPacketsOfSignal) * kSamplesPerPacket);
  std::mt19937 random(1);
  std::uniform_real_distribution<double> anyPhase(0, 2 * std::numbers::pi);
  for (double frequency = 300; frequency <= 3300; frequency += 5) {
    const double phase = anyPhase(random);
    for (std::size_t at = 0; at < sum.size(); ++at)
      sum[at] += std::sin(phase + 2 * std::numbers::pi * frequency * static_cast<double>(at) / kSampleRate);
  }
  std::vector<std::int16_t> samples(sum.size());
  constexpr double kAmplitude = 150;  // of each of the 601 sines: 2,600 effective, well below overload
  std::transform(sum.begin(), sum.end(), samples.begin(),
                 [](double value) { return static_cast<std::int16_t>(std::lround(kAmplitude * value)); });
  return samples;
}

// Decoded received sound: 16 kHz for G.722, else 8 kHz.
std::vector<std::int16_t> decoded(const std::vector<Payload>& payloads, MediaCodec codec) {
  std::vector<std::int16_t> samples;
  sGWBDecode_t state;
  myGWB.decodeInit(&state, 64000);
  for (const Payload& payload : payloads) {
    if (codec == MediaCodec::eG722) {
      std::array<std::int16_t, kSamplesPerPacket> block;
      myGWB.decode(&state, block.data(), payload.data(), kPayloadBytes);
      samples.insert(samples.end(), block.begin(), block.end());
      continue;
    }
    for (const char byte : payload) {
      const auto code = static_cast<unsigned char>(byte);
      samples.push_back(codec == MediaCodec::ePcmu ? ulaw2linear(code) : alaw2linear(code));
    }
  }
  return samples;
}

// Correlation of the received samples, `step` sent ones apart, with the repeating sent ones from `offset`.
double correlation(std::span<const std::int16_t> received, std::span<const std::int16_t> sent, int offset,
                   int step) {
  const int period = static_cast<int>(sent.size());
  double product = 0;
  double receivedPower = 0;
  double sentPower = 0;
  int at = ((offset % period) + period) % period;
  for (const std::int16_t sample : received) {
    const double other = sent[static_cast<std::size_t>(at)];
    product += sample * other;
    receivedPower += static_cast<double>(sample) * sample;
    sentPower += other * other;
    at = at + step < period ? at + step : at + step - period;
  }
  return receivedPower > 0 && sentPower > 0 ? product / std::sqrt(receivedPower * sentPower) : 0;
}

}  // namespace

std::optional<MediaCodec> mediaCodecNamed(std::string_view name) {
  if (name == "PCMU") return MediaCodec::ePcmu;
  if (name == "PCMA") return MediaCodec::ePcma;
  if (name == "G722") return MediaCodec::eG722;
  return std::nullopt;
}

int payloadTypeOf(MediaCodec codec) {
  return codec == MediaCodec::ePcmu ? 0 : codec == MediaCodec::ePcma ? 8 : 9;  // RFC 3551
}

MediaSignal::MediaSignal() : samples(noise()) {}

std::vector<Payload> MediaSignal::encoded(MediaCodec codec) const {
  std::vector<Payload> payloads(kPacketsOfSignal);
  sGWBEncode_t state;
  myGWB.encodeInit(&state, 64000);
  for (std::size_t packet = 0; packet < payloads.size(); ++packet) {
    const std::int16_t* const block = samples.data() + packet * kSamplesPerPacket;
    if (codec == MediaCodec::eG722) {
      myGWB.encode(&state, payloads[packet].data(), block, kSamplesPerPacket);
      continue;
    }
    for (std::size_t byte = 0; byte < payloads[packet].size(); ++byte) {
      const std::int16_t sample = block[2 * byte];
      payloads[packet][byte] =
          static_cast<char>(codec == MediaCodec::ePcmu ? linear2ulaw(sample) : linear2alaw(sample));
    }
  }
  return payloads;
}

std::optional<double> MediaSignal::shiftOf(const std::vector<Payload>& received, MediaCodec codec,
                                           int firstPacket) const {
  const std::vector<std::int16_t> heard = decoded(received, codec);
  const int step = codec == MediaCodec::eG722 ? 1 : 2;
  const int start = firstPacket * kSamplesPerPacket;
  const auto at = [&](int shift) { return correlation(heard, samples, start - shift, step); };
  int best = kEarliestShift;
  double highest = at(best);
  for (int shift = kEarliestShift + 1; shift <= kLatestShift; ++shift) {
    const double value = at(shift);
    if (value <= highest) continue;
    highest = value;
    best = shift;
  }
  if (highest < kSameSound) return std::nullopt;
  // The top of the parabola through the three values around the largest.
  const double before = at(best - 1);
  const double after = at(best + 1);
  const double curvature = before - 2 * highest + after;
  const double fraction = curvature < 0 ? 0.5 * (before - after) / curvature : 0;
  return (best + fraction) * 1000 / kSampleRate;
}
