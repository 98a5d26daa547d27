// Builders that the engine's tests share: the package, an initialisation record and seeded signals.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "engine/Kestrova.h"

using Samples = std::vector<std::int16_t>;

// The record the relay fills for noise reduction with the configuration's defaults.
inline sKestrovaInit defaultInit() {
  sKestrovaInit init{};
  init.sBitsPerSample = 16;
  init.iSampleRate = 8000;
  init.sFrameUnits = 1;
  init.bRemoveNonSelfFrequencies = 1;
  init.sCNGInitialValue = 15;
  init.sCNGStep = 5;
  init.sCNGEndValue = 15;
  init.sBurstEndDecrease = 40;
  init.sBurstEndMode = 1;
  init.sBurstEndLowerValue = 15;
  init.sBurstEndStep = 5;
  init.sMaxNumCyclesInDelayBuffer = 6;
  init.sDetectAggressiveLevel = 2;
  init.sCleanAggressiveLevel = 8;
  init.iAGCLevel = 32000;
  init.iAGCMinPercent = 50;
  init.iAGCMaxPercent = 500;
  init.sSpkLagFrames = 15;
  init.sMicLagFrames = 15;
  init.sAecSupressionHold = 6;
  init.sAecMaxCoef = 100;
  init.sAecMinCoef = 1;
  return init;
}

inline Samples whiteNoise(std::size_t uCount, double dAmplitude, unsigned uSeed) {
  std::mt19937 random(uSeed);
  std::uniform_real_distribution<double> uniform(-dAmplitude, dAmplitude);
  Samples samples(uCount);
  for (auto& sample : samples) sample = static_cast<std::int16_t>(uniform(random));
  return samples;
}

inline Samples gaussianNoise(std::size_t uCount, double dRms, unsigned uSeed) {
  std::mt19937 random(uSeed);
  std::normal_distribution<double> normal(0, dRms);
  Samples samples(uCount);
  for (auto& sample : samples)
    sample = static_cast<std::int16_t>(std::clamp(normal(random), -32000.0, 32000.0));
  return samples;
}

// A voice: pulses at a gliding pitch through three resonances, with the given peak.
inline Samples voice(std::size_t uCount, int iRate, double dPitch, double dPeak,
                     const std::array<double, 3>& dResonances = {650, 1200, 2600}) {
  struct sResonance {
    double dFrequency, dBandwidth, y1 = 0, y2 = 0;
    double next(double x, int iRate) {
      const double r = std::exp(-std::numbers::pi * dBandwidth / iRate);
      const double y = x + 2 * r * std::cos(2 * std::numbers::pi * dFrequency / iRate) * y1 - r * r * y2;
      y2 = y1;
      return y1 = y;
    }
  };
  sResonance asResonance[] = {{dResonances[0], 80}, {dResonances[1], 90}, {dResonances[2], 150}};
  std::vector<double> y(uCount);
  double dPhase = 1;
  double dLargest = 1e-9;
  for (std::size_t i = 0; i < uCount; ++i) {
    dPhase += dPitch * (1 + 0.1 * static_cast<double>(i) / static_cast<double>(uCount)) / iRate;
    double x = dPhase >= 1 ? 1 : 0;
    dPhase -= std::floor(dPhase);
    for (auto& resonance : asResonance) x = resonance.next(x, iRate);
    y[i] = x;
    dLargest = std::max(dLargest, std::abs(x));
  }
  Samples samples(uCount);
  for (std::size_t i = 0; i < uCount; ++i) samples[i] = static_cast<std::int16_t>(y[i] / dLargest * dPeak);
  return samples;
}

inline Samples silence(std::size_t uCount) {
  return Samples(uCount, 0);
}
inline Samples tone(std::size_t uCount, double dF1, double dA1, double dF2 = 0, double dA2 = 0) {
  Samples samples(uCount);
  for (std::size_t i = 0; i < uCount; ++i) {
    const double t = 2 * std::numbers::pi * static_cast<double>(i) / 8000;
    samples[i] = static_cast<std::int16_t>(dA1 * std::sin(dF1 * t) + dA2 * std::sin(dF2 * t));
  }
  return samples;
}
inline Samples& operator+=(Samples& a, const Samples& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
inline Samples mixed(Samples a, const Samples& b) {
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    a[i] = static_cast<std::int16_t>(std::clamp(a[i] + b[i], -32767, 32767));
  }
  return a;
}
inline double rms(const Samples& samples, std::size_t uFrom, std::size_t uTo) {
  double dSum = 0;
  for (std::size_t i = uFrom; i < uTo; ++i) dSum += static_cast<double>(samples[i]) * samples[i];
  return std::sqrt(dSum / static_cast<double>(uTo - uFrom));
}
inline double decibels(double dRatio) {
  return 20 * std::log10(dRatio + 1e-9);
}

// What a function prints to the file it is given.
template <typename Print>
std::string printed(Print print) {
  char* pcBuffer = nullptr;
  std::size_t uSize = 0;
  std::FILE* pFile = open_memstream(&pcBuffer, &uSize);
  print(pFile);
  std::fclose(pFile);
  std::string text(pcBuffer, uSize);
  std::free(pcBuffer);
  return text;
}

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    const sKestrovaPackage package{
        .iAPIVersion = KESTROVA_API_VERSION, .pcBinDirectory = nullptr, .iCPUPower = 5};
    EXPECT_EQ(KestrovaPackageInit(&package), 0);
  }
  // A whole stream through noise channel c in frames of uFrame samples; `each` sees every frame's result.
  template <typename Each>
  static Samples process(std::uint16_t c, const Samples& in, std::size_t uFrame, Each each) {
    Samples out;
    Samples frame(uFrame);
    for (std::size_t i = 0; i + uFrame <= in.size(); i += uFrame) {
      std::copy_n(in.data() + i, uFrame, frame.data());
      sKestrovaFrameResult result{};
      EXPECT_EQ(KestrovaProcessFrame(c, frame.data(), static_cast<int>(2 * uFrame), frame.data(), &result),
                0);
      out.insert(out.end(), frame.begin(), frame.begin() + result.iOutBytes / 2);
      each(result);
    }
    return out;
  }
  static Samples process(std::uint16_t c, const Samples& in, std::size_t uFrame = 32) {
    return process(c, in, uFrame, [](const sKestrovaFrameResult&) {});
  }
  ~EngineTest() override {
    for (std::uint16_t c = 0; c <= KESTROVA_MAX_CHANNEL; ++c) {
      EXPECT_EQ(KestrovaTerminate(c), 0);
      EXPECT_EQ(KestrovaAECTerminate(c), 0);
    }
  }
};
