#include "app/config/Settings.h"
#include "tests/rtp/RtpFixture.h"

namespace {

class CallQualityTest : public RtpTest {};

struct Counters {
  const char* name;
  int packets;
  int lost;
  int delaySum;
  int maxDelay;
  int jitterSum;  // timestamp units, 8 per millisecond
  int maxJitter;
  float avgImpairment;
  float minImpairment;
};

TEST_F(CallQualityTest, MosIsTheBaseLessTheImpairmentsOfDelayLossAndJitter) {
  const Counters cases[] = {
      {"nothing received", 0, 0, 0, 0, 0, 0, 0, 0},
      {"2.5 % loss lies between its buckets", 1000, 25, 0, 0, 0, 0, 0.255F, 0.255F},
      {"1 % loss", 100, 1, 0, 0, 0, 0, 0.11F, 0.11F},
      {"9.5 % loss", 200, 19, 0, 0, 0, 0, 0.99F, 0.99F},
      {"10 % loss", 100, 10, 0, 0, 0, 0, 1.04F, 1.04F},
      {"all lost", 1, 500, 0, 0, 0, 0, 1.04F, 1.04F},
      {"199 ms delay", 10, 0, 1999, 199, 0, 0, 0, 0},
      {"200 ms delay", 10, 0, 2000, 200, 0, 0, 0.1F, 0.1F},
      {"499 ms delay", 10, 0, 0, 499, 0, 0, 0, 1.07F},
      {"500 ms delay", 10, 0, 10000, 500, 0, 0, 1.22F, 1.22F},
      {"99 ms jitter", 10, 0, 0, 0, 10 * 99 * 8, 99 * 8 + 7, 0, 0},
      {"100 ms jitter", 10, 0, 0, 0, 10 * 100 * 8, 100 * 8, 0.1F, 0.1F},
      {"300 ms jitter", 10, 0, 0, 0, 10 * 300 * 8, 299 * 8, 1.46F, 1.22F},
      {"everything at once", 10, 1, 2500, 1000, 10 * 150 * 8, 9999, 0.26F + 1.04F + 0.48F,
       1.22F + 1.04F + 1.46F},
  };
  Call call({eCodecG722}, {eCodecPCMA});
  ASSERT_GE(call.open(), 0);
  for (const Counters& c : cases) {
    SCOPED_TRACE(c.name);
    for (int side = 0; side < 2; ++side) {
      sRtpSessionPair& record = call.record();
      record.iPacketsReceived[side] = c.packets;
      record.iPacketsLost[side] = c.lost;
      record.iDelaySum[side] = c.delaySum;
      record.iMaxDelay[side] = c.maxDelay;
      record.iJitterSum[side] = c.jitterSum;
      record.iMaxJitter[side] = c.maxJitter;
    }
    myRtp.calcMOS(call.pair);
    for (int side = 0; side < 2; ++side) {
      const float base = side == 0 ? 4.7F : 4.41F;
      EXPECT_NEAR(call.record().fAvgMos[side], base - c.avgImpairment, 1e-4);
      EXPECT_NEAR(call.record().fMinMos[side], base - c.minImpairment, 1e-4);
    }
  }
}

Packet timed(int sequence, std::uint32_t timestamp, bool marker = false) {
  Packet packet;
  packet.sequence = sequence;
  packet.timestamp = timestamp;
  packet.marker = marker;
  return packet;
}

TEST_F(CallQualityTest, DelayIsArrivalAgainstTimestampSinceTheReference) {
  Clock::freezeAt(1'000'000, 999'000);
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_GE(call.open(), 0);
  const auto pass = [&](std::int64_t waitMs, const Packet& packet) {
    Clock::advanceMicroseconds(waitMs * 1000);
    EXPECT_EQ(call.pass(0, packet), 0);
  };
  pass(0, timed(1, 0));
  pass(20, timed(2, 160));  // in time
  pass(50, timed(3, 320));  // 30 ms late
  pass(0, timed(4, 640));   // 10 ms early against the reference: no delay
  EXPECT_EQ(call.record().iDelaySum[0], 30);
  EXPECT_EQ(call.record().iMaxDelay[0], 30);
  EXPECT_EQ(call.record().iDelayCount[0], 3);
  pass(5000, timed(5, 800));  // a gap counts as one second
  EXPECT_EQ(call.record().iMaxDelay[0], 1000);
  pass(20, timed(6, 960, true));  // a talk spurt is a new reference
  pass(20, timed(7, 1120));
  EXPECT_EQ(call.record().iDelaySum[0], 1030);
  // A clock that was set back measures nothing; a timestamp that jumps back neither.
  pass(-100'000, timed(8, 1280));
  pass(100'000, timed(9, 10));
  EXPECT_EQ(call.record().iDelaySum[0], 1030);
}

TEST_F(CallQualityTest, ReferenceIsRenewedEvery3000Packets) {
  Clock::freezeAt(1'000'000);
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_GE(call.open(), 0);
  for (int i = 0; i <= 3010; ++i) {
    // The sender's clock is slow: every packet is another 20 us later.
    ASSERT_EQ(call.pass(0, timed(1 + i, static_cast<std::uint32_t>(i) * 160)), 0);
    Clock::advanceMicroseconds(20'020);
  }
  EXPECT_EQ(call.record().iMaxDelay[0], 60);
  EXPECT_EQ(call.record().iDelayCount[0], 10);
  EXPECT_EQ(call.record().uRefTimestamp[0], 3000U * 160);
}

TEST_F(CallQualityTest, JitterIsTheAudioThatArrivedAheadOfAPacket) {
  Call call({eCodecPCMU}, {eCodecPCMU});
  ASSERT_GE(call.open(), 0);
  for (const int sequence : {1, 2, 3}) call.pass(0, timed(sequence, 0));
  EXPECT_EQ(call.record().iJitterSum[0], 0);
  for (const int sequence : {5, 6, 7, 4}) call.pass(0, timed(sequence, 0));
  EXPECT_EQ(call.record().iMaxJitter[0], 3 * 160);
  EXPECT_EQ(call.record().iJitterSum[0], 3 * 160);
  for (const int sequence : {9, 11, 10}) call.pass(0, timed(sequence, 0));  // only 11 is ahead of 10
  EXPECT_EQ(call.record().iJitterSum[0], 4 * 160);
  EXPECT_EQ(myRtp.figuresOf(0, call.pair).iMaxJitterMs, 60);
}

// ---- Whole calls, worked out by hand ----

struct Arrival {
  int sequence;
  int atMs;
  std::uint32_t timestamp;
  std::uint32_t ssrc = 1;
  bool marker = false;
};

// Packets of 20 ms, each as late as its lateness says, without the missing ones.
std::vector<Arrival> stream(
    int first, int last, const std::function<bool(int)>& missing,
    const std::function<int(int)>& lateMs = [](int) { return 0; }) {
  std::vector<Arrival> result;
  for (int i = first; i <= last; ++i) {
    if (!missing(i)) result.push_back({i & 0xFFFF, 20 * i + lateMs(i), 160U * static_cast<std::uint32_t>(i)});
  }
  return result;
}
bool none(int) {
  return false;
}

// From packet 11 on 300 ms late.
std::vector<Arrival> jump(std::uint32_t newSource, bool marker) {
  auto result = stream(1, 20, none, [](int i) { return i > 10 ? 300 : 0; });
  for (Arrival& arrival : result) {
    if (arrival.sequence > 10) arrival.ssrc = newSource;
    if (arrival.sequence == 11) arrival.marker = marker;
  }
  return result;
}

// Every second packet changes place with the one behind it: one comes 20 ms early, the other 20 ms late.
std::vector<Arrival> swapped() {
  auto result = stream(1, 100, none);
  for (std::size_t i = 1; i + 1 < result.size(); i += 2) {
    std::swap(result[i], result[i + 1]);
    std::swap(result[i].atMs, result[i + 1].atMs);
  }
  return result;
}

// Packets of 40 ms; the second comes behind the sixth.
std::vector<Arrival> overtaken() {
  std::vector<Arrival> result;
  for (const int sequence : {1, 3, 4, 5, 6, 2, 7, 8}) {
    const int place = static_cast<int>(result.size()) + 1;
    result.push_back({sequence, 40 * place, 320U * static_cast<std::uint32_t>(sequence)});
  }
  return result;
}

struct WorkedCall {
  const char* name;
  std::vector<Arrival> arrivals;
  double lossPercent;
  int avgJitterMs;
  int maxJitterMs;
  int avgDelayMs;
  int maxDelayMs;
  double avgMos;
  double minMos;
  std::size_t payloadBytes = 160;
};

TEST_F(CallQualityTest, FiguresOfWholeCallsAreThoseWorkedOutByHand) {
  const WorkedCall calls[] = {
      {"clean", stream(1, 100, none), 0, 0, 0, 0, 0, 4.41, 4.41},
      // 5 single gaps, 200 packets received: 2.5 %, half-way between 0.2 and 0.31.
      {"2.5 % lost", stream(1, 205, [](int i) { return i % 40 == 20; }), 2.5, 0, 0, 0, 0, 4.155, 4.155},
      // 10 single gaps, 100 packets received.
      {"10 % lost", stream(1, 110, [](int i) { return i % 11 == 5; }), 10, 0, 0, 0, 0, 3.37, 3.37},
      // 49 packets find 20 ms of audio ahead of them, and are 20 ms late themselves: 9.8 ms on average.
      {"swapped pairs", swapped(), 0, 9, 20, 9, 20, 4.41, 4.41},
      // The late one finds 4 x 40 ms ahead, 20 ms over 8 packets; jitter of 160 ms costs 0.48.
      {"overtaken by four", overtaken(), 0, 20, 160, 20, 160, 4.41, 3.93, 320},
      // Ten of 20 packets are 300 ms late: 150 ms on average cost nothing, 300 ms 0.48.
      {"delay jumps", jump(1, false), 0, 0, 0, 150, 300, 4.41, 3.93},
      {"another source is another reference", jump(2, false), 0, 0, 0, 0, 0, 4.41, 4.41},
      {"so is a talk spurt", jump(1, true), 0, 0, 0, 0, 0, 4.41, 4.41},
      {"numbers wrap", stream(65530, 65545, none), 0, 0, 0, 0, 0, 4.41, 4.41},
      {"loss at the wrap is not seen", stream(65530, 65545, [](int i) { return i == 65535; }), 0, 0, 0, 0, 0,
       4.41, 4.41},
  };
  for (const WorkedCall& worked : calls) {
    SCOPED_TRACE(worked.name);
    Call call({eCodecPCMU}, {eCodecPCMA}, worked.name);
    ASSERT_GE(call.open(), 0);
    const int start = worked.arrivals.front().atMs;
    for (const Arrival& arrival : worked.arrivals) {
      // Near the end of a second, every other packet 0.2 ms late: no whole millisecond.
      Clock::freezeAt(1'000'000, 999'900);
      Clock::advanceMicroseconds((arrival.atMs - start) * 1000 + (arrival.sequence + 1) % 2 * 200);
      Packet packet = timed(arrival.sequence, arrival.timestamp, arrival.marker);
      packet.ssrc = arrival.ssrc;
      packet.payload = std::string(worked.payloadBytes, '\xFF');
      ASSERT_EQ(call.pass(0, packet), 0);
    }
    myRtp.calcMOS(call.pair);
    const sCallFigures figures = myRtp.figuresOf(0, call.pair);
    EXPECT_NEAR(figures.fPacketLossPercent, worked.lossPercent, 1e-6);
    EXPECT_EQ(figures.iAvgJitterMs, worked.avgJitterMs);
    EXPECT_EQ(figures.iMaxJitterMs, worked.maxJitterMs);
    EXPECT_EQ(figures.iAvgDelayMs, worked.avgDelayMs);
    EXPECT_EQ(figures.iMaxDelayMs, worked.maxDelayMs);
    EXPECT_NEAR(figures.fAvgMos, worked.avgMos, 1e-5);
    EXPECT_NEAR(figures.fMinMos, worked.minMos, 1e-5);
    call.close();
  }
}

TEST_F(CallQualityTest, ClosingLineCarriesTheFiguresOfBothDirections) {
  Clock::freezeAt(1'000'000);
  ASSERT_TRUE(pcStatisticsFile.assign((installation.bin() / "calls.txt").string()));
  iNeedToDoAEC = 1;
  Call call({eCodecPCMU}, {eCodecPCMU});
  call.request.iCleaningType = 1;
  ASSERT_GE(call.open(), 0);
  for (const int sequence : {1, 2, 4, 5, 6, 7, 8}) call.pass(0, timed(sequence, 0, sequence == 1));
  for (int i = 0; i < 50; ++i) call.pass(1, timed(1 + i, 0));
  ASSERT_EQ(call.close(), 0);
  const std::time_t now = 1'000'000;
  const std::string date = ctime(&now);
  EXPECT_EQ(TestInstallation::read(pcStatisticsFile.c_str()),
            date + " Open session (0): alice@127.0.0.1<->bob@127.0.0.1\n" + date +
                " Closed session (0) (0 seconds). alice@127.0.0.1->bob@127.0.0.1:  Confident Voice (48%) "
                "Avg Noise (40) Max Noise (40) Avg AGC (150) Max AGC (150) Avg Echo (9) Max Echo (9) "
                "Avg Jitter (0 ms) Max Jitter (0 ms) Packet Loss (14.29%) Avg Delay (0 ms) Max Delay (0 ms) "
                "Avg MOS (3.37) Min MOS (3.37) CallID (call-leg0). bob@127.0.0.1->alice@127.0.0.1: "
                "Confident Voice (100%) Avg Noise (0) Max Noise (0) Avg AGC (100) Max AGC (100) Avg Echo (0) "
                "Max Echo (0) Avg Jitter (0 ms) Max Jitter (0 ms) Packet Loss (0.00%) Avg Delay (0 ms) "
                "Max Delay (0 ms) Avg MOS (4.41) Min MOS (4.41) CallID (call-leg1)\n");
}

}  // namespace
