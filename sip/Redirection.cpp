// 3xx answers to our INVITE: the contacts that they name are tried one after the other, each in a dialog of
// its own, before a failure reaches the caller.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::reviewMoveStorage";
constexpr std::string_view kContact = "Contact:";

// Takes the first contact out of the list, in which all but the first follow a header name.
FixedText<3001> takeNextContact(FixedText<3001>& contacts) {
  const std::size_t next = MySip::stristr(contacts, kContact);
  FixedText<3001> contact;
  if (next == std::string_view::npos) {
    contact = contacts;
    contacts.clear();
    return contact;
  }
  const std::size_t blankAfterName = 1;
  const std::string_view all = contacts;
  contact.assignCut(all.substr(0, next));
  contacts.assignCut(all.substr(std::min(all.size(), next + kContact.size() + blankAfterName)));
  return contact;
}

}  // namespace

void MySip::handleMoveMsg(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  // A redirection can only answer an INVITE of ours.
  if (!leg.bInUse || leg.bTerminating || !leg.bInviteSentByUs) return;
  learnRemoteTag(leg, msg);
  sendRequest(leg, requestLine("ACK", leg.pcRemoteSipName).c_str(), leg.iInviteCSeq, "ACK", false);
  moveCallToOldCalls(slot);
  leg.pcMoveContacts.assignCut(extractToken(kContact, 3000, msg));
  (void)leg.pcMoveContacts.append("\r\n");
  (void)reviewMoveStorage(slot);
}

bool MySip::reviewMoveStorage(int slot) {
  sPhone& leg = phone(slot);
  if (leg.pcMoveContacts.empty()) return false;
  const FixedText<3001> contact = takeNextContact(leg.pcMoveContacts);
  const std::size_t start = stristr(contact, "sip:");
  if (start == std::string_view::npos) {
    Log::error(kFunction, "unable to find sip: in %s\n", contact.c_str());
    return false;
  }
  sSipUri uri;
  if (analyzeURIString(contact.view().substr(start), uri, HostLookup::eYes) != 0) {
    Log::error(kFunction, "error analyzing the URI String %s\n", contact.c_str());
    return false;
  }
  // After a redirection the old dialog has been acknowledged and is among the old calls already; after a
  // failure it is not. Its peer repeats the answer until somebody acknowledges it.
  if (findOldCall(leg.pcCallID) < 0) {
    sendRequest(leg, requestLine("ACK", leg.pcRemoteSipName).c_str(), leg.iInviteCSeq, "ACK", false);
    moveCallToOldCalls(slot);
  }
  leg.pcRemoteSipName = uri.pcName;
  leg.pcRemoteContact.assignCut(uri.pcName);  // until the new destination names its own
  leg.sRemoteAddress = addressOf(uri.pcIP.c_str(), uri.iPort);
  beginDialog(slot);
  leg.iInviteCSeq = leg.iCSeq;
  prepareSDPAndsendInvite(slot, "", "");
  return true;
}
