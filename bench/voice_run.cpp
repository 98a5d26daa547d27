// voice_run SYSTEM [kestrova-wav's options]: runs one noise suppressor or gain control on WAV files.
//
// Standard input has a line per file, "IN.wav<tab>OUT.wav". Every file gets a fresh channel. For each a line
// of JSON tells the CPU time per second of audio; --facts instead tells memory and initialisation time.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iostream>
#include <malloc.h>
#include <string>

#include "bench/VoicePeers.h"
#include "tools/kestrova-wav-files.h"
#include "tools/kestrova-wav-options.h"

namespace {

double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

std::size_t allocatedBytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// A whole file in place; the CPU time it took in seconds. The end is filled up to a whole frame.
double processAll(VoicePeer& peer, std::vector<std::int16_t>& samples) {
  const std::size_t uFrame = peer.frameSamples();
  const std::size_t uLength = samples.size();
  samples.resize((uLength + uFrame - 1) / uFrame * uFrame);
  const double dStart = cpuSeconds();
  for (std::size_t i = 0; i < samples.size(); i += uFrame)
    peer.process(std::span(samples).subspan(i, uFrame));
  const double dTook = cpuSeconds() - dStart;
  samples.resize(uLength);
  return dTook;
}

void processFile(const std::string& sSystem, const sKestrovaInit& init, const std::string& sLine) {
  const std::size_t uTab = sLine.find('\t');
  if (uTab == std::string::npos) throw std::runtime_error("no tab in: " + sLine);
  Wav wav = readWav(sLine.substr(0, uTab));
  const double dSeconds = static_cast<double>(wav.samples.size()) / wav.iRate;
  const auto peer = makePeer(sSystem, wav.iRate, init);
  const double dTook = processAll(*peer, wav.samples);
  writeWav(sLine.substr(uTab + 1), wav);
  std::printf("{\"cpu_ms_per_s\":%.4f}\n", 1000 * dTook / dSeconds);
  std::fflush(stdout);
}

// What a channel takes, and how long its start holds the caller: the first one and the slowest of many
// restarts.
void printFacts(const std::string& sSystem, const sKestrovaInit& init) {
  constexpr int kRestarts = 200;
  for (const int iRate : {8000, 16000}) {
    const std::size_t uBefore = allocatedBytes();
    const double dStart = cpuSeconds();
    auto peer = makePeer(sSystem, iRate, init);
    const double dFirst = cpuSeconds() - dStart;
    const std::size_t uTaken = allocatedBytes() - uBefore;
    std::vector<double> pdRestart;
    for (int i = 0; i < kRestarts; ++i) {
      const double dAgain = cpuSeconds();
      peer.reset();
      peer = makePeer(sSystem, iRate, init);
      pdRestart.push_back(cpuSeconds() - dAgain);
    }
    std::sort(pdRestart.begin(), pdRestart.end());
    std::printf("{\"rate\":%d,\"bytes\":%zu,\"init_us\":%.1f,\"restart_us\":%.1f,\"restart_p99_us\":%.1f}\n",
                iRate, uTaken, 1e6 * dFirst, 1e6 * pdRestart[kRestarts / 2],
                1e6 * pdRestart[kRestarts * 99 / 100]);
  }
}

int run(const std::string& sSystem, bool bFacts, const Options& options) {
  const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, options.iCPUPower};
  if (KestrovaPackageInit(&package) != 0) throw std::runtime_error("the engine does not start");
  if (bFacts) {
    printFacts(sSystem, options.init);
    return 0;
  }
  for (std::string sLine; std::getline(std::cin, sLine);) processFile(sSystem, options.init, sLine);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc < 2) throw std::runtime_error("name a system");
    const bool bFacts = argc > 2 && std::string(argv[2]) == "--facts";
    std::vector<char*> words(argv + (bFacts ? 2 : 1), argv + argc);
    char pcNone[] = "-";
    words.insert(words.end(), 2, pcNone);  // in the place of the file names
    Options options;
    if (const auto iStatus = parseOptions(static_cast<int>(words.size()), words.data(), options))
      return *iStatus;
    return run(argv[1], bFacts, options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "voice_run: %s\n", error.what());
    return 1;
  }
}
