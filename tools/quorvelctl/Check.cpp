// The configuration check: what the program would refuse, line by line, and what it would take but cannot
// work.
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <map>
#include <unistd.h>

#include "app/config/KeyRegistry.h"
#include "app/config/KeyValue.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/TextFile.h"
#include "engine/Kestrova.h"
#include "rtp/MyRtp.h"
#include "tools/quorvelctl/Context.h"

namespace {

constexpr int kHighestPort = 65535;
constexpr int kCallsOfEngine = (KESTROVA_MAX_CHANNEL + 1) / 2;  // a channel for each side

struct sFinding {
  bool bError;
  int iLine;  // 0: of the file as a whole
  std::string key;
  std::string text;
};

using Findings = std::vector<sFinding>;

void warn(Findings& findings, std::string key, std::string text) {
  findings.push_back({false, 0, std::move(key), std::move(text)});
}

// The collected records as findings: errors where the program would not start, otherwise worth knowing. What
// is said before the message is the program's, not the reader's, business.
void takeRecordsAs(bool isError, Findings& findings, int line, std::string_view key) {
  for (const std::string& record : takeRecords()) {
    const std::size_t message = record.find(", ");
    findings.push_back({isError, line, std::string(key),
                        message == std::string::npos ? record : record.substr(message + 2)});
  }
}

// ---- What the program refuses ----

class FileCheck {
 public:
  explicit FileCheck(Findings& out) : findings(out) {}

  void run(const std::string& path) {
    const File file = openForReading(path.c_str());
    if (!file) return findings.push_back({true, 0, "", "cannot be read"});
    LineReader lines(file.get());
    for (int line = 1; lines.next(); ++line) checkLine(lines.text(), line);
    if (lines.failed()) return findings.push_back({true, 0, "", "cannot be read to its end"});
    checkDefaults();
    const bool refused = myConfiguration.analyzeCommandKeys() != 0;
    takeRecordsAs(refused, findings, 0, "");
  }

 private:
  void checkLine(std::string_view text, int line) {
    const sAssignment assignment = readAssignment(text);
    if (assignment.value.empty()) return;
    const int index = findKey(assignment.key);
    const std::string name(assignment.key);
    if (index < 0) {
      findings.push_back({false, line, name, "is no key of the configuration and has no effect"});
      return;
    }
    const auto [earlier, first] = lineOfKey.emplace(index, line);
    if (!first)
      findings.push_back(
          {false, line, name, "replaces the value of line " + std::to_string(earlier->second)});
    const sKey& key = keyRegistry()[static_cast<std::size_t>(index)];
    if (key.type == KeyType::eInteger && !scanInteger(assignment.value))
      findings.push_back({true, line, name, "is no number"});
    const KeyOutcome outcome = storeKeyValue(key, assignment.value);
    takeRecordsAs(outcome == KeyOutcome::eRefused, findings, line, name);
    if (outcome == KeyOutcome::eNotGiven)
      findings.push_back({false, line, name, "has no value that can be read"});
  }

  void checkDefaults() {
    const auto keys = keyRegistry();
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (lineOfKey.contains(static_cast<int>(i))) continue;
      const bool missing = !storeKeyDefault(keys[i]);
      takeRecordsAs(missing, findings, 0, keys[i].pcName);
    }
  }

  Findings& findings;
  std::map<int, int> lineOfKey;  // by index of the key
};

// ---- What is taken but cannot work ----

std::int64_t lastRtpPort() {
  return std::int64_t{iRtpUAPortInitVal} + 2 * std::int64_t{iNumPhonesToAllocate} - 1;
}

void checkPorts(Findings& findings) {
  for (const auto& [key, port] :
       {std::pair("SipUAPort", iSipUAPort), std::pair("SipProxyPort", iSipProxyPort),
        std::pair("RtpUAPortInitVal", iRtpUAPortInitVal)})
    if (port < 1 || port > kHighestPort) findings.push_back({true, 0, key, "is no port: 1 to 65535"});
  if (lastRtpPort() > kHighestPort)
    warn(findings, "RtpUAPortInitVal",
         "the RTP ports end at " + std::to_string(lastRtpPort()) + ", above 65535");
  if (iRtpUAPortInitVal % 2 != 0)
    warn(findings, "RtpUAPortInitVal", "is odd; many phones expect RTP on even ports (RFC 3550)");
  if (iSipUAPort >= iRtpUAPortInitVal && iSipUAPort <= lastRtpPort())
    warn(findings, "SipUAPort",
         "lies among the RTP ports " + std::to_string(iRtpUAPortInitVal) + " to " +
             std::to_string(lastRtpPort()));
  if (pcSipProxyIP == pcSipUAIP.view() && iSipProxyPort == iSipUAPort)
    warn(findings, "SipProxyPort", "the PBX's address is our own: every call would come back to us");
}

void checkSizes(Findings& findings) {
  if (iNumCallsToFilter > kCallsOfEngine && (iNeedToDoNoiseCancellation != 0 || iNeedToDoAEC != 0))
    warn(findings, "NumCallsToFilter",
         "the voice engine has room for " + std::to_string(kCallsOfEngine) +
             " calls: a call to be processed while as many others are up stays silent; start more instances");
  if (descriptorsFor(iNumCallsToFilter) > kMaxDescriptors)
    findings.push_back({true, 0, "NumCallsToFilter", "is more than the media relay can carry"});
  if (iNumCallsToFilter < iNumPhonesToAllocate / 2)
    warn(findings, "NumCallsToFilter",
         "fewer calls have media than NumPhonesToAllocate lets in: " + std::to_string(iNumCallsToFilter) +
             " of " + std::to_string(iNumPhonesToAllocate / 2));
}

struct sDigits {
  const char* pcKey;
  std::string text;
};

bool isDialable(const std::string& digits) {
  return digits.find_first_not_of("0123456789*#ABCD") == std::string::npos;
}

void checkDigits(Findings& findings) {
  const std::array<sDigits, 4> keys = {
      {{"DTMFRegistraterPrefix", std::string(pcDTMFRegisterPrefix.load().view())},
       {"DTMFActivatePrefix", std::string(pcDTMFActivatePrefix.load().view())},
       {"DTMFDisable", std::string(pcDTMFDisable.load().view())},
       {"DTMFSuffix", std::string(pcDTMFSuffix.load().view())}}};
  for (const sDigits& key : keys) {
    if (key.text.empty() || !isDialable(key.text)) continue;  // not dialable: switched off on purpose
    if (std::adjacent_find(key.text.begin(), key.text.end()) != key.text.end())
      warn(findings, key.pcKey,
           "repeats a digit; a phone that sends one long event for both is not understood");
    for (const sDigits& other : keys) {
      if (&key == &other || other.text.empty() || !isDialable(other.text)) continue;
      if (key.text == other.text && &key > &other) continue;  // said once
      if (other.text.find(key.text) != std::string::npos &&
          (key.pcKey != keys[3].pcKey || key.text == other.text))
        warn(findings, key.pcKey, "is part of " + std::string(other.pcKey) + ", so one sequence fires both");
    }
  }
}

struct sThreshold {
  const char* pcKey;
  double dValue;
  double dHighest;  // the figure never exceeds it
};

void checkThresholds(Findings& findings) {
  if (pcRealTimeAverageStatisticsFile.empty() && pcRealTimeExtremeStatisticsFile.empty()) return;
  const std::array<sThreshold, 4> highest = {
      {{"ThresholdToHighlightPacketLoss", fThresholdToHighlightPacketLoss, 100.0},
       {"ThresholdToHighlightDelay", static_cast<double>(iThresholdToHighlightDelay), 1000.0},
       {"ThresholdToHighlightAGCCoef", static_cast<double>(iThresholdToHighlightAGCCoef), 500.0},
       {"ThresholdToHighlightNoiseLevel", static_cast<double>(iThresholdToHighlightNoiseLevel), 32512.0}}};
  for (const sThreshold& threshold : highest)
    if (threshold.dValue > threshold.dHighest)
      warn(findings, threshold.pcKey, "never triggers: the figure stays below it");
  constexpr double kBestMos = 4.7;  // G.722 without any impairment
  if (fThresholdToHighlightMOS >= kBestMos)
    warn(findings, "ThresholdToHighlightMOS", "always triggers: no call is better");
}

void checkFileOf(Findings& findings, const char* key, std::string_view path) {
  if (path.empty()) return;
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  if (access(directory.empty() ? "." : directory.c_str(), W_OK) != 0)
    warn(findings, key, "nothing can be written to " + directory.string());
}

void checkFiles(Findings& findings, const sContext& context) {
  checkFileOf(findings, "StatisticsFile", pcStatisticsFile);
  checkFileOf(findings, "RealTimeAverageStatisticsFile", pcRealTimeAverageStatisticsFile);
  checkFileOf(findings, "RealTimeExtremeStatisticsFile", pcRealTimeExtremeStatisticsFile);
  const std::array<std::pair<const char*, std::string>, 2> tones = {
      {{"DTMFOKToneFile", std::string(pcDTMFOKToneFile.view())},
       {"DTMFFailToneFile", std::string(pcDTMFFailToneFile.view())}}};
  for (const auto& [key, path] : tones)
    if (!path.empty() && access(path.c_str(), R_OK) != 0) warn(findings, key, path + " cannot be read");
  const std::filesystem::path log = logPath(context);
  if (access(log.parent_path().c_str(), W_OK) != 0)
    warn(findings, "", "the log directory " + log.parent_path().string() + " cannot be written to");
}

// ---- Several instances ----

// What two instances on one host must not share.
struct sClaims {
  std::string path;
  std::string address;
  int iSipPort = 0;
  std::int64_t iFirstRtpPort = 0, iLastRtpPort = 0;
  std::array<std::pair<const char*, std::string>, 3> files;

  explicit sClaims(std::string from)
      : path(std::move(from)),
        address(pcSipUAIPForBinding.view()),
        iSipPort(iSipUAPort),
        iFirstRtpPort(iRtpUAPortInitVal),
        iLastRtpPort(lastRtpPort()),
        files{{{"StatisticsFile", std::string(pcStatisticsFile.view())},
               {"RealTimeAverageStatisticsFile", std::string(pcRealTimeAverageStatisticsFile.view())},
               {"RealTimeExtremeStatisticsFile", std::string(pcRealTimeExtremeStatisticsFile.view())}}} {}
};

void compare(Findings& findings, const sClaims& ours, const sClaims& other) {
  for (std::size_t i = 0; i < ours.files.size(); ++i)
    if (!ours.files[i].second.empty() && ours.files[i].second == other.files[i].second)
      warn(findings, ours.files[i].first, "is shared with " + other.path);
  if (ours.address != other.address) return;
  if (ours.iSipPort == other.iSipPort) warn(findings, "SipUAPort", "is shared with " + other.path);
  if (ours.iFirstRtpPort <= other.iLastRtpPort && other.iFirstRtpPort <= ours.iLastRtpPort)
    warn(findings, "RtpUAPortInitVal", "the RTP ports overlap those of " + other.path);
}

// ---- Printing ----

void print(const sContext& context, const Findings& findings, bool valid) {
  if (context.bJson) std::printf("{\"valid\": %s, \"findings\": [", valid ? "true" : "false");
  const char* separator = "";
  for (const sFinding& finding : findings) {
    const char* level = finding.bError ? "error" : "warning";
    if (context.bJson) {
      std::printf("%s\n  {\"level\": \"%s\", \"line\": %d, \"key\": %s, \"text\": %s}", separator, level,
                  finding.iLine, jsonText(finding.key).c_str(), jsonText(finding.text).c_str());
      separator = ",";
      continue;
    }
    std::printf("%s:", context.configuration.c_str());
    if (finding.iLine > 0) std::printf("%d:", finding.iLine);
    std::printf(" %s: ", level);
    if (!finding.key.empty()) std::printf("%s: ", finding.key.c_str());
    std::printf("%s\n", finding.text.c_str());
  }
  std::puts(context.bJson ? "]}" : valid ? "The configuration is valid." : "The configuration is not valid.");
}

}  // namespace

int checkConfiguration(const sContext& context) {
  Findings findings;
  if (myConfiguration.readNetworkInformation())
    warn(findings, "", "this host has no network address to start with");
  takeRecords();

  // The other files first: the settings are the process's own, and those of the checked file must stand at
  // the end.
  std::vector<sClaims> others;
  for (const std::string& path : context.words) {
    sContext other = context;
    other.configuration = path;
    if (!loadConfiguration(other)) return fail("%s cannot be loaded", path.c_str());
    takeRecords();
    others.emplace_back(path);
  }

  FileCheck(findings).run(context.configuration);
  const auto isError = [](const sFinding& finding) { return finding.bError; };
  if (std::none_of(findings.begin(), findings.end(), isError)) {
    checkPorts(findings);
    checkSizes(findings);
    checkDigits(findings);
    checkThresholds(findings);
    checkFiles(findings, context);
    for (const sClaims& other : others) compare(findings, sClaims(context.configuration), other);
  }
  const bool valid = std::none_of(findings.begin(), findings.end(), isError);
  print(context, findings, valid);
  return valid ? kYes : kNo;
}
