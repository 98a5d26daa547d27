// The end of a call: CANCEL, BYE and their answers, and the termination that Quorvel itself decides on.
// In every handler `slot` is the leg on which the message arrived and `other` its partner.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MySip.h"

void MySip::handleCancelMsg(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::handleCancelMsg";
  sPhone& leg = phone(slot);
  const int otherSlot = leg.iPairIndex;
  sPhone& other = phone(otherSlot);
  if (!leg.bInUse) {
    Log::error(kFunction, "phone %d got cancel but is not in a call\n", slot);
    return;
  }
  if (!(leg.bMediaEstablished && leg.bAnswered)) {
    markTerminating(slot);
    closeRtpSessionPair(slot, otherSlot);
  } else if (!(leg.bReInviteInProgress && leg.bReInviteFromThisLeg)) {
    Log::warning(kFunction,
                 "Phone %d got cancel but although RTP started it is not in a middle of re-invite "
                 "processing. Going to "
                 "ignore.\n",
                 slot);
    return;
  }
  int cseq = 0;
  if (!readRequestCSeq(msg, cseq, kFunction)) return;
  leg.iRemoteInviteCSeq = std::max(leg.iRemoteInviteCSeq, cseq);
  leg.iCancelCSeq = cseq;

  other.iCancelCSeq = other.iInviteCSeq;
  prepareOneTimeRoutingMsgAndDestinationIP(otherSlot, msg);
  sendOfInvite(other, "CANCEL", other.pcRemoteSipName, true);
  eraseOneTimeRoutingMsgAndDestinationIP(other);
}

void MySip::handleOKForCANCELMsg(int slot, std::string_view) {
  constexpr const char* kFunction = "MySip::handleOKForCANCELMsg";
  if (!phone(slot).bInUse) {
    Log::error(kFunction, "error, the phone %d is not during call\n", slot);
    return;
  }
  if (!phone(slot).bTerminating) {
    Log::error(kFunction, "error, the phone %d is not during call cancel\n", slot);
    return;
  }
  sPhone& other = partnerOf(slot);
  if (other.bInviteSentByUs) {
    sendRequest(other, "SIP/2.0 200 OK", other.iCancelCSeq, "CANCEL", false);
  } else {
    sendResponseWithVia(other, "SIP/2.0 200 OK", other.iCancelCSeq, "CANCEL", viaOfInvite(other));
  }
}

void MySip::handleBYEMsg(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  const int otherSlot = leg.iPairIndex;
  sPhone& other = phone(otherSlot);
  if (!leg.bInUse) return;
  setInviteAside(slot);
  takeVia(msg, leg.pcRemoteVia);  // also for a BYE that crosses ours: the ended call answers it
  removeRport(leg.pcRemoteVia);
  if (leg.bTerminating && leg.bByePending) return;
  int cseq = 0;
  if (!readRequestCSeq(msg, cseq, "MySip::handleBYEMsg")) return;
  leg.iRemoteInviteCSeq = std::max(leg.iRemoteInviteCSeq, cseq);
  if (leg.bTerminating && cseq == leg.iRemoteByeCSeq) {
    resendLastSipMsg(other.psLastMsgs, other.iLastMsgIndex, other.pcCallID, other.iByeCSeq);
    return;
  }
  markTerminating(slot);
  leg.iRemoteByeCSeq = cseq;
  beginBye(other);
  prepareOneTimeRoutingMsgAndDestinationIP(otherSlot, msg);
  sendRequest(other, requestLine("BYE", other.pcRemoteContact).c_str(), other.iByeCSeq, "BYE", true);
  eraseOneTimeRoutingMsgAndDestinationIP(other);
  closeRtpSessionPair(slot, otherSlot);
}

void MySip::beginBye(sPhone& leg) {
  drawBranch(leg);
  leg.iByeCSeq = ++leg.iCSeq;
}

void MySip::handleOKForBYEMsg(int slot, std::string_view) {
  constexpr const char* kFunction = "MySip::handleOKForBYEMsg";
  sPhone& leg = phone(slot);
  sPhone& other = partnerOf(slot);
  if (!leg.bInUse) {
    Log::error(kFunction, "error, the phone %d is not during a call \n", slot);
    return;
  }
  if (!leg.bTerminating) {
    Log::error(kFunction, "error, the phone %d is not during call cancel\n", slot);
    return;
  }
  leg.bByeAnswered = true;
  if (!leg.bByePending) {
    sendResponse(other, "SIP/2.0 200 OK", other.iRemoteByeCSeq, "BYE", false);
  } else if (!other.bByeAnswered) {
    return;
  }
  releaseCall(slot);
}

void MySip::initiateCallTermination(int slot) {
  sPhone& leg = phone(slot);
  if (!leg.bInUse || (leg.bTerminating && !leg.bByePending)) return;
  sPhone& other = partnerOf(slot);
  if (!leg.bTerminating) {
    markTerminating(slot);
    setInviteAside(slot);
    for (sPhone* each : {&leg, &other}) {
      each->bByePending = true;
      beginBye(*each);
    }
    closeRtpSessionPair(slot, leg.iPairIndex);
  }
  for (sPhone* each : {&leg, &other}) {
    if (each->bByeAnswered) continue;
    sendRequest(*each, requestLine("BYE", each->pcRemoteContact).c_str(), each->iByeCSeq, "BYE", true);
    eraseOneTimeRoutingMsgAndDestinationIP(*each);
  }
}
