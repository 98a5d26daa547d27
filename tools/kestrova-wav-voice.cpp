#include "tools/kestrova-wav-voice.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

struct CloseFile {
  void operator()(std::FILE* pFile) const { std::fclose(pFile); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

File opened(const std::string& sName, const char* pcMode) {
  File pFile(std::fopen(sName.c_str(), pcMode));
  if (!pFile) throw std::runtime_error(sName + ": " + std::strerror(errno));
  return pFile;
}

}  // namespace

void writeVoice(std::uint16_t uChannel, const std::string& sName) {
  std::uint32_t uBytes = 0;
  if (KestrovaCompleteRegistration(uChannel, &uBytes) != 0) {
    std::int32_t iOutcome = 0;
    (void)KestrovaGetRegistrationOutcome(uChannel, &iOutcome);
    throw std::runtime_error(std::string("no voice was learned, ") +
                             KestrovaGetRegistrationOutcomeText(iOutcome));
  }
  VoiceProfile profile;
  if (!profile.allocate(uBytes) ||
      KestrovaCopySpeakerInformationAfterRegistration(uChannel, profile.speaker()) != 0) {
    throw std::runtime_error("the learned voice cannot be copied");
  }
  const File pFile = opened(sName, "wb");
  if (profile.writeLengthTo(pFile.get()) && profile.writeRecordTo(pFile.get())) return;
  const std::string sWhy = std::strerror(errno);
  std::remove(sName.c_str());
  throw std::runtime_error(sName + ": " + sWhy);
}

VoiceProfile readVoice(const std::string& sName) {
  const File pFile = opened(sName, "rb");
  VoiceProfile profile;
  if (profile.readFrom(pFile.get()) != VoiceProfile::Read::eDone)
    throw std::runtime_error(sName + " is no learned voice");
  return profile;
}
