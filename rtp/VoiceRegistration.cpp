// Recording a talker's voice during a call, on command, and what is left of it: the learned profile and a WAV
// copy of what was said.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "rtp/VoiceProfile.h"

namespace {

constexpr const char* kStartFunction = "MyRtp::doRegistration";
constexpr const char* kStopFunction = "MyRtp::doStopRegistration";
constexpr const char* kNoNoiseReduction = "how did we start registration if ther is no noise cleaning ?\n";

constexpr std::string_view kRawEnding = ".raw";

// The library (299), a name (as many digits as a command holds) and an ending.
using ProfilePath = FixedText<299 + kMaxDtmfDigits + 4 + 1>;

ProfilePath profilePath(std::string_view name) {
  ProfilePath path;
  (void)(path.assign(pcRegistrationLibrary.load()) && path.append(name));
  return path;
}

// The files of one registration. Their names are made once: a reload may change the library meanwhile.
struct sRegistrationFiles {
  explicit sRegistrationFiles(std::string_view name) : pcData(profilePath(name)) {
    (void)(pcRaw.assign(pcData) && pcRaw.append(kRawEnding));
    (void)(pcWave.assign(pcData) && pcWave.append(".wav"));
  }
  ProfilePath pcData;
  ProfilePath pcRaw;
  ProfilePath pcWave;
  File pfData;
  File pfRaw;
  File pfWave;
};

File openForRegistration(const ProfilePath& path, const char* mode) {
  File file = openFile(path.c_str(), mode);
  if (!file) Log::warning(kStartFunction, "unable to open file %s\n", path.c_str());
  return file;
}

// An existing profile is never replaced, not even by two calls that register the same name at once.
bool openDataFile(sRegistrationFiles& files) {
  bool exists = openFile(files.pcData.c_str(), "rbe") != nullptr;
  if (!exists) {
    files.pfData = openFile(files.pcData.c_str(), "wbxe");
    if (files.pfData) return true;
    exists = errno == EEXIST;
  }
  Log::warning(kStartFunction, exists ? "do not allow to override file %s\n" : "unable to open file %s\n",
               files.pcData.c_str());
  return false;
}

// Takes back what was opened: the name is free again. What an earlier registration left in the raw file
// stays.
void removeFiles(const sRegistrationFiles& files) {
  if (files.pfData) unlink(files.pcData.c_str());
  if (files.pfRaw && fileBytes(files.pfRaw.get()) == 0U) unlink(files.pcRaw.c_str());
  if (files.pfWave) unlink(files.pcWave.c_str());
}

bool openFiles(sRegistrationFiles& files) {
  if (!openDataFile(files)) return false;
  files.pfRaw = openForRegistration(files.pcRaw, "a+be");
  if (files.pfRaw) files.pfWave = openForRegistration(files.pcWave, "wbe");
  if (files.pfWave) return true;
  removeFiles(files);
  return false;
}

void closeFiles(sPairCommands& record, int side) {
  record.pfRegistrationData[side].reset();
  record.pfRegistrationRaw[side].reset();
  record.pfRegistrationWave[side].reset();
}

// Names become file names and must fit the record.
bool isUsableName(const sPairCommands& record, int side, std::string_view name,
                  const sRegistrationFiles& files) {
  if (name.size() <= record.pcRegistrationName[side].maxLength() &&
      files.pcRaw.size() <= record.pcRegistrationRawPath[side].maxLength()) {
    return true;
  }
  Log::warning(kStartFunction, "registration name is too long, %s\n", files.pcRaw.c_str());
  return false;
}

// No talker dials two sequences in a second. Whoever sends faster would fill the library with names that stay
// taken.
bool isDue(const sPairCommands& record, int side, const sRegistrationFiles& files) {
  if (record.tRegistrationStart[side] != Clock::steadyTime().tv_sec) return true;
  Log::warning(kStartFunction, "only one registration a second, not %s\n", files.pcData.c_str());
  return false;
}

// The recording as a WAV file. False when it could not be read or written whole.
bool copyToWave(std::FILE* raw, std::FILE* wave, int sampleRate) {
  const std::optional<std::uint32_t> bytes = fileBytes(raw);
  if (!bytes) return false;
  const std::uint32_t dataBytes = *bytes & ~1U;
  MyRtp::writeWaveHeader(wave, dataBytes, sampleRate);
  MyRtp::writeWaveData(raw, wave, dataBytes);
  return std::ferror(raw) == 0 && std::fflush(wave) == 0 && std::ferror(wave) == 0;
}

// Takes the learned voice from the engine into the data file. False, logged, when that fails.
bool saveProfile(std::uint16_t channel, std::FILE* data) {
  std::uint32_t bytes = 0;
  if (KestrovaCompleteRegistration(channel, &bytes) != 0) {
    Log::warning(kStopFunction, "unable to complete registration\n");
    std::int32_t outcome = 0;
    (void)KestrovaGetRegistrationOutcome(channel, &outcome);
    Log::warning(kStopFunction, "no voice was learned, %s\n", KestrovaGetRegistrationOutcomeText(outcome));
    return false;
  }
  VoiceProfile profile;
  if (!profile.allocate(bytes)) {
    Log::warning(kStopFunction, "unable to allocate place for pcSpeaker\n");
    return false;
  }
  if (KestrovaCopySpeakerInformationAfterRegistration(channel, profile.speaker()) != 0) {
    Log::warning(kStopFunction, "unable to copy registration information\n");
    return false;
  }
  if (!profile.writeLengthTo(data)) {
    Log::warning(kStopFunction, "unable to write PID - part 1\n");
    return false;
  }
  if (!profile.writeRecordTo(data)) {
    Log::warning(kStopFunction, "unable to write PID\n");
    return false;
  }
  return true;
}

}  // namespace

void MyRtp::doRegistration(int side, int pair, std::string_view name) {
  sRtpSessionPair& record = psPairs[pair];
  if (!record.bNoiseReduction[side]) return;
  sRegistrationFiles files(name);
  if (!isDue(record, side, files) || !isUsableName(record, side, name, files) || !openFiles(files)) {
    playFailTone(1 - side, pair);
    return;
  }
  record.tRegistrationStart[side] = Clock::steadyTime().tv_sec;
  if (record.bRegistering[side]) doAbortRegistration(side, pair);
  const std::uint16_t channel = channelOf(side, pair);
  sKestrovaInit init;
  fillKestrovaInitNoise(init, pair);
  init.bStartRegistration = 1;
  (void)KestrovaTerminate(channel);
  if (KestrovaIpsavoxInit(channel, &init) != 0) {
    Log::warning(kStartFunction, "unable to initialize kestrova channel %d\n", channel);
    removeFiles(files);
    playFailTone(1 - side, pair);
    return;
  }
  (void)record.pcRegistrationName[side].assign(name);
  (void)record.pcRegistrationRawPath[side].assign(files.pcRaw);
  record.pfRegistrationData[side] = std::move(files.pfData);
  record.pfRegistrationRaw[side] = std::move(files.pfRaw);
  record.pfRegistrationWave[side] = std::move(files.pfWave);
  record.bRegistering[side] = true;
  record.iRegistrationSamples[side] = 0;
  playOKTone(1 - side, pair);
}

std::string_view MyRtp::registeredProfile(int side, int pair) const {
  std::string_view path = psPairs[pair].pcRegistrationRawPath[side].view();
  path.remove_suffix(std::min(path.size(), kRawEnding.size()));
  return path;
}

void MyRtp::doStopRegistration(int side, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  if (!record.bNoiseReduction[side]) {
    Log::error(kStopFunction, kNoNoiseReduction);
    return;
  }
  record.bRegistering[side] = false;
  const std::uint16_t channel = channelOf(side, pair);
  const File raw = std::move(record.pfRegistrationRaw[side]);
  const File wave = std::move(record.pfRegistrationWave[side]);
  File data = std::move(record.pfRegistrationData[side]);
  profileWrites.begin(channel, registeredProfile(side, pair));
  const bool bSaved = saveProfile(channel, data.get());
  data.reset();
  profileWrites.end(channel);
  if (!bSaved) return;
  const char* const rawPath = record.pcRegistrationRawPath[side].c_str();
  if (copyToWave(raw.get(), wave.get(), record.iSampleRate))
    unlink(rawPath);
  else
    Log::warning(kStopFunction, "unable to copy %s to its WAV file, it stays\n", rawPath);
}

void MyRtp::doAbortRegistration(int side, int pair) {
  constexpr const char* kFunction = "MyRtp::doAbortRegistration";
  sRtpSessionPair& record = psPairs[pair];
  if (!record.bNoiseReduction[side]) {
    Log::error(kFunction, kNoNoiseReduction);
    return;
  }
  record.bRegistering[side] = false;
  if (KestrovaCompleteRegistration(channelOf(side, pair), nullptr) != 0) {
    Log::warning(kFunction, "unable to complete registration\n");
  }
  closeFiles(record, side);
}

// True with the voice in `profile`; else the reason was logged, but for the end of the call.
bool MyRtp::loadProfile(int side, int pair, std::string_view name, VoiceProfile& profile) {
  constexpr const char* kFunction = "MyRtp::doActivation";
  const ProfilePath path = profilePath(name);
  psPairs[pair].pcRegistrationName[side].assignCut(name);
  profileWrites.wait(path, psPairs[pair].bStopRequested);
  if (psPairs[pair].bStopRequested) return false;  // the call is over: nothing is wrong with the file
  const File file = openFile(path.c_str(), "rbe");
  if (!file) {
    Log::warning(kFunction, "unable to open file %s\n", path.c_str());
    return false;
  }
  const VoiceProfile::Read outcome = profile.readFrom(file.get());
  if (outcome == VoiceProfile::Read::eBadFile) {
    Log::warning(kFunction, "unable to read from file %s\n", path.c_str());
  } else if (outcome == VoiceProfile::Read::eNoMemory) {
    Log::warning(kFunction, "unable to allocate place for pcSpeaker\n");
  }
  return outcome == VoiceProfile::Read::eDone;
}

// The canonical RIFF header of 44 bytes: 16-bit mono PCM.
void MyRtp::writeWaveHeader(std::FILE* file, std::uint32_t dataBytes, int sampleRate) {
  constexpr std::uint32_t kHeaderAfterRiffSize = 36;
  std::array<unsigned char, 44> header;
  std::size_t length = 0;
  const auto text = [&](const char* four) {
    std::memcpy(header.data() + length, four, 4);
    length += 4;
  };
  const auto number = [&](std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) header[length++] = static_cast<unsigned char>(value >> (8 * i));
  };
  text("RIFF");
  number(dataBytes + kHeaderAfterRiffSize, 4);
  text("WAVE");
  text("fmt ");
  number(16, 4);  // bytes of the format block
  number(1, 2);   // PCM
  number(1, 2);   // mono
  number(static_cast<std::uint32_t>(sampleRate), 4);
  number(static_cast<std::uint32_t>(sampleRate) * 2, 4);  // bytes per second
  number(2, 2);                                           // bytes per sample
  number(16, 2);                                          // bits per sample
  text("data");
  number(dataBytes, 4);
  std::fwrite(header.data(), header.size(), 1, file);
}

// What cannot be read becomes silence, so that the length in the header stays true.
void MyRtp::writeWaveData(std::FILE* raw, std::FILE* wave, std::uint32_t dataBytes) {
  std::array<char, 4096> block;
  for (std::uint32_t left = dataBytes; left > 0;) {
    const std::size_t wanted = std::min<std::size_t>(left, block.size());
    const std::size_t read = std::fread(block.data(), 1, wanted, raw) & ~std::size_t{1};
    std::memset(block.data() + read, 0, wanted - read);
    std::fwrite(block.data(), 1, wanted, wave);
    left -= static_cast<std::uint32_t>(wanted);
  }
}
