// What a relayed packet and a session pair cost in the relay itself: the packet path without the kernel (the
// far end has the null address, so nothing is sent), and opening and closing a pair with its real sockets and
// its real thread while other calls are up.
#include <array>
#include <benchmark/benchmark.h>
#include <cstring>
#include <stdexcept>
#include <string>

#include "app/config/Settings.h"
#include "rtp/MyRtp.h"
#include "tests/support/TestInstallation.h"

namespace {

constexpr int kFirstPort = 23000;  // 4 ports a call
constexpr int kMaxCalls = 127;
constexpr int kPacketBytes = 12 + 160;

CodecList listOf(SUPPORTED_CODECS_IN_QUORVEL codec) {
  CodecList list;
  list[0].eCodec = codec;
  list[0].iPayloadType = kCodecRows[codec].iPayloadType;
  return list;
}

// A relay with calls that neither send nor receive.
class Relay {
 public:
  Relay() {
    iNumCallsToFilter = kMaxCalls;
    pcSipUAIPForBinding.assignCut("127.0.0.1");
    if (myRtp.init() != 0) throw std::runtime_error("relay");
  }
  ~Relay() {
    while (myRtp.iMaxPairIndex >= 0)
      close(std::string(myRtp.psPairs[myRtp.iMaxPairIndex].pcCallID[0].view()));
  }

  static int open(int call, const std::string& callId, const CodecList& codecs0, const CodecList& codecs1) {
    sSessionPairRequest request;
    request.iCleaningType = 3;
    const CodecList* const codecs[2] = {&codecs0, &codecs1};
    for (int side = 0; side < 2; ++side) {
      sSessionPairLeg& leg = request.sLeg[side];
      leg.pcCallID = callId.c_str();
      leg.iLocalRtpPort = kFirstPort + 4 * call + 2 * side;
      leg.iRemoteRtpPort = 9;
      leg.pcRemoteIP = "0.0.0.0";
      leg.iNumCodecs = 1;
      leg.psCodecs = codecs[side];
    }
    const int pair = myRtp.openSessionPair(request);
    if (pair < 0) throw std::runtime_error("session pair");
    return pair;
  }
  static void close(const std::string& callId) { myRtp.closeSessionPair(callId.c_str(), callId.c_str()); }

 private:
  TestInstallation installation;
};

// Arguments: codec of the sender, codec of the receiver.
void packetThroughThePath(benchmark::State& state) {
  const Relay relay;
  const auto from = static_cast<SUPPORTED_CODECS_IN_QUORVEL>(state.range(0));
  const auto to = static_cast<SUPPORTED_CODECS_IN_QUORVEL>(state.range(1));
  const int pair = Relay::open(0, "call", listOf(from), listOf(to));
  std::array<char, kMessageBufferBytes> packet{};
  unsigned sequence = 0;
  for (auto step : state) {
    ++sequence;
    packet[0] = '\x80';
    packet[1] = static_cast<char>(kCodecRows[from].iPayloadType);
    packet[2] = static_cast<char>(sequence >> 8);
    packet[3] = static_cast<char>(sequence);
    benchmark::DoNotOptimize(myRtp.parseAndSendRtpMsg(0, pair, packet.data(), kPacketBytes));
  }
}
BENCHMARK(packetThroughThePath)
    ->ArgNames({"from", "to"})
    ->Args({eCodecPCMU, eCodecPCMU})
    ->Args({eCodecPCMU, eCodecPCMA})
    ->Args({eCodecG722, eCodecPCMA})
    ->Args({eCodecPCMA, eCodecG722})
    ->Args({eCodecG722, eCodecG722});

// Arguments: calls that are up meanwhile; whether both sides are cleaned and freed of echo, whose channels
// the SIP thread sets up as well.
void openAndClose(benchmark::State& state) {
  iNeedToDoNoiseCancellation = iNeedToDoAEC = static_cast<int>(state.range(1));
  const Relay relay;
  const CodecList codecs = listOf(eCodecPCMU);
  const int others = static_cast<int>(state.range(0));
  for (int call = 0; call < others; ++call) Relay::open(call, "call-" + std::to_string(call), codecs, codecs);
  const std::string callId = "the one that comes and goes";
  for (auto step : state) {
    Relay::open(others, callId, codecs, codecs);
    Relay::close(callId);
  }
  iNeedToDoNoiseCancellation = iNeedToDoAEC = 0;
}
BENCHMARK(openAndClose)
    ->ArgNames({"others", "engine"})
    ->Args({0, 0})
    ->Args({100, 0})
    ->Args({2, 1})
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
