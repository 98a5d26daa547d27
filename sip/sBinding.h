// Records of phones that register through Quorvel. The binding file is an image of these records, so every
// offset is fixed and checked. Integers and times are in host byte order; a time is in seconds since the
// epoch, 0 for none.
//
// The table is 500 records of 636 kB, of which a phone without subscriptions uses 23 kB: the front (all
// before the subscription entries) and the tail (all after them). A record of the table that carries no
// binding, and every subscription entry beyond iNumSubscriptions, is all zero bytes, mostly in pages that
// were never touched; the operations below keep it so.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <netinet/in.h>
#include <string_view>
#include <type_traits>

#include "common/FixedText.h"
#include "sip/sPhone.h"

inline constexpr int kMaxBindings = 500;
inline constexpr int kMaxSubscriptions = 50;

// "Phone" fields hold what the phone sent, "Relay" fields what Quorvel sends to the PBX in its place,
// "Notify" fields the last NOTIFY of the PBX.
struct sSubscription {
  std::int64_t tConfirmedExpiry;  // accepted by the PBX
  std::int64_t tRequestedExpiry;  // asked for by the phone
  FixedText<41> pcRelayBranch;
  FixedText<17> pcRelayTag;
  FixedText<62> pcRelayCallID;  // empty: the same as pcPhoneCallID, which did not fit
  std::int32_t iRelayCSeq;
  FixedText<1000> pcPhoneVia;  // rport removed
  FixedText<50> pcPhoneCSeq;
  FixedText<100> pcPhoneCallID;
  FixedText<200> pcPhoneTo;
  FixedText<200> pcPhoneFrom;
  FixedText<3000> pcPhoneContact;
  FixedText<50> pcPhoneExpires;  // decimal
  FixedText<3000> pcPhoneRequestLine;
  std::int32_t iPhoneCSeq;
  FixedText<1000> pcNotifyVia;
  FixedText<200> pcNotifyFrom;
  FixedText<200> pcNotifyTo;
  FixedText<3000> pcNotifyContact;
  FixedText<50> pcNotifyCSeq;
  std::array<std::byte, 2> pbPadding1;
  std::int32_t iNotifyCSeq;  // -1 before the first NOTIFY
  FixedText<41> pcNotifyBranch;
  std::array<std::byte, 3> pbPadding2;
  std::int32_t iNotifyRelayCSeq;  // of the NOTIFY relayed to the phone

  // Call-ID of the subscription's dialog with the PBX.
  std::string_view relayCallID() const {
    return pcRelayCallID.empty() ? pcPhoneCallID.view() : pcRelayCallID.view();
  }
};

struct sBinding {
  FixedText<166> pcBindingName;          // user@host as the phone registers it
  FixedText<166> pcBindingNameAtUA;      // user@SipUAIP
  FixedText<166> pcBindingNameAtDomain;  // user@SipProxyDomain
  FixedText<18> pcContactIP;             // host of the phone's Contact
  std::int32_t iContactPort;
  sockaddr_in sBindingAddress;  // where the phone is reached
  FixedText<104> pcBindingUser;
  std::int64_t tConfirmedExpiry;
  std::int64_t tRequestedExpiry;
  FixedText<41> pcRelayBranch;
  FixedText<17> pcRelayTag;
  FixedText<62> pcRelayCallID;
  std::int32_t iRelayCSeq;
  FixedText<1000> pcPhoneVia;  // rport removed
  FixedText<50> pcPhoneCSeq;
  FixedText<100> pcPhoneCallID;
  FixedText<200> pcPhoneTo;
  FixedText<200> pcPhoneFrom;
  FixedText<3000> pcPhoneContact;
  FixedText<50> pcPhoneExpires;  // decimal
  std::array<std::byte, 3000> pbReserved1;
  std::int32_t iPhoneCSeq;
  std::array<std::byte, 4504> pbReserved2;
  std::int32_t iNumSubscriptions;
  std::array<std::byte, 4> pbPadding;
  std::array<sSubscription, kMaxSubscriptions> psSubscriptions;
  FixedText<1000> pcPhoneViaParams;  // ";received=%s;rport=%d"
  std::int32_t iRelayCSeqCounter;    // for every request sent on the phone's behalf
  MessageRing psLastMsgs;            // NOTIFYs relayed to the phone
  std::int32_t iLastMsgIndex;

  sSubscription& subscription(int entry) { return psSubscriptions[static_cast<std::size_t>(entry)]; }
  const sSubscription& subscription(int entry) const {
    return psSubscriptions[static_cast<std::size_t>(entry)];
  }
};

static_assert(std::is_trivially_copyable_v<sBinding> && std::is_standard_layout_v<sBinding>);
static_assert(sizeof(sockaddr_in) == 16);
static_assert(sizeof(sLastMsgData) == 3120);
static_assert(offsetof(sLastMsgData, pcMsg) == 0);
static_assert(offsetof(sLastMsgData, pcCallID) == 3000);
static_assert(offsetof(sLastMsgData, iCSeq) == 3100);
static_assert(offsetof(sLastMsgData, sAddress) == 3104);

static_assert(sizeof(sSubscription) == 12248);
static_assert(offsetof(sSubscription, tConfirmedExpiry) == 0);
static_assert(offsetof(sSubscription, tRequestedExpiry) == 8);
static_assert(offsetof(sSubscription, pcRelayBranch) == 16);
static_assert(offsetof(sSubscription, pcRelayTag) == 57);
static_assert(offsetof(sSubscription, pcRelayCallID) == 74);
static_assert(offsetof(sSubscription, iRelayCSeq) == 136);
static_assert(offsetof(sSubscription, pcPhoneVia) == 140);
static_assert(offsetof(sSubscription, pcPhoneCSeq) == 1140);
static_assert(offsetof(sSubscription, pcPhoneCallID) == 1190);
static_assert(offsetof(sSubscription, pcPhoneTo) == 1290);
static_assert(offsetof(sSubscription, pcPhoneFrom) == 1490);
static_assert(offsetof(sSubscription, pcPhoneContact) == 1690);
static_assert(offsetof(sSubscription, pcPhoneExpires) == 4690);
static_assert(offsetof(sSubscription, pcPhoneRequestLine) == 4740);
static_assert(offsetof(sSubscription, iPhoneCSeq) == 7740);
static_assert(offsetof(sSubscription, pcNotifyVia) == 7744);
static_assert(offsetof(sSubscription, pcNotifyFrom) == 8744);
static_assert(offsetof(sSubscription, pcNotifyTo) == 8944);
static_assert(offsetof(sSubscription, pcNotifyContact) == 9144);
static_assert(offsetof(sSubscription, pcNotifyCSeq) == 12144);
static_assert(offsetof(sSubscription, pbPadding1) == 12194);
static_assert(offsetof(sSubscription, iNotifyCSeq) == 12196);
static_assert(offsetof(sSubscription, pcNotifyBranch) == 12200);
static_assert(offsetof(sSubscription, pbPadding2) == 12241);
static_assert(offsetof(sSubscription, iNotifyRelayCSeq) == 12244);

static_assert(sizeof(sBinding) == 635664);
static_assert(offsetof(sBinding, pcBindingName) == 0);
static_assert(offsetof(sBinding, pcBindingNameAtUA) == 166);
static_assert(offsetof(sBinding, pcBindingNameAtDomain) == 332);
static_assert(offsetof(sBinding, pcContactIP) == 498);
static_assert(offsetof(sBinding, iContactPort) == 516);
static_assert(offsetof(sBinding, sBindingAddress) == 520);
static_assert(offsetof(sBinding, pcBindingUser) == 536);
static_assert(offsetof(sBinding, tConfirmedExpiry) == 640);
static_assert(offsetof(sBinding, tRequestedExpiry) == 648);
static_assert(offsetof(sBinding, pcRelayBranch) == 656);
static_assert(offsetof(sBinding, pcRelayTag) == 697);
static_assert(offsetof(sBinding, pcRelayCallID) == 714);
static_assert(offsetof(sBinding, iRelayCSeq) == 776);
static_assert(offsetof(sBinding, pcPhoneVia) == 780);
static_assert(offsetof(sBinding, pcPhoneCSeq) == 1780);
static_assert(offsetof(sBinding, pcPhoneCallID) == 1830);
static_assert(offsetof(sBinding, pcPhoneTo) == 1930);
static_assert(offsetof(sBinding, pcPhoneFrom) == 2130);
static_assert(offsetof(sBinding, pcPhoneContact) == 2330);
static_assert(offsetof(sBinding, pcPhoneExpires) == 5330);
static_assert(offsetof(sBinding, pbReserved1) == 5380);
static_assert(offsetof(sBinding, iPhoneCSeq) == 8380);
static_assert(offsetof(sBinding, pbReserved2) == 8384);
static_assert(offsetof(sBinding, iNumSubscriptions) == 12888);
static_assert(offsetof(sBinding, pbPadding) == 12892);
static_assert(offsetof(sBinding, psSubscriptions) == 12896);
static_assert(offsetof(sBinding, pcPhoneViaParams) == 625296);
static_assert(offsetof(sBinding, iRelayCSeqCounter) == 626296);
static_assert(offsetof(sBinding, psLastMsgs) == 626300);
static_assert(offsetof(sBinding, iLastMsgIndex) == 635660);

// ---- Front and tail ----

inline constexpr std::size_t kBindingTailOffset = offsetof(sBinding, pcPhoneViaParams);
inline constexpr std::size_t kBindingTailBytes = sizeof(sBinding) - kBindingTailOffset;

// Bytes before the first unused subscription entry of a record with that many subscriptions.
constexpr std::size_t bindingFrontBytes(int numSubscriptions) {
  return offsetof(sBinding, psSubscriptions) +
         static_cast<std::size_t>(numSubscriptions) * sizeof(sSubscription);
}

inline std::byte* bytesOf(sBinding& record) {
  return reinterpret_cast<std::byte*>(&record);
}
inline const std::byte* bytesOf(const sBinding& record) {
  return reinterpret_cast<const std::byte*>(&record);
}

// Makes the record unused.
inline void clearBinding(sBinding& record) {
  const std::size_t front = bindingFrontBytes(record.iNumSubscriptions);
  std::memset(bytesOf(record), 0, front);
  std::memset(bytesOf(record) + kBindingTailOffset, 0, kBindingTailBytes);
}
