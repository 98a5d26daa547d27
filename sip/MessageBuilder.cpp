// The messages we send on a leg.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"

namespace {

// A display name as it stands before the name in angle brackets: in double quotes, or nothing.
FixedText<102> quoted(const FixedText<100>& displayName) {
  FixedText<102> text;
  if (!displayName.empty()) (void)text.format("\"%s\"", displayName.c_str());
  return text;
}

const sockaddr_in& nextHop(const sPhone& leg) {
  return leg.pcOneTimeDestinationHost.empty() ? leg.sRemoteAddress : leg.sOneTimeDestination;
}

}  // namespace

FixedText<2100> MySip::viaOfAnswer(std::string_view via, std::string_view params) {
  const std::size_t end = std::min(via.find("\r\n"), via.find(','));
  FixedText<2100> text;
  (void)text.assign(via.substr(0, end));
  (void)text.append(params);
  if (end != std::string_view::npos) (void)text.append(via.substr(end));
  return text;
}

FixedText<300> MySip::requestLine(const char* method, std::string_view uri) {
  FixedText<300> line;
  (void)line.format("%s sip:%.*s SIP/2.0", method, static_cast<int>(uri.size()), uri.data());
  return line;
}

void MySip::prepareSDPAndsendInvite(int slot, std::string_view extra1, std::string_view extra2) {
  sPhone& leg = phone(slot);
  ++leg.iSdpVersion;
  MessageText sdp;
  const std::string_view body = prepareSDP(slot, sdp);
  const bool useOriginal = iUseOriginalRURI != 0 && !leg.pcFarEndURI.empty();
  const char* requestUri = useOriginal ? leg.pcFarEndURI.c_str() : leg.pcRemoteSipName.c_str();
  MessageText text;
  if (!text.format(kInviteTemplate, requestUri, leg.pcOneTimeRoutingMsg.c_str(), pcSipUAIP.c_str(),
                   iSipUAPort, ";rport", leg.pcBranch.c_str(), quoted(leg.pcDisplayName).c_str(),
                   leg.pcSipName.c_str(), leg.pcLocalTag.c_str(), quoted(leg.pcRemoteDisplayName).c_str(),
                   leg.pcRemoteSipName.c_str(), leg.pcRemoteTag.c_str(), leg.pcUserName.c_str(),
                   pcSipUAIP.c_str(), iSipUAPort, leg.pcCallID.c_str(), leg.iCSeq, kUserAgent, kAllow,
                   copyOf<3000>(extra1).c_str(), leg.pcHeadersToCopy.c_str(), copyOf<500>(extra2).c_str(),
                   static_cast<int>(body.size()), sdp.c_str())) {
    Log::error("MySip::prepareSDPAndsendInvite", "message for phone %d is too long\n", slot);
    return;
  }
  sendSipMsg(&leg.psLastMsgs, &leg.iLastMsgIndex, leg.pcCallID, leg.iCSeq, text, nextHop(leg));
}

void MySip::generalPrepareAndSendMsg(bool asRequest, sPhone& leg, const char* firstLine, const char* cseq,
                                     const char* tail, int contentLength, bool store, const char* remoteTag,
                                     const char* via, const char* branch) {
  const FixedText<102> own = quoted(leg.pcDisplayName);
  const FixedText<102> peer = quoted(leg.pcRemoteDisplayName);
  MessageText text;
  const bool fits =
      asRequest ? text.format(kRequestTemplate, firstLine, leg.pcOneTimeRoutingMsg.c_str(), pcSipUAIP.c_str(),
                              iSipUAPort, ";rport", branch, own.c_str(), leg.pcSipName.c_str(),
                              leg.pcLocalTag.c_str(), peer.c_str(), leg.pcRemoteSipName.c_str(), remoteTag,
                              leg.pcUserName.c_str(), pcSipUAIP.c_str(), iSipUAPort, leg.pcCallID.c_str(),
                              cseq, kUserAgent, contentLength, tail)
                : text.format(kResponseTemplate, firstLine, leg.pcOneTimeRoutingMsg.c_str(),
                              viaOfAnswer(via, leg.pcViaParams).c_str(), peer.c_str(),
                              leg.pcRemoteSipName.c_str(), remoteTag, own.c_str(), leg.pcSipName.c_str(),
                              leg.pcLocalTag.c_str(), leg.pcUserName.c_str(), pcSipUAIP.c_str(), iSipUAPort,
                              leg.pcCallID.c_str(), cseq, kUserAgent, contentLength, tail);
  if (!fits) {
    Log::error("MySip::generalPrepareAndSendMsg", "message is too long: %s\n", firstLine);
    return;
  }
  sendSipMsg(store ? &leg.psLastMsgs : nullptr, &leg.iLastMsgIndex, leg.pcCallID, leg.iCSeq, text,
             nextHop(leg));
}

void MySip::sendRequest(sPhone& leg, const char* firstLine, int cseq, const char* method, bool store) {
  sendRequestUnder(leg.pcBranch, leg.pcRemoteTag, leg, firstLine, cseq, method, store);
}

void MySip::sendRequestUnder(const FixedText<100>& branch, const FixedText<100>& remoteTag, sPhone& leg,
                             const char* firstLine, int cseq, const char* method, bool store) {
  FixedText<30> cseqText;
  (void)cseqText.format("%d %s", cseq, method);
  generalPrepareAndSendMsg(true, leg, firstLine, cseqText.c_str(), kNoBody, 0, store, remoteTag.c_str(), "",
                           branch.c_str());
}

void MySip::sendOfInvite(sPhone& leg, const char* method, std::string_view uri, bool store) {
  sendRequestUnder(branchOfInvite(leg), leg.pcRemoteTag, leg, requestLine(method, uri).c_str(),
                   leg.iInviteCSeq, method, store);
}

void MySip::acknowledgeRefusal(sPhone& leg, int cseq, const FixedText<100>& remoteTag,
                               const FixedText<100>& branch) {
  sendRequestUnder(branch, remoteTag, leg, requestLine("ACK", leg.pcRemoteSipName).c_str(), cseq, "ACK",
                   false);
}

void MySip::sendResponse(sPhone& leg, const char* statusLine, int cseq, const char* method, bool store) {
  FixedText<30> cseqText;
  (void)cseqText.format("%d %s", cseq, method);
  generalPrepareAndSendMsg(false, leg, statusLine, cseqText.c_str(), kNoBody, 0, store,
                           leg.pcRemoteTag.c_str(), leg.pcRemoteVia.c_str(), leg.pcBranch.c_str());
}

void MySip::sendResponseWithVia(sPhone& leg, const char* statusLine, int cseq, const char* method,
                                const FixedText<1000>& via) {
  FixedText<30> cseqText;
  (void)cseqText.format("%d %s", cseq, method);
  generalPrepareAndSendMsg(false, leg, statusLine, cseqText.c_str(), kNoBody, 0, false,
                           leg.pcRemoteTag.c_str(), via.c_str(), leg.pcBranch.c_str());
}

// The status line of an answer to our INVITE becomes, unchanged, that of our answer to the partner's.
void MySip::relayErrorStatus(sPhone& partner, const FixedText<1000>& via, std::string_view msg,
                             const char* function) {
  const std::string_view line = firstLineOf(msg);
  FixedText<kMaxFirstLine + 1> status;
  if (status.assign(line)) {
    FixedText<30> cseq;
    (void)cseq.format("%d INVITE", partner.iInviteCSeq);
    generalPrepareAndSendMsg(false, partner, status.c_str(), cseq.c_str(), kNoBody, 0, true,
                             partner.pcRemoteTag.c_str(), via.c_str(), partner.pcBranch.c_str());
  } else {
    Log::error(function, "request line smaller than %d\n", static_cast<int>(line.size()));
  }
}

void MySip::sendSdpAnswer(int slot, const char* status) {
  sPhone& leg = phone(slot);
  MessageText sdp;
  const std::string_view body = prepareSDP(slot, sdp);
  MessageText text;
  if (!text.format(kSdpAnswerTemplate, status, leg.pcOneTimeRoutingMsg.c_str(),
                   viaOfAnswer(leg.pcRemoteVia, leg.pcViaParams).c_str(),
                   quoted(leg.pcRemoteDisplayName).c_str(), leg.pcRemoteSipName.c_str(),
                   leg.pcRemoteTag.c_str(), quoted(leg.pcDisplayName).c_str(), leg.pcSipName.c_str(),
                   leg.pcLocalTag.c_str(), leg.pcUserName.c_str(), pcSipUAIP.c_str(), iSipUAPort,
                   leg.pcCallID.c_str(), leg.iInviteCSeq, kUserAgent, kAllow, static_cast<int>(body.size()),
                   sdp.c_str())) {
    Log::error("MySip::sendSdpAnswer", "message for phone %d is too long\n", slot);
    return;
  }
  sendSipMsg(nullptr, nullptr, leg.pcCallID, leg.iInviteCSeq, text, nextHop(leg));
}

void MySip::prepareAndSendSessionProgress(int slot) {
  sendSdpAnswer(slot, "183 Session Progress");
}

void MySip::prepareAndSendOKForInvite(int slot) {
  sendSdpAnswer(slot, "200 Ok");
}
