#include "tools/kestrova-wav-options.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <vector>

namespace {

struct sOption {
  std::string_view name;
  const char* pcHelp;
  void (*set)(Options& options, int iValue);
  int (*get)(const Options& options);
};

// One row per field: what the option sets is what the help prints as default.
template <auto Field>
constexpr sOption field(std::string_view name, const char* pcHelp) {
  return {name, pcHelp,
          [](Options& options, int iValue) {
            auto& value = options.init.*Field;
            value = static_cast<std::remove_reference_t<decltype(value)>>(iValue);
          },
          [](const Options& options) { return static_cast<int>(options.init.*Field); }};
}

constexpr std::array psOptions{
    field<&sKestrovaInit::sFrameUnits>("frame-units", "frame length, 32 samples each (1..8)"),
    field<&sKestrovaInit::sInitialDelayUnits>("initial-delay", "leading silence, 8 samples each"),
    field<&sKestrovaInit::bCheckDTMF>("dtmf", "look for DTMF digits (0/1)"),
    field<&sKestrovaInit::bRemoveNonSelfFrequencies>("spectral", "take the background's spectrum off (0/1)"),
    field<&sKestrovaInit::sCNGInitialValue>("cng-start", "comfort noise when silence begins, percent"),
    field<&sKestrovaInit::sCNGStep>("cng-step", "comfort noise step, percent"),
    field<&sKestrovaInit::sCNGEndValue>("cng-end", "comfort noise floor, percent"),
    field<&sKestrovaInit::sBurstEndDecrease>("burst-decrease", "speech gain decrease per period, percent"),
    field<&sKestrovaInit::sBurstEndMode>("burst-mode", "periods per second"),
    field<&sKestrovaInit::sBurstEndLowerValue>("burst-floor", "speech gain floor, percent"),
    field<&sKestrovaInit::sBurstEndStep>("burst-step", "bonus on the speech gain, percent"),
    field<&sKestrovaInit::sMaxNumCyclesInDelayBuffer>("delay", "cycles of delay, 4 ms each (2..50)"),
    field<&sKestrovaInit::sDetectAggressiveLevel>("detect", "detection level (0..4)"),
    field<&sKestrovaInit::sCleanAggressiveLevel>("clean", "cleaning level (5..12)"),
    field<&sKestrovaInit::bCancelAcousticShock>("shock", "limit acoustic shocks (0/1)"),
    field<&sKestrovaInit::bStartBypassed>("bypassed", "processing bypassed (0/1)"),
    field<&sKestrovaInit::bBypassVAD>("bypass-vad", "take everything for speech (0/1)"),
    field<&sKestrovaInit::bDoAGC>("agc", "control the gain (0/1)"),
    field<&sKestrovaInit::iAGCLevel>("agc-level", "target level, peak to peak"),
    field<&sKestrovaInit::iAGCMinPercent>("agc-min", "smallest gain, percent"),
    field<&sKestrovaInit::iAGCMaxPercent>("agc-max", "largest gain, percent"),
    field<&sKestrovaInit::iGroupType>("group", "voice group (0..3)"),
    field<&sKestrovaInit::sAecAlgorithm>("aec", "echo algorithm, 0 basic .. 7"),
    field<&sKestrovaInit::sSpkLagFrames>("spk-lag", "frames the loudspeaker may lag"),
    field<&sKestrovaInit::sMicLagFrames>("mic-lag", "frames the microphone may lag"),
    field<&sKestrovaInit::sAecSupressionHold>("aec-hold", "suppression hangover (0..10)"),
    field<&sKestrovaInit::sAecAggressiveLevel>("aec-level", "echo aggressiveness (0..20)"),
    field<&sKestrovaInit::sAecHowlingLevel>("aec-howling", "howling level (0..20)"),
    field<&sKestrovaInit::sAecMaxCoef>("aec-max-coef", "largest echo coefficient, percent"),
    field<&sKestrovaInit::sAecMinCoef>("aec-min-coef", "smallest echo coefficient, percent"),
    field<&sKestrovaInit::sAecTailType>("aec-tail", "echo tail (-58..5)"),
    field<&sKestrovaInit::sAecTailStart>("aec-tail-start", "start of the echo tail (-58..0)"),
    field<&sKestrovaInit::iAecTalkHoldSamples>("aec-talk-hold", "talk hold, samples"),
    field<&sKestrovaInit::iAecHold2Samples>("aec-strong-hold", "strong-talk hold, samples"),
    field<&sKestrovaInit::sMinOutputPercentDuringEcho>("aec-min-output", "output during echo, percent"),
    sOption{"cpu", "processing effort (0..10)",
            [](Options& options, int iValue) { options.iCPUPower = iValue; },
            [](const Options& options) { return options.iCPUPower; }},
    sOption{"combo", "with --spk: reduce noise too (0/1)",
            [](Options& options, int iValue) { options.bCombo = iValue != 0; },
            [](const Options& options) { return options.bCombo ? 1 : 0; }},
    sOption{"align", "output as long as the input (0/1)",
            [](Options& options, int iValue) { options.bAlign = iValue != 0; },
            [](const Options& options) { return options.bAlign ? 1 : 0; }},
};

struct sNameOption {
  std::string_view name;
  const char* pcHelp;
  std::string Options::*value;
};
constexpr std::array psNameOptions{
    sNameOption{"spk", "what the loudspeaker plays: runs the echo canceller", &Options::sSpeaker},
    sNameOption{"csv", "a row per frame is written here", &Options::sCsv},
};

void printHelp(std::FILE* pFile) {
  const Options defaults;
  std::fputs("kestrova-wav [options] MICROPHONE.wav OUT.wav: the voice engine on a file\n\n", pFile);
  for (const sNameOption& option : psNameOptions) {
    std::fprintf(pFile, "  --%-16s %s\n", std::string(option.name).c_str(), option.pcHelp);
  }
  for (const sOption& option : psOptions) {
    std::fprintf(pFile, "  --%-16s %s [%d]\n", std::string(option.name).c_str(), option.pcHelp,
                 option.get(defaults));
  }
}

// Takes one option with its value; a text that says what is wrong, or an empty one.
std::string take(std::string_view name, std::string_view value, Options& options) {
  for (const sNameOption& option : psNameOptions) {
    if (option.name != name) continue;
    options.*option.value = value;
    return "";
  }
  for (const sOption& option : psOptions) {
    if (option.name != name) continue;
    int iValue = 0;
    const auto parsed = std::from_chars(value.data(), value.data() + value.size(), iValue);
    if (parsed.ec != std::errc{} || parsed.ptr != value.data() + value.size()) {
      return "--" + std::string(name) + " needs a number, not " + std::string(value);
    }
    option.set(options, iValue);
    return "";
  }
  return "unknown option --" + std::string(name);
}

int refuse(const std::string& sWhy) {
  std::fprintf(stderr, "kestrova-wav: %s (--help lists the options)\n", sWhy.c_str());
  return 2;
}

}  // namespace

Options::Options() {
  init.sBitsPerSample = 16;
  init.iSampleRate = 8000;
  init.sFrameUnits = 1;
  init.bRemoveNonSelfFrequencies = 1;
  init.sCNGInitialValue = init.sCNGEndValue = 15;
  init.sCNGStep = 5;
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
  init.sAecAlgorithm = 7;
  init.sSpkLagFrames = init.sMicLagFrames = 15;
  init.sAecSupressionHold = 6;
  init.sAecAggressiveLevel = init.sAecHowlingLevel = 10;
  init.sAecMaxCoef = 100;
  init.sAecMinCoef = 1;
  init.sAecTailType = 1;
  init.iAecTalkHoldSamples = init.iAecHold2Samples = 2000;
}

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::string_view word(argv[i]);
    if (!word.starts_with("--")) {
      files.emplace_back(word);
      continue;
    }
    word.remove_prefix(2);
    if (word == "help") {
      printHelp(stdout);
      return 0;
    }
    if (++i == argc) return refuse("--" + std::string(word) + " needs a value");
    if (const std::string sWhy = take(word, argv[i], options); !sWhy.empty()) return refuse(sWhy);
  }
  if (files.size() != 2) return refuse("give one input and one output file");
  options.sMicrophone = files[0];
  options.sOut = files[1];
  return std::nullopt;
}
