// Digest challenges (401 and 407): answered with our own credentials, or in the proxy arrangement handed on
// to the party whose request was challenged. Quorvel never challenges anybody itself.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MessageTemplates.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kAnswering = "MySip::sendAuthentication";
constexpr std::size_t kMaxQuotedValue = 255;
constexpr std::size_t kNoText = std::string_view::npos;

std::size_t find(std::string_view text, std::string_view what, std::size_t from = 0) {
  const std::size_t at = from < text.size() ? MySip::stristr(text.substr(from), what) : kNoText;
  return at == kNoText ? kNoText : from + at;
}

// "17 INVITE": number and method, as "%d %s" reads them.
bool readNumberAndMethod(std::string_view cseq, int& number, std::string_view& method) {
  if (!MySip::readDecimal(cseq, number)) return false;
  std::size_t at = cseq.find_first_of("0123456789");
  at = cseq.find_first_not_of("0123456789", at);
  at = at == kNoText ? kNoText : cseq.find_first_not_of(" \t\r\n", at);
  if (at == kNoText) return false;
  method = cseq.substr(at, cseq.find_first_of(" \t\r\n", at) - at);
  return true;
}

// The text between `start` (which ends with a double quote) and the next double quote on that line: a value
// with a line end in it would bring header lines of its own into our request.
bool readQuoted(std::string_view challenge, std::string_view start, const char* noStart, const char* noEnd,
                std::string_view& out) {
  const std::size_t at = find(challenge, start);
  if (at == kNoText) {
    Log::error(kAnswering, "%s", noStart);
    return false;
  }
  const std::string_view rest = challenge.substr(at + start.size(), kMaxQuotedValue + 1);
  const std::size_t end = rest.find_first_of("\"\r\n");
  if (end == kNoText || rest[end] != '"') {
    Log::error(kAnswering, "%s", noEnd);
    return false;
  }
  out = rest.substr(0, end);
  return true;
}

// What a challenge asks for.
struct sChallenge {
  std::string_view realm;
  std::string_view nonce;
  bool bOfProxy = false;  // 407: the answer goes into Proxy-Authorization

  // False, and logged, when it cannot be answered.
  bool read(std::string_view message) {
    bOfProxy = MySip::statusCodeOf(MySip::firstLineOf(message)) != 401;
    return readQuoted(message, "realm=\"", "unable to find realm in unauthorized msg\n",
                      "unable to find end of realm in unauthorized msg\n", realm) &&
           readQuoted(message, "nonce=\"", "unable to find nonce in unauthorized msg\n",
                      "unable to find end of nonce in unauthorized msg\n", nonce);
  }
};

// A stored request: its first line, and its text taken apart around the branch and the CSeq line, which the
// answer to a challenge replaces.
struct sChallengedRequest {
  std::string_view method;
  std::string_view uri;
  std::string_view toBranch;   // up to and including "branch="
  std::string_view toCSeq;     // from the end of the Via line up to "CSeq:"
  std::string_view afterCSeq;  // from the line after it
  int iCSeq = 0;
  std::string_view cseqMethod;

  // False, and logged, when something is missing.
  bool read(std::string_view request) { return readFirstLine(MySip::firstLineOf(request)) && split(request); }

 private:
  bool readFirstLine(std::string_view line) {
    if (line.size() > kMaxFirstLine) {
      Log::error(kAnswering, "status line too long\n");
      return false;
    }
    const std::size_t methodEnd = line.find(' ');
    const std::size_t uriStart = methodEnd == kNoText ? kNoText : line.find_first_not_of(' ', methodEnd);
    if (uriStart == kNoText) {
      Log::error(kAnswering, "unable to find Status & Uri in unahotized msg %.*s\n",
                 static_cast<int>(line.size()), line.data());
      return false;
    }
    method = line.substr(0, methodEnd);
    uri = line.substr(uriStart, line.find(' ', uriStart) - uriStart);
    return true;
  }

  bool split(std::string_view request) {
    const auto missing = [](const char* what) {
      Log::error(kAnswering, "%s", what);
      return false;
    };
    constexpr std::string_view kBranch = "branch=";
    constexpr std::string_view kCSeq = "CSeq:";
    const std::size_t branch = find(request, kBranch);
    if (branch == kNoText) return missing("Did not find branch\n");
    toBranch = request.substr(0, branch + kBranch.size());
    const std::size_t viaEnd = request.find("\r\n", toBranch.size());
    if (viaEnd == kNoText) return missing("Did not find end of branch\n");
    const std::size_t cseqStart = find(request, kCSeq, viaEnd);
    if (cseqStart == kNoText) return missing("Did not find CSeq\n");
    toCSeq = request.substr(viaEnd, cseqStart - viaEnd);
    const std::size_t cseqEnd = request.find("\r\n", cseqStart);
    if (cseqEnd == kNoText) return missing("Did not find end of CSeq\n");
    afterCSeq = request.substr(cseqEnd + 2);
    const std::size_t valueStart = cseqStart + kCSeq.size();
    return readCSeq(request.substr(valueStart, cseqEnd - valueStart));
  }

  bool readCSeq(std::string_view value) {
    if (readNumberAndMethod(value, iCSeq, cseqMethod)) return true;
    Log::error(kAnswering, "reading seq & requestfrom %.*s\n", static_cast<int>(value.size()), value.data());
    return false;
  }
};

// The CSeq line with the identity's number, and the credentials. The longest values have 900 characters
// together.
FixedText<1200> credentialsOf(const sPhone& identity, const sChallenge& asked,
                              const sChallengedRequest& request, const FixedText<33>& response) {
  FixedText<1200> lines;
  (void)lines.format(asked.bOfProxy ? kProxyAuthorizationTemplate : kAuthorizationTemplate, identity.iCSeq,
                     copyOf<50>(request.cseqMethod).c_str(), identity.pcUserName.c_str(),
                     copyOf<kMaxQuotedValue + 1>(asked.realm).c_str(),
                     copyOf<kMaxQuotedValue + 1>(asked.nonce).c_str(), response.c_str(),
                     copyOf<kMaxFirstLine + 1>(request.uri).c_str());
  return lines;
}

}  // namespace

// ---- A challenge arrives ----

void MySip::handleUnauthorizedMsg(std::string_view msg, const sockaddr_in& from) {
  if (iSipProxyArchitecture != 0) {
    generateUnauthorizedMsg(msg);
    return;
  }
  const std::string_view callId = callIdOf(msg);
  std::string_view cseqText;
  int cseq = 0;
  if (!readCSeq(msg, cseq, cseqText)) {
    Log::error("MySip::handleUnauthorizedMsg", "reading seq from %.*s\n", static_cast<int>(cseqText.size()),
               cseqText.data());
    return;
  }
  int record = -1;
  sPhone* identity = findSender(callId, cseq, record);
  if (identity == nullptr) return;
  if (contains(cseqText, "INVITE")) {
    const std::string_view request = identity->psLastMsgs[static_cast<std::size_t>(record)].pcMsg;
    identity->bPeerHeard = true;
    if (cseq != identity->iInviteCSeq) {
      // Our ACK was lost: the INVITE with credentials is on its way, a second one would be a second call.
      acknowledgeRepeatedChallenge(*identity, request, cseq, msg);
      return;
    }
    learnRemoteTag(*identity, msg);
    sendOfInvite(*identity, "ACK", identity->pcRemoteSipName, false);
    if (identity->bTerminating || request.starts_with("CANCEL ")) {
      endWithdrawnInvite(phone(identity->iPairIndex).iPairIndex);
      return;
    }
  }
  sendAuthentication(*identity, record, msg, from);
}

// A CANCEL or a BYE has overtaken the INVITE that is challenged: with credentials it would let a phone ring
// for a caller who has gone.
void MySip::endWithdrawnInvite(int slot) {
  sPhone& partner = partnerOf(slot);
  relayErrorStatus(partner, viaOfInvite(partner), "SIP/2.0 487 Request Terminated",
                   "MySip::endWithdrawnInvite");
  if (partner.bReInviteInProgress) stopReInviteAndRollBack(slot, phone(slot).iPairIndex);
}

void MySip::acknowledgeRepeatedChallenge(sPhone& identity, std::string_view request, int cseq,
                                         std::string_view challenge) {
  constexpr std::string_view kBranch = "branch=";
  const std::size_t at = find(request, kBranch);
  if (at == kNoText) return;
  const std::string_view rest = request.substr(at + kBranch.size());
  const FixedText<100> branch = copyOf<100>(rest.substr(0, rest.find("\r\n")));
  FixedText<100> remoteTag;
  if (std::string_view tag; extractTag(extractToken("To:", 200, challenge), tag)) {
    (void)remoteTag.append(";tag=");
    (void)remoteTag.append(tag);
  }
  acknowledgeRefusal(identity, cseq, remoteTag, branch);
}

// The identity that sent the request with this Call-ID and CSeq, and the position in its ring; null if none
// did.
sPhone* MySip::findSender(std::string_view callId, int cseq, int& record) {
  const auto searchRing = [&](const sPhone& identity) {
    for (int back = 1; back <= kStoredMessages; ++back) {
      const int position = (identity.iLastMsgIndex + kStoredMessages - back) % kStoredMessages;
      const sLastMsgData& stored = identity.psLastMsgs[static_cast<std::size_t>(position)];
      if (stored.iCSeq == cseq && stored.pcCallID == callId) return position;
    }
    return -1;
  };
  if ((record = searchRing(sTrunk)) >= 0) return &sTrunk;
  // A Call-ID belongs to one slot; the index spares a walk over all rings where it is that of a call.
  if (const int slot = findSlot(callId); slot >= 0 && (record = searchRing(phone(slot))) >= 0)
    return &phone(slot);
  for (int slot = 0; slot < iNumSlots; ++slot) {
    if ((record = searchRing(phone(slot))) >= 0) return &phone(slot);
  }
  return nullptr;
}

// ---- Answering it ----

void MySip::sendAuthentication(sPhone& identity, int ringIndex, std::string_view challenge,
                               const sockaddr_in& from) {
  sChallenge asked;
  sChallengedRequest request;
  if (!asked.read(challenge) ||
      !request.read(identity.psLastMsgs[static_cast<std::size_t>(ringIndex)].pcMsg)) {
    return;
  }
  if (identity.iCSeq < request.iCSeq) {
    Log::error(kAnswering, "Stored CSeq %d is greated than last sent CSeq %d\n", request.iCSeq,
               identity.iCSeq);
    return;
  }
  ++identity.iCSeq;
  const FixedText<100> branch = drawBranchOfAnswer(identity, request.cseqMethod);
  const FixedText<33> response = prepareDigestResponse(identity.pcUserName, asked.realm, identity.pcSecret,
                                                       request.method, request.uri, asked.nonce);
  MessageText text;
  if (!text.append(request.toBranch) || !text.append(branch) || !text.append(request.toCSeq) ||
      !text.append(credentialsOf(identity, asked, request, response)) || !text.append(request.afterCSeq)) {
    Log::error(kAnswering, "request with credentials is too long\n");
    return;
  }
  if (request.cseqMethod == "INVITE") identity.iInviteCSeq = identity.iCSeq;
  sendSipMsg(nullptr, nullptr, {}, identity.iCSeq, text, from);
}

// A new branch for the request with credentials.
FixedText<100> MySip::drawBranchOfAnswer(sPhone& identity, std::string_view method) {
  if (method == "REGISTER") {
    fillNewBranchData(identity.pcRegistrationBranch);
    identity.iRegistrationCSeq = identity.iCSeq;
    return copyOf<100>(identity.pcRegistrationBranch);
  }
  if (method != "INVITE") return drawRequestBranch(identity);
  drawBranch(identity);
  return identity.pcBranch;
}

// ---- Handing it on ----

void MySip::generateUnauthorizedMsg(std::string_view challenge) {
  constexpr const char* kFunction = "MySip::generateUnauthorizedMsg";
  const std::string_view callId = callIdOf(challenge);
  const std::string_view cseqText = extractToken("CSeq:", 50, challenge);
  int cseq = 0;
  std::string_view method;
  if (!readNumberAndMethod(cseqText, cseq, method)) {
    Log::error(kFunction, "reading seq from %.*s\n", static_cast<int>(cseqText.size()), cseqText.data());
    return;
  }
  const FixedText<50> methodText = copyOf<50>(method);
  // A REGISTER of the identity may have counted on while its INVITE waits for an answer.
  const auto hasSent = [&](const sPhone& leg) {
    return leg.iCSeq == cseq || (leg.bInviteSentByUs && leg.iInviteCSeq == cseq && method == "INVITE");
  };
  std::string_view ourTag;
  (void)extractTag(extractToken("From:", 200, challenge), ourTag);
  const int slot = slotIndex.find(callId, [&](int index) {
    const sPhone& leg = phone(index);
    return leg.pcCallID == callId && hasSent(leg) &&
           (ourTag.empty() || leg.pcLocalTag.view().ends_with(ourTag));
  });
  if (slot >= 0) {
    handChallengeToPartner(slot, challenge, method);
  } else if (const int binding = findBindingByRelayedRegistration(callId, cseq); binding >= 0) {
    const sBinding& phoneOf = bindingAt(binding);
    const FixedText<2100> via = viaOfAnswer(phoneOf.pcPhoneVia, phoneOf.pcPhoneViaParams);
    sendUnauthorizedMsg(challenge, via.c_str(), phoneOf.pcPhoneFrom.c_str(), phoneOf.pcPhoneTo.c_str(),
                        phoneOf.pcPhoneCallID.c_str(), phoneOf.iPhoneCSeq, methodText.c_str(),
                        phoneOf.sBindingAddress);
  } else if (const auto place = findSubscriptionByRelayCallID(callId, &cseq)) {
    const sBinding& phoneOf = bindingAt(place.iBinding);
    const sSubscription& entry = phoneOf.psSubscriptions[static_cast<std::size_t>(place.iEntry)];
    const FixedText<2100> via = viaOfAnswer(entry.pcPhoneVia, phoneOf.pcPhoneViaParams);
    sendUnauthorizedMsg(challenge, via.c_str(), entry.pcPhoneFrom.c_str(), entry.pcPhoneTo.c_str(),
                        entry.pcPhoneCallID.c_str(), entry.iPhoneCSeq, methodText.c_str(),
                        phoneOf.sBindingAddress);
  }
}

void MySip::handChallengeToPartner(int slot, std::string_view challenge, std::string_view method) {
  sPhone& leg = phone(slot);
  const sPhone& partner = partnerOf(slot);
  leg.bPeerHeard = true;
  learnRemoteTag(leg, challenge);
  FixedText<300> own;
  FixedText<300> peer;
  (void)own.format("<sip:%s>%s", partner.pcSipName.c_str(), partner.pcLocalTag.c_str());
  (void)peer.format("<sip:%s>%s", partner.pcRemoteSipName.c_str(), partner.pcRemoteTag.c_str());
  const bool weInvited = partner.bInviteSentByUs;
  const bool isOfInvite = method == "INVITE";  // which another request of the partner may have overtaken
  const FixedText<2100> via =
      viaOfAnswer(isOfInvite ? viaOfInvite(partner) : partner.pcRemoteVia, partner.pcViaParams);
  sendUnauthorizedMsg(
      challenge, via.c_str(), weInvited ? own.c_str() : peer.c_str(), weInvited ? peer.c_str() : own.c_str(),
      partner.pcCallID.c_str(), isOfInvite ? partner.iInviteCSeq : partner.iRemoteInviteCSeq,
      copyOf<50>(method).c_str(),
      partner.pcOneTimeDestinationHost.empty() ? partner.sRemoteAddress : partner.sOneTimeDestination);
  // A REFER or a BYE that is challenged meanwhile leaves the re-INVITE to its own answer.
  if (isOfInvite && leg.bReInviteInProgress && !leg.bReInviteFromThisLeg)
    stopReInviteAndRollBack(slot, leg.iPairIndex);
}

void MySip::sendUnauthorizedMsg(std::string_view challenge, const char* via, const char* fromHeader,
                                const char* toHeader, const char* callId, int cseq, const char* method,
                                const sockaddr_in& destination) {
  constexpr const char* kFunction = "MySip::sendUnauthorizedMsg";
  std::size_t start = find(challenge, "Proxy-Authenticate:");
  if (start == kNoText) start = find(challenge, "WWW-Authenticate:");
  if (start == kNoText) {
    Log::error(kFunction, "unrecorgnized authentication line in: \n %.*s \n",
               static_cast<int>(challenge.size()), challenge.data());
    return;
  }
  // Of a body's line, which is not unfolded, too, nothing that would begin a header of its own is handed on.
  const std::size_t end = challenge.find_first_of("\r\n", start);
  if (end == kNoText) {
    Log::error(kFunction, "error during digest analyze\n");
    return;
  }
  const std::string_view status = firstLineOf(challenge);
  if (status.size() > kMaxFirstLine) {
    Log::error(kFunction, "status line too long\n");
    return;
  }
  MessageText text;
  if (!text.format(kRelayedChallengeTemplate, copyOf<200>(status).c_str(), via, fromHeader, toHeader, callId,
                   cseq, method, kUserAgent, kAllow,
                   copyOf<3000>(challenge.substr(start, end - start)).c_str())) {
    Log::error(kFunction, "challenge is too long\n");
    return;
  }
  sendSipMsg(nullptr, nullptr, {}, cseq, text, destination);
}

std::string_view MySip::extractAuthorizationLine(std::string_view msg) {
  constexpr std::size_t kMaxLine = 2998;
  std::size_t start = find(msg, "Proxy-Authorization:");
  if (start == kNoText) start = find(msg, "Authorization:");
  if (start == kNoText) return {};
  const std::size_t end = msg.find_first_of("\r\n", start);  // ends at a lone one only in a body
  if (end == kNoText || !msg.substr(end).starts_with("\r\n") || end + 2 - start > kMaxLine) {
    Log::error("MySip::extractAuthorizationLine", "error during digest analyze\n");
    return {};
  }
  return msg.substr(start, end + 2 - start);
}
