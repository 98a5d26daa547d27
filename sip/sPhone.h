// The records of the SIP engine: a call-leg slot, what it keeps of its last messages, and the dialog block
// that a re-INVITE saves and restores. All are plain, fixed-size and block-copyable; the tables that hold
// them are allocated once. Texts that are taken from messages have the capacities with which they are
// extracted.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <type_traits>

#include "common/FixedText.h"
#include "rtp/Codec.h"

inline constexpr int kMaxMessageLength = 2999;  // longest message handled, in characters
inline constexpr int kStoredMessages = 3;       // retransmission ring of a leg
inline constexpr int kMaxRoutes = 10;

// One sent message, kept in case the peer repeats its request.
struct sLastMsgData {
  FixedText<3000> pcMsg;
  FixedText<100> pcCallID;
  int iCSeq = -1;  // -1: empty record
  sockaddr_in sAddress{};
};

// A slot, up to its dialog block: who speaks on it, its CSeq numbers, its call state and its registration.
struct sPhoneHead {
  // ---- Who speaks on this leg ----
  FixedText<166> pcSipName;      // our identity, user@host
  FixedText<100> pcUserName;     // its user part; Contact user and part of Call-IDs
  FixedText<100> pcDisplayName;  // empty: none
  FixedText<100> pcLocalTag;     // with its ";tag=" prefix
  FixedText<200> pcFarEndURI;
  FixedText<166> pcRemoteSipName;
  FixedText<100> pcRemoteDisplayName;
  FixedText<200> pcRemoteContact;  // request-URI for in-dialog requests
  FixedText<1000> pcNotifyVia;
  FixedText<1000> pcReferVia;
  FixedText<100> pcCallID;  // set through MySip::setCallID, which keeps the lookup index
  FixedText<1000> pcViaParams;
  FixedText<17> pcMediaIP;  // announced in our SDP for this leg
  FixedText<500> pcHeadersToCopy;
  FixedText<367> pcReferTo;

  // ---- CSeq numbers ----
  int iCSeq = 1;
  int iRemoteInviteCSeq = -1;
  int iRemoteByeCSeq = -1;
  int iByeCSeq = -1;
  int iReferCSeq = -1;
  int iNotifyCSeq = -1;
  int iCancelCSeq = -1;

  // ---- The last re-INVITE that failed; late messages of it are answered from here ----
  int iPrevInviteCSeq = -1;
  FixedText<100> pcPrevRemoteTag;
  FixedText<1000> pcPrevRemoteVia;
  FixedText<100> pcPrevBranch;

  // ---- Call state; changed through MySip, which counts and indexes ----
  bool bInUse = false;
  std::time_t sTimeCallStart = 0;
  bool bTerminating = false;
  std::time_t sTimeTerminationStart = 0;
  bool bMediaEstablished = false;
  bool bAnswered = false;
  int iPairIndex = -1;
  int iSdpSessionID = 0;
  int iSdpVersion = 0;
  int iRtpPort = 0;
  int iCleaningType = 0;
  sockaddr_in sRemoteAddress{};
  bool bByePending = false;
  bool bByeAnswered = false;

  // ---- Registration of this identity with the PBX ----
  bool bShouldRegister = false;
  std::time_t sTimeLastRegistration = 0;  // 0: never
  bool bRegistered = true;                // the last REGISTER has been answered with 200
  std::int64_t iUnregisteredSince = 0;    // if not: seconds of the steady clock
  FixedText<41> pcRegistrationBranch;
  FixedText<17> pcRegistrationTag;
  FixedText<60> pcRegistrationCallID;

  FixedText<3001> pcMoveContacts;  // contacts of a 3xx response that are still to be tried

  // ---- Retransmission ring ----
  std::array<sLastMsgData, kStoredMessages> psLastMsgs;
  int iLastMsgIndex = 0;  // next position to fill
};

// The part of a leg that a re-INVITE may have to undo.
struct sDialog {
  FixedText<100> pcBranch;      // branch of the current INVITE transaction
  FixedText<1000> pcRemoteVia;  // Via of the INVITE received on this leg, rport removed
  FixedText<100> pcRemoteTag;   // with its ";tag=" prefix; empty until known
  int iInviteCSeq = 0;          // CSeq of the current INVITE transaction, sent or received
  bool bInviteSentByUs = false;
  int iRemoteRtpPort = 0;  // 0 without SDP
  FixedText<17> pcRemoteRtpIP;
  FixedText<20> pcTelephoneEventPT;      // " %d", to append to the audio media line; empty if none
  FixedText<203> pcTelephoneEventAttrs;  // its rtpmap and fmtp lines
  int iNumCodecs = 0;
  CodecList psCodecs;
  bool bAudioSectionSeen = false;      // also set when the leg was set up without SDP
  FixedText<3003> pcNonAudioMedia;     // the peer's last non-audio section, rewritten for relaying
  int iNonAudioRemotePort = -1;        // -1: none
  bool bHoldByNullAddress = false;     // the peer's connection address is 0.0.0.0
  FixedText<20> pcDirectionAttribute;  // "a=sendrecv\r\n" and its like; empty if none
  bool bOnHold = false;
};

// A slot, after its dialog block: what a re-INVITE saved, the password, the route set.
struct sPhoneTail {
  // ---- Re-INVITE ----
  sDialog sSavedDialog;  // the dialog block as it was before the re-INVITE in progress
  bool bReInviteInProgress = false;
  bool bReInviteFromThisLeg = false;

  FixedText<20> pcSecret;

  // ---- Route set ----
  std::array<FixedText<200>, kMaxRoutes> ppcRoutes;
  int iNumRoutes = 0;
  FixedText<2150> pcOneTimeRoutingMsg;  // header lines for the next message only
  FixedText<202> pcOneTimeDestinationHost;
  sockaddr_in sOneTimeDestination{};

  int iRegistrationCSeq = 0;     // CSeq of the last REGISTER of this identity
  int iNumMoveContacts = 0;      // contacts of 3xx answers that the call has looked at
  int iSecondsWithoutMedia = 0;  // of an orig leg whose session pair cannot be opened
  bool bPeerHeard = false;       // something has answered the call's INVITE
};

// One call leg, and at the same time one SIP identity of ours. Slots 0 to N/2 - 1 are orig phones (they face
// whoever sent the first INVITE), N/2 to N - 1 pair phones (legs that we originate); orig slot i belongs to
// pair slot i + N/2.
struct sPhone : sPhoneHead, sDialog, sPhoneTail {
  sDialog& dialog() { return *this; }
};

using MessageRing = std::array<sLastMsgData, kStoredMessages>;

static_assert(std::is_trivially_copyable_v<sPhone>, "slots are copied as blocks");
static_assert(std::is_trivially_copyable_v<sDialog>, "the dialog block is saved and restored as one block");
