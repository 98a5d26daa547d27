// What single steps of the SIP engine cost, on the engine itself with its real socket and real session pairs:
// finding and taking headers, a whole INVITE, the maintenance tick with every call up, opening and closing a
// session pair. What it sends goes to a socket that nobody reads and is dropped there by the kernel.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "bench/LoadMessages.h"
#include "bench/LoadSocket.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "sip/MySip.h"
#include "tests/support/TestInstallation.h"

namespace {

constexpr int kSipPort = 34000;
constexpr int kPeerPort = 34010;
constexpr int kMediaPort = 32000;  // of Quorvel, 2 ports a slot
constexpr int kMaxCalls = 127;

// The engine in an installation of its own, with the given number of slots.
class Engine {
 public:
  explicit Engine(int slots) : peer(kPeerPort) {
    const std::string settings =
        "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipProxyPort=" + std::to_string(kPeerPort) +
        "\nSipUAIP=127.0.0.1\nSipProxyDomain=127.0.0.1\nSipUAIPForBinding=127.0.0.1\nSipUAPort=" +
        std::to_string(kSipPort) + "\nRtpUAPortInitVal=" + std::to_string(kMediaPort) +
        "\nSeparator=##\nDefaultCmd=*##0\nRegisterOrigPhones=0\nRegisterPairPhones=0\nNeedToCheckDTMF=0\n"
        "CPUPower=5\nDetectAggressiveLevel=2\nCleanAggressiveLevel=8\nAECAlgorithm=basic\n"
        "RTPTimeoutInSeconds=100000000\nNumCallsToFilter=127\nNumPhonesToAllocate=" +
        std::to_string(slots) + "\n";
    pcKestrovaInstanceSuffix.assignCut("bench" + std::to_string(getpid()));
    const std::string path = installation.write("bench.conf", settings);
    check(myConfiguration.readParams(path.c_str(), false) == 0, "settings");
    check(myConfiguration.writeTmpFile() == 0, "instance lock");
    mySip = std::make_unique<MySip>();
    check(mySip->init() == 0 && mySip->prepareConnection() == 0, "SIP engine");
    if (!myRtp.psPairs) check(myRtp.init() == 0, "media relay");
    mySip->initRegistration();
    Clock::freezeAt(1'700'000'000);
    tick();
    check(mySip->bAllPhonesActive, "identities");
  }

  ~Engine() {
    for (int call = 0; call < nextCall; ++call)
      mySip->closeRtpSessionPair(call, call + mySip->numOrigSlots());
    Clock::followSystem();
    std::remove(("/tmp/KestrovaQuorvel" + std::string(pcKestrovaInstanceSuffix.view())).c_str());
  }

  MySip& sip() { return *mySip; }

  std::string inviteOf(int call) const { return load_messages::invite(run, call, 30000 + 4 * (call % 500)); }
  void receive(const std::string& text) { mySip->analyzeSipMessage(text, loopback(kPeerPort)); }

  // Puts the next call through to its answer, so that its session pair is open.
  void establish() {
    const int call = nextCall++;
    receive(inviteOf(call));
    const int pair = call + mySip->numOrigSlots();
    const sPhone& leg = mySip->phone(pair);
    const std::string callId(leg.pcCallID.view());
    receive("SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP 127.0.0.1:" + std::to_string(kSipPort) +
            ";branch=" + std::string(leg.pcBranch.view()) + "\r\nFrom: <sip:a@127.0.0.1>" +
            std::string(leg.pcLocalTag.view()) + "\r\nTo: <sip:b@127.0.0.1>;tag=b\r\nCall-ID: " + callId +
            "\r\nCSeq: 1 INVITE\r\nContact: <sip:b@127.0.0.1:34010>\r\nContent-Length: 0\r\n\r\n" +
            "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 30002 RTP/AVP "
            "0\r\n");
    check(mySip->phone(call).bAnswered, "answered call");
  }

  void tick() {
    Clock::advanceSeconds(1);
    check(mySip->mainLoopPass(0), "main loop");
  }

 private:
  static void check(bool good, const char* what) {
    if (!good) throw std::runtime_error(std::string("not ready: ") + what);
  }

  TestInstallation installation;
  LoadSocket peer;
  std::unique_ptr<MySip> mySip;
  load_messages::Run run{.name = "bench", .callerPort = kPeerPort, .calleePort = kPeerPort};
  int nextCall = 0;
};

// An INVITE as a PBX sends it: three Vias, two Record-Routes, a long SDP; the Call-ID stands late.
std::string longInvite() {
  std::string text = load_messages::invite({.name = "long"}, 1, 30000);
  std::string vias;
  for (int hop = 0; hop < 3; ++hop)
    vias += "Via: SIP/2.0/UDP 10.0.0." + std::to_string(hop) + ":5060;branch=z9hG4bK0123456789abcdef" +
            std::to_string(hop) + ";rport\r\nRecord-Route: <sip:10.0.0." + std::to_string(hop) +
            ";lr;ftag=0123456789>\r\n";
  text.insert(text.find("From:"), vias);
  for (int format = 96; format < 120; ++format)
    text += "a=rtpmap:" + std::to_string(format) + " speex/8000\r\n";
  return text;
}

void findHeader(benchmark::State& state) {
  const std::string text = longInvite();
  for ([[maybe_unused]] auto unused : state)
    benchmark::DoNotOptimize(MySip::stristr(text, "Content-Length:"));
  state.SetLabel(std::to_string(text.size()) + " characters");
}
BENCHMARK(findHeader);

void searchAbsentHeader(benchmark::State& state) {
  const std::string text = longInvite();
  for ([[maybe_unused]] auto unused : state) benchmark::DoNotOptimize(MySip::stristr(text, "Replaces:"));
}
BENCHMARK(searchAbsentHeader);

void extractHeader(benchmark::State& state) {
  const std::string text = longInvite();
  for ([[maybe_unused]] auto unused : state)
    benchmark::DoNotOptimize(MySip::extractToken("Call-ID:", 100, text));
}
BENCHMARK(extractHeader);

// A new call from the INVITE's datagram to the INVITE that is sent on, sending included.
void inviteMessage(benchmark::State& state) {
  Engine engine(254);
  int call = 0;
  for ([[maybe_unused]] auto unused : state) {
    state.PauseTiming();
    const std::string text = engine.inviteOf(call++);
    state.ResumeTiming();
    engine.receive(text);
    state.PauseTiming();
    if (!engine.sip().phone(0).bInUse) state.SkipWithError("the call was not set up");
    engine.sip().releaseCall(0);
    state.ResumeTiming();
  }
}
BENCHMARK(inviteMessage)->Unit(benchmark::kMicrosecond);

// Arguments: slots, calls up.
void maintenanceTick(benchmark::State& state) {
  Engine engine(static_cast<int>(state.range(0)));
  for (int call = 0; call < state.range(1); ++call) engine.establish();
  for ([[maybe_unused]] auto unused : state) engine.tick();
}
BENCHMARK(maintenanceTick)
    ->Args({254, 0})
    ->Args({254, kMaxCalls})
    ->Args({1000, 0})
    ->Args({1000, kMaxCalls})
    ->Unit(benchmark::kMicrosecond);

// A pair that is opened and closed at once, and one whose media thread has come to its wait before.
void openAndCloseSessionPair(benchmark::State& state) {
  Engine engine(254);
  CodecList codecs{};
  codecs[0] = {.eCodec = eCodecPCMU, .iPayloadType = 0, .pcName = {}};
  sSessionPairRequest request;
  for (int side = 0; side < 2; ++side)
    request.sLeg[side] = {.pcCallID = side == 0 ? "a" : "b",
                          .iLocalRtpPort = kMediaPort + 2 * side,
                          .iRemoteRtpPort = 30000 + 2 * side,
                          .pcRemoteIP = "127.0.0.1",
                          .iNumCodecs = 1,
                          .psCodecs = &codecs,
                          .pcPartyName = "party",
                          .iNonAudioPort = 0};
  for ([[maybe_unused]] auto unused : state) {
    if (myRtp.openSessionPair(request) < 0) state.SkipWithError("no session pair");
    if (state.range(0) > 0) {
      state.PauseTiming();
      usleep(static_cast<useconds_t>(state.range(0)));
      state.ResumeTiming();
    }
    myRtp.closeSessionPair("a", "b");
  }
}
BENCHMARK(openAndCloseSessionPair)
    ->ArgName("us_open")
    ->Arg(0)
    ->Arg(1000)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
