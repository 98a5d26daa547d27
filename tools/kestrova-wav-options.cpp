#include "tools/kestrova-wav-options.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <vector>

#include "app/config/KeyRegistry.h"

namespace {

struct sLimits {
  int iLow;
  int iHigh;
};
constexpr sLimits kFlag{0, 1};
constexpr sLimits kPercent{0, 100};
constexpr sLimits kWord{0, std::numeric_limits<std::uint16_t>::max()};
constexpr sLimits kCount{0, std::numeric_limits<int>::max()};

struct sOption {
  std::string_view name;
  const char* pcKey;  // key of the configuration file that has the default; null: the program's own value
  sLimits limits;
  const char* pcHelp;
  void (*set)(Options& options, int iValue);
  int (*get)(const Options& options);
};

// One row per field: what the option sets is what the help prints as default.
template <auto Field>
constexpr sOption field(std::string_view name, const char* pcKey, sLimits limits, const char* pcHelp) {
  return {name,
          pcKey,
          limits,
          pcHelp,
          [](Options& options, int iValue) {
            auto& value = options.init.*Field;
            value = static_cast<std::remove_reference_t<decltype(value)>>(iValue);
          },
          [](const Options& options) { return static_cast<int>(options.init.*Field); }};
}

template <auto Member>
constexpr sOption member(std::string_view name, const char* pcKey, sLimits limits, const char* pcHelp) {
  return {name,
          pcKey,
          limits,
          pcHelp,
          [](Options& options, int iValue) {
            auto& value = options.*Member;
            value = static_cast<std::remove_reference_t<decltype(value)>>(iValue);
          },
          [](const Options& options) { return static_cast<int>(options.*Member); }};
}

using Init = sKestrovaInit;
struct sGroup {
  const char* pcTitle;
  std::vector<sOption> options;
};

const std::vector<sGroup>& groups() {
  static const std::vector<sGroup> all{
      {"Noise reduction",
       {field<&Init::bRemoveNonSelfFrequencies>("spectral", "RemoveNonSelfFrequencies", kFlag,
                                                "take the background's spectrum off"),
        field<&Init::sCNGInitialValue>("cng-start", "CNGInitialValue", kPercent,
                                       "percent of the background left when a pause begins"),
        field<&Init::sCNGStep>("cng-step", nullptr, kPercent, "percent taken off every half second of pause"),
        field<&Init::sCNGEndValue>("cng-end", "CNGEndValue", kPercent,
                                   "percent of the background left in a long pause"),
        field<&Init::sBurstEndDecrease>("burst-decrease", "BurstEndDecrease", kPercent,
                                        "percent the speech gain loses per period after certain speech"),
        field<&Init::sBurstEndMode>("burst-mode", nullptr, kWord, "such periods per second"),
        field<&Init::sBurstEndLowerValue>("burst-floor", "BurstEndLowerValue", kPercent,
                                          "percent, lowest speech gain"),
        field<&Init::sBurstEndStep>("burst-step", nullptr, kPercent,
                                    "percent added to the speech gain's aim"),
        field<&Init::sMaxNumCyclesInDelayBuffer>("delay", nullptr, {2, 50}, "delay in cycles of 4 ms"),
        field<&Init::sDetectAggressiveLevel>("detect", "DetectAggressiveLevel", {0, 4},
                                             "how readily a sound is no speech"),
        field<&Init::sCleanAggressiveLevel>("clean", "CleanAggressiveLevel", {5, 12},
                                            "how strongly noise is taken off"),
        field<&Init::bBypassVAD>("bypass-vad", "BypassVAD", kFlag, "take everything for speech"),
        field<&Init::iGroupType>("group", "GroupType", {0, 3}, "any voice, deep, middle or high voices")}},
      {"Gain, tones, format",
       {field<&Init::bDoAGC>("agc", "NeedToDoAGC", kFlag, "bring speech to an even level"),
        field<&Init::iAGCLevel>("agc-level", "AGCLevel", kCount, "that level, peak to peak"),
        field<&Init::iAGCMinPercent>("agc-min", nullptr, kCount, "percent, smallest gain"),
        field<&Init::iAGCMaxPercent>("agc-max", nullptr, kCount, "percent, largest gain"),
        field<&Init::bCancelAcousticShock>("shock", "CancelAcousticShock", kFlag, "limit sudden loud sounds"),
        field<&Init::bCheckDTMF>("dtmf", "NeedToCheckDTMF", kFlag, "look for DTMF digits"),
        field<&Init::bStartBypassed>("bypassed", nullptr, kFlag, "pass everything but the gain by"),
        field<&Init::sFrameUnits>("frame-units", nullptr, {1, 8}, "length of a frame in units of 4 ms"),
        field<&Init::sInitialDelayUnits>("initial-delay", nullptr, {0, 12},
                                         "silence first, in units of 1 ms"),
        member<&Options::iCPUPower>("cpu", "CPUPower", {0, 10}, "processing effort"),
        member<&Options::bAlign>("align", nullptr, kFlag, "make the output as long as the input")}},
      {"Echo cancellation (with --spk)",
       {member<&Options::bCombo>("combo", nullptr, kFlag, "reduce noise, too"),
        member<&Options::iAecDelay>("aec-delay", nullptr, {0, 50},
                                    "delay of the echo canceller in cycles of 4 ms"),
        field<&Init::sAecAlgorithm>("aec", nullptr, {0, 7}, "algorithm, 0 basic to 7 advanced"),
        field<&Init::sSpkLagFrames>("spk-lag", nullptr, {0, 50}, "frames the loudspeaker may lag"),
        field<&Init::sMicLagFrames>("mic-lag", nullptr, {0, 50}, "frames the microphone may lag"),
        field<&Init::sAecSupressionHold>("aec-hold", nullptr, {0, 10}, "how long suppression holds on"),
        field<&Init::sAecAggressiveLevel>("aec-level", "AECAggressiveLevel", {0, 20},
                                          "how readily a talker is let through"),
        field<&Init::sAecHowlingLevel>("aec-howling", "AECHowlingLevel", {0, 20},
                                       "how readily howling is detected"),
        field<&Init::sAecMaxCoef>("aec-max-coef", "MaxCoefInAECParam", {10, 300},
                                  "percent, largest coupling reckoned with"),
        field<&Init::sAecMinCoef>("aec-min-coef", nullptr, {1, 150}, "percent, smallest coupling"),
        field<&Init::sAecTailType>("aec-tail", "AECTailType", {-58, 5}, "length of the echo"),
        field<&Init::sAecTailStart>("aec-tail-start", nullptr, {-58, 0}, "start of the echo"),
        field<&Init::iAecTalkHoldSamples>("aec-talk-hold", nullptr, kCount, "samples that talk holds on"),
        field<&Init::iAecHold2Samples>("aec-strong-hold", nullptr, kCount, "the same, strong talk"),
        field<&Init::sMinOutputPercentDuringEcho>("aec-min-output", "AECMinOutputPercentageDuringEcho",
                                                  kPercent, "percent, lowest gain during echo")}}};
  return all;
}

struct sNameOption {
  std::string_view name;
  const char* pcHelp;
  std::string Options::*value;
};
constexpr std::array psNameOptions{
    sNameOption{"voice", "a learned voice: it is kept, other voices are taken away", &Options::sVoice},
    sNameOption{"spk", "what the loudspeaker plays: runs the echo canceller", &Options::sSpeaker},
    sNameOption{"csv", "a row per frame is written here", &Options::sCsv},
    sNameOption{"picture", "a PNG is written here: spectrograms and decisions", &Options::sPicture},
};

// ---- Help

constexpr const char* kHelpHead =
    R"(NAME
  kestrova-wav - the voice engine on sound files

SYNOPSIS
  kestrova-wav [options] MICROPHONE.wav OUT.wav
  kestrova-wav [options] --spk LOUDSPEAKER.wav MICROPHONE.wav OUT.wav
  kestrova-wav learn [options] SPEECH.wav VOICE
  kestrova-wav clean --voice VOICE [options] MICROPHONE.wav OUT.wav

DESCRIPTION
  Sends the microphone's sound through the engine as a call does, frame by frame, and writes what comes out. The first
  form reduces noise; the second cancels the loudspeaker's echo, and with --combo 1 reduces noise as well. Files are
  WAV, mono, 16-bit, 8 or 16 kHz. The output starts with the sample that the input starts with; the last samples stay
  inside the engine, as many as its delay.

  The third form learns the voice of the one talker of a recording, half a minute or more, and writes it to the file
  VOICE, as a call does when a caller registers his voice; the fourth keeps that voice and takes others away.

FILES
)";

constexpr const char* kHelpTail =
    R"(
CSV
  time_s           start of the frame in the input
  out_samples      samples that came out for it, those of some frames earlier: the delay
  speech           1: speech came out
  confident        1: of a talk spurt that is certainly speech
  noise_level      the background, largest minus smallest sample; 0 until it is known
  gain_percent     gain of the automatic gain control
  echo_level       with --spk: the echo in the microphone, largest minus smallest sample; 0: none
  speaker_level    the talker, largest minus smallest sample; 0 before any speech
  dtmf             1: a digit, or five seconds after one
  digits           all digits of that sequence
  state            start, silence, speech, confident or dtmf: what came out
  talk_score       with --spk, as all that follow: -35 echo for certain .. 100 talk for certain
  near_end         1: somebody talks at the microphone
  converged        1: the filter in use has found the echo
  filter           in use: 1 time domain, 2 frequency domain
  delay_samples    of the echo, at 8 kHz; -1 while unknown
  echo_gain        128 passes the microphone unchanged, 0 silences it
  howling          1: the loop through the other end whistles

EXIT STATUS
  0 done, 1 a file or the engine failed, 2 the command line is wrong.

EXAMPLES
  kestrova-wav noisy.wav clean.wav --csv frames.csv --picture clean.png
  kestrova-wav --agc 1 --cng-start 5 --cng-end 5 noisy.wav clean.wav
  kestrova-wav --spk far.wav --combo 1 microphone.wav clean.wav
  kestrova-wav learn me.wav me.voice
  kestrova-wav clean --voice me.voice both.wav mine.wav --picture kept.png
)";

std::string limitsText(const sOption& option) {
  if (option.limits.iHigh == kCount.iHigh || option.limits.iHigh == kWord.iHigh) return "N";
  return std::to_string(option.limits.iLow) + ".." + std::to_string(option.limits.iHigh);
}

void printHelp() {
  const Options defaults;
  std::fputs(kHelpHead, stdout);
  for (const sNameOption& option : psNameOptions)
    std::printf("  --%-15s %-8s %s\n", std::string(option.name).c_str(), "FILE", option.pcHelp);
  for (const sGroup& group : groups()) {
    std::printf("\nOPTIONS: %s\n", group.pcTitle);
    for (const sOption& option : group.options) {
      const std::string sKey = option.pcKey != nullptr ? std::string(" ") + option.pcKey : "";
      std::printf("  --%-15s %-8s %s [%d%s]\n", std::string(option.name).c_str(), limitsText(option).c_str(),
                  option.pcHelp, option.get(defaults), sKey.c_str());
    }
  }
  std::fputs("\n  In brackets the default, and the key of the configuration file that has it.\n", stdout);
  std::fputs(kHelpTail, stdout);
}

// ---- Reading

const sOption* findOption(std::string_view name) {
  for (const sGroup& group : groups()) {
    for (const sOption& option : group.options) {
      if (option.name == name) return &option;
    }
  }
  return nullptr;
}

// Takes one option with its value; a text that says what is wrong, or an empty one.
std::string take(std::string_view name, std::string_view value, Options& options) {
  for (const sNameOption& option : psNameOptions) {
    if (option.name != name) continue;
    options.*option.value = value;
    return value.empty() ? "--" + std::string(name) + " needs the name of a file" : "";
  }
  const sOption* pOption = findOption(name);
  if (pOption == nullptr) return "unknown option --" + std::string(name);
  int iValue = 0;
  const char* pcEnd = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), pcEnd, iValue);
  const bool bInside = iValue >= pOption->limits.iLow && iValue <= pOption->limits.iHigh;
  if (parsed.ec != std::errc{} || parsed.ptr != pcEnd || !bInside) {
    return "--" + std::string(name) + " takes a number from " + std::to_string(pOption->limits.iLow) +
           " to " + std::to_string(pOption->limits.iHigh) + ", not " + std::string(value);
  }
  pOption->set(options, iValue);
  return "";
}

int refuse(const std::string& sWhy) {
  std::fprintf(stderr, "kestrova-wav: %s (--help lists the options)\n", sWhy.c_str());
  return 2;
}

// The value that the configuration has when its file does not give the key; for a required key, the sample's.
int defaultOfKey(const char* pcKey) {
  const sKeyDefault& preset = keyRegistry()[static_cast<std::size_t>(findKey(pcKey))].sDefault;
  return std::atoi(preset.kind == sKeyDefault::Kind::eRequired ? preset.pcExample : preset.pcText);
}

}  // namespace

// What no key of the configuration sets is what calls use.
Options::Options() {
  init.sBitsPerSample = 16;
  init.iSampleRate = 8000;
  init.sFrameUnits = 1;
  init.sCNGStep = 5;
  init.sBurstEndMode = 1;
  init.sBurstEndStep = 5;
  init.sMaxNumCyclesInDelayBuffer = 6;
  init.iAGCMinPercent = 50;
  init.iAGCMaxPercent = 500;
  init.sAecAlgorithm = 7;
  init.sSpkLagFrames = init.sMicLagFrames = 15;
  init.sAecSupressionHold = 6;
  init.sAecMinCoef = 1;
  init.iAecTalkHoldSamples = init.iAecHold2Samples = 2000;
  for (const sGroup& group : groups()) {
    for (const sOption& option : group.options) {
      if (option.pcKey != nullptr) option.set(*this, defaultOfKey(option.pcKey));
    }
  }
}

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
  std::vector<std::string> files;
  const std::string_view first(argc > 1 ? argv[1] : "");
  options.bLearn = first == "learn";
  for (int i = options.bLearn || first == "clean" ? 2 : 1; i < argc; ++i) {
    std::string_view word(argv[i]);
    if (!word.starts_with("--")) {
      files.emplace_back(word);
      continue;
    }
    word.remove_prefix(2);
    if (word == "help") {
      printHelp();
      return 0;
    }
    if (++i == argc) return refuse("--" + std::string(word) + " needs a value");
    if (const std::string sWhy = take(word, argv[i], options); !sWhy.empty()) return refuse(sWhy);
  }
  if (files.size() != 2) return refuse("give one input and one output file");
  if (options.bLearn && !options.sVoice.empty()) return refuse("a voice is learned or used, not both");
  if (!options.sSpeaker.empty() && (options.bLearn || !options.sVoice.empty()))
    return refuse("--spk knows no voices");
  options.sMicrophone = files[0];
  options.sOut = files[1];
  return std::nullopt;
}
