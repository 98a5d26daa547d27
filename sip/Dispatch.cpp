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
constexpr std::size_t kMaxFirstLine = 199;
constexpr std::string_view kReloadWord = "800-QUORVEL-RELOAD";

}  // namespace

// One rule. A row applies when the first line is the kind that it names, the CSeq value contains `pcCSeq` (if
// given) and `condition` (if given) holds. Then either `handler` decides, or the slot with the message's
// Call-ID is handed to `slotHandler`, and `pcNoMatch` is logged when there is none. A row with neither drops
// the message.
struct MySip::sDispatchRule {
  enum class Line {
    eAny,
    eStatus,  // a response whose first line contains the text
    eMethod   // a request that begins with the text; searched anywhere, "ACK" would also be found in a name
  };
  Line eLine;
  const char* pcFirstLine;
  const char* pcCSeq;
  bool (*condition)(const MySip&, const sSipMessage&);
  Verdict (MySip::*handler)(const sSipMessage&);
  void (MySip::*slotHandler)(int, std::string_view);
  const char* pcNoMatch;

  bool applies(const MySip& sip, const sSipMessage& msg) const {
    switch (eLine) {
      case Line::eAny:
        break;
      case Line::eStatus:
        if (!isMethod(msg.firstLine, "SIP/") || !contains(msg.firstLine, pcFirstLine)) return false;
        break;
      case Line::eMethod:
        if (!isMethod(msg.firstLine, pcFirstLine)) return false;
        break;
    }
    return (pcCSeq == nullptr || contains(msg.cseqText, pcCSeq)) &&
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
bool statusBetween(Message msg, int low, int high) {
  int status = 0;
  return MySip::isMethod(msg.firstLine, "SIP/2.0 ") && MySip::readDecimal(msg.firstLine.substr(8), status) &&
         status >= low && status <= high;
}
bool isErrorStatus(const MySip&, Message msg) {
  return statusBetween(msg, 400, 699);
}
bool isClientErrorStatus(const MySip&, Message msg) {
  return statusBetween(msg, 400, 499);
}

}  // namespace

// The order decides. While not all identities are active, only what stands above the second "not all active"
// row is handled; during shutdown only answers to BYEs and registrations.
MySip::Verdict MySip::dispatch(const sSipMessage& msg) {
  using enum sDispatchRule::Line;
  static constexpr sDispatchRule kRules[] = {
      {eStatus, "200 OK", "REGISTER", nullptr, &MySip::onOKForRegister, nullptr, nullptr},
      {eStatus, "200 OK", "SUBSCRIBE", nullptr, &MySip::onOKForSubscribe, nullptr, nullptr},
      {eStatus, "200 OK", nullptr, notAllActive, nullptr, nullptr, nullptr},
      {eStatus, "200 OK", " BYE", nullptr, nullptr, &MySip::handleOKForBYEMsg,
       "no match for OK for Bye Msg\n"},
      {eStatus, "200 OK", nullptr, duringShutdown, nullptr, nullptr, nullptr},
      {eStatus, "200 OK", " INVITE", nullptr, &MySip::onOKForInvite, nullptr, nullptr},
      {eStatus, "200 OK", " CANCEL", nullptr, nullptr, &MySip::handleOKForCANCELMsg,
       "no match for OK for Cancel Msg\n"},
      {eStatus, "200 OK", " NOTIFY", nullptr, &MySip::onOKForNotify, nullptr, nullptr},
      {eAny, nullptr, nullptr, duringShutdown, nullptr, nullptr, nullptr},
      {eStatus, "202 Accepted", " REFER", nullptr, nullptr, &MySip::handleAcceptedForREFERMsg,
       "no match for Accepted for Refer Msg\n"},
      {eMethod, "REGISTER ", nullptr, nullptr, &MySip::onRegister, nullptr, nullptr},
      {eMethod, "SUBSCRIBE ", nullptr, nullptr, &MySip::onSubscribe, nullptr, nullptr},
      {eAny, nullptr, nullptr, notAllActive, nullptr, nullptr, nullptr},
      {eStatus, "302 Moved Temporarily", nullptr, nullptr, nullptr, &MySip::handleMoveMsg,
       "no match for Move Msg\n"},
      {eStatus, "301 Moved Permanently", nullptr, nullptr, nullptr, &MySip::handleMoveMsg,
       "no match for Move Msg\n"},
      {eStatus, "300 Multiple Choices", nullptr, nullptr, nullptr, &MySip::handleMoveMsg,
       "no match for Move Msg\n"},
      {eMethod, "INVITE ", nullptr, nullptr, &MySip::onInvite, nullptr, nullptr},
      {eStatus, "100 Trying", "INVITE", nullptr, nullptr, &MySip::handleTryingMsg,
       "no match for Trying Msg\n"},
      {eStatus, "180 Ringing", nullptr, nullptr, nullptr, &MySip::handleRingingMsg,
       "no match for Ringing Msg\n"},
      {eStatus, "183 Session Progress", "INVITE", nullptr, nullptr, &MySip::handleSessionProgressMsg,
       "no match for Session Progress Msg\n"},
      {eMethod, "CANCEL ", nullptr, nullptr, &MySip::onCancel, nullptr, nullptr},
      {eAny, nullptr, "INVITE", isErrorStatus, &MySip::onErrorForInvite, nullptr, nullptr},
      {eAny, nullptr, " NOTIFY", isClientErrorStatus, &MySip::onErrorForNotify, nullptr, nullptr},
      {eMethod, "ACK", nullptr, nullptr, &MySip::onAck, nullptr, nullptr},
      {eMethod, "BYE", nullptr, nullptr, nullptr, &MySip::handleBYEMsg, "no match for BYE Msg\n"},
      {eMethod, "REFER", nullptr, nullptr, nullptr, &MySip::handleREFERMsg, "no match for REFER Msg\n"},
      {eMethod, "NOTIFY", nullptr, nullptr, &MySip::onNotify, nullptr, nullptr},
      {eMethod, "OPTIONS", nullptr, nullptr, &MySip::onOptions, nullptr, nullptr},
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
  const int slot = findSlot(msg.callId);
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
  msg.callId = extractToken("Call-ID:", 100, text);
  if (msg.callId.empty()) {
    Log::error(kFunction, "Unable to locate callID... \n");
    return;
  }
  msg.firstLine = text.substr(0, text.find("\r\n"));
  if (msg.firstLine.size() > kMaxFirstLine) {
    Log::warning(kFunction, "status line too long\n");
    return;
  }
  logReceived("*** Got", text, from);
  if (contains(msg.firstLine, "401 Unauthorized") ||
      contains(msg.firstLine, "407 Proxy Authentication Required")) {
    handleUnauthorizedMsg(text, from);
    return;
  }
  msg.cseqText = extractToken("CSeq:", 50, text);
  if (!readDecimal(msg.cseqText, msg.iCSeq)) {
    Log::error(kFunction, "unable to read CSeq from %.*s\n", static_cast<int>(msg.cseqText.size()),
               msg.cseqText.data());
    return;
  }
  if (checkOldCalls(msg.callId, msg.firstLine, msg.iCSeq, msg.cseqText)) return;
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
  const sSubscriptionPlace place = findSubscriptionByRelayCallID(msg.callId, &msg.iCSeq);
  if (!place) return Verdict::eContinue;
  handleOKForSubscriptionOnBehalfOfBindedPhone(place.iBinding, place.iEntry, msg.text);
  return Verdict::eDone;
}

MySip::Verdict MySip::onOKForInvite(const sSipMessage& msg) {
  const int slot = findSlot(msg.callId);
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
  const int slot = findSlot(msg.callId);
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
  if (const int slot = findSlotInUse(msg.callId); slot >= 0) {
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
  const int slot = findSlot(msg.callId);
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
  const int slot = findSlot(msg.callId);
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
  const int slot = findSlot(msg.callId);
  if (slot < 0) return Verdict::eDone;
  if (msg.iCSeq == phone(slot).iInviteCSeq) {
    handleACKMsg(slot, msg.text);
  } else if (msg.iCSeq == phone(slot).iPrevInviteCSeq) {
    handleACKForPreviousFailedReInvite(slot, msg.text);
  }
  return Verdict::eDone;
}

MySip::Verdict MySip::onNotify(const sSipMessage& msg) {
  const int slot = findSlot(msg.callId);
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
