#include <cinttypes>
#include <cstring>
#include <new>
#include <span>
#include <vector>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "common/Handle.h"
#include "engine/Glob.h"
#include "rtp/G711.h"
#include "rtp/MyRtp.h"
#include "rtp/RateConversion.h"

namespace {

constexpr const char* kFunction = "MyRtp::init";

void threadPool(sRtpSessionPair& pair) {
  pair.pcFreeMsg = pair.pcMsgBuffers[0].data();
  for (int i = 0; i < kNumMessageBuffers; ++i) {
    char* next = i + 1 < kNumMessageBuffers ? pair.pcMsgBuffers[i + 1].data() : nullptr;
    std::memcpy(pair.pcMsgBuffers[i].data(), &next, sizeof next);
  }
}

// Samples of a headerless tone file; empty without a file. `name` is "OK" or "fail".
std::vector<std::int16_t> readTone(const char* path, const char* name) {
  std::vector<std::int16_t> samples;
  const File file = openFile(path, "rbe");
  if (!file) {
    Log::warning(kFunction, "can not open %s tone file", name);
    return samples;
  }
  samples.reserve(kMaxToneBytes);
  unsigned char bytes[2];
  while (std::fread(bytes, sizeof bytes, 1, file.get()) == 1) {
    samples.push_back(static_cast<std::int16_t>(bytes[0] | bytes[1] << 8));
    if (samples.size() == kMaxToneBytes) {
      Log::warning(kFunction, "too many samples in %s tone ignoring them", name);
      break;
    }
  }
  return samples;
}

void encodeG722(std::vector<std::int16_t> samples, sToneBuffer& tone) {
  const int length = static_cast<int>(samples.size());
  samples.resize(samples.size() * 2);
  duplicateNumberOfSamples(samples.data(), length);
  sGWBEncode_t encoder;
  myGWB.encodeInit(&encoder, kG722BitRate);
  myGWB.encode(&encoder, reinterpret_cast<char*>(tone.pcData.data()), samples.data(), 2 * length);
  tone.iLength = length;
}

void encodeG711(const std::vector<std::int16_t>& samples, const std::array<std::uint8_t, 8192>& codes,
                sToneBuffer& tone) {
  tone.iLength = 0;
  for (const std::int16_t sample : samples) {
    tone.pcData[tone.iLength++] = codes[static_cast<std::uint16_t>(sample) >> 3];
  }
}

}  // namespace

int MyRtp::init() {
  try {
    const std::int64_t needed = descriptorsFor(iNumCallsToFilter);
    if (needed > kMaxDescriptors) {
      Log::error(kFunction, "Not enough file descriptors to support so many calls %d < %" PRId64,
                 kMaxDescriptors, needed);
      return 2;
    }
    if (const std::int64_t limit = raiseDescriptorLimit(); limit < needed)
      Log::warning(kFunction,
                   "The process may have %" PRId64 " file descriptors, %d calls may need %" PRId64
                   ": the last of them stay silent\n",
                   limit, iNumCallsToFilter, needed);
    if (!allocatePairs(iNumCallsToFilter)) {
      Log::error(kFunction, "can not allocate");
      return 2;
    }
    if (!initializeEngine()) {
      Log::error(kFunction, "error in package init\n");
      return 2;
    }
    initializeCodecTables();
    loadTone(pcDTMFFailToneFile.c_str(), "fail", psFailTones);
    loadTone(pcDTMFOKToneFile.c_str(), "OK", psOKTones);
    for (const sCodecRow& row : kCodecRows) psCodecTiming[row.eCodec] = row.sTiming;
    return 0;
  } catch (...) {
    Log::error(kFunction, "exception caught");
    return 2;
  }
}

bool MyRtp::allocatePairs(int numPairs) {
  finishEndings();
  iMaxPairIndex = -1;
  psPairs.reset(new (std::nothrow) sRtpSessionPair[static_cast<std::size_t>(numPairs)]);
  if (!psPairs || !pairIndex.allocate(numPairs)) return false;
  for (int i = 0; i < numPairs; ++i) {
    psPairs[i].iPairIndex = i;
    threadPool(psPairs[i]);
  }
  return true;
}

bool MyRtp::initializeEngine() {
  sKestrovaPackage package{};
  package.iAPIVersion = KESTROVA_API_VERSION;
  package.pcBinDirectory = Glob::pcKestrovaBin.c_str();
  package.iCPUPower = iCPUPower;
  return KestrovaPackageInit(&package) == 0;
}

// Eight neighbouring samples share one code in either law (see G711.h), so it does not matter which of them
// fills the entry last.
void MyRtp::initializeCodecTables() {
  for (int sample = -32768; sample <= 32767; ++sample) {
    const int index = static_cast<std::uint16_t>(sample) >> 3;
    pucLinearToALaw[index] = linear2alaw(static_cast<std::int16_t>(sample));
    pucLinearToULaw[index] = linear2ulaw(static_cast<std::int16_t>(sample));
  }
  for (int code = 0; code < 256; ++code) {
    psALawToLinear[code] = alaw2linear(static_cast<unsigned char>(code));
    psULawToLinear[code] = ulaw2linear(static_cast<unsigned char>(code));
  }
}

void MyRtp::loadTone(const char* path, const char* name, std::array<sToneBuffer, kNumCodecValues>& tones) {
  for (sToneBuffer& tone : tones) tone.iLength = 0;
  if (*path == '\0') return;
  const std::vector<std::int16_t> samples = readTone(path, name);
  if (samples.empty()) return;
  encodeG711(samples, pucLinearToALaw, tones[eCodecPCMA]);
  encodeG711(samples, pucLinearToULaw, tones[eCodecPCMU]);
  encodeG722(samples, tones[eCodecG722]);
}
