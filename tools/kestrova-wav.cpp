// kestrova-wav: the voice engine on WAV files, for listening and for measurement.
//
//   kestrova-wav [options] MICROPHONE.wav OUT.wav              noise channel
//   kestrova-wav learn [options] SPEECH.wav VOICE              learns a voice, for --voice
//   kestrova-wav [options] --spk SPEAKER.wav MIC.wav OUT.wav   echo channel, with --combo also noise
//   reduction
//
// --csv writes a row per frame, --picture spectrograms with the engine's decisions.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "engine/Kestrova.h"
#include "tools/kestrova-wav-files.h"
#include "tools/kestrova-wav-options.h"
#include "tools/kestrova-wav-picture.h"
#include "tools/kestrova-wav-voice.h"

namespace {

constexpr std::uint16_t kChannel = 0;
constexpr int kCycleSamples = 32;          // at 8 kHz
constexpr std::size_t kProgressFrom = 60;  // seconds of audio from which on progress is shown

struct CloseFile {
  void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

void check(int iResult, const char* pcWhat) {
  if (iResult != 0) throw std::runtime_error(std::string(pcWhat) + " failed with " + std::to_string(iResult));
}

File openCsv(const std::string& sName) {
  if (sName.empty()) return nullptr;
  File pFile(std::fopen(sName.c_str(), "w"));
  if (!pFile) throw std::runtime_error(sName + ": " + std::strerror(errno));
  std::fputs(
      "time_s,out_samples,speech,confident,noise_level,gain_percent,echo_level,speaker_level,dtmf,digits,"
      "state,talk_score,near_end,converged,filter,delay_samples,echo_gain,howling\n",
      pFile.get());
  return pFile;
}

Decision decisionOf(const sKestrovaFrameResult& result) {
  if (result.iOutBytes == 0) return Decision::eNothing;
  if (result.iDtmf != 0) return Decision::eDtmf;
  if (result.iSpeech == 0) return Decision::eSilence;
  return result.iConfidentVoice != 0 ? Decision::eConfident : Decision::eSpeech;
}

// The echo stage alone does not look for speech: what its canceller takes for near-end talk stands for it.
void takeTalkOfCanceller(sKestrovaFrameResult& result) {
  sKestrovaAECStatus aec{};
  if (KestrovaGetAECInternalStatusParameters(kChannel, &aec) != 0) return;
  result.iSpeech = aec.bFlags[KESTROVA_AEC_NO_ALGORITHM] != 0 || aec.bFlags[KESTROVA_AEC_NEAR_END_TALK] != 0;
}

const char* nameOf(Decision decision) {
  constexpr std::array pcNames{"start", "silence", "speech", "confident", "dtmf"};
  return pcNames[static_cast<std::size_t>(decision)];
}

void writeCsvRow(std::FILE* pFile, double dTime, const sKestrovaFrameResult& result) {
  char pcDigits[100] = "";
  if (result.iDtmf != 0 && KestrovaGetLastDTMFBuffer(kChannel, pcDigits, sizeof pcDigits) != 0)
    pcDigits[0] = '\0';
  // Without an echo channel the canceller's columns are 0.
  sKestrovaAECStatus aec{};
  if (KestrovaGetAECInternalStatusParameters(kChannel, &aec) != 0) aec = {};
  std::fprintf(pFile, "%.3f,%d,%d,%d,%d,%d,%d,%d,%d,%s,%s,%d,%d,%d,%d,%d,%d,%d\n", dTime,
               result.iOutBytes / 2, result.iSpeech, result.iConfidentVoice, result.iNoiseLevel,
               result.iGainPercent, result.iEchoLevel, result.iSpeakerMatch, result.iDtmf, pcDigits,
               nameOf(decisionOf(result)), aec.iValues[KESTROVA_AEC_TALK_SCORE],
               aec.bFlags[KESTROVA_AEC_NEAR_END_TALK], aec.bFlags[KESTROVA_AEC_CONVERGED],
               aec.bFlags[KESTROVA_AEC_FILTER_IN_USE], aec.iValues[KESTROVA_AEC_DELAY],
               aec.iValues[KESTROVA_AEC_GAIN], aec.bFlags[KESTROVA_AEC_HOWLING]);
}

class Run {
 public:
  explicit Run(const Options& chosen)
      : options(chosen), mic(readWav(chosen.sMicrophone)), pCsv(openCsv(chosen.sCsv)) {
    if (!options.sSpeaker.empty()) spk = readWav(options.sSpeaker);
    if (!spk.samples.empty() && spk.iRate != mic.iRate) {
      throw std::runtime_error(options.sSpeaker + ": its rate differs from the microphone's");
    }
    options.init.iSampleRate = mic.iRate;
    openChannel();
  }

  void process() {
    const std::size_t uFrame =
        static_cast<std::size_t>(kCycleSamples * options.init.sFrameUnits * mic.iRate / 8000);
    std::vector<std::int16_t> frame(uFrame);
    for (std::size_t uPosition = 0; uPosition < mic.samples.size(); uPosition += uFrame) {
      feedSpeaker(uPosition, frame);
      cut(mic.samples, uPosition, frame);
      sKestrovaFrameResult result{};
      check(processFrame(frame, result), "processing a frame");
      if (hasSpeaker() && !options.bCombo) takeTalkOfCanceller(result);
      out.insert(out.end(), frame.begin(), frame.begin() + result.iOutBytes / 2);
      if (pCsv) writeCsvRow(pCsv.get(), static_cast<double>(uPosition) / mic.iRate, result);
      if (result.iOutBytes > 0) decisions.push_back(decisionOf(result));
      showProgress(uPosition + uFrame);
    }
    if (pCsv && (std::fflush(pCsv.get()) != 0 || std::ferror(pCsv.get()) != 0))
      throw std::runtime_error(options.sCsv + ": " + std::strerror(errno));
    if (!options.sPicture.empty()) draw(uFrame);
    if (options.bAlign) align();
    if (options.bLearn) {
      writeVoice(kChannel, options.sOut);
    } else {
      writeWav(options.sOut, {out, mic.iRate});
    }
  }

 private:
  [[nodiscard]] bool hasSpeaker() const { return !spk.samples.empty(); }

  void openChannel() {
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, options.iCPUPower};
    check(KestrovaPackageInit(&package), "initialising the engine");
    if (hasSpeaker()) {
      sKestrovaInit echo = options.init;
      echo.bRemoveNonSelfFrequencies = 1;
      echo.sMaxNumCyclesInDelayBuffer = static_cast<std::uint16_t>(options.iAecDelay);
      check(KestrovaAECInit(kChannel, &echo), "initialising the echo channel");
    }
    if (options.bLearn || !options.sVoice.empty()) {
      openVoiceChannel();
    } else if (!hasSpeaker() || options.bCombo) {
      check(KestrovaGroupInit(kChannel, &options.init), "initialising the noise channel");
    }
  }

  void openVoiceChannel() const {
    sKestrovaInit init = options.init;
    init.bStartRegistration = options.bLearn;
    VoiceProfile voice;
    if (!options.bLearn) voice = readVoice(options.sVoice);
    init.psSpeakerInformation = voice.speaker();
    check(KestrovaIpsavoxInit(kChannel, &init), "initialising the voice channel");
  }

  // A frame of the samples from uPosition on, filled up with silence at the end of the file.
  static void cut(const std::vector<std::int16_t>& samples, std::size_t uPosition,
                  std::vector<std::int16_t>& frame) {
    const std::size_t uCount =
        uPosition < samples.size() ? std::min(frame.size(), samples.size() - uPosition) : 0;
    std::copy_n(samples.data() + (uCount > 0 ? uPosition : 0), uCount, frame.begin());
    std::fill(frame.begin() + static_cast<std::ptrdiff_t>(uCount), frame.end(), std::int16_t{0});
  }

  void feedSpeaker(std::size_t uPosition, std::vector<std::int16_t>& frame) const {
    if (!hasSpeaker()) return;
    cut(spk.samples, uPosition, frame);
    check(KestrovaAECProcessSpkFrame(kChannel, frame.data(), static_cast<int>(frame.size() * 2)),
          "processing a loudspeaker frame");
  }

  int processFrame(std::vector<std::int16_t>& frame, sKestrovaFrameResult& result) const {
    const auto process = !hasSpeaker()    ? KestrovaProcessFrame
                         : options.bCombo ? KestrovaComboAECNRProcessFrame
                                          : KestrovaAECProcessMicFrame;
    return process(kChannel, frame.data(), static_cast<int>(frame.size() * 2), frame.data(), &result);
  }

  // The engine gives nothing for the first frames: its delay. With --align the output starts with the sample
  // that the input starts with, and the end, still inside the engine, is silence.
  void align() { out.resize(mic.samples.size()); }

  void draw(std::size_t uFrame) const {
    drawPicture(options.sPicture, {.sTitle = std::filesystem::path(options.sMicrophone).filename().string() +
                                             ", " + std::to_string(mic.iRate) + " Hz",
                                   .iRate = mic.iRate,
                                   .before = mic.samples,
                                   .after = out,
                                   .decisions = decisions,
                                   .uFrame = uFrame,
                                   .bEcho = hasSpeaker()});
  }

  // A line that counts on a terminal; ten lines in all where it goes to a file.
  void showProgress(std::size_t uDone) {
    const auto uRate = static_cast<std::size_t>(mic.iRate);
    const std::size_t uAll = mic.samples.size() / uRate;
    const bool bTerminal = isatty(STDERR_FILENO) != 0;
    const std::size_t uStep = bTerminal ? 1 : std::max<std::size_t>(1, uAll / 10);
    if (uAll < kProgressFrom || uDone / uRate / uStep == uShown) return;
    uShown = uDone / uRate / uStep;
    const bool bEnd = uDone >= mic.samples.size();
    std::fprintf(stderr, "%s%zu of %zu s%s", bTerminal ? "\r" : "", std::min(uDone / uRate, uAll), uAll,
                 bEnd || !bTerminal ? "\n" : "");
  }

  Options options;
  Wav mic;
  Wav spk;
  File pCsv;
  std::vector<std::int16_t> out;
  std::vector<Decision> decisions;  // of the frames that gave something
  std::size_t uShown = 0;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    if (const auto iStatus = parseOptions(argc, argv, options)) return *iStatus;
    Run(options).process();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrova-wav: %s\n", error.what());
    return 1;
  }
}
