// Builders that the engine's tests share: the package, an initialisation record and seeded signals.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <random>
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

class EngineTest : public ::testing::Test {
 protected:
  EngineTest() {
    const sKestrovaPackage package{
        .iAPIVersion = KESTROVA_API_VERSION, .pcBinDirectory = nullptr, .iCPUPower = 5};
    EXPECT_EQ(KestrovaPackageInit(&package), 0);
  }
  ~EngineTest() override {
    for (std::uint16_t c = 0; c <= KESTROVA_MAX_CHANNEL; ++c) {
      EXPECT_EQ(KestrovaTerminate(c), 0);
      EXPECT_EQ(KestrovaAECTerminate(c), 0);
    }
  }
};
