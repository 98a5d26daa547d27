#include "bench/SipLoad.h"

#include <algorithm>
#include <limits>
#include <poll.h>

namespace {

constexpr Nanoseconds kT1 = 500 * kMillisecond;       // RFC 3261 section 17.1.1.1
constexpr Nanoseconds kGiveUp = 8 * kT1;              // RFC 3261 waits 64 T1; a load run has no use for that
constexpr Nanoseconds kLeadTime = 20 * kMillisecond;  // before the first call, so that it is not late

}  // namespace

using load_messages::answer;

SipLoad::SipLoad(LoadOptions wanted)
    : options(std::move(wanted)),
      caller(options.run.callerPort),
      callee(options.run.calleePort),
      target(loopback(options.targetPort)),
      calls(static_cast<std::size_t>(options.calls)) {
  results.inviteToRinging.reserve(calls.size());
  results.insideTarget.reserve(calls.size());
  results.lateness.reserve(calls.size());
}

// ---- Driving ----

void SipLoad::run() {
  firstStart = wallClock() + kLeadTime;
  while (!finished()) {
    const Nanoseconds now = wallClock();
    startDueCalls(now);
    endTalks(now);
    runTimers(now);
    waitForEvent(nextEvent(), -1);
    serveSockets();
  }
}

void SipLoad::serveUntil(int descriptor, Nanoseconds duration) {
  const Nanoseconds end = wallClock() + duration;
  pollfd wake{.fd = descriptor, .events = POLLIN, .revents = 0};
  while (wallClock() < end && poll(&wake, 1, 0) == 0) {
    runTimers(wallClock());
    waitForEvent(std::min(end, nextEvent()), descriptor);
    serveSockets();
  }
}

void SipLoad::hangUp() {
  options.hold = false;
  for (int number = 0; number < nextCall; ++number)
    if (calls[static_cast<std::size_t>(number)].caller == CallerState::eTalking)
      talks.push_back({.due = 0, .call = number, .kind = TimerKind::eBye});
  run();
}

bool SipLoad::finished() const {
  if (nextCall < options.calls) return false;
  if (callsUp == 0) return true;
  return options.hold && std::none_of(calls.begin(), calls.end(), [](const Call& call) {
           return call.caller == CallerState::eInviting || call.caller == CallerState::eProceeding ||
                  call.callee == CalleeState::eAnswered;
         });
}

void SipLoad::startDueCalls(Nanoseconds now) {
  while (nextCall < options.calls) {
    const Nanoseconds due = firstStart + static_cast<Nanoseconds>(nextCall * (kSecond / options.rate));
    if (due > now) return;
    startCall(nextCall++, wallClock(), due);
  }
}

void SipLoad::startCall(int number, Nanoseconds now, Nanoseconds due) {
  Call& call = calls[static_cast<std::size_t>(number)];
  if (callsUp >= options.limit) {
    ++results.heldBack;
    return;
  }
  const std::string text = load_messages::invite(options.run, number, callerMediaPort(number));
  call.caller = CallerState::eInviting;
  call.started = wallClock();
  results.lateness.push_back(now - due);
  results.peakCalls = std::max(results.peakCalls, ++callsUp);
  ++results.started;
  caller.send(text, target);
  startTimer(number, TimerKind::eInvite, call.started);
}

void SipLoad::endTalks(Nanoseconds now) {
  while (!talks.empty() && talks.front().due <= now) {
    const int number = talks.front().call;
    talks.pop_front();
    Call& call = calls[static_cast<std::size_t>(number)];
    if (call.caller != CallerState::eTalking) continue;
    call.caller = CallerState::eLeaving;
    sendBye(number, call);
  }
}

void SipLoad::sendBye(int number, Call& call) {
  caller.send(load_messages::bye(options.run, number, call.dialog), target);
  startTimer(number, TimerKind::eBye, wallClock());
}

void SipLoad::startTimer(int call, TimerKind kind, Nanoseconds now) {
  timers.push_back({.due = now + kT1, .call = call, .kind = kind});
}

void SipLoad::runTimers(Nanoseconds now) {
  while (!timers.empty() && timers.front().due <= now) {
    const Timer timer = timers.front();
    timers.pop_front();
    runTimer(timer, now);
  }
}

void SipLoad::runTimer(const Timer& timer, Nanoseconds now) {
  Call& call = calls[static_cast<std::size_t>(timer.call)];
  const bool pending = timer.kind == TimerKind::eOk ? call.callee == CalleeState::eAnswered
                       : timer.kind == TimerKind::eBye
                           ? call.caller == CallerState::eLeaving
                           : call.caller == CallerState::eInviting || call.caller == CallerState::eProceeding;
  if (!pending) return;
  if (timer.kind != TimerKind::eOk && now - call.started > kGiveUp + options.talkTime) {
    endCall(call, CallerState::eFailed);
    return;
  }
  if (timer.kind == TimerKind::eOk) {
    if (call.caller == CallerState::eDone || call.caller == CallerState::eFailed) return;
    ++results.okRepeats;
    callee.send(call.okText, call.okDestination);
  } else if (timer.kind == TimerKind::eBye) {
    ++results.byeRepeats;
    caller.send(load_messages::bye(options.run, timer.call, call.dialog), target);
  } else if (call.caller == CallerState::eInviting) {
    ++results.inviteRepeats;
    caller.send(load_messages::invite(options.run, timer.call, callerMediaPort(timer.call)), target);
  }
  startTimer(timer.call, timer.kind, now);
}

Nanoseconds SipLoad::nextEvent() const {
  Nanoseconds next = std::numeric_limits<Nanoseconds>::max();
  if (nextCall < options.calls)
    next = firstStart + static_cast<Nanoseconds>(nextCall * (kSecond / options.rate));
  if (!talks.empty()) next = std::min(next, talks.front().due);
  if (!timers.empty()) next = std::min(next, timers.front().due);
  return next;
}

void SipLoad::waitForEvent(Nanoseconds until, int extraDescriptor) {
  pollfd ready[3] = {{.fd = caller.descriptor(), .events = POLLIN, .revents = 0},
                     {.fd = callee.descriptor(), .events = POLLIN, .revents = 0},
                     {.fd = extraDescriptor, .events = POLLIN, .revents = 0}};  // -1 is passed over
  const Nanoseconds now = wallClock();
  if (until <= now) return;
  const Nanoseconds wait = std::min(until - now, kSecond);
  const timespec timeout{.tv_sec = wait / kSecond, .tv_nsec = wait % kSecond};
  ppoll(ready, 3, &timeout, nullptr);
}

// The sockets in turn, so that neither phone waits for the other's backlog; a call that falls due meanwhile
// starts in time.
void SipLoad::serveSockets() {
  for (bool more = true; more;) {
    more = false;
    if (const auto datagram = callee.receive()) {
      calleeReceives(*datagram);
      more = true;
    }
    if (const auto datagram = caller.receive()) {
      callerReceives(*datagram);
      more = true;
    }
    if (nextCall < options.calls && nextEvent() <= wallClock()) return;
  }
}

// ---- The caller ----

SipLoad::Call* SipLoad::findCall(std::string_view message, int& number) {
  const auto found = load_messages::callNumberOf(message);
  if (!found || *found < 0 || *found >= options.calls) return nullptr;
  number = *found;
  return &calls[static_cast<std::size_t>(number)];
}

void SipLoad::callerReceives(const LoadSocket::Datagram& datagram) {
  int number = 0;
  Call* const call = findCall(datagram.text, number);
  const int status = load_messages::statusOf(datagram.text);
  if (call == nullptr || status == 0 ||
      load_messages::header(datagram.text, "Call-ID") != load_messages::callId(options.run, number)) {
    ++results.unexpected;
    return;
  }
  const std::string_view transaction = load_messages::transactionOf(datagram.text);
  if (transaction == "INVITE") {
    callerReceivesInviteAnswer(number, *call, status, datagram);
  } else if (transaction == "BYE" && status == 200) {
    if (call->caller == CallerState::eLeaving)
      endCall(*call, call->callee == CalleeState::eDone && call->ringingSeen ? CallerState::eDone
                                                                             : CallerState::eFailed);
    else
      ++results.duplicates;
  } else {
    ++results.unexpected;
  }
}

void SipLoad::callerReceivesInviteAnswer(int number, Call& call, int status,
                                         const LoadSocket::Datagram& datagram) {
  if (call.caller == CallerState::eInviting) call.caller = CallerState::eProceeding;
  if (status == 100) {
    (call.tryingSeen ? results.duplicates : results.tryings)++;
    call.tryingSeen = true;
  } else if (status == 180) {
    callerReceivesRinging(call, datagram.arrival);
  } else if (status == 200) {
    callerReceivesOk(number, call, datagram.text);
  } else if (status >= 300) {
    callerReceivesRefusal(number, call, status, datagram.text);
  } else {
    ++results.unexpected;
  }
}

void SipLoad::callerReceivesRinging(Call& call, Nanoseconds arrival) {
  if (call.ringingSeen) {
    ++results.duplicates;
    return;
  }
  call.ringingSeen = true;
  results.inviteToRinging.push_back(arrival - call.started);
  results.insideTarget.push_back(arrival - call.ringingSent + call.inviteArrived - call.started);
}

void SipLoad::callerReceivesOk(int number, Call& call, std::string_view text) {
  const bool first = call.caller == CallerState::eProceeding;
  if (first) {
    call.dialog = load_messages::dialogOf(text);
    call.towardsCaller = load_messages::mediaAddressOf(text).port;
    call.caller = CallerState::eTalking;
  } else {
    ++results.duplicates;
    if (call.caller == CallerState::eFailed) return;
  }
  caller.send(load_messages::ack(options.run, number, call.dialog), target);
  if (first && !options.hold)
    talks.push_back({.due = wallClock() + options.talkTime, .call = number, .kind = TimerKind::eBye});
}

void SipLoad::callerReceivesRefusal(int number, Call& call, int status, std::string_view text) {
  results.lastRefusal = status;
  caller.send(load_messages::ackOfRefusal(options.run, number, text), target);
  if (call.caller == CallerState::eProceeding)
    endCall(call, CallerState::eFailed);
  else
    ++results.duplicates;
}

void SipLoad::endCall(Call& call, CallerState state) {
  call.caller = state;
  call.okText = std::string();
  --callsUp;
  ++(state == CallerState::eDone ? results.completed : results.failed);
}

// ---- The callee ----

void SipLoad::calleeReceives(const LoadSocket::Datagram& datagram) {
  int number = 0;
  Call* const call = findCall(datagram.text, number);
  const std::string_view method = load_messages::methodOf(datagram.text);
  if (call == nullptr || call->caller == CallerState::eIdle)
    ++results.unexpected;
  else if (method == "INVITE")
    calleeReceivesInvite(number, *call, datagram);
  else if (method == "ACK")
    calleeReceivesAck(*call);
  else if (method == "BYE")
    calleeReceivesBye(number, *call, datagram);
  else
    ++results.unexpected;
}

void SipLoad::calleeReceivesInvite(int number, Call& call, const LoadSocket::Datagram& datagram) {
  if (call.callee != CalleeState::eIdle) {
    ++results.duplicates;
    if (call.callee == CalleeState::eAnswered) callee.send(call.okText, call.okDestination);
    return;
  }
  call.callee = CalleeState::eAnswered;
  call.inviteArrived = datagram.arrival;
  call.towardsCallee = load_messages::mediaAddressOf(datagram.text).port;
  call.okDestination = datagram.from;
  const std::string ringing = answer(options.run, number, datagram.text, "180 Ringing", 0);
  call.okText = answer(options.run, number, datagram.text, "200 OK", callerMediaPort(number) + 2);
  callee.send(answer(options.run, number, datagram.text, "100 Trying", 0), datagram.from);
  call.ringingSent = wallClock();
  callee.send(ringing, datagram.from);
  callee.send(call.okText, datagram.from);
  startTimer(number, TimerKind::eOk, call.ringingSent);
}

void SipLoad::calleeReceivesAck(Call& call) {
  if (call.callee == CalleeState::eAnswered) {
    call.callee = CalleeState::eConfirmed;
    call.okText = std::string();
  } else {
    ++results.duplicates;
  }
}

void SipLoad::calleeReceivesBye(int number, Call& call, const LoadSocket::Datagram& datagram) {
  if (call.callee == CalleeState::eConfirmed)
    call.callee = CalleeState::eDone;
  else
    ++(call.callee == CalleeState::eDone ? results.duplicates : results.unexpected);
  callee.send(answer(options.run, number, datagram.text, "200 OK", 0), datagram.from);
}

SipLoad::MediaPorts SipLoad::mediaPorts(int number) const {
  const Call& call = calls[static_cast<std::size_t>(number)];
  return {.callerLocal = callerMediaPort(number),
          .towardsCaller = call.towardsCaller,
          .calleeLocal = callerMediaPort(number) + 2,
          .towardsCallee = call.towardsCallee,
          .up = call.caller == CallerState::eTalking && call.callee == CalleeState::eConfirmed};
}
