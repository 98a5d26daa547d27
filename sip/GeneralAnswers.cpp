// Answers that belong to no call: refusals of a new INVITE, and OPTIONS.
#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"

namespace {

// What an answer copies from its request.
struct sCopiedHeaders {
  FixedText<100> pcCallID;
  FixedText<1000> pcVia;
  FixedText<200> pcTo;
  FixedText<200> pcFrom;
  FixedText<50> pcCSeq;

  explicit sCopiedHeaders(std::string_view msg) {
    pcCallID.assignCut(MySip::callIdOf(msg));
    MySip::takeVia(msg, pcVia);
    pcTo.assignCut(MySip::extractHeader("To:", 200, msg));
    pcFrom.assignCut(MySip::extractHeader("From:", 200, msg));
    pcCSeq.assignCut(MySip::extractHeader("CSeq:", 50, msg));
  }
};

}  // namespace

void MySip::sendGeneralErrorMsg(int code, std::string_view msg, const sockaddr_in& to, int slot,
                                std::string_view extraLines) {
  constexpr const char* kFunction = "MySip::sendGeneralErrorMsg";
  const char* status = code == 486 ? "486 Busy Here" : code == 503 ? "503 Service Unavailable" : nullptr;
  if (status == nullptr) {
    Log::error(kFunction, "Unknown code %d\n", code);
    return;
  }
  ++(code == 486 ? troubles.iBusy : troubles.iUnavailable);
  sendRefusal(status, msg, to, slot, extraLines);
}

void MySip::sendRefusal(const char* status, std::string_view msg, const sockaddr_in& to, int slot,
                        std::string_view extraLines) {
  const sCopiedHeaders copied(msg);
  FixedText<1000> extra;
  extra.assignCut(extraLines);
  MessageText text;
  if (!text.format(kGeneralErrorTemplate, status, copied.pcVia.c_str(), copied.pcFrom.c_str(),
                   copied.pcTo.c_str(), phone(slot < 0 ? 0 : slot).pcUserName.c_str(), pcSipUAIP.c_str(),
                   iSipUAPort, copied.pcCallID.c_str(), copied.pcCSeq.c_str(), extra.c_str(), kUserAgent)) {
    return;  // cannot happen: the copied values are bounded
  }
  sendSipMsg(nullptr, nullptr, copied.pcCallID, 0, text, to);
}

void MySip::handleOptionsMsg(std::string_view msg, const sockaddr_in& from) {
  const sCopiedHeaders copied(msg);
  MessageText text;
  if (!text.format(kOptionsAnswerTemplate, copied.pcVia.c_str(), copied.pcFrom.c_str(), copied.pcTo.c_str(),
                   phone(0).pcUserName.c_str(), pcSipUAIP.c_str(), iSipUAPort, copied.pcCallID.c_str(),
                   copied.pcCSeq.c_str(), kUserAgent, kAllow)) {
    return;  // cannot happen: the copied values are bounded
  }
  sendSipMsg(nullptr, nullptr, copied.pcCallID, 0, text, from);
}
