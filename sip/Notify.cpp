// NOTIFY within a call: the progress of a transfer, told to the party that asked for it. In the handlers
// `slot` is the leg on which the message arrived and `partner` the other leg.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

// "Name: value" with CR LF, appended when the message has the header.
void appendHeader(MessageText& out, const char* name, std::string_view msg) {
  if (!MySip::contains(msg, name)) return;
  const std::string_view value = MySip::extractHeader(name, 3000, msg);
  if (value.empty()) return;
  // Room enough: one received message cannot fill a quarter of the text.
  (void)out.appendFormat("%s %.*s\r\n", name, static_cast<int>(value.size()), value.data());
}

// The same for the event. The parameters of a transfer's event name a subscription of the other dialog; they
// are left out.
void appendEvent(MessageText& out, std::string_view msg) {
  if (!MySip::contains(msg, "Event:")) return;
  if (MySip::contains(MySip::extractHeader("Event:", 3000, msg), "refer;")) {
    (void)out.append("Event: refer\r\n");
  } else {
    appendHeader(out, "Event:", msg);
  }
}

}  // namespace

void MySip::handleNOTIFYMsg(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  sPhone& partner = partnerOf(slot);
  if (!leg.bInUse) {
    Log::error("MySip::handleNOTIFYMsg", "error, the phone %d is not during a call \n", slot);
    return;
  }
  takeVia(msg, leg.pcNotifyVia);
  removeRport(leg.pcNotifyVia);
  int cseq = 0;
  if (!readRequestCSeq(msg, cseq, "MySip::handleNOTIFYMsg")) return;
  leg.iRemoteInviteCSeq = std::max(leg.iRemoteInviteCSeq, cseq);
  if (cseq == leg.iNotifyCSeq) {
    resendLastSipMsg(partner.psLastMsgs, partner.iLastMsgIndex, partner.pcCallID, partner.iNotifyCSeq);
    return;
  }
  leg.iNotifyCSeq = cseq;
  const FixedText<100> branch = drawRequestBranch(partner);
  partner.iNotifyCSeq = ++partner.iCSeq;
  relayNotify(partner, msg, branch);
}

void MySip::relayNotify(sPhone& partner, std::string_view msg, const FixedText<100>& branch) {
  const std::string_view body = bodyOf(msg);
  FixedText<30> cseqText;
  (void)cseqText.format("%d NOTIFY", partner.iNotifyCSeq);
  MessageText tail;
  (void)tail.append("\r\n");
  appendEvent(tail, msg);
  appendHeader(tail, "Subscription-State:", msg);
  appendHeader(tail, "Content-Type:", msg);
  (void)tail.append("\r\n");
  (void)tail.append(body);
  generalPrepareAndSendMsg(true, partner, requestLine("NOTIFY", partner.pcRemoteSipName).c_str(),
                           cseqText.c_str(), tail.c_str(), static_cast<int>(body.size()), true,
                           partner.pcRemoteTag.c_str(), partner.pcRemoteVia.c_str(), branch.c_str());
}

void MySip::handleOKForNOTIFYMsg(int slot, std::string_view) {
  if (!phone(slot).bInUse) {
    Log::error("MySip::handleOKForNOTIFYMsg", "error, the phone %d is not during a call \n", slot);
    return;
  }
  sPhone& partner = partnerOf(slot);
  sendResponseWithVia(partner, "SIP/2.0 200 OK", partner.iNotifyCSeq, "NOTIFY", partner.pcNotifyVia);
}
