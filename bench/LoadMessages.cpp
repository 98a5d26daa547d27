#include "bench/LoadMessages.h"

#include <charconv>

namespace load_messages {
namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string port(int number) {
  return std::to_string(number);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  return text;
}

int leadingNumber(std::string_view text) {
  int value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// Calls `use(line)` for every header line with that name.
template <typename Use>
void forEachHeader(std::string_view message, std::string_view name, Use use) {
  std::size_t at = message.find(kLineEnd);
  while (at != std::string_view::npos) {
    const std::size_t start = at + kLineEnd.size();
    at = message.find(kLineEnd, start);
    if (at == start) return;
    const std::string_view line = message.substr(start, at - start);
    if (line.size() > name.size() && line[name.size()] == ':' && line.starts_with(name)) use(line);
  }
}

std::string sdp(int mediaPort, const std::string& formats) {
  std::string text = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio " +
                     port(mediaPort) + " RTP/AVP " + formats + "\r\n";
  const std::string padded = " " + formats + " ";
  if (padded.find(" 0 ") != std::string::npos) text += "a=rtpmap:0 PCMU/8000\r\n";
  if (padded.find(" 8 ") != std::string::npos) text += "a=rtpmap:8 PCMA/8000\r\n";
  if (padded.find(" 9 ") != std::string::npos) text += "a=rtpmap:9 G722/8000\r\n";
  return text + "a=sendrecv\r\n";
}

std::string withBody(const std::string& body) {
  return (body.empty() ? "" : "Content-Type: application/sdp\r\n") + std::string("Content-Length: ") +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string caller(const Run& run, int call) {
  return "<sip:load@127.0.0.1>;tag=" + run.name + "a" + std::to_string(call);
}

std::string dialled(int call) {
  return "<sip:c" + std::to_string(call) + "@127.0.0.1>";
}

// Request line and the headers that every request of the caller has. The transaction's name makes its branch.
std::string request(const Run& run, int call, const char* method, const std::string& uri,
                    const std::string& routes, const std::string& to, int cseq, const char* transaction) {
  return std::string(method) + " " + uri + " SIP/2.0\r\nVia: SIP/2.0/UDP 127.0.0.1:" + port(run.callerPort) +
         ";branch=z9hG4bK" + run.name + transaction + std::to_string(call) + "\r\n" + routes +
         "From: " + caller(run, call) + "\r\nTo: " + to + "\r\nCall-ID: " + callId(run, call) +
         "\r\nCSeq: " + std::to_string(cseq) + " " + method + "\r\nMax-Forwards: 70\r\n";
}

std::string dialledUri(const Run& run, int call) {
  return "sip:c" + std::to_string(call) + "@127.0.0.1:" + port(run.calleePort);
}

}  // namespace

std::string_view header(std::string_view message, std::string_view name) {
  std::string_view value;
  forEachHeader(message, name, [&](std::string_view line) {
    if (value.data() == nullptr) value = trimmed(line.substr(name.size() + 1));
  });
  return value;
}

std::string headerLines(std::string_view message, std::string_view name) {
  std::string lines;
  forEachHeader(message, name, [&](std::string_view line) { lines.append(line).append(kLineEnd); });
  return lines;
}

int statusOf(std::string_view message) {
  constexpr std::string_view version = "SIP/2.0 ";
  return message.starts_with(version) ? leadingNumber(message.substr(version.size())) : 0;
}

std::string_view methodOf(std::string_view request) {
  return request.substr(0, request.find(' '));
}

std::string_view transactionOf(std::string_view message) {
  const std::string_view cseq = header(message, "CSeq");
  const std::size_t blank = cseq.find(' ');
  return blank == std::string_view::npos ? std::string_view() : cseq.substr(blank + 1);
}

std::optional<int> callNumberOf(std::string_view message) {
  const std::string_view to = header(message, "To");
  const std::size_t at = to.find("sip:c");
  if (at == std::string_view::npos) return std::nullopt;
  int number = 0;
  const std::string_view digits = to.substr(at + 5);
  if (std::from_chars(digits.data(), digits.data() + digits.size(), number).ec != std::errc())
    return std::nullopt;
  return number;
}

MediaAddress mediaAddressOf(std::string_view message) {
  MediaAddress media;
  constexpr std::string_view audio = "\r\nm=audio ";
  constexpr std::string_view connection = "\r\nc=IN IP4 ";
  if (const std::size_t at = message.find(audio); at != std::string_view::npos)
    media.port = leadingNumber(message.substr(at + audio.size()));
  if (const std::size_t at = message.find(connection); at != std::string_view::npos) {
    const std::string_view rest = message.substr(at + connection.size());
    media.ip = rest.substr(0, rest.find('\r'));
  }
  return media;
}

Dialog dialogOf(std::string_view answer) {
  Dialog dialog{.to = std::string(header(answer, "To")), .target = {}, .routes = {}};
  const std::string_view contact = header(answer, "Contact");
  const std::size_t open = contact.find('<');
  dialog.target =
      open == std::string_view::npos ? contact : contact.substr(open + 1, contact.find('>') - open - 1);
  // The route set of the caller is the reversed Record-Route of the answer.
  forEachHeader(answer, "Record-Route", [&](std::string_view line) {
    dialog.routes.insert(0, "Route" + std::string(line.substr(line.find(':'))) + "\r\n");
  });
  return dialog;
}

std::string callId(const Run& run, int call) {
  return run.name + "-" + std::to_string(call) + "@127.0.0.1";
}

std::string invite(const Run& run, int call, int mediaPort) {
  return request(run, call, "INVITE", dialledUri(run, call), "", dialled(call), 1, "i") +
         "Contact: <sip:load@127.0.0.1:" + port(run.callerPort) + ">\r\n" +
         withBody(sdp(mediaPort, run.offeredFormats));
}

std::string ack(const Run& run, int call, const Dialog& dialog) {
  return request(run, call, "ACK", dialog.target, dialog.routes, dialog.to, 1, "k") + withBody("");
}

std::string ackOfRefusal(const Run& run, int call, std::string_view refusal) {
  return request(run, call, "ACK", dialledUri(run, call), "", std::string(header(refusal, "To")), 1, "i") +
         withBody("");
}

std::string bye(const Run& run, int call, const Dialog& dialog) {
  return request(run, call, "BYE", dialog.target, dialog.routes, dialog.to, 2, "b") + withBody("");
}

std::string answer(const Run& run, int call, std::string_view request, std::string_view status,
                   int mediaPort) {
  std::string text = "SIP/2.0 " + std::string(status) + "\r\n" + headerLines(request, "Via") +
                     headerLines(request, "Record-Route") + headerLines(request, "From");
  const std::string_view to = header(request, "To");
  text.append("To: ").append(to);
  if (!status.starts_with("100") && to.find(";tag=") == std::string_view::npos)
    text += ";tag=" + run.name + "b" + std::to_string(call);
  text += "\r\n" + headerLines(request, "Call-ID") + headerLines(request, "CSeq") + "Contact: <sip:c" +
          std::to_string(call) + "@127.0.0.1:" + port(run.calleePort) + ">\r\n";
  return text + withBody(mediaPort == 0 ? std::string() : sdp(mediaPort, run.answeredFormats));
}

}  // namespace load_messages
