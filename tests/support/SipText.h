// Reading and writing SIP messages as tests see them.
#pragma once

#include <string>
#include <string_view>

namespace sip_text {

// First line, without its CR LF.
std::string firstLine(std::string_view message);
// Value of the first header line with that name (without colon, exact case), or "<none>".
std::string header(std::string_view message, std::string_view name);
// Everything after the empty line.
std::string body(std::string_view message);
// Value of the tag parameter in a From or To value, or empty.
std::string tag(std::string_view value);
// `message` with its Content-Length (which must be present) set to the length of its body.
std::string withLength(std::string_view message);
// Replaces every occurrence; the text must occur.
std::string replaced(std::string message, std::string_view what, std::string_view with);

struct Request {
  std::string method = "INVITE";
  std::string uri = "sip:200@127.0.0.1";
  std::string callId = "call-1@127.0.0.1";
  int cseq = 1;
  int viaPort = 5999;
  std::string branch = "z9hG4bKcaller1";
  std::string from = "\"Alice\" <sip:100@127.0.0.1>;tag=alice1";
  std::string to = "<sip:200@127.0.0.1>";
  std::string contact = "<sip:100@127.0.0.1:5999>";
  std::string extraHeaders{};  // whole lines, each with CR LF
  std::string sdp{};           // empty: no body
};
std::string build(const Request& request);

// An SDP offer or answer with the given audio formats, for example "0 8 101".
std::string sdp(int port, std::string_view formats, std::string_view extraLines = "",
                std::string_view ip = "127.0.0.1");

// A response to a request that was received: copies Via, From, To (adding the tag), Call-ID and CSeq.
std::string respond(std::string_view request, std::string_view status, std::string_view toTag = "",
                    std::string_view extraHeaders = "", std::string_view sdpBody = "");

}  // namespace sip_text
