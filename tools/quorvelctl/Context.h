// What every command of quorvelctl is told: which instance, which configuration, how to print.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

struct sContext {
  std::string installation;   // KESTROVA_BIN, with its final slash
  std::string configuration;  // path of the configuration file
  std::string instance;       // the instance's name, empty for the one without
  bool bNamed = false;        // the command line names the instance, be it by an empty name
  bool bConfigurationGiven = false;
  bool bInstallationGiven = false;
  bool bJson = false;
  std::vector<std::string> words;  // the command's own arguments
};

// Exit statuses: what was asked for holds; it does not; the command line is wrong.
inline constexpr int kYes = 0;
inline constexpr int kNo = 1;
inline constexpr int kUsageError = 2;

struct sCommand {
  std::string_view name;
  std::string_view words;  // for the usage text
  std::string_view help;
  std::size_t iFewestWords;
  std::size_t iMostWords;
  int (*pfRun)(const sContext& context);
  bool bNeedsFiles = true;  // of an instance that need not run
};

// ---- The commands, one file each ----

int checkConfiguration(const sContext& context);  // Check.cpp
int explainCall(const sContext& context);         // Explain.cpp
int showStatus(const sContext& context);          // Status.cpp
int drainInstance(const sContext& context);       // Instance.cpp
int reloadInstance(const sContext& context);
int stopInstance(const sContext& context);
int showCalls(const sContext& context);     // Calls.cpp
int traceCall(const sContext& context);     // Trace.cpp
int writeMetrics(const sContext& context);  // Metrics.cpp

// ---- What they share ----

// Fills in what the command line and KESTROVA_BIN leave open: from the process of that name while it runs,
// then from where the package puts things. False: no installation is known. (Locate.cpp)
[[nodiscard]] bool locate(sContext& context);
// Names of the instances of this host that have left a lock, the one without a name first. (Locate.cpp)
std::vector<std::string> namesOfInstances();

// Makes the program's own code work for the context: installation, instance, log records collected instead of
// written. False: a name is too long.
[[nodiscard]] bool adoptContext(const sContext& context);

struct sRecord {
  enum class Level { eInfo, eWarning, eError };
  Level level;
  std::string writer;
  std::string text;
};
// The records collected since the last call.
std::vector<sRecord> takeRecords();
// Their texts, for a line of our own.
std::string takeReasons();
// Loads the configuration file as the program does at its start. False: `takeRecords` says why.
bool loadConfiguration(const sContext& context);
// Why it does not load, in a line.
std::string loadFailure(const sContext& context);

// The process that owns the instance's lock, while it lives.
std::optional<pid_t> findProcess(const sContext& context);
// Does the process have a UDP socket with that port, at that address if one is given? (Instance.cpp)
bool ownsPort(pid_t process, int port, const std::optional<sockaddr_in>& address = std::nullopt);
// Why no process was found, when it is not that none runs: the lock is another user's. Otherwise empty.
std::string hiddenLock();
// Whom we have to be, by who may read the file: "run as root or as user NAME".
std::string advice(const std::string& path);
// What of the configuration file a running process does not go by before it is restarted. (InUse.cpp)
struct sPending {
  bool bAny = false;    // or perhaps, where it is not known
  bool bKnown = false;  // by a copy of the file as it was at the start
  std::string copy{};   // where that is, or would have to be
  std::vector<std::string> keys{};
  // Most calls at once, as the process has it as far as that is known; nothing when no file can be loaded.
  std::optional<int> callsAllowed{};
};
// Loads both; afterwards the settings are those of the file.
sPending pendingOf(const sContext& context, pid_t process);
// In a line; empty when there is nothing.
std::string pendingText(const sContext& context, const sPending& pending);
// The keys as an array; null when they are not known.
std::string pendingJson(const sPending& pending);
inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// When the process started, in nanoseconds of the epoch. (InUse.cpp)
std::optional<std::int64_t> startOf(pid_t process);
// Does it run a program that was replaced since? Nothing when we may not know. (InUse.cpp)
std::optional<bool> isReplaced(pid_t process);
// Waits for at most two seconds until the process handles the signal, as it does once it has started.
bool waitUntilHandled(pid_t process, int number);
// Asks the process for its number of active calls.
std::optional<int> askActiveCalls(const sContext& context, pid_t process);
// Most calls at once, by the settings.
int callsAllowed();
// "Quorvel instance NAME".
std::string nameOf(const sContext& context);
// Says that it does not run, or that we may not know, and returns kNo.
int noProcess(const sContext& context);
// Has it been told to refuse new calls? Nothing when no log of it can be read. (Status.cpp)
std::optional<bool> isDraining(const sContext& context);
// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::string& path);
// The instance's log file.
std::string logPath(const sContext& context);
// It and what logrotate has made of the one before, oldest first.
std::vector<std::string> logPaths(const sContext& context);
// The text in quotes, as JSON writes it, without control characters; a byte that is not part of valid UTF-8
// counts as Latin-1.
std::string jsonText(std::string_view text);
// The text for a terminal: control characters, which could steer it, and bytes that are no UTF-8 as \xNN;
// lines and tabs stay.
std::string shownText(std::string_view text);
// The number, or null.
std::string jsonNumber(std::optional<int> number);
// Says it to standard error, or with --json as {"error": ...}, and returns kNo.
[[gnu::format(printf, 1, 2)]] int fail(const char* format, ...);
