#include <algorithm>
#include <cstring>

#include "rtp/MyRtp.h"
#include "rtp/RtpHeader.h"

namespace {

// A tone that already plays is not replaced. The listener gets what arrives on `side`, in the codec that is
// sent towards the other one.
void startTone(sRtpSessionPair& record, int side, const std::array<sToneBuffer, kNumCodecValues>& tones) {
  if (record.iToneRemaining[side] > 0) return;
  const sToneBuffer& tone = tones[record.psCodecs[1 - side][0].eCodec];
  record.pucToneData[side] = tone.pcData.data();
  record.iToneRemaining[side] = tone.iLength;
}

}  // namespace

void MyRtp::playOKTone(int side, int pair) {
  startTone(psPairs[pair], side, psOKTones);
}

void MyRtp::playFailTone(int side, int pair) {
  startTone(psPairs[pair], side, psFailTones);
}

void MyRtp::addToneToRtpMsg(int side, int pair, char* msg, int len) {
  sRtpSessionPair& record = psPairs[pair];
  int& remaining = record.iToneRemaining[side];
  const int count = std::min(remaining, len - kRtpHeaderBytes);
  if (count <= 0) return;
  std::memcpy(msg + kRtpHeaderBytes, record.pucToneData[side], static_cast<std::size_t>(count));
  record.pucToneData[side] += count;
  remaining -= count;
}
