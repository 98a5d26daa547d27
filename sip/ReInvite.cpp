// Re-INVITE: either party changes the media of a call, or repeats its INVITE with credentials. The dialog
// block of both legs is saved before the INVITE is relayed and restored when it fails. In the handlers `slot`
// is the leg on which the message arrived and `partner` the other leg.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::handleReInviteMsg";

bool isAnswered(const sPhone& leg) {
  return leg.bMediaEstablished && leg.bAnswered;
}

bool isUntouched(const sPhone& leg) {
  return !leg.bMediaEstablished && !leg.bAnswered;
}

bool hasBye(const sPhone& leg) {
  return leg.iByeCSeq >= 0 || leg.iRemoteByeCSeq >= 0;
}

// Has a BYE overtaken an INVITE that is still to be answered?
bool isOvertaken(const sPhone& leg) {
  return hasBye(leg) && (leg.bReInviteInProgress || !leg.bAnswered);
}

// Was the re-INVITE in progress sent on this leg? It was not where its SDP could not be read.
bool wasRelayedOn(const sPhone& leg) {
  const sDialog& before = leg.sSavedDialog;
  return leg.bInviteSentByUs && !(before.bInviteSentByUs && before.iInviteCSeq == leg.iInviteCSeq);
}

bool isInCall(const sPhone& leg, int slot, const char* function) {
  if (leg.bInUse) return true;
  Log::error(function, "error, the phone %d is not during a call \n", slot);
  return false;
}

}  // namespace

// ---- A re-INVITE arrives ----

void MySip::handleReInviteMsg(int slot, std::string_view msg, const sockaddr_in& from) {
  const std::string_view credentials = extractAuthorizationLine(msg);
  std::string_view cseqText;
  int cseq = 0;
  if (!readCSeq(msg, cseq, cseqText)) {
    Log::error(kFunction, "Unable to read CSeq from %.*s\n", static_cast<int>(cseqText.size()),
               cseqText.data());
    return;
  }
  if (!admitReInvite(slot, cseq, !credentials.empty(), msg, from)) return;

  const int partnerSlot = phone(slot).iPairIndex;
  beginReInvite(slot);
  if (takeReInvite(slot, cseq, msg) != 0) return;
  FixedText<500> preserved;
  collectPreservedHeaders(msg, preserved, "MySip::handleReInviteMsg");
  prepareToReInvite(partnerSlot, msg);
  prepareSDPAndsendInvite(partnerSlot, credentials, preserved);
  eraseOneTimeRoutingMsgAndDestinationIP(phone(partnerSlot));
  if (phone(slot).bMediaEstablished) restartRtpSession(slot, partnerSlot);
}

// Whether the INVITE is to be relayed; if not, it has been dealt with.
bool MySip::admitReInvite(int slot, int cseq, bool hasCredentials, std::string_view msg,
                          const sockaddr_in& from) {
  const sPhone& leg = phone(slot);
  if (leg.bTerminating) {
    Log::warning(kFunction, "ignoring re-invite for phone %d since it is during call cancel\n", slot);
    return false;
  }
  if (!isAnswered(leg)) {
    if (isUntouched(leg) && cseq == leg.iInviteCSeq) {
      resendInvite(leg.iPairIndex);
      return false;
    }
    if (!hasCredentials) return false;
    if (isUntouched(leg)) partnerOf(slot).pcRemoteTag.clear();
  }
  if (!leg.bReInviteInProgress) return true;
  if (leg.bReInviteFromThisLeg && cseq == leg.iInviteCSeq) {
    if (wasRelayedOn(partnerOf(slot))) resendInvite(leg.iPairIndex);
    return false;
  }
  Log::info(kFunction,
            "ignoring re-invite for phone %d since it is already in process of another re-invite. Going to "
            "reply with 491\n",
            slot);
  sendRefusal("491 Request Pending", msg, from, slot, "");
  return false;
}

void MySip::resendInvite(int slot) {
  const sPhone& leg = phone(slot);
  resendLastSipMsg(leg.psLastMsgs, leg.iLastMsgIndex, leg.pcCallID, leg.iInviteCSeq);
}

void MySip::beginReInvite(int slot) {
  sPhone& leg = phone(slot);
  sPhone& partner = partnerOf(slot);
  for (sPhone* each : {&leg, &partner}) {
    each->sSavedDialog = each->dialog();
    each->bReInviteInProgress = true;
    each->bReInviteFromThisLeg = each == &leg;
  }
}

// What the INVITE says becomes the leg's dialog. Non-zero, logged: it cannot be relayed.
int MySip::takeReInvite(int slot, int cseq, std::string_view msg) {
  sPhone& leg = phone(slot);
  takeVia(msg, leg.pcRemoteVia);
  removeRport(leg.pcRemoteVia);
  leg.iInviteCSeq = cseq;
  leg.iRemoteInviteCSeq = std::max(leg.iRemoteInviteCSeq, cseq);
  initializeCodecNegotiationList(slot);
  if (contentLengthOf(msg) == 0) {
    initializeAudioWithoutSDP(slot);
  } else if (analyzeMediaInSDP(slot, msg) != 0) {
    Log::error(kFunction, "error during SDP analyze for phone %d\n", slot);
    return 1;
  }
  leg.bInviteSentByUs = false;
  storeRoutingInformation(slot, false, msg);
  return 0;
}

void MySip::prepareToReInvite(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  leg.bInviteSentByUs = true;
  leg.iInviteCSeq = ++leg.iCSeq;
  drawBranch(leg);
  extractFarEndURI(msg, leg.pcFarEndURI);
  if (iCopyCodecListFromInitialInvite != 0) {
    copyCodecNegotionList(leg.iPairIndex, slot);
  } else {
    initializeCodecNegotiationList(slot);
  }
  prepareOneTimeRecordRouteMsg(slot, true, msg);
}

// ---- It fails ----

void MySip::handleErrorForReInviteMsg(int slot, std::string_view msg) {
  constexpr const char* kError = "MySip::handleErrorForReInviteMsg";
  if (!isInCall(phone(slot), slot, kError) || !isAnswerToOurInvite(slot, kError)) return;
  learnRemoteTag(phone(slot), msg);
  sPhone& partner = partnerOf(slot);
  // An INVITE with credentials may have been redirected; the caller waits for the first answer still.
  if (reviewMoveStorage(slot)) return;
  relayErrorStatus(partner, viaOfInvite(partner), msg, kError);
  stopReInviteAndRollBack(slot, phone(slot).iPairIndex);
}

// A BYE brings a Via and a branch of its own, and is answered under them. A second one finds those of the
// first.
void MySip::setInviteAside(int slot) {
  if (hasBye(phone(slot))) return;
  for (sPhone* leg : {&phone(slot), &partnerOf(slot)}) {
    if (leg->bAnswered && !leg->bReInviteInProgress) continue;
    leg->pcPrevRemoteVia = leg->pcRemoteVia;
    leg->pcPrevBranch = leg->pcBranch;
  }
}

const FixedText<1000>& MySip::viaOfInvite(const sPhone& leg) {
  return isOvertaken(leg) ? leg.pcPrevRemoteVia : leg.pcRemoteVia;
}

const FixedText<100>& MySip::branchOfInvite(const sPhone& leg) {
  return isOvertaken(leg) ? leg.pcPrevBranch : leg.pcBranch;
}

void MySip::stopReInviteAndRollBack(int a, int b) {
  for (const int slot : {a, b}) {
    sPhone& leg = phone(slot);
    leg.iPrevInviteCSeq = leg.iInviteCSeq;
    leg.pcPrevRemoteTag = leg.pcRemoteTag;
    if (hasBye(leg)) {
      leg.sSavedDialog.pcRemoteVia = leg.pcRemoteVia;
      leg.sSavedDialog.pcBranch = leg.pcBranch;
    } else {
      leg.pcPrevRemoteVia = leg.pcRemoteVia;
      leg.pcPrevBranch = leg.pcBranch;
    }
    leg.dialog() = leg.sSavedDialog;
    leg.bReInviteInProgress = false;
  }
  if (phone(b).bTerminating) return;
  if (isAnswered(phone(b))) {
    restartRtpSession(b, a);
  } else {
    markTerminating(b);
    closeRtpSessionPair(b, a);
  }
}

// ---- Its late messages ----

void MySip::sendACKOnFailedReInvite(int slot, std::string_view) {
  sPhone& leg = phone(slot);
  if (!isInCall(leg, slot, "MySip::sendACKOnFailedReInvite")) return;
  acknowledgeRefusal(leg, leg.iPrevInviteCSeq, leg.pcPrevRemoteTag, leg.pcPrevBranch);
}

void MySip::handleACKForPreviousFailedReInvite(int slot, std::string_view msg) {
  sendACKOnFailedReInvite(phone(slot).iPairIndex, msg);
}

void MySip::sendRequestTerminatedOnFailedReInvite(int slot, std::string_view) {
  sPhone& leg = phone(slot);
  if (!isInCall(leg, slot, "MySip::sendRequestTerminatedOnFailedReInvite")) return;
  FixedText<30> cseq;
  (void)cseq.format("%d INVITE", leg.iPrevInviteCSeq);
  generalPrepareAndSendMsg(false, leg, "SIP/2.0 487 Request Terminated", cseq.c_str(), kNoBody, 0, false,
                           leg.pcPrevRemoteTag.c_str(), leg.pcPrevRemoteVia.c_str(),
                           leg.pcPrevBranch.c_str());
}
