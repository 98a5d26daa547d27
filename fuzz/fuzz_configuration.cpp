// Any bytes as a configuration file, read at start-up and again as a reload. Whatever readParams says, every
// setting must then be one that the rest of the program may use.
#include <cstdlib>

#include "app/config/KeyRegistry.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "engine/Glob.h"
#include "fuzz/MemoryFile.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

// Names are looked up in the name service, which is slow and not what is tested: only texts of digits and
// dots reach it.
bool asksForHostName(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string_view key : {"SipProxyIP", "SipUAIP", "SipUAIPForBinding"})
    for (std::size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
      const std::string_view line = text.substr(at, text.find('\n', at) - at);
      if (line.find_first_not_of(" =.0123456789\r\t", key.size()) != std::string_view::npos) return true;
    }
  return text.find("SipRoutingFile") != std::string_view::npos;
}

void checkSettings() {
  require(iNumPhonesToAllocate >= 1 && iNumPhonesToAllocate <= kMaxPhonesToAllocate &&
          iNumPhonesToAllocate % 2 == 0);
  require(iNumCallsToFilter >= 1 && iRefreshRateOfRealTimeStatistics >= 2 && iRegisterExpiration >= 1);
  require(iCPUPower >= 0 && iCPUPower <= 10 && iAECTailType >= -58 && iAECTailType <= 5);
  require(iNumCmdBasedOnCallerID <= kMaxCommandRules && iNumCmdBasedOnDestination <= kMaxCommandRules);
  for (int i = 0; i < iNumCmdBasedOnCallerID; ++i) {
    const int type = piCmdBasedOnCallerIDFilteringType[static_cast<std::size_t>(i)];
    require(type >= 0 && type <= 3);
  }
  for (const int count : {iNumberOfDOSExpressions, iNumberOfAOSExpressions, iNumberOfPSHExpressions})
    require(count >= 0 && count <= kMaxExpressions);
  require(pcOrigPhonesName.empty() || pcOrigPhonesName.view().ends_with(';'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (asksForHostName(data, size)) return 0;
  (void)pcMyIPAsDetectedInternally.assign("192.0.2.1");
  (void)Glob::pcKestrovaBin.assign("/nowhere/bin/");
  const MemoryFile file(data, size);
  if (myConfiguration.readParams(file.path().c_str(), false) != 0) return 0;
  checkSettings();
  if (myConfiguration.readParams(file.path().c_str(), true) != 0) std::abort();
  checkSettings();
  return 0;
}
