// What a bad day does to a running process: a log that cannot be written, a full disk, no descriptors, taken
// ports. It lives on, says what happened where it can, and is as before when the fault is over.
#include <sys/resource.h>

#include "tests/calls/support/RtpPeer.h"
#include "tests/calls/support/TalkFixture.h"

namespace {

class FaultTest : public TalkFixture {
 protected:
  std::filesystem::path log() const { return scratch.path() / "log" / ("errLog" + quorvel->instanceName()); }

  // The soft limit of the running process; the hard one stays, so that it can be raised again.
  void limit(__rlimit_resource what, rlim_t value) {
    rlimit now{};
    ASSERT_EQ(prlimit(quorvel->process().pid(), what, nullptr, &now), 0);
    now.rlim_cur = std::min(value, now.rlim_max);
    ASSERT_EQ(prlimit(quorvel->process().pid(), what, &now, nullptr), 0);
  }
  long descriptors() const {
    const std::filesystem::path folder = "/proc/" + std::to_string(quorvel->process().pid()) + "/fd";
    return std::distance(std::filesystem::directory_iterator(folder), {});
  }
};

TEST_F(FaultTest, CallsGoOnWithoutALog) {
  start();
  const Call call = setUp(1);
  const std::filesystem::path folder = scratch.path() / "log", away = scratch.path() / "log-away";
  std::filesystem::rename(folder, away);  // the directory vanishes
  hangUp(call);
  hangUp(setUp(2));
  std::filesystem::rename(away, folder);
  hangUp(setUp(3));
  EXPECT_TRUE(quorvel->logged("talk-3@"));
  EXPECT_EQ(quorvel->logCount("talk-2@"), 0);

  std::filesystem::rename(log(), folder / "before");
  std::filesystem::create_symlink("/dev/full", log());  // the disk is full
  hangUp(setUp(4));
  quorvel->process().signal(SIGHUP);  // a record from a signal handler
  EXPECT_EQ(quorvel->activeCalls(), 0);
  std::filesystem::remove(log());
  hangUp(setUp(5));
  EXPECT_TRUE(quorvel->logged("talk-5@"));
}

TEST_F(FaultTest, CallsGoOnWhenNoFileCanGrow) {
  std::filesystem::create_directories(scratch.path() / "bin");
  std::filesystem::create_symlink("/dev/full", scratch.path() / "bin" / "statistics");
  start({{"StatisticsFile", "statistics"},
         {"RealTimeAverageStatisticsFile", "average.html"},
         {"RefreshRateOfRealTimeStatistics", "2"}});
  RtpPeer first(ports.media(0)), second(ports.media(1));
  const Call call = setUp(1);
  ASSERT_TRUE(first.isHeardBy(second, call.ok, kSteadyPcmu, kSteadyPcmu));
  limit(RLIMIT_FSIZE, 0);  // log and pages
  const std::size_t logged = quorvel->log().size();
  hangUp(call);
  const Call other = setUp(2);
  EXPECT_TRUE(first.isHeardBy(second, other.ok, kSteadyPcmu, kSteadyPcmu));
  hangUp(other);
  EXPECT_EQ(quorvel->log().size(), logged);
  limit(RLIMIT_FSIZE, RLIM_INFINITY);
  hangUp(setUp(3));
  EXPECT_TRUE(quorvel->logged("unable to write to statistics file "));
}

TEST_F(FaultTest, ACallWithoutDescriptorsHarmsNoOtherAndGetsItsMediaLater) {
  start();
  RtpPeer first(ports.media(0)), second(ports.media(1));
  const Call running = setUp(1);
  limit(RLIMIT_NOFILE, static_cast<rlim_t>(descriptors() + 2));  // too few for four sockets
  const Call starved = setUp(2);
  EXPECT_TRUE(quorvel->logged("ERROR in MyRtp::openSessionPair, unable to create socket"));
  EXPECT_TRUE(first.isHeardBy(second, running.ok, kSteadyPcmu, kSteadyPcmu));
  limit(RLIMIT_NOFILE, RLIM_INFINITY);
  EXPECT_TRUE(first.isHeardBy(second, starved.ok, kSteadyPcmu, kSteadyPcmu))
      << "opened again within a second";
  hangUp(running);
  hangUp(starved);
}

TEST_F(FaultTest, ACallOnTakenPortsSaysSoAndGetsItsMediaLater) {
  start();
  RtpPeer first(ports.media(0)), second(ports.media(1));
  auto thief = std::make_unique<LoopbackPeer>(ports.relay());
  const Call call = setUp(1);
  EXPECT_TRUE(quorvel->logged("Verify no other program uses port " + std::to_string(ports.relay())));
  thief.reset();
  EXPECT_TRUE(first.isHeardBy(second, call.ok, kSteadyPcmu, kSteadyPcmu));
  hangUp(call);
}

}  // namespace
