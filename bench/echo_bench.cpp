// echo_bench: echo cancellers side by side on the same material.
//
//   echo_bench [--set NAME] [--only CANCELLER] [--trace FILE] [--lead SAMPLES] FAR_DIR NEAR_DIR
//
// The directories hold 8 kHz WAV files of one talker each. Sets: single, double, change, headset, disturb,
// howl, drift, all. A row per canceller and case, then the means. With --lead our microphone's stream is fed
// ahead of the loudspeaker's, and paths that are shorter than that are left out.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/EchoCancellers.h"
#include "bench/EchoSignals.h"

namespace {

constexpr int kRate = 8000;
constexpr double kDelays[] = {20, 60, 130, 260, 500};
constexpr double kReturnLosses[] = {6, 13, 20};

struct Arguments {
  std::string sSet = "all";
  std::string sOnly;
  std::string sTrace;
  std::vector<std::string> sDirs;
  double dDelay = 0;
  double dLoss = 0;
  int iLead = 0;
};

Arguments arguments;

std::size_t at(double dSeconds) {
  return static_cast<std::size_t>(dSeconds * kRate);
}

std::vector<std::string> sentences(const std::string& sDir, unsigned uSeed) {
  std::vector<std::string> sNames;
  for (const auto& entry : std::filesystem::directory_iterator(sDir)) {
    if (!entry.is_regular_file()) continue;
    const auto uSize = entry.file_size();
    if (entry.path().extension() == ".wav" && uSize > 30000 && uSize < 90000) sNames.push_back(entry.path());
  }
  std::sort(sNames.begin(), sNames.end());
  std::mt19937 random(uSeed);
  std::shuffle(sNames.begin(), sNames.end(), random);
  sNames.resize(std::min<std::size_t>(sNames.size(), 12));
  return sNames;
}

Audio talker(int iWhich, unsigned uSeed, double dSeconds) {
  return readTalker(sentences(arguments.sDirs[static_cast<std::size_t>(iWhich)], uSeed), kRate, dSeconds);
}

std::vector<std::string> cancellers() {
  if (!arguments.sOnly.empty()) return {arguments.sOnly};
#ifdef QUORVEL_ECHO_PEERS
  return {"ours-7", "speex", "webrtc"};
#else
  return {"ours-7"};
#endif
}

class Means {
 public:
  void add(const std::string& sCanceller, const std::string& sFigure, double dValue) {
    auto& values = figures[sFigure][sCanceller];
    values.push_back(dValue);
  }
  void print() const {
    std::printf("%-34s %10s %10s %10s\n", "figure, canceller", "mean", "worst", "best");
    for (const auto& [sFigure, byCanceller] : figures) {
      for (const auto& [sCanceller, values] : byCanceller) {
        double dSum = 0;
        for (const double d : values) dSum += d;
        std::printf("%-24s %-9s %10.2f %10.2f %10.2f\n", sFigure.c_str(), sCanceller.c_str(),
                    dSum / static_cast<double>(values.size()),
                    *std::min_element(values.begin(), values.end()),
                    *std::max_element(values.begin(), values.end()));
      }
    }
  }

 private:
  std::map<std::string, std::map<std::string, std::vector<double>>> figures;
};

Means means;

struct Case {
  Audio far, near, echo, mic;
};

void mix(Case& scene, unsigned uSeed) {
  scene.mic = scene.echo;
  addBackground(scene.mic, uSeed);
  for (std::size_t i = 0; i < scene.mic.size() && i < scene.near.size(); ++i) scene.mic[i] += scene.near[i];
}

// Seconds from dFrom until 200 ms windows stay at dDb, of those with echo.
double recovery(const Case& scene, const Audio& out, double dFrom, double dTo, double dDb) {
  double dReached = dFrom;
  for (double t = dFrom; t + 0.2 <= dTo; t += 0.05) {
    if (powerDb(scene.echo, at(t), at(t + 0.2)) < 30) continue;
    if (erle(scene.mic, out, scene.echo, at(t), at(t + 0.2)) < dDb && t < dFrom + 3) dReached = t + 0.05;
  }
  return dReached - dFrom;
}

Audio run(const std::string& sCanceller, const Case& scene, double dDelay, double* pdSeconds = nullptr) {
  const auto pCanceller = makeCanceller(sCanceller, kRate, dDelay, arguments.iLead);
  return cancel(*pCanceller, scene.far, scene.mic, kRate, pdSeconds,
                arguments.sTrace.empty() ? nullptr : arguments.sTrace.c_str());
}

template <typename Body>
void overGrid(Body body) {
  unsigned uSeed = 1;
  for (const double dDelay : kDelays) {
    for (const double dLoss : kReturnLosses) {
      ++uSeed;
      if (at(dDelay / 1000) < static_cast<std::size_t>(arguments.iLead)) continue;
      if (arguments.dDelay > 0 && arguments.dDelay != dDelay) continue;
      if (arguments.dLoss > 0 && arguments.dLoss != dLoss) continue;
      body(EchoPath{.dDelayMs = dDelay, .dReturnLossDb = dLoss, .uSeed = uSeed});
    }
  }
}

void single() {
  overGrid([](const EchoPath& path) {
    Case scene;
    scene.far = talker(0, path.uSeed, 14);
    scene.echo = echoOf(scene.far, path, kRate);
    mix(scene, path.uSeed);
    for (const auto& sName : cancellers()) {
      double dSeconds = 0;
      const Audio out = run(sName, scene, path.dDelayMs, &dSeconds);
      const double dEarly = erle(scene.mic, out, scene.echo, at(2), at(3));
      const double dLate = erle(scene.mic, out, scene.echo, at(8), at(14));
      std::printf("single  %-7s delay %3.0f loss %2.0f: %5.1f dB after 2 s, %5.1f dB converged\n",
                  sName.c_str(), path.dDelayMs, path.dReturnLossDb, dEarly, dLate);
      means.add(sName, "single early dB", dEarly);
      means.add(sName, "single converged dB", dLate);
      means.add(sName, "cpu ms/s", dSeconds / 14 * 1000);
    }
  });
}

void doubleTalk() {
  overGrid([](const EchoPath& path) {
    Case scene;
    scene.far = talker(0, path.uSeed, 22);
    scene.echo = echoOf(scene.far, path, kRate);
    scene.near = talker(1, path.uSeed + 100, 22);
    std::fill(scene.near.begin(), scene.near.begin() + static_cast<std::ptrdiff_t>(at(8)), 0.0F);
    std::fill(scene.near.begin() + static_cast<std::ptrdiff_t>(at(16)), scene.near.end(), 0.0F);
    mix(scene, path.uSeed);
    for (const auto& sName : cancellers()) {
      const Audio raw = run(sName, scene, path.dDelayMs);
      const Audio out = aligned(scene.near, raw, at(8), at(16));
      const double dPassed = passedDb(scene.near, out, at(8), at(16));
      const double dStoi = stoi(scene.near, out, kRate, at(8), at(16));
      const double dStoiIn = stoi(scene.near, scene.mic, kRate, at(8), at(16));
      const double dAfter = erle(scene.mic, out, scene.echo, at(16.5), at(22));
      std::printf(
          "double  %-7s delay %3.0f loss %2.0f: near end %5.1f dB, STOI %.3f (was %.3f), after %5.1f dB\n",
          sName.c_str(), path.dDelayMs, path.dReturnLossDb, dPassed, dStoi, dStoiIn, dAfter);
      means.add(sName, "double near dB", dPassed);
      means.add(sName, "double STOI", dStoi);
      means.add(sName, "double after dB", dAfter);
    }
  });
}

void pathChange() {
  for (const double dMoved : {0.0, 15.0, 80.0, -60.0}) {
    overGrid([dMoved](const EchoPath& path) {
      if (path.dDelayMs + dMoved < 20 ||
          at((path.dDelayMs + dMoved) / 1000) < static_cast<std::size_t>(arguments.iLead))
        return;
      Case scene;
      scene.far = talker(0, path.uSeed, 18);
      scene.echo = echoOf(scene.far, path, kRate);
      EchoPath changed = path;
      changed.dDelayMs += dMoved;
      changed.uSeed += 50;
      const Audio after = echoOf(scene.far, changed, kRate);
      std::copy(after.begin() + static_cast<std::ptrdiff_t>(at(10)), after.end(),
                scene.echo.begin() + static_cast<std::ptrdiff_t>(at(10)));
      mix(scene, path.uSeed);
      for (const auto& sName : cancellers()) {
        const Audio out = run(sName, scene, path.dDelayMs + std::max(0.0, dMoved));
        const double dSecond = erle(scene.mic, out, scene.echo, at(11), at(12));
        const double dTime = recovery(scene, out, 10, 18, 20);
        std::printf(
            "change  %-7s delay %3.0f %+3.0f loss %2.0f: %5.1f dB in the 2nd second, 20 dB after %.2f s\n",
            sName.c_str(), path.dDelayMs, dMoved, path.dReturnLossDb, dSecond, dTime);
        means.add(sName, "change 2nd second dB", dSecond);
        means.add(sName, "change to 20 dB s", dTime);
      }
    });
  }
}

void headset() {
  for (unsigned uSeed = 1; uSeed <= 5; ++uSeed) {
    Case scene;
    scene.far = talker(0, uSeed, 20);
    scene.near = talker(1, uSeed + 100, 20);
    scene.echo.resize(scene.far.size());
    mix(scene, uSeed);
    for (const auto& sName : cancellers()) {
      const Audio out = aligned(scene.near, run(sName, scene, 100), 0, at(20));
      double dWorst = 0;
      for (int s = 0; s < 19; ++s) dWorst = std::min(dWorst, passedDb(scene.near, out, at(s), at(s + 1)));
      const double dAll = passedDb(scene.near, out, 0, at(20));
      std::printf("headset %-7s talkers %u: near end %5.2f dB, worst second %5.2f dB\n", sName.c_str(), uSeed,
                  dAll, dWorst);
      means.add(sName, "headset near dB", dAll);
      means.add(sName, "headset worst dB", dWorst);
    }
  }
}

// A pause of the reference (its packets are lost: silence instead, while the phone plays on), and a burst
// lost on the microphone's leg.
void disturb() {
  overGrid([](const EchoPath& path) {
    if (path.dReturnLossDb != 13) return;
    Case scene;
    scene.far = talker(0, path.uSeed, 20);
    scene.echo = echoOf(scene.far, path, kRate);
    mix(scene, path.uSeed);
    std::fill(scene.far.begin() + static_cast<std::ptrdiff_t>(at(8)),
              scene.far.begin() + static_cast<std::ptrdiff_t>(at(8.4)), 0.0F);
    std::fill(scene.mic.begin() + static_cast<std::ptrdiff_t>(at(13)),
              scene.mic.begin() + static_cast<std::ptrdiff_t>(at(13.2)), 0.0F);
    for (const auto& sName : cancellers()) {
      const Audio out = run(sName, scene, path.dDelayMs);
      const double dPause = erle(scene.mic, out, scene.echo, at(9.5), at(12));
      const double dBurst = erle(scene.mic, out, scene.echo, at(14.2), at(17));
      std::printf("disturb %-7s delay %3.0f: %5.1f dB after a pause, %5.1f dB after a lost burst\n",
                  sName.c_str(), path.dDelayMs, dPause, dBurst);
      means.add(sName, "after pause dB", dPause);
      means.add(sName, "after burst dB", dBurst);
    }
  });
}

void drift() {
  for (const double dPpm : {100.0, -100.0}) {
    Case scene;
    scene.far = talker(0, 7, 600);
    const EchoPath path{.dDelayMs = 200, .dReturnLossDb = 13, .uSeed = 7};
    scene.echo = drifted(echoOf(scene.far, path, kRate), dPpm);
    mix(scene, 7);
    for (const auto& sName : cancellers()) {
      const Audio out = run(sName, scene, path.dDelayMs + 70);
      double dWorst = 99;
      for (int t = 10; t + 10 <= 600; t += 10) {
        dWorst = std::min(dWorst, erle(scene.mic, out, scene.echo, at(t), at(t + 10)));
      }
      const double dAll = erle(scene.mic, out, scene.echo, at(10), at(600));
      std::printf("drift   %-7s %+4.0f ppm over 10 min: %5.1f dB, worst 10 s %5.1f dB\n", sName.c_str(), dPpm,
                  dAll, dWorst);
      means.add(sName, "drift dB", dAll);
      means.add(sName, "drift worst 10 s dB", dWorst);
    }
  }
}

// A loop: what leaves the canceller reaches the other end, comes back from its room 150 ms later and is
// played here again, with more gain than the paths lose. Sample by sample, so frames of 32 samples lag by
// themselves.
void howl() {
  for (const double dGainDb : {3.0, 6.0, 10.0}) {
    for (const auto& sName : cancellers()) {
      const EchoPath path{.dDelayMs = 40, .dReturnLossDb = 6, .uSeed = 3, .bNonLinear = false};
      Audio impulse(at(0.2), 0);
      impulse[0] = 1;
      const Audio room = echoOf(impulse, path, kRate);
      const Audio talk = talker(1, 3, 6);
      const auto pCanceller = makeCanceller(sName, kRate, path.dDelayMs);
      const auto fGain = static_cast<float>(std::pow(10, (dGainDb + path.dReturnLossDb) / 20));
      const std::size_t uBack = at(0.05);
      std::vector<std::int16_t> out;
      Audio played, heard;
      std::mt19937 random(5);
      std::normal_distribution<float> normal(0, 8);
      const bool bOpen = sName == "none";
      for (std::size_t i = 0; i + 32 <= talk.size(); i += 32) {
        std::int16_t psFar[32];
        std::int16_t psMic[32];
        for (std::size_t n = i; n < i + 32; ++n) {
          const long lReturn = static_cast<long>(n) - static_cast<long>(uBack);
          const float fBack = lReturn >= 0 && static_cast<std::size_t>(lReturn) < out.size()
                                  ? fGain * out[static_cast<std::size_t>(lReturn)]
                                  : 0.0F;
          played.push_back(std::clamp(fBack, -32000.0F, 32000.0F));
          float fMic = normal(random) + (n < at(1) ? talk[n] * 0.3F : 0.0F);
          for (std::size_t k = 0; k < room.size() && k <= n; ++k) fMic += room[k] * played[n - k];
          heard.push_back(std::clamp(fMic, -32000.0F, 32000.0F));
          psFar[n - i] = static_cast<std::int16_t>(played[n]);
          psMic[n - i] = static_cast<std::int16_t>(heard[n]);
        }
        if (bOpen) {
          out.insert(out.end(), psMic, psMic + 32);
        } else {
          pCanceller->process(psFar, psMic, 32, out);
        }
      }
      double dLoud = 0;
      for (double t = 0; t + 0.1 <= 6; t += 0.1)
        dLoud += powerDb(heard, at(t), at(t + 0.1)) > 20 * std::log10(6000) ? 0.1 : 0;
      std::printf("howl    %-7s loop %+3.0f dB: loud for %.1f s of 6\n", sName.c_str(), dGainDb, dLoud);
      means.add(sName, "howling s", dLoud);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string sWord = argv[i];
    if (sWord == "--set") {
      arguments.sSet = argv[++i];
    } else if (sWord == "--only") {
      arguments.sOnly = argv[++i];
    } else if (sWord == "--trace") {
      arguments.sTrace = argv[++i];
    } else if (sWord == "--delay") {
      arguments.dDelay = std::atof(argv[++i]);
    } else if (sWord == "--lead") {
      arguments.iLead = std::atoi(argv[++i]);
    } else if (sWord == "--loss") {
      arguments.dLoss = std::atof(argv[++i]);
    } else {
      arguments.sDirs.push_back(sWord);
    }
  }
  if (arguments.sDirs.size() != 2) {
    std::fprintf(stderr, "echo_bench [--set NAME] [--only CANCELLER] FAR_DIR NEAR_DIR\n");
    return 2;
  }
  const std::pair<const char*, void (*)()> sets[] = {
      {"single", single},   {"double", doubleTalk}, {"change", pathChange}, {"headset", headset},
      {"disturb", disturb}, {"howl", howl},         {"drift", drift}};
  for (const auto& [pcName, body] : sets) {
    if (arguments.sSet == pcName || arguments.sSet == "all") body();
  }
  means.print();
  return 0;
}
