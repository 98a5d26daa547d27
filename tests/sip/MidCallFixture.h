// A call that stands, and what either party sends within it.
#pragma once

#include <string>

#include "rtp/MyRtp.h"
#include "tests/sip/SipFixture.h"

class MidCallFixture : public SipFixture {
 protected:
  static constexpr int kOrig = 0;
  static constexpr int kPair = 2;

  // A request of the caller within the answered call.
  sip_text::Request callerWithin(const std::string& method, int cseq, const std::string& sdpText = "") const {
    sip_text::Request request = invite;
    request.method = method;
    request.cseq = cseq;
    request.branch = "z9hG4bK" + method + std::to_string(cseq);
    request.sdp = sdpText;
    if (!callerAnswer.empty()) request.to = sip_text::header(callerAnswer, "To");
    return request;
  }
  // The same of the destination.
  sip_text::Request pbxWithin(const std::string& method, int cseq, const std::string& sdpText = "") const {
    sip_text::Request request;
    request.method = method;
    request.uri = "sip:KestrovaPair0@127.0.0.1:" + std::to_string(iSipPort);
    request.callId = sip_text::header(pairInvite, "Call-ID");
    request.cseq = cseq;
    request.viaPort = pbx.port();
    request.branch = "z9hG4bKpbx" + method + std::to_string(cseq);
    request.from = sip_text::header(pairInvite, "To") + ";tag=bob1";
    request.to = sip_text::header(pairInvite, "From");
    request.contact = "<sip:200@127.0.0.1:" + std::to_string(pbx.port()) + ">";
    request.sdp = sdpText;
    return request;
  }
  std::string contactOfPbx() const {
    return "Contact: <sip:200@127.0.0.1:" + std::to_string(pbx.port()) + ">\r\n";
  }
  bool hasMedia() const { return myRtp.findRtpIndex(invite.callId.c_str(), "") != -1; }
  // A re-INVITE of the caller, CSeq 2, as it arrives at the destination.
  std::string relayReInvite(const std::string& sdpText) {
    fromCaller(sip_text::build(callerWithin("INVITE", 2, sdpText)));
    return atPbx();
  }
};
