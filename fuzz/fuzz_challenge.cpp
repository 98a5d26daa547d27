// A challenge to a REGISTER or an INVITE of our own, with header lines of any content. The first byte chooses
// request, status and arrangement; the rest stands between CSeq and the end of the challenge. What is sent
// must be the same request again, with the next number and one line of credentials; or, where Quorvel stands
// in front of the PBX, the challenge to the caller, of which one line is the PBX's.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/socket.h>

#include "app/config/Settings.h"
#include "engine/Glob.h"
#include "fuzz/Require.h"
#include "sip/MySip.h"

namespace {

std::string lastSent;

}  // namespace

extern "C" ssize_t sendto(int, const void* text, std::size_t length, int, const sockaddr*, socklen_t) {
  lastSent.assign(static_cast<const char*>(text), length);
  return static_cast<ssize_t>(length);
}

namespace {

constexpr int kPairSlot = 1;

MySip& engine() {
  static MySip sip;
  if (sip.psPhones) return sip;
  pcSipUAIP.assignCut("127.0.0.1");
  pcSipProxyDomain.assignCut("pbx.example");
  pcPairPhonesNamePrefix.assignCut("p");
  pcSecret.assignCut("secret");
  iNumPhonesToAllocate = 2;
  iNumCallsToFilter = 1;
  Glob::pcKestrovaBin.assignCut("/nonexistent/");
  require(sip.init() == 0);
  return sip;
}

std::size_t count(std::string_view text, std::string_view what) {
  std::size_t number = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string_view::npos; ++at) ++number;
  return number;
}

// Sends the request that is going to be challenged; gives its Call-ID.
std::string request(MySip& sip, bool isInvite) {
  sPhone& identity = sip.phone(kPairSlot);
  for (sLastMsgData& stored : identity.psLastMsgs) stored = sLastMsgData{};
  identity.pcRemoteTag.clear();  // the last input's
  identity.iCSeq = identity.iRegistrationCSeq = 16;
  if (!isInvite) {
    require(sip.sendRegistration(identity, 60) > 0);
    return std::string(identity.pcRegistrationCallID.view());
  }
  sip.setCallID(kPairSlot, "call@127.0.0.1");
  identity.pcRemoteSipName.assignCut("200@pbx.example");
  identity.iInviteCSeq = ++identity.iCSeq;
  sip.sendRequest(identity, "INVITE sip:200@pbx.example SIP/2.0", identity.iInviteCSeq, "INVITE", true);
  return std::string(identity.pcCallID.view());
}

void checkAnswer(std::string_view first, bool isInvite) {
  const std::string_view again = lastSent;
  if (again == first || again.starts_with("ACK ")) return;  // no usable challenge: nothing, or the ACK alone
  require(again.substr(0, again.find("\r\n")) == first.substr(0, first.find("\r\n")));
  require(again.find(isInvite ? "\r\nCSeq: 18 INVITE\r\n" : "\r\nCSeq: 18 REGISTER\r\n") !=
          std::string_view::npos);
  require(count(again, "\nAuthorization: Digest ") + count(again, "\nProxy-Authorization: Digest ") == 1);
  // As many lines as before, and one of credentials.
  require(count(again, "\n") == count(first, "\n") + 1 && again.size() < sizeof(MessageText));
}

// With a line of the challenge's and nothing else of it, wherever that stood there.
void checkHandedOn(std::string_view first, bool is401) {
  const std::string_view sent = lastSent;
  if (sent == first) return;  // no usable challenge
  require(sent.starts_with(is401 ? "SIP/2.0 401 Unauthorized\r\n"
                                 : "SIP/2.0 407 Proxy Authentication Required\r\n"));
  require(sent.ends_with("\r\n\r\n") && sent.size() < sizeof(MessageText));
  constexpr std::size_t kLines = 11;  // of the answer that is made of it
  require(count(sent, "\r\n") == kLines && count(sent, "\n") == kLines && count(sent, "\r") == kLines);
  std::string folded(sent);
  std::transform(folded.begin(), folded.end(), folded.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  require(count(folded, "\nwww-authenticate:") + count(folded, "\nproxy-authenticate:") == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  MySip& sip = engine();
  const bool isInvite = (data[0] & 1) != 0;
  iSipProxyArchitecture = data[0] >> 2 & 1;
  const std::string callId = request(sip, isInvite);
  const std::string first = lastSent;
  std::string_view lines(reinterpret_cast<const char*>(data) + 1, size - 1);
  lines = lines.substr(0, lines.find('\0'));
  std::string challenge =
      (data[0] & 2) != 0 ? "SIP/2.0 401 Unauthorized" : "SIP/2.0 407 Proxy Authentication Required";
  challenge += "\r\nCall-ID: " + callId + "\r\nCSeq: 17 " + (isInvite ? "INVITE" : "REGISTER") + "\r\n" +
               std::string(lines) + "\r\n\r\n";
  challenge.resize(std::min<std::size_t>(challenge.size(), kMaxMessageLength));
  MySip::unfoldHeaders(challenge);
  sip.analyzeSipMessage(challenge, MySip::addressOf("127.0.0.1", 5060));
  if (iSipProxyArchitecture == 0)
    checkAnswer(first, isInvite);
  else
    checkHandedOn(first, (data[0] & 2) != 0);
  return 0;
}
