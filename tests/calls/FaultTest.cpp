// What a bad day does to a running process: a log that cannot be written, a full disk, a reader that does not
// read, no descriptors, no memory for threads, taken ports. It lives on, says what happened where it can, and
// is as before when the fault is over.
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

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
  // A named pipe that holds as much as it can, so that a write that waited would wait for ever.
  static FileDescriptor fullPipe(const std::filesystem::path& path) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    FileDescriptor pipe(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const std::string block(4096, 'x');
    while (write(pipe.get(), block.data(), block.size()) > 0) continue;
    return pipe;
  }
  rlim_t addressSpace() const {
    std::ifstream file("/proc/" + std::to_string(quorvel->process().pid()) + "/statm");
    rlim_t pages = 0;
    file >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
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
  const std::filesystem::path unread = folder / "unread";
  const FileDescriptor pipe = fullPipe(unread);
  for (const std::filesystem::path& place : {std::filesystem::path("/dev/full"), unread}) {
    std::filesystem::create_symlink(place, log());
    hangUp(setUp(place == unread ? 6 : 4));
    quorvel->process().signal(SIGHUP);  // a record from a signal handler
    EXPECT_EQ(quorvel->activeCalls(), 0);
    std::filesystem::remove(log());
  }
  hangUp(setUp(5));
  EXPECT_TRUE(quorvel->logged("talk-5@"));
}

TEST_F(FaultTest, CallsGoOnWhenNoFileCanGrow) {
  std::filesystem::create_directories(scratch.path() / "bin");
  std::filesystem::create_symlink("/dev/full", scratch.path() / "bin" / "statistics");
  const FileDescriptor pipe = fullPipe(scratch.path() / "bin" / "unread");
  start({{"StatisticsFile", "statistics"},
         {"RealTimeAverageStatisticsFile", "average.html"},
         {"RealTimeExtremeStatisticsFile", "unread"},
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

TEST_F(FaultTest, ACallWithoutDescriptorsOrAThreadHarmsNoOtherAndGetsItsMediaLater) {
  start();
  RtpPeer first(ports.media(0)), second(ports.media(1));
  const Call running = setUp(1);
  const auto starve = [&](__rlimit_resource what, rlim_t most, int number, const char* message) {
    limit(what, most);
    const Call starved = setUp(number);
    EXPECT_TRUE(quorvel->logged("ERROR in MyRtp::openSessionPair, " + std::string(message)));
    EXPECT_TRUE(first.isHeardBy(second, running.ok, kSteadyPcmu, kSteadyPcmu));
    limit(what, RLIM_INFINITY);
    EXPECT_TRUE(first.isHeardBy(second, starved.ok, kSteadyPcmu, kSteadyPcmu))
        << "opened again within a second";
    hangUp(starved);
  };
  // Too little address space for a thread's stack (before an ended thread leaves its own); too few
  // descriptors for four sockets.
  if (!QuorvelProcess::isSanitized())
    starve(RLIMIT_AS, addressSpace() + 1'000'000, 2, "unable to create thread");
  starve(RLIMIT_NOFILE, static_cast<rlim_t>(descriptors() + 2), 3, "unable to create socket");
  hangUp(running);
}

TEST_F(FaultTest, AStartWithoutMemorySaysSo) {
  if (QuorvelProcess::isSanitized()) GTEST_SKIP() << "a sanitizer needs terabytes of addresses";
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &usual), 0);
  const rlimit little{200'000'000, usual.rlim_max};  // the table of phones alone is larger
  ASSERT_EQ(setrlimit(RLIMIT_AS, &little), 0);
  quorvel = std::make_unique<QuorvelProcess>(scratch.path(), ports);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &usual), 0);
  EXPECT_EQ(quorvel->process().wait(Seconds(10)), 1);
  EXPECT_EQ(quorvel->logCount("ERROR in MySip::init, Unable to allocate\n"), 1);
}

TEST_F(FaultTest, ACallOnTakenPortsSaysSoAndGetsItsMediaLater) {
  start();
  RtpPeer first(ports.media(0)), second(ports.media(1));
  auto thief = std::make_unique<LoopbackPeer>(ports.relay());
  const Call call = setUp(1);
  EXPECT_TRUE(quorvel->logged("Verify no other program uses port " + std::to_string(ports.relay())));
  thief.reset();
  EXPECT_TRUE(first.isHeardBy(second, call.ok, kSteadyPcmu, kSteadyPcmu));
  EXPECT_EQ(quorvel->logCount("did not find match in statistics"), 0) << "for what never was open";
  hangUp(call);
}

}  // namespace
