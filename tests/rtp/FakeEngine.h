// An engine whose answers a test chooses and whose calls it can look at. It takes the place of the real one
// in this test program. Noise reduction halves every sample, echo cancellation negates it, so that the path
// of a frame can be read from the audio.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/Kestrova.h"

struct FakeEngine {
  struct Channel {
    bool bRunning = false;
    sKestrovaInit sInit{};
    bool bVoice = false;              // initialised by KestrovaIpsavoxInit
    std::vector<char> pcLoadedVoice;  // first bytes of the profile it was given
    int iFrames = 0;
  };
  std::array<Channel, KESTROVA_MAX_CHANNEL + 1> noise;
  std::array<Channel, KESTROVA_MAX_CHANNEL + 1> echo;
  std::array<int, KESTROVA_MAX_CHANNEL + 1> spkFrames{};
  sKestrovaPackage package{};

  int failingInits = 0;  // that many of the next initialisations fail
  bool failPackage = false;
  bool failCompletion = false;
  std::int32_t registrationOutcome = KESTROVA_REGISTRATION_WEAK;
  std::uint32_t speakerBytes = 654'992 + 2 * 4'740;
  std::string digits;                  // not empty: every frame raises the DTMF flag
  std::function<void()> onFrame;       // runs first in every frame
  std::function<void()> onCompletion;  // and in the end of a registration
  int outputSamplesMissing = 0;        // the output of a frame is that much shorter

  static FakeEngine& get();
  static void reset() { get() = FakeEngine(); }
};
