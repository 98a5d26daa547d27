// What is left to do of a pair when its call is over: its registrations' ends and its engine channels. A
// voice is derived and stored on a thread of its own; until that has ended the slot stays taken, since the
// engine's channels go by it. The SIP thread frees it when it looks for a slot.
#include <algorithm>
#include <pthread.h>

#include "app/config/Log.h"
#include "common/FaultStack.h"
#include "rtp/MyRtp.h"

namespace {

constexpr const char* kFunction = "MyRtp::closeSessionPair";

}  // namespace

bool MyRtp::isLearning(int pair) const {
  const PerSide<bool>& registering = psPairs[pair].bRegistering;
  return registering[0] || registering[1];
}

bool MyRtp::endInBackground(int pair) {
  sRtpSessionPair& record = psPairs[pair];
  for (int side = 0; side < 2; ++side) {
    if (record.bRegistering[side]) profileWrites.begin(channelOf(side, pair), registeredProfile(side, pair));
  }
  record.bEnded = false;
  record.bEnding = createThread(pair, endingThread);
  if (!record.bEnding) Log::warning(kFunction, "unable to create thread to end pair %d\n", pair);
  return record.bEnding;
}

void* MyRtp::endingThread(void* arg) {
  const FaultStack faultStack;
  const int pair = *static_cast<const int*>(arg);
  myRtp.endPair(pair);
  myRtp.psPairs[pair].bEnded = true;
  return nullptr;
}

void MyRtp::endPair(int pair) {
  for (int side = 0; side < 2; ++side) {
    try {
      if (psPairs[pair].bRegistering[side]) doStopRegistration(side, pair);
    } catch (...) {
      Log::error(kFunction, "exception caught");
    }
    profileWrites.end(channelOf(side, pair));
    endChannels(side, pair);
  }
}

void MyRtp::endChannels(int side, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  const std::uint16_t channel = channelOf(side, pair);
  if (record.bNoiseReduction[side] && KestrovaTerminate(channel) != 0) {
    Log::warning(kFunction, "unable to terminate kestrova channel %d\n", channel);
  }
  if (record.bAecMic[side] && KestrovaAECTerminate(channel) != 0) {
    Log::warning(kFunction, "unable to terminate kestrova aec channel %d\n", channel);
  }
  record.bNoiseReduction[side] = record.bAecMic[side] = record.bAecSpk[side] = false;
}

void MyRtp::freeEnded(bool bWait) {
  if (!psPairs) return;  // an earlier initialisation found no memory
  for (int pair = 0; pair < std::min(pairIndex.size(), kPairsWithChannels); ++pair) {
    sRtpSessionPair& record = psPairs[pair];
    if (!record.bEnding || !(bWait || record.bEnded)) continue;
    pthread_join(record.tThread, nullptr);
    record.bEnding = false;
    pairIndex.release(pair);
  }
}

void MyRtp::finishEndings() {
  freeEnded(true);
}
