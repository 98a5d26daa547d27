// learned_run [kestrova-wav's options]: learns voices from WAV files and cleans WAV files with them.
//
// Standard input has a line per task, its words separated by tabs; for each a line of JSON is printed:
//
//   learn IN.wav PROFILE
//     outcome (KESTROVA_REGISTRATION_...), likeness of what was heard with itself, pattern records, ms that
//     the registration's end took, CPU time per second of audio
//   clean PROFILE IN.wav OUT.wav
//     CPU time per second of audio, memory, jumps that were tested and runs that were kept; per self verb its
//     first and last sample time, the score behind the verdict, and the verdict
//
// PROFILE "-" cleans without a voice. The output starts with the sample that the input starts with.
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

#include "engine/analysis/TalkerSplit.h"
#include "engine/MyChannel.h"
#include "tools/kestrova-wav-files.h"
#include "tools/kestrova-wav-options.h"
#include "tools/kestrova-wav-voice.h"

namespace {

constexpr std::size_t kFrame = 32;  // samples at 8 kHz

double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Memory of the process that is in use.
long residentKb() {
  long lPages = 0;
  std::ifstream file("/proc/self/statm");
  file >> lPages >> lPages;
  return lPages * (sysconf(_SC_PAGESIZE) / 1024);
}

void check(bool bDone, const std::string& sWhat) {
  if (!bDone) throw std::runtime_error(sWhat);
}

struct sVerb {
  int iIdentity;
  int iFirst;
  int iLast;
  float fScore;
  bool bOwn;
};

// Notes the self verbs that have ended since.
void noteVerbs(std::vector<sVerb>& verbs) {
  FirstScan& scan = *KestrovapMyChannels[0].pFirstScan;
  const SourceSeparation& separation = *KestrovapMyChannels[0].pSourceSeparation;
  for (int i = 0; i < scan.closedSegments(); ++i) {
    const sSegment& segment = scan.closedSegment(i);
    if (segment.type != kSelfVerb || (!verbs.empty() && segment.iIdentity <= verbs.back().iIdentity))
      continue;
    verbs.push_back({segment.iIdentity, segment.iStartTime, segment.iEndTime, separation.scoreOf(segment),
                     separation.verdictOn(segment) == SourceSeparation::Verdict::kLearnedVoice});
  }
}

// A whole file through the channel; the CPU time it took.
double process(const Wav& in, Wav* pOut, std::vector<sVerb>* pVerbs) {
  const std::size_t uFrame = kFrame * static_cast<std::size_t>(in.iRate / 8000);
  std::vector<std::int16_t> frame(uFrame);
  double dTook = 0;
  for (std::size_t u = 0; u + uFrame <= in.samples.size(); u += uFrame) {
    std::copy_n(in.samples.data() + u, uFrame, frame.data());
    sKestrovaFrameResult result{};
    const double dStart = cpuSeconds();
    check(KestrovaProcessFrame(0, frame.data(), static_cast<int>(2 * uFrame), frame.data(), &result) == 0,
          "frame");
    dTook += cpuSeconds() - dStart;
    if (pOut != nullptr)
      pOut->samples.insert(pOut->samples.end(), frame.begin(), frame.begin() + result.iOutBytes / 2);
    if (pVerbs != nullptr) noteVerbs(*pVerbs);
  }
  return dTook / (static_cast<double>(in.samples.size()) / in.iRate);
}

void learn(sKestrovaInit init, const std::string& sIn, const std::string& sProfile) {
  const Wav in = readWav(sIn);
  init.iSampleRate = in.iRate;
  init.bStartRegistration = 1;
  check(KestrovaIpsavoxInit(0, &init) == 0, "starting a registration");
  const double dCpu = process(in, nullptr, nullptr);
  const double dStart = cpuSeconds();
  std::string sRefused;
  try {
    writeVoice(0, sProfile);
  } catch (const std::runtime_error& error) {
    sRefused = error.what();
  }
  const double dEnd = cpuSeconds() - dStart;
  std::int32_t iOutcome = 0;
  check(KestrovaGetRegistrationOutcome(0, &iOutcome) == 0, "outcome");
  const int iPatterns = KestrovapMyChannels[0].pSourceSeparation->patternRecords();
  const sTalkerSplit split = splitTalkers(KestrovapMyChannels[0].pSourceSeparation->patterns());
  std::printf(
      "{\"outcome\":%d,\"likeness\":%.2f,\"gap\":%.2f,\"contrast\":%.2f,\"patterns\":%d,\"end_ms\":%.1f,"
      "\"cpu_ms_per_s\":%.3f,"
      "\"rss_kb\":%ld}\n",
      iOutcome, static_cast<double>(split.fLikeness), static_cast<double>(split.fPitchGap),
      static_cast<double>(split.fPitchContrast), iPatterns, 1000 * dEnd, 1000 * dCpu, residentKb());
}

void clean(sKestrovaInit init, const std::string& sProfile, const std::string& sIn, const std::string& sOut) {
  const Wav in = readWav(sIn);
  init.iSampleRate = in.iRate;
  VoiceProfile profile;
  if (sProfile != "-") profile = readVoice(sProfile);
  init.psSpeakerInformation = profile.speaker();
  check(KestrovaIpsavoxInit(0, &init) == 0, "loading " + sProfile);
  Wav out{{}, in.iRate};
  std::vector<sVerb> verbs;
  const double dCpu = process(in, &out, &verbs);
  out.samples.resize(in.samples.size());
  writeWav(sOut, out);
  const MySbt* pSbt = KestrovapMyChannels[0].psSbt[0].get();
  std::printf("{\"cpu_ms_per_s\":%.3f,\"rss_kb\":%ld,\"tested\":%d,\"kept\":%d,\"verbs\":[", 1000 * dCpu,
              residentKb(), pSbt != nullptr ? pSbt->tested() : 0, pSbt != nullptr ? pSbt->kept() : 0);
  const char* pcBefore = "";
  for (const sVerb& verb : verbs) {
    std::printf("%s[%d,%d,%.3f,%d]", pcBefore, verb.iFirst, verb.iLast, static_cast<double>(verb.fScore),
                verb.bOwn);
    pcBefore = ",";
  }
  std::printf("]}\n");
}

void run(const Options& options, const std::string& sLine) {
  std::vector<std::string> words;
  std::istringstream line(sLine);
  for (std::string sWord; std::getline(line, sWord, '\t');) words.push_back(sWord);
  if (words.size() == 3 && words[0] == "learn") {
    learn(options.init, words[1], words[2]);
  } else if (words.size() == 4 && words[0] == "clean") {
    clean(options.init, words[1], words[2], words[3]);
  } else {
    throw std::runtime_error("no such task: " + sLine);
  }
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<char*> words(argv, argv + argc);
    char pcNone[] = "-";
    words.insert(words.end(), 2, pcNone);  // in the place of the file names
    Options options;
    if (const auto iStatus = parseOptions(static_cast<int>(words.size()), words.data(), options))
      return *iStatus;
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, options.iCPUPower};
    check(KestrovaPackageInit(&package) == 0, "the engine does not start");
    for (std::string sLine; std::getline(std::cin, sLine);) run(options, sLine);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "learned_run: %s\n", error.what());
    return 1;
  }
}
