#include "tools/quorvelctl/Context.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <pwd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "app/config/InstanceFile.h"
#include "app/config/LogRecorder.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Handle.h"
#include "engine/Glob.h"

namespace {

std::vector<sRecord> collected;
bool bErrorsAsJson = false;

void collect(Log::Level level, const char* function, const char* message) {
  using Level = sRecord::Level;
  sRecord record{level == Log::Level::eInfo      ? Level::eInfo
                 : level == Log::Level::eWarning ? Level::eWarning
                                                 : Level::eError,
                 function, message};
  while (!record.text.empty() && record.text.back() == '\n') record.text.pop_back();
  collected.push_back(record);
}

std::optional<std::int32_t> readNumber(const InstancePath& path) {
  const FileDescriptor file = openRegularFile(path.c_str(), O_RDONLY);
  std::int32_t value = 0;
  if (!file.isOpen() || read(file.get(), &value, sizeof value) != sizeof value) return std::nullopt;
  return value;
}

// The instance in a command line: the second of exactly two arguments.
std::string instanceOf(const std::string& commandLine) {
  std::vector<std::string> words;
  for (std::size_t at = 0; at < commandLine.size(); at += words.back().size() + 1)
    words.emplace_back(commandLine.c_str() + at);
  return words.size() == 3 ? words[2] : "";
}

struct sFileState {
  bool bRegular = false;
  uid_t owner = 0;
  ino_t node = 0;
  long lSeconds = 0, lNanoseconds = 0;
  bool operator==(const sFileState&) const = default;
};

sFileState stateOf(const InstancePath& path) {
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return {};
  return {S_ISREG(found.st_mode), found.st_uid, found.st_ino, found.st_mtim.tv_sec, found.st_mtim.tv_nsec};
}

}  // namespace

bool adoptContext(const sContext& context) {
  pLogRecorder = collect;
  bErrorsAsJson = context.bJson;
  return Glob::pcKestrovaBin.assign(context.installation) &&
         pcKestrovaInstanceSuffix.assign(context.instance);
}

std::vector<sRecord> takeRecords() {
  return std::exchange(collected, {});
}

std::string takeReasons() {
  std::string reasons;
  for (const sRecord& record : takeRecords())
    if (record.level != sRecord::Level::eInfo) reasons += (reasons.empty() ? "" : "; ") + record.text;
  return reasons;
}

bool loadConfiguration(const sContext& context) {
  myConfiguration.readNetworkInformation();
  takeRecords();  // about interfaces, which say nothing of the file
  return myConfiguration.readParams(context.configuration.c_str(), false) == 0;
}

std::string loadFailure(const sContext& context) {
  const std::string& path = context.configuration;
  if (access(path.c_str(), R_OK) == 0) return path + " cannot be loaded: " + takeReasons();
  return errno == EACCES ? path + " may not be read: " + advice(path) : path + " is not there";
}

std::optional<pid_t> findProcess(const sContext& context) {
  const auto owner = readNumber(instancePath(kLockFile));
  if (!owner || *owner <= 0 || *owner == getpid()) return std::nullopt;
  // The file outlives its process, whose number may belong to another program by now, or to another instance;
  // and a process that has ended keeps its number until its parent looks.
  const std::string directory = "/proc/" + std::to_string(*owner);
  const std::string stat = readFile(directory + "/stat").value_or("");
  if (stat.find("(quorvel) ") == std::string::npos || stat.find(") Z ") != std::string::npos)
    return std::nullopt;
  if (instanceOf(readFile(directory + "/cmdline").value_or("")) != context.instance) return std::nullopt;
  return *owner;
}

std::string hiddenLock() {
  const InstancePath path = instancePath(kLockFile);
  if (access(path.c_str(), R_OK) == 0 || errno != EACCES) return "";
  return std::string(path.c_str()) + ", which names the process, may not be read: " + advice(path.c_str());
}

std::string nameOf(const sContext& context) {
  return "Quorvel" + (context.instance.empty() ? "" : " instance " + context.instance);
}

int noProcess(const sContext& context) {
  const std::string hidden = hiddenLock();
  return hidden.empty() ? fail("%s is not running", nameOf(context).c_str()) : fail("%s", hidden.c_str());
}

std::string advice(const std::string& path) {
  struct stat found {};
  if (stat(path.c_str(), &found) != 0) return "run as root";
  const passwd* owner = getpwuid(found.st_uid);
  if (owner != nullptr && owner->pw_uid != 0) return std::string("run as root or as user ") + owner->pw_name;
  const group* readers =
      (found.st_mode & S_IRGRP) != 0 && found.st_gid != 0 ? getgrgid(found.st_gid) : nullptr;
  return readers == nullptr ? "run as root" : std::string("run as root or in group ") + readers->gr_name;
}

int callsAllowed() {
  return std::min(iNumPhonesToAllocate / 2, iNumCallsToFilter);
}

// A process takes its lock before it installs its handlers; until then a signal would end it.
bool waitUntilHandled(pid_t process, int number) {
  constexpr std::string_view kCaught = "SigCgt:\t";
  for (int attempt = 0; attempt < 200; ++attempt) {
    const std::string status = readFile("/proc/" + std::to_string(process) + "/status").value_or("");
    const std::size_t at = status.find(kCaught);
    if (at == std::string::npos) return false;
    if ((std::strtoull(status.c_str() + at + kCaught.size(), nullptr, 16) >> (number - 1) & 1U) != 0)
      return true;
    constexpr timespec kPause{0, 10'000'000};
    nanosleep(&kPause, nullptr);
  }
  return false;
}

std::optional<int> askActiveCalls(const sContext&, pid_t process) {
  const InstancePath path = instancePath(kActiveCallsFile);
  struct stat owner {};
  if (stat(("/proc/" + std::to_string(process)).c_str(), &owner) != 0) return std::nullopt;
  const sFileState before = stateOf(path);
  if (!waitUntilHandled(process, SIGUSR1) || kill(process, SIGUSR1) != 0) return std::nullopt;
  for (int attempt = 0; attempt < 200; ++attempt) {
    constexpr timespec kPause{0, 10'000'000};
    nanosleep(&kPause, nullptr);
    // Only what the process itself has written since counts: a file that another user keeps in its place does
    // not.
    const sFileState now = stateOf(path);
    if (!now.bRegular || now.owner != owner.st_uid || now == before) continue;
    if (const auto calls = readNumber(path)) return *calls;
  }
  return std::nullopt;
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string logPath(const sContext& context) {
  return context.installation + "../log/errLog" + context.instance;
}

std::vector<std::string> logPaths(const sContext& context) {
  const std::string directory = context.installation + "../log/";
  return {directory + "old/errLog" + context.instance + ".1", logPath(context)};
}

namespace {

// Length of the UTF-8 sequence that the text begins with (RFC 3629, section 4); 0 when it is none.
std::size_t utf8Length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (first > 0xF4 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((byte(i) & 0xC0U) != 0x80) return 0;
  // What a shorter sequence could say, surrogates, and what lies beyond the last code point.
  const unsigned char second = length > 2 ? byte(1) : 0;
  const bool isForbidden = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                           (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return isForbidden ? 0 : length;
}

// Does the text begin with what a terminal may obey: C0, DEL or C1, which is C2 80 to C2 9F?
bool isControl(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  return first < 0x20 || first == 0x7F ||
         (first == 0xC2 && text.size() > 1 && static_cast<unsigned char>(text[1]) < 0xA0);
}

}  // namespace

std::string jsonText(std::string_view text) {
  std::string out = "\"";
  while (!text.empty()) {
    const char character = text.front();
    const std::size_t length = utf8Length(text);
    if (character == '"' || character == '\\') out += '\\';
    if (length > 0 && !isControl(text)) {
      out += text.substr(0, length);
    } else {
      // The last byte of a C1 character is its code point.
      const char code = length > 0 ? text[length - 1] : character;
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(code));
      out += escaped;
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return out + '"';
}

std::string shownText(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = utf8Length(text);
    const bool isLayout = first == '\n' || first == '\t' || text.starts_with("\r\n");
    const bool isShown = length > 0 && (isLayout || !isControl(text));
    if (isShown) {
      out += text.substr(0, length);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", first);
      out += escaped;
    }
    text.remove_prefix(isShown ? length : 1);
  }
  return out;
}

std::string jsonNumber(std::optional<int> number) {
  return number ? std::to_string(*number) : "null";
}

int fail(const char* format, ...) {
  char text[2000];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (bErrorsAsJson)
    std::printf("{\"error\": %s}\n", jsonText(text).c_str());
  else
    std::fprintf(stderr, "%s\n", shownText(text).c_str());
  return kNo;
}
