#include "tools/quorvelctl/Context.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
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

std::vector<std::string> collected;

void collect(Log::Level level, const char* function, const char* message) {
  std::string record = level == Log::Level::eInfo      ? "INFO"
                       : level == Log::Level::eWarning ? "WARNING"
                                                       : "ERROR";
  record += std::string(" in ") + function + ", " + message;
  while (!record.empty() && record.back() == '\n') record.pop_back();
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
  return Glob::pcKestrovaBin.assign(context.installation) &&
         pcKestrovaInstanceSuffix.assign(context.instance);
}

std::vector<std::string> takeRecords() {
  return std::exchange(collected, {});
}

bool loadConfiguration(const sContext& context) {
  myConfiguration.readNetworkInformation();
  takeRecords();  // about interfaces, which say nothing of the file
  return myConfiguration.readParams(context.configuration.c_str(), false) == 0;
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

std::optional<int> askActiveCalls(const sContext&, pid_t process) {
  const InstancePath path = instancePath(kActiveCallsFile);
  struct stat owner {};
  if (stat(("/proc/" + std::to_string(process)).c_str(), &owner) != 0) return std::nullopt;
  const sFileState before = stateOf(path);
  if (kill(process, SIGUSR1) != 0) return std::nullopt;
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

std::string jsonText(std::string_view text) {
  std::string out = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == '"' || character == '\\') {
      out += '\\';
      out += character;
    } else if (byte < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += character;
    }
  }
  return out + '"';
}

int fail(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::fputc('\n', stderr);
  return kNo;
}
