#include <algorithm>
#include <cstring>

#include "app/config/Log.h"
#include "rtp/MyRtp.h"

void MyRtp::insertToJitterBuffer(int side, int pair, const char* msg, int len, int seq) {
  sRtpSessionPair& record = psPairs[pair];
  int& count = record.iJitterCount[side];
  auto& entries = record.psJitter[side];
  if (count >= kJitterBufferEntries || len > kMessageBufferBytes) return;
  const auto end = entries.begin() + count;
  const auto place = std::find_if(entries.begin(), end,
                                  [seq](const sJitterBufferEntry& entry) { return entry.iSeq >= seq; });
  if (place != end && place->iSeq == seq) return;  // a duplicate
  std::move_backward(place, end, end + 1);
  std::memcpy(place->pcPacket.data(), msg, static_cast<std::size_t>(len));
  place->iLength = len;
  place->iSeq = seq;
  ++count;
}

void MyRtp::processJitterBuffer(bool force, int side, int pair) {
  sRtpSessionPair& record = psPairs[pair];
  auto& entries = record.psJitter[side];
  int& count = record.iJitterCount[side];
  while (count > 0) {
    sJitterBufferEntry& head = entries[0];
    if (head.iSeq != record.iLastSeq[side] + 1) {
      if (!force) return;
      ++record.iPacketsLost[side];
    }
    record.iLastSeq[side] = head.iSeq;
    sendBuffered(side, pair, head);
    std::move(entries.begin() + 1, entries.begin() + count, entries.begin());
    --count;
    force = false;
  }
}

// A packet that fails is lost; those behind it still have their turn.
void MyRtp::sendBuffered(int side, int pair, sJitterBufferEntry& entry) {
  try {
    char* const packet = entry.pcPacket.data();
    sendProcessed(side, pair, packet, entry.iLength, extractCodecFromValidMsg(side, pair, packet));
  } catch (...) {
    Log::error("MyRtp::processJitterBuffer", "exception caught");
  }
}
