// The main loop and its one-second maintenance tick, and shutdown.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "rtp/sRtpSessionPair.h"
#include "sip/MySip.h"

namespace {

constexpr int kPassMilliseconds = 1000;
constexpr double kTickSeconds = 1.0;
constexpr double kClockMovedBackSeconds = -30.0;
constexpr std::int64_t kClockRoundingSeconds = 1;  // between the whole seconds of two clocks
constexpr double kShutdownSeconds = 2.0;
constexpr double kRegistrationRetrySeconds = 5.0;  // until every identity is active
constexpr double kReleaseSeconds = 60.0;
constexpr double kSetUpSeconds = 60.0;
constexpr int kMaxSelectErrors = 100;
// When the socket fails for good, the loop must neither take a whole core nor fill the disk with a record per
// pass: 20 a second. A tenth of the 500 ms after which peers repeat, for what it still receives.
constexpr useconds_t kPauseAfterFailureMicroseconds = 50'000;
// Writing 4 MiB to the page cache takes some 5 ms, which is what a message waits at most; a table of 180
// phones without subscriptions is saved in one pass.
constexpr std::size_t kBindingBytesPerPass = 4 * 1024 * 1024;

bool hasPassed(std::time_t since, double seconds) {
  return difftime(Clock::now(), since) >= seconds;
}

}  // namespace

void MySip::mainLoop() {
  try {
    while (mainLoopPass(kPassMilliseconds)) {
    }
  } catch (...) {
    Log::error("MySip::mainLoop", "exception caught");
    _exit(1);  // media threads still run: no destructors
  }
}

// Under load a message is nearly always waiting: reading first spares a select per message.
bool MySip::mainLoopPass(int waitMilliseconds) {
  if (bDuringShutdown) {
    if (bNeedToInitiateShutdown) {
      initiateShutdown();
      bNeedToInitiateShutdown = false;
    }
    if (difftime(Clock::steadyTime().tv_sec, sTimeStartShutDown) >= kShutdownSeconds) return false;
  }
  if (!maintainTimers()) return false;
  const bool wasIdle = !receiveMessage();
  if (isSavingBindings()) {
    (void)continueSavingBindings(kBindingBytesPerPass);
  } else if (wasIdle) {
    waitForMessage(waitMilliseconds);
  }
  return true;
}

void MySip::waitForMessage(int milliseconds) {
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(iSocket.get(), &readable);
  timeval timeout{milliseconds / 1000, (milliseconds % 1000) * 1000};
  if (select(iSocket.get() + 1, &readable, nullptr, nullptr, &timeout) < 0 && errno != EINTR) {
    Log::error("MySip::mainLoop", "error in select %s\n", std::strerror(errno));
    usleep(kPauseAfterFailureMicroseconds);
  }
}

// False when nothing was waiting.
bool MySip::receiveMessage() {
  sockaddr_in from{};
  socklen_t size = sizeof from;
  ssize_t length;
  do {
    length = recvfrom(iSocket.get(), pcReceiveBuffer.data(), kMaxMessageLength, MSG_TRUNC,
                      reinterpret_cast<sockaddr*>(&from), &size);
  } while (length < 0 && errno == EINTR);
  if (length < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
    Log::warning("MySip::mainLoop", "unable to read socket %s\n", std::strerror(errno));
    usleep(kPauseAfterFailureMicroseconds);
    return false;
  }
  if (length > kMaxMessageLength) {
    Log::warning("MySip::mainLoop", "message of %zd bytes cut to %d\n", length, kMaxMessageLength);
    length = kMaxMessageLength;
  }
  // Messages are text: a NUL byte ends them. An empty datagram is none.
  const auto bytes = static_cast<std::size_t>(length);
  const std::span<char> text(pcReceiveBuffer.data(), strnlen(pcReceiveBuffer.data(), bytes));
  unfoldHeaders(text);
  if (bytes > 0) analyzeSipMessage({text.data(), text.size()}, from);
  return true;
}

// When the date is set, all stamps from which time is counted are set with it: no call, registration or
// binding ends or lasts for that reason.
void MySip::followDate(std::time_t now) {
  const std::int64_t offset = now - Clock::steadyTime().tv_sec;
  const std::int64_t moved = offset - iDateOffset.value_or(offset);
  if (iDateOffset && std::abs(moved) <= kClockRoundingSeconds) return;
  iDateOffset = offset;
  if (moved == 0) return;
  Log::info("MySip::mainLoop", "The date of the server was set by %lld seconds\n",
            static_cast<long long>(moved));
  moveStamps(moved);
  // Further back, the tick finds it out itself and begins anew.
  if (moved < 0 && static_cast<double>(moved) >= kClockMovedBackSeconds) {
    for (std::time_t* timer : {&sTimeLastTick, &sTimeLastRegistrationCheck, &sTimeLastStatistics})
      *timer += moved;
  }
}

void MySip::moveStamps(std::int64_t seconds) {
  // A stamp that a binding file brought may be any number: without a sign it may wrap round.
  const auto move = [seconds](std::int64_t& stamp) {
    if (stamp != 0)
      stamp =
          static_cast<std::int64_t>(static_cast<std::uint64_t>(stamp) + static_cast<std::uint64_t>(seconds));
  };
  move(sTrunk.sTimeLastRegistration);
  for (int slot = 0; slot < iNumSlots; ++slot) {
    sPhone& leg = phone(slot);
    move(leg.sTimeCallStart);
    move(leg.sTimeTerminationStart);
    move(leg.sTimeLastRegistration);
  }
  for (int binding = 0; binding < iNumBindings; ++binding) {
    sBinding& record = bindingAt(binding);
    move(record.tConfirmedExpiry);
    move(record.tRequestedExpiry);
    for (int entry = 0; entry < record.iNumSubscriptions; ++entry) {
      move(record.subscription(entry).tConfirmedExpiry);
      move(record.subscription(entry).tRequestedExpiry);
    }
    bindingChanged(binding);
  }
}

bool MySip::maintainTimers() {
  const std::time_t now = Clock::now();
  if (now < sTimeLastTick || difftime(now, sTimeLastTick) >= kTickSeconds) followDate(now);
  const double sinceTick = difftime(now, sTimeLastTick);
  if (sinceTick >= kTickSeconds) {
    sTimeLastTick = now;
    Log::rememberTimeZone();
    return bDuringShutdown ? (repeatByes(), true) : maintenanceTick();
  }
  if (sinceTick < kClockMovedBackSeconds && !bDuringShutdown) {
    Log::info("MySip::mainLoop",
              "The date of the server was moved backwards. Going to reset the maintenance timers.\n");
    sTimeLastTick = sTimeLastRegistrationCheck = sTimeLastStatistics = now;
  }
  return true;
}

bool MySip::maintenanceTick() {
  checkReadiness();
  if (bAllPhonesActive) {
    refreshRegistrations();
  } else if (hasPassed(sTimeLastRegistrationCheck, kRegistrationRetrySeconds)) {
    sTimeLastRegistrationCheck = Clock::now();
    refreshRegistrations();
  }
  cleanupExpiredBindingsAndSubscriptions();
  sweepReleases();
  sweepSetUps();
  sweepMedia();
  reportTroubles();
  if (pGenerateStatistics != nullptr &&
      (!pcRealTimeExtremeStatisticsFile.empty() || !pcRealTimeAverageStatisticsFile.empty()) &&
      hasPassed(sTimeLastStatistics, iRefreshRateOfRealTimeStatistics / 2)) {
    sTimeLastStatistics = Clock::now();
    pGenerateStatistics();
  }
  if (myConfiguration.readTmpFile() != 0) {
    Log::error("MySip::mainLoop", "error reading tmp file\n");
    return false;
  }
  beginSavingBindings();
  repeatByes();
  return true;
}

void MySip::checkReadiness() {
  if (bAllPhonesActive) return;
  if (sTrunk.sTimeLastRegistration == 0) return;
  for (int slot = 0; slot < iNumSlots; ++slot) {
    if (phone(slot).sTimeLastRegistration == 0) return;
  }
  bAllPhonesActive = true;
  Log::info("MySip::mainLoop", "All phones are active\n");
}

void MySip::sweepReleases() {
  for (int orig = 0; orig < numOrigSlots(); ++orig) {
    const sPhone& leg = phone(orig);
    if (leg.bInUse && leg.bTerminating && hasPassed(leg.sTimeTerminationStart, kReleaseSeconds))
      releaseCall(orig);
  }
}

void MySip::noteGivenUp(const sPhone& caller, const sPhone& called) {
  if (called.bPeerHeard || !called.bInviteSentByUs) return;
  ++troubles.iUnanswered;
  troubles.pcCaller = caller.pcRemoteSipName;
  troubles.pcDestination = called.pcRemoteSipName;
}

void MySip::sweepSetUps() {
  for (int orig = 0; orig < numOrigSlots(); ++orig) {
    const sPhone& leg = phone(orig);
    if (leg.bInUse && !leg.bMediaEstablished && !leg.bTerminating &&
        hasPassed(leg.sTimeCallStart, kSetUpSeconds)) {
      noteGivenUp(leg, partnerOf(orig));
      markTerminating(orig);
    }
  }
}

void MySip::sweepMedia() {
  const auto hasMedia = [](const sPhone& leg) {
    return leg.bInUse && leg.bMediaEstablished && !leg.bTerminating;
  };
  for (int orig = 0; orig < numOrigSlots(); ++orig) {
    if (!hasMedia(phone(orig)) || !hasMedia(partnerOf(orig))) continue;
    const sRelayKey key = relayKeyOf(phone(orig).iPairIndex, orig);
    const int index = myRtp.findRtpIndex(key.pcFirst, key.pcSecond);
    if (index >= 0) checkMedia(orig, myRtp.psPairs[static_cast<std::size_t>(index)]);
  }
}

void MySip::checkMedia(int orig, const sRtpSessionPair& pair) {
  constexpr const char* kFunction = "MySip::mainLoop";
  const int partner = phone(orig).iPairIndex;
  const bool onHold = phone(orig).bOnHold || phone(partner).bOnHold;
  const int limit = onHold ? iRTPTimeoutWhenOnHoldInSeconds : iRTPTimeoutInSeconds;
  const auto cancel = [&](int seconds) {
    Log::warning(kFunction,
                 "going to cancel call (OnHold=%s) due to RTP/RTCP inactivity (%d) between %s and %s\n",
                 onHold ? "true" : "false", seconds, phone(orig).pcRemoteSipName.c_str(),
                 phone(partner).pcRemoteSipName.c_str());
    initiateCallTermination(orig);
  };
  int& secondsWithout = phone(orig).iSecondsWithoutMedia;
  if (!pair.bThreadRunning) {
    if (++secondsWithout > limit)  // nobody can hear when both have gone
      cancel(secondsWithout - 1);
    else
      restartRtpSession(orig, partner);
    return;
  }
  secondsWithout = 0;
  if (const auto errors = pair.iSelectErrors.read(); errors && *errors > kMaxSelectErrors) {
    Log::warning(kFunction, "going to cancel call due to many select errors %d %d\n", orig, partner);
    markTerminating(orig);
    closeRtpSessionPair(orig, partner);
    return;
  }
  for (const PublishedCounter& side : pair.iInactiveSeconds) {
    const auto seconds = side.read();
    if (!seconds || *seconds < limit) continue;
    cancel(*seconds);
    return;
  }
}

void MySip::repeatByes() {
  for (int orig = 0; orig < numOrigSlots(); ++orig) {
    const sPhone& leg = phone(orig);
    if (leg.bInUse && leg.bTerminating && leg.bByePending) initiateCallTermination(orig);
  }
}

void MySip::initiateShutdown() {
  for (int orig = 0; orig < numOrigSlots(); ++orig) initiateCallTermination(orig);  // both legs of each call
  const auto withdraw = [this](sPhone& identity) {
    if (identity.bShouldRegister && identity.sTimeLastRegistration != 0) sendRegistration(identity, 0);
  };
  if (bTrunkExists) withdraw(sTrunk);
  for (int slot = 0; slot < iNumSlots; ++slot) withdraw(phone(slot));
}
