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

// Would it arrive at a socket of this very pair? Other pairs' sockets are as good as any far end.
bool isOwnSocket(const sPairLegs& legs, const sockaddr_in& to, in_addr own) {
  const auto isLocalPort = [port = ntohs(to.sin_port)](int local) { return port == local; };
  if (std::none_of(legs.iLocalRtpPort.begin(), legs.iLocalRtpPort.end(), isLocalPort) &&
      std::none_of(legs.iLocalRtcpPort.begin(), legs.iLocalRtcpPort.end(), isLocalPort)) {
    return false;
  }
  const in_addr_t ip = to.sin_addr.s_addr;
  if (ip == INADDR_ANY) return false;  // nothing is sent there
  in_addr announced{};
  if (ip == own.s_addr || (inet_aton(pcSipUAIP.c_str(), &announced) != 0 && ip == announced.s_addr))
    return true;
  return own.s_addr == INADDR_ANY && isOfThisHost(to.sin_addr);
}

// A far end that gives one of the pair's own ports as its own would have each packet circle between the legs,
// and take a whole core, for as long as the call lasts.
void cutLoops(sPairLegs& legs, in_addr own) {
  for (int side = 0; side < 2; ++side) {
    bool bLoop = false;
    for (PerSide<sockaddr_in>* addresses : {&legs.sRemoteRtpAddr, &legs.sRemoteRtcpAddr,
                                            &legs.sRemoteNonAudioAddr, &legs.sRemoteNonAudioRtcpAddr}) {
      sockaddr_in& to = (*addresses)[side];
      if (!isOwnSocket(legs, to, own)) continue;
      to.sin_addr.s_addr = INADDR_ANY;
      bLoop = true;
    }
    if (bLoop) {
      Log::warning(kFunction,
                   "media for %s at port %d would come back to the same call, nothing is sent there\n",
                   legs.pcPartyName[side].c_str(), legs.iRemoteRtpPort[side]);
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
  cutLoops(record, own);
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
