#include "tools/kestrova-wav-files.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sndfile.h>
#include <stdexcept>

namespace {

struct CloseSound {
  void operator()(SNDFILE* pFile) const { sf_close(pFile); }
};
using Sound = std::unique_ptr<SNDFILE, CloseSound>;

[[noreturn]] void fail(const std::string& sName, const std::string& sWhat) {
  throw std::runtime_error(sName + ": " + sWhat);
}

// What the library would call an unknown format, or just a system error.
void checkIsFile(const std::string& sName) {
  std::error_code error;
  const auto status = std::filesystem::status(sName, error);
  if (!std::filesystem::exists(status)) fail(sName, error ? error.message() : "no such file");
  if (std::filesystem::is_directory(status)) fail(sName, "is a directory");
  if (std::filesystem::is_regular_file(status) && std::filesystem::file_size(sName, error) == 0)
    fail(sName, "is empty");
}

void checkFormat(const std::string& sName, const SF_INFO& info) {
  if ((info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAV &&
      (info.format & SF_FORMAT_TYPEMASK) != SF_FORMAT_WAVEX) {
    fail(sName, "is no WAV file");
  }
  if ((info.format & SF_FORMAT_SUBMASK) != SF_FORMAT_PCM_16) fail(sName, "its samples are not 16-bit linear");
  if (info.channels != 1) fail(sName, "has " + std::to_string(info.channels) + " channels, not one");
  if (info.samplerate != 8000 && info.samplerate != 16000) {
    fail(sName, "its rate is " + std::to_string(info.samplerate) + " Hz, not 8000 or 16000");
  }
}

// The library reads a file that was cut off as a shorter one and tells only its log.
void checkWhole(const std::string& sName, SNDFILE* pFile) {
  std::array<char, 4096> pcLog{};
  sf_command(pFile, SFC_GET_LOG_INFO, pcLog.data(), static_cast<int>(pcLog.size()));
  if (std::strstr(pcLog.data(), "data : ") != nullptr && std::strstr(pcLog.data(), "(should be") != nullptr) {
    fail(sName, "is truncated");
  }
}

}  // namespace

Wav readWav(const std::string& sName) {
  checkIsFile(sName);
  SF_INFO info{};
  const Sound pFile(sf_open(sName.c_str(), SFM_READ, &info));
  if (!pFile) fail(sName, sf_strerror(nullptr));
  checkFormat(sName, info);
  checkWhole(sName, pFile.get());
  if (info.frames <= 0) fail(sName, "holds no samples");
  Wav wav{std::vector<std::int16_t>(static_cast<std::size_t>(info.frames)), info.samplerate};
  const sf_count_t lRead = sf_read_short(pFile.get(), wav.samples.data(), info.frames);
  if (lRead != info.frames) {
    fail(sName, "ends after " + std::to_string(lRead) + " of " + std::to_string(info.frames) + " samples");
  }
  return wav;
}

void writeWav(const std::string& sName, const Wav& wav) {
  SF_INFO info{};
  info.samplerate = wav.iRate;
  info.channels = 1;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
  Sound pFile(sf_open(sName.c_str(), SFM_WRITE, &info));
  if (!pFile) fail(sName, sf_strerror(nullptr));
  const auto lCount = static_cast<sf_count_t>(wav.samples.size());
  if (sf_write_short(pFile.get(), wav.samples.data(), lCount) != lCount)
    fail(sName, sf_strerror(pFile.get()));
  if (const int iError = sf_close(pFile.release()); iError != 0) fail(sName, sf_error_number(iError));
}
