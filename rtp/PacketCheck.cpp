#include <algorithm>

#include "app/config/Log.h"
#include "common/Clock.h"
#include "rtp/MyRtp.h"
#include "rtp/RtpHeader.h"
#include "rtp/SendDatagram.h"

namespace {

constexpr const char* kFunction = "MyRtp::parseAndSendRtpMsg";
constexpr int kMaxDelayMs = 1000;  // what is later than this is no delay but a gap
constexpr int kPacketsPerDelayReference =
    3000;  // one minute of 20 ms packets: bounds the drift of the clocks

// Header features that the relay does not carry. Null when the packet has none.
const char* refusalOf(const RtpHeader& header) {
  if (header.hasPadding()) return "there is padding";
  if (header.hasExtension()) return "there is extension";
  if (header.csrcCount() != 0) return "there is contribution source";
  return nullptr;
}

void setDelayReference(sPairDelay& delay, int side, std::uint32_t timestamp, const timeval& arrival) {
  delay.uRefTimestamp[side] = timestamp;
  delay.sRefArrival[side] = arrival;
}

// By how much the packet came later than its timestamp says, against the reference packet.
void measureDelay(sPairDelay& delay, int side, std::uint32_t timestamp, const timeval& arrival,
                  int unitsPerMs) {
  const timeval& reference = delay.sRefArrival[side];
  const std::int64_t elapsedMs = ((arrival.tv_sec - reference.tv_sec) * std::int64_t{1'000'000} +
                                  (arrival.tv_usec - reference.tv_usec)) /
                                 1000;
  const std::uint32_t sentMs =
      (timestamp - delay.uRefTimestamp[side]) / static_cast<std::uint32_t>(unitsPerMs);
  const int delayMs =
      static_cast<int>(std::clamp<std::int64_t>(elapsedMs - std::int64_t{sentMs}, 0, kMaxDelayMs));
  ++delay.iDelayCount[side];
  delay.iDelaySum[side] += delayMs;
  delay.iMaxDelay[side].raiseTo(delayMs);
  if (delay.iDelayCount[side] >= kPacketsPerDelayReference) {
    setDelayReference(delay, side, timestamp, arrival);
    delay.iDelayCount[side] = 0;
  }
}

}  // namespace

int MyRtp::analyzeRtpMsg(int side, int pair, char* msg, int len) {
  try {
    (void)parseAndSendRtpMsg(side, pair, msg, len);
  } catch (...) {
    Log::error("MyRtp::analyzeRtpMsg", "exception caught");
  }
  return 0;
}

int MyRtp::analyzeRtcpMsg(int side, int pair, const char* msg, int len) {
  const sRtpSessionPair& record = psPairs[pair];
  sendDatagram(record.iRtcpSocket[1 - side], record.sRemoteRtcpAddr[1 - side], msg, len);
  return 0;
}

int MyRtp::parseAndSendRtpMsg(int side, int pair, char* msg, int len) {
  sRtpSessionPair& record = psPairs[pair];
  if (len < kRtpHeaderBytes) {
    Log::warning(kFunction, "packet is too short (%d)", len);
    return 1;
  }
  const RtpHeader header(msg);
  if (!header.isVersion2()) {
    Log::warning(kFunction, "version not 2");
    return 1;
  }
  if (header.payloadType() == record.ucTelephoneEventPT) handleTelephoneEvent(side, pair, msg, len);
  SUPPORTED_CODECS_IN_QUORVEL codec;
  if (!isValidAudioCodecOfPacket(side, pair, msg, codec)) {
    sendUnchanged(side, pair, msg, len);
    return 0;
  }
  if (const char* refusal = refusalOf(header); refusal != nullptr) {
    Log::warning(kFunction, "%s", refusal);
    return 1;
  }
  ++record.iPacketsReceived[side];
  const int seq = header.sequence();
  if (startsNewStream(side, pair, header)) {
    resynchronise(side, pair, header);
  } else {
    measureDelay(record, side, header.timestamp(), Clock::steadyTime(),
                 psCodecTiming[record.psCodecs[side][0].eCodec].iTimestampUnitsPerMs);
  }
  calcJitterStatistics(seq, side, pair);
  if (seq != record.iLastSeq[side] + 1) {
    insertToJitterBuffer(side, pair, msg, len, seq);
    if (record.iJitterCount[side] >= kJitterBufferEntries) processJitterBuffer(true, side, pair);
    return 0;
  }
  record.iLastSeq[side] = seq;
  sendProcessed(side, pair, msg, len, codec);
  processJitterBuffer(false, side, pair);
  return 0;
}

// Telephone events and comfort noise take their numbers from the stream they belong to (RFC 4733 section 2.1,
// RFC 3389 section 3): to the audio behind them they are no gap.
void MyRtp::sendUnchanged(int side, int pair, char* msg, int len) {
  sRtpSessionPair& record = psPairs[pair];
  const RtpHeader header(msg);
  addToneAndSendRtp(side, pair, msg, len);
  if (record.iLastSeq[side] == -1 || header.ssrc() != record.uSsrc[side] ||
      header.sequence() != record.iLastSeq[side] + 1) {
    return;
  }
  record.iLastSeq[side] = header.sequence();
  processJitterBuffer(false, side, pair);
}

// The first packet, another source, the start of a talk spurt, or a packet that is behind what was sent last:
// also a repeated one, and the first after the numbers wrapped round.
bool MyRtp::startsNewStream(int side, int pair, const RtpHeader& header) const {
  const sRtpSessionPair& record = psPairs[pair];
  return record.iLastSeq[side] == -1 || header.ssrc() != record.uSsrc[side] || header.hasMarker() ||
         header.sequence() - record.iLastSeq[side] < 1;
}

void MyRtp::resynchronise(int side, int pair, const RtpHeader& header) {
  sRtpSessionPair& record = psPairs[pair];
  setDelayReference(record, side, header.timestamp(), Clock::steadyTime());
  record.uSsrc[side] = header.ssrc();
  while (record.iJitterCount[side] > 0) processJitterBuffer(true, side, pair);
  record.iLastSeq[side] = header.sequence() - 1;
}

void MyRtp::sendProcessed(int side, int pair, char* msg, int len, SUPPORTED_CODECS_IN_QUORVEL codec) {
  int outLen = 0;
  processData(side, pair, msg + kRtpHeaderBytes, len - kRtpHeaderBytes, codec, outLen);
  updateCodecHeaderInRtpMsg(side, pair, msg);
  addToneAndSendRtp(side, pair, msg, outLen + kRtpHeaderBytes);
}

bool MyRtp::isValidAudioCodecOfPacket(int side, int pair, const char* msg,
                                      SUPPORTED_CODECS_IN_QUORVEL& codec) const {
  const sRtpSessionPair& record = psPairs[pair];
  const int payloadType = RtpHeader(msg).payloadType();
  for (int i = 0; i < record.iNumCodecs[side]; ++i) {
    const sCodecNegotiationList_t& entry = record.psCodecs[side][i];
    if (entry.iPayloadType != payloadType) continue;
    codec = entry.eCodec;
    return true;
  }
  return false;
}

SUPPORTED_CODECS_IN_QUORVEL MyRtp::extractCodecFromValidMsg(int side, int pair, const char* msg) const {
  SUPPORTED_CODECS_IN_QUORVEL codec = eCodecPCMU;
  if (!isValidAudioCodecOfPacket(side, pair, msg, codec)) {
    Log::error("MyRtp::extractCodecFromValidMsg", "Invalid CODEC %c", msg[1]);
  }
  return codec;
}

void MyRtp::updateCodecHeaderInRtpMsg(int side, int pair, char* msg) const {
  const int payloadType = psPairs[pair].psCodecs[1 - side][0].iPayloadType;
  if (payloadType < 0) return;  // a leg without a usable codec: nothing better to write
  msg[1] = static_cast<char>((msg[1] & 0x80) | (payloadType & 0x7F));
}

void MyRtp::addToneAndSendRtp(int side, int pair, char* msg, int len) {
  const sRtpSessionPair& record = psPairs[pair];
  addToneToRtpMsg(side, pair, msg, len);
  sendDatagram(record.iRtpSocket[1 - side], record.sRemoteRtpAddr[1 - side], msg, len);
}
