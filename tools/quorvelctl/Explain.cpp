// What becomes of a call before it is made: the same code decides as in a running process, with the bindings
// that are on disk.
#include <algorithm>
#include <cstdio>

#include "app/config/Settings.h"
#include "sip/MySip.h"
#include "tools/quorvelctl/Context.h"

namespace {

using Source = MySip::sCommandChoice::Source;
using Hop = MySip::sNextHop;

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

// The headers of the caller's INVITE that decide.
struct sInvite {
  std::string from;
  std::string to;

  sInvite(const std::string& caller, const std::string& dialled, const std::string& name)
      : from("\"" + name + "\" <sip:" + caller + ">;tag=1"), to("<sip:" + dialled + ">") {}
  std::string text() const {
    return "INVITE sip:explain SIP/2.0\r\nFrom: " + from + "\r\nTo: " + to + "\r\n\r\n";
  }
};

// The slot that takes the call while no other is up; -1 where only slots of a phone's name may and none has
// it.
int slotFor(const sInvite& invite, const std::string& caller) {
  const Hop ofCaller = mySip.nextHopOf(caller, sockaddr_in{});
  return mySip.chooseOrigSlot(invite.text(),
                              ofCaller.kind == Hop::Kind::eBoundPhone ? ofCaller.sAddress : sockaddr_in{});
}

bool explain(int slot, const sInvite& invite, const std::string& name, sExplanation& out) {
  if (mySip.analyzeToStringInInviteMessage(slot, invite.to) != 0 ||
      mySip.analyzeFromStringAndCommandInInviteMessage(slot, invite.from, invite.to) != 0)
    return false;
  MySip::sCommandChoice choice;
  if (isExplicit(name))
    out.rule = "the caller's display name";
  else if (MySip::chooseCommand(mySip.phone(slot).pcRemoteSipName, invite.to, choice) == 0)
    out.rule = nameOf(choice);
  const sPhone& pair = mySip.partnerOf(slot);
  out.destination = pair.pcRemoteSipName.c_str();
  out.iType = pair.iCleaningType;
  const Hop hop = mySip.nextHopOf(out.destination, sockaddr_in{});
  out.hop = hopText(hop);
  out.why = whyOf(hop.kind);
  return true;
}

int refused(const sContext& context, const char* status, const std::string& why) {
  if (context.bJson)
    std::printf("{\"accepted\": false, \"status\": %s, \"why\": %s}\n", jsonText(status).c_str(),
                jsonText(why).c_str());
  else
    std::printf("refused with %s: %s\n", status, why.c_str());
  return kNo;
}

// The first record without its level and writer: why there is no slot.
std::string firstReason() {
  const std::vector<std::string> records = takeRecords();
  const std::string first = records.empty() ? "" : records.front();
  return first.substr(std::min(first.size(), first.find(", ") + 2));
}

int print(const sContext& context, const sExplanation& found) {
  if (context.bJson)
    std::printf(
        "{\"accepted\": true, \"rule\": %s, \"destination\": %s, \"type\": %d, \"next_hop\": %s, \"why\": "
        "%s}\n",
        jsonText(found.rule).c_str(), jsonText(found.destination).c_str(), found.iType,
        jsonText(found.hop).c_str(), jsonText(found.why).c_str());
  else
    std::printf("rule         %s\ndestination  %s\nprocessed    %s (type %d)\nnext hop     %s: %s\n",
                found.rule.c_str(), found.destination.c_str(), sidesOf(found.iType), found.iType,
                found.hop.c_str(), found.why.c_str());
  return kYes;
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
    return refused(context, "503 Service Unavailable",
                   "DOSExpressions bars the caller and no AOSExpressions excepts it");

  const std::string name = context.words.size() > 2 ? context.words[2] : "";
  const sInvite invite(caller, dialled, name);
  const int slot = slotFor(invite, caller);
  if (slot < 0)
    return refused(context, "486 Busy Here",
                   "with InviteShouldMatchPairPhoneName=1 a phone's name must have a slot: " + firstReason());
  takeRecords();
  sExplanation found;
  if (explain(slot, invite, name, found)) return print(context, found);
  for (const std::string& record : takeRecords()) std::fprintf(stderr, "%s\n", record.c_str());
  return refused(context, "503 Service Unavailable", "no rule can be applied");
}
