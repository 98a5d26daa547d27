// What every command of quorvelctl is told: which instance, which configuration, how to print.
#pragma once

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
};

// ---- The commands, one file each ----

int checkConfiguration(const sContext& context);  // Check.cpp
int explainCall(const sContext& context);         // Explain.cpp
int showStatus(const sContext& context);          // Instance.cpp
int drainInstance(const sContext& context);
int reloadInstance(const sContext& context);
int stopInstance(const sContext& context);
int showCalls(const sContext& context);     // Calls.cpp
int traceCall(const sContext& context);     // Trace.cpp
int writeMetrics(const sContext& context);  // Metrics.cpp

// ---- What they share ----

// Makes the program's own code work for the context: installation, instance, log records collected instead of
// written. False: a name is too long.
[[nodiscard]] bool adoptContext(const sContext& context);
// The records collected since the last call, one line each: "ERROR in Class::method, message".
std::vector<std::string> takeRecords();
// Loads the configuration file as the program does at its start. False: `takeRecords` says why.
bool loadConfiguration(const sContext& context);

// The process that owns the instance's lock, while it lives.
std::optional<pid_t> findProcess(const sContext& context);
// Asks the process for its number of active calls.
std::optional<int> askActiveCalls(const sContext& context, pid_t process);
// Has it been told to refuse new calls? (Instance.cpp)
bool isDraining(const sContext& context);
// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::string& path);
// The instance's log file.
std::string logPath(const sContext& context);
// The text in quotes, as JSON writes it.
std::string jsonText(std::string_view text);
// Prints to standard error and returns kNo.
[[gnu::format(printf, 1, 2)]] int fail(const char* format, ...);
