// Two legs with one Call-ID. A PBX that passes messages on unchanged sends our own INVITE back to us when its
// destination is a phone that we reach ourselves:
//
//     phone ==A== Quorvel ==B==> PBX ==B==> Quorvel ==C== phone
//
// The two legs in the middle then differ only in their tags, and the relay must be asked by the other
// Call-IDs.
#include "sip/MySip.h"

namespace {

// The tags of a message as the leg that it belongs to keeps them.
struct sTags {
  std::string_view ours;    // of the party that the message goes to
  std::string_view theirs;  // empty, too, where the party is not yet known by one
  bool bRequest;

  explicit sTags(const sSipMessage& msg) : bRequest(msg.iStatus == 0) {
    std::string_view from;
    std::string_view to;
    (void)MySip::extractTag(MySip::extractHeader("From:", 200, msg.text), from);
    (void)MySip::extractTag(MySip::extractHeader("To:", 200, msg.text), to);
    ours = bRequest ? to : from;
    theirs = bRequest ? from : to;
  }

  bool fit(const sPhone& leg) const {
    if (!ours.empty()) return isTag(leg.pcLocalTag, ours);
    return bRequest && isTag(leg.pcRemoteTag, theirs);  // an INVITE, or its CANCEL
  }
  static bool isTag(std::string_view stored, std::string_view tag) {
    constexpr std::string_view kPrefix = ";tag=";
    return stored.starts_with(kPrefix) && stored.substr(kPrefix.size()) == tag;
  }
};

}  // namespace

int MySip::findSlotOf(const sSipMessage& msg, int first) const {
  const auto next = [&](int after) {
    return slotIndex.find(
        msg.callId, [&](int slot) { return psPhones[static_cast<std::size_t>(slot)].pcCallID == msg.callId; },
        after + 1);
  };
  if (first < 0 || next(first) < 0) return first;
  const sTags tags(msg);
  for (int slot = first; slot >= 0; slot = next(slot)) {
    const sPhone& leg = psPhones[static_cast<std::size_t>(slot)];
    if (leg.bInUse && tags.fit(leg)) return slot;
  }
  return first;
}

// Is the INVITE on this leg one that we sent ourselves, come back to us?
bool MySip::isOwnInvite(const sPhone& leg, const sSipMessage& msg) {
  if (!leg.bInviteSentByUs) return false;
  const sTags tags(msg);
  return tags.ours.empty() && sTags::isTag(leg.pcLocalTag, tags.theirs);
}

// Would our own INVITE, taken as a new call, go to the PBX, from where it came back? It would come back for
// ever.
bool MySip::wouldReturn(const sSipMessage& msg) {
  const std::string_view to = extractHeader("To:", 200, msg.text);
  sSipUri caller;
  sCommandChoice choice;
  FixedText<kSipNameCapacity> name;
  if (analyzeHeaderUri(extractHeader("From:", 200, msg.text), caller, "MySip::analyzeSipMessage") != 0 ||
      chooseCommand(caller.pcName, to, choice) != 0 || nameToCall(choice.destination, to, name) != 0)
    return true;
  return nextHopOf(name, msg.sFrom).kind == sNextHop::Kind::ePbx;
}

// An ended call has the Call-ID of the message, and so has perhaps a running one.
bool MySip::isOfRunningCall(const sSipMessage& msg, int old) const {
  const int running = findSlotOf(msg, findSlotInUse(msg.callId));
  if (running < 0) return false;
  const sTags tags(msg);
  return tags.fit(psPhones[static_cast<std::size_t>(running)]) &&
         !tags.fit(psOldCalls[static_cast<std::size_t>(old)]);
}

bool MySip::sharesCallID(int slot) const {
  const std::string_view callId = psPhones[static_cast<std::size_t>(slot)].pcCallID;
  return slotIndex.find(callId, [&](int other) {
    const sPhone& leg = psPhones[static_cast<std::size_t>(other)];
    return other != slot && leg.bInUse && leg.pcCallID == callId;
  }) >= 0;
}
