// Any bytes as a configuration file: as a reload on top of a valid start, then read at start-up, and once
// more as a reload. Whatever readParams says, the process goes on after a reload with what was applied, so
// every setting must then be one that its key allows, and those that a reload leaves alone must be as before.
// With a first line "!KEY VALUE", or "!KEY" alone, that key of the file below is read, then written, or
// turned into a comment, and read again.
#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netdb.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "app/config/KeyRegistry.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/config/TextFile.h"
#include "engine/Glob.h"
#include "fuzz/MemoryFile.h"
#include "fuzz/Require.h"

// The name service: which of its answers a name gets is in the name.
extern "C" hostent* gethostbyname(const char* name) {
  static char pcIPv4[4] = {127, 0, 0, 9};
  static char* ppcOne[] = {pcIPv4, nullptr};
  static char* ppcNone[] = {nullptr};
  static char pcName[] = "host";
  static hostent found{};
  if (*name == 'u') {
    h_errno = HOST_NOT_FOUND;
    return nullptr;
  }
  found = {pcName, ppcNone, *name == 's' ? AF_INET6 : AF_INET, 4, *name == 'n' ? ppcNone : ppcOne};
  return &found;
}

namespace {

constexpr std::string_view kValidStart =
    "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipProxyPort=5060\nSipUAIP=127.0.0.1\nSipUAPort="
    "5070\n"
    "RtpUAPortInitVal=20000\nSeparator=##\nDefaultCmd=*##0\nNumPhonesToAllocate=4\nRegisterOrigPhones=0\n"
    "RegisterPairPhones=0\nNeedToCheckDTMF=0\nCPUPower=5\nDetectAggressiveLevel=2\nCleanAggressiveLevel=8\n"
    "AECAlgorithm=basic\n";

std::string valueOf(const sKey& key) {
  struct Show {
    std::string operator()(const int* setting) const { return std::to_string(*setting); }
    std::string operator()(const Relaxed<int>* setting) const { return std::to_string(*setting); }
    std::string operator()(const Relaxed<float>* setting) const { return std::to_string(*setting); }
    std::string operator()(const TextTarget& setting) const { return setting.load(); }
    std::string operator()(const sExpressionTarget& setting) const {
      return std::to_string(*setting.piCount);
    }
  };
  return std::visit(Show{}, key.target);
}

void checkSetting(const sKey& key) {
  using Kind = sKeyCheck::Kind;
  const std::string value = valueOf(key);
  const bool isNumber =
      std::holds_alternative<int*>(key.target) || std::holds_alternative<Relaxed<int>*>(key.target);
  if (isNumber) require(std::stol(value) >= key.sCheck.iLow && std::stol(value) <= key.sCheck.iHigh);
  if (key.sCheck.kind == Kind::eEvenCount) require(std::stol(value) % 2 == 0);
  if (key.sCheck.kind == Kind::eAecAlgorithm) require(value == "basic" || value.starts_with("advanced"));
  if (const auto* text = std::get_if<TextTarget>(&key.target)) require(value.size() <= text->maxLength());
  if (const auto* list = std::get_if<sExpressionTarget>(&key.target))
    require(*list->piCount >= 0 && *list->piCount <= kMaxExpressions);
  in_addr address;
  if (key.type == KeyType::eAddress) require(inet_aton(value.c_str(), &address) != 0);
  if (key.type == KeyType::eListWord) require(value.empty() || value.ends_with(';'));
}

void checkSettings() {
  for (const sKey& key : keyRegistry()) checkSetting(key);
  for (const auto& [count, types] :
       {std::pair(iNumCmdBasedOnCallerID, &piCmdBasedOnCallerIDFilteringType),
        std::pair(iNumCmdBasedOnDestination, &piCmdBasedOnDestinationFilteringType)}) {
    require(count >= 0 && count <= kMaxCommandRules);
    for (int i = 0; i < count; ++i) {
      const int type = (*types)[static_cast<std::size_t>(i)];
      require(type >= 0 && type <= 3);
    }
  }
}

int read(const MemoryFile& file, bool reload) {
  std::vector<std::string> before;
  for (const sKey& key : keyRegistry()) before.push_back(valueOf(key));
  const int result = myConfiguration.readParams(file.path().c_str(), reload);
  checkSettings();
  for (std::size_t i = 0; reload && i < before.size(); ++i)
    require(keyRegistry()[i].bReloadable || valueOf(keyRegistry()[i]) == before[i]);
  return result;
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
  (void)pcMyIPAsDetectedInternally.assign("192.0.2.1");
  (void)Glob::pcKestrovaBin.assign("/nowhere/bin/");
  static const MemoryFile valid(reinterpret_cast<const std::uint8_t*>(kValidStart.data()),
                                kValidStart.size());
  require(myConfiguration.readParams(valid.path().c_str(), false) == 0);
  const MemoryFile file(data, size);
  (void)read(file, true);
  if (read(file, false) == 0) require(read(file, true) == 0);
  return 0;
}
