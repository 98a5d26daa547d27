// Messages to an engine that carries an answered call, a bound phone and its subscription. The input is a
// byte of settings, one of surroundings (bit 0: our own phones and the trunk register, bit 1: media ports can
// be opened) and any number of messages that end with the byte 0xFF; each begins with a byte that says who
// sends it (modulo 3), how many seconds pass before it (bits 3-5, times 10 with bit 6), and whether the date
// is set (bit 7). Each is received in a pass of the main loop. So that the fuzzer need not guess what the
// engine drew at random, a control byte and a digit in a message stand for it:
//
//     01 n   Call-ID of slot n              02 n   CSeq number of slot n's INVITE transaction
//     03 0   Call-ID of the phone's registration with the PBX     03 1   of its first subscription
//     04 0   CSeq number of the former                            04 1   of the latter
//     03 2   Call-ID of slot 0's own registration, and so on; 03 6   of the trunk's; 04 2 to 04 6   CSeq
//     numbers 05 0   CSeq number of the NOTIFY relayed to the phone
//
// Nothing leaves the process: what the engine sends is looked at and counted as sent.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <string>
#include <string_view>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "app/config/InstanceFile.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "app/config/Settings.h"
#include "common/Clock.h"
#include "engine/Glob.h"
#include "fuzz/Require.h"
#include "rtp/MyRtp.h"
#include "sip/HeaderLines.h"
#include "sip/MySip.h"

namespace {

std::string lastSent;

// What the engine's thread reads next; media threads have sockets of their own.
struct sWaiting {
  std::string_view datagram;
  sockaddr_in from{};
};
thread_local sWaiting* waiting = nullptr;
bool bSockets = false;  // can be opened
// Media threads wait as many times shorter, so that a call's end need not be waited for.
constexpr int kHaste = 40;

bool hasLoneBreaks(std::string_view text) {
  for (std::size_t at = 0; (at = text.find_first_of("\r\n", at)) != std::string_view::npos; at += 2)
    if (text.substr(at, 2) != "\r\n") return true;
  return false;
}

// What the engine writes or passes on; anything else in a head would be a header of a stranger's making.
bool isKnownHeader(std::string_view line) {
  constexpr std::string_view kNames =
      " Via: From: To: Contact: Call-ID: CSeq: Max-Forwards: User-Agent: Content-Type: Content-Length: Allow:"
      " Record-Route: Route: Expires: Event: Subscription-State: Supported: Accept: Refer-To: Replaces: X-A:"
      " Authorization: Proxy-Authorization: WWW-Authenticate: Proxy-Authenticate: ";
  const std::size_t colon = line.find(':');
  return colon != std::string_view::npos &&
         MySip::contains(kNames, " " + std::string(line.substr(0, colon)) + ": ");
}

}  // namespace

// ---- The system as the engine sees it ----

extern "C" ssize_t sendto(int, const void* text, std::size_t length, int, const sockaddr*, socklen_t) {
  lastSent.assign(static_cast<const char*>(text), length);
  require(length > 20 && length < sizeof(MessageText));
  require(lastSent.find('\0') == std::string::npos && lastSent.find("\r\n") != std::string::npos);
  const std::string_view sent = lastSent;
  require(!hasLoneBreaks(sent.substr(0, sent.find("\r\n\r\n"))));
  HeaderLines lines(sent);
  for (std::string_view line; lines.next(line);) require(isKnownHeader(line));
  return static_cast<ssize_t>(length);
}

extern "C" ssize_t recvfrom(int descriptor, void* buffer, std::size_t length, int flags, sockaddr* from,
                            socklen_t* size) {
  if (waiting == nullptr) return syscall(SYS_recvfrom, descriptor, buffer, length, flags, from, size);
  if (waiting->datagram.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const std::size_t bytes = waiting->datagram.size();
  std::memcpy(buffer, waiting->datagram.data(), std::min(bytes, length));
  *reinterpret_cast<sockaddr_in*>(from) = waiting->from;
  waiting->datagram = {};
  return static_cast<ssize_t>(bytes);
}

extern "C" int select(int count, fd_set* ready, fd_set* writing, fd_set* failing, timeval* timeout) {
  if (waiting != nullptr) return 0;
  timeout->tv_usec /= kHaste;
  return static_cast<int>(syscall(SYS_select, count, ready, writing, failing, timeout));
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  if (bSockets) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  errno = EMFILE;
  return -1;
}

extern "C" int bind(int, const sockaddr*, socklen_t) noexcept {  // the ports may be in use
  return 0;
}

extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
  return EAI_NONAME;
}

namespace {

constexpr int kSlots = 4;
constexpr std::time_t kStart = 1'700'000'000;

sockaddr_in source(int port) {
  return MySip::addressOf("127.0.0.1", port);
}
const int kCaller = 5061, kPbx = 5060, kPhone = 5062;

std::string message(const std::string& line, const std::string& headers, const std::string& body = "") {
  return line + "\r\nVia: SIP/2.0/UDP 127.0.0.1;branch=z9hG4bK1\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string kSdp =
    "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 4000 RTP/AVP "
    "0\r\na=ptime:20\r\n";

void setSettings() {
  Glob::pcKestrovaBin.assignCut("/nonexistent/");
  pcSipProxyIP.assignCut("127.0.0.1");
  pcSipUAIP.assignCut("127.0.0.1");
  pcSipUAIPForBinding.assignCut("127.0.0.1");
  pcSipProxyDomain.assignCut("pbx.example");
  pcSeparator.assignCut("##");
  pcDefaultCmd.assignCut("*##0");
  pcDefaultDestination.assignCut("*");
  pcOrigPhonesNamePrefix.assignCut("o");
  pcPairPhonesNamePrefix.assignCut("p");
  pcTrunkName.assignCut("t");
  pcSecret.assignCut("secret");
  iRegisterExpiration = 60;
  iRTPTimeoutInSeconds = 20;
  iRTPTimeoutWhenOnHoldInSeconds = 40;
  pcPSHExpressions[0].assignCut("X-A:");
  pcDOSExpressions[0].assignCut("3??@h");
  pcAOSExpressions[0].assignCut("4??@h");
  iNumberOfPSHExpressions = iNumberOfDOSExpressions = iNumberOfAOSExpressions = 1;
  sSipRoutingRow& row = psSipRoutingRows[0];
  row.pcIP.assignCut("127.0.0.2");
  row.iPort = 5080;
  row.pcExpressions[0].assignCut("5??@h");
  row.iNumExpressions = iNumSipRoutingRecords = 1;
  iSipProxyPort = kPbx;
  iSipUAPort = 5070;
  iRtpUAPortInitVal = 20000;
  iNumPhonesToAllocate = kSlots;
  iNumCallsToFilter = 2;
}

// Initialising takes a while; between inputs the engine is only put back into its first state.
class Engine {
 public:
  Engine() {
    setSettings();
    pcKestrovaInstanceSuffix.assignCut("-fuzz" + std::to_string(getpid()));
    require(myConfiguration.writeTmpFile() == 0);
    require(myRtp.init() == 0 && sip.init() == 0);
    bSockets = true;  // the socket is never used: what is received and sent goes through the functions above
    require(sip.prepareConnection() == 0);
    sip.initRegistration();
    sip.bAllPhonesActive = true;
    for (int slot = 0; slot < kSlots; ++slot) fresh.push_back(sip.phone(slot));
    freshTrunk = sip.sTrunk;
    waiting = &next;
  }
  ~Engine() {
    endMedia();
    unlink(instancePath(kLockFile).c_str());
  }

  void begin(std::uint8_t settings, std::uint8_t surroundings) {
    endMedia();
    Clock::freezeAt(kStart);
    sip.sTimeLastTick = 0;
    require(sip.mainLoopPass(0));  // what the input before did to the date is over
    for (int slot = 0; slot < kSlots; ++slot) {
      sip.freeSlot(slot);
      sip.phone(slot) = fresh[static_cast<std::size_t>(slot)];
      sip.setCallID(slot, "");
    }
    sip.sTrunk = freshTrunk;
    sip.sTimeLastTick = sip.sTimeLastRegistrationCheck = kStart;
    setRegistering((surroundings & 1) != 0);
    bSockets = (surroundings & 2) != 0;
    for (int slot = 0; slot < kSlots; ++slot) sip.moveCallToOldCalls(slot);
    for (int binding = 0; binding < sip.iNumBindings; ++binding) {
      sip.bindingAt(binding).tConfirmedExpiry = sip.bindingAt(binding).tRequestedExpiry = 0;
      sip.bindingChanged(binding);
    }
    sip.cleanupExpiredBindingsAndSubscriptions();
    require(sip.iNumBindings == 0 && sip.numActiveCalls() == 0);
    iSipProxyArchitecture = 1;
    iInviteShouldMatchPairPhoneName = iPairPhoneShouldImpersonateTheOriginator = 0;
    iCopyCodecListFromInitialInvite = settings >> 1 & 1;
    iUseContactHeaderForFarEndAddressDuringRegistation = settings >> 2 & 1;
    iUseOriginalRURI = settings >> 3 & 1;
    std::srand(1);
    bindPhone();
    if ((settings >> 4 & 1) == 0) setUpCall((settings >> 5 & 1) == 0);
    iSipProxyArchitecture = settings & 1;
    iInviteShouldMatchPairPhoneName = settings >> 6 & 1;
    iPairPhoneShouldImpersonateTheOriginator = settings >> 7 & 1;
  }

  void handle(std::uint8_t who, std::string_view text) {
    if ((who & 0x80) != 0) Clock::setDateBy(-1000);
    Clock::advanceSeconds((who >> 3 & 7) * ((who & 0x40) != 0 ? 10 : 1));
    // Media threads say every 20 ms how long they have heard nothing.
    if ((who & 0x40) != 0 && myRtp.iMaxPairIndex >= 0) usleep(30'000 / kHaste);
    next = {text, source(who % 3 == 0 ? kCaller : who % 3 == 1 ? kPbx : kPhone)};
    require(sip.mainLoopPass(0));
    next = {};
    check();
  }

  std::string_view valueOf(char kind, int which, std::string& number) {
    const sPhone& leg = sip.phone(which % kSlots);
    number = std::to_string(leg.iInviteCSeq);
    if (kind == 1) return leg.pcCallID;
    if (kind == 2 || sip.iNumBindings == 0) return number;
    if (kind < 5 && which >= 2) {
      const sPhone& identity = which < 2 + kSlots ? sip.phone(which - 2) : sip.sTrunk;
      number = std::to_string(identity.iRegistrationCSeq);
      return kind == 3 ? identity.pcRegistrationCallID.view() : number;
    }
    const sBinding& phone = sip.bindingAt(0);
    const sSubscription& entry = phone.subscription(0);
    if (kind == 3) return which == 0 ? phone.pcRelayCallID.view() : entry.pcRelayCallID.view();
    number = std::to_string(kind == 5    ? entry.iNotifyRelayCSeq
                            : which == 0 ? phone.iRelayCSeq
                                         : entry.iRelayCSeq);
    return number;
  }

 private:
  void endMedia() {
    for (int pair = 0; pair <= myRtp.iMaxPairIndex; ++pair)
      if (myRtp.psPairs[pair].bInUse) {
        const std::string callId(myRtp.psPairs[pair].pcCallID[0].view());
        require(myRtp.closeSessionPair(callId.c_str(), callId.c_str()) >= 0);
      }
  }
  void setRegistering(bool bRegistering) {
    sip.sTrunk.bShouldRegister = bRegistering;
    for (int slot = kSlots / 2; slot < kSlots; ++slot) sip.phone(slot).bShouldRegister = bRegistering;
  }
  void bindPhone() {
    const std::string who =
        "From: <sip:201@h>;tag=a\r\nTo: <sip:201@h>\r\nContact: <sip:201@127.0.0.1:5062>\r\nExpires: 60\r\n";
    sip.analyzeSipMessage(message("REGISTER sip:h SIP/2.0", who + "Call-ID: r@p\r\nCSeq: 1 REGISTER\r\n"),
                          source(kPhone));
    sip.analyzeSipMessage(
        message("SUBSCRIBE sip:h SIP/2.0", who + "Event: x\r\nCall-ID: s@p\r\nCSeq: 1 SUBSCRIBE\r\n"),
        source(kPhone));
    require(sip.iNumBindings == 1 && sip.bindingAt(0).iNumSubscriptions == 1);
  }
  void setUpCall(bool answered) {
    const std::string dialog =
        "From: <sip:100@h>;tag=a\r\nTo: <sip:200@h>\r\nContact: <sip:100@127.0.0.1:5061>\r\nCall-ID: c@p\r\n";
    sip.analyzeSipMessage(message("INVITE sip:200@h SIP/2.0", dialog + "CSeq: 1 INVITE\r\n", kSdp),
                          source(kCaller));
    require(sip.numActiveCalls() == 1);
    if (!answered) return;
    const std::string callId(sip.phone(kSlots / 2).pcCallID.view());
    sip.analyzeSipMessage(
        message(
            "SIP/2.0 200 OK",
            "From: <sip:p0@h>;tag=x\r\nTo: <sip:200@h>;tag=b\r\nContact: <sip:200@127.0.0.1>\r\nCall-ID: " +
                callId + "\r\nCSeq: 1 INVITE\r\n",
            kSdp),
        source(kPbx));
    sip.analyzeSipMessage(message("ACK sip:200@h SIP/2.0", dialog + "CSeq: 1 ACK\r\n"), source(kCaller));
    require(sip.phone(0).bAnswered && lastSent.starts_with("ACK sip:200@127.0.0.1"));
  }

  void check() {
    int active = 0;
    for (int slot = 0; slot < kSlots; ++slot) {
      const sPhone& leg = sip.phone(slot);
      require(leg.iPairIndex == (slot + kSlots / 2) % kSlots && leg.iLastMsgIndex >= 0 &&
              leg.iLastMsgIndex < kStoredMessages);
      require(leg.iNumCodecs >= 0 && leg.iNumCodecs <= kMaxCodecsPerLeg && leg.iNumRoutes >= 0 &&
              leg.iNumRoutes <= kMaxRoutes);
      require(leg.bInUse == sip.partnerOf(slot).bInUse);
      require(!leg.bInUse || leg.pcCallID.empty() || sip.findSlot(leg.pcCallID) >= 0);
      active += sip.isOrigSlot(slot) && leg.bInUse && !leg.bTerminating;
    }
    require(active == sip.numActiveCalls());
    for (int binding = 0; binding < sip.iNumBindings; ++binding) {
      const sBinding& phone = sip.bindingAt(binding);
      require(sip.getBindingIndex(phone.pcBindingName) >= 0 &&
              sip.doesAddressAppearInBindingTable(phone.sBindingAddress));
      require(phone.iNumSubscriptions >= 0 && phone.iNumSubscriptions <= kMaxSubscriptions);
      for (int entry = 0; entry < phone.iNumSubscriptions; ++entry)
        require(
            sip.findSubscriptionByRelayCallID(phone.subscription(entry).relayCallID(), nullptr).iBinding >=
            0);
    }
  }

  MySip sip;
  std::vector<sPhone> fresh;
  sPhone freshTrunk;
  sWaiting next;
};

std::string expanded(Engine& engine, std::string_view text) {
  std::string result;
  std::string number;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isPlaceholder = text[i] >= 1 && text[i] <= 5 && i + 1 < text.size();
    if (isPlaceholder) {
      result += engine.valueOf(text[i], text[i + 1] & 7, number);
      ++i;
    } else {
      result += text[i];
    }
  }
  return result.substr(0, kMaxMessageLength);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Engine engine;
  if (size < 2) return 0;
  engine.begin(data[0], data[1]);
  std::string_view rest(reinterpret_cast<const char*>(data) + 2, size - 2);
  for (int messages = 0; !rest.empty() && messages < 20; ++messages) {
    const std::string_view next = rest.substr(0, rest.find('\xFF'));
    rest.remove_prefix(std::min(rest.size(), next.size() + 1));
    if (next.empty()) continue;
    const std::string text = expanded(engine, next.substr(1));
    engine.handle(static_cast<std::uint8_t>(next[0]), text.substr(0, text.find('\0')));
  }
  return 0;
}
