// Classification of a received datagram. The rules stand in one table that is walked from top to bottom; the
// first that applies decides, unless its handler finds that the message is not for it.
#include <arpa/inet.h>
#include <array>
#include <cstring>

#include "app/config/Log.h"
#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::analyzeSipMessage";
constexpr int kNoCSeq = -1;  // what a leg keeps where it has no number: no message may match it
constexpr std::string_view kReloadWord = "800-QUORVEL-RELOAD";

}  // namespace

// One rule. A row applies when the message is the response (by its status code) or the request (by its
// method) that it names, the CSeq value contains `pcCSeq` (if given) and `condition` (if given) holds. Then
// either `handler` decides, or the slot with the message's Call-ID is handed to `slotHandler`, and
// `pcNoMatch` is logged when there is none. A row with neither drops the message.
//
// Reason phrases are for people (RFC 3261, 7.2): phones say "200 Answering" as well as "200 OK". Methods are
// compared at the start of the line: searched anywhere, "ACK" would also be found in a name.
struct MySip::sDispatchRule {
  int iStatus;           // 0: not by status
  const char* pcMethod;  // null: not by method
  const char* pcCSeq;
  bool (*condition)(const MySip&, const sSipMessage&);
  Verdict (MySip::*handler)(const sSipMessage&);
  void (MySip::*slotHandler)(int, std::string_view);
  const char* pcNoMatch;

  bool applies(const MySip& sip, const sSipMessage& msg) const {
    return (iStatus == 0 || msg.iStatus == iStatus) &&
           (pcMethod == nullptr || isMethod(msg.firstLine, pcMethod)) &&
           (pcCSeq == nullptr || contains(msg.cseqText, pcCSeq)) &&
           (condition == nullptr || condition(sip, msg));
  }
};

namespace {

using Message = const sSipMessage&;

bool notAllActive(const MySip& sip, Message) {
  return !sip.bAllPhonesActive;
}
bool duringShutdown(const MySip&, Message) {
  return bDuringShutdown;
}
bool isErrorStatus(const MySip&, Message msg) {
  return msg.iStatus >= 400 && msg.iStatus <= 699;
}
bool isClientErrorStatus(const MySip&, Message msg) {
  return msg.iStatus >= 400 && msg.iStatus <= 499;
}

}  // namespace

// The order decides. While not all identities are active, only what stands above the second "not all active"
// row is handled; during shutdown only answers to BYEs and registrations.
MySip::Verdict MySip::dispatch(const sSipMessage& msg) {
  static constexpr sDispatchRule kRules[] = {
      {200, nullptr, "REGISTER", nullptr, &MySip::onOKForRegister, nullptr, nullptr},
      {200, nullptr, "SUBSCRIBE", nullptr, &MySip::onOKForSubscribe, nullptr, nullptr},
      {200, nullptr, nullptr, notAllActive, nullptr, nullptr, nullptr},
      {200, nullptr, " BYE", nullptr, nullptr, &MySip::handleOKForBYEMsg, "no match for OK for Bye Msg\n"},
      {200, nullptr, nullptr, duringShutdown, nullptr, nullptr, nullptr},
      {200, nullptr, " INVITE", nullptr, &MySip::onOKForInvite, nullptr, nullptr},
      {200, nullptr, " CANCEL", nullptr, nullptr, &MySip::handleOKForCANCELMsg,
       "no match for OK for Cancel Msg\n"},
      {200, nullptr, " NOTIFY", nullptr, &MySip::onOKForNotify, nullptr, nullptr},
      {0, nullptr, nullptr, duringShutdown, nullptr, nullptr, nullptr},
      {202, nullptr, " REFER", nullptr, nullptr, &MySip::handleAcceptedForREFERMsg,
       "no match for Accepted for Refer Msg\n"},
      {0, "REGISTER ", nullptr, nullptr, &MySip::onRegister, nullptr, nullptr},
      {0, "SUBSCRIBE ", nullptr, nullptr, &MySip::onSubscribe, nullptr, nullptr},
      {0, nullptr, nullptr, notAllActive, nullptr, nullptr, nullptr},
      {302, nullptr, nullptr, nullptr, nullptr, &MySip::handleMoveMsg, "no match for Move Msg\n"},
      {301, nullptr, nullptr, nullptr, nullptr, &MySip::handleMoveMsg, "no match for Move Msg\n"},
      {300, nullptr, nullptr, nullptr, nullptr, &MySip::handleMoveMsg, "no match for Move Msg\n"},
      {0, "INVITE ", nullptr, nullptr, &MySip::onInvite, nullptr, nullptr},
      {100, nullptr, "INVITE", nullptr, nullptr, &MySip::handleTryingMsg, "no match for Trying Msg\n"},
      {180, nullptr, nullptr, nullptr, nullptr, &MySip::handleRingingMsg, "no match for Ringing Msg\n"},
      {183, nullptr, "INVITE", nullptr, nullptr, &MySip::handleSessionProgressMsg,
       "no match for Session Progress Msg\n"},
      {0, "CANCEL ", nullptr, nullptr, &MySip::onCancel, nullptr, nullptr},
      {0, nullptr, "INVITE", isErrorStatus, &MySip::onErrorForInvite, nullptr, nullptr},
      {0, nullptr, " NOTIFY", isClientErrorStatus, &MySip::onErrorForNotify, nullptr, nullptr},
      {0, "ACK", nullptr, nullptr, &MySip::onAck, nullptr, nullptr},
      {0, "BYE", nullptr, nullptr, nullptr, &MySip::handleBYEMsg, "no match for BYE Msg\n"},
      {0, "REFER", nullptr, nullptr, nullptr, &MySip::handleREFERMsg, "no match for REFER Msg\n"},
      {0, "NOTIFY", nullptr, nullptr, &MySip::onNotify, nullptr, nullptr},
      {0, "OPTIONS", nullptr, nullptr, &MySip::onOptions, nullptr, nullptr},
  };
  for (const sDispatchRule& rule : kRules) {
    if (!rule.applies(*this, msg)) continue;
    if (rule.slotHandler != nullptr) {
      callSlotHandler(msg, rule.slotHandler, rule.pcNoMatch);
    } else if (rule.handler != nullptr && (this->*rule.handler)(msg) == Verdict::eContinue) {
      continue;
    }
    return Verdict::eDone;
  }
  return Verdict::eDone;
}

void MySip::callSlotHandler(const sSipMessage& msg, void (MySip::*handler)(int, std::string_view),
                            const char* noMatch) {
  const int slot = findSlotOf(msg);
  if (slot >= 0) {
    (this->*handler)(slot, msg.text);
  } else {
    Log::warning(kFunction, "%s", noMatch);
  }
}

// ---- From datagram to message ----

void MySip::analyzeSipMessage(std::string_view text, const sockaddr_in& from) {
  if (handleReloadDatagram(text)) return;

  FixedText<3000> translated;
  if (!contains(text, "Call-ID:")) {
    if (!contains(text, "\r\ni: ")) return;
    logReceived("*** Got (prior translation)", text, from);
    translated.assignCut(text);
    if (!translateCompactHeaders(translated)) return;
    text = translated;
  }

  sSipMessage msg;
  msg.text = text;
  msg.sFrom = from;
  msg.callId = callIdOf(text);
  if (msg.callId.empty()) {
    Log::error(kFunction, "Unable to locate callID... \n");
    return;
  }
  msg.firstLine = firstLineOf(text);
  if (msg.firstLine.size() > kMaxFirstLine) {
    Log::warning(kFunction, "status line too long\n");
    return;
  }
  logReceived("*** Got", text, from);
  msg.iStatus = statusCodeOf(msg.firstLine);
  if (msg.iStatus == 401 || msg.iStatus == 407) {
    handleUnauthorizedMsg(text, from);
    return;
  }
  msg.cseqText = extractToken("CSeq:", 50, text);
  if (!readDecimal(msg.cseqText, msg.iCSeq) || msg.iCSeq == kNoCSeq) {
    Log::error(kFunction, "unable to read CSeq from %.*s\n", static_cast<int>(msg.cseqText.size()),
               msg.cseqText.data());
    return;
  }
  const int old = findOldCall(msg.callId);
  if (old >= 0 && !isOfRunningCall(msg, old) &&
      checkOldCalls(msg.callId, msg.firstLine, msg.iCSeq, msg.cseqText)) {
    return;
  }
  (void)dispatch(msg);
}

// The control message: the word, one separator character, the file name up to CR LF.
bool MySip::handleReloadDatagram(std::string_view text) {
  if (!contains(text, kReloadWord)) return false;
  const std::size_t start = stristr(text, kReloadWord) + kReloadWord.size();
  const std::size_t end = text.find("\r\n", start);
  if (end == std::string_view::npos) {
    Log::error(kFunction, "800-QUORVEL-RELOAD msg does not end with \\r\\n\n");
    return true;
  }
  const std::string_view name = end > start ? text.substr(start + 1, end - start - 1) : std::string_view();
  Log::info(kFunction, "Going to reload configuration file \"%.*s\"\n", static_cast<int>(name.size()),
            name.data());
  reloadFromConfiguration(name);
  return true;
}

void MySip::logReceived(const char* what, std::string_view text, const sockaddr_in& from) {
  if (iSipDebug == 0) return;
  Log::info(kFunction, "%s from %s:%d:\n%.*s\n", what, ipOf(from).c_str(), ntohs(from.sin_port),
            static_cast<int>(text.size()), text.data());
}

// ---- Rules that need more than a slot ----

MySip::Verdict MySip::onOKForRegister(const sSipMessage& msg) {
  const auto isAnsweredBy = [&msg](const sPhone& identity) {
    return !identity.pcRegistrationCallID.empty() && contains(msg.callId, identity.pcRegistrationCallID);
  };
  const auto confirm = [](sPhone& identity) {
    identity.bRegistered = true;
    identity.sTimeLastRegistration = Clock::now();
    return Verdict::eDone;
  };
  if (bTrunkExists && isAnsweredBy(sTrunk)) return confirm(sTrunk);
  for (int slot = 0; slot < iNumSlots; ++slot) {
    if (isAnsweredBy(phone(slot))) return confirm(phone(slot));
  }
  const int binding = findBindingByRelayedRegistration(msg.callId, msg.iCSeq);
  if (binding < 0) return Verdict::eContinue;
  handleOKForRegistrationOnBehalfOfBindedPhone(binding, msg.text);
  return Verdict::eDone;
}

MySip::Verdict MySip::onOKForSubscribe(const sSipMessage& msg) {
  const sSubscriptionPlace place = findSubscriptionByRelayCallID(msg.callId, &msg.iCSeq, true);
  if (!place) return Verdict::eContinue;
  handleOKForSubscriptionOnBehalfOfBindedPhone(place.iBinding, place.iEntry, msg.text);
  return Verdict::eDone;
}

MySip::Verdict MySip::onOKForInvite(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot < 0) {
    Log::warning(kFunction, "no match for OK for Invite Msg\n");
  } else if (phone(slot).iInviteCSeq != msg.iCSeq) {
    sPhone& leg = phone(slot);
    sendRequest(leg, requestLine("ACK", leg.pcRemoteSipName).c_str(), msg.iCSeq, "ACK", false);
  } else {
    handleOKForInviteMsg(slot, msg.text);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onOKForNotify(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot >= 0) {
    handleOKForNOTIFYMsg(slot, msg.text);
  } else if (const auto place = findSubscriptionByPhoneCallID(msg.callId, msg.iCSeq)) {
    handleOKForNOTIFYOnBehalfOfBindedPhone(place.iBinding, place.iEntry, msg.text);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onRegister(const sSipMessage& msg) {
  handleRequestToRegisterWithUs(msg.text, msg.sFrom);
  return Verdict::eDone;
}

MySip::Verdict MySip::onSubscribe(const sSipMessage& msg) {
  handleRequestToSubscribeWithUs(msg.text);
  return Verdict::eDone;
}

MySip::Verdict MySip::onInvite(const sSipMessage& msg) {
  const int slot = findSlotOf(msg, findSlotInUse(msg.callId));
  if (slot >= 0 && (!isOwnInvite(phone(slot), msg) || wouldReturn(msg))) {
    handleReInviteMsg(slot, msg.text, msg.sFrom);
    return Verdict::eDone;
  }
  FixedText<500> replacesForOrig;
  FixedText<500> headersForPair;
  takeReplaces(msg.text, replacesForOrig, headersForPair);
  if (bGotShutdownRequest) {
    sendGeneralErrorMsg(503, msg.text, msg.sFrom, -1, "");
  } else if (numActiveCalls() >= iNumCallsToFilter) {
    sendGeneralErrorMsg(486, msg.text, msg.sFrom, -1, "");
  } else if (const int orig = chooseOrigSlot(msg.text, msg.sFrom); orig >= 0) {
    handleInviteMsg(orig, msg.text, msg.sFrom, replacesForOrig, headersForPair);
  } else {
    sendGeneralErrorMsg(486, msg.text, msg.sFrom, -1, "");
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onCancel(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot < 0) {
    Log::warning(kFunction, "no match for Cancel Msg\n");
  } else if (msg.iCSeq == phone(slot).iInviteCSeq) {
    handleCancelMsg(slot, msg.text);
  } else if (msg.iCSeq == phone(slot).iPrevInviteCSeq) {
    sendRequestTerminatedOnFailedReInvite(slot, msg.text);
  } else {
    Log::info(kFunction, "Got Cancel and CSeq does not match %d,%d,%d. Ignore. \n", msg.iCSeq,
              phone(slot).iInviteCSeq, phone(slot).iPrevInviteCSeq);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onErrorForInvite(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot < 0) {
    Log::warning(kFunction, "no match for Error For Invite Msg\n");
  } else if (msg.iCSeq == phone(slot).iInviteCSeq) {
    if (partnerOf(slot).bReInviteInProgress) {
      handleErrorForReInviteMsg(slot, msg.text);
    } else {
      handleErrorForInviteMsg(slot, msg.text);
    }
  } else if (msg.iCSeq == phone(slot).iPrevInviteCSeq) {
    sendACKOnFailedReInvite(slot, msg.text);
  } else {
    Log::warning(kFunction, "Got Error for Invite and CSeq does not match %d,%d,%d \n", msg.iCSeq,
                 phone(slot).iInviteCSeq, phone(slot).iPrevInviteCSeq);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onErrorForNotify(const sSipMessage& msg) {
  const auto place = findSubscriptionByPhoneCallID(msg.callId, msg.iCSeq);
  if (!place) return Verdict::eContinue;
  handleERRORForNOTIFYOnBehalfOfBindedPhone(place.iBinding, place.iEntry, msg.text);
  return Verdict::eDone;
}

MySip::Verdict MySip::onAck(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot < 0) return Verdict::eDone;
  if (msg.iCSeq == phone(slot).iInviteCSeq) {
    handleACKMsg(slot, msg.text);
  } else if (msg.iCSeq == phone(slot).iPrevInviteCSeq) {
    handleACKForPreviousFailedReInvite(slot, msg.text);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onNotify(const sSipMessage& msg) {
  const int slot = findSlotOf(msg);
  if (slot >= 0) {
    handleNOTIFYMsg(slot, msg.text);
  } else if (const auto place = findSubscriptionByRelayCallID(msg.callId, nullptr)) {
    handleNOTIFYMsgOnBehalfOfBindedPhone(place.iBinding, place.iEntry, msg.text);
  } else {
    handleNOTIFYMsgWithUnknownCallID(msg.text, msg.sFrom);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onOptions(const sSipMessage& msg) {
  handleOptionsMsg(msg.text, msg.sFrom);
  return Verdict::eDone;
}
