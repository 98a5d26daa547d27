// Pairs with their real sockets and threads.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <thread>

#include "app/config/Settings.h"
#include "tests/rtp/RtpFixture.h"

namespace {

class SessionTest : public RtpTest {
 protected:
  // Sends from one peer until the other hears it: the first datagram may come before the thread waits.
  static std::string through(Call& call, int side, const std::string& datagram) {
    call.rtp[side]->sendTo(call.relayPort(side), datagram);
    return call.heardBy(1 - side);
  }
};

TEST_F(SessionTest, AudioAndRtcpCrossBetweenTheLegs) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_EQ(call.open(), 0);
  for (int side = 0; side < 2; ++side) {
    Packet packet;
    packet.payload = std::string(160, static_cast<char>(0x80 + side));
    EXPECT_EQ(through(call, side, packet.bytes()), packet.bytes());
    EXPECT_EQ(call.rtp[1 - side]->lastSenderPort(), call.relayPort(1 - side));
    const std::string report = "\x80\xC8 any report";
    call.rtcp[side]->sendTo(call.relayPort(side) + 1, report);
    EXPECT_EQ(call.rtcp[1 - side]->receive(), report);
    EXPECT_EQ(call.rtcp[1 - side]->lastSenderPort(), call.relayPort(1 - side) + 1);
  }
}

TEST_F(SessionTest, DatagramFromTheNonAudioPortIsForwardedUntouched) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  const LoopbackPeer video(LoopbackPeer::freePortPair());
  const LoopbackPeer videoRtcp(video.port() + 1);
  LoopbackPeer otherVideo(LoopbackPeer::freePortPair());
  LoopbackPeer otherVideoRtcp(otherVideo.port() + 1);
  call.request.sLeg[0].iNonAudioPort = video.port();
  call.request.sLeg[1].iNonAudioPort = otherVideo.port();
  ASSERT_EQ(call.open(), 0);
  const std::string big(1999, 'v');
  video.sendTo(call.relayPort(0), big);
  EXPECT_EQ(otherVideo.receive(), big);
  videoRtcp.sendTo(call.relayPort(0) + 1, "report");
  EXPECT_EQ(otherVideoRtcp.receive(), "report");
  // Any other sender's datagrams are audio.
  const LoopbackPeer stranger;
  stranger.sendTo(call.relayPort(0), Packet{}.bytes());
  EXPECT_EQ(call.heardBy(1), Packet{}.bytes());
}

TEST_F(SessionTest, OversizedAndTinyDatagramsLeaveTheCallAlive) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_EQ(call.open(), 0);
  Packet big;
  big.payload = std::string(5000, '\x80');
  EXPECT_EQ(payloadOf(through(call, 0, big.bytes())).size(), 1984U);
  for (std::size_t length = 0; length < 12; ++length)
    call.rtp[0]->sendTo(call.relayPort(0), big.bytes().substr(0, length));
  Packet next;
  next.marker = true;
  EXPECT_EQ(sequenceOf(through(call, 0, next.bytes())), 1);
  EXPECT_EQ(installation.logCount("packet is too short"), 12);
}

// On hold; where it would circle between the two legs for ever; where SIP from our address is taken for ours.
TEST_F(SessionTest, NothingIsSentToANullAddressAPortOfTheSamePairOrOneForSip) {
  struct Case {
    const char* binding;
    const char* remoteIp;
    int ofLeg;       // the far end of leg 1 says it has the relay's port of this leg, -1: of its own,
    int offset;      // plus this
    bool rtp, rtcp;  // are sent there
    int warnings;
  };
  ASSERT_TRUE(pcSipUAIP.assign("192.0.2.7") && pcSipProxyIP.assign("192.0.2.9"));
  const Case cases[] = {
      {"127.0.0.1", "0.0.0.0", -1, 0, false, false, 0},   {"127.0.0.1", "0.0.0.0", 0, 0, false, false, 0},
      {"127.0.0.1", "127.0.0.1", 0, 0, false, false, 1},  {"127.0.0.1", "127.0.0.1", 1, 0, false, false, 1},
      {"127.0.0.1", "127.0.0.1", 0, -1, true, false, 1},  {"127.0.0.1", "127.0.0.1", 1, 1, false, true, 1},
      {"127.0.0.1", "192.0.2.7", 0, 0, false, false, 1},  {"127.0.0.1", "127.0.0.2", 0, 0, true, true, 0},
      {"0.0.0.0", "127.0.0.2", 0, 0, false, false, 1},    {"0.0.0.0", "192.0.2.8", 0, 0, true, true, 0},
      {"127.0.0.1", "127.0.0.1", 0, 100, true, true, 0},  // another pair's
      {"127.0.0.1", "127.0.0.1", 0, 200, false, true, 1}, {"127.0.0.1", "192.0.2.9", 0, 299, true, false, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.binding << ' ' << c.remoteIp << ' ' << c.ofLeg << ' ' << c.offset);
    installation.clearLog();
    ASSERT_TRUE(pcSipUAIPForBinding.assign(c.binding));
    Call call({eCodecPCMU}, {eCodecPCMU});
    call.request.sLeg[1].pcRemoteIP = c.remoteIp;
    iSipUAPort = call.relayPort(0) + 200;
    iSipProxyPort = call.relayPort(0) + 300;
    if (c.ofLeg >= 0) call.request.sLeg[1].iRemoteRtpPort = call.relayPort(c.ofLeg) + c.offset;
    ASSERT_EQ(call.open(), 0);
    call.rtp[0]->sendTo(call.relayPort(0), Packet{}.bytes());
    EXPECT_TRUE(eventually([&] { return call.record().iPacketsReceived[0] == 1; }));
    call.close();
    EXPECT_EQ(call.record().iPacketsReceived[0] + call.record().iPacketsReceived[1], 1);
    EXPECT_TRUE(call.silent(1));
    EXPECT_EQ(call.record().sRemoteRtpAddr[1].sin_addr.s_addr != INADDR_ANY, c.rtp);
    EXPECT_EQ(call.record().sRemoteRtcpAddr[1].sin_addr.s_addr != INADDR_ANY, c.rtcp);
    EXPECT_EQ(installation.logCount(", nothing is sent there\n"), c.warnings);
  }
}

TEST_F(SessionTest, SilenceIsCountedPerSideFromTwoSecondsOn) {
  Clock::freezeAt(5'000'000);
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_EQ(call.open(), 0);
  const auto& inactive = call.record().iInactiveSeconds;
  Clock::advanceSeconds(2);
  EXPECT_TRUE(eventually([&] { return inactive[0].read() == 2 && inactive[1].read() == 2; }));
  call.rtcp[0]->sendTo(call.relayPort(0) + 1, "heard");
  EXPECT_TRUE(eventually([&] { return !inactive[0].read().has_value(); }));
  Clock::advanceSeconds(58);
  Clock::setDateBy(-1000);  // is no silence, nor the end of one
  EXPECT_TRUE(eventually([&] { return inactive[0].read() == 58 && inactive[1].read() == 60; }));
}

TEST_F(SessionTest, SelectErrorsAreCountedAndEndWithTheCause) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_EQ(call.open(), 0);
  // A descriptor that disappears under select is an error each time it is called.
  const int lost = call.record().iRtcpSocket[1];
  const int kept = dup(lost);
  close(lost);
  const auto& errors = call.record().iSelectErrors;
  EXPECT_TRUE(eventually([&] { return errors.read().value_or(0) > 3; }));
  ASSERT_EQ(dup2(kept, lost), lost);
  close(kept);
  EXPECT_TRUE(eventually([&] { return !errors.read().has_value(); }));
  EXPECT_EQ(
      installation.logCount(" ERROR in MyRtp::threadMainLoop, error in select (0) Bad file descriptor\n"), 1);
}

// Handlers belong to the main thread: a media thread takes only the faults that it raises itself.
TEST_F(SessionTest, MediaThreadBlocksEverySignalButFaults) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  std::atomic<std::size_t> faultStackBytes{0};
  FakeEngine::get().onFrame = [&] {
    stack_t stack{};
    sigaltstack(nullptr, &stack);
    if ((stack.ss_flags & SS_DISABLE) == 0) faultStackBytes = stack.ss_size;
  };
  ASSERT_EQ(call.open(), 0);
  through(call, 0, Packet{}.bytes());
  EXPECT_GE(faultStackBytes, 20'000U) << "a full stack must be reported too";
  std::uint64_t expected = ~std::uint64_t{0};
  for (const int open : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGKILL, SIGSTOP})
    expected &= ~(std::uint64_t{1} << (open - 1));
  constexpr std::uint64_t kOfTheCLibrary = std::uint64_t{3} << 31;  // signals 32 and 33
  const auto isMediaThread = [&](const std::filesystem::path& task) {
    const std::string status = TestInstallation::read(task / "status");
    const std::uint64_t blocked = std::stoull(status.substr(status.find("SigBlk:") + 8, 16), nullptr, 16);
    return (blocked | kOfTheCLibrary) == (expected | kOfTheCLibrary);
  };
  EXPECT_TRUE(eventually([&] {
    const auto tasks = std::filesystem::directory_iterator("/proc/self/task");
    return std::any_of(begin(tasks), end(tasks),
                       [&](const auto& task) { return isMediaThread(task.path()); });
  }));
}

TEST_F(SessionTest, RestartWhilePacketsFlowAndPagesRead) {
  iNumCallsToFilter = 3;
  ASSERT_EQ(myRtp.init(), 0);
  Call call({eCodecPCMU}, {eCodecPCMA});
  ASSERT_EQ(call.open(), 0);
  std::atomic<bool> stop{false};
  std::thread phones([&] {
    for (int sequence = 1; !stop; ++sequence) {
      Packet packet;
      packet.sequence = sequence & 0xFFFF;
      for (int side = 0; side < 2; ++side) {
        packet.payloadType = side == 0 ? 0 : 8;
        call.rtp[side]->sendTo(call.relayPort(side), packet.bytes());
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  for (int restart = 0; restart < 30; ++restart) {
    EXPECT_TRUE(eventually([&] { return call.record().iPacketsReceived[1] > 2; }));
    EXPECT_TRUE(call.record().bThreadRunning);
    myRtp.calcMOS(0);
    EXPECT_EQ(myRtp.figuresOf(0, 0).iMaxAgc, call.record().iProcessedSamples[0] > 0 ? 100 : 0);
    ASSERT_EQ(call.close(), 0);
    EXPECT_FALSE(call.record().bThreadRunning);
    ASSERT_EQ(call.open(), 0);
  }
  stop = true;
  phones.join();
}

TEST_F(SessionTest, ClosingDoesNotWaitForTheTimeOutOfTheThread) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  int iAtOnce = 0;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(call.open(), 0);
    const std::int64_t start = Clock::monotonicNanoseconds();
    ASSERT_EQ(call.close(), 0);
    if (Clock::monotonicNanoseconds() - start < 10'000'000) ++iAtOnce;
  }
  // With the time-out nearly every one would take 20 ms; a busy machine may hold up most of them, but not
  // all.
  EXPECT_GE(iAtOnce, 10);
}

TEST_F(SessionTest, PairsAreFoundByEitherCallIdAndSlotsAreUsedFromTheLowest) {
  Call first({eCodecPCMU}, {eCodecPCMU}, "first");
  Call second({eCodecPCMU}, {eCodecPCMU}, "second");
  Call third({eCodecPCMU}, {eCodecPCMU}, "third");
  EXPECT_EQ(first.open(), 0);
  EXPECT_EQ(second.open(), 1);
  EXPECT_EQ(third.open(), 2);
  for (const auto& [callId1, callId2, index] :
       {std::tuple<const char*, const char*, int>{"first-leg0", "", 0},
        {"x", "first-leg1", 0},
        {"third-leg1", "second-leg0", 1},
        {"second-leg", "FIRST-LEG0", -1}}) {
    EXPECT_EQ(myRtp.findRtpIndex(callId1, callId2), index) << callId1;
  }
  EXPECT_EQ(installation.logCount(" ERROR in MyRtp::findRtpIndex, unable to find session pair\n"), 1);
  EXPECT_EQ(myRtp.closeSessionPair("second-leg1", "unknown"), 1);
  EXPECT_EQ(myRtp.closeSessionPair("second-leg1", "unknown"), -1);
  EXPECT_EQ(myRtp.iMaxPairIndex, 2);
  EXPECT_EQ(third.close(), 2);
  EXPECT_EQ(myRtp.iMaxPairIndex, 0);
  EXPECT_EQ(second.open(), 1);
  EXPECT_EQ(installation.logCount("unable to find session pair"), 1);

  // Two pairs with one Call-ID, behind another.
  third.request.sLeg[0].pcCallID = second.callId[1].c_str();
  EXPECT_EQ(third.open(), 2);
  myRtp.closeAll();
  EXPECT_EQ(myRtp.iMaxPairIndex, -1);
  for (int pair = 0; pair < 3; ++pair) EXPECT_FALSE(myRtp.psPairs[pair].bThreadToJoin) << pair;
}

// 508 ports of our own, so that other tests do not run into them.
TEST_F(SessionTest, As127CallsRunAtOnceAndTheNextIsRefused) {
  constexpr int kFirstPort = 22000;
  iNumCallsToFilter = 128;
  EXPECT_EQ(myRtp.init(), 2);
  EXPECT_EQ(
      installation.logCount("MyRtp::init, Not enough file descriptors to support so many calls 1024 < 1032"),
      1);
  iNumCallsToFilter = 2'147'483'647;
  EXPECT_EQ(myRtp.init(), 2);
  EXPECT_EQ(installation.logCount("1024 < 17179869184"), 1);
  iNumCallsToFilter = 127;
  ASSERT_EQ(myRtp.init(), 0);
  Call peers({eCodecPCMU}, {eCodecPCMU});
  const auto request = [&](int i, std::string& callId) {
    callId = "many-" + std::to_string(i);
    sSessionPairRequest copy = peers.request;
    for (int side = 0; side < 2; ++side) {
      copy.sLeg[side].pcCallID = callId.c_str();
      copy.sLeg[side].iLocalRtpPort = kFirstPort + 4 * i + 2 * side;
    }
    return copy;
  };
  std::string callId;
  for (int i = 0; i < 127; ++i) ASSERT_EQ(myRtp.openSessionPair(request(i, callId)), i);
  EXPECT_EQ(myRtp.openSessionPair(request(127, callId)), -1);
  EXPECT_EQ(installation.logCount(" ERROR in MyRtp::openSessionPair, too many RTP sessions 127"), 1);
  peers.rtp[0]->sendTo(kFirstPort + 4 * 126, Packet{}.bytes());
  EXPECT_EQ(peers.heardBy(1), Packet{}.bytes());
  for (int i = 0; i < 127; ++i) {
    callId = "many-" + std::to_string(i);
    EXPECT_EQ(myRtp.closeSessionPair(callId.c_str(), callId.c_str()), i);
  }
  EXPECT_EQ(myRtp.iMaxPairIndex, -1);
}

// ---- Failures of opening ----

TEST_F(SessionTest, PortInUseFailsTheOpenAndClosingReleasesTheSlot) {
  const char* const kTexts[] = {
      "unable to bind socket (0) (%d) 1. Verify no other program uses port %d. Try turning OFF firewall and "
      "antivirus. (err=98) \n",
      "unable to bind socket (0) (%d) 2. Verify no other program uses port %d. Try turning OFF firewall and "
      "antivirus. (err=98)\n"};
  for (int side = 0; side < 2; ++side) {
    for (int rtcp = 0; rtcp < 2; ++rtcp) {
      Call call({eCodecPCMU}, {eCodecPCMU});
      const int port = call.relayPort(side) + rtcp;
      {
        const LoopbackPeer blocker(port);
        EXPECT_EQ(call.open(), -1);
        EXPECT_TRUE(myRtp.psPairs[0].bInUse);
        char text[200];
        std::snprintf(text, sizeof text, kTexts[rtcp], side, port);
        EXPECT_EQ(installation.logCount(" ERROR in MyRtp::openSessionPair, " + std::string(text)), 1);
      }
      EXPECT_EQ(call.close(), 0);
      EXPECT_EQ(call.open(), 0);
      EXPECT_EQ(call.close(), 0);
    }
  }
}

TEST_F(SessionTest, AddressThatCannotBeBoundToIsSaidAndNotTakenForEveryAddress) {
  ASSERT_TRUE(pcSipUAIPForBinding.assign("nowhere"));
  Call call({eCodecPCMU}, {eCodecPCMU});
  EXPECT_EQ(call.open(), -1);
  EXPECT_EQ(installation.logCount(
                " ERROR in MyRtp::openSessionPair, SipUAIPForBinding \"nowhere\" is no address to bind to\n"),
            1);
  EXPECT_EQ(call.close(), 0);
}

TEST_F(SessionTest, DescriptorBeyondWhatSelectTakesFailsTheOpen) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit raised = before;
  raised.rlim_cur = FD_SETSIZE + 16;
  if (setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "descriptor limit cannot be raised";
  std::vector<FileDescriptor> fillers;
  for (int descriptor = 0; descriptor < FD_SETSIZE - 2;) {
    descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(descriptor, 0);
    fillers.emplace_back(descriptor);
  }
  Call call({eCodecPCMU}, {eCodecPCMU});
  EXPECT_EQ(call.open(), -1);
  fillers.clear();
  EXPECT_EQ(installation.logCount("is too large for select"), 1);
  EXPECT_EQ(call.close(), 0);
  EXPECT_EQ(call.open(), 0);
  setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(SessionTest, ThreeCallsCanBeProcessedAtOnce) {
  std::vector<std::unique_ptr<Call>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(std::make_unique<Call>(Codecs{eCodecPCMU}, Codecs{eCodecPCMU}, std::to_string(i)));
    calls.back()->request.iCleaningType = 3;
    EXPECT_EQ(calls.back()->open(), i < 3 ? i : -1);
  }
  EXPECT_EQ(
      installation.logCount(" ERROR in MyRtp::openSessionPair, unable to initialize kestrova channel 6\n"),
      1);
  EXPECT_EQ(calls[3]->close(), 3);
  calls[3]->request.iCleaningType = 0;
  EXPECT_EQ(calls[3]->open(), 3);
  for (const auto& call : calls) call->close();
  for (const auto& channel : FakeEngine::get().noise) EXPECT_FALSE(channel.bRunning);
  EXPECT_EQ(installation.logCount("unable to terminate"), 0);
}

TEST_F(SessionTest, StartUpStopsWhereTheEngineCannotStart) {
  FakeEngine::get().failPackage = true;
  EXPECT_EQ(myRtp.init(), 2);
  EXPECT_EQ(installation.logCount(" ERROR in MyRtp::init, error in package init\n"), 1);
}

TEST_F(SessionTest, QueueAndPoolRefuseWhatIsTooMuch) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_EQ(call.open(), 0);
  ASSERT_EQ(call.close(), 0);
  std::vector<char*> buffers;
  for (int i = 0; i < kNumMessageBuffers; ++i) buffers.push_back(myRtp.getMsgFromPool(0));
  EXPECT_EQ(buffers[3] - buffers[2], kMessageBufferBytes);
  EXPECT_EQ(myRtp.getMsgFromPool(0), nullptr);
  EXPECT_EQ(installation.logCount("unable to get msg from pool\n"), 1);
  for (char* buffer : buffers) myRtp.returnMsgToPool(buffer, 0);
  EXPECT_EQ(myRtp.getMsgFromPool(0), buffers.back());
}

}  // namespace
