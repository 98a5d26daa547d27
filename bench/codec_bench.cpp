// Speed of the codecs beside libavcodec and spandsp, 20 ms blocks of recorded speech, in one run. The closing
// table gives each partner's best time as a multiple of Quorvel's best time for the same job.
#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <map>
#include <span>
#include <string>
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}
#include <spandsp.h>

#include "rtp/G711.h"
#include "rtp/MyGWB.h"
#include "tests/codec/ReferenceCodecs.h"
#include "tests/codec/Speech.h"

namespace {

constexpr std::size_t kBlockCodes = 160;  // 20 ms
constexpr std::size_t kBlockSamples = 2 * kBlockCodes;
constexpr std::size_t kSpeechSamples = 16000 * 60;  // a minute

const Samples& speechSamples() {
  static const Samples samples = recordedSpeech(kSpeechSamples);
  return samples;
}

const Codes& speechCodes() {
  static const Codes codes = [] {
    Codes encoded;
    SpandspEncoder(64000).encode(speechSamples(), encoded);
    return encoded;
  }();
  return codes;
}

// Runs a job over the speech block by block, beginning again at its end.
template <class Value, class Job>
void overBlocks(benchmark::State& state, const std::vector<Value>& speech, std::size_t block, Job job) {
  if (speech.size() < block) {
    state.SkipWithError("asterisk-core-sounds-en-g722 is not installed");
    return;
  }
  std::size_t at = 0;
  for ([[maybe_unused]] auto unused : state) {
    job(std::span(speech).subspan(at, block));
    at = at + 2 * block <= speech.size() ? at + block : 0;
  }
}

void g722EncodeQuorvel(benchmark::State& state) {
  sGWBEncode_t encoder;
  myGWB.encodeInit(&encoder, 64000);
  std::array<char, kBlockCodes> out;
  overBlocks(state, speechSamples(), kBlockSamples, [&](std::span<const std::int16_t> in) {
    myGWB.encode(&encoder, out.data(), in.data(), static_cast<int>(in.size()));
    benchmark::DoNotOptimize(out);
  });
}

void g722DecodeQuorvel(benchmark::State& state) {
  sGWBDecode_t decoder;
  myGWB.decodeInit(&decoder, 64000);
  std::array<short, kBlockSamples> out;
  overBlocks(state, speechCodes(), kBlockCodes, [&](std::span<const std::uint8_t> in) {
    myGWB.decode(&decoder, out.data(), reinterpret_cast<const char*>(in.data()), static_cast<int>(in.size()));
    benchmark::DoNotOptimize(out);
  });
}

template <class Encoder, int... Arguments>
void g722EncodePartner(benchmark::State& state) {
  Encoder encoder(Arguments...);
  Codes out;
  out.reserve(2 * kBlockCodes);
  overBlocks(state, speechSamples(), kBlockSamples, [&](std::span<const std::int16_t> in) {
    out.clear();
    encoder.encode(in, out);
    benchmark::DoNotOptimize(out.data());
  });
}

template <class Decoder, int... Arguments>
void g722DecodePartner(benchmark::State& state) {
  Decoder decoder(Arguments...);
  Samples out;
  out.reserve(2 * kBlockSamples);
  overBlocks(state, speechCodes(), kBlockCodes, [&](std::span<const std::uint8_t> in) {
    out.clear();
    decoder.decode(in, out);
    benchmark::DoNotOptimize(out.data());
  });
}

// The tables as the packet path has them, one code for eight neighbouring samples.
struct sG711Tables {
  std::array<std::uint8_t, 8192> pucFromLinear;
  std::array<std::int16_t, 256> psToLinear;
};

const sG711Tables& muLawTables() {
  static const sG711Tables tables = [] {
    sG711Tables made;
    for (int sample = -32768; sample <= 32767; ++sample)
      made.pucFromLinear[static_cast<std::uint16_t>(sample) >> 3] = linear2ulaw(static_cast<short>(sample));
    for (std::size_t code = 0; code < 256; ++code)
      made.psToLinear[code] = ulaw2linear(static_cast<unsigned char>(code));
    return made;
  }();
  return tables;
}

void g711EncodeQuorvel(benchmark::State& state) {
  const sG711Tables& tables = muLawTables();
  std::array<std::uint8_t, kBlockCodes> out;
  overBlocks(state, speechSamples(), kBlockCodes, [&](std::span<const std::int16_t> in) {
    std::ranges::transform(in, out.begin(), [&](std::int16_t sample) {
      return tables.pucFromLinear[static_cast<std::uint16_t>(sample) >> 3];
    });
    benchmark::DoNotOptimize(out);
  });
}

void g711DecodeQuorvel(benchmark::State& state) {
  const sG711Tables& tables = muLawTables();
  std::array<std::int16_t, kBlockCodes> out;
  overBlocks(state, speechCodes(), kBlockCodes, [&](std::span<const std::uint8_t> in) {
    std::ranges::transform(in, out.begin(), [&](std::uint8_t code) { return tables.psToLinear[code]; });
    benchmark::DoNotOptimize(out);
  });
}

void g711EncodeSpandsp(benchmark::State& state) {
  g711_state_t* codec = g711_init(nullptr, G711_ULAW);
  std::array<std::uint8_t, kBlockCodes> out;
  overBlocks(state, speechSamples(), kBlockCodes, [&](std::span<const std::int16_t> in) {
    g711_encode(codec, out.data(), in.data(), static_cast<int>(in.size()));
    benchmark::DoNotOptimize(out);
  });
  g711_free(codec);
}

void g711DecodeSpandsp(benchmark::State& state) {
  g711_state_t* codec = g711_init(nullptr, G711_ULAW);
  std::array<std::int16_t, kBlockCodes> out;
  overBlocks(state, speechCodes(), kBlockCodes, [&](std::span<const std::uint8_t> in) {
    g711_decode(codec, out.data(), in.data(), static_cast<int>(in.size()));
    benchmark::DoNotOptimize(out);
  });
  g711_free(codec);
}

BENCHMARK(g722EncodeQuorvel)->Name("g722-encode/quorvel");
BENCHMARK(g722EncodePartner<AvcodecEncoder>)->Name("g722-encode/libavcodec");
BENCHMARK(g722EncodePartner<SpandspEncoder, 64000>)->Name("g722-encode/spandsp");
BENCHMARK(g722DecodeQuorvel)->Name("g722-decode/quorvel");
BENCHMARK(g722DecodePartner<AvcodecDecoder>)->Name("g722-decode/libavcodec");
BENCHMARK(g722DecodePartner<SpandspDecoder, 64000>)->Name("g722-decode/spandsp");
BENCHMARK(g711EncodeQuorvel)->Name("ulaw-encode/quorvel");
BENCHMARK(g711EncodeSpandsp)->Name("ulaw-encode/spandsp");
BENCHMARK(g711DecodeQuorvel)->Name("ulaw-decode/quorvel");
BENCHMARK(g711DecodeSpandsp)->Name("ulaw-decode/spandsp");

// Keeps the best time of every job and partner.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string& name = run.run_name.function_name;
      const std::size_t slash = name.find('/');
      double& best = times[name.substr(0, slash)][name.substr(slash + 1)];
      const double time = run.GetAdjustedCPUTime();
      best = best == 0 ? time : std::min(best, time);
    }
  }

  void printRatios() const {
    for (const auto& [job, partners] : times) {
      const auto own = partners.find("quorvel");
      if (own == partners.end()) continue;
      std::printf("%-12s quorvel %8.0f ns", job.c_str(), own->second);
      for (const auto& [partner, time] : partners)
        if (partner != "quorvel")
          std::printf(", %s %8.0f ns (%.2f x)", partner.c_str(), time, time / own->second);
      std::printf("\n");
    }
  }

 private:
  std::map<std::string, std::map<std::string, double>> times;  // job, partner: ns of CPU
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
}
