// The reload datagram's work: which files it may name, and what a new configuration means for running calls.
#include <filesystem>
#include <string>

#include "app/config/Guarded.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "engine/Glob.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kFunction = "MySip::reloadFromConfiguration";

// By what they are, not by name: links lead to the same file.
bool isSame(const fs::path& one, const fs::path& other) {
  std::error_code none;
  return fs::equivalent(one, other, none);
}

bool isBelow(const fs::path& directory, const fs::path& file) {
  for (fs::path above = file.parent_path(); above != above.root_path(); above = above.parent_path())
    if (isSame(above, directory)) return true;
  return false;
}

// Does the file lie where names of files begin with the library? None that we write there ends with ".conf",
// so a library beside the configuration takes nothing away from it.
bool isOfLibrary(std::string_view library, const fs::path& file) {
  if (library.empty() || file.extension() == ".conf") return false;
  std::string written(library);
  MyRtp::replaceSpecialChars(written.data(), true);
  const fs::path start(written);
  return isSame(start.parent_path(), file.parent_path()) &&
         file.filename().string().starts_with(start.filename().string());
}

}  // namespace

// Why the file is none that we may be configured by; null when it may be one.
const char* MySip::refusalToReload(const char* path) const {
  std::error_code missing;
  const fs::path file = fs::canonical(path, missing);
  if (missing) return nullptr;
  if (isBelow(Glob::pcKestrovaBin.c_str() + std::string("../log"), file))
    return "it lies in the directory of the log";
  constexpr const char* kWritten = "this process writes it";
  for (const char* written :
       {pcStatisticsFile.c_str(), pcRealTimeAverageStatisticsFile.c_str(),
        pcRealTimeExtremeStatisticsFile.c_str(), pcBindingFile.c_str(), pcBindingBackupFile.c_str()})
    if (*written != '\0' && isSame(file, written)) return kWritten;
  const auto voices = pcRegistrationLibrary.load();
  for (const std::string_view library :
       {pcOrigRecordingLibrary.view(), pcCleanRecordingLibrary.view(), voices.view()})
    if (isOfLibrary(library, file)) return kWritten;
  return nullptr;
}

// The datagram may come from anywhere, and so does what the log and the names of calls hold: whoever could
// have both read would be the one who configures us.
void MySip::reloadFromConfiguration(std::string_view fileName) {
  FixedText<kMaxMessageLength + 1> path;
  path.assignCut(fileName);
  const char* const refusal =
      guarded(kFunction, "it cannot be looked at", [&] { return refusalToReload(path.c_str()); });
  if (refusal != nullptr)
    Log::error(kFunction, "%s is not taken for a configuration: %s\n", path.c_str(), refusal);
  if (refusal != nullptr || myConfiguration.readParams(path.c_str(), true) != 0) {
    Log::error(kFunction, "problem reading parameters from %s\n", path.c_str());
    return;
  }
  for (int orig = 0; orig < numOrigSlots(); ++orig) {
    const sPhone& leg = phone(orig);
    if (leg.bInUse && leg.bMediaEstablished && !leg.bTerminating) restartRtpSession(orig, leg.iPairIndex);
  }
}
