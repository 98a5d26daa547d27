// A new INVITE: choice of the slot, the two legs, and the INVITE with Replaces.
#include <arpa/inet.h>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::handleInviteMsg";

// Flags and numbers with which both legs of a new call begin.
void beginLeg(sPhone& leg, std::time_t now) {
  leg.sTimeCallStart = now;
  leg.bByePending = leg.bByeAnswered = false;
  leg.bMediaEstablished = leg.bAnswered = false;
  leg.bReInviteInProgress = leg.bReInviteFromThisLeg = false;
  leg.iPrevInviteCSeq = -1;
  leg.iByeCSeq = leg.iRemoteByeCSeq = leg.iReferCSeq = leg.iNotifyCSeq = -1;
  leg.iRemoteInviteCSeq = -1;
  leg.pcMoveContacts.clear();
  leg.iNumMoveContacts = 0;
  leg.iSecondsWithoutMedia = 0;
  leg.bPeerHeard = false;
  leg.iSdpVersion = 1;
  leg.iNumRoutes = 0;
  leg.pcNonAudioMedia.clear();
  leg.iNonAudioRemotePort = -1;
  leg.pcMediaIP.assignCut(pcSipUAIP);
  // Nothing of what the slot's previous peer said about media.
  leg.iRemoteRtpPort = 0;
  leg.pcRemoteRtpIP.assignCut("0.0.0.0");
  leg.bAudioSectionSeen = leg.bHoldByNullAddress = leg.bOnHold = false;
  leg.pcDirectionAttribute.clear();
  leg.pcTelephoneEventPT.clear();
  leg.pcTelephoneEventAttrs.clear();
}

// Does a Replaces value name the Call-ID, as a whole? A short one could also be part of another.
bool namesCallID(std::string_view replaces, std::string_view callId) {
  if (callId.empty()) return false;
  const std::size_t at = replaces.find(callId);
  if (at == std::string_view::npos) return false;
  const std::size_t end = at + callId.size();
  return (at == 0 || replaces[at - 1] == ' ') &&
         (end == replaces.size() || replaces[end] == ';' || replaces[end] == ' ');
}

}  // namespace

// ---- Choosing the slot ----

int MySip::chooseOrigSlot(std::string_view msg, const sockaddr_in& from) {
  if (iInviteShouldMatchPairPhoneName != 0) return chooseOrigSlotByPairPhoneName(msg, from);
  if (const int slot = firstFreeOrigSlot(); slot >= 0) return slot;
  for (int slot = 0; slot < numOrigSlots(); ++slot) {
    if (phone(slot).bTerminating) return slot;
  }
  return -1;
}

int MySip::chooseOrigSlotByPairPhoneName(std::string_view msg, const sockaddr_in& from) {
  const bool fromBoundPhone = doesAddressAppearInBindingTable(from);
  FixedText<kSipNameCapacity> user;
  const std::string_view header = extractHeader(fromBoundPhone ? "From:" : "To:", 200, msg);
  extractShortSipName(header, user);
  bool mayCall = true;
  if (!fromBoundPhone) {
    sSipUri uri;
    if (analyzeHeaderUri(header, uri, "MySip::analyzeSipMessage") != 0) return -1;
    mayCall = getBindingIndex(uri.pcName) >= 0;
    if (!mayCall) Log::info("MySip::analyzeSipMessage", "Phone %s is not binded\n", user.c_str());
  }
  if (const int slot = mayCall ? findPairPhone(user) : -1; slot >= 0) return slot;
  if (fromBoundPhone) {
    Log::info("MySip::analyzeSipMessage", "no match for INVITE in FROM %s\n", user.c_str());
  } else {
    Log::info("MySip::analyzeSipMessage", "no match for INVITE %s\n", user.c_str());
  }
  return -1;
}

int MySip::findPairPhone(std::string_view user) {
  for (int pair = numOrigSlots(); pair < iNumSlots; ++pair) {
    const sPhone& leg = phone(pair);
    if (leg.pcUserName != user) continue;
    if (!leg.bInUse || leg.bTerminating) return leg.iPairIndex;
    Log::info("MySip::analyzeSipMessage", "Phone %s,%d is during a call going to continue the search\n",
              leg.pcUserName.c_str(), pair);
  }
  return -1;
}

// ---- Setting up ----

void MySip::handleInviteMsg(int orig, std::string_view msg, const sockaddr_in& from,
                            std::string_view replacesForOrig, std::string_view headersForPair) {
  sPhone& leg = phone(orig);
  if (leg.bInUse && !leg.bTerminating) {
    sendGeneralErrorMsg(486, msg, from, orig, "");
    return;
  }
  if (leg.bInUse) releaseCall(orig);

  beginOrigLeg(orig, from, replacesForOrig);
  bool barred = false;
  if (readInviteOfCaller(orig, msg, barred) != 0) {
    freeSlot(orig);
    if (barred) sendGeneralErrorMsg(503, msg, from, orig, "");
    return;
  }
  storeRoutingInformation(orig, false, msg);
  FixedText<500> preserved;
  collectPreservedHeaders(msg, preserved, kFunction);

  const int pair = leg.iPairIndex;
  beginPairLeg(pair, msg, headersForPair);
  phone(pair).sRemoteAddress = nextHopOf(phone(pair).pcRemoteSipName, from).sAddress;
  prepareOneTimeRecordRouteMsg(pair, true, msg);
  prepareSDPAndsendInvite(pair, "", preserved);
  eraseOneTimeRoutingMsgAndDestinationIP(phone(pair));
}

void MySip::beginOrigLeg(int orig, const sockaddr_in& from, std::string_view replaces) {
  sPhone& leg = phone(orig);
  occupySlot(orig);
  beginLeg(leg, Clock::now());
  leg.bInviteSentByUs = false;
  fillNewSessionID(leg.iSdpSessionID);
  leg.pcHeadersToCopy.assignCut(replaces);
  leg.pcBranch.clear();
  leg.sRemoteAddress = from;
  (void)leg.pcViaParams.format(";received=%s;rport=%d", ipOf(from).c_str(), ntohs(from.sin_port));
}

int MySip::readInviteOfCaller(int orig, std::string_view msg, bool& barred) {
  sPhone& leg = phone(orig);
  setCallID(orig, callIdOf(msg));
  takeVia(msg, leg.pcRemoteVia);
  removeRport(leg.pcRemoteVia);
  const std::string_view to = extractHeader("To:", 200, msg);
  const std::string_view from = extractHeader("From:", 200, msg);

  if (analyzeFromStringAndCommandInInviteMessage(orig, from, to) != 0) {
    Log::error(kFunction, "error analyzing the From String\n");
    return 1;
  }
  leg.pcFarEndURI.assignCut(leg.pcRemoteSipName);
  barred = sipNameInDOSList(leg.pcRemoteSipName) && !sipNameInAOSList(leg.pcRemoteSipName);
  if (barred) return 1;
  if (analyzeToStringInInviteMessage(orig, to) != 0) {
    Log::error(kFunction, "error analyzing the To String\n");
    return 1;
  }
  std::string_view cseqText;
  if (!readCSeq(msg, leg.iRemoteInviteCSeq, cseqText)) {
    Log::error(kFunction, "unable to read CSeq from %.*s\n", static_cast<int>(cseqText.size()),
               cseqText.data());
    return 1;
  }
  leg.iInviteCSeq = leg.iRemoteInviteCSeq;
  drawLocalTag(leg);
  return readMediaAndContactOfCaller(orig, msg);
}

int MySip::readMediaAndContactOfCaller(int orig, std::string_view msg) {
  initializeCodecNegotiationList(orig);
  if (contentLengthOf(msg) == 0) {
    initializeAudioWithoutSDP(orig);
  } else if (analyzeMediaInSDP(orig, msg) != 0) {
    Log::error(kFunction, "unable to analyze audio in SDP for phone %d - terminating the call\n", orig);
    return 1;
  }
  sSipUri contact;
  if (analyzeHeaderUri(extractHeader("Contact:", 200, msg), contact, kFunction) != 0) return 1;
  phone(orig).pcRemoteContact = contact.pcFullUri;
  return 0;
}

void MySip::beginPairLeg(int pair, std::string_view msg, std::string_view headers) {
  sPhone& leg = phone(pair);
  const sPhone& orig = partnerOf(pair);
  occupySlot(pair);
  beginLeg(leg, Clock::now());
  leg.bInviteSentByUs = true;
  fillNewSessionID(leg.iSdpSessionID);
  leg.pcHeadersToCopy.assignCut(headers);
  if (iCopyCodecListFromInitialInvite != 0) {
    copyCodecNegotionList(leg.iPairIndex, pair);
  } else {
    initializeCodecNegotiationList(pair);
  }
  leg.pcRemoteContact.assignCut(leg.pcRemoteSipName);
  leg.pcViaParams.assignCut(";rport");
  extractFarEndURI(msg, leg.pcFarEndURI);
  leg.pcTelephoneEventPT = orig.pcTelephoneEventPT;
  leg.pcTelephoneEventAttrs = orig.pcTelephoneEventAttrs;
  beginDialog(pair);
  leg.pcRemoteVia.clear();
  leg.iInviteCSeq = leg.iCSeq;
}

void MySip::beginDialog(int slot) {
  sPhone& leg = phone(slot);
  drawBranch(leg);
  drawLocalTag(leg);
  drawCallID(slot);
  leg.iCSeq = 1;
  leg.pcRemoteTag.clear();
  // What was sent in an earlier call must not be sent again in this one; a REGISTER may still be challenged.
  for (sLastMsgData& stored : leg.psLastMsgs) {
    if (stored.pcCallID == leg.pcRegistrationCallID.view()) continue;
    stored.iCSeq = -1;
    stored.pcCallID.clear();
    stored.pcMsg.clear();
  }
}

MySip::sNextHop MySip::nextHopOf(std::string_view name, const sockaddr_in& source) {
  const int binding = doesAddressAppearInBindingTable(source) ? -1 : getBindingIndex(name);
  if (binding >= 0) return {sNextHop::Kind::eBoundPhone, binding, bindingAt(binding).sBindingAddress};
  const int row = getSipRoutingIndex(name);
  if (row < 0) return {sNextHop::Kind::ePbx, 0, sProxyAddress};
  const sSipRoutingRow& hop = psSipRoutingRows[static_cast<std::size_t>(row)];
  return {sNextHop::Kind::eRoutingRow, row, addressOf(hop.pcIP.c_str(), hop.iPort)};
}

void MySip::collectPreservedHeaders(std::string_view msg, FixedText<500>& out, const char* function) {
  constexpr std::size_t kRoom = 499;       // longest text of all preserved lines
  constexpr std::size_t kValueRoom = 498;  // the same without the shortest header's own two characters
  out.clear();
  for (int i = 0; i < iNumberOfPSHExpressions; ++i) {
    const Expression& name = pcPSHExpressions[static_cast<std::size_t>(i)];
    if (name.empty() || !contains(msg, name)) continue;
    const std::size_t length = out.size();
    bool fits = length + name.size() + 2 <= kRoom;
    if (fits) {
      const std::string_view value = extractHeader(name, kMaxMessageLength, msg);
      fits = value.size() < kValueRoom - length && length + name.size() + 1 + value.size() + 2 <= kRoom;
      if (fits) fits = out.append(name) && out.append(" ") && out.append(value) && out.append("\r\n");
    }
    if (!fits) {
      Log::warning(function, "Not enough space to accomodate the headers that shoule be preserved\n");
      return;
    }
  }
}

// ---- INVITE with Replaces ----

void MySip::takeReplaces(std::string_view msg, FixedText<500>& forOrig, FixedText<500>& forPair) {
  if (!contains(msg, "Replaces:")) return;
  const std::string_view value = extractHeader("Replaces:", 500, msg);
  if (value.empty()) return;
  FixedText<520> line;
  (void)line.assign("Replaces: ");
  (void)line.append(value);
  (void)line.append("\r\n");
  if (!forOrig.assign(line)) {
    Log::error("MySip::analyzeSipMessage", "Replaces header is too long %d\n", static_cast<int>(line.size()));
  }
  for (int slot = 0; slot < iNumSlots; ++slot) {
    const sPhone& leg = phone(slot);
    if (!leg.bInUse || !namesCallID(value, leg.pcCallID)) continue;
    handleInviteMsgReplacingOldCall(slot, forPair);
    return;
  }
}

void MySip::handleInviteMsgReplacingOldCall(int slot, FixedText<500>& out) {
  constexpr std::size_t kTagPrefix = 5;  // ";tag="
  const sPhone& other = partnerOf(slot);
  (void)out.format("Replaces: %s", other.pcCallID.c_str());
  if (!other.pcRemoteTag.empty() && !other.pcLocalTag.empty()) {
    const char* remote = other.pcRemoteTag.c_str() + kTagPrefix;
    const char* local = other.pcLocalTag.c_str() + kTagPrefix;
    const bool weInvited = other.bInviteSentByUs;
    (void)out.appendFormat(";to-tag=%s;from-tag=%s", weInvited ? remote : local, weInvited ? local : remote);
  }
  (void)out.append("\r\n");
  markTerminating(slot);
  closeRtpSessionPair(slot, phone(slot).iPairIndex);
}
