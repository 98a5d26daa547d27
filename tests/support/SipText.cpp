#include "tests/support/SipText.h"

#include <stdexcept>

namespace sip_text {

std::string firstLine(std::string_view message) {
  return std::string(message.substr(0, message.find("\r\n")));
}

std::string header(std::string_view message, std::string_view name) {
  const std::string start = "\r\n" + std::string(name) + ":";
  const std::size_t at = message.find(start);
  if (at == std::string_view::npos) return "<none>";
  std::size_t from = at + start.size();
  while (from < message.size() && message[from] == ' ') ++from;
  return std::string(message.substr(from, message.find("\r\n", from) - from));
}

std::string body(std::string_view message) {
  const std::size_t at = message.find("\r\n\r\n");
  return at == std::string_view::npos ? std::string() : std::string(message.substr(at + 4));
}

std::string tag(std::string_view value) {
  const std::size_t at = value.find(";tag=");
  if (at == std::string_view::npos) return {};
  const std::string_view rest = value.substr(at + 5);
  return std::string(rest.substr(0, rest.find(';')));
}

std::string withLength(std::string_view message) {
  const std::string now = "\r\nContent-Length: " + header(message, "Content-Length");
  return replaced(std::string(message), now, "\r\nContent-Length: " + std::to_string(body(message).size()));
}

std::string replaced(std::string message, std::string_view what, std::string_view with) {
  std::size_t at = message.find(what);
  if (at == std::string::npos)
    throw std::invalid_argument("text to replace does not occur: " + std::string(what));
  for (; at != std::string::npos; at = message.find(what, at + with.size()))
    message.replace(at, what.size(), with);
  return message;
}

std::string build(const Request& request) {
  std::string text = request.method + " " + request.uri + " SIP/2.0\r\n";
  text += "Via: SIP/2.0/UDP 127.0.0.1:" + std::to_string(request.viaPort) +
          ";rport;branch=" + request.branch + "\r\n";
  text += "From: " + request.from + "\r\n";
  text += "To: " + request.to + "\r\n";
  if (!request.contact.empty()) text += "Contact: " + request.contact + "\r\n";
  text += "Call-ID: " + request.callId + "\r\n";
  text += "CSeq: " + std::to_string(request.cseq) + " " + request.method + "\r\n";
  text += "Max-Forwards: 70\r\n" + request.extraHeaders;
  if (!request.sdp.empty()) text += "Content-Type: application/sdp\r\n";
  return text + "Content-Length: " + std::to_string(request.sdp.size()) + "\r\n\r\n" + request.sdp;
}

std::string sdp(int port, std::string_view formats, std::string_view extraLines, std::string_view ip) {
  const std::string address(ip);
  return "v=0\r\no=- 1 1 IN IP4 " + address + "\r\ns=-\r\nc=IN IP4 " + address + "\r\nt=0 0\r\nm=audio " +
         std::to_string(port) + " RTP/AVP " + std::string(formats) + "\r\n" + std::string(extraLines);
}

std::string respond(std::string_view request, std::string_view status, std::string_view toTag,
                    std::string_view extraHeaders, std::string_view sdpBody) {
  std::string text = "SIP/2.0 " + std::string(status) + "\r\nVia: " + header(request, "Via") +
                     "\r\nFrom: " + header(request, "From") + "\r\nTo: " + header(request, "To");
  if (!toTag.empty()) text += ";tag=" + std::string(toTag);
  text += "\r\nCall-ID: " + header(request, "Call-ID") + "\r\nCSeq: " + header(request, "CSeq") + "\r\n";
  text += extraHeaders;
  if (!sdpBody.empty()) text += "Content-Type: application/sdp\r\n";
  return text + "Content-Length: " + std::to_string(sdpBody.size()) + "\r\n\r\n" + std::string(sdpBody);
}

}  // namespace sip_text
