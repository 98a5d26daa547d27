#include <optional>

#include "app/config/Guarded.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/TextFile.h"
#include "common/Port.h"

namespace {

constexpr const char* kFunction = "MyConfiguration::readSipRoutingFile";
constexpr int kFailure = 1;
constexpr std::string_view kFieldEnd = "::";

// Takes the text before the next "::" off the line, with that mark. Nothing when there is none.
std::optional<std::string_view> takeField(std::string_view& line) {
  const std::size_t end = line.find(kFieldEnd);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view field = line.substr(0, end);
  line.remove_prefix(end + kFieldEnd.size());
  return field;
}

bool readNextHop(std::string_view& line, int lineNumber, sSipRoutingRow& row) {
  const std::optional<std::string_view> host = takeField(line);
  if (!host) {
    Log::error(kFunction, "unable to read IP for line %d\n", lineNumber);
    return false;
  }
  if (myConfiguration.validateAndGetDottedIPAddress(*host, row.pcIP)) {
    Log::error(kFunction, "unable to get valid IP for line %d\n", lineNumber);
    return false;
  }
  const std::optional<std::string_view> portText = takeField(line);
  if (!portText) {
    Log::error(kFunction, "unable to read port for line %d\n", lineNumber);
    return false;
  }
  row.iPort = scanInteger(*portText).value_or(0);
  if (row.iPort >= 1 && row.iPort <= kHighestPort) return true;
  Log::error(kFunction, "unable to read valid port for line %d\n", lineNumber);
  return false;
}

// Each expression ends with a semicolon; what follows the last one is the line end or is ignored.
bool readExpressions(std::string_view line, int lineNumber, sSipRoutingRow& row) {
  row.iNumExpressions = 0;
  for (std::size_t end = line.find(';'); end != std::string_view::npos; end = line.find(';')) {
    if (row.iNumExpressions == kMaxExpressions) {
      Log::error(kFunction, "too many expressions for line %d\n", lineNumber);
      return false;
    }
    if (!row.pcExpressions[static_cast<std::size_t>(row.iNumExpressions)].assign(line.substr(0, end))) {
      Log::error(kFunction, "value of an expression is too large in line %d\n", lineNumber);
      return false;
    }
    ++row.iNumExpressions;
    line.remove_prefix(end + 1);
  }
  return true;
}

int readRows(const char* path) {
  iNumSipRoutingRecords = 0;
  const File file = openForReading(path);
  if (!file) {
    Log::error(kFunction, "unable to open file\n");
    return kFailure;
  }
  LineReader lines(file.get());
  while (lines.next())
    if (myConfiguration.readSipRoutingLine(lines.text()) != 0) return kFailure;
  if (!lines.failed()) return 0;
  Log::error(kFunction, "unable to read file\n");
  return kFailure;
}

}  // namespace

int MyConfiguration::readSipRoutingLine(std::string_view line) {
  if (iNumSipRoutingRecords == kMaxSipRoutingRows) {
    Log::error(kFunction, "too many lines in sip routing file. Maximum is %d\n", kMaxSipRoutingRows);
    return kFailure;
  }
  sSipRoutingRow& row = psSipRoutingRows[static_cast<std::size_t>(iNumSipRoutingRecords)];
  const int lineNumber = iNumSipRoutingRecords + 1;
  if (!readNextHop(line, lineNumber, row) || !readExpressions(line, lineNumber, row)) return kFailure;
  ++iNumSipRoutingRecords;
  return 0;
}

int MyConfiguration::readSipRoutingFile(const char* path) {
  return guarded(kFunction, kFailure, [&] { return readRows(path); });
}
