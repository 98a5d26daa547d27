#include <algorithm>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "app/config/Log.h"
#include "rtp/MyRtp.h"

namespace {

void closeSocket(int& descriptor) {
  if (descriptor < 0) return;
  close(descriptor);  // nothing is left to shut down: a datagram socket has no peer to tell
  descriptor = -1;
}

}  // namespace

int MyRtp::findOpenPair(const char* callId1, const char* callId2) const {
  const std::string_view first = callId1;
  const std::string_view second = callId2;
  const PairIndex::Key key1 = PairIndex::keyOf(first);
  const PairIndex::Key key2 = PairIndex::keyOf(second);
  for (int pair = -1;;) {
    pair = pairIndex.find(key1, key2, pair + 1, iMaxPairIndex);
    if (pair < 0) return -1;
    for (const auto& callId : psPairs[pair].pcCallID) {
      if (callId == first || callId == second) return pair;
    }
  }
}

int MyRtp::findRtpIndex(const char* callId1, const char* callId2) {
  const int pair = findOpenPair(callId1, callId2);
  if (pair < 0) Log::error("MyRtp::findRtpIndex", "unable to find session pair\n");
  return pair;
}

int MyRtp::closeSessionPair(const char* callId1, const char* callId2) {
  const int pair = findOpenPair(callId1, callId2);
  return pair >= 0 && closePair(pair) ? pair : -1;
}

// By index, since two pairs may share a Call-ID.
void MyRtp::closeAll() {
  for (int pair = iMaxPairIndex; pair >= 0; --pair)
    if (psPairs[pair].bInUse) (void)closePair(pair);
  finishEndings();
}

bool MyRtp::closePair(int pair) {
  try {
    sRtpSessionPair& record = psPairs[pair];
    stopThread(pair);
    for (sRtpQueuedMsg& slot : record.psQueue) {
      if (slot.pcMsg != nullptr) returnMsgToPool(slot.pcMsg, pair);
      slot = {};
    }
    for (int side = 0; side < 2; ++side) closeSockets(side, pair);
    closeRecordings(pair);
    writeClosingLine(pair);
    leaveTable(pair);
    if (isLearning(pair) && endInBackground(pair)) return true;
    endPair(pair);
    pairIndex.release(pair);
    return true;
  } catch (...) {
    Log::error("MyRtp::closeSessionPair", "exception caught");
    return false;
  }
}

// A socket that is shut down becomes readable, which ends the media thread's wait at once; should it not, the
// wait ends by its time-out.
void MyRtp::stopThread(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  record.bStopRequested = true;
  if (!record.bThreadToJoin) return;
  shutdown(record.iRtpSocket[0], SHUT_RDWR);
  pthread_join(record.tThread, nullptr);
  record.bThreadToJoin = false;
}

void MyRtp::closeSockets(int side, int pair) {
  closeSocket(psPairs[pair].iRtpSocket[side]);
  closeSocket(psPairs[pair].iRtcpSocket[side]);
}

void MyRtp::leaveTable(int pair) {
  psPairs[pair].bInUse = false;
  pairIndex.retire(pair);
  while (iMaxPairIndex >= 0 && !psPairs[iMaxPairIndex].bInUse) --iMaxPairIndex;
}
