// A SIP load generator that plays caller and callee of every call in one thread: INVITE, 100, 180, 200, ACK,
// BYE, 200, through whatever stands between the two phones. Calls start evenly spaced, not in bursts; the
// callee answers at once; every transaction has the timers of a correct user agent (RFC 3261 section 17.1.1.2
// and 17.1.2.2, T1 = 500 ms), and what they had to repeat is counted.
//
// Delays are measured with the kernel's arrival stamps, so a late wake-up of the generator shows in its own
// lateness figure and not in the delay of the target.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "bench/LoadMessages.h"
#include "bench/LoadSocket.h"

struct LoadOptions {
  int targetPort = 0;
  load_messages::Run run;
  double rate = 100;  // calls a second
  int calls = 1000;   // to be started
  int limit = 126;    // calls up at the same time; a call that would exceed it is not started
  Nanoseconds talkTime = 3 * kMillisecond;  // between ACK and BYE
  bool hold = false;                        // no BYE before hangUp()
  int mediaPortBase = 29000;                // call i: caller base + 4 (i mod 256), callee 2 above it
};

// Delays in nanoseconds, one entry per call.
struct LoadReport {
  int started = 0;
  int completed = 0;  // every message of both legs arrived
  int failed = 0;
  int heldBack = 0;  // not started because `limit` calls were up
  int inviteRepeats = 0;
  int okRepeats = 0;
  int byeRepeats = 0;
  int duplicates = 0;  // messages that the target repeated
  int unexpected = 0;
  int tryings = 0;
  int lastRefusal = 0;  // status code
  int peakCalls = 0;
  std::vector<Nanoseconds> inviteToRinging;
  std::vector<Nanoseconds> insideTarget;  // the same without the callee's share
  std::vector<Nanoseconds> lateness;      // of the generator's own call starts

  int repeats() const { return inviteRepeats + okRepeats + byeRepeats; }
};

class SipLoad {
 public:
  // Binds both phones' sockets. Throws std::runtime_error.
  explicit SipLoad(LoadOptions options);

  // Starts all calls and serves them until none is left, or with `hold` until all are up or have failed.
  void run();
  // Held calls: serves both sockets until `descriptor` becomes readable or closes, or the time is over.
  void serveUntil(int descriptor, Nanoseconds duration);
  // Ends held calls.
  void hangUp();

  const LoadReport& report() const { return results; }
  std::uint32_t droppedByOwnSockets() const { return caller.dropped() + callee.dropped(); }

  // Media ports of a call: what each phone announced and what the target announced to it.
  struct MediaPorts {
    int callerLocal = 0;
    int towardsCaller = 0;
    int calleeLocal = 0;
    int towardsCallee = 0;
    bool up = false;
  };
  MediaPorts mediaPorts(int call) const;

 private:
  enum class CallerState { eIdle, eInviting, eProceeding, eTalking, eLeaving, eDone, eFailed };
  enum class CalleeState { eIdle, eAnswered, eConfirmed, eDone };
  enum class TimerKind { eInvite, eOk, eBye };

  struct Call {
    CallerState caller = CallerState::eIdle;
    CalleeState callee = CalleeState::eIdle;
    bool tryingSeen = false;
    bool ringingSeen = false;
    int towardsCaller = 0;
    int towardsCallee = 0;
    Nanoseconds started = 0;
    Nanoseconds inviteArrived = 0;
    Nanoseconds ringingSent = 0;
    load_messages::Dialog dialog;
    std::string okText;  // kept until the ACK
    sockaddr_in okDestination{};
  };
  struct Timer {
    Nanoseconds due = 0;
    int call = 0;
    TimerKind kind = TimerKind::eInvite;
  };

  void startDueCalls(Nanoseconds now);
  void startCall(int number, Nanoseconds now, Nanoseconds due);
  void endTalks(Nanoseconds now);
  void runTimers(Nanoseconds now);
  void runTimer(const Timer& timer, Nanoseconds now);
  void startTimer(int call, TimerKind kind, Nanoseconds now);
  Nanoseconds nextEvent() const;
  void waitForEvent(Nanoseconds until, int extraDescriptor);
  void serveSockets();
  bool finished() const;

  void callerReceives(const LoadSocket::Datagram& datagram);
  void callerReceivesInviteAnswer(int number, Call& call, int status, const LoadSocket::Datagram& datagram);
  void callerReceivesRinging(Call& call, Nanoseconds arrival);
  void callerReceivesOk(int number, Call& call, std::string_view text);
  void callerReceivesRefusal(int number, Call& call, int status, std::string_view text);
  void calleeReceives(const LoadSocket::Datagram& datagram);
  void calleeReceivesInvite(int number, Call& call, const LoadSocket::Datagram& datagram);
  void calleeReceivesAck(Call& call);
  void calleeReceivesBye(int number, Call& call, const LoadSocket::Datagram& datagram);

  Call* findCall(std::string_view message, int& number);
  void sendBye(int number, Call& call);
  void endCall(Call& call, CallerState state);
  int callerMediaPort(int call) const { return options.mediaPortBase + 4 * (call % 256); }

  LoadOptions options;
  LoadSocket caller;
  LoadSocket callee;
  sockaddr_in target{};
  std::vector<Call> calls;
  LoadReport results;
  int nextCall = 0;
  int callsUp = 0;
  Nanoseconds firstStart = 0;
  // Every timer runs for T1, every talk for the talk time: first in is first due.
  std::deque<Timer> timers;
  std::deque<Timer> talks;
};
