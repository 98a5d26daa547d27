// Any bytes as a SIP routing file.
#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "app/config/MyConfiguration.h"
#include "engine/Glob.h"
#include "fuzz/MemoryFile.h"

namespace {

// Host names would be looked up in the name service, which is slow and not what is tested.
bool hasHostName(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    const std::size_t hostEnd = line.find("::");
    if (hostEnd != std::string_view::npos &&
        line.substr(0, hostEnd).find_first_not_of("0123456789.") != std::string_view::npos)
      return true;
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (hasHostName({reinterpret_cast<const char*>(data), size})) return 0;
  (void)Glob::pcKestrovaBin.assign("/nowhere/bin/");
  const MemoryFile file(data, size);
  const int result = myConfiguration.readSipRoutingFile(file.path().c_str());
  if (result != 0 && result != 1) std::abort();
  if (iNumSipRoutingRecords < 0 || iNumSipRoutingRecords > kMaxSipRoutingRows) std::abort();
  for (int i = 0; i < iNumSipRoutingRecords; ++i) {
    const sSipRoutingRow& row = psSipRoutingRows[static_cast<std::size_t>(i)];
    if (row.pcIP.empty() || row.iPort < 1 || row.iPort > 65535) std::abort();
    if (row.iNumExpressions < 0 || row.iNumExpressions > kMaxExpressions) std::abort();
  }
  return 0;
}
