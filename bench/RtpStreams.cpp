#include "bench/RtpStreams.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <sys/epoll.h>

namespace {

constexpr Nanoseconds kPacketTime = 20 * kMillisecond;
constexpr Nanoseconds kReceiveEvery = kMillisecond;
constexpr Nanoseconds kLastPackets = 200 * kMillisecond;
constexpr std::size_t kRtpHeader = 12;  // RFC 3550 section 5.1
constexpr std::uint32_t kTimestampStep = 160;
constexpr std::uint32_t kFirstSequence = 1000;
constexpr std::size_t kRecordedPackets = 50;  // a second is enough for the correlation

void put16(char* at, std::uint32_t value) {
  at[0] = static_cast<char>(value >> 8);
  at[1] = static_cast<char>(value);
}

void put32(char* at, std::uint32_t value) {
  put16(at, value >> 16);
  put16(at + 2, value & 0xFFFF);
}

std::uint32_t get16(const char* at) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(at[0]) << 8 |
                                    static_cast<unsigned char>(at[1]));
}

void sleepUntil(Nanoseconds time) {
  const timespec until{.tv_sec = time / kSecond, .tv_nsec = time % kSecond};
  clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace

RtpStreams::RtpStreams(const std::vector<MediaCall>& calls, MediaCodec caller, MediaCodec callee)
    : poller(epoll_create1(EPOLL_CLOEXEC)) {
  for (const MediaCodec codec : {MediaCodec::ePcmu, MediaCodec::ePcma, MediaCodec::eG722})
    payloads[static_cast<int>(codec)] = signal.encoded(codec);
  for (const MediaCall& call : calls) {
    const int first = static_cast<int>(phones.size());
    const int ports[2] = {call.callerPort, call.calleePort};
    const int destinations[2] = {call.towardsCallerPort, call.towardsCalleePort};
    for (int side = 0; side < 2; ++side) {
      phones.push_back(std::make_unique<LoadSocket>(ports[side]));
      epoll_event event{.events = EPOLLIN, .data = {.u32 = static_cast<std::uint32_t>(first + side)}};
      if (epoll_ctl(poller.get(), EPOLL_CTL_ADD, phones.back()->descriptor(), &event) != 0)
        throw std::runtime_error("epoll");
      Stream stream;
      stream.from = first + side;
      stream.to = first + 1 - side;
      stream.destination = loopback(destinations[side]);
      stream.sendCodec = side == 0 ? caller : callee;
      stream.ssrc = 0x51000000U + static_cast<std::uint32_t>(first + side);
      streams.push_back(std::move(stream));
    }
  }
}

// ---- Sending ----

void RtpStreams::run(int packets, bool measured) {
  const Nanoseconds step = kPacketTime / static_cast<Nanoseconds>(streams.size());
  Nanoseconds due = std::max(nextDue, wallClock() + kMillisecond);
  Nanoseconds nextReceive = due;
  for (int packet = 0; packet < packets; ++packet) {
    for (Stream& stream : streams) {
      if (wallClock() < due) sleepUntil(due);
      sendPacket(stream, measured, due);
      due += step;
      if (wallClock() < nextReceive) continue;
      receiveAll();
      nextReceive = wallClock() + kReceiveEvery;
    }
  }
  nextDue = due;
}

void RtpStreams::sendPacket(Stream& stream, bool measured, Nanoseconds due) {
  const std::uint32_t number = stream.next++;
  forget(stream, number);
  std::array<char, kRtpHeader + kPayloadBytes> packet;
  packet[0] = static_cast<char>(0x80);
  packet[1] = static_cast<char>(payloadTypeOf(stream.sendCodec));
  put16(packet.data() + 2, kFirstSequence + number);
  put32(packet.data() + 4, kTimestampStep * number);
  put32(packet.data() + 8, stream.ssrc);
  const Payload& payload = payloads[static_cast<int>(stream.sendCodec)][number % kPacketsOfSignal];
  std::memcpy(packet.data() + kRtpHeader, payload.data(), payload.size());
  const std::uint32_t slot = number % kRemembered;
  stream.measured[slot] = measured;
  stream.sentAt[slot] = wallClock();
  if (measured) {
    results.lateness.push_back(stream.sentAt[slot] - due);
    ++results.sent;
  }
  phones[static_cast<std::size_t>(stream.from)]->send({packet.data(), packet.size()}, stream.destination);
}

// The place of a packet is taken by a later one: what has not arrived by now is lost.
void RtpStreams::forget(Stream& stream, std::uint32_t number) {
  const std::uint32_t slot = number % kRemembered;
  if (number >= kRemembered && stream.measured[slot] && !stream.arrived[slot]) ++results.lost;
  stream.measured[slot] = stream.arrived[slot] = false;
}

// ---- Receiving ----

void RtpStreams::receiveAll() {
  std::array<epoll_event, 64> ready;
  for (;;) {
    const int count = epoll_wait(poller.get(), ready.data(), static_cast<int>(ready.size()), 0);
    if (count <= 0) return;
    for (int index = 0; index < count; ++index) receiveOn(ready[static_cast<std::size_t>(index)].data.u32);
  }
}

void RtpStreams::receiveOn(std::size_t phone) {
  Stream& stream =
      streams[static_cast<std::size_t>(streams[phone].to)];  // what the other phone sends arrives here
  while (const auto datagram = phones[phone]->receive()) take(stream, *datagram);
}

void RtpStreams::take(Stream& stream, const LoadSocket::Datagram& datagram) {
  const std::string_view text = datagram.text;
  if (text.size() != kRtpHeader + kPayloadBytes ||
      (text[1] & 0x7F) != payloadTypeOf(receiveCodecOf(stream))) {
    ++results.foreign;
    return;
  }
  const std::uint32_t number = numberOf(stream, get16(text.data() + 2), datagram.arrival);
  const std::uint32_t slot = number % kRemembered;
  if (number >= stream.next || stream.next - number > kRemembered) {
    ++results.tooLate;
    return;
  }
  if (stream.arrived[slot]) {
    ++results.repeated;
    return;
  }
  stream.arrived[slot] = true;
  stream.newest = std::max(stream.newest, number);
  if (!stream.measured[slot]) return;
  ++results.received;
  results.delays.push_back(datagram.arrival - stream.sentAt[slot]);
  if (stream.from < 2) record(stream, number, text.substr(kRtpHeader));
}

// Number of our packet that a received one carries on. A relay may begin its sequence numbers anew; the first
// packet that comes back belongs to the newest one that had been sent by then.
std::uint32_t RtpStreams::numberOf(Stream& stream, std::uint32_t sequence, Nanoseconds arrival) {
  if (!stream.sequenceShift) {
    std::uint32_t number = stream.next - 1;
    while (number > 0 && stream.sentAt[number % kRemembered] > arrival) --number;
    stream.sequenceShift = sequence - number;
    stream.newest = number;
  }
  const auto ahead = static_cast<std::int16_t>(sequence - *stream.sequenceShift - stream.newest);
  return stream.newest + static_cast<std::uint32_t>(static_cast<std::int32_t>(ahead));
}

// The first second that arrives without a gap.
void RtpStreams::record(Stream& stream, std::uint32_t number, std::string_view payload) {
  if (stream.recorded.size() >= kRecordedPackets) return;
  if (number != stream.recordedFrom + stream.recorded.size()) stream.recorded.clear();
  if (stream.recorded.empty()) stream.recordedFrom = number;
  std::memcpy(stream.recorded.emplace_back().data(), payload.data(), kPayloadBytes);
}

std::optional<double> RtpStreams::shiftOf(const Stream& stream) const {
  if (stream.recorded.size() < kRecordedPackets) return std::nullopt;
  return signal.shiftOf(stream.recorded, receiveCodecOf(stream),
                        static_cast<int>(stream.recordedFrom % kPacketsOfSignal));
}

const StreamReport& RtpStreams::finish() {
  sleepUntil(wallClock() + kLastPackets);
  receiveAll();
  for (Stream& stream : streams) {
    for (std::uint32_t slot = 0; slot < kRemembered; ++slot)
      if (stream.measured[slot] && !stream.arrived[slot]) ++results.lost;
  }
  for (const auto& phone : phones) results.droppedByOwnSockets += phone->dropped();
  results.soundShiftToCallee = shiftOf(streams[0]);
  results.soundShiftToCaller = shiftOf(streams[1]);
  return results;
}
