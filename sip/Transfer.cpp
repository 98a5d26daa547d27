// REFER: a party asks the other to call somebody else (blind), or to take over a call that it has with
// somebody (attended, with Replaces: RFC 3891). A party knows only its own dialogs with Quorvel, so the
// dialog that it names is replaced by the partner leg's, which is the one that the receiver of the REFER can
// refer to:
//
//     transferor ==A== Quorvel ==B== transferee        REFER arrives on A, goes out on B
//     transferor ==C== Quorvel ==D== target            Replaces names C, is rewritten to D
//
// In the handlers `slot` is the leg on which the message arrived and `partner` the other leg.
#include <algorithm>

#include "app/config/Log.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::handleREFERMsg";
constexpr std::string_view kReplaces = "?Replaces=";
constexpr std::size_t kTagPrefixLength = 5;  // ";tag="
constexpr std::size_t kMaxCallId = 99;
constexpr std::size_t kReferToRoom = FixedText<366>::maxLength() + 1;

}  // namespace

void MySip::handleREFERMsg(int slot, std::string_view msg) {
  sPhone& leg = phone(slot);
  sPhone& partner = partnerOf(slot);
  if (!leg.bInUse) return;
  takeVia(msg, leg.pcReferVia);
  removeRport(leg.pcReferVia);
  const std::string_view received = extractHeader("Refer-To:", kReferToRoom, msg);
  if (received.empty()) return;
  leg.pcReferTo.assignCut(received);
  int cseq = 0;
  if (!readRequestCSeq(msg, cseq, kFunction)) return;
  leg.iRemoteInviteCSeq = std::max(leg.iRemoteInviteCSeq, cseq);
  if (cseq == leg.iReferCSeq) {
    resendLastSipMsg(partner.psLastMsgs, partner.iLastMsgIndex, partner.pcCallID, partner.iReferCSeq);
    return;
  }
  FixedText<366> referTo;
  if (!translateReferTo(leg.pcReferTo, referTo)) return;
  leg.iReferCSeq = cseq;
  const FixedText<100> branch = drawRequestBranch(partner);
  partner.iReferCSeq = ++partner.iCSeq;
  FixedText<500> tail;
  FixedText<30> cseqText;
  (void)cseqText.format("%d REFER", partner.iReferCSeq);
  (void)tail.format("\r\nRefer-To: %s\r\n\r\n", referTo.c_str());
  generalPrepareAndSendMsg(true, partner, requestLine("REFER", partner.pcRemoteSipName).c_str(),
                           cseqText.c_str(), tail.c_str(), 0, true, partner.pcRemoteTag.c_str(),
                           partner.pcRemoteVia.c_str(), branch.c_str());
}

// A new branch for a request within the call. It becomes the leg's own unless an INVITE is pending there:
// that one's CANCEL and ACK still need theirs.
FixedText<100> MySip::drawRequestBranch(sPhone& leg) {
  if (!leg.bInviteSentByUs || (leg.bAnswered && !leg.bReInviteInProgress)) {
    drawBranch(leg);
    return leg.pcBranch;
  }
  FixedText<41> drawn;
  fillNewBranchData(drawn);
  return copyOf<100>(drawn);
}

// The Refer-To for the receiver of the REFER. False, and logged, when it cannot be given.
bool MySip::translateReferTo(std::string_view received, FixedText<366>& out) {
  const std::size_t replaces = stristr(received, kReplaces);
  if (replaces == std::string_view::npos) return out.assign(received);

  const sPhone* target = findReplacedPartner(received.substr(replaces + kReplaces.size()));
  if (target == nullptr) return false;
  if (target->pcRemoteTag.size() < kTagPrefixLength || target->pcLocalTag.size() < kTagPrefixLength) {
    Log::error(kFunction, "can't find tags to use %s %s\n", target->pcLocalTag.c_str(),
               target->pcRemoteTag.c_str());
    return false;
  }
  const char* remote = target->pcRemoteTag.c_str() + kTagPrefixLength;
  const char* local = target->pcLocalTag.c_str() + kTagPrefixLength;
  const bool weInvited = target->bInviteSentByUs;
  const bool inBrackets = contains(received, "<sip") || contains(received, "< sip");
  FixedText<300> callId;
  prepareCallIDToUseInReferReplaces(target->pcCallID, callId);
  FixedText<1000> whole;
  (void)whole.format("%.*s?Replaces=%s%%3Bto-tag%%3D%s%%3Bfrom-tag%%3D%s%s", static_cast<int>(replaces),
                     received.data(), callId.c_str(), weInvited ? remote : local, weInvited ? local : remote,
                     inBrackets ? ">" : "");
  if (out.assign(whole)) return true;
  Log::error(kFunction, "The size of the new Refer string is TOO Big %s\n", whole.c_str());
  return false;
}

// The partner of the leg whose dialog the escaped Replaces parameter names; null, and logged, if there is
// none.
const sPhone* MySip::findReplacedPartner(std::string_view escaped) {
  FixedText<367> callId;
  extractCallIDFromReferReplaces(escaped, callId);
  if (callId.size() > kMaxCallId) {
    Log::error(kFunction, "Call ID too long %s\n", callId.c_str());
    return nullptr;
  }
  const int named = callId.empty() ? -1 : findSlotInUse(callId);
  if (named < 0) {
    Log::error(kFunction, "unable to find a phone with call-id %s\n", callId.c_str());
    return nullptr;
  }
  return &partnerOf(named);
}

void MySip::handleAcceptedForREFERMsg(int slot, std::string_view) {
  if (!phone(slot).bInUse) {
    Log::error("MySip::handleAcceptedForREFERMsg", "error, the phone %d is not during a call \n", slot);
    return;
  }
  sPhone& partner = partnerOf(slot);
  sendResponseWithVia(partner, "SIP/2.0 202 Accepted", partner.iReferCSeq, "REFER", partner.pcReferVia);
}
