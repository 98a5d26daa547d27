// Values that each may be, but not together, or that do nothing.
#include <algorithm>
#include <array>
#include <cmath>
#include <span>

#include "app/config/Settings.h"
#include "common/Port.h"
#include "engine/EngineUnits.h"
#include "engine/Kestrova.h"
#include "rtp/MyRtp.h"
#include "rtp/RtpHeader.h"
#include "rtp/sRtpSessionPair.h"
#include "tools/quorvelctl/Check.h"

namespace {

std::string text(std::string_view view) {
  return std::string(view);
}

struct sDigits {
  const char* pcKey;
  std::string text;
};

constexpr const char* kKeysOfPhones = "0123456789*#ABCD";

// What cannot be dialled was switched off on purpose, as the default is; unless it has a key of a phone in
// it.
bool isDialable(const std::string& digits) {
  return !digits.empty() && digits.find_first_not_of(kKeysOfPhones) == std::string::npos;
}

bool isSlip(const std::string& digits) {
  return !isDialable(digits) && digits.find_first_of(kKeysOfPhones) != std::string::npos;
}

struct sThreshold {
  const char* pcKey;
  double dValue;
  double dHighest;  // the figure never exceeds it
};

// Five packets of the largest size wait for the one before them; 8 time stamps a millisecond in every codec.
constexpr double kHighestJitterMs = kJitterBufferEntries * (kMaxDatagramBytes - kRtpHeaderBytes) / 8.0;
constexpr double kHighestDelayMs = 1000;  // what is later counts as a gap
constexpr double kHighestGainPercent = 500;
// Of the packets that came: each counts at most one that did not.
constexpr double kHighestLossPercent = 100;
// 5 less the codec's impairment, and less 1.04, 1.22 and 1.46 for the worst loss, delay and jitter.
constexpr double kBestMos = 5 - 0.3, kWorstMos = 5 - 0.59 - 1.04 - 1.22 - 1.46;

}  // namespace

std::int64_t lastRtpPort() {
  return std::int64_t{iRtpUAPortInitVal} + 2 * std::int64_t{iNumPhonesToAllocate} - 1;
}

void checkPorts(Findings& findings) {
  for (const auto& [key, port] :
       {std::pair("SipUAPort", iSipUAPort), std::pair("SipProxyPort", iSipProxyPort),
        std::pair("RtpUAPortInitVal", iRtpUAPortInitVal)})
    if (port < 1 || port > kHighestPort) findings.refuse(key, "is no port: 1 to 65535");
  const std::string range = std::to_string(iRtpUAPortInitVal) + " to " + std::to_string(lastRtpPort());
  const auto isAmongRtpPorts = [](int port) { return port >= iRtpUAPortInitVal && port <= lastRtpPort(); };
  if (lastRtpPort() > kHighestPort)
    findings.warn("RtpUAPortInitVal",
                  "the RTP ports end at " + std::to_string(lastRtpPort()) + ", above 65535");
  if (iRtpUAPortInitVal % 2 != 0)
    findings.warn("RtpUAPortInitVal", "is odd; many phones expect RTP on even ports (RFC 3550)");
  if (isAmongRtpPorts(iSipUAPort)) findings.warn("SipUAPort", "lies among the RTP ports " + range);
  const bool isPbxHere = pcSipProxyIP == pcSipUAIP.view() || pcSipProxyIP == "127.0.0.1";
  if (isPbxHere && isAmongRtpPorts(iSipProxyPort))
    findings.warn("SipProxyPort", "the PBX on this host has a port among our RTP ports " + range);
  if (pcSipProxyIP == pcSipUAIP.view() && iSipProxyPort == iSipUAPort)
    findings.warn("SipProxyPort", "the PBX's address is our own: every call would come back to us");
}

void checkSizes(Findings& findings) {
  if (iNumCallsToFilter > kPairsWithChannels && (iNeedToDoNoiseCancellation != 0 || iNeedToDoAEC != 0))
    findings.warn(
        "NumCallsToFilter",
        "the voice engine has room for " + std::to_string(kPairsWithChannels) +
            " calls: a call to be processed while as many others are up stays silent; start more instances");
  const std::int64_t needed = descriptorsFor(iNumCallsToFilter);
  if (needed > kMaxDescriptors)
    findings.refuse("NumCallsToFilter", "is more than the media relay can carry");
  else if (const std::int64_t limit = raiseDescriptorLimit(); limit < needed)
    findings.warn("NumCallsToFilter", "so many calls may need " + std::to_string(needed) +
                                          " file descriptors, a process started from here may have " +
                                          std::to_string(limit) + " (ulimit -Hn)");
  if (iNumCallsToFilter < iNumPhonesToAllocate / 2)
    findings.warn("NumCallsToFilter", "fewer calls have media than NumPhonesToAllocate lets in: " +
                                          std::to_string(iNumCallsToFilter) + " of " +
                                          std::to_string(iNumPhonesToAllocate / 2));
}

void checkDigits(Findings& findings) {
  const std::array<sDigits, 4> keys = {{{"DTMFRegistraterPrefix", text(pcDTMFRegisterPrefix.load())},
                                        {"DTMFActivatePrefix", text(pcDTMFActivatePrefix.load())},
                                        {"DTMFDisable", text(pcDTMFDisable.load())},
                                        {"DTMFSuffix", text(pcDTMFSuffix.load())}}};
  const sDigits& activate = keys[1];
  const sDigits& suffix = keys[3];
  for (const sDigits& key : keys) {
    if (key.text.size() > kMaxDtmfDigits)
      findings.warn(key.pcKey, "is longer than the " + std::to_string(kMaxDtmfDigits) +
                                   " digits that are kept of a call");
    if (isSlip(key.text)) findings.warn(key.pcKey, "cannot be dialled: phones have 0 to 9, *, #, A to D");
    if (!isDialable(key.text)) continue;
    if ((&key == &keys[0] || &key == &activate) && !isDialable(suffix.text))
      findings.warn(key.pcKey,
                    "has no effect, since DTMFSuffix, which ends such a command, cannot be dialled");
    if (std::adjacent_find(key.text.begin(), key.text.end()) != key.text.end())
      findings.warn(
          key.pcKey,
          "repeats a digit: the second counts as a repetition of the first, so no phone can dial it");
    for (const sDigits& other : keys) {
      if (&key == &other || !isDialable(other.text) || other.text.find(key.text) == std::string::npos)
        continue;
      if (key.text == other.text && &key > &other) continue;  // said once
      findings.warn(key.pcKey, "is part of " + text(other.pcKey) +
                                   (&key == &suffix ? ", which so ends a command that was begun before it"
                                                    : ", so one sequence fires both"));
    }
  }
  if (isDialable(keys[0].text) && isDialable(suffix.text) && pcRegistrationLibrary.load().empty())
    findings.warn(keys[0].pcKey,
                  "RegistrationLibrary is not set: learned voices would go to where the process was started");
  if (iStartWithFilterActivated == 0 && !(isDialable(activate.text) && isDialable(suffix.text)))
    findings.warn("StartWithFilterActivated",
                  "is 0, and with DTMFActivatePrefix and DTMFSuffix as they are no key "
                  "sequence activates processing: no call is processed");
  if (isDialable(activate.text) && isDialable(suffix.text) && activate.text.back() == suffix.text.front())
    findings.warn(activate.pcKey,
                  "ends with the digit that DTMFSuffix begins with, and a digit that repeats is not taken: "
                  "activation without a name cannot be dialled");
}

// What a side's noise channel does, echo cancellation alone does not.
void checkNoiseChannel(Findings& findings) {
  if (iNeedToDoNoiseCancellation != 0 || iNeedToDoAEC == 0) return;
  for (const auto& [key, value] :
       {std::pair("NeedToDoAGC", iNeedToDoAGC.load()), std::pair("NeedToCheckDTMF", iNeedToCheckDTMF.load()),
        std::pair("CancelAcousticShock", iCancelAcousticShock.load())})
    if (value != 0 && findings.lineOf(key) > 0)
      findings.warn(key, "has no effect, since NeedToDoNoiseCancellation is 0");
}

void checkThresholds(Findings& findings) {
  if (pcRealTimeAverageStatisticsFile.empty() && pcRealTimeExtremeStatisticsFile.empty()) return;
  const auto value = [](int threshold) { return static_cast<double>(threshold); };
  const std::array<sThreshold, 6> thresholds = {
      {{"ThresholdToHighlightPacketLoss", fThresholdToHighlightPacketLoss, kHighestLossPercent},
       {"ThresholdToHighlightDelay", value(iThresholdToHighlightDelay), kHighestDelayMs},
       {"ThresholdToHighlightJitter", value(iThresholdToHighlightJitter), kHighestJitterMs},
       {"ThresholdToHighlightAGCCoef", value(iThresholdToHighlightAGCCoef), kHighestGainPercent},
       {"ThresholdToHighlightEchoLevel", value(iThresholdToHighlightEchoLevel), kLargestSpread},
       {"ThresholdToHighlightNoiseLevel", value(iThresholdToHighlightNoiseLevel), kLargestSpread}}};
  for (const sThreshold& threshold : thresholds) {
    if (threshold.dValue > threshold.dHighest || std::isnan(threshold.dValue))
      findings.warn(threshold.pcKey, "never triggers: no figure reaches it");
    if (threshold.dValue <= 0) findings.warn(threshold.pcKey, "always triggers: every figure reaches it");
  }
  if (fThresholdToHighlightMOS >= kBestMos)
    findings.warn("ThresholdToHighlightMOS", "always triggers: no call is better");
  if (!(fThresholdToHighlightMOS >= kWorstMos))  // also nan
    findings.warn("ThresholdToHighlightMOS", "never triggers: no call is worse than 0.69");
  constexpr double kUnchangedGainPercent = 100;
  const char* const gain = "ThresholdToHighlightAGCCoef";
  const char* const withoutGain = iNeedToDoAGC == 0                 ? "NeedToDoAGC"
                                  : iNeedToDoNoiseCancellation == 0 ? "NeedToDoNoiseCancellation"
                                                                    : nullptr;
  if (withoutGain != nullptr && findings.lineOf(gain) > 0 &&
      iThresholdToHighlightAGCCoef > kUnchangedGainPercent)
    findings.warn(gain, std::string("never triggers: ") + withoutGain + " is 0, and the gain stays at 100");
  const char* const echo = "ThresholdToHighlightEchoLevel";
  if (iNeedToDoAEC == 0 && findings.lineOf(echo) > 0 && iThresholdToHighlightEchoLevel > 0)
    findings.warn(echo, "never triggers: NeedToDoAEC is 0, and no echo is looked for");
}
