// The SIP engine: a back-to-back user agent. It terminates every dialog that passes through Quorvel and
// originates a second one; every call occupies one orig slot and its partner. All state lives in tables
// allocated by init; nothing is allocated per call or per message. Main thread only, numActiveCalls excepted.
//
// clang-format off
//   1  Slots, calls and generators  Slots.cpp, SharedCallId.cpp
//                                   RFC 3261 (8.1.1.7 branch, 19.3 tags, 8.1.1.4 Call-ID)
//   2  Message text                 SipText.cpp, SipUri.cpp, MessageFields.cpp, HostNames.cpp
//   3  Transport                    Transport.cpp
//   4  Main loop                    MainLoop.cpp, Reload.cpp, Troubles.cpp
//   5  Dispatch                     Dispatch.cpp
//   6  Call set-up                  CallSetup.cpp, CallCommand.cpp
//   7  Route set                    RouteSet.cpp
//   8  Messages we build            MessageBuilder.cpp
//   9  SDP                          SdpReader.cpp, SdpWriter.cpp, CodecNegotiation.cpp
//                                   RFC 4566, RFC 3264, RFC 3551, RFC 4733
//  10  Media relay calls            MediaCalls.cpp
//  11  Call progress                Progress.cpp
//  12  Teardown                     Teardown.cpp
//  13  Answers outside a call       GeneralAnswers.cpp
//  14  Registration with the PBX    Registration.cpp
//  15  Digest authentication        Authentication.cpp, Digest.cpp
//                                   RFC 2617 without quality of protection
//  16  Mid-call changes             ReInvite.cpp, Transfer.cpp, Notify.cpp, Redirection.cpp
//  17  Bound phones                 Bindings.cpp, BoundRegistration.cpp, BoundSubscription.cpp, BindingStorage.cpp
// clang-format on
//
// A received message is a std::string_view that ends before the first NUL byte; folded header lines have been
// joined and lone CRs and LFs in headers made blanks, nothing else is changed. "The partner" of slot s is the
// other leg of its call. Status results: 0 (false) is success; failures are logged where they are found.
#pragma once

#include <array>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <string_view>
#include <sys/types.h>

#include "app/config/Settings.h"
#include "common/FixedText.h"
#include "common/Handle.h"
#include "common/Relaxed.h"
#include "rtp/Codec.h"
#include "sip/BindingFile.h"
#include "sip/BindingIndex.h"
#include "sip/CallIdIndex.h"
#include "sip/sBinding.h"
#include "sip/sPhone.h"
#include "sip/Troubles.h"

inline constexpr const char* kUserAgent = "Kestrova Quorvel";
inline constexpr const char* kAllow = "INVITE,ACK,CANCEL,INFO,BYE";

// Room for a message while it is being built. What we send is shorter than 3,000 characters in practice; a
// message that would not fit here is not sent.
using MessageText = FixedText<12000>;

// Longest request or status line that is handled, in characters.
inline constexpr std::size_t kMaxFirstLine = 199;

// The text, or as much of it as fits.
template <std::size_t N>
FixedText<N> copyOf(std::string_view text) {
  FixedText<N> copy;
  copy.assignCut(text);
  return copy;
}

// Whether a URI's host name is looked up. Only callers that go on to use the address ask for it; dotted
// addresses are always read.
enum class HostLookup { eNo, eYes };

struct sSipUri {
  FixedText<kSipNameCapacity> pcName;  // user@host, or the host alone
  int iPort = 5060;
  bool bUdp = true;
  FixedText<16> pcIP;        // dotted
  bool bHasAddress = false;  // the URI gives pcIP; otherwise it is the proxy's
  FixedText<200> pcFullUri;  // without "sip:"
};

struct sRtpSessionPair;

struct sPhoneRequest;

struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};

// A received message as the dispatch hands it on. All views point into the receive buffer.
struct sSipMessage {
  std::string_view text;
  std::string_view firstLine;
  std::string_view callId;
  std::string_view cseqText;
  int iCSeq = 0;
  int iStatus = 0;  // 0 for a request
  sockaddr_in sFrom{};
};

class MySip {
 public:
  // ---- 1 Slots, calls and generators ----

  // Whose binding files are they? A tool reads those of a running process and leaves them alone.
  enum class BindingFiles { eOwn, eOfAnother };
  // Allocates and initialises everything from the settings. 0, or 2.
  int init(BindingFiles files = BindingFiles::eOwn);
  // Calls in use and not terminating. Any thread, also signal handlers.
  int numActiveCalls() const { return iActiveCalls; }
  // Copies a slot into the ring of old calls, overwriting the oldest copy.
  void moveCallToOldCalls(int slot);
  // Absorbs a message of an ended call, after at most one answer. True when it did.
  bool checkOldCalls(std::string_view callId, std::string_view firstLine, int cseq,
                     std::string_view cseqText);
  void fillNewTagData(FixedText<17>& out);     // ";tag=" and 11 decimal digits
  void fillNewBranchData(FixedText<41>& out);  // "z9hG4bK" and 33 upper-case hexadecimal digits
  void fillNewCallID(std::string_view user,
                     FixedText<60>& out);  // 59 characters ending in user@SipUAIP, or empty
  void fillNewSessionID(int& out);
  static void eraseOneTimeRoutingMsgAndDestinationIP(sPhone& leg);

  int numSlots() const { return iNumSlots; }
  int numOrigSlots() const { return iNumSlots / 2; }
  bool isOrigSlot(int slot) const { return slot < numOrigSlots(); }
  sPhone& phone(int slot) { return psPhones[static_cast<std::size_t>(slot)]; }
  sPhone& oldCall(int index) { return psOldCalls[static_cast<std::size_t>(index)]; }
  sPhone& partnerOf(int slot) { return phone(phone(slot).iPairIndex); }

  // Call state changes only through these, which keep the count of active calls and the Call-ID index right.
  void setCallID(int slot, std::string_view callId);
  void occupySlot(int slot);                    // in use from now on
  void markTerminating(int slot);               // both legs, from now on
  void freeSlot(int slot);                      // not in use any more; nothing is kept
  void releaseCall(int first);                  // both legs freed and moved to the old calls, `first` first
  int findSlot(std::string_view callId) const;  // first slot with the Call-ID, or -1
  int findSlotInUse(std::string_view callId) const;  // the same among slots in use
  // The leg that a message belongs to: the first with its Call-ID (`first`, or -1), and among several the one
  // whose tags it bears (SharedCallId.cpp).
  int findSlotOf(const sSipMessage& msg, int first) const;
  int findSlotOf(const sSipMessage& msg) const { return findSlotOf(msg, findSlot(msg.callId)); }

  // A new random branch, local tag or Call-ID on a leg.
  void drawBranch(sPhone& leg);
  void drawLocalTag(sPhone& leg);
  void drawCallID(int slot);
  // Begins a dialog of our own on the leg: new branch, local tag and Call-ID, CSeq 1, no remote tag.
  void beginDialog(int slot);

  // ---- 2 Message text ----

  // First occurrence of needle, letters compared without regard to case; npos if none. An empty needle gives
  // 0, and so does, logged, a text of more than 9,999 characters.
  static std::size_t stristr(std::string_view haystack, std::string_view needle);
  static bool contains(std::string_view haystack, std::string_view needle) {
    return stristr(haystack, needle) != std::string_view::npos;
  }
  // Value of the header `name` (written with its colon), found anywhere in the message; consecutive lines of
  // that header are one value. Empty, and logged, when absent or not shorter than `capacity`.
  static std::string_view extractToken(std::string_view name, std::size_t capacity, std::string_view message);
  // The same for what is kept or passed on: the value ends before the first CR or LF that does not begin a
  // further line of that very header. A line that merely contains the name, or one of the body, would become
  // a header of its own behind us, in our name.
  static std::string_view extractHeader(std::string_view name, std::size_t capacity,
                                        std::string_view message);
  // The Call-ID, of which there is one line. Empty, and logged, like extractToken's.
  static std::string_view callIdOf(std::string_view message);
  // Every Via value of the message in order, whatever stands between its lines (RFC 3261 8.2.6.2), as one
  // value of several lines. Empty, and logged, when there is none or they do not fit.
  static void takeVia(std::string_view message, FixedText<1000>& out);
  // Joins header lines that continue on the next line (RFC 3261 7.3.1): the line end becomes blanks. So does
  // a CR or LF within a line: some parsers take it for the end of one, and what a stranger wrote must not
  // become a header of its own behind us.
  static void unfoldHeaders(std::span<char> text);
  // Writes compact header names out. False, and `message` unchanged, when the result would exceed 2,999
  // characters.
  static bool translateCompactHeaders(FixedText<3000>& message);
  // Analyses the text from its first character, which begins "sip:". 0, or 1; a URI has no line breaks.
  static int analyzeURIString(std::string_view text, sSipUri& out, HostLookup lookup = HostLookup::eNo);
  static void extractShortSipName(std::string_view text, FixedText<kSipNameCapacity>& out);
  static void extractFarEndURI(std::string_view message, FixedText<200>& out);
  // The Via value without its rport parameter (RFC 3581), cut to the capacity.
  static void removeRport(FixedText<1000>& via);
  static void replaceProxyIPInSipName(FixedText<kSipNameCapacity>& name);
  static void extractCallIDFromReferReplaces(std::string_view text, FixedText<367>& out);
  static void prepareCallIDToUseInReferReplaces(std::string_view callId, FixedText<300>& out);
  // Same length; '?' in the pattern stands for any one character.
  static bool sipNameMatchRegularExpression(std::string_view name, std::string_view pattern);
  static bool sipNameInDOSList(std::string_view name);
  static bool sipNameInAOSList(std::string_view name);
  // First row of the routing table with a matching expression, or -1.
  static int getSipRoutingIndex(std::string_view name);
  // Leading decimal, as "%d" scans it (blanks skipped, sign allowed). False without one, or out of int's
  // range.
  static bool readDecimal(std::string_view text, int& out);
  // The same for a port: 0 to 65535.
  static bool readPort(std::string_view text, int& out);
  // The tag after "tag=" in a To or From value, up to ';', '>' , blank or the end; false if there is none.
  static bool extractTag(std::string_view headerValue, std::string_view& tag);
  // Body: everything after the first empty line.
  static std::string_view bodyOf(std::string_view message);
  static std::string_view firstLineOf(std::string_view message) {
    return message.substr(0, message.find("\r\n"));
  }
  // Status code of a response's first line (RFC 3261, 7.2); 0 for a request.
  static int statusCodeOf(std::string_view firstLine);
  // Does a first line begin with the text (letters without regard to case)?
  static bool isMethod(std::string_view firstLine, std::string_view start);
  // CSeq number and header value. False, and logged for `function`, when the number cannot be read.
  static bool readCSeq(std::string_view message, int& number, std::string_view& text);
  // Content-Length, or the body's own length where the header is missing, unreadable or negative (RFC 3261
  // 18.3 for UDP).
  static int contentLengthOf(std::string_view message);
  // The same for requests of a call, logged as "error, reading seq from ...".
  static bool readRequestCSeq(std::string_view msg, int& cseq, const char* function);
  // The first URI of a header value. 0, or 1 after logging for `function`; `missing` when it has none.
  static int analyzeHeaderUri(std::string_view value, sSipUri& out, const char* function,
                              HostLookup lookup = HostLookup::eNo,
                              const char* missing = "unable to find sip: in the string:");
  // Takes the tag of the message's To header, if it has one, as the leg's remote tag.
  static void learnRemoteTag(sPhone& leg, std::string_view msg);

  // ---- 3 Transport ----

  static sockaddr_in addressOf(const char* ip, int port);
  static FixedText<16> ipOf(const sockaddr_in& address);

  // Opens and binds the SIP socket. 0, or 2.
  int prepareConnection();
  // Sends one message and, if a ring is given, stores it there. Bytes sent, or -1.
  ssize_t sendSipMsg(MessageRing* ring, int* ringIndex, std::string_view callId, int cseq,
                     std::string_view text, const sockaddr_in& to);
  // Sends the newest stored message with that Call-ID and CSeq again. A pair leg's ring may hold a REGISTER
  // whose number a request of the call has, too.
  void resendLastSipMsg(const MessageRing& ring, int ringIndex, std::string_view callId, int cseq);

  // ---- 4 Main loop ----

  // Runs until shutdown completes or the instance lock is lost. An exception ends the process with status 1.
  void mainLoop();
  // One pass of it (for tests): shutdown check, maintenance, one datagram, then a part of the binding files
  // or, with nothing to read or to write, a wait of at most `waitMilliseconds`. False: leave.
  bool mainLoopPass(int waitMilliseconds);
  // Reads the file's reloadable settings and restarts the media of running calls; logged when it cannot be
  // read, or is one that strangers' text gets into.
  void reloadFromConfiguration(std::string_view fileName);
  void initiateShutdown();

  // ---- 5 Dispatch ----

  // Classifies one datagram (its text ends before the first NUL) and hands it to exactly one handler.
  void analyzeSipMessage(std::string_view text, const sockaddr_in& from);

  // ---- 6 Call set-up ----

  void handleInviteMsg(int orig, std::string_view msg, const sockaddr_in& from,
                       std::string_view replacesForOrig, std::string_view headersForPair);
  void handleInviteMsgReplacingOldCall(int slot, FixedText<500>& out);
  // Takes what the caller's INVITE says into the slot and its partner. Non-zero, logged: the call ends here,
  // with 503 for a barred caller, otherwise without an answer.
  int readInviteOfCaller(int orig, std::string_view msg, bool& barred);
  int analyzeToStringInInviteMessage(int orig, std::string_view to);
  int analyzeFromStringAndCommandInInviteMessage(int orig, std::string_view from, std::string_view to);
  // The rule that decides a call: the first caller rule, then the first destination rule that matches, then
  // the default. 1, and logged, when there is none or the To value cannot be read.
  struct sCommandChoice {
    enum class Source { eCallerRule, eDestinationRule, eDefault };
    Source source = Source::eDefault;
    int iRule = 0;
    std::string_view destination;  // "*": as dialled
    int iType = 0;
  };
  static int chooseCommand(std::string_view caller, std::string_view to, sCommandChoice& out);
  int findMatchingCommand(int orig, int pair, std::string_view to);
  int insertMatchingCmdData(int orig, int pair, std::string_view to, std::string_view destination, int type);
  // Where the INVITE to a name goes: a phone bound with us (unless the call comes from a bound phone's own
  // address), a row of the routing file, or the PBX. `iIndex`: of the binding or of the row.
  struct sNextHop {
    enum class Kind { eBoundPhone, eRoutingRow, ePbx };
    Kind kind;
    int iIndex;
    sockaddr_in sAddress;
  };
  sNextHop nextHopOf(std::string_view name, const sockaddr_in& source);
  // Slot for a new INVITE, or -1.
  int chooseOrigSlot(std::string_view msg, const sockaddr_in& from);
  // The header lines of the message that the PSH expressions select.
  void collectPreservedHeaders(std::string_view msg, FixedText<500>& out, const char* function);

  // ---- 7 Route set ----

  void storeRoutingInformation(int slot, bool reverse, std::string_view msg);
  void prepareOneTimeRecordRouteMsg(int slot, bool ownOnly, std::string_view msg);
  void prepareOneTimeRoutingMsgAndDestinationIP(int slot, std::string_view msg);

  // ---- 8 Messages we build ----

  void prepareSDPAndsendInvite(int slot, std::string_view extra1, std::string_view extra2);
  // Every other message on a leg. `tail` starts with CR LF: the further header lines, the empty line and the
  // body.
  void generalPrepareAndSendMsg(bool asRequest, sPhone& leg, const char* firstLine, const char* cseq,
                                const char* tail, int contentLength, bool store, const char* remoteTag,
                                const char* via, const char* branch);
  // The same with the leg's own remote tag, Via and branch, and no body.
  void sendRequest(sPhone& leg, const char* firstLine, int cseq, const char* method, bool store);
  void sendResponse(sPhone& leg, const char* statusLine, int cseq, const char* method, bool store);
  // A Via value (one line or several) as an answer carries it: our parameters behind the topmost entry, which
  // is the one that was sent to us (RFC 3261 18.2.1).
  static FixedText<2100> viaOfAnswer(std::string_view via, std::string_view params);
  // "ACK sip:%s SIP/2.0" and its like.
  static FixedText<300> requestLine(const char* method, std::string_view uri);

  // ---- 9 SDP ----

  void initializeCodecNegotiationList(int slot, bool unused = false);
  void copyCodecNegotionList(int from, int to);
  // Keeps the codecs that the peer offers. `formats`: its media line after "m=audio ", a blank at the end or
  // not; `sdpRest`: the rest of the section.
  void narrowCodecNegotiationList(int slot, std::string_view formats, std::string_view sdpRest);
  void initializeAudioWithoutSDP(int slot);
  // Values of the "a=rtpmap:" and "a=fmtp:" lines. Too many values, and one that is too long, are logged and
  // left out.
  using SdpValues = std::array<std::string_view, 19>;
  static void extractRTPMaps(SdpValues& out, int& count, std::string_view text);
  static void extractFMTPs(SdpValues& out, int& count, std::string_view text);
  // From `position` in the text: where the next "m=" begins (npos: none), and whether it is audio.
  static std::size_t findNextMediaSection(std::string_view text, std::size_t position, bool& isAudio);
  int analyzeMediaInSDP(int slot, std::string_view msg);                                  // 0 is success
  int analyzeAudioInSDPHelper(int slot, std::string_view section, std::string_view msg);  // 1 is success
  // Quorvel's SDP for the leg; returns its text. It mirrors what the partner's peer offered.
  std::string_view prepareSDP(int slot, MessageText& out);
  void learnExternalIP(int slot, std::string_view msg);

  // ---- 10 Media relay calls ----

  void openRtpSessionPair(int a, int b);
  void closeRtpSessionPair(int a, int b);
  void restartRtpSession(int a, int b);

  // ---- 11 Call progress ----

  void handleTryingMsg(int slot, std::string_view msg);
  void handleRingingMsg(int slot, std::string_view msg);
  void handleSessionProgressMsg(int slot, std::string_view msg);
  void handleOKForInviteMsg(int slot, std::string_view msg);
  void handleErrorForInviteMsg(int slot, std::string_view msg);
  void handleACKMsg(int slot, std::string_view msg);
  void prepareAndSendSessionProgress(int slot);
  void prepareAndSendOKForInvite(int slot);

  // ---- 12 Teardown ----

  void handleCancelMsg(int slot, std::string_view msg);
  void handleOKForCANCELMsg(int slot, std::string_view msg);
  void handleBYEMsg(int slot, std::string_view msg);
  void handleOKForBYEMsg(int slot, std::string_view msg);
  void initiateCallTermination(int slot);

  // ---- 13 Answers outside a call ----

  void sendGeneralErrorMsg(int code, std::string_view msg, const sockaddr_in& to, int slot,
                           std::string_view extraLines);
  void handleOptionsMsg(std::string_view msg, const sockaddr_in& from);

  // ---- 14 Registration with the PBX ----

  int initRegistration();  // always 0
  ssize_t sendRegistration(sPhone& identity, int expires);
  void refreshRegistrations();

  // ---- 15 Digest authentication ----

  void handleUnauthorizedMsg(std::string_view msg, const sockaddr_in& from);
  void sendAuthentication(sPhone& identity, int ringIndex, std::string_view challenge,
                          const sockaddr_in& from);
  // 32 hexadecimal digits.
  static FixedText<33> prepareDigestResponse(std::string_view user, std::string_view realm,
                                             std::string_view password, std::string_view method,
                                             std::string_view uri, std::string_view nonce);
  void generateUnauthorizedMsg(std::string_view challenge);
  void sendUnauthorizedMsg(std::string_view challenge, const char* via, const char* fromHeader,
                           const char* toHeader, const char* callId, int cseq, const char* method,
                           const sockaddr_in& destination);
  // The request's credentials header line with CR LF, or empty.
  static std::string_view extractAuthorizationLine(std::string_view msg);

  // ---- 16 Mid-call changes ----

  void handleReInviteMsg(int slot, std::string_view msg, const sockaddr_in& from);
  void handleErrorForReInviteMsg(int slot, std::string_view msg);
  void stopReInviteAndRollBack(int a, int b);
  void sendRequestTerminatedOnFailedReInvite(int slot, std::string_view msg);
  void sendACKOnFailedReInvite(int slot, std::string_view msg);
  void handleACKForPreviousFailedReInvite(int slot, std::string_view msg);
  void handleREFERMsg(int slot, std::string_view msg);
  void handleAcceptedForREFERMsg(int slot, std::string_view msg);
  void handleNOTIFYMsg(int slot, std::string_view msg);
  void handleOKForNOTIFYMsg(int slot, std::string_view msg);
  void handleNOTIFYMsgWithUnknownCallID(std::string_view msg, const sockaddr_in& from);
  void handleMoveMsg(int slot, std::string_view msg);
  // Invites the next contact of a redirection, if one is left and the call still wants an answer. True when
  // it did.
  bool reviewMoveStorage(int slot);

  // ---- 17 Bound phones ----

  void handleRequestToRegisterWithUs(std::string_view msg, const sockaddr_in& from);
  void handleRequestToSubscribeWithUs(std::string_view msg);
  int processNewBindingInformation(std::string_view name, std::string_view nameAtUA,
                                   std::string_view nameAtDomain, std::string_view user,
                                   std::string_view contactIP, int contactPort, const sockaddr_in& address,
                                   int expires);
  int processNewSubscriptionInformation(int binding, std::string_view callId, int expires);
  int getBindingIndex(std::string_view name);
  bool doesAddressAppearInBindingTable(const sockaddr_in& address);
  void sendRegistrationOnBehalfOfBindedPhone(int binding, int expires, std::string_view credentials,
                                             bool repeat);
  void sendSubscribeOnBehalfOfBindedPhone(int binding, int entry, std::string_view event,
                                          std::string_view supported, std::string_view accept, int expires,
                                          std::string_view credentials, bool repeat);
  void handleOKForRegistrationOnBehalfOfBindedPhone(int binding, std::string_view msg);
  void sendOKForRegistrationBackToBindedPhone(int binding);
  void handleOKForSubscriptionOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg);
  void sendOKForSubscriptionBackToBindedPhone(int binding, int entry);
  void handleNOTIFYMsgOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg);
  void handleOKForNOTIFYOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg);
  void handleERRORForNOTIFYOnBehalfOfBindedPhone(int binding, int entry, std::string_view msg);
  void cleanupExpiredBindingsAndSubscriptions();
  int saveBindingTable(const char* path);  // 0, or 1
  int readBindingTable(const char* path);  // 0, or 1 and the table is empty
  // Start-up: "binding", else "binding-bkp", else an empty table in both.
  void loadBindingFiles(BindingFiles files = BindingFiles::eOwn);
  // First "binding", then "binding-bkp".
  void saveBindingFiles();
  // The same in parts, between which signalling goes on: the tick begins, every pass of the main loop
  // continues after at most that many bytes. True when both files are done.
  void beginSavingBindings();
  bool continueSavingBindings(std::size_t budget);
  bool isSavingBindings() const { return eSavingBindings != SavingBindings::eDone; }

  // Lookups for the dispatch; -1 or false when nothing matches.
  int findBindingByRelayedRegistration(std::string_view callId, int cseq);
  struct sSubscriptionPlace {
    int iBinding = -1;
    int iEntry = -1;
    explicit operator bool() const { return iBinding >= 0; }
  };
  // By the Call-ID, and the CSeq of the SUBSCRIBE if given; an answer may carry our Call-ID inside a longer
  // one.
  sSubscriptionPlace findSubscriptionByRelayCallID(std::string_view callId, const int* relayCSeq,
                                                   bool mayBeContained = false);
  sSubscriptionPlace findSubscriptionByPhoneCallID(std::string_view callId, int notifyRelayCSeq);

  sBinding& bindingAt(int binding) {
    const int record = piBindingOrder[static_cast<std::size_t>(binding)];
    return psBindings[static_cast<std::size_t>(record)];
  }
  // Whoever changes a record of the table says so afterwards: lookups and files go by it.
  void bindingChanged(int binding);

  // ---- Fields ----

  FileDescriptor iSocket;
  sockaddr_in sProxyAddress{};  // SipProxyIP:SipProxyPort
  sockaddr_in sLocalAddress{};  // SipUAIPForBinding:SipUAPort, the bound address
  sPhone sTrunk;                // used only to register TrunkName
  bool bTrunkExists = false;
  std::unique_ptr<sPhone[]> psPhones;
  std::unique_ptr<sPhone[], FreeDeleter>
      psOldCalls;  // copies of ended calls' slots, absorbing their late messages
  bool bAllPhonesActive = false;
  std::time_t sTimeLastTick = 0;
  int iNextOldCall = 0;
  int iNumBindings = 0;
  // kMaxBindings records from calloc: their pages come into memory only as bindings appear. bindingAt gives
  // them in table order.
  std::unique_ptr<sBinding[], FreeDeleter> psBindings;
  FixedText<300> pcBindingFile;
  FixedText<300> pcBindingBackupFile;
  std::time_t sTimeLastRegistrationCheck = 0;
  std::time_t sTimeLastStatistics = 0;
  std::unique_ptr<int[]>
      piActiveRtpIndexes;  // relay index of every open session pair, NumCallsToFilter entries
  int iNumActiveRtpIndexes = 0;

  // Writes the statistics pages; set by start-up, so that the SIP engine need not know them. Null: nobody
  // does.
  void (*pGenerateStatistics)() = nullptr;

 private:
  enum class Verdict { eDone, eContinue };
  struct sDispatchRule;

  // Parts of the operations above, file by file.

  // MediaCalls.cpp
  struct sRelayKey {
    const char* pcFirst;
    const char* pcSecond;
  };
  sRelayKey relayKeyOf(int a, int b) const;

  // Slots.cpp
  int allocateTables();
  void initTrunk();
  int nameSlots();
  bool canMakeCallIDs();
  void initRegistrationIdentity(sPhone& identity);
  int findOldCall(std::string_view callId) const;
  template <typename Change>
  void changeState(int slot, Change change);
  int firstFreeOrigSlot() const;

  // SharedCallId.cpp
  bool isOfRunningCall(const sSipMessage& msg, int old) const;
  static bool isOwnInvite(const sPhone& leg, const sSipMessage& msg);
  bool wouldReturn(const sSipMessage& msg);
  bool sharesCallID(int slot) const;

  // Reload.cpp
  const char* refusalToReload(const char* path) const;

  // MainLoop.cpp
  bool receiveMessage();
  void waitForMessage(int milliseconds);
  bool maintainTimers();  // false: leave the main loop
  void followDate(std::time_t now);
  void moveStamps(std::int64_t seconds);
  bool maintenanceTick();  // false: leave the main loop
  void checkReadiness();
  void sweepReleases();
  void sweepSetUps();
  void noteGivenUp(const sPhone& caller, const sPhone& called);
  void sweepMedia();
  void checkMedia(int orig, const sRtpSessionPair& pair);
  void repeatByes();

  // Troubles.cpp
  void reportTroubles();
  void reportRegistrations();

  // Dispatch.cpp
  Verdict dispatch(const sSipMessage& msg);
  void callSlotHandler(const sSipMessage& msg, void (MySip::*handler)(int, std::string_view),
                       const char* noMatch);
  bool handleReloadDatagram(std::string_view text);
  static void logReceived(const char* what, std::string_view text, const sockaddr_in& from);
  Verdict onOKForRegister(const sSipMessage& msg);
  Verdict onOKForSubscribe(const sSipMessage& msg);
  Verdict onOKForInvite(const sSipMessage& msg);
  Verdict onOKForNotify(const sSipMessage& msg);
  Verdict onRegister(const sSipMessage& msg);
  Verdict onSubscribe(const sSipMessage& msg);
  Verdict onInvite(const sSipMessage& msg);
  Verdict onCancel(const sSipMessage& msg);
  Verdict onErrorForInvite(const sSipMessage& msg);
  Verdict onErrorForNotify(const sSipMessage& msg);
  Verdict onAck(const sSipMessage& msg);
  Verdict onNotify(const sSipMessage& msg);
  Verdict onOptions(const sSipMessage& msg);

  // CallSetup.cpp
  int chooseOrigSlotByPairPhoneName(std::string_view msg, const sockaddr_in& from);
  int findPairPhone(std::string_view user);
  void beginOrigLeg(int orig, const sockaddr_in& from, std::string_view replaces);
  int readMediaAndContactOfCaller(int orig, std::string_view msg);
  void beginPairLeg(int pair, std::string_view msg, std::string_view headers);
  void takeReplaces(std::string_view msg, FixedText<500>& forOrig, FixedText<500>& forPair);

  // CallCommand.cpp
  int takeExplicitCommand(int orig, std::string_view from, std::string_view& display, bool quoted,
                          bool& found);
  static int takeCallerTag(sPhone& leg, std::string_view from);
  // A command's destination; "*" is the name in the To header.
  static int nameToCall(std::string_view destination, std::string_view to, FixedText<kSipNameCapacity>& out);

  // MessageBuilder.cpp
  void sendRequestUnder(const FixedText<100>& branch, const FixedText<100>& remoteTag, sPhone& leg,
                        const char* firstLine, int cseq, const char* method, bool store);
  // ACK or CANCEL of the INVITE that we sent last on the leg: with its CSeq and its branch.
  void sendOfInvite(sPhone& leg, const char* method, std::string_view uri, bool store);
  // ACK of an INVITE before that.
  void acknowledgeRefusal(sPhone& leg, int cseq, const FixedText<100>& remoteTag,
                          const FixedText<100>& branch);
  void sendSdpAnswer(int slot, const char* status);
  void sendResponseWithVia(sPhone& leg, const char* statusLine, int cseq, const char* method,
                           const FixedText<1000>& via);
  void relayErrorStatus(sPhone& partner, const FixedText<1000>& via, std::string_view msg,
                        const char* function);

  // GeneralAnswers.cpp
  void sendRefusal(const char* status, std::string_view msg, const sockaddr_in& to, int slot,
                   std::string_view extraLines);

  // Progress.cpp
  bool isAnswerToOurInvite(int slot, const char* function);
  bool isLateAnswerOfAnotherFork(int slot, std::string_view msg, const char* function);
  void relayProvisional(int slot, std::string_view msg, const char* statusLine, const char* function);
  int takeAnswer(int slot, std::string_view msg, const char* function);
  void takeRouteOfAnswer(int slot, std::string_view msg);

  // Teardown.cpp
  void beginBye(sPhone& leg);

  // Authentication.cpp
  void acknowledgeRepeatedChallenge(sPhone& identity, std::string_view request, int cseq,
                                    std::string_view challenge);
  void endWithdrawnInvite(int slot);
  sPhone* findSender(std::string_view callId, int cseq, int& record);
  void handChallengeToPartner(int slot, std::string_view challenge, std::string_view method);
  FixedText<100> drawBranchOfAnswer(sPhone& identity, std::string_view method);

  std::optional<std::int64_t> iDateOffset;  // seconds from the steady clock to the date, as last seen

  // Room for one datagram and the NUL that ends it.
  std::array<char, kMaxMessageLength + 1> pcReceiveBuffer{};

  // Bit i: orig slot i is in use.
  std::array<std::uint64_t, (kMaxPhonesToAllocate / 2 + 63) / 64> uOrigInUse{};
  int iNumSlots = 0;
  sTroubles troubles;
  Relaxed<int> iActiveCalls;
  CallIdIndex slotIndex;  // kept by setCallID and moveCallToOldCalls
  CallIdIndex oldCallIndex;

  // ReInvite.cpp, Transfer.cpp, Notify.cpp
  bool admitReInvite(int slot, int cseq, bool hasCredentials, std::string_view msg, const sockaddr_in& from);
  void resendInvite(int slot);
  void setInviteAside(int slot);
  // Via and branch of the leg's INVITE, also when a BYE has overtaken it.
  static const FixedText<1000>& viaOfInvite(const sPhone& leg);
  static const FixedText<100>& branchOfInvite(const sPhone& leg);
  void beginReInvite(int slot);
  int takeReInvite(int slot, int cseq, std::string_view msg);
  void prepareToReInvite(int slot, std::string_view msg);
  bool translateReferTo(std::string_view received, FixedText<366>& out);
  const sPhone* findReplacedPartner(std::string_view escaped);
  void relayNotify(sPhone& partner, std::string_view msg, const FixedText<100>& branch);
  FixedText<100> drawRequestBranch(sPhone& leg);
  bool inviteContact(int slot, const sSipUri& contact);

  // Bindings.cpp, BoundRegistration.cpp, BoundSubscription.cpp
  void emptyBindingTable();
  void drawRelayCallID(const sBinding& record, FixedText<62>& out);
  bool takeRegistrationDialog(sBinding& record, const sPhoneRequest& request, int cseq);
  bool takeSubscriptionDialog(const sBinding& owner, sSubscription& record, const sPhoneRequest& request,
                              int cseq);
  void relayNotifyToPhone(sBinding& owner, const sSubscription& record, std::string_view msg);
  void answerNotify(const sSubscription& record, std::string_view statusLine);

  // BindingStorage.cpp
  BindingFile::sTable bindingTable() const;
  BindingFile::SaveOutcome saveBindingFile(std::size_t& budget);
  BindingFile::SaveOutcome saveBackupBindingFile(std::size_t& budget);

  std::array<int, kMaxBindings> piBindingOrder{};  // record of each binding, then the unused records
  BindingIndex bindingIndex;
  enum class SavingBindings { eDone, eFile, eBackup } eSavingBindings = SavingBindings::eDone;
  BindingFile bindingFile;
  BindingFile backupBindingFile;
};

inline MySip mySip;
