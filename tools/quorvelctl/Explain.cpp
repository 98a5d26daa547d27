// What becomes of a call before it is made: the same code decides as in a running process, with the bindings
// that are on disk.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <unistd.h>
#include <vector>

#include "app/config/Settings.h"
#include "sip/MySip.h"
#include "tools/quorvelctl/Check.h"

namespace {

using Source = MySip::sCommandChoice::Source;
using Hop = MySip::sNextHop;

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

// What a name without a host stands for in the headers of an INVITE, the likeliest first: a PBX puts its own
// address behind it, or ours, when it has us as a trunk; phones put what they know as their server.
std::vector<std::string> withHosts(const std::string& name) {
  if (name.find('@') != std::string::npos) return {name};
  std::vector<std::string> names;
  for (const char* const host : {pcSipProxyIP.c_str(), pcSipUAIP.c_str(), pcSipProxyDomain.c_str()})
    if (const std::string whole = name + "@" + host;
        std::find(names.begin(), names.end(), whole) == names.end())
      names.push_back(whole);
  return names;
}

bool isExplicit(const std::string& displayName) {
  return !pcSeparator.empty() && displayName.find(pcSeparator.view()) != std::string::npos;
}

// The caller's INVITE, without a session description: what decides stands in From and To.
struct sInvite {
  std::string to;
  std::string text;

  sInvite(const std::string& caller, const std::string& dialled, const std::string& name)
      : to("<sip:" + dialled + ">"),
        text("INVITE sip:" + dialled +
             " SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1;branch=z9hG4bKexplain\r\nFrom: \"" + name +
             "\" <sip:" + caller + ">;tag=1\r\nTo: " + to +
             "\r\nCall-ID: explain\r\nCSeq: 1 INVITE\r\nContact: <sip:" + caller +
             ">\r\nContent-Length: 0\r\n\r\n") {}
};

// Where the caller's messages come from, as far as that decides: the address of a registered phone.
sockaddr_in sourceOf(const std::string& caller) {
  const Hop hop = mySip.nextHopOf(caller, sockaddr_in{});
  return hop.kind == Hop::Kind::eBoundPhone ? hop.sAddress : sockaddr_in{};
}

// What the process would do with the call while no other is up.
struct sExplanation {
  std::string status{};  // the refusal's; empty with a reason: no answer at all
  std::string reason{};  // of a call that does not go on
  std::string rule{}, destination{}, hop{}, why{};
  std::string fault{};  // what is wrong with the destination
  int iType = 0;
  std::string caller{}, dialled{};  // the names that the answer is for

  // The same becomes of the call; the destination may be at the host that was dialled.
  bool agreesWith(const sExplanation& other) const {
    const auto user = [](const std::string& name) { return name.substr(0, name.find('@')); };
    return status == other.status && reason.empty() == other.reason.empty() && iType == other.iType &&
           hop == other.hop && user(destination) == user(other.destination);
  }
};

// The message of the first record.
std::string firstReason() {
  const std::vector<sRecord> records = takeRecords();
  return records.empty() ? "" : records.front().text;
}

// Not accepted: nothing else is answered than a barred caller.
sExplanation refusal(bool barred) {
  if (barred)
    return {.status = "503 Service Unavailable",
            .reason = "DOSExpressions bars the caller and no AOSExpressions excepts it"};
  const std::string reason = firstReason();
  const bool hasNoRule = reason.starts_with("there is no default");
  return {.status = "", .reason = hasNoRule ? "no rule matches and there is no DefaultCmd" : reason};
}

sExplanation explain(const sInvite& invite, const std::string& caller, const std::string& name) {
  // As at a start: what was explained before has taken a slot.
  if (mySip.init(MySip::BindingFiles::eOfAnother) != 0) return {.reason = takeReasons()};
  const sockaddr_in source = sourceOf(caller);
  takeRecords();
  const int slot = mySip.chooseOrigSlot(invite.text, source);
  if (slot < 0)
    return {
        .status = "486 Busy Here",
        .reason = "with InviteShouldMatchPairPhoneName=1 a phone's name must have a slot: " + firstReason()};
  takeRecords();
  bool barred = false;
  if (mySip.readInviteOfCaller(slot, invite.text, barred) != 0) return refusal(barred);

  sExplanation out;
  MySip::sCommandChoice choice;
  if (isExplicit(name))
    out.rule = "the caller's display name";
  else if (MySip::chooseCommand(mySip.phone(slot).pcRemoteSipName, invite.to, choice) == 0)
    out.rule = nameOf(choice);
  const sPhone& pair = mySip.partnerOf(slot);
  out.destination = pair.pcRemoteSipName.c_str();
  out.fault = isExplicit(name) && out.destination == "*"
                  ? "in a display name * stands for itself: a command there needs user@host"
                  : faultOfDestination(out.destination);
  out.iType = pair.iCleaningType;
  const Hop hop = mySip.nextHopOf(out.destination, source);
  out.hop = hopText(hop);
  out.why =
      mySip.nextHopOf(out.destination, sockaddr_in{}).kind == hop.kind
          ? whyOf(hop.kind)
          : "the phone of that name is passed over, since calls of registered phones go through the PBX";
  return out;
}

// ---- What the answer rests on ----

// Bindings are kept per instance, so the wrong name, or none, finds none.
std::string doubtAboutBindings(const sContext& context) {
  const std::string path = context.installation + "binding" + context.instance;
  if (access(path.c_str(), R_OK) == 0)
    return context.bNamed ? "" : "no instance is named (-i), so registered phones are looked for in " + path;
  if (errno == EACCES) return path + ", which holds the registered phones, may not be read: " + advice(path);
  return path + " is not there, so no phone counts as registered" +
         (context.bNamed ? "" : "; each instance has its own: name it with -i");
}

std::vector<std::string> doubts(const sContext& context) {
  std::vector<std::string> found;
  if (std::string text = doubtAboutBindings(context); !text.empty()) found.push_back(std::move(text));
  const auto process = findProcess(context);
  const sPending pending = process ? pendingOf(context, *process) : sPending{};
  if (std::string text = pendingText(context, pending); !text.empty()) found.push_back(std::move(text));
  if (process && isDraining(context).value_or(false))
    found.emplace_back("the process is draining: now it refuses every new call with 503");
  const auto calls = process ? askActiveCalls(context, *process) : std::nullopt;
  if (const auto allowed = pending.callsAllowed; calls && allowed && *calls >= *allowed)
    found.push_back(std::to_string(*calls) + " of " + std::to_string(*allowed) +
                    " calls are up: now it refuses every new call with 486");
  if (iNeedToDoNoiseCancellation == 0 && iNeedToDoAEC == 0)
    found.emplace_back(
        "NeedToDoNoiseCancellation and NeedToDoAEC are 0: whatever the type, nothing is processed");
  return found;
}

std::string jsonOf(const sExplanation& found) {
  const std::string names =
      "\"caller\": " + jsonText(found.caller) + ", \"dialled\": " + jsonText(found.dialled) + ", ";
  if (found.reason.empty())
    return names + "\"accepted\": true, \"rule\": " + jsonText(found.rule) +
           ", \"destination\": " + jsonText(found.destination) +
           ", \"type\": " + std::to_string(found.iType) + ", \"next_hop\": " + jsonText(found.hop) +
           ", \"why\": " + jsonText(found.why) +
           (found.fault.empty() ? "" : ", \"fault\": " + jsonText(found.fault));
  return names +
         "\"accepted\": false, \"status\": " + (found.status.empty() ? "null" : jsonText(found.status)) +
         ", \"why\": " + jsonText(found.reason);
}

std::string textOf(const sExplanation& found) {
  std::string text = found.status.empty() ? "not answered: " : "refused with " + found.status + ": ";
  if (found.reason.empty())
    text = "rule         " + found.rule + "\ndestination  " + found.destination + "\nprocessed    " +
           sidesOf(found.iType) + " (type " + std::to_string(found.iType) + ")\nnext hop     " + found.hop +
           ": " + found.why;
  text += found.reason;
  if (!found.fault.empty()) text += "\nsuch a call cannot work: " + found.fault;
  return text;
}

// The first is the likeliest; the others differ from it.
int print(const sContext& context, const std::vector<sExplanation>& found) {
  std::string warnings, others;
  for (const std::string& doubt : doubts(context)) {
    warnings += (warnings.empty() ? "" : ", ") + jsonText(doubt);
    if (!context.bJson) std::fprintf(stderr, "warning: %s\n", shownText(doubt).c_str());
  }
  if (!context.bJson) std::puts(shownText(textOf(found.front())).c_str());
  for (std::size_t i = 1; i < found.size(); ++i) {
    others += (i == 1 ? "{" : ", {") + jsonOf(found[i]) + "}";
    if (context.bJson) continue;
    std::printf("\nbut with %s in From: and %s in To: (quorvelctl trace shows them)\n",
                shownText(found[i].caller).c_str(), shownText(found[i].dialled).c_str());
    std::puts(shownText(textOf(found[i])).c_str());
  }
  if (context.bJson)
    std::printf("{%s, \"warnings\": [%s], \"but\": [%s]}\n", jsonOf(found.front()).c_str(), warnings.c_str(),
                others.c_str());
  return found.front().reason.empty() && found.front().fault.empty() ? kYes : kNo;
}

// A name as it is given, perhaps copied out of a message; empty when it is none.
std::string readName(std::string word) {
  if (word.starts_with('<') && word.ends_with('>')) word = word.substr(1, word.size() - 2);
  if (word.starts_with("sip:")) word.erase(0, 4);
  const bool isName = word.find_first_of(" \t\r\n\"<>") == std::string::npos && !word.starts_with('@') &&
                      !word.ends_with('@');
  return isName ? word : "";
}

// Of each reading of the two names, those that agree with none before.
std::vector<sExplanation> explainAll(const sContext& context) {
  const std::string name = context.words.size() > 2 ? context.words[2] : "";
  std::vector<sExplanation> all;
  for (const std::string& caller : withHosts(readName(context.words[0])))
    for (const std::string& dialled : withHosts(readName(context.words[1]))) {
      sExplanation one = explain(sInvite(caller, dialled, name), caller, name);
      one.caller = caller;
      one.dialled = dialled;
      if (std::none_of(all.begin(), all.end(), [&](const auto& other) { return one.agreesWith(other); }))
        all.push_back(std::move(one));
    }
  return all;
}

}  // namespace

int explainCall(const sContext& context) {
  for (const std::string& word : std::span(context.words).first(2))
    if (readName(word).empty())
      return fail("\"%s\" is no name: it is a user, or user@host", word.c_str()), kUsageError;
  if (!loadConfiguration(context)) return fail("%s", loadFailure(context).c_str());
  if (mySip.init(MySip::BindingFiles::eOfAnother) != 0) return fail("%s", takeReasons().c_str());
  return print(context, explainAll(context));
}
