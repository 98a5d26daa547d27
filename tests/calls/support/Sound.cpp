#include "tests/calls/support/Sound.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <sndfile.hh>

#include "tests/calls/support/Process.h"

namespace {

using Samples = std::vector<float>;

Samples asFloat(const Sound& sound) {
  return {sound.samples.begin(), sound.samples.end()};
}

// Every `factor`-th sample after a windowed-sinc low pass at half the new rate.
Samples decimated(const Samples& input, int factor) {
  const int half = 12 * factor;
  std::vector<double> taps;
  for (int n = -half; n <= half; ++n) {
    const double x = std::numbers::pi * n / factor;
    const double sinc = n == 0 ? 1.0 : std::sin(x) / x;
    const double window = 0.5 + 0.5 * std::cos(std::numbers::pi * n / (half + 1));
    taps.push_back(sinc * window / factor);
  }
  Samples output;
  for (int centre = 0; centre < static_cast<int>(input.size()); centre += factor) {
    double sum = 0;
    for (int n = std::max(-half, -centre); n <= half && centre + n < static_cast<int>(input.size()); ++n)
      sum += taps[static_cast<std::size_t>(n + half)] * input[static_cast<std::size_t>(centre + n)];
    output.push_back(static_cast<float>(sum));
  }
  return output;
}

double energy(const float* samples, std::size_t count) {
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) sum += double{samples[i]} * samples[i];
  return sum;
}

// The offset into `in`, within first..last, where it resembles the `count` samples at `piece` most.
struct Best {
  int offset = 0;
  double correlation = -1;
};
Best bestFit(const float* piece, std::size_t count, const Samples& in, int first, int last) {
  Best best;
  const double own = energy(piece, count);
  const int lastPossible = static_cast<int>(in.size()) - static_cast<int>(count);
  for (int offset = std::max(first, 0); offset <= std::min(last, lastPossible); ++offset) {
    const float* other = in.data() + offset;
    float product = 0;
    for (std::size_t i = 0; i < count; ++i) product += piece[i] * other[i];
    const double scale = std::sqrt(own * energy(other, count));
    const double correlation = scale > 0 ? double{product} / scale : 0;
    if (correlation > best.correlation) best = {offset, correlation};
  }
  return best;
}

constexpr int kRate = 8000;
constexpr int kPiece = kRate / 2;
constexpr int kCoarseFactor = 4;                          // the first search runs at 2 kHz
constexpr int kWidestLag = 2 * kRate / kCoarseFactor;     // two seconds either way for the whole
constexpr int kSearch = 60 * kRate / 1000;                // 60 ms either way for a single piece
constexpr double kSpeechEnergy = kPiece * 300.0 * 300.0;  // a piece of 300 units RMS, 40 dB below full scale

// Samples by which the loudest two seconds heard come later than the same in the sound played.
int wholeLag(const Samples& played, const Samples& heard, double beginsWithin) {
  const Samples coarsePlayed = decimated(played, kCoarseFactor);
  const Samples coarseHeard = decimated(heard, kCoarseFactor);
  const std::size_t count = std::min<std::size_t>(2 * kRate / kCoarseFactor, coarseHeard.size());
  std::size_t loudest = 0;
  double most = -1;
  for (std::size_t at = 0; at + count <= coarseHeard.size(); at += count / 4) {
    const double here = energy(coarseHeard.data() + at, count);
    if (here > most) {
      most = here;
      loudest = at;
    }
  }
  const int at = static_cast<int>(loudest);
  const int beginning = static_cast<int>(beginsWithin * kRate / kCoarseFactor);
  const Best best =
      beginning > 0
          ? bestFit(coarseHeard.data() + loudest, count, coarsePlayed, at, at + beginning)
          : bestFit(coarseHeard.data() + loudest, count, coarsePlayed, at - kWidestLag, at + kWidestLag);
  return (at - best.offset) * kCoarseFactor;
}

}  // namespace

Sound readWav(const std::filesystem::path& file) {
  SndfileHandle wav(file.string());
  if (!wav) return {};
  Sound sound{.rate = wav.samplerate(), .samples = {}};
  sound.samples.resize(static_cast<std::size_t>(wav.frames()));
  sound.samples.resize(static_cast<std::size_t>(wav.read(sound.samples.data(), wav.frames())));
  return sound;
}

void writeWav(const std::filesystem::path& file, const Sound& sound) {
  SndfileHandle wav(file.string(), SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1, sound.rate);
  wav.write(sound.samples.data(), static_cast<sf_count_t>(sound.samples.size()));
}

Sound atTelephoneRate(const Sound& sound) {
  if (sound.rate == kRate) return sound;
  Sound result;
  for (const float sample : decimated(asFloat(sound), sound.rate / kRate)) {
    result.samples.push_back(static_cast<std::int16_t>(std::lround(std::clamp(sample, -32768.0F, 32767.0F))));
  }
  return result;
}

Sound spoken(const std::string& text, const std::string& voice, int rate,
             const std::filesystem::path& scratch) {
  const std::filesystem::path raw = scratch / ("spoken-" + voice + "-raw.wav");
  const std::filesystem::path result = scratch / ("spoken-" + voice + ".wav");
  const std::filesystem::path output = scratch / "spoken.output";
  if (!Process::run("espeak-ng", {"-v", voice, "-s", "150", "-w", raw.string(), text}, output)) return {};
  const std::string newRate = std::to_string(rate);
  if (!Process::run("sox",
                    {raw.string(), "-r", newRate, "-c", "1", "-b", "16", result.string(), "gain", "-n", "-6"},
                    output)) {
    return {};
  }
  return readWav(result);
}

std::vector<Match> matches(const Sound& played, const Sound& heard, double beginsWithin) {
  const Samples from = asFloat(atTelephoneRate(played));
  const Samples arrived = asFloat(atTelephoneRate(heard));
  if (from.size() < kPiece || arrived.size() < kPiece) return {};
  int lag = wholeLag(from, arrived, beginsWithin);
  std::vector<Match> result;
  for (int at = 0; at + kPiece <= static_cast<int>(arrived.size()); at += kPiece) {
    const float* piece = arrived.data() + at;
    if (energy(piece, kPiece) < kSpeechEnergy) continue;
    const Best best = bestFit(piece, kPiece, from, at - lag - kSearch, at - lag + kSearch);
    result.push_back({double(at) / kRate, best.correlation, double(at - best.offset) / kRate});
    if (best.correlation > 0.8) lag = at - best.offset;
  }
  return result;
}

double medianCorrelation(const std::vector<Match>& all) {
  if (all.empty()) return 0;
  std::vector<double> values;
  for (const Match& match : all) values.push_back(match.correlation);
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}
