#include "sip/PhoneRequest.h"

#include "app/config/Log.h"

bool sPhoneRequest::read(std::string_view msg, const char* function) {
  MySip::takeVia(msg, via);
  cseq = MySip::extractHeader("CSeq:", 50, msg);
  callId = MySip::callIdOf(msg);
  to = MySip::extractHeader("To:", 200, msg);
  from = MySip::extractHeader("From:", 200, msg);
  contact = MySip::extractHeader("Contact:", 3000, msg);
  for (const std::string_view value : {via.view(), cseq, callId, to, from, contact}) {
    if (!value.empty()) continue;
    Log::error(function, "Unable to extract data\n");
    return false;
  }
  return true;
}

bool sPhoneRequest::readNumber(int& out, const char* function) const {
  if (MySip::readDecimal(cseq, out)) return true;
  Log::error(function, "error, reading seq from %.*s\n", static_cast<int>(cseq.size()), cseq.data());
  return false;
}

ExpirySource findExpiry(std::string_view msg, std::string_view contact, std::string_view& text) {
  constexpr std::string_view kParameter = "expires=";
  if (MySip::contains(msg, "Expires:")) {
    text = MySip::extractToken("Expires:", 50, msg);
    return text.empty() ? ExpirySource::eEmptyHeader : ExpirySource::eReadable;
  }
  const std::size_t parameter = MySip::stristr(contact, kParameter);
  if (parameter == std::string_view::npos) return ExpirySource::eNone;
  text = contact.substr(parameter + kParameter.size());
  int number;
  return MySip::readDecimal(text, number) ? ExpirySource::eReadable : ExpirySource::eUnreadableParameter;
}

bool readExpiry(std::string_view text, int& seconds, const char* function) {
  if (MySip::readDecimal(text, seconds) && seconds >= 0) return true;
  Log::error(function, "Unable to read valid expiration from: %.*s\n", static_cast<int>(text.size()),
             text.data());
  return false;
}
