// The parts of the configuration check, and what they find.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/quorvelctl/Context.h"

struct sFinding {
  enum class Weight { eInformation, eWarning, eError };  // an error: the program would not start
  Weight weight = Weight::eWarning;
  int iLine = 0;  // 0: of the file as a whole, or of a default
  std::string key{};
  std::string text{};
  std::string file{};  // empty: the file that is checked
};

class Findings {
 public:
  using Weight = sFinding::Weight;

  // The line that gives the key its value; 0 when none does.
  int lineOf(std::string_view key) const;
  void setLine(std::string_view key, int line) { lines[std::string(key)] = line; }

  void add(sFinding finding) { all.push_back(std::move(finding)); }
  // Of a key's value, with its line. Nothing more is said of a value that was refused.
  void warn(const char* key, std::string text) { judge(Weight::eWarning, key, std::move(text)); }
  void refuse(const char* key, std::string text) { judge(Weight::eError, key, std::move(text)); }

  bool hasError() const;
  bool isRefused(std::string_view key) const;
  // By line; what belongs to no line comes last.
  std::vector<sFinding> inOrder() const;

 private:
  void judge(Weight weight, const char* key, std::string text);

  std::vector<sFinding> all;
  std::map<std::string, int, std::less<>> lines;
};

// Reads the file as the program does, line by line and to its end. False: it cannot be read. (CheckLines.cpp)
bool checkLines(Findings& findings, const std::string& path);

// ---- What ends a start, by the settings ----

// All but a port that is taken. (CheckStart.cpp)
void checkStart(Findings& findings);
// Unless the process of the instance has it, its SIP port must be free.
void checkPortIsFree(Findings& findings, const sContext& context, bool isUserGuessed);

// ---- What is taken but cannot work, by the settings ----

void checkPorts(Findings& findings);  // CheckValues.cpp
void checkSizes(Findings& findings);
void checkDigits(Findings& findings);
void checkNoiseChannel(Findings& findings);
void checkThresholds(Findings& findings);
void checkCommands(Findings& findings);  // CheckCalls.cpp: rules and patterns
void checkCalls(Findings& findings);     // settings without which a call is not what was meant
// Why no INVITE can be sent to what a command names, other than *; empty when one can.
std::string faultOfDestination(std::string_view destination);
std::int64_t lastRtpPort();

// A file or directory that the settings name.
struct sPathClaim {
  enum class Use {
    eReads,
    eWrites,
    eNamesBeginWith
  };                  // the last: a directory, or one and the start of names
  const char* pcKey;  // empty: it follows from the installation and the instance
  Use use;
  std::string path;  // without links, "." and ".."
  std::string asGiven;
};
std::vector<sPathClaim> claimedPaths(const sContext& context);  // CheckPaths.cpp
// And the SIP port: what the instance's user is refused.
void checkPaths(Findings& findings, const sContext& context);
