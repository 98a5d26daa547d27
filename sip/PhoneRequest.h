// What a bound phone's REGISTER and SUBSCRIBE have in common: the headers that are kept to answer them later,
// the expiry, and the decision whether a request repeats the one before.
#pragma once

#include <cstdint>
#include <string_view>

#include "common/FixedText.h"
#include "sip/MySip.h"

// Header values of a request, as they stand in it. The views point into the message.
struct sPhoneRequest {
  FixedText<1000> via;
  std::string_view cseq;
  std::string_view callId;
  std::string_view to;
  std::string_view from;
  std::string_view contact;

  // False, and logged, when one is missing or too long.
  [[nodiscard]] bool read(std::string_view msg, const char* function);
  // The CSeq number. False, and logged.
  [[nodiscard]] bool readNumber(int& out, const char* function) const;
};

// Where a request says how long it is to last: its "Expires:" header, else the "expires=" parameter of its
// Contact.
enum class ExpirySource { eReadable, eEmptyHeader, eUnreadableParameter, eNone };
ExpirySource findExpiry(std::string_view msg, std::string_view contact, std::string_view& text);
// The text's number of seconds. False, and logged, when there is none or it is negative.
[[nodiscard]] bool readExpiry(std::string_view text, int& seconds, const char* function);

// CSeq numbers are compared around the wrap of 32 bits, so that the counter of a phone may run over.
constexpr bool isEarlier(std::int32_t cseq, std::int32_t than) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(cseq) - static_cast<std::uint32_t>(than)) < 0;
}

// Keeps the headers in a binding or subscription, the Call-ID and CSeq number excepted.
template <typename Record>
void keepPhoneRequest(Record& record, const sPhoneRequest& request, int expires) {
  record.pcPhoneVia = request.via;
  MySip::removeRport(record.pcPhoneVia);
  record.pcPhoneCSeq.assignCut(request.cseq);
  record.pcPhoneTo.assignCut(request.to);
  record.pcPhoneFrom.assignCut(request.from);
  record.pcPhoneContact.assignCut(request.contact);
  (void)record.pcPhoneExpires.format("%d", expires);
}

enum class PhoneRequestKind { eNewDialog, eNext, eRepeated, eOutdated };
// Compares with the Call-ID and CSeq number that the record keeps, and keeps the request's own unless it is
// an old one.
template <typename Record>
PhoneRequestKind classifyPhoneRequest(Record& record, const sPhoneRequest& request, int cseq) {
  if (record.pcPhoneCallID != request.callId) {
    record.pcPhoneCallID.assignCut(request.callId);
    record.iPhoneCSeq = cseq;
    return PhoneRequestKind::eNewDialog;
  }
  if (cseq == record.iPhoneCSeq) return PhoneRequestKind::eRepeated;
  if (isEarlier(cseq, record.iPhoneCSeq)) return PhoneRequestKind::eOutdated;
  record.iPhoneCSeq = cseq;
  return PhoneRequestKind::eNext;
}
