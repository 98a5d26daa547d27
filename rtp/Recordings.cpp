// The files that a call leaves: recordings, the order in which their frames were processed, and the lines of
// the statistics file.
#include <algorithm>
#include <cstring>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "rtp/TimeText.h"

namespace {

constexpr const char* kOpenFunction = "MyRtp::openSessionPair";
constexpr const char* kCloseFunction = "MyRtp::closeSessionPair";
constexpr int kFileCounterModulus = 10;

// What the names of one call's files are made of.
struct sRecordingNames {
  FixedText<100> pcTime;
  PerSide<FixedText<166>> pcParty;
};

sRecordingNames namesOf(sRtpSessionPair& record, std::time_t callStart) {
  sRecordingNames names;
  names.pcTime.assignCut(timeText(callStart).data());
  MyRtp::replaceSpecialChars(names.pcTime.data(), false);
  (void)names.pcTime.appendFormat("_%d%d", record.iPairIndex, record.iFileCounter);
  record.iFileCounter = (record.iFileCounter + 1) % kFileCounterModulus;
  names.pcParty = record.pcPartyName;
  for (auto& name : names.pcParty) MyRtp::replaceSpecialChars(name.data(), false);
  return names;
}

// Opens library + time + rest, for appending.
template <typename... Rest>
sRecording openRecording(std::string_view library, const sRecordingNames& names, const char* mode,
                         Rest... rest) {
  sRecording recording;
  auto& path = recording.pcPath;
  bool fits = path.assign(library) && path.append(names.pcTime);
  for (const std::string_view part : {std::string_view(rest)...}) fits = fits && path.append(part);
  MyRtp::replaceSpecialChars(path.data(), true);
  if (fits) recording.pfFile = openFile(path.c_str(), mode);
  if (!recording.pfFile) Log::warning(kOpenFunction, "unable to open file %s\n", path.c_str());
  return recording;
}

// Whatever did not reach the file, in its last bytes or long before, is said here, once.
void finishRecording(sRecording& recording, const char* function) {
  if (!recording.pfFile) return;
  const bool bFailed = std::ferror(recording.pfFile.get()) != 0;
  if (std::fclose(recording.pfFile.release()) != 0 || bFailed)
    Log::warning(function, "unable to write to recording %s\n", recording.pcPath.c_str());
}

bool isProcessed(const sRtpSessionPair& record, int side) {
  return record.bNoiseReduction[side] || record.bAecMic[side] || record.bAecSpk[side];
}

void openAudio(sRtpSessionPair& record, std::string_view library, const sRecordingNames& names,
               const char* kind, PerSide<sRecording>& files) {
  if (library.empty()) return;
  for (int side = 0; side < 2; ++side) {
    if (!isProcessed(record, side)) continue;
    files[side] = openRecording(library, names, "ab+e", "-", names.pcParty[side].view(), "-",
                                names.pcParty[1 - side].view(), kind);
  }
}

// Without a statistics file: empty, silently.
File openStatistics(const char* function) {
  if (pcStatisticsFile.empty()) return {};
  File file = openFile(pcStatisticsFile.c_str(), "ae");
  if (!file) Log::warning(function, "unable to open statistics file %s\n", pcStatisticsFile.c_str());
  return file;
}

void finishStatistics(std::FILE* file, const char* function) {
  if (std::fflush(file) != 0)
    Log::warning(function, "unable to write to statistics file %s\n", pcStatisticsFile.c_str());
}

}  // namespace

void MyRtp::replaceSpecialChars(char* text, bool forPath) {
  const char* const special = forPath ? "?@\n*<>|" : ":\\/@?\n *<>|";
  while ((text = std::strpbrk(text, special)) != nullptr) *text++ = '_';
}

void MyRtp::openRecordings(int pair, std::time_t callStart) {
  sRtpSessionPair& record = psPairs[pair];
  const sRecordingNames names = namesOf(record, callStart);
  openAudio(record, pcOrigRecordingLibrary, names, "-orig", record.pfOrigRecording);
  openAudio(record, pcCleanRecordingLibrary, names, "-clean", record.pfCleanRecording);
  const auto isOpen = [](const sRecording& recording) { return recording.pfFile != nullptr; };
  if (std::none_of(record.pfOrigRecording.begin(), record.pfOrigRecording.end(), isOpen) &&
      std::none_of(record.pfCleanRecording.begin(), record.pfCleanRecording.end(), isOpen)) {
    return;
  }
  const std::string_view library =
      pcCleanRecordingLibrary.empty() ? pcOrigRecordingLibrary.view() : pcCleanRecordingLibrary.view();
  for (int side = 0; side < 2; ++side) {
    record.pfSynchFile[side] =
        openRecording(library, names, "ab+e", "-", names.pcParty[side].view(), "-synch");
  }
  sRecording rate = openRecording(library, names, "a+e", "-freq");
  if (rate.pfFile) std::fprintf(rate.pfFile.get(), "%d\n", record.iSampleRate);
  finishRecording(rate, kOpenFunction);
}

void MyRtp::closeRecordings(int pair) {
  sPairRecordings& recordings = psPairs[pair];
  for (PerSide<sRecording>* kind :
       {&recordings.pfOrigRecording, &recordings.pfCleanRecording, &recordings.pfSynchFile}) {
    for (sRecording& recording : *kind) finishRecording(recording, kCloseFunction);
  }
}

void MyRtp::writeOpenLine(int pair) {
  const sRtpSessionPair& record = psPairs[pair];
  const File file = openStatistics(kOpenFunction);
  if (!file) return;
  std::fprintf(file.get(), "%s Open session (%d): %s<->%s\n", timeText(Clock::now()).data(), pair,
               record.pcPartyName[0].c_str(), record.pcPartyName[1].c_str());
  finishStatistics(file.get(), kOpenFunction);
}

void MyRtp::writeClosingLine(int pair) {
  if (pcStatisticsFile.empty()) return;
  calcMOS(pair);
  const File file = openStatistics(kCloseFunction);
  if (!file) return;
  const sRtpSessionPair& record = psPairs[pair];
  const char* const name0 = record.pcPartyName[0].c_str();
  const char* const name1 = record.pcPartyName[1].c_str();
  const sCallFigures f0 = figuresOf(0, pair);
  const sCallFigures f1 = figuresOf(1, pair);
  std::fprintf(file.get(),
               "%s Closed session (%d) (%d seconds). "
               "%s->%s:  Confident Voice (%d%%) Avg Noise (%d) Max Noise (%d) Avg AGC (%d) Max AGC (%d) "
               "Avg Echo (%d) Max Echo (%d) Avg Jitter (%d ms) Max Jitter (%d ms) Packet Loss (%.2f%%) "
               "Avg Delay (%d ms) Max Delay (%d ms) Avg MOS (%.2f) Min MOS (%.2f) CallID (%s). "
               "%s->%s: Confident Voice (%d%%) Avg Noise (%d) Max Noise (%d) Avg AGC (%d) Max AGC (%d) "
               "Avg Echo (%d) Max Echo (%d) Avg Jitter (%d ms) Max Jitter (%d ms) Packet Loss (%.2f%%) "
               "Avg Delay (%d ms) Max Delay (%d ms) Avg MOS (%.2f) Min MOS (%.2f) CallID (%s)\n",
               timeText(Clock::now()).data(), pair, callSeconds(pair),  //
               name0, name1, f0.iConfidentVoicePercent, f0.iAvgNoise, f0.iMaxNoise, f0.iAvgAgc, f0.iMaxAgc,
               f0.iAvgEcho, f0.iMaxEcho, f0.iAvgJitterMs, f0.iMaxJitterMs, f0.fPacketLossPercent,
               f0.iAvgDelayMs, f0.iMaxDelayMs, f0.fAvgMos, f0.fMinMos, record.pcCallID[0].c_str(),  //
               name1, name0, f1.iConfidentVoicePercent, f1.iAvgNoise, f1.iMaxNoise, f1.iAvgAgc, f1.iMaxAgc,
               f1.iAvgEcho, f1.iMaxEcho, f1.iAvgJitterMs, f1.iMaxJitterMs, f1.fPacketLossPercent,
               f1.iAvgDelayMs, f1.iMaxDelayMs, f1.fAvgMos, f1.fMinMos, record.pcCallID[1].c_str());
  finishStatistics(file.get(), kCloseFunction);
}
