#include "tests/calls/support/TalkFixture.h"

std::string TalkFixture::expect(LoopbackPeer& at, const std::string& beginning,
                                std::chrono::milliseconds limit) {
  const std::string message = at.receive(limit).value_or("(nothing)");
  if (message.starts_with(beginning)) return message;
  ADD_FAILURE() << "expected " << beginning << ", got\n" << message;
  return "";
}

std::string TalkFixture::invite(int number, const std::string& formats) const {
  const std::string digits = std::to_string(number);
  const std::string events = formats.ends_with("101") ? "a=rtpmap:101 telephone-event/8000\r\n" : "";
  return sip_text::build({.callId = "talk-" + digits + "@127.0.0.1",
                          .viaPort = caller.port(),
                          .branch = "z9hG4bKinvite" + digits,
                          .from = "\"Alice\" <sip:100@127.0.0.1>;tag=alice" + digits,
                          .contact = "<sip:100@127.0.0.1:" + std::to_string(caller.port()) + ">",
                          .sdp = sip_text::sdp(ports.media(0), formats, events + "a=sendrecv\r\n")});
}

std::string TalkFixture::inDialog(const std::string& method, int cseq, const std::string& received,
                                  int number) const {
  const std::string digits = std::to_string(number);
  return sip_text::build({.method = method,
                          .callId = "talk-" + digits + "@127.0.0.1",
                          .cseq = cseq,
                          .viaPort = caller.port(),
                          .branch = "z9hG4bK" + method + digits,
                          .from = "\"Alice\" <sip:100@127.0.0.1>;tag=alice" + digits,
                          .to = sip_text::header(received, "To"),
                          .contact = ""});
}

std::string TalkFixture::answer(const std::string& receivedInvite) const {
  const std::string contact = "Contact: <sip:200@127.0.0.1:" + std::to_string(callee.port()) + ">\r\n";
  return sip_text::respond(receivedInvite, "200 OK", "bob1", contact,
                           sip_text::sdp(ports.media(1), "0", "a=sendrecv\r\n"));
}

TalkFixture::Call TalkFixture::setUp(int number, const std::string& formats) {
  Call call{.number = number};
  toQuorvel(caller, invite(number, formats));
  call.invite = expect(callee, "INVITE sip:200@127.0.0.1 SIP/2.0\r\n");
  toQuorvel(callee, answer(call.invite));
  call.ok = expect(caller, "SIP/2.0 200 Ok\r\n");
  toQuorvel(caller, inDialog("ACK", 1, call.ok, number));
  expect(callee, "ACK sip:200@127.0.0.1:");
  return call;
}

void TalkFixture::hangUp(const Call& call) {
  toQuorvel(caller, inDialog("BYE", 2, call.ok, call.number));
  toQuorvel(callee, sip_text::respond(expect(callee, "BYE sip:200@127.0.0.1:"), "200 OK"));
  expect(caller, "SIP/2.0 200 OK\r\n");
}
