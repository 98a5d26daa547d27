#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <pthread.h>
#include <sys/socket.h>

#include "app/config/Log.h"
#include "app/config/Settings.h"
#include "common/Clock.h"
#include "common/FaultStack.h"
#include "common/Handle.h"
#include "common/Port.h"
#include "rtp/MyRtp.h"

namespace {

constexpr const char* kFunction = "MyRtp::openSessionPair";
constexpr std::size_t kThreadStackBytes = 5'000'000;  // the engine keeps its work areas on the stack

int rtcpPortOf(int rtpPort) {
  return rtpPort <= kHighestPort ? rtpPort + 1 : rtpPort;  // RFC 3550, section 11
}

// A port outside 0..65535 gives port 0, to which nothing can be sent.
sockaddr_in addressOf(in_addr ip, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr = ip;
  address.sin_port = port >= 0 && port <= kHighestPort ? htons(static_cast<in_port_t>(port)) : in_port_t{0};
  return address;
}

// Every spelling that the configuration takes for an address.
bool findOwnAddress(in_addr& ip) {
  if (inet_aton(pcSipUAIPForBinding.c_str(), &ip) != 0) return true;
  Log::error(kFunction, "SipUAIPForBinding \"%s\" is no address to bind to\n", pcSipUAIPForBinding.c_str());
  return false;
}

in_addr parseIP(const char* text) {
  in_addr ip{};
  if (inet_pton(AF_INET, text, &ip) != 1) {
    Log::warning(kFunction, "illegal IP address \"%s\", nothing is sent there\n", text);
    ip.s_addr = INADDR_ANY;
  }
  return ip;
}

bool isOfThisHost(in_addr ip) {
  const FileDescriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = addressOf(ip, 0);
  return probe.isOpen() &&
         bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool isOwnAddress(in_addr ip, in_addr own) {
  in_addr announced{};
  return ip.s_addr == own.s_addr ||
         (inet_aton(pcSipUAIP.c_str(), &announced) != 0 && ip.s_addr == announced.s_addr) ||
         (own.s_addr == INADDR_ANY && isOfThisHost(ip));
}

// Why nothing may be sent there; null when it may. Sockets of other pairs are as good as any far end.
const char* reasonNotToSend(const sPairLegs& legs, const sockaddr_in& to, in_addr own) {
  const int port = ntohs(to.sin_port);
  if (to.sin_addr.s_addr == INADDR_ANY || port == 0) return nullptr;  // nothing is
  const auto has = [port](const PerSide<int>& ports) {
    return std::ranges::find(ports, port) != ports.end();
  };
  if (has(legs.iLocalRtpPort) || has(legs.iLocalRtcpPort)) {
    // Each packet would circle between the legs, and take a whole core, for as long as the call lasts.
    if (isOwnAddress(to.sin_addr, own)) return "would come back to the same call";
  }
  // Strangers' packets would arrive there from our address.
  in_addr pbx{};
  if ((port == iSipUAPort && isOwnAddress(to.sin_addr, own)) ||
      (port == iSipProxyPort && inet_aton(pcSipProxyIP.c_str(), &pbx) != 0 &&
       to.sin_addr.s_addr == pbx.s_addr)) {
    return "would be taken for SIP";
  }
  return nullptr;
}

void cutForbiddenAddresses(sPairLegs& legs, in_addr own) {
  for (int side = 0; side < 2; ++side) {
    const char* why = nullptr;
    for (PerSide<sockaddr_in>* addresses : {&legs.sRemoteRtpAddr, &legs.sRemoteRtcpAddr,
                                            &legs.sRemoteNonAudioAddr, &legs.sRemoteNonAudioRtcpAddr}) {
      sockaddr_in& to = (*addresses)[side];
      const char* const reason = reasonNotToSend(legs, to, own);
      if (reason == nullptr) continue;
      to.sin_addr.s_addr = INADDR_ANY;
      why = reason;
    }
    if (why != nullptr) {
      Log::warning(kFunction, "media for %s at port %d %s, nothing is sent there\n",
                   legs.pcPartyName[side].c_str(), legs.iRemoteRtpPort[side], why);
    }
  }
}

std::uint8_t parsePayloadType(const char* text) {
  while (*text == ' ') ++text;
  if (*text == '\0') return kNoTelephoneEventPT;
  return static_cast<std::uint8_t>(std::strtol(text, nullptr, 10));
}

bool hasG722(const CodecList& codecs, int numCodecs) {
  return std::any_of(codecs.begin(), codecs.begin() + numCodecs,
                     [](const sCodecNegotiationList_t& entry) { return entry.eCodec == eCodecG722; });
}

const pthread_attr_t* threadAttributes() {
  static const pthread_attr_t attributes = [] {
    pthread_attr_t result;
    pthread_attr_init(&result);
    pthread_attr_setstacksize(&result, kThreadStackBytes);
    const sigset_t signals = signalsBlockedInThreads();
    pthread_attr_setsigmask_np(&result, &signals);
    return result;
  }();
  return &attributes;
}

void* mediaThread(void* arg) {
  const FaultStack faultStack;
  myRtp.threadMainLoop(arg);
  return nullptr;
}

}  // namespace

int MyRtp::openSessionPair(const sSessionPairRequest& request) {
  try {
    const int pair = takeFreeSlot(request);
    if (pair < 0) return -1;
    in_addr own{};
    const bool ownKnown = findOwnAddress(own);
    storeLegs(pair, request, own);
    storeCodecs(pair, request);
    resetForCall(pair);
    if (!ownKnown || !openSockets(pair)) return -1;
    recalculateFDSet(pair);
    if (!startEngineChannels(pair)) return -1;
    openRecordings(pair, request.sTimeCallStart);
    writeOpenLine(pair);
    psPairs[pair].bOpened = startThread(pair);
    return psPairs[pair].bOpened ? pair : -1;
  } catch (...) {
    Log::error(kFunction, "exception caught");
    return -1;
  }
}

// Slots of ended calls that a registration still holds are waited for only when no other will do: those
// behind them may be beyond the engine's channels.
int MyRtp::takeFreeSlot(const sSessionPairRequest& request) {
  freeEnded(false);
  int pair = pairIndex.firstFree();
  if (pair < 0 || (request.iCleaningType != 0 && pair >= kPairsWithChannels)) {
    finishEndings();
    pair = pairIndex.firstFree();
  }
  if (pair < 0) {
    Log::error(kFunction, "too many RTP sessions %d", iNumCallsToFilter);
    return -1;
  }
  pairIndex.occupy(pair, request.sLeg[0].pcCallID, request.sLeg[1].pcCallID);
  iMaxPairIndex = std::max(iMaxPairIndex, pair);
  return pair;
}

void MyRtp::storeLegs(int pair, const sSessionPairRequest& request, in_addr own) {
  sRtpSessionPair& record = psPairs[pair];
  static_cast<sPairLegs&>(record) = sPairLegs{};
  record.bInUse = true;
  record.iCleaningType = request.iCleaningType;
  record.ucTelephoneEventPT = parsePayloadType(request.pcTelephoneEventPT);
  for (int side = 0; side < 2; ++side) {
    const sSessionPairLeg& leg = request.sLeg[side];
    record.pcCallID[side].assignCut(leg.pcCallID);
    record.pcPartyName[side].assignCut(leg.pcPartyName);
    const in_addr remote = parseIP(leg.pcRemoteIP);
    record.iLocalRtpPort[side] = leg.iLocalRtpPort;
    record.sLocalRtpAddr[side] = addressOf(own, leg.iLocalRtpPort);
    record.iLocalRtcpPort[side] = rtcpPortOf(leg.iLocalRtpPort);
    record.sLocalRtcpAddr[side] = addressOf(own, rtcpPortOf(leg.iLocalRtpPort));
    record.iRemoteRtpPort[side] = leg.iRemoteRtpPort;
    record.sRemoteRtpAddr[side] = addressOf(remote, leg.iRemoteRtpPort);
    record.iRemoteRtcpPort[side] = rtcpPortOf(leg.iRemoteRtpPort);
    record.sRemoteRtcpAddr[side] = addressOf(remote, rtcpPortOf(leg.iRemoteRtpPort));
    record.iNonAudioPort[side] = std::max(leg.iNonAudioPort, 0);
    record.sRemoteNonAudioAddr[side] = addressOf(remote, leg.iNonAudioPort);
    record.sRemoteNonAudioRtcpAddr[side] = addressOf(remote, rtcpPortOf(leg.iNonAudioPort));
  }
  cutForbiddenAddresses(record, own);
}

void MyRtp::storeCodecs(int pair, const sSessionPairRequest& request) {
  sRtpSessionPair& record = psPairs[pair];
  static_cast<sPairCodecLists&>(record) = sPairCodecLists{};
  bool wideband = true;
  for (int side = 0; side < 2; ++side) {
    const sSessionPairLeg& leg = request.sLeg[side];
    const int count = leg.psCodecs == nullptr ? 0 : std::clamp(leg.iNumCodecs, 0, kMaxCodecsPerLeg);
    record.iNumCodecs[side] = count;
    if (count > 0) std::copy_n(leg.psCodecs->begin(), count, record.psCodecs[side].begin());
    if (!hasG722(record.psCodecs[side], count)) {
      wideband = false;
      continue;
    }
    myGWB.encodeInit(&record.sG722Encoder[side], kG722BitRate);
    myGWB.decodeInit(&record.sG722Decoder[side], kG722BitRate);
  }
  static_cast<sPairProcessing&>(record) = sPairProcessing{};
  record.iSampleRate = wideband ? 16000 : 8000;
}

// Before anything can fail, so that a pair whose opening failed does not close with the figures of the call
// before it.
void MyRtp::resetForCall(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  static_cast<sPairDigits&>(record) = {};
  static_cast<sPairRecordings&>(record) = {};
  static_cast<sPairSamples&>(record) = {};
  static_cast<sPairStatistics&>(record) = {};
  static_cast<sPairCommands&>(record) = {};
  record.iJitterCount = {};
  static_cast<sPairDelay&>(record) = {};
  static_cast<sPairQueue&>(record) = {};
  record.iSelectErrors.reset();
  const std::time_t now = Clock::steadyTime().tv_sec;
  for (int side = 0; side < 2; ++side) {
    record.iInactiveSeconds[side].reset();
    record.tLastPacket[side] = now;
  }
}

bool MyRtp::createThread(int pair, void* (*body)(void*)) {
  sRtpSessionPair& record = psPairs[pair];
  return pthread_create(&record.tThread, threadAttributes(), body, &record.iPairIndex) == 0;
}

bool MyRtp::startThread(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  record.bStopRequested = false;
  record.bThreadRunning = true;  // before the thread, which clears it when it ends
  if (!createThread(pair, mediaThread)) {
    record.bThreadRunning = false;
    Log::error(kFunction, "unable to create thread for pair %d\n", pair);
    return false;
  }
  record.bThreadToJoin = true;
  return true;
}
