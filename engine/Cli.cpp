#include "engine/Cli.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/Glob.h"
#include "engine/MyChannel.h"

Cli KestrovaCli;

namespace {

MyChannel& channel() {
  return KestrovapMyChannels[0];
}

// Decimal text as a number; text without one is 0. The bound keeps every scaling below within 32 bits and far
// exceeds every range.
int numberOf(std::string_view text) {
  constexpr long kBound = 1'000'000;
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  if (text.starts_with('+')) text.remove_prefix(1);
  long lValue = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), lValue);
  if (parsed.ec == std::errc::result_out_of_range) return text.starts_with('-') ? -kBound : kBound;
  return static_cast<int>(std::clamp(lValue, -kBound, kBound));
}

struct sParam {
  std::string_view name;
  void (*set)(std::string_view value);  // null: read only
  void (*print)(std::FILE* pFile);
};

constexpr std::array<sParam, 11> psParams{{
    {"AudioDirectory", [](std::string_view value) { Glob::sAudioDirectory.assignCut(value); },
     [](std::FILE* pFile) { std::fprintf(pFile, "%s ", Glob::sAudioDirectory.c_str()); }},
    {"MinAmplitudeForPotentialSegment",
     [](std::string_view value) { channel().iMinAmplitudeForPotentialSegment = numberOf(value); },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().iMinAmplitudeForPotentialSegment); }},
    {"FrameBufferSize",
     [](std::string_view value) {
       channel().iFrameSize = std::clamp(numberOf(value) * 8, kCycleSamples, kMaxFrameSamples);
       channel().iSamplesPerFrameAtRate = channel().iFrameSize * channel().rateFactor();
     },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().iFrameSize / 8); }},
    {"LookAheadBufferSize",
     [](std::string_view value) {
       channel().iInitialDelay = std::clamp(numberOf(value) * 8, 0, kMaxInitialDelaySamples);
     },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().iInitialDelay / 8); }},
    {"MaxDelayBufferSize",
     [](std::string_view value) { channel().setMaxNumCyclesInDelayBuffer(numberOf(value) / 4); },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().iMaxNumCyclesInDelayBuffer * 4); }},
    {"Frequency",
     [](std::string_view value) {
       KestrovaCli.setChannelRealFormat(channel(), numberOf(value), channel().b16Bit);
     },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().iRealFrequency); }},
    {"BitsPerSample",
     [](std::string_view value) {
       KestrovaCli.setChannelRealFormat(channel(), channel().iRealFrequency, numberOf(value) == 16);
     },
     [](std::FILE* pFile) { std::fprintf(pFile, "%d ", channel().b16Bit ? 16 : 8); }},
    {"LastRegistrationFile", nullptr,
     [](std::FILE* pFile) { std::fprintf(pFile, "%s ", channel().pcSpeakerName.c_str()); }},
    {"StatusRegistration", nullptr,
     [](std::FILE* pFile) {
       std::fprintf(pFile, "%s ", channel().bRegistrationCompleted ? "true" : "false");
     }},
    {"NewLine", nullptr, [](std::FILE* pFile) { std::fputc('\n', pFile); }},
    {"Sync", nullptr, [](std::FILE* pFile) { std::fputs("Sync ", pFile); }},
}};

const sParam* findParam(std::string_view name) {
  const auto* pParam =
      std::find_if(psParams.begin(), psParams.end(), [&](const sParam& param) { return param.name == name; });
  return pParam == psParams.end() ? nullptr : pParam;
}

// Replaces whatever has this name by a named pipe that everyone may use.
int createPipe(const char* pcName) {
  if (::unlink(pcName) != 0 && errno != ENOENT) return errno;
  if (::mkfifo(pcName, 0770) != 0) return errno;
  // chmod oug+rwx, without handing the name to a shell
  return ::chmod(pcName, 0777) != 0 ? errno : 0;
}

struct CloseFile {
  void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};

}  // namespace

void Cli::setParam(std::string_view name, std::string_view value) {
  const sParam* pParam = findParam(name);
  if (pParam != nullptr && pParam->set != nullptr) pParam->set(value);
}

void Cli::printParam(std::FILE* pFile, const char* pcText) {
  pcParamName.clear();
  if (std::sscanf(pcText, "%255s", pcParamName.data()) != 1) pcParamName.clear();
  const sParam* pParam = findParam(pcParamName);
  if (pParam == nullptr) {
    std::fputs(pcText, pFile);
    return;
  }
  pParam->print(pFile);
}

void Cli::printObject(std::FILE* /*pFile*/, std::string_view /*name*/) {}

void Cli::setChannelRealFormat(MyChannel& target, int iRate, bool bIs16Bit) {
  target.b16Bit = bIs16Bit;
  target.iRealFrequency = std::clamp(iRate, kAnalysisRate, kMaxChannelRate);
  target.updateRealFrequency();
}

void Cli::setSpkRealFormat(int iRate, bool bIs16Bit) {
  setChannelRealFormat(KestrovapMyChannels[1], iRate, bIs16Bit);
}

void Cli::readLines(std::FILE* pInput) {
  do {
    std::fputs("aaa->", stdout);
    std::fflush(stdout);
  } while (std::fgets(pcLine.data(), static_cast<int>(pcLine.maxLength()) + 1, pInput) != nullptr);
}

int Cli::runOnPipe(const char* pcInputPipe) {
  for (;;) {
    const std::unique_ptr<std::FILE, CloseFile> pInput(std::fopen(pcInputPipe, "r"));
    if (!pInput) return errno;
    readLines(pInput.get());
  }
}

int Cli::run(const char* pcInputPipe, const char* pcOutputPipe) {
  if (pcInputPipe == nullptr || pcOutputPipe == nullptr) {
    readLines(stdin);
    return 0;
  }
  for (const char* pcName : {pcInputPipe, pcOutputPipe}) {
    if (const int iError = createPipe(pcName); iError != 0) return iError;
  }
  return runOnPipe(pcInputPipe);
}
