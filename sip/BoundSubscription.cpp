// SUBSCRIBE of bound phones to the PBX, and the PBX's NOTIFY to them. Only in the proxy arrangement.
#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"
#include "sip/PhoneRequest.h"

namespace {

constexpr const char* kFunction = "MySip::handleRequestToSubscribeWithUs";
constexpr int kUnsolicitedExpires = 30;  // seconds that an unsolicited NOTIFY's subscription lasts

bool readSubscribeExpiry(std::string_view msg, std::string_view contact, int& expires) {
  std::string_view text;
  switch (findExpiry(msg, contact, text)) {
    case ExpirySource::eReadable:
      return readExpiry(text, expires, kFunction);
    case ExpirySource::eEmptyHeader:
      Log::error(kFunction, "Unable to extract expiration from msg\n");
      break;
    case ExpirySource::eUnreadableParameter:
      Log::error(kFunction, "Unable to extract expiration from %.*s\n", static_cast<int>(contact.size()),
                 contact.data());
      break;
    case ExpirySource::eNone:
      Log::error(kFunction, "Unable to extract expiration from Contant\n");
      break;
  }
  return false;
}

// The header's value, or nothing, without a log record, when the message does not have it.
std::string_view optionalHeader(std::string_view msg, std::string_view name) {
  return MySip::contains(msg, name) ? MySip::extractHeader(name, 3000, msg) : std::string_view();
}

bool hasSubscription(const sBinding& record, std::string_view phoneCallId) {
  for (int entry = 0; entry < record.iNumSubscriptions; ++entry) {
    if (record.subscription(entry).pcPhoneCallID == phoneCallId) return true;
  }
  return false;
}

using HeaderLine = FixedText<3100>;

// "Name: value" with CR LF when the message has it, else nothing.
HeaderLine copiedLine(std::string_view msg, const char* name) {
  HeaderLine line;
  const std::string_view value = optionalHeader(msg, name);
  if (!value.empty() && !line.format("%s %.*s\r\n", name, static_cast<int>(value.size()), value.data())) {
    line.clear();
  }
  return line;
}

}  // namespace

// ---- SUBSCRIBE ----

void MySip::handleRequestToSubscribeWithUs(std::string_view msg) {
  if (iSipProxyArchitecture == 0) return;
  sPhoneRequest request;
  sSipUri phone;
  if (!request.read(msg, kFunction) || analyzeHeaderUri(request.from, phone, kFunction) != 0) return;
  const int binding = getBindingIndex(phone.pcName);
  if (binding < 0) return;
  int expires = 0;
  if (!readSubscribeExpiry(msg, request.contact, expires)) return;
  const int entry = processNewSubscriptionInformation(binding, request.callId, expires);
  if (entry < 0) {
    Log::error(kFunction, "No room for aditional subscriptions for phone %s\n", phone.pcName.c_str());
    return;
  }
  int cseq = 0;
  if (!request.readNumber(cseq, kFunction)) return;

  sSubscription& record = bindingAt(binding).subscription(entry);
  record.pcPhoneRequestLine.assignCut(firstLineOf(msg));
  keepPhoneRequest(record, request, expires);
  const bool isRepeat = takeSubscriptionDialog(bindingAt(binding), record, request, cseq);
  bindingChanged(binding);

  sendSubscribeOnBehalfOfBindedPhone(binding, entry, optionalHeader(msg, "Event:"),
                                     copiedLine(msg, "Supported:"), copiedLine(msg, "Accept:"), expires,
                                     extractAuthorizationLine(msg), isRepeat);
}

// True for a request that was handled before.
bool MySip::takeSubscriptionDialog(const sBinding& owner, sSubscription& record, const sPhoneRequest& request,
                                   int cseq) {
  switch (classifyPhoneRequest(record, request, cseq)) {
    case PhoneRequestKind::eNewDialog:
      fillNewTagData(record.pcRelayTag);
      drawRelayCallID(owner, record.pcRelayCallID);
      return false;
    case PhoneRequestKind::eNext:
      return false;
    case PhoneRequestKind::eOutdated:
      Log::warning(kFunction, "Received smaller sequence number for subscription of %s %d %d\n",
                   record.pcPhoneFrom.c_str(), cseq, record.iPhoneCSeq);
      break;
    case PhoneRequestKind::eRepeated:
      break;
  }
  return true;
}

void MySip::sendSubscribeOnBehalfOfBindedPhone(int binding, int entry, std::string_view event,
                                               std::string_view supported, std::string_view accept,
                                               int expires, std::string_view credentials, bool repeat) {
  sBinding& owner = bindingAt(binding);
  sSubscription& record = owner.subscription(entry);
  if (record.pcRelayCallID.empty()) return;  // the user name left no room for one, which has been logged
  if (!repeat) {
    fillNewBranchData(record.pcRelayBranch);
    record.iRelayCSeq = ++owner.iRelayCSeqCounter;
    bindingChanged(binding);
  }
  const char* user = owner.pcBindingUser.c_str();
  const char* ip = pcSipUAIP.c_str();
  MessageText text;
  if (!text.format(kRelayedSubscribeTemplate, record.pcPhoneRequestLine.c_str(), ip, iSipUAPort,
                   record.pcRelayBranch.c_str(), user, user, pcSipProxyDomain.c_str(),
                   record.pcRelayTag.c_str(), record.pcPhoneTo.c_str(), user, user, ip, iSipUAPort,
                   record.pcRelayCallID.c_str(), record.iRelayCSeq, static_cast<int>(event.size()),
                   event.data(), static_cast<int>(supported.size()), supported.data(),
                   static_cast<int>(accept.size()), accept.data(), expires, kUserAgent,
                   static_cast<int>(credentials.size()), credentials.data())) {
    return;  // cannot happen: all values come from one message
  }
  sendSipMsg(nullptr, nullptr, record.pcRelayCallID, record.iRelayCSeq, text, sProxyAddress);
}

void MySip::handleOKForSubscriptionOnBehalfOfBindedPhone(int binding, int entry, std::string_view) {
  sSubscription& record = bindingAt(binding).subscription(entry);
  record.tConfirmedExpiry = record.tRequestedExpiry;
  bindingChanged(binding);
  sendOKForSubscriptionBackToBindedPhone(binding, entry);
}

void MySip::sendOKForSubscriptionBackToBindedPhone(int binding, int entry) {
  const sBinding& owner = bindingAt(binding);
  const sSubscription& record = owner.subscription(entry);
  MessageText text;
  if (!text.format(kPhoneAnswerTemplate, viaOfAnswer(record.pcPhoneVia, owner.pcPhoneViaParams).c_str(),
                   record.pcPhoneFrom.c_str(), record.pcPhoneTo.c_str(), "", record.pcPhoneContact.c_str(),
                   record.pcPhoneCallID.c_str(), record.pcPhoneCSeq.c_str(), record.pcPhoneExpires.c_str(),
                   kUserAgent)) {
    return;  // cannot happen: the values are bounded
  }
  sendSipMsg(nullptr, nullptr, record.pcPhoneCallID, record.iPhoneCSeq, text, owner.sBindingAddress);
}

// ---- NOTIFY ----

void MySip::handleNOTIFYMsgOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg) {
  constexpr const char* kNotify = "MySip::handleNOTIFYMsgOnBehalfOfBindedPhone";
  sBinding& owner = bindingAt(binding);
  sSubscription& record = owner.subscription(entry);
  int cseq = 0;
  if (!readRequestCSeq(msg, cseq, kNotify)) return;
  if (cseq == record.iNotifyCSeq) {
    resendLastSipMsg(owner.psLastMsgs, owner.iLastMsgIndex, record.pcPhoneCallID, record.iNotifyRelayCSeq);
    return;
  }
  sPhoneRequest request;
  if (!request.read(msg, kNotify)) return;
  record.pcNotifyVia = request.via;
  record.pcNotifyFrom.assignCut(request.from);
  record.pcNotifyTo.assignCut(request.to);
  record.pcNotifyCSeq.assignCut(request.cseq);
  record.pcNotifyContact.assignCut(request.contact);
  record.iNotifyCSeq = cseq;
  fillNewBranchData(record.pcNotifyBranch);
  record.iNotifyRelayCSeq = ++owner.iRelayCSeqCounter;
  relayNotifyToPhone(owner, record, msg);
  bindingChanged(binding);
}

void MySip::relayNotifyToPhone(sBinding& owner, const sSubscription& record, std::string_view msg) {
  const std::string_view body = bodyOf(msg);
  MessageText text;
  if (!text.format(kPhoneNotifyTemplate, owner.pcBindingName.c_str(), record.pcNotifyVia.c_str(),
                   record.pcNotifyFrom.c_str(), record.pcPhoneFrom.c_str(), record.pcNotifyContact.c_str(),
                   record.pcPhoneCallID.c_str(), record.iNotifyRelayCSeq, kUserAgent,
                   copiedLine(msg, "Event:").c_str(), copiedLine(msg, "Subscription-State:").c_str(),
                   copiedLine(msg, "Content-Type:").c_str(), contentLengthOf(msg),
                   static_cast<int>(body.size()), body.data())) {
    return;  // cannot happen: all values come from one message
  }
  sendSipMsg(&owner.psLastMsgs, &owner.iLastMsgIndex, record.pcPhoneCallID, record.iNotifyRelayCSeq, text,
             owner.sBindingAddress);
}

void MySip::handleOKForNOTIFYOnBehalfOfBindedPhone(int binding, int entry, std::string_view) {
  answerNotify(bindingAt(binding).subscription(entry), "SIP/2.0 200 Ok");
}

void MySip::handleERRORForNOTIFYOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg) {
  const std::string_view line = firstLineOf(msg);
  if (line.size() > kMaxFirstLine) {
    Log::error("MySip::handleERRORForNOTIFYOnBehalfOfBindedPhone", "request line smaller than %d\n",
               static_cast<int>(line.size()));
    return;
  }
  answerNotify(bindingAt(binding).subscription(entry), line);
}

// Tells the PBX what the phone said to its NOTIFY.
void MySip::answerNotify(const sSubscription& record, std::string_view statusLine) {
  FixedText<100> callId;
  callId.assignCut(record.relayCallID());
  MessageText text;
  if (!text.format(kNotifyAnswerTemplate, static_cast<int>(statusLine.size()), statusLine.data(),
                   record.pcNotifyVia.c_str(), record.pcNotifyFrom.c_str(), record.pcNotifyTo.c_str(),
                   callId.c_str(), record.pcNotifyCSeq.c_str(), kUserAgent)) {
    return;  // cannot happen: the values are bounded
  }
  sendSipMsg(nullptr, nullptr, callId, record.iNotifyCSeq, text, sProxyAddress);
}

// ---- NOTIFY without a subscription ----

void MySip::handleNOTIFYMsgWithUnknownCallID(std::string_view msg, const sockaddr_in&) {
  constexpr const char* kUnknown = "MySip::handleNOTIFYMsgWithUnknownCallID";
  if (iSipProxyArchitecture == 0) return;
  sPhoneRequest request;
  if (!request.read(msg, kUnknown)) return;
  if (extractToken("Event:", 3000, msg).empty()) {
    Log::error(kUnknown, "Unable to extract data\n");
    return;
  }
  sSipUri phone;
  if (analyzeHeaderUri(request.to, phone, kUnknown) != 0) return;
  const int binding = getBindingIndex(phone.pcName);
  // Under the Call-ID of a phone's own subscription the PBX knows nothing: it has ours.
  if (binding < 0 || hasSubscription(bindingAt(binding), request.callId)) return;
  const int entry = processNewSubscriptionInformation(binding, request.callId, kUnsolicitedExpires);
  if (entry < 0) {
    Log::warning(kUnknown, "No room for aditional subscriptions for phone %s\n", phone.pcName.c_str());
    return;
  }
  sSubscription& record = bindingAt(binding).subscription(entry);
  record.pcPhoneCallID.assignCut(request.callId);
  if (!record.pcRelayCallID.assign(request.callId)) record.pcRelayCallID.clear();
  record.pcPhoneTo.assignCut(request.from);
  record.pcPhoneFrom.assignCut(request.to);
  (void)record.pcPhoneExpires.format("%d", kUnsolicitedExpires);
  record.iPhoneCSeq = 1;
  bindingChanged(binding);
  handleNOTIFYMsgOnBehalfOfBindedPhone(binding, entry, msg);
}
