// What becomes of calls: rules and patterns that decide none, and settings that end or spoil them.
#include <algorithm>
#include <array>
#include <span>

#include "app/config/MyConfiguration.h"
#include "app/config/Settings.h"
#include "tools/quorvelctl/Check.h"

namespace {

std::string text(std::string_view view) {
  return std::string(view);
}

// Is it an address, as far as it has no wildcards? Names may stand for an address that we do not know.
bool isDotted(std::string_view host) {
  return host.find_first_not_of("0123456789.?") == std::string_view::npos;
}

bool matches(std::string_view pattern, std::string_view host) {
  return std::equal(pattern.begin(), pattern.end(), host.begin(), host.end(),
                    [](char wanted, char character) { return wanted == '?' || wanted == character; });
}

// A pattern covers the whole name, user@host, and names of phones end in the PBX's address or in ours.
void checkHosts(Findings& findings, const char* key, std::span<const std::string_view> patterns) {
  for (const std::string_view whole : patterns) {
    const std::size_t at = whole.find('@');
    const std::string_view host = at == std::string_view::npos ? "" : whole.substr(at + 1);
    if (host.empty())
      findings.warn(key, "the pattern " + text(whole) + " has no @ and host, so it matches no phone");
    else if (isDotted(host) && !matches(host, pcSipProxyIP) && !matches(host, pcSipProxyDomain) &&
             !matches(host, pcSipUAIP) && !matches(host, pcSipUAIPForBinding))
      findings.warn(key, "the pattern " + text(whole) + " matches only names at " + text(host) +
                             ", which is neither the PBX (" + text(pcSipProxyIP) + ") nor this host");
  }
}

// The first pattern that matches decides, so one that an earlier one covers decides nothing.
void checkCovered(Findings& findings, const char* key, std::span<const std::string_view> patterns) {
  for (std::size_t later = 0; later < patterns.size(); ++later)
    for (std::size_t earlier = 0; earlier < later; ++earlier) {
      if (!matches(patterns[earlier], patterns[later])) continue;
      findings.warn(key, "the pattern " + text(patterns[later]) + " decides nothing: " +
                             text(patterns[earlier]) + " before it matches the same names");
      break;
    }
}

template <typename Texts>
std::vector<std::string_view> viewsOf(const Texts& texts, int count) {
  return {texts.begin(), texts.begin() + count};
}

bool isAnythingProcessed() {
  const auto any = [](const auto& types, int count) {
    return std::any_of(types.begin(), types.begin() + count, [](int type) { return type != 0; });
  };
  return (!pcDefaultCmd.empty() && iDefaultFilteringType != 0) ||
         any(piCmdBasedOnCallerIDFilteringType, iNumCmdBasedOnCallerID) ||
         any(piCmdBasedOnDestinationFilteringType, iNumCmdBasedOnDestination);
}

void checkRegistration(Findings& findings) {
  if (iRegisterTrunk != 0 && pcTrunkName.empty())
    findings.warn("RegisterTrunk", "registers nothing, since TrunkName is not set");
  struct sRegistering {
    const char* pcKey;
    int iRegisters;
    bool bHasSecret;  // of its own
  };
  for (const sRegistering& one :
       {sRegistering{"RegisterTrunk", iRegisterTrunk, false},
        {"RegisterOrigPhones", iRegisterOrigPhones, !pcOrigPhonesName.empty() && !pcOrigPhonesSecret.empty()},
        {"RegisterPairPhones", iRegisterPairPhones,
         !pcPairPhonesName.empty() && !pcPairPhonesSecret.empty()}})
    if (one.iRegisters != 0 && !one.bHasSecret && pcSecret.empty())
      findings.warn(one.pcKey, "no Secret is set: a PBX that challenges registrations refuses them");
}

}  // namespace

void checkCommands(Findings& findings) {
  const auto callers = viewsOf(ppcCmdBasedOnCallerIDFilter, iNumCmdBasedOnCallerID);
  const auto destinations = viewsOf(ppcCmdBasedOnDestinationFilter, iNumCmdBasedOnDestination);
  const auto barred = viewsOf(pcDOSExpressions, iNumberOfDOSExpressions);
  const auto excepted = viewsOf(pcAOSExpressions, iNumberOfAOSExpressions);
  for (const auto& [key, patterns] :
       {std::pair(kCallerRulesKey, &callers), std::pair(kDestinationRulesKey, &destinations)}) {
    checkHosts(findings, key, *patterns);
    checkCovered(findings, key, *patterns);
  }
  checkHosts(findings, "DOSExpressions", barred);
  checkHosts(findings, "AOSExpressions", excepted);
  if (barred.empty() && !excepted.empty())
    findings.warn("AOSExpressions", "has no effect: DOSExpressions bars nobody");
  for (const sSipRoutingRow& row :
       std::span(psSipRoutingRows).first(static_cast<std::size_t>(iNumSipRoutingRecords)))
    checkHosts(findings, "SipRoutingFile", viewsOf(row.pcExpressions, row.iNumExpressions));
  if (pcDefaultCmd.empty())
    findings.warn(kDefaultCommandKey, "is not set: a call that no rule matches gets no answer at all");
}

void checkCalls(Findings& findings) {
  for (const auto& [key, seconds] :
       {std::pair("RTPTimeoutInSeconds", iRTPTimeoutInSeconds),
        std::pair("RTPTimeoutWhenOnHoldInSeconds", iRTPTimeoutWhenOnHoldInSeconds)})
    if (seconds < 1) findings.warn(key, "ends every such call at once, also one that is heard: at least 1");
  if (iNeedToDoNoiseCancellation == 0 && iNeedToDoAEC == 0 && isAnythingProcessed())
    findings.warn("NeedToDoNoiseCancellation",
                  "is 0, and so is NeedToDoAEC: whatever the type, nothing is processed");
  checkRegistration(findings);
}
