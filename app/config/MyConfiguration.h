// Process services: start-up's helpers, the instance lock, the configuration file and what its command keys
// mean. The class has no data of its own; settings stand in Settings.h, the process's state in
// ProcessState.h. Main thread only, except the signal handlers' pair allowShutdown / startShutdown.
//
//  1  Own addresses                 app/config/NetworkInformation.cpp
//  2  Instance lock and shutdown    app/config/InstanceLock.cpp, app/Shutdown.cpp
//  3  Configuration file            app/config/ConfigurationFile.cpp   (keys: KeyRegistry), AddressValue.cpp
//  4  Single keys                   app/config/SingleKey.cpp
//  5  Call commands                 app/config/CallCommands.cpp
//  6  SIP routing file              app/config/RoutingFile.cpp
//
// Status results: 0 (false) is success; every failure has been logged where it was found.
#pragma once

#include <array>
#include <string_view>

#include "app/config/Settings.h"
#include "common/FixedText.h"

inline constexpr const char* kDefaultCommandKey = "DefaultCmd";
inline constexpr const char* kCallerRulesKey = "CmdBasedOnCallerID";
inline constexpr const char* kDestinationRulesKey = "CmdBasedOnDestination";
inline constexpr std::array kCommandKeys = {kDefaultCommandKey, kCallerRulesKey, kDestinationRulesKey};

class MyConfiguration {
 public:
  // ---- 1 Own addresses ----

  // Platform hook for a socket layer that needs initialising; Linux has none. Always 0.
  int initializeNetwork();
  // Local address that the host uses to reach destination:port, dotted. True on failure.
  bool findMyIP(FixedText<16>& out, const char* destination, int port);
  // Finds pcMyIPAsDetectedInternally among the host's interfaces. True on failure.
  bool readNetworkInformation();

  // ---- 2 Instance lock, priority and shutdown ----

  // Takes the lock file over by writing our process id. 2 on failure.
  int writeTmpFile();
  // 0 while the lock is ours, or not yet five times in a row foreign or unreadable; then 2: this instance
  // must stop. Times when descriptors or memory are short do not count.
  int readTmpFile();
  // Nice value -15; failure is only logged.
  void increaseProcessPriority();
  // May the interrupt signal stop the process now? Logs the refusal. For the SIGINT handler.
  bool allowShutdown();
  // Tells the main loop to shut down. For the SIGINT handler.
  void startShutdown();

  // ---- 3 Configuration file ----

  // Reads the file (all keys, or on a reload the reloadable ones), checks, applies defaults, analyses the
  // commands. 2 after the first error; what was applied before it stays.
  int readParams(const char* path, bool reload);
  // Dotted form of an IPv4 address or host name. True on failure.
  bool validateAndGetDottedIPAddress(std::string_view value, FixedText<16>& out);

  // ---- 4 Single keys ----

  // First value of the key, in `out`, which is also returned; null when the file does not give one. Exits the
  // process with status 1 when the file cannot be opened (`out` holds at least 50,000 bytes).
  char* ReadConfVal(const char* path, const char* key, char* out);
  // Sets, replaces or (null value) comments out one key in the file, which keeps its owner and permissions. 2
  // when the file stays as it was because the new one cannot be written in its place.
  [[nodiscard]] int saveParamValue(const char* path, const char* key, const char* value);

  // ---- 5 Call commands ----

  // Splits "destination<Separator>type". 0, or 2 when it is no valid command.
  int analyzeCommand(std::string_view command, RuleText& destination, int& type);
  // Fills the tables of one of kCommandKeys from its text. 0 or 2.
  int analyzeCommandKey(std::string_view key);
  // Of all of them, as far as the first that is wrong. 0 or 2.
  int analyzeCommandKeys();

  // ---- 6 SIP routing file ----

  // Fills the routing table. 0, or 1 on the first bad line (the rows before it stay).
  int readSipRoutingFile(const char* path);
  // One line of such a file into the next row. 1, and the number of rows as it was, when it is bad.
  int readSipRoutingLine(std::string_view line);
};

inline MyConfiguration myConfiguration;
