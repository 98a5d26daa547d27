// What becomes of calls: rules and patterns that decide none, and settings that end or spoil them.
#include <algorithm>
#include <array>
#include <map>
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

// Is it meant to match more than itself? A * may well begin what is dialled, as it does for an exchange's
// features.
bool hasForeignWildcard(std::string_view pattern) {
  const std::size_t at = std::min(pattern.find('@'), pattern.size());
  const std::string_view user = pattern.substr(0, at);
  return pattern.find_first_of("[]^\\|") != pattern.npos || pattern.find('*', at) != pattern.npos ||
         (user.ends_with('*') && (user.size() == 1 || (user.front() != '*' && user.front() != '#')));
}

// A pattern covers the whole name, user@host, and names of phones end in the PBX's address or in ours.
void checkHosts(Findings& findings, const char* key, std::span<const std::string_view> patterns) {
  for (const std::string_view whole : patterns) {
    const std::size_t at = whole.find('@');
    const std::string_view host = at == std::string_view::npos ? "" : whole.substr(at + 1);
    if (hasForeignWildcard(whole))
      findings.warn(key, "in the pattern " + text(whole) +
                             " every character but ? stands for itself; a ? stands for exactly one");
    if (host.empty())
      findings.warn(key, "the pattern " + text(whole) + " has no @ and host, so it matches no phone");
    else if (isDotted(host) && !matches(host, pcSipProxyIP) && !matches(host, pcSipProxyDomain) &&
             !matches(host, pcSipUAIP) && !matches(host, pcSipUAIPForBinding))
      findings.warn(key, "the pattern " + text(whole) + " matches only names at " + text(host) +
                             ", which is neither the PBX (" + text(pcSipProxyIP) + ") nor this host");
  }
}

// Is there a name that both match?
bool meet(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return a == '?' || b == '?' || a == b; });
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

// Where a command sends calls.
void checkDestinations(Findings& findings, const char* key, std::span<const std::string_view> destinations) {
  for (const std::string_view destination : destinations) {
    const std::string why = destination == "*" ? "" : faultOfDestination(destination);
    if (!why.empty())
      findings.warn(key, why);
    else if (destination.find_first_of(":;") != destination.npos)
      findings.warn(key,
                    "the destination " + text(destination) +
                        " carries a port or parameters, so it is no registered phone's and no route's name");
  }
}

// The PBX rings one of two that register under the same name.
void checkNames(Findings& findings) {
  struct sList {
    const char* pcKey;
    std::string_view names;
    bool bRegisters;
  };
  for (const sList& list : {sList{"OrigPhonesName", pcOrigPhonesName, iRegisterOrigPhones != 0},
                            sList{"PairPhonesName", pcPairPhonesName, iRegisterPairPhones != 0}}) {
    std::map<std::string_view, int> seen;
    std::string_view rest = list.names;
    for (int phone = 0; phone < iNumPhonesToAllocate / 2 && !rest.empty(); ++phone) {
      const std::string_view name = rest.substr(0, rest.find(';'));
      rest.remove_prefix(std::min(name.size() + 1, rest.size()));
      if (name.empty())
        findings.warn(list.pcKey, "phone " + std::to_string(phone) + " has no name");
      else if (++seen[name] == 2 && list.bRegisters)
        findings.warn(list.pcKey,
                      "more than one phone registers as " + text(name) + ", and the PBX rings one of them");
    }
  }
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
  constexpr int kShortestExpiration =
      60;  // seconds; RFC 3261, 10.2.8 lets a registrar refuse less than an hour
  if ((iRegisterTrunk | iRegisterOrigPhones | iRegisterPairPhones) != 0 &&
      iRegisterExpiration < kShortestExpiration)
    findings.warn("RegisterExpiration", "has everything register anew every " +
                                            std::to_string(std::max(1, iRegisterExpiration / 2)) + " s");
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
  for (const std::string_view pattern : excepted)
    if (!barred.empty() && std::none_of(barred.begin(), barred.end(),
                                        [&](std::string_view other) { return meet(pattern, other); }))
      findings.warn("AOSExpressions",
                    "the pattern " + text(pattern) + " excepts nobody whom DOSExpressions bars");
  for (const sSipRoutingRow& row :
       std::span(psSipRoutingRows).first(static_cast<std::size_t>(iNumSipRoutingRecords)))
    checkHosts(findings, "SipRoutingFile", viewsOf(row.pcExpressions, row.iNumExpressions));
  checkDestinations(findings, kCallerRulesKey,
                    viewsOf(ppcCmdBasedOnCallerIDDestination, iNumCmdBasedOnCallerID));
  checkDestinations(findings, kDestinationRulesKey,
                    viewsOf(ppcCmdBasedOnDestinationDestination, iNumCmdBasedOnDestination));
  const std::string_view byDefault[] = {pcDefaultDestination};
  if (!pcDefaultCmd.empty()) checkDestinations(findings, kDefaultCommandKey, byDefault);
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
  if (iInviteShouldMatchPairPhoneName != 0 && pcPairPhonesName.empty())
    findings.warn("InviteShouldMatchPairPhoneName", "refuses every call with 486 but those of phones named " +
                                                        text(pcPairPhonesNamePrefix) +
                                                        "0 and so on, since PairPhonesName is not set");
  checkNames(findings);
  checkRegistration(findings);
}

std::string faultOfDestination(std::string_view destination) {
  const std::string shown = "the destination \"" + text(destination) + "\" ";
  const std::size_t at = destination.find('@');
  if (destination.starts_with("sip:") || destination.starts_with("sips:"))
    return shown + "must not begin with sip:, which is put before it";
  if (at == destination.npos || at == 0 || at + 1 == destination.size())
    return shown + "is neither * nor user@host";
  if (destination.find_first_of(" \t\"<>,") != destination.npos ||
      destination.find_first_of("*?", at) != destination.npos)
    return shown + "is no name of SIP: it has a blank, a quote, a bracket, or a * or ? for its host";
  return "";
}
