// What a running process goes by, where that is not what its files say now: settings that a change of the
// file reaches by a restart only, and a program that was replaced.
#include <cstdint>
#include <ctime>
#include <sstream>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "app/config/KeyRegistry.h"
#include "app/config/Settings.h"
#include "tools/quorvelctl/Context.h"

namespace {

std::int64_t nanosecondsOf(const timespec& time) {
  return std::int64_t{time.tv_sec} * kNanosecondsPerSecond + time.tv_nsec;
}

std::int64_t nowOf(clockid_t clock) {
  timespec now{};
  (void)clock_gettime(clock, &now);
  return nanosecondsOf(now);
}

// The file as it was when the process started, for whoever copies it there right after.
std::string copyOf(const sContext& context) {
  return context.installation + "loaded" + context.instance;
}

bool isChangedSince(std::int64_t start, const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 && nanosecondsOf(found.st_mtim) > start;
}

std::string valueOf(const sKey& key) {
  return std::visit(
      [](const auto& target) -> std::string {
        using Target = std::decay_t<decltype(target)>;
        if constexpr (std::is_same_v<Target, TextTarget>) {
          return target.load();
        } else if constexpr (std::is_same_v<Target, sExpressionTarget>) {
          std::string all;
          for (std::size_t i = 0; i < static_cast<std::size_t>(*target.piCount); ++i)
            all += std::string((*target.psList)[i].view()) + ";";
          return all;
        } else {
          return std::to_string(static_cast<double>(*target));
        }
      },
      key.target);
}

std::vector<std::string> allValues() {
  std::vector<std::string> values;
  for (const sKey& key : keyRegistry()) values.push_back(valueOf(key));
  return values;
}

// A reload stores it, but the engine takes it once.
bool holdsFromTheStart(const sKey& key) {
  return !key.bReloadable || std::string_view(key.pcName) == "CPUPower";
}

}  // namespace

std::optional<std::int64_t> startOf(pid_t process) {
  const std::string stat = readFile("/proc/" + std::to_string(process) + "/stat").value_or("");
  const std::size_t name = stat.rfind(')');
  if (name == std::string::npos) return std::nullopt;
  // Field 22, in clock ticks since the host started; the name is the second.
  std::istringstream fields(stat.substr(name + 1));
  std::string word;
  for (int field = 3; field < 22; ++field) fields >> word;
  std::int64_t ticks = 0;
  if (!(fields >> ticks)) return std::nullopt;
  // Ticks are cut, so that it may have been one later.
  return nowOf(CLOCK_REALTIME) - nowOf(CLOCK_BOOTTIME) +
         (ticks + 1) * (kNanosecondsPerSecond / sysconf(_SC_CLK_TCK));
}

std::optional<bool> isReplaced(pid_t process) {
  struct stat program {};
  if (stat(("/proc/" + std::to_string(process) + "/exe").c_str(), &program) != 0) return std::nullopt;
  return program.st_nlink == 0;
}

sPending pendingOf(const sContext& context, pid_t process) {
  const auto start = startOf(process);
  const bool isLoaded = loadConfiguration(context);
  takeRecords();
  const std::optional<int> allowed = isLoaded ? std::optional(callsAllowed()) : std::nullopt;
  const bool hasNewRoutes =
      !pcSipRoutingFile.empty() && start && isChangedSince(*start, pcSipRoutingFile.c_str());
  if (!start || (!hasNewRoutes && !isChangedSince(*start, context.configuration)))
    return {.callsAllowed = allowed};
  sContext loaded = context;
  loaded.configuration = copyOf(context);
  sPending pending{.bAny = true, .copy = loaded.configuration, .callsAllowed = allowed};
  const std::vector<std::string> wanted = allValues();
  if (isLoaded && isChangedSince(*start, loaded.configuration) && loadConfiguration(loaded)) {
    const std::vector<std::string> used = allValues();
    pending.callsAllowed = callsAllowed();
    for (std::size_t i = 0; i < used.size(); ++i) {
      const sKey& key = keyRegistry()[i];
      const bool isRoutes = hasNewRoutes && key.sCheck.kind == sKeyCheck::Kind::eRoutingFile;
      if (holdsFromTheStart(key) && (isRoutes || used[i] != wanted[i])) pending.keys.emplace_back(key.pcName);
    }
    pending.bKnown = true;
    pending.bAny = !pending.keys.empty();
  }
  (void)loadConfiguration(context);
  takeRecords();
  return pending;
}

std::string pendingText(const sContext& context, const sPending& pending) {
  if (!pending.bAny) return "";
  std::string keys;
  for (const std::string& key : pending.keys) keys += (keys.empty() ? "" : ", ") + key;
  if (pending.bKnown)
    return keys + " of " + context.configuration + " take effect by a restart only: the process goes by " +
           pending.copy;
  return context.configuration +
         " was changed after the process started: keys that take effect by a restart only may be in use as "
         "they were then; which they are is known where the file is copied to " +
         pending.copy + " at every start";
}

std::string pendingJson(const sPending& pending) {
  if (pending.bAny && !pending.bKnown) return "null";
  std::string keys;
  for (const std::string& key : pending.keys) keys += (keys.empty() ? "" : ", ") + jsonText(key);
  return "[" + keys + "]";
}
