#include "tools/quorvelctl/Context.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iterator>
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

}  // namespace

void adoptContext(const sContext& context) {
  (void)Glob::pcKestrovaBin.assign(context.installation);
  (void)pcKestrovaInstanceSuffix.assign(context.instance);
  pLogRecorder = collect;
}

std::vector<std::string> takeRecords() {
  return std::exchange(collected, {});
}

bool loadConfiguration(const sContext& context) {
  myConfiguration.readNetworkInformation();
  takeRecords();  // about interfaces, which say nothing of the file
  return myConfiguration.readParams(context.configuration.c_str(), false) == 0;
}

std::optional<pid_t> findProcess(const sContext&) {
  const auto owner = readNumber(instancePath(kLockFile));
  if (!owner || *owner <= 0 || (kill(*owner, 0) != 0 && errno == ESRCH)) return std::nullopt;
  // The file outlives its process, whose number may belong to another program by now; and a process that has
  // ended keeps its number until its parent looks.
  const std::string stat = readFile("/proc/" + std::to_string(*owner) + "/stat").value_or("");
  const bool ended = stat.find(") Z ") != std::string::npos;
  if (ended || stat.find("(quorvel") == std::string::npos) return std::nullopt;
  return *owner;
}

std::optional<int> askActiveCalls(const sContext&, pid_t process) {
  const InstancePath path = instancePath(kActiveCallsFile);
  // An answer that is left over from an earlier question must not be taken for the new one.
  (void)unlink(path.c_str());
  if (kill(process, SIGUSR1) != 0) return std::nullopt;
  for (int attempt = 0; attempt < 200; ++attempt) {
    if (const auto calls = readNumber(path)) return *calls;
    constexpr timespec kPause{0, 10'000'000};
    nanosleep(&kPause, nullptr);
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
