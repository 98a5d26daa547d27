#include <algorithm>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "rtp/SendDatagram.h"

namespace {

constexpr const char* kFunction = "MyRtp::threadMainLoop";
constexpr suseconds_t kSelectTimeoutMicroseconds = 20'000;
// A wait that fails at once must not spin. The SIP side gives the call up at its next look after 100
// failures, within a second.
constexpr useconds_t kPauseAfterErrorMicroseconds = 1000;

struct sReceived {
  int iLength;  // below 0: nothing was received
  int iFromPort;
};

sReceived receiveDatagram(int descriptor, char* buffer) {
  sockaddr_in from;
  for (;;) {
    socklen_t size = sizeof from;
    const ssize_t length = recvfrom(descriptor, buffer, kMaxDatagramBytes, MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&from), &size);
    if (length >= 0) return {static_cast<int>(length), ntohs(from.sin_port)};
    if (errno == EINTR) continue;
    if (errno != EAGAIN) usleep(kPauseAfterErrorMicroseconds);  // the socket stays ready
    return {-1, 0};
  }
}

// A buffer of the pair's pool that goes back to it unless it was queued.
class PoolBuffer {
 public:
  PoolBuffer(MyRtp& owner, int pair, char* buffer) : rtp(owner), iPair(pair), pcBuffer(buffer) {}
  PoolBuffer(const PoolBuffer&) = delete;
  PoolBuffer& operator=(const PoolBuffer&) = delete;
  ~PoolBuffer() {
    if (pcBuffer != nullptr) rtp.returnMsgToPool(pcBuffer, iPair);
  }
  char* get() const { return pcBuffer; }

  // Hands the buffer to the queue; it stays ours when the queue is full.
  void queue(sRtpSessionPair& record, bool isRtp, int side, int length) {
    const int next = (record.iQueueWrite + 1) % kNumMessageBuffers;
    if (record.psQueue[next].pcMsg != nullptr) {
      Log::warning("MyRtp::checkFDSet", "msg cyclic buff is full for pair %d\n", record.iPairIndex);
      return;
    }
    record.iQueueWrite = next;
    record.psQueue[next] = {pcBuffer, isRtp, side, length};
    pcBuffer = nullptr;
  }

 private:
  MyRtp& rtp;
  int iPair;
  char* pcBuffer;
};

void publishInactivity(sRtpSessionPair& record, int side, std::time_t now) {
  const std::time_t seconds = now - record.tLastPacket[side];
  if (seconds > 1) record.iInactiveSeconds[side].publish(static_cast<int>(seconds));
}

void markHeard(sRtpSessionPair& record, int side, std::time_t now) {
  record.tLastPacket[side] = now;
  if (record.iInactiveSeconds[side].own() != 0) record.iInactiveSeconds[side].reset();
}

}  // namespace

void MyRtp::threadMainLoop(void* arg) {
  const int pair = *static_cast<const int*>(arg);
  try {
    while (runRound(pair)) {
    }
  } catch (...) {
    Log::error(kFunction, "exception caught");
  }
  psPairs[pair].bThreadRunning = false;
}

// One wait and what it brought. False: the thread is to end.
bool MyRtp::runRound(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  if (record.bStopRequested) return false;
  fd_set ready = record.sReadSet;
  timeval timeout{0, kSelectTimeoutMicroseconds};
  const int count = select(record.iMaxFd + 1, &ready, nullptr, nullptr, &timeout);
  if (record.bStopRequested) return false;
  if (count < 0) {
    if (errno != EINTR) countSelectError(pair);
    return true;
  }
  if (record.iSelectErrors.own() != 0) record.iSelectErrors.reset();
  if (count == 0) {
    const std::time_t now = Clock::steadyTime().tv_sec;
    for (int side = 0; side < 2; ++side) publishInactivity(record, side, now);
    return true;
  }
  checkFDSet(&ready, pair);
  return drainQueue(pair);
}

void MyRtp::countSelectError(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  const int errors = record.iSelectErrors.own();
  if (errors == 0) Log::error(kFunction, "error in select (%d) %s\n", pair, std::strerror(errno));
  record.iSelectErrors.publish(errors + 1);
  usleep(kPauseAfterErrorMicroseconds);
}

bool MyRtp::drainQueue(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  for (;;) {
    const int next = (record.iQueueRead + 1) % kNumMessageBuffers;
    sRtpQueuedMsg& slot = record.psQueue[next];
    if (slot.pcMsg == nullptr) return true;
    record.iQueueRead = next;
    const sRtpQueuedMsg message = slot;
    slot.pcMsg = nullptr;
    const PoolBuffer buffer(*this, pair, message.pcMsg);
    if (message.bIsRtp) {
      analyzeRtpMsg(message.iSide, pair, message.pcMsg, message.iLength);
    } else {
      analyzeRtcpMsg(message.iSide, pair, message.pcMsg, message.iLength);
    }
    if (record.bStopRequested) return false;
  }
}

void MyRtp::checkFDSet(const fd_set* ready, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  PerSide<bool> heard{};
  for (int side = 0; side < 2; ++side) {
    if (FD_ISSET(record.iRtpSocket[side], ready)) {
      heard[side] = true;
      if (!readRtpSocket(side, pair)) return;
    }
    if (FD_ISSET(record.iRtcpSocket[side], ready)) {
      heard[side] = true;
      if (!readRtcpSocket(side, pair)) return;
    }
  }
  const std::time_t now = Clock::steadyTime().tv_sec;
  for (int side = 0; side < 2; ++side) {
    if (heard[side]) {
      markHeard(record, side, now);
    } else {
      publishInactivity(record, side, now);
    }
  }
}

// False: nothing could be read, and this round reads no more.
bool MyRtp::readRtpSocket(int side, int pair) {
  PoolBuffer buffer(*this, pair, getMsgFromPool(pair));
  if (buffer.get() == nullptr) return false;
  const sReceived received = receiveDatagram(psPairs[pair].iRtpSocket[side], buffer.get());
  if (received.iLength < 0) return false;
  if (isNonAudioPort(side, pair, received.iFromPort)) {
    sendToNonAudioMsg(side, pair, buffer.get(), received.iLength);
  } else {
    buffer.queue(psPairs[pair], true, side, received.iLength);
  }
  return true;
}

bool MyRtp::readRtcpSocket(int side, int pair) {
  PoolBuffer buffer(*this, pair, getMsgFromPool(pair));
  if (buffer.get() == nullptr) return false;
  const sReceived received = receiveDatagram(psPairs[pair].iRtcpSocket[side], buffer.get());
  if (received.iLength < 0) return false;
  if (isNonAudioRTCPPort(side, pair, received.iFromPort)) {
    sendToNonAudioRTCPMsg(side, pair, buffer.get(), received.iLength);
  } else {
    buffer.queue(psPairs[pair], false, side, received.iLength);
  }
  return true;
}

char* MyRtp::getMsgFromPool(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  char* const buffer = record.pcFreeMsg;
  if (buffer == nullptr) {
    Log::error("MyRtp::checkFDSet", "unable to get msg from pool\n");
    return nullptr;
  }
  std::memcpy(&record.pcFreeMsg, buffer, sizeof record.pcFreeMsg);
  return buffer;
}

void MyRtp::returnMsgToPool(char* buffer, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  std::memcpy(buffer, &record.pcFreeMsg, sizeof record.pcFreeMsg);
  record.pcFreeMsg = buffer;
}

// The audio port wins where both sections name the same one.
bool MyRtp::isNonAudioPort(int side, int pair, int fromPort) const {
  const sRtpSessionPair& record = psPairs[pair];
  return record.iNonAudioPort[side] != 0 && fromPort != record.iRemoteRtpPort[side] &&
         fromPort == record.iNonAudioPort[side];
}

bool MyRtp::isNonAudioRTCPPort(int side, int pair, int fromPort) const {
  const sRtpSessionPair& record = psPairs[pair];
  return record.iNonAudioPort[side] != 0 && fromPort == record.iNonAudioPort[side] + 1;
}

void MyRtp::sendToNonAudioMsg(int side, int pair, const char* msg, int len) {
  const sRtpSessionPair& record = psPairs[pair];
  sendDatagram(record.iRtpSocket[1 - side], record.sRemoteNonAudioAddr[1 - side], msg, len);
}

void MyRtp::sendToNonAudioRTCPMsg(int side, int pair, const char* msg, int len) {
  const sRtpSessionPair& record = psPairs[pair];
  sendDatagram(record.iRtcpSocket[1 - side], record.sRemoteNonAudioRtcpAddr[1 - side], msg, len);
}
