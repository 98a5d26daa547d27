// 3xx answers to our INVITE: the contacts that they name are tried one after the other, each in a dialog of
// its own, before a failure reaches the caller.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/HeaderLines.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::reviewMoveStorage";
constexpr std::string_view kContact = "Contact:";

// What the other party is told, since "moved" would make it try the Contact that we answer with: our own.
constexpr std::string_view kNowhereToGo = "SIP/2.0 480 Temporarily Unavailable";
constexpr int kMaxContacts = 10;  // that a call looks at: two servers may redirect to each other

// Takes the first contact out of the list, in which each is followed by a comma or by the name of the next
// header line.
FixedText<3001> takeNextContact(FixedText<3001>& contacts) {
  const std::string_view all = contacts;
  const std::size_t nextName = MySip::stristr(all, kContact);
  std::string_view line = all.substr(0, nextName);
  FixedText<3001> contact;
  contact.assignCut(HeaderLines::takeValue(line));
  if (!line.empty() && line != "\r\n") {
    contacts.assignCut(all.substr(static_cast<std::size_t>(line.data() - all.data())));
  } else if (nextName == std::string_view::npos) {
    contacts.clear();
  } else {
    const std::size_t blankAfterName = 1;
    contacts.assignCut(all.substr(std::min(all.size(), nextName + kContact.size() + blankAfterName)));
  }
  return contact;
}

}  // namespace

void MySip::handleMoveMsg(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  std::string_view cseqText;
  int cseq = 0;
  // A redirection can only answer the INVITE that we have sent last.
  if (!leg.bInUse || leg.bTerminating || !leg.bInviteSentByUs || !readCSeq(msg, cseq, cseqText) ||
      cseq != leg.iInviteCSeq || !contains(cseqText, "INVITE")) {
    return;
  }
  const auto tagBefore = leg.pcRemoteTag;
  learnRemoteTag(leg, msg);
  sendOfInvite(leg, "ACK", leg.pcRemoteSipName, false);
  if (leg.bAnswered) leg.pcRemoteTag = tagBefore;  // of the dialog that stands
  sPhone& partner = partnerOf(slot);
  if (leg.bAnswered) {  // a call that stands does not move
    if (!leg.bReInviteInProgress) return;
    relayErrorStatus(partner, partner.pcRemoteVia, kNowhereToGo, "MySip::handleMoveMsg");
    stopReInviteAndRollBack(slot, leg.iPairIndex);
    return;
  }
  moveCallToOldCalls(slot);
  leg.pcMoveContacts.assignCut(extractToken(kContact, 3000, msg));
  (void)leg.pcMoveContacts.append("\r\n");
  if (reviewMoveStorage(slot)) return;
  markTerminating(slot);
  relayErrorStatus(partner, partner.pcRemoteVia, kNowhereToGo, "MySip::handleMoveMsg");
  closeRtpSessionPair(leg.iPairIndex, slot);
}

bool MySip::reviewMoveStorage(int slot) {
  sPhone& leg = phone(slot);
  // Whoever has hung up is not called elsewhere, and a call that stands does not move.
  if (leg.bTerminating || leg.bAnswered) return false;
  while (!leg.pcMoveContacts.empty()) {
    if (leg.iNumMoveContacts >= kMaxContacts) {
      Log::warning(kFunction, "more than %d contacts for %s, the others are not tried\n", kMaxContacts,
                   leg.pcRemoteSipName.c_str());
      leg.pcMoveContacts.clear();
      break;
    }
    ++leg.iNumMoveContacts;
    const FixedText<3001> contact = takeNextContact(leg.pcMoveContacts);
    sSipUri uri;
    if (analyzeHeaderUri(contact, uri, kFunction, HostLookup::eYes, "unable to find sip: in") == 0 &&
        inviteContact(slot, uri)) {
      return true;
    }
  }
  return false;
}

// False, and logged, when the contact would only lead round in a circle.
bool MySip::inviteContact(int slot, const sSipUri& contact) {
  sPhone& leg = phone(slot);
  const bool isOurself = contact.pcIP == pcSipUAIP.view() && contact.iPort == iSipUAPort;
  if (isOurself && getBindingIndex(contact.pcName) < 0) {
    Log::warning(kFunction, "contact %s is not tried, it leads round in a circle\n",
                 contact.pcFullUri.c_str());
    return false;
  }
  // After a redirection the old dialog has been acknowledged and is among the old calls already; after a
  // failure it is not. Its peer repeats the answer until somebody acknowledges it.
  if (findOldCall(leg.pcCallID) < 0) {
    sendOfInvite(leg, "ACK", leg.pcRemoteSipName, false);
    moveCallToOldCalls(slot);
  }
  leg.pcRemoteSipName = contact.pcName;
  leg.pcRemoteContact.assignCut(contact.pcName);  // until the new destination names its own
  leg.sRemoteAddress = addressOf(contact.pcIP.c_str(), contact.iPort);
  beginDialog(slot);
  leg.iInviteCSeq = leg.iCSeq;
  prepareSDPAndsendInvite(slot, "", "");
  return true;
}
