// Progress of a call: what the destination says on the pair leg is said again to the caller, with our own
// SDP. In every handler `slot` is the leg on which the message arrived and `other` its partner.
#include "app/config/Log.h"
#include "common/Clock.h"
#include "sip/MySip.h"

// Notes that the peer of a leg has been heard. An answer on a leg where we received the INVITE answers
// nothing.
bool MySip::isAnswerToOurInvite(int slot, const char* function) {
  sPhone& leg = phone(slot);
  leg.bPeerHeard = leg.bPeerHeard || leg.bInviteSentByUs;
  if (leg.bInviteSentByUs) return true;
  Log::warning(function, "phone %d got an answer but did not send the INVITE\n", slot);
  return false;
}

// A PBX may ring several phones with one INVITE. What another one still says after the call was answered, or
// what the network brings late, must not put its tag into the dialog that stands.
bool MySip::isLateAnswerOfAnotherFork(int slot, std::string_view msg, const char* function) {
  const sPhone& leg = phone(slot);
  std::string_view known;
  std::string_view tag;
  if (!leg.bAnswered || leg.bReInviteInProgress || !extractTag(leg.pcRemoteTag, known) ||
      !extractTag(extractToken("To:", 200, msg), tag) || tag == known) {
    return false;
  }
  Log::info(function, "phone %d is in a call, a late answer of another destination is ignored\n", slot);
  return true;
}

void MySip::relayProvisional(int slot, std::string_view msg, const char* statusLine, const char* function) {
  sPhone& other = partnerOf(slot);
  if (!other.bInUse) {
    Log::error(function, "original phone %d is not during a call\n", phone(slot).iPairIndex);
    return;
  }
  if (!isAnswerToOurInvite(slot, function) || isLateAnswerOfAnotherFork(slot, msg, function)) return;
  learnExternalIP(slot, msg);
  learnRemoteTag(phone(slot), msg);
  sendResponseWithVia(other, statusLine, other.iInviteCSeq, "INVITE", viaOfInvite(other));
}

void MySip::handleTryingMsg(int slot, std::string_view msg) {
  relayProvisional(slot, msg, "SIP/2.0 100 Trying", "MySip::handleTryingMsg");
}

void MySip::handleRingingMsg(int slot, std::string_view msg) {
  relayProvisional(slot, msg, "SIP/2.0 180 Ringing", "MySip::handleRingingMsg");
}

// What 183 and 200 have in common before they are told to the caller. Non-zero, logged: the message goes no
// further.
int MySip::takeAnswer(int slot, std::string_view msg, const char* function) {
  if (!isAnswerToOurInvite(slot, function)) return 1;
  sPhone& leg = phone(slot);
  const int otherSlot = leg.iPairIndex;
  phone(otherSlot).bReInviteInProgress = leg.bReInviteInProgress = false;
  learnExternalIP(slot, msg);
  learnRemoteTag(leg, msg);
  // A final answer may leave out the SDP that its 183 has already carried.
  if (contentLengthOf(msg) > 0 || !leg.bMediaEstablished) {
    if (analyzeMediaInSDP(slot, msg) != 0) {
      Log::error(function, "error during media analyze in SDP for phone %d\n", slot);
      return 1;
    }
    if (iCopyCodecListFromInitialInvite != 0) copyCodecNegotionList(slot, otherSlot);
  }
  return 0;
}

void MySip::takeRouteOfAnswer(int slot, std::string_view msg) {
  storeRoutingInformation(slot, true, msg);
  prepareOneTimeRecordRouteMsg(phone(slot).iPairIndex, false, msg);
}

void MySip::handleSessionProgressMsg(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::handleSessionProgressMsg";
  const int otherSlot = phone(slot).iPairIndex;
  sPhone& other = phone(otherSlot);
  if (!other.bInUse) {
    Log::error(kFunction, "original phone %d is not during a call\n", otherSlot);
    return;
  }
  if (other.bTerminating) {
    Log::warning(
        kFunction,
        "original phone %d is during cancel therefore it will not accept the Session Progress message\n",
        otherSlot);
    return;
  }
  if (contentLengthOf(msg) == 0) {  // progress without early media: there is nothing to relay yet
    relayProvisional(slot, msg, "SIP/2.0 183 Session Progress", kFunction);
    return;
  }
  if (isLateAnswerOfAnotherFork(slot, msg, kFunction) || takeAnswer(slot, msg, kFunction) != 0) return;
  takeRouteOfAnswer(slot, msg);
  prepareAndSendSessionProgress(otherSlot);
  eraseOneTimeRoutingMsgAndDestinationIP(other);
  phone(slot).bMediaEstablished = other.bMediaEstablished = true;
  restartRtpSession(otherSlot, slot);
}

void MySip::handleOKForInviteMsg(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::handleOKForInviteMsg";
  sPhone& leg = phone(slot);
  const int otherSlot = leg.iPairIndex;
  sPhone& other = phone(otherSlot);
  if (!other.bInUse) {
    Log::error(kFunction, "original phone %d is not during a call\n", otherSlot);
    return;
  }
  if (other.bTerminating) {
    Log::info(kFunction,
              "original phone %d is during cancel therefore it will not accept the OK for the Invite\n",
              otherSlot);
    return;
  }
  if (takeAnswer(slot, msg, kFunction) != 0) return;
  sSipUri contact;
  if (analyzeHeaderUri(extractHeader("Contact:", 200, msg), contact, kFunction) != 0) return;
  leg.pcRemoteContact = contact.pcFullUri;
  takeRouteOfAnswer(slot, msg);
  prepareAndSendOKForInvite(otherSlot);
  eraseOneTimeRoutingMsgAndDestinationIP(other);
  leg.bMediaEstablished = other.bMediaEstablished = true;
  leg.bAnswered = other.bAnswered = true;
  restartRtpSession(otherSlot, slot);
}

void MySip::handleErrorForInviteMsg(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::handleErrorForInviteMsg";
  sPhone& other = partnerOf(slot);
  if (!other.bInUse) {
    Log::error(kFunction, "original phone %d is not during a call\n", phone(slot).iPairIndex);
    return;
  }
  if (!isAnswerToOurInvite(slot, kFunction)) return;
  learnRemoteTag(phone(slot), msg);
  if (reviewMoveStorage(slot)) return;
  markTerminating(slot);
  relayErrorStatus(other, viaOfInvite(other), msg, kFunction);
  closeRtpSessionPair(phone(slot).iPairIndex, slot);
}

void MySip::handleACKMsg(int slot, std::string_view msg) {
  constexpr const char* kFunction = "MySip::handleACKMsg";
  sPhone& leg = phone(slot);
  const int otherSlot = leg.iPairIndex;
  sPhone& other = phone(otherSlot);
  if (!leg.bInUse) return;
  if (contentLengthOf(msg) > 0) {
    if (analyzeMediaInSDP(slot, msg) != 0) {
      Log::warning(kFunction, "error during SDP analysis\n");
    } else if (leg.bMediaEstablished && !leg.bTerminating) {
      restartRtpSession(slot, otherSlot);
    }
  }
  if (other.bInviteSentByUs) {
    prepareOneTimeRoutingMsgAndDestinationIP(otherSlot, msg);
    sendOfInvite(other, "ACK", other.pcRemoteContact, false);
    eraseOneTimeRoutingMsgAndDestinationIP(other);
  } else {
    Log::warning(kFunction, "phone %d requested to send ACK but is not the originator\n", otherSlot);
  }
  if (leg.bTerminating) releaseCall(slot);  // the ACK completes a failed or cancelled INVITE
}
