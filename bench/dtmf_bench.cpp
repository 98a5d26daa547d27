// dtmf_bench: in-band DTMF detection of the voice engine beside spandsp's, on the same samples.
//
//   dtmf_bench --keys SPEECH.raw   keys of all sixteen digits in hard conditions, some over that speech: a
//   table dtmf_bench --speech            raw speech on standard input (8 kHz, 16-bit): a line of JSON with
//   false digits
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <numbers>
#include <random>
#include <span>
#include <spandsp.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/MyDtmf.h"
#include "tools/kestrova-wav-options.h"

namespace {

constexpr int kRate = 8000;
constexpr int kTrials = 20;              // of each digit, at different times and phases
constexpr double kFullScaleDbm0 = 3.14;  // ITU-T G.711: the largest sine
constexpr std::size_t kFrame = 32;
const std::string kDigits = "123A456B789C*0#D";  // by row, then column

using Samples = std::vector<std::int16_t>;
using Signal = std::vector<double>;

// ---- Detectors: whole streams in, digits out

class Quorvel {
 public:
  Quorvel() {
    sKestrovaInit init = Options().init;
    init.bCheckDTMF = 1;
    if (KestrovaInit(0, &init) != 0) throw std::runtime_error("the engine does not start");
  }
  // The text starts over after two seconds without a digit; what it held then is kept here.
  void push(std::span<const std::int16_t, kFrame> frame) {
    std::array<std::int16_t, kFrame> out;
    sKestrovaFrameResult result{};
    if (KestrovaProcessFrame(0, frame.data(), 2 * kFrame, out.data(), &result) != 0)
      throw std::runtime_error("a frame failed");
    if (result.iDtmf == 0) return;
    char pcText[100];
    if (KestrovaGetLastDTMFBuffer(0, pcText, sizeof pcText) != 0 || sText == pcText) return;
    if (!std::string_view(pcText).starts_with(sText)) sBefore += sText;
    sText = pcText;
  }
  [[nodiscard]] std::string digits() const { return sBefore + sText; }

 private:
  std::string sBefore;
  std::string sText;
};

class Spandsp {
 public:
  Spandsp() : pState(dtmf_rx_init(nullptr, nullptr, nullptr)) {}
  void push(std::span<const std::int16_t, kFrame> frame) {
    dtmf_rx(pState.get(), frame.data(), static_cast<int>(frame.size()));
    char pcText[129];
    sText.append(pcText, dtmf_rx_get(pState.get(), pcText, sizeof pcText - 1));
  }
  [[nodiscard]] std::string digits() const { return sText; }

 private:
  struct Free {
    void operator()(dtmf_rx_state_t* pState) const { dtmf_rx_free(pState); }
  };
  std::unique_ptr<dtmf_rx_state_t, Free> pState;
  std::string sText;
};

template <typename Detector>
std::string heard(const Samples& samples) {
  Detector detector;
  for (std::size_t i = 0; i + kFrame <= samples.size(); i += kFrame)
    detector.push(std::span<const std::int16_t, kFrame>(samples.data() + i, kFrame));
  return detector.digits();
}

// ---- Keys

struct sKey {
  double dMs = 100;
  double dRowDbm0 = -10;
  double dColumnDbm0 = -10;
  double dOffsetPercent = 0;  // of both frequencies
  double dGapMs = 0;          // an interruption in the middle
};

double amplitude(double dDbm0) {
  return 32767 * std::pow(10, (dDbm0 - kFullScaleDbm0) / 20);
}

void addKey(Signal& signal, std::size_t uFrom, char cDigit, const sKey& key, std::mt19937& random) {
  const std::size_t uDigit = kDigits.find(cDigit);
  const double dScale = 2 * std::numbers::pi * (1 + key.dOffsetPercent / 100) / kRate;
  std::uniform_real_distribution<double> phase(0, 2 * std::numbers::pi);
  const double dPhases[] = {phase(random), phase(random)};
  const auto uLength = static_cast<std::size_t>(key.dMs * kRate / 1000);
  const double dMiddle = static_cast<double>(uLength) / 2;
  for (std::size_t i = 0; i < uLength && uFrom + i < signal.size(); ++i) {
    const auto t = static_cast<double>(i);
    if (std::abs(t - dMiddle) < key.dGapMs * kRate / 2000) continue;
    signal[uFrom + i] +=
        amplitude(key.dRowDbm0) * std::sin(MyDtmf::freqs[uDigit / 4] * dScale * t + dPhases[0]) +
        amplitude(key.dColumnDbm0) * std::sin(MyDtmf::freqs[4 + uDigit % 4] * dScale * t + dPhases[1]);
  }
}

Samples rounded(const Signal& signal) {
  Samples samples(signal.size());
  std::transform(signal.begin(), signal.end(), samples.begin(), [](double x) {
    return static_cast<std::int16_t>(std::clamp(std::round(x), -32768.0, 32767.0));
  });
  return samples;
}

// ---- Conditions

// What lies under the keys: fills a second and more of signal.
using Background = std::function<void(Signal&, std::mt19937&)>;

Background noise(double dDbm0) {
  return [dDbm0](Signal& signal, std::mt19937& random) {
    std::normal_distribution<double> normal(0, amplitude(dDbm0) / std::sqrt(2));
    for (double& x : signal) x += normal(random);
  };
}

// A random stretch of speech with this level.
Background over(const Samples& speech, double dDbm0) {
  return [&speech, dDbm0](Signal& signal, std::mt19937& random) {
    std::uniform_int_distribution<std::size_t> start(0, speech.size() - signal.size() - 1);
    const std::size_t uFrom = start(random);
    double dPower = 1;
    for (std::size_t i = 0; i < signal.size(); ++i)
      dPower += static_cast<double>(speech[uFrom + i]) * speech[uFrom + i];
    const double dGain =
        amplitude(dDbm0) / std::sqrt(2) / std::sqrt(dPower / static_cast<double>(signal.size()));
    for (std::size_t i = 0; i < signal.size(); ++i) signal[i] += dGain * speech[uFrom + i];
  };
}

struct sCondition {
  std::string sName;
  sKey key;
  Background background = noise(-70);
};

std::string number(double dValue) {
  char pcText[32];
  std::snprintf(pcText, sizeof pcText, "%g", dValue);
  return pcText;
}

std::vector<sCondition> conditions(const Samples& speech) {
  std::vector<sCondition> all{{"as a telephone sends it: 100 ms, -10 dBm0", {}}};
  for (const double d : {40.0, 60.0, 70.0, 80.0, 90.0, 1000.0, 5000.0})
    all.push_back({number(d) + " ms long", {.dMs = d}});
  for (const double d : {0.0, -20.0, -25.0, -28.0, -30.0, -32.0, -36.0})
    all.push_back({number(d) + " dBm0", {.dRowDbm0 = d, .dColumnDbm0 = d}});
  for (const double d : {3.5, 4.5, 6.0})
    all.push_back({"column " + number(d) + " dB stronger", {.dColumnDbm0 = -10 + d}});
  for (const double d : {4.0, 7.5, 8.5})
    all.push_back({"row " + number(d) + " dB stronger", {.dColumnDbm0 = -10 - d}});
  for (const double d : {-1.5, 1.5, -2.5, 2.5, -3.5, 3.5})
    all.push_back({"frequencies off by " + number(d) + " %", {.dOffsetPercent = d}});
  for (const double d : {24.0, 18.0, 15.0, 12.0, 9.0, 6.0, 3.0})
    all.push_back({"white noise " + number(d) + " dB below a tone", {}, noise(-10 - d)});
  for (const double d : {20.0, 15.0, 10.0, 6.0})
    all.push_back({"speech " + number(d) + " dB below a tone", {}, over(speech, -10 - d)});
  all.push_back({"interrupted for 8 ms", {.dMs = 250, .dGapMs = 8}});
  all.push_back({"interrupted for 20 ms", {.dMs = 250, .dGapMs = 20}});
  all.push_back({"5 s long in white noise 15 dB below", {.dMs = 5000}, noise(-25)});
  return all;
}

struct sCount {
  int iOnce = 0;
  int iMore = 0;
  int iWrong = 0;  // digits other than the one that was sent
};

void count(sCount& total, const std::string& sHeard, char cSent) {
  const auto iRight = std::count(sHeard.begin(), sHeard.end(), cSent);
  if (iRight == 1) ++total.iOnce;
  if (iRight > 1) ++total.iMore;
  total.iWrong += static_cast<int>(std::ssize(sHeard) - iRight);
}

void printRow(const std::string& sName, const std::array<sCount, 2>& counts) {
  std::printf("| %s |", sName.c_str());
  for (const sCount& c : counts) {
    const double dKeys = kTrials * static_cast<double>(kDigits.size());
    std::printf(" %.1f %% | %d | %d |", 100 * c.iOnce / dKeys, c.iMore, c.iWrong);
  }
  std::puts("");
}

void tryCondition(const sCondition& condition, std::mt19937& random) {
  std::array<sCount, 2> counts;
  for (const char cDigit : kDigits) {
    for (int i = 0; i < kTrials; ++i) {
      const std::size_t uFrom = kRate / 2 + random() % 400;
      Signal signal(uFrom + static_cast<std::size_t>(condition.key.dMs * kRate / 1000) + kRate / 4);
      condition.background(signal, random);
      addKey(signal, uFrom, cDigit, condition.key, random);
      const Samples samples = rounded(signal);
      count(counts[0], heard<Quorvel>(samples), cDigit);
      count(counts[1], heard<Spandsp>(samples), cDigit);
    }
  }
  printRow(condition.sName, counts);
}

// Sixteen keys in a row, with pauses as long as the keys: the whole text must be right.
void trySequences(double dMs, std::mt19937& random) {
  std::array<sCount, 2> counts;
  for (std::size_t i = 0; i < kTrials * kDigits.size(); ++i) {
    std::string sSent = kDigits;
    std::shuffle(sSent.begin(), sSent.end(), random);
    const auto uStep = static_cast<std::size_t>(2 * dMs * kRate / 1000);
    Signal signal(kRate / 2 + sSent.size() * uStep + kRate / 4);
    noise(-60)(signal, random);
    for (std::size_t k = 0; k < sSent.size(); ++k)
      addKey(signal, kRate / 2 + k * uStep, sSent[k], {.dMs = dMs}, random);
    const Samples samples = rounded(signal);
    const std::string sTexts[] = {heard<Quorvel>(samples), heard<Spandsp>(samples)};
    for (std::size_t s = 0; s < 2; ++s) counts[s].iOnce += sTexts[s] == sSent ? 1 : 0;
  }
  printRow("sixteen keys in a row, " + number(dMs) + " ms each and between", counts);
}

int keys(const std::string& sSpeechFile) {
  std::ifstream file(sSpeechFile, std::ios::binary);
  Samples speech(20 * kRate);
  if (!file.read(reinterpret_cast<char*>(speech.data()), static_cast<std::streamsize>(speech.size() * 2)))
    throw std::runtime_error(sSpeechFile + ": no 20 s of speech");
  std::puts(
      "| keys | Quorvel: once | more than once | other digits | spandsp: once | more than once | other "
      "digits |\n"
      "| --- | --- | --- | --- | --- | --- | --- |");
  std::mt19937 random(1);
  for (const sCondition& condition : conditions(speech)) tryCondition(condition, random);
  for (const double dMs : {60.0, 80.0, 100.0}) trySequences(dMs, random);
  return 0;
}

int speech() {
  Quorvel ours;
  Spandsp theirs;
  Samples frame(kFrame);
  long lFrames = 0;
  while (std::cin.read(reinterpret_cast<char*>(frame.data()), 2 * kFrame)) {
    const std::span<const std::int16_t, kFrame> samples(frame.data(), kFrame);
    ours.push(samples);
    theirs.push(samples);
    ++lFrames;
  }
  std::printf("{\"seconds\":%.1f,\"quorvel\":\"%s\",\"spandsp\":\"%s\"}\n",
              static_cast<double>(lFrames) * kFrame / kRate, ours.digits().c_str(), theirs.digits().c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, Options().iCPUPower};
    if (KestrovaPackageInit(&package) != 0) throw std::runtime_error("the engine does not start");
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 2 && words[0] == "--keys") return keys(words[1]);
    if (words.size() == 1 && words[0] == "--speech") return speech();
    std::fputs("dtmf_bench --keys SPEECH.raw | --speech <SPEECH.raw\n", stderr);
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "dtmf_bench: %s\n", error.what());
    return 1;
  }
}
