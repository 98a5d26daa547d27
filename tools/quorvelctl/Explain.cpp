// What becomes of a call before it is made: the same code decides as in a running process, with the bindings
// that are on disk.
#include <cstdio>
#include <cstring>

#include "app/config/Settings.h"
#include "sip/MySip.h"
#include "tools/quorvelctl/Context.h"

namespace {

using Source = MySip::sCommandChoice::Source;
using Hop = MySip::sNextHop;

constexpr int kLeg = 0;

struct sExplanation {
  std::string rule;
  std::string destination;
  int iType = 0;
  std::string hop;
  std::string why;
};

std::string ruleText(const char* key, int rule, const RuleText& pattern) {
  return std::string(key) + ", rule " + std::to_string(rule + 1) + " (" + pattern.c_str() + ")";
}

std::string nameOf(const MySip::sCommandChoice& choice) {
  const auto rule = static_cast<std::size_t>(choice.iRule);
  switch (choice.source) {
    case Source::eCallerRule:
      return ruleText("CmdBasedOnCallerID", choice.iRule, ppcCmdBasedOnCallerIDFilter[rule]);
    case Source::eDestinationRule:
      return ruleText("CmdBasedOnDestination", choice.iRule, ppcCmdBasedOnDestinationFilter[rule]);
    case Source::eDefault:
      return "DefaultCmd";
  }
  return "";
}

const char* sidesOf(int type) {
  constexpr const char* kSides[] = {"nothing", "what the caller says", "what the called party says",
                                    "both directions"};
  return kSides[type];
}

std::string hopText(const Hop& hop) {
  if (hop.kind == Hop::Kind::ePbx)
    return std::string(pcSipProxyIP.view()) + ":" + std::to_string(iSipProxyPort);
  const sockaddr_in& address = hop.sAddress;
  return std::string(MySip::ipOf(address).view()) + ":" + std::to_string(ntohs(address.sin_port));
}

const char* whyOf(Hop::Kind kind) {
  switch (kind) {
    case Hop::Kind::eBoundPhone:
      return "a phone of that name is registered with Quorvel";
    case Hop::Kind::eRoutingRow:
      return "the routing file names that destination";
    case Hop::Kind::ePbx:
      return "no phone and no routing row has that name, so the PBX gets the call";
  }
  return "";
}

// Caller and destination as the headers of an INVITE would give them; a name without a host is at the PBX.
std::string withHost(const std::string& name) {
  return name.find('@') == std::string::npos ? name + "@" + pcSipProxyIP.c_str() : name;
}

bool isExplicit(const std::string& displayName) {
  return !pcSeparator.empty() && displayName.find(pcSeparator.view()) != std::string::npos;
}

bool explain(const std::string& caller, const std::string& dialled, const std::string& name,
             sExplanation& out) {
  const std::string from = "\"" + name + "\" <sip:" + caller + ">;tag=1";
  const std::string to = "<sip:" + dialled + ">";
  if (mySip.analyzeToStringInInviteMessage(kLeg, to) != 0 ||
      mySip.analyzeFromStringAndCommandInInviteMessage(kLeg, from, to) != 0)
    return false;
  MySip::sCommandChoice choice;
  if (isExplicit(name))
    out.rule = "the caller's display name";
  else if (MySip::chooseCommand(mySip.phone(kLeg).pcRemoteSipName, to, choice) == 0)
    out.rule = nameOf(choice);
  const sPhone& pair = mySip.partnerOf(kLeg);
  out.destination = pair.pcRemoteSipName.c_str();
  out.iType = pair.iCleaningType;
  const Hop hop = mySip.nextHopOf(out.destination, sockaddr_in{});
  out.hop = hopText(hop);
  out.why = whyOf(hop.kind);
  return true;
}

int refused(const sContext& context, const char* why) {
  if (context.bJson)
    std::printf("{\"accepted\": false, \"why\": %s}\n", jsonText(why).c_str());
  else
    std::printf("refused with 503 Service Unavailable: %s\n", why);
  return kNo;
}

}  // namespace

int explainCall(const sContext& context) {
  if (!loadConfiguration(context) || mySip.init(MySip::BindingFiles::eOfAnother) != 0) {
    for (const std::string& record : takeRecords()) std::fprintf(stderr, "%s\n", record.c_str());
    return fail("the configuration cannot be loaded");
  }
  takeRecords();
  const std::string caller = withHost(context.words[0]);
  const std::string dialled = withHost(context.words[1]);
  if (MySip::sipNameInDOSList(caller) && !MySip::sipNameInAOSList(caller))
    return refused(context, "DOSExpressions bars the caller and no AOSExpressions excepts it");

  sExplanation found;
  if (!explain(caller, dialled, context.words.size() > 2 ? context.words[2] : "", found)) {
    for (const std::string& record : takeRecords()) std::fprintf(stderr, "%s\n", record.c_str());
    return refused(context, "no rule can be applied");
  }
  if (context.bJson) {
    std::printf(
        "{\"accepted\": true, \"rule\": %s, \"destination\": %s, \"type\": %d, \"next_hop\": %s, \"why\": "
        "%s}\n",
        jsonText(found.rule).c_str(), jsonText(found.destination).c_str(), found.iType,
        jsonText(found.hop).c_str(), jsonText(found.why).c_str());
    return kYes;
  }
  std::printf("rule         %s\ndestination  %s\nprocessed    %s (type %d)\nnext hop     %s: %s\n",
              found.rule.c_str(), found.destination.c_str(), sidesOf(found.iType), found.iType,
              found.hop.c_str(), found.why.c_str());
  return kYes;
}
