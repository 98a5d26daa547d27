// Records of phones that register through Quorvel. The binding file is an image of these records, so every
// offset is fixed and checked. Integers and times are in host byte order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "common/FixedText.h"
#include "sip/sPhone.h"

inline constexpr int kMaxBindings = 500;
inline constexpr int kMaxSubscriptions = 50;

struct sSubscription {
  std::int64_t tConfirmedExpiry;
  std::int64_t tRequestedExpiry;
  FixedText<41> pcRelayBranch;
  FixedText<17> pcRelayTag;
  FixedText<62> pcRelayCallID;
  std::int32_t iRelayCSeq;
  FixedText<1000> pcPhoneVia;
  FixedText<50> pcPhoneCSeq;
  FixedText<100> pcPhoneCallID;
  FixedText<200> pcPhoneTo;
  FixedText<200> pcPhoneFrom;
  FixedText<3000> pcPhoneContact;
  FixedText<50> pcPhoneExpires;
  FixedText<3000> pcPhoneRequestLine;
  std::int32_t iPhoneCSeq;
  FixedText<1000> pcNotifyVia;
  FixedText<200> pcNotifyFrom;
  FixedText<200> pcNotifyTo;
  FixedText<3000> pcNotifyContact;
  FixedText<50> pcNotifyCSeq;
  std::array<std::byte, 2> pbPadding1;
  std::int32_t iNotifyCSeq;
  FixedText<41> pcNotifyBranch;
  std::array<std::byte, 3> pbPadding2;
  std::int32_t iNotifyRelayCSeq;
};
static_assert(sizeof(sSubscription) == 12248);

struct sBinding {
  FixedText<166> pcBindingName;
  FixedText<166> pcBindingNameAtUA;
  FixedText<166> pcBindingNameAtDomain;
  FixedText<18> pcContactIP;
  std::int32_t iContactPort;
  sockaddr_in sBindingAddress;
  FixedText<104> pcBindingUser;
  std::int64_t tConfirmedExpiry;
  std::int64_t tRequestedExpiry;
  FixedText<41> pcRelayBranch;
  FixedText<17> pcRelayTag;
  FixedText<62> pcRelayCallID;
  std::int32_t iRelayCSeq;
  FixedText<1000> pcPhoneVia;
  FixedText<50> pcPhoneCSeq;
  FixedText<100> pcPhoneCallID;
  FixedText<200> pcPhoneTo;
  FixedText<200> pcPhoneFrom;
  FixedText<3000> pcPhoneContact;
  FixedText<50> pcPhoneExpires;
  std::array<std::byte, 3000> pbReserved1;
  std::int32_t iPhoneCSeq;
  std::array<std::byte, 4504> pbReserved2;
  std::int32_t iNumSubscriptions;
  std::array<std::byte, 4> pbPadding;
  std::array<sSubscription, kMaxSubscriptions> psSubscriptions;
  FixedText<1000> pcPhoneViaParams;
  std::int32_t iRelayCSeqCounter;
  std::array<sLastMsgData, kStoredMessages> psLastMsgs;
  std::int32_t iLastMsgIndex;
};
static_assert(sizeof(sLastMsgData) == 3120);
static_assert(offsetof(sBinding, psSubscriptions) == 12896);
static_assert(offsetof(sBinding, psLastMsgs) == 626300);
static_assert(sizeof(sBinding) == 635664);
