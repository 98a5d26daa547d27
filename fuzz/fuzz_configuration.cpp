// Any bytes as a configuration file, read at start-up and again as a reload. Whatever readParams says, every
// setting must then be one that the rest of the program may use. With a first line "!KEY VALUE", or "!KEY"
// alone, that key of the file below is read, then written, or turned into a comment, and read again.
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

#include "app/config/KeyRegistry.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/config/TextFile.h"
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

// A file in memory, in a directory of this process's own: writing a key replaces the file.
class SharedMemoryFile {
 public:
  explicit SharedMemoryFile(std::string_view content) {
    static const std::filesystem::path directory = make();
    path = directory / "quorvel.conf";
    std::ofstream(path, std::ios::binary) << content;
  }
  ~SharedMemoryFile() { std::filesystem::remove(path); }
  SharedMemoryFile(const SharedMemoryFile&) = delete;
  SharedMemoryFile& operator=(const SharedMemoryFile&) = delete;

  std::string content() const {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }
  std::filesystem::path path;

 private:
  static std::filesystem::path make() {
    std::string name = "/dev/shm/quorvel-fuzz-XXXXXX";
    require(mkdtemp(name.data()) != nullptr);
    static std::string kept = name;
    std::atexit([] { std::filesystem::remove_all(kept); });
    return name;
  }
};

// Of letters only, so that it cannot be taken for anything else in a file.
bool isWord(std::string_view text) {
  return !text.empty() && text.size() < 100 &&
         text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz") ==
             std::string_view::npos;
}

// What is written is read again, whatever the file holds besides, and no byte of its other lines is lost.
void changeKey(std::string_view order, std::string_view content) {
  const std::size_t blank = order.find(' ');
  const std::string key(order.substr(0, blank));
  const bool writes = blank != std::string_view::npos;
  const std::string value(writes ? order.substr(blank + 1) : "");
  if (!isWord(key) || (writes && !isWord(value))) return;
  const SharedMemoryFile file(content);
  std::array<char, kMaxLineLength + 1> before{}, after{};
  const char* path = file.path.c_str();
  const bool wasGiven = myConfiguration.ReadConfVal(path, key.c_str(), before.data()) != nullptr;
  require(myConfiguration.saveParamValue(path, key.c_str(), writes ? value.c_str() : nullptr) == 0);
  const bool isGiven = myConfiguration.ReadConfVal(path, key.c_str(), after.data()) != nullptr;
  const std::string now = file.content();
  if (writes) {
    require(isGiven && value == after.data());
  } else {
    require(now.size() == content.size() + (wasGiven ? 1 : 0));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view all(reinterpret_cast<const char*>(data), size);
  if (const std::size_t end = all.find('\n'); all.starts_with('!') && end != std::string_view::npos) {
    changeKey(all.substr(1, end - 1), all.substr(end + 1));
    return 0;
  }
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
