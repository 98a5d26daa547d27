// Small questions that several handlers ask of a message.
#include <strings.h>

#include "app/config/Log.h"
#include "sip/MySip.h"

bool MySip::isMethod(std::string_view firstLine, std::string_view start) {
  return firstLine.size() >= start.size() && strncasecmp(firstLine.data(), start.data(), start.size()) == 0;
}

int MySip::statusCodeOf(std::string_view firstLine) {
  constexpr std::string_view kVersion = "SIP/2.0 ";
  int status = 0;
  if (!isMethod(firstLine, kVersion) || !readDecimal(firstLine.substr(kVersion.size()), status)) return 0;
  return status;
}

bool MySip::readCSeq(std::string_view message, int& number, std::string_view& text) {
  text = extractToken("CSeq:", 50, message);
  return readDecimal(text, number);
}

bool MySip::readRequestCSeq(std::string_view msg, int& cseq, const char* function) {
  std::string_view text;
  if (readCSeq(msg, cseq, text)) return true;
  Log::error(function, "error, reading seq from %.*s\n", static_cast<int>(text.size()), text.data());
  return false;
}

int MySip::contentLengthOf(std::string_view message) {
  constexpr std::string_view kName = "Content-Length:";
  int length = 0;
  if (contains(message, kName) && readDecimal(extractToken(kName, 50, message), length) && length >= 0)
    return length;
  return static_cast<int>(bodyOf(message).size());
}

void MySip::learnRemoteTag(sPhone& leg, std::string_view msg) {
  std::string_view tag;
  if (!extractTag(extractToken("To:", 200, msg), tag)) return;
  FixedText<100> stored;
  stored.assignCut(";tag=");
  if (stored.append(tag)) {
    leg.pcRemoteTag = stored;
  } else {
    Log::error("MySip::learnRemoteTag", "tag is too long\n");
  }
}
